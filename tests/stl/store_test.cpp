// Facet store: the axis choice, and the pointer and key orders against a
// reference stable sort with the plain "smallest coordinate" comparator.
#include "stl/stl.h"
#include "stl_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

namespace {

// Facets whose keys on every axis come from a few values, many of them tied,
// minus zero among them; the key sits at a different corner from facet to facet.
std::vector<Facet> tiedFacets(int count) {
  std::vector<Facet> facets;
  const float values[] = {3.5f, -0.0f, 0.0f, -2.25f, 3.5f, 1e-30f, -1e30f};
  for (int i = 0; i < count; ++i) {
    Facet facet;
    for (int c = 0; c < 9; ++c) {
      facet[c] = 100.0f + static_cast<float>((i * 7 + c) % 11);
    }
    for (int axis = 0; axis < 3; ++axis) {
      facet[3 * ((i + axis) % 3) + axis] = values[(i * (axis + 2) / 3) % 7];
    }
    facets.push_back(facet);
  }
  return facets;
}

std::vector<int> referenceOrder(const std::vector<Facet> &facets, int axis) {
  std::vector<int> order(facets.size());
  std::iota(order.begin(), order.end(), 0);
  auto key = [&](int i) {
    const Facet &f = facets[i];
    return std::min({f[axis], f[3 + axis], f[6 + axis]});
  };
  std::stable_sort(order.begin(), order.end(), [&](int a, int b) { return key(a) < key(b); });
  return order;
}

int ordinalOf(FacetBlock *const *blocks, const FacetRec *rec) {
  for (int b = 0;; ++b) {
    if (rec >= blocks[b]->rec && rec < blocks[b]->rec + kFacetBlockSize) {
      return b * kFacetBlockSize + static_cast<int>(rec - blocks[b]->rec);
    }
  }
}

} // namespace

TEST(FacetStore, SortAxisTakesStrictlyLongerExtentsOnly) {
  struct Case {
    FacetBox box;
    int axis;
  } cases[] = {
      {{{0, 0, 0, 2, 2, 1}}, 0},   // x and y tie: the earlier axis
      {{{0, 0, 0, 1, 3, 3}}, 1},   // y and z tie above x
      {{{5, 5, 5, 5, 5, 5}}, 0},   // flat: no positive extent
      {{{-1, -1, -9, 0, 0, 0}}, 2}, // z longest
      {{{4, 0, 0, 1, -2, -3}}, 0}, // inverted box: every extent negative
  };
  for (const Case &c : cases) {
    EXPECT_EQ(facetSortAxis(&c.box), c.axis);
  }
}

// Both routes and both formats must give the reference order, ties by ordinal,
// on the comparison path (short tables) and the radix path (long ones).
TEST(FacetStore, PointerAndKeyOrdersAgreeWithReferenceAndBreakTiesByOrdinal) {
  for (int count : {300, 5000}) {
    const std::vector<Facet> facets = tiedFacets(count);
    writeBytes(tempPath("tied.stl"), binaryStl(facets));
    writeBytes(tempPath("tied-ascii.stl"), asciiStl(facets));
    for (const char *leaf : {"tied.stl", "tied-ascii.stl"}) {
      const std::string path = tempPath(leaf);
      FacetBlock *blocks[kFacetBlockMax] = {};
      int blockCount = 0;
      ASSERT_EQ(stlLoadBlocks(path.c_str(), blocks, &blockCount), count);
      for (int axis = 0; axis < 3; ++axis) {
        const std::vector<int> expected = referenceOrder(facets, axis);
        FacetRec **table = sortFacetPointers(blocks, count, axis);
        ASSERT_NE(table, nullptr);
        int keyCount = leaf[4] == '.' ? count : -1;
        int format = -9;
        FacetKey *keys = readFacetKeys(path.c_str(), axis, &keyCount, &format);
        ASSERT_NE(keys, nullptr);
        EXPECT_EQ(keyCount, count);
        EXPECT_EQ(format, leaf[4] == '.' ? kStlBinary : kStlAscii);
        EXPECT_EQ(sortFacetKeys(keys, count), count);
        for (int i = 0; i < count; ++i) {
          ASSERT_EQ(ordinalOf(blocks, table[i]), expected[i]) << leaf << " axis " << axis;
          ASSERT_EQ(keys[i].ordinal, expected[i]) << leaf << " axis " << axis;
        }
        std::free(table);
        std::free(keys);
      }
      freeFacetBlocks(blocks, blockCount);
      EXPECT_EQ(blocks[0], nullptr);
    }
  }
}

