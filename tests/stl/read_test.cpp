// STL reading: the format decision, the ASCII statement rules, non-finite
// coordinates, random access and block loads.
#include "stl/stl.h"
#include "stl_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// Facet i lies at x = i, so every facet is told apart by its coordinates.
std::vector<Facet> rampFacets(int count) {
  std::vector<Facet> facets;
  for (int i = 0; i < count; ++i) {
    const float x = static_cast<float>(i);
    facets.push_back({x, 0, 0, x + 1, 2, 0, x, 1, 3});
  }
  return facets;
}

struct Blocks {
  FacetBlock *slot[kFacetBlockMax] = {};
  int count = 0;
  ~Blocks() { freeFacetBlocks(slot, count); }
  Facet at(int ordinal) const {
    Facet facet;
    std::memcpy(facet.data(), slot[ordinal / kFacetBlockSize]->rec[ordinal % kFacetBlockSize].v, 36);
    return facet;
  }
};

Facet wireFacet(const FacetWire &wire) {
  Facet facet;
  std::memcpy(facet.data(), wire.v + 3, 36);
  return facet;
}

} // namespace

TEST(StlFormat, BinaryBySizeAloneThenAsciiByFirstWord) {
  const std::vector<Facet> one = rampFacets(1);
  std::string wrongCount = binaryStl(readBinaryFacets(dataPath("binary-header-solid.stl")), "solid x");
  wrongCount[80] = 13;
  struct Case {
    const char *what;
    std::string bytes;
    int64_t scan;
    int format;
    int probe;
  } cases[] = {
      {"84-byte file with count 0", binaryStl({}), 0, kStlBinary, kStlBinary},
      {"49 trailing bytes", binaryStl(one, "x", 0, 49), 1, kStlBinary, kStlBinary},
      {"50 trailing bytes", binaryStl(one, "x", 0, 50), -1, kStlUnknown, kStlUnknown},
      {"solid header, right count", binaryStl(one, "solid x"), 1, kStlBinary, kStlBinary},
      {"solid header, wrong count", wrongCount, -1, kStlUnknown, kStlAscii},
      {"83 bytes: no count field", std::string(83, ' '), -1, kStlUnknown, kStlUnknown},
      {"empty file", "", -2, kStlUnknown, -1},
      // Under 80 bytes the binary test cannot read a header: final for the probe only.
      {"short ASCII file", "solid a\nendsolid a\n", 0, kStlAscii, -1},
  };
  for (const Case &c : cases) {
    const std::string path = tempPath("format.stl");
    writeBytes(path, c.bytes);
    FacetBox box;
    int format = -9;
    EXPECT_EQ(stlScan(path.c_str(), &box, &format), c.scan) << c.what;
    EXPECT_EQ(format, c.format) << c.what;
    EXPECT_EQ(stlCount(path.c_str(), &format), c.scan) << c.what;
    EXPECT_EQ(stlProbeFormat(path.c_str()), c.probe) << c.what;
  }
  EXPECT_EQ(stlScan(dataPath("broken-count-field.stl").c_str(), nullptr, nullptr), -1);
  EXPECT_EQ(stlProbeFormat(dataPath("broken-count-field.stl").c_str()), kStlUnknown);
  EXPECT_EQ(stlScan(tempPath("").c_str(), nullptr, nullptr), -2) << "a directory";
  EXPECT_EQ(stlScan(tempPath("missing.stl").c_str(), nullptr, nullptr), -2);
  EXPECT_EQ(stlProbeFormat(tempPath("missing.stl").c_str()), -1);
}

