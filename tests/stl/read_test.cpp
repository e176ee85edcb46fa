// STL reading: the format decision, the ASCII statement rules, non-finite
// coordinates, the scanned box, block loads and 64-bit offsets.
#include "stl_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <limits>
#include <unistd.h>

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
  const std::string path = tempPath("format.stl");
  for (const Case &c : cases) {
    writeBytes(path, c.bytes);
    int format = -9;
    EXPECT_EQ(stlScan(path.c_str(), nullptr, &format), c.scan) << c.what;
    EXPECT_EQ(format, c.format) << c.what;
    EXPECT_EQ(stlCount(path.c_str(), &format), c.scan) << c.what;
    EXPECT_EQ(stlProbeFormat(path.c_str()), c.probe) << c.what;
  }
  EXPECT_EQ(stlScan(tempPath("").c_str(), nullptr, nullptr), -2) << "a directory";
  EXPECT_EQ(stlProbeFormat(tempPath("missing.stl").c_str()), -1);
}

// Scan, count and load must all give the expected count or status.
TEST(StlAscii, StatementRulesDecideEveryPass) {
  const std::string facet = asciiFacet({0, 0, 0, 1, 0, 0, 0, 1, 0});
  auto with = [&facet](const std::string &from, const std::string &to) {
    std::string text = facet;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string upper =
      "FACET NORMAL 0 0 1\nOUTER LOOP\nVERTEX 0 0 0\nVERTEX 1 0 0\nVERTEX 0 1 0\nENDLOOP\nENDFACET\n";
  const std::string longWord(200, 'w');
  struct Case {
    std::string text;
    int64_t count;
  } cases[] = {
      {"solid a\n" + facet + "endsolid a\n", 1},
      {"SOLID\n" + upper + "ENDSOLID\n", 1},
      {"solid\n" + with("facet", "Facet"), -1},
      {"solid\n" + facet + "endsolid\n\n", -1},
      {"solid\n" + facet + "end solid\n" + facet, 2},
      {"solid\n" + facet + "solid again\n" + facet, -1},
      {"solid\n" + facet.substr(0, facet.find(" endloop")), -2},
      {"solid\nfacet normal 0 0\n", -1},
      {"solid\n", 0},
      // Lines are fgets pieces of at most 255 characters.
      {"solid\n" + with("vertex 1 0 0", "vertex 1 0 0" + std::string(240, ' ')), 1},
      {"solid\n" + with("vertex 1 0 0", "vertex 1 0 0" + std::string(241, ' ')), -1},
      {longWord + "\n" + facet, -1},
      // Whatever %f takes, but a vertex must be finite; a normal is dropped.
      {"solid\n" + with("vertex 1 0 0", "vertex 0x1p3 -0 1e-3"), 1},
      {"solid\n" + with("vertex 1 0 0", "vertex 1 nan 0"), -1},
      {"solid\n" + with("normal 0 0 1", "normal nan inf 1e39"), 1},
  };
  const std::string path = tempPath("rules.stl");
  for (const Case &c : cases) {
    writeBytes(path, c.text);
    EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), c.count) << c.text;
    EXPECT_EQ(stlCount(path.c_str(), nullptr), c.count) << c.text;
    Blocks blocks;
    EXPECT_EQ(blocks.load(path), c.count) << c.text;
    EXPECT_EQ(blocks.count, c.count > 0 ? 1 : 0);
  }
}

TEST(StlRead, NonFiniteBinaryVertexIsMalformedOnEveryFirstPass) {
  const float inf = std::numeric_limits<float>::infinity();
  const std::string path = tempPath("nonfinite.stl");
  for (auto [bad, coordinate] : {std::pair{std::numeric_limits<float>::quiet_NaN(), 0},
                                 std::pair{inf, 4}, std::pair{-inf, 8}}) {
    std::vector<Facet> facets = rampFacets(5);
    facets[3][coordinate] = bad;
    writeBytes(path, binaryStl(facets));
    EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), -1);
    EXPECT_EQ(stlCount(path.c_str(), nullptr), 5) << "the count reads no records";
    Blocks blocks;
    EXPECT_EQ(blocks.load(path), -1);
    int count = 5;
    EXPECT_EQ(readFacetKeys(path.c_str(), 0, &count, nullptr), nullptr);
    EXPECT_EQ(count, -1);
  }
  writeBytes(path, binaryStl(rampFacets(5), "x", 0, 0, std::numeric_limits<float>::quiet_NaN()));
  EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 5) << "normals are dropped unread";
}

