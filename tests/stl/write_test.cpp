// File-level writing: the exact header, the provisional count and its patch.
#include "stl/stl.h"
#include "stl_files.h"

#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace {

std::string fileBytes(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream bytes;
  bytes << in.rdbuf();
  return bytes.str();
}

} // namespace

TEST(StlWrite, BinaryHeaderIsExactAndThePatchedCountIsRead) {
  const std::string path = tempPath("written.stl");
  FILE *file = stlCreateBinary(path.c_str(), 0xDEADBEEF);
  ASSERT_NE(file, nullptr);
  std::fclose(file);
  std::string expected =
      " ---   QUAY VANE Fabrications SE   ---              <binary stl-data>          ";
  expected.push_back('\0');
  appendU32(&expected, 0xDEADBEEF);
  EXPECT_EQ(fileBytes(path), expected);

  file = stlCreateBinary(path.c_str(), 7);
  const std::vector<Facet> facets = {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 0, 0, 1, 1, 1, 2, 2, 2}};
  const std::string records = binaryStl(facets).substr(84);
  std::fwrite(records.data(), 1, records.size(), file);
  EXPECT_EQ(stlPatchCount(2, file), 0);
  std::fclose(file);
  const std::string written = fileBytes(path);
  EXPECT_EQ(written.size(), 84u + 100u);
  EXPECT_EQ(written.substr(0, 80), expected.substr(0, 80));
  EXPECT_EQ(readBinaryFacets(path), facets);
  int format;
  EXPECT_EQ(stlScan(path.c_str(), nullptr, &format), 2);
  EXPECT_EQ(format, kStlBinary);

  file = stlCreateBinary(path.c_str(), 5);
  EXPECT_EQ(stlPatchCount(0, file), 0);
  std::fclose(file);
  EXPECT_EQ(stlScan(path.c_str(), nullptr, &format), 0);
  EXPECT_EQ(format, kStlBinary);
}

TEST(StlWrite, AsciiFirstLineAndFailures) {
  const std::string path = tempPath("written-ascii.stl");
  FILE *file = stlCreateAscii(path.c_str());
  ASSERT_NE(file, nullptr);
  std::fputs("endsolid\n", file);
  std::fclose(file);
  EXPECT_EQ(fileBytes(path), "solid ascii\nendsolid\n");
  EXPECT_EQ(stlCount(path.c_str(), nullptr), 0);
  EXPECT_EQ(stlCreateBinary(tempPath("no/such/dir.stl").c_str(), 0), nullptr);
  EXPECT_EQ(stlCreateAscii(tempPath("no/such/dir.stl").c_str()), nullptr);
  EXPECT_EQ(stlPatchCount(1, nullptr), -1);
}
