// The reduction drivers end to end on closed tetrahedra, which no engine can
// thin: block borders, identical routes, chain order, what the counts mean,
// and which failure leaves which file.
#include "front/front.h"
#include "stl/stl_files.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>

namespace {

using Method = int (*)(const char *, const char *, double, const double *, int32_t *);

// The records of a finished output, whose header count must equal them.
std::vector<Facet> checkedOutput(const std::string &path) {
  const std::vector<Facet> facets = readBinaryFacets(path);
  EXPECT_EQ(countField(path), static_cast<int64_t>(facets.size())) << path;
  EXPECT_EQ(fileBytes(path).size(), 84 + 50 * facets.size()) << path;
  return facets;
}

std::vector<Facet> sorted(std::vector<Facet> facets) {
  std::sort(facets.begin(), facets.end());
  return facets;
}

// 500,001 facets, partly in reverse file order: the first block holds the
// 500,000 first by (key, ordinal), the second the one left, and both routes
// write the same bytes.
TEST(Drivers, BothRoutesSplitBlocksAt500000AndWriteIdenticalFiles) {
  std::vector<Facet> facets = tetrahedra(500001);
  std::reverse(facets.begin() + 200000, facets.end());
  std::vector<Facet> order = facets;
  std::stable_sort(order.begin(), order.end(), [](const Facet &a, const Facet &b) {
    return std::min({a[0], a[3], a[6]}) < std::min({b[0], b[3], b[6]});
  });
  const std::string input = tempPath("routes.stl");
  writeBytes(input, binaryStl(facets));
  FacetBox box;
  ASSERT_EQ(stlScan(input.c_str(), &box, nullptr), 500001);
  const std::string memory = tempPath("memory.stl"), streamed = tempPath("streamed.stl");
  EXPECT_EQ(reduceInMemory(input.c_str(), memory.c_str(), kMethodMedium, nullptr, 0.1, nullptr, 500001), 0);
  EXPECT_EQ(reduceStreamed(input.c_str(), streamed.c_str(), kMethodMedium, &box, 0.1, nullptr, 500001), 0);
  EXPECT_EQ(fileBytes(memory), fileBytes(streamed));
  // The streamed route reads its input while it writes: it refuses to write over it.
  EXPECT_EQ(reduceStreamed(input.c_str(), input.c_str(), kMethodMedium, &box, 0.1, nullptr, 500001), -1);
  EXPECT_EQ(countField(input), 500001);
  const std::vector<Facet> written = checkedOutput(memory);
  ASSERT_EQ(written.size(), order.size());
  EXPECT_EQ(sorted({written.begin(), written.end() - 1}), sorted({order.begin(), order.end() - 1}));
  EXPECT_EQ(written.back(), order.back());
}

// Facets that assembly drops (one degenerate, one doubled) count as removed on
// the block routes and in neither figure on reduceHigh. Nothing left to reduce
// fails a block route without an output, and gives reduceHigh an empty file.
TEST(Drivers, CountsAndFailuresPerMethod) {
  std::vector<Facet> dropped = tetrahedron(0);
  dropped.push_back({0, 0, 0, 1, 1, 1, 0, 0, 0});
  dropped.push_back(dropped[1]);
  const std::vector<Facet> degenerate(3, Facet{0, 0, 0, 1, 1, 1, 0, 0, 0});
  const struct {
    std::string bytes;
    Method method;
    int result, old;
    size_t records; // 9: no output file
  } cases[] = {
      {binaryStl(dropped), reduceMedium, 2, 6, 4},  {binaryStl(dropped), reduceHigh, 0, 4, 4},
      {binaryStl({}), reduceLow, -1, 0, 9},         {binaryStl({}), reduceMedium, -1, 0, 9},
      {binaryStl(degenerate), reduceMedium, -1, 3, 9}, {binaryStl(degenerate), reduceHigh, 0, 0, 0},
      {"solid empty\nendsolid empty\n", reduceHigh, 0, 0, 0},
  };
  const std::string input = tempPath("case.stl"), output = tempPath("case-out.stl");
  for (const auto &c : cases) {
    writeBytes(input, c.bytes);
    std::remove(output.c_str());
    int32_t old = -1;
    EXPECT_EQ(c.method(input.c_str(), output.c_str(), 0.1, nullptr, &old), c.result) << &c - cases;
    EXPECT_EQ(old, c.old) << &c - cases;
    EXPECT_EQ(access(output.c_str(), F_OK) == 0 ? checkedOutput(output).size() : 9, c.records) << &c - cases;
  }
}

// A binary file whose header states more facets than the block methods take
// is refused from its header: a sparse file of 100,000,001 records (5 GB on
// paper, nothing on disk) fails with next to nothing read.
TEST(Drivers, BlockMethodsRefuseAnOverLongBinaryFileBeforeReadingIt) {
  const std::string input = tempPath("huge.stl"), output = tempPath("huge-out.stl");
  std::string head = binaryStl({});
  head[80] = '\x01', head[81] = '\xe1', head[82] = '\xf5', head[83] = '\x05'; // 100,000,001
  writeBytes(input, head);
  std::filesystem::resize_file(input, 84 + 50 * uint64_t{100000001});
  auto bytesRead = [] {
    std::ifstream io("/proc/self/io");
    std::string key;
    for (long long value; io >> key >> value;)
      if (key == "rchar:") return value;
    return -1LL;
  };
  for (Method method : {reduceLow, reduceMedium}) {
    const long long before = bytesRead();
    int32_t old = -1;
    EXPECT_EQ(method(input.c_str(), output.c_str(), 0.1, nullptr, &old), -1);
    EXPECT_EQ(old, 0);
    EXPECT_LT(bytesRead() - before, 1 << 20);
    EXPECT_FALSE(std::filesystem::exists(output));
  }
  std::filesystem::remove(input);
}

} // namespace