TEST(StlAscii, StatementRulesDecideTheScanResult) {
  const std::string facet = asciiFacet({0, 0, 0, 1, 0, 0, 0, 1, 0});
  const std::string upper =
      "FACET NORMAL 0 0 1\nOUTER LOOP\nVERTEX 0 0 0\nVERTEX 1 0 0\nVERTEX 0 1 0\nENDLOOP\nENDFACET\n";
  const std::string mixed =
      "FACET normal 0 0 1\nouter LOOP\nVERTEX 0 0 0\nvertex 1 0 0\nVERTEX 0 1 0\nendloop\nENDFACET\n";
  std::string cut = facet.substr(0, facet.find(" endloop"));
  std::string vertexLine = "  vertex 1 0 0";
  std::string padded254 = facet, padded255 = facet, joined = facet;
  padded254.replace(padded254.find(vertexLine), vertexLine.size(), vertexLine + std::string(240, ' '));
  padded255.replace(padded255.find(vertexLine), vertexLine.size(), vertexLine + std::string(241, ' '));
  // "outer loop" filling a whole 255-character piece: the vertex behind it on the
  // same line arrives as the next piece and reads as its own statement.
  joined.replace(joined.find(" outer loop\n"), 12, " outer loop" + std::string(244, ' '));
  const std::string longWord(200, 'w');
  struct Case {
    std::string text;
    int64_t count;
  } cases[] = {
      {"solid a\n" + facet + "endsolid a\n", 1},
      {"SOLID\n" + upper + "ENDSOLID\n", 1},
      {"solid\n" + mixed, 1},
      {"solid\nFacet normal 0 0 1\n", -1},
      {"solidbody\n" + facet, -1},
      {"solid\n" + facet + "\n" + facet, -1},
      {"solid\n" + facet + "endsolid\n\n", -1},
      {"solid\n" + facet + "endsolid part 1 2 3\n", -1},
      {"solid\n" + facet + "endsolid part\n", 1},
      {"solid\n" + facet + "end solid\n" + facet, 2},
      {"solid\n" + facet + "END SOLID\n", 1},
      {"solid\n" + facet + "end SOLID\n", 1},
      {"solid\n" + facet + "End Solid\n", -1},
      {"solid\n" + facet + "end\n", -1},
      {"solid\n" + facet + "solid again\n" + facet, -1},
      {"solid\n" + cut, -2},
      {"solid\nfacet normal 0 0\n", -1},
      {"solid\n" + padded254, 1},
      {"solid\n" + padded255, -1},
      {"solid\n" + joined, 1},
      {"solid " + std::string(300, 'n') + "\n" + facet, -1},
      {longWord + "\n" + facet, -1},
      {"solid\n" + longWord + " normal 0 0 1\n", -1},
      {"solid\nendsolid" + longWord + "\n", -1},
      {"solid\n" + facet + "endsolid " + longWord + "\n", 1},
      {"solid\n", 0},
  };
  for (const Case &c : cases) {
    const std::string path = tempPath("rules.stl");
    writeBytes(path, c.text);
    int format;
    EXPECT_EQ(stlScan(path.c_str(), nullptr, &format), c.count) << c.text;
    EXPECT_EQ(stlCount(path.c_str(), &format), c.count) << c.text;
    Blocks blocks;
    EXPECT_EQ(stlLoadBlocks(path.c_str(), blocks.slot, &blocks.count), c.count) << c.text;
    EXPECT_EQ(blocks.count, c.count > 0 ? 1 : 0);
  }
}