TEST(FacetStore, SortFacetKeysOrdersAnyTableByKeyThenOrdinal) {
  for (int count : {0, 1, 2, 50, 3000}) {
    std::vector<FacetKey> keys;
    for (int i = 0; i < count; ++i) {
      const int ordinal = (i * 7919) % (count + 13) - 6;
      keys.push_back({ordinal, static_cast<float>((i * 31) % 9) - 4.0f});
    }
    std::vector<FacetKey> expected = keys;
    std::sort(expected.begin(), expected.end(), [](const FacetKey &a, const FacetKey &b) {
      return a.key != b.key ? a.key < b.key : a.ordinal < b.ordinal;
    });
    EXPECT_EQ(sortFacetKeys(keys.data(), count), count);
    for (int i = 0; i < count; ++i) {
      EXPECT_EQ(keys[i].ordinal, expected[i].ordinal) << i;
    }
  }
  EXPECT_EQ(sortFacetKeys(nullptr, -1), -1);
}

TEST(FacetStore, PointerTableLimitsAndAllTiesKeepFileOrder) {
  FacetBlock *blocks[kFacetBlockMax] = {};
  EXPECT_EQ(sortFacetPointers(blocks, 0, 0), nullptr);
  EXPECT_EQ(sortFacetPointers(blocks, kFacetLoadLimit + 1, 0), nullptr);
  EXPECT_EQ(sortFacetPointers(blocks, 1, 3), nullptr);
  EXPECT_EQ(sortFacetPointers(blocks, 1, 0), nullptr) << "missing block";
  for (FacetBlock *&block : blocks) {
    block = static_cast<FacetBlock *>(std::calloc(1, sizeof(FacetBlock)));
    ASSERT_NE(block, nullptr);
  }
  FacetRec **table = sortFacetPointers(blocks, kFacetLoadLimit, 2);
  ASSERT_NE(table, nullptr);
  for (int i = 0; i < kFacetLoadLimit; i += 4999) {
    ASSERT_EQ(table[i], &blocks[i / kFacetBlockSize]->rec[i % kFacetBlockSize]);
  }
  EXPECT_EQ(table[kFacetLoadLimit - 1], &blocks[kFacetBlockMax - 1]->rec[kFacetBlockSize - 1]);
  std::free(table);
  freeFacetBlocks(blocks, kFacetBlockMax);
}

TEST(FacetStore, KeyReaderRefusals) {
  const std::string facet = asciiFacet({0, 0, 0, 1, 0, 0, 0, 1, 0});
  const std::string path = tempPath("keys.stl");
  struct Case {
    std::string text;
    int countIn;
    int countOut;
    bool table;
  } cases[] = {
      {"solid\n" + facet + facet, -1, 2, true},
      {"solid\n" + facet + "endsolid\n" + facet, 2, -1, false}, // terminator takes a slot
      {"solid\n" + facet + facet + "endsolid\n", 2, 2, true},
      {"solid\n" + facet, 2, -2, false},  // the file ends early
      {"solid\n" + facet + "\n", 2, -2, false},
      {"solid " + std::string(90, 'n') + "\nendsolid\n", -1, -1, false}, // no facet: count as given
      {"solid\n" + facet, 0, 0, false},
      {"neither format\n" + facet, 1, -1, false},
  };
  for (const Case &c : cases) {
    writeBytes(path, c.text);
    int count = c.countIn;
    FacetKey *keys = readFacetKeys(path.c_str(), 1, &count, nullptr);
    EXPECT_EQ(keys != nullptr, c.table) << c.text;
    EXPECT_EQ(count, c.countOut) << c.text;
    std::free(keys);
  }
  int count = 1;
  EXPECT_EQ(readFacetKeys(tempPath("missing.stl").c_str(), 0, &count, nullptr), nullptr);
  EXPECT_EQ(count, -2);
}