// The box starts from the first vertex, not from zero or an infinity.
TEST(StlRead, ScannedBoxMatchesBruteForce) {
  std::vector<Facet> falling = rampFacets(50);
  std::reverse(falling.begin(), falling.end());
  falling[20] = {-7, 9, -1, 3, -8, 12, 0, 0, -30};
  writeBytes(tempPath("falling.stl"), asciiStl(falling));
  for (const std::string &path : {dataPath("bunny.stl"), dataPath("unitCube.stl"), tempPath("falling.stl")}) {
    const std::vector<Facet> facets = path == tempPath("falling.stl") ? falling : readBinaryFacets(path);
    FacetBox expected = {{facets[0][0], facets[0][1], facets[0][2], facets[0][0], facets[0][1], facets[0][2]}};
    for (const Facet &facet : facets) {
      for (int i = 0; i < 9; ++i) {
        expected.v[i % 3] = std::min(expected.v[i % 3], facet[i]);
        expected.v[3 + i % 3] = std::max(expected.v[3 + i % 3], facet[i]);
      }
    }
    FacetBox box, fromBlocks;
    ASSERT_EQ(stlScan(path.c_str(), &box, nullptr), static_cast<int64_t>(facets.size())) << path;
    EXPECT_EQ(std::memcmp(&box, &expected, sizeof box), 0) << path;
    Blocks blocks;
    const int count = blocks.load(path);
    EXPECT_EQ(facetBoxOfBlocks(blocks.slot, count, &fromBlocks), count);
    EXPECT_EQ(std::memcmp(&box, &fromBlocks, sizeof box), 0) << path;
  }
}

TEST(StlLoad, BlocksFillAcrossTheBorderInBothFormats) {
  const std::vector<Facet> facets = rampFacets(kFacetBlockSize + 1);
  writeBytes(tempPath("exact.stl"), binaryStl(std::vector<Facet>(facets.begin(), facets.end() - 1)));
  writeBytes(tempPath("border.stl"), binaryStl(facets));
  writeBytes(tempPath("border-ascii.stl"), asciiStl(facets));
  for (const char *leaf : {"exact.stl", "border.stl", "border-ascii.stl"}) {
    const int expected = leaf[0] == 'e' ? kFacetBlockSize : kFacetBlockSize + 1;
    Blocks blocks;
    ASSERT_EQ(blocks.load(tempPath(leaf)), expected) << leaf;
    EXPECT_EQ(blocks.count, expected > kFacetBlockSize ? 2 : 1) << leaf;
    for (int ordinal : {0, kFacetBlockSize - 1, expected - 1}) {
      EXPECT_EQ(blocks.at(ordinal), facets[ordinal]) << leaf << " " << ordinal;
    }
  }
}

// Sparse files reach 2 GiB and more without using the disk.
TEST(StlRead, HugeBinaryFilesUseSixtyFourBitSizesAndOffsets) {
  const std::string path = tempPath("huge.stl");
  for (int facets : {kFacetLoadLimit + 1, kFacetKeyLimit}) {
    std::string head(80, 'h');
    appendWord(&head, static_cast<uint32_t>(facets));
    writeBytes(path, head);
    ASSERT_EQ(truncate(path.c_str(), 84 + int64_t{facets} * 50), 0);
    int format;
    EXPECT_EQ(stlCount(path.c_str(), &format), facets);
    EXPECT_EQ(format, kStlBinary);
    Blocks blocks;
    EXPECT_EQ(blocks.load(path), -2) << "over the block limit, refused before reading";
    int64_t status;
    FILE *file = stlOpenBinary(path.c_str(), &status);
    int position = -1;
    FacetWire wire;
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, facets - 1, &position, &wire), 0);
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, 1, &position, &wire), 0);
    EXPECT_EQ(stlReadFacetAt(file, kStlBinary, facets, &position, &wire), -1);
    std::fclose(file);
  }
}