TEST(StlRead, NonFiniteVertexIsMalformedNonFiniteNormalIsDropped) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  const float inf = std::numeric_limits<float>::infinity();
  const std::string path = tempPath("nonfinite.stl");
  for (float bad : {nan, inf, -inf}) {
    for (int coordinate : {0, 4, 8}) {
      std::vector<Facet> facets = rampFacets(5);
      facets[3][coordinate] = bad;
      writeBytes(path, binaryStl(facets));
      EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), -1);
      EXPECT_EQ(stlCount(path.c_str(), nullptr), 5) << "the count reads no records";
      Blocks blocks;
      EXPECT_EQ(stlLoadBlocks(path.c_str(), blocks.slot, &blocks.count), -1);
      EXPECT_EQ(blocks.count, 0);
      int count = 5;
      EXPECT_EQ(readFacetKeys(path.c_str(), 0, &count, nullptr), nullptr);
      EXPECT_EQ(count, -1);
      int64_t status;
      FILE *file = stlOpenBinary(path.c_str(), &status);
      int position = -1;
      FacetWire wire;
      EXPECT_EQ(stlReadFacetAt(file, kStlBinary, 2, &position, &wire), 0);
      EXPECT_EQ(stlReadFacetAt(file, kStlBinary, 3, &position, &wire), -1);
      EXPECT_EQ(position, -1);
      std::fclose(file);
    }
  }
  writeBytes(path, binaryStl(rampFacets(5), "x", 0, 0, nan));
  EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 5);
  const std::string facet = asciiFacet({0, 0, 0, 1, 0, 0, 0, 1, 0});
  for (const char *word : {"nan", "inf", "-infinity", "1e39"}) {
    std::string text = "solid\n" + facet;
    text.replace(text.find("vertex 1 0 0"), 12, std::string("vertex 1 ") + word + " 0");
    writeBytes(path, text);
    EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), -1) << word;
    text = "solid\n" + facet;
    text.replace(text.find("normal 0 0 1"), 12, std::string("normal 0 ") + word + " 1");
    writeBytes(path, text);
    EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 1) << word;
  }
}

TEST(StlRead, ScanBoxMatchesBruteForce) {
  std::vector<Facet> falling = rampFacets(50);
  std::reverse(falling.begin(), falling.end());
  falling[20] = {-7, 9, -1, 3, -8, 12, 0, 0, -30};
  writeBytes(tempPath("falling.stl"), binaryStl(falling));
  writeBytes(tempPath("falling-ascii.stl"), asciiStl(falling));
  for (const std::string &path : {dataPath("bunny.stl"), dataPath("unitCube.stl"),
                                  tempPath("falling.stl"), tempPath("falling-ascii.stl")}) {
    const std::vector<Facet> facets = path.find("ascii") != std::string::npos ? falling
                                                                              : readBinaryFacets(path);
    float low[3], high[3];
    std::fill(low, low + 3, std::numeric_limits<float>::max());
    std::fill(high, high + 3, std::numeric_limits<float>::lowest());
    for (const Facet &facet : facets) {
      for (int i = 0; i < 9; ++i) {
        low[i % 3] = std::min(low[i % 3], facet[i]);
        high[i % 3] = std::max(high[i % 3], facet[i]);
      }
    }
    FacetBox box;
    ASSERT_EQ(stlScan(path.c_str(), &box, nullptr), static_cast<int64_t>(facets.size())) << path;
    for (int i = 0; i < 3; ++i) {
      EXPECT_EQ(box.v[i], low[i]) << path;
      EXPECT_EQ(box.v[3 + i], high[i]) << path;
    }
    Blocks blocks;
    FacetBox fromBlocks;
    const int count = stlLoadBlocks(path.c_str(), blocks.slot, &blocks.count);
    EXPECT_EQ(facetBoxOfBlocks(blocks.slot, count, &fromBlocks), count);
    EXPECT_EQ(std::memcmp(&box, &fromBlocks, sizeof box), 0) << path;
  }
}

