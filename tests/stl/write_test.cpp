// File-level writing: the exact header, the provisional count and its patch,
// the ASCII first line, and the refusals.
#include "stl_files.h"

#include <gtest/gtest.h>

TEST(StlWrite, ExactHeadersPatchedCountAndFailures) {
  const std::string path = tempPath("written.stl");
  std::string header = " ---   QUAY VANE Fabrications SE   ---              <binary stl-data>          ";
  header.push_back('\0');
  std::string expected = header;
  appendWord(&expected, 0xDEADBEEF);
  std::fclose(stlCreateBinary(path.c_str(), 0xDEADBEEF));
  EXPECT_EQ(fileBytes(path), expected);

  FILE *file = stlCreateBinary(path.c_str(), 7);
  const std::vector<Facet> facets = {{1, 2, 3, 4, 5, 6, 7, 8, 9}, {0, 0, 0, 1, 1, 1, 2, 2, 2}};
  const std::string records = binaryStl(facets).substr(84);
  std::fwrite(records.data(), 1, records.size(), file);
  EXPECT_EQ(stlPatchCount(2, file), 0);
  std::fclose(file);
  EXPECT_EQ(fileBytes(path).substr(0, 80), header);
  EXPECT_EQ(readBinaryFacets(path), facets);
  int format;
  EXPECT_EQ(stlScan(path.c_str(), nullptr, &format), 2);
  EXPECT_EQ(format, kStlBinary);

  const std::string ascii = tempPath("written-ascii.stl");
  std::fclose(stlCreateAscii(ascii.c_str()));
  EXPECT_EQ(fileBytes(ascii), "solid ascii\n");
  EXPECT_EQ(stlCreateBinary(tempPath("no/such/dir.stl").c_str(), 0), nullptr);
  EXPECT_EQ(stlCreateAscii(tempPath("no/such/dir.stl").c_str()), nullptr);
  EXPECT_EQ(stlPatchCount(1, nullptr), -1);
}