TEST(StlRead, RandomAccessForwardsBackwardsAndAfterFailure) {
  std::vector<Facet> facets = rampFacets(40);
  // Facets after the terminator still count.
  std::string text = asciiStl(std::vector<Facet>(facets.begin(), facets.begin() + 25));
  for (int i = 25; i < 40; ++i) {
    text += asciiFacet(facets[i]);
  }
  writeBytes(tempPath("access.stl"), binaryStl(facets));
  writeBytes(tempPath("access-ascii.stl"), text);
  std::vector<int> order;
  for (int i = 0; i < 40; ++i) {
    order.push_back(i);
  }
  for (int i = 39; i >= 0; --i) {
    order.push_back(i);
  }
  for (int i : {7, 7, 30, 3, 39, 0, 38, 12}) {
    order.push_back(i);
  }
  for (int format : {kStlBinary, kStlAscii}) {
    const std::string path = tempPath(format == kStlBinary ? "access.stl" : "access-ascii.stl");
    int64_t binaryStatus;
    int asciiStatus;
    FILE *file = format == kStlBinary ? stlOpenBinary(path.c_str(), &binaryStatus)
                                      : stlOpenAscii(path.c_str(), &asciiStatus);
    ASSERT_NE(file, nullptr);
    int position = -1;
    FacetWire wire;
    for (int ordinal : order) {
      ASSERT_EQ(stlReadFacetAt(file, format, ordinal, &position, &wire), 0) << ordinal;
      EXPECT_EQ(wireFacet(wire), facets[ordinal]) << ordinal;
      EXPECT_EQ(position, ordinal + 1);
    }
    EXPECT_EQ(stlReadFacetAt(file, format, 40, &position, &wire), -1);
    EXPECT_EQ(position, -1);
    EXPECT_EQ(stlReadFacetAt(file, format, -1, &position, &wire), -1);
    EXPECT_EQ(stlReadFacetAt(file, format, 5, &position, &wire), 0);
    EXPECT_EQ(wireFacet(wire), facets[5]);
    std::fclose(file);
  }
}

TEST(StlLoad, BlocksFillAcrossTheBorderInBothFormats) {
  const std::vector<Facet> facets = rampFacets(kFacetBlockSize + 1);
  writeBytes(tempPath("border.stl"), binaryStl(facets));
  std::vector<Facet> exact(facets.begin(), facets.end() - 1);
  writeBytes(tempPath("exact.stl"), binaryStl(exact));
  std::string text = "solid\n";
  for (const Facet &f : facets) {
    char line[160];
    std::snprintf(line, sizeof line,
                  "facet normal 0 0 0\nouter loop\nvertex %.9g 0 0\nvertex %.9g 2 0\nvertex %.9g 1 "
                  "3\nendloop\nendfacet\n",
                  f[0], f[3], f[6]);
    text += line;
  }
  writeBytes(tempPath("border-ascii.stl"), text);
  for (const char *leaf : {"exact.stl", "border.stl", "border-ascii.stl"}) {
    const int expected = leaf[0] == 'e' ? kFacetBlockSize : kFacetBlockSize + 1;
    Blocks blocks;
    ASSERT_EQ(stlLoadBlocks(tempPath(leaf).c_str(), blocks.slot, &blocks.count), expected) << leaf;
    EXPECT_EQ(blocks.count, expected > kFacetBlockSize ? 2 : 1) << leaf;
    for (int ordinal : {0, kFacetBlockSize - 1, expected - 1}) {
      EXPECT_EQ(blocks.at(ordinal), facets[ordinal]) << leaf << " " << ordinal;
    }
  }
}

// Sparse files: sizes of 2 GiB and more without using the disk.
TEST(StlRead, HugeBinaryFilesUseSixtyFourBitSizesAndOffsets) {
  const std::string path = tempPath("huge.stl");
  for (int64_t facets : {int64_t{kFacetLoadLimit} + 1, int64_t{100000000}}) {
    std::string head(80, 'h');
    appendU32(&head, static_cast<uint32_t>(facets));
    writeBytes(path, head);
    ASSERT_EQ(truncate(path.c_str(), 84 + facets * 50), 0);
    int format;
    EXPECT_EQ(stlCount(path.c_str(), &format), facets);
    EXPECT_EQ(format, kStlBinary);
    Blocks blocks;
    EXPECT_EQ(stlLoadBlocks(path.c_str(), blocks.slot, &blocks.count), -2);
    EXPECT_EQ(blocks.count, 0);
    int64_t status;
    FILE *file = stlOpenBinary(path.c_str(), &status);
    int position = -1;
    FacetWire wire;
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, static_cast<int>(facets - 1), &position, &wire), 0);
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, 1, &position, &wire), 0);
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, static_cast<int>(facets), &position, &wire), -1);
    std::fclose(file);
  }
}
