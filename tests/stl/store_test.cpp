// Facet store: the axis choice, and the pointer and key orders against a
// reference stable sort with the plain "smallest coordinate" comparator.
#include "stl_files.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>

TEST(FacetStore, SortAxisTakesStrictlyLongerExtentsOnly) {
  // x and y tie: the earlier axis; y and z tie above x; flat; z longest; inverted.
  const FacetBox boxes[] = {{{0, 0, 0, 2, 2, 1}}, {{0, 0, 0, 1, 3, 3}}, {{5, 5, 5, 5, 5, 5}},
                            {{-1, -1, -9, 0, 0, 0}}, {{4, 0, 0, 1, -2, -3}}};
  const int axis[] = {0, 1, 0, 2, 0};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(facetSortAxis(&boxes[i]), axis[i]) << i;
}

// Both routes and both formats must give the reference order, ties by ordinal,
// on the comparison path (short tables, and long ones from the size where the
// key sort turns to sorting in place) and the radix path, and the key sort
// must find it from any starting order.
TEST(FacetStore, PointerAndKeyOrdersEqualReferenceWithTiesByOrdinal) {
  const float values[] = {3.5f, -0.0f, 0.0f, -2.25f, 3.5f, 1e-30f, -1e30f};
  for (int count : {300, 5000}) {
    // Keys come from a few values, minus zero among them, at a varying corner.
    std::vector<Facet> facets(count);
    for (int i = 0; i < count; ++i) {
      for (int c = 0; c < 9; ++c) facets[i][c] = 100.0f + static_cast<float>((i * 7 + c) % 11);
      for (int axis = 0; axis < 3; ++axis) facets[i][3 * ((i + axis) % 3) + axis] = values[(i * (axis + 2) / 3) % 7];
    }
    writeBytes(tempPath("tied.stl"), binaryStl(facets));
    writeBytes(tempPath("tied-ascii.stl"), asciiStl(facets));
    for (const char *leaf : {"tied.stl", "tied-ascii.stl"}) {
      Blocks blocks;
      ASSERT_EQ(blocks.load(tempPath(leaf)), count);
      for (int axis = 0; axis < 3; ++axis) {
        auto key = [&](int i) { return std::min({facets[i][axis], facets[i][3 + axis], facets[i][6 + axis]}); };
        std::vector<int> expected(count);
        std::iota(expected.begin(), expected.end(), 0);
        std::stable_sort(expected.begin(), expected.end(), [&](int a, int b) { return key(a) < key(b); });
        FacetRec **table = sortFacetPointers(blocks.slot, count, axis);
        int keyCount = -1;
        int format;
        FacetKey *keys = readFacetKeys(tempPath(leaf).c_str(), axis, &keyCount, &format);
        ASSERT_TRUE(table && keys);
        EXPECT_EQ(format, leaf[4] == '.' ? kStlBinary : kStlAscii);
        ASSERT_EQ(keyCount, count);
        std::vector<FacetKey> reversed(keys, keys + count);
        std::reverse(reversed.begin(), reversed.end());
        // The key sort just below and at the size where it turns to sorting in place.
        std::vector<FacetKey> inPlace = reversed;
        EXPECT_EQ(sortFacetKeys(keys, count, count + 1), count);
        EXPECT_EQ(sortFacetKeys(reversed.data(), count, count + 1), count);
        EXPECT_EQ(sortFacetKeys(inPlace.data(), count, count), count);
        for (int i = 0; i < count; ++i) {
          const FacetRec *expectedRec = &blocks.slot[0]->rec[expected[i]];
          ASSERT_EQ(table[i], expectedRec) << leaf << " axis " << axis << " at " << i;
          ASSERT_EQ(keys[i].ordinal, expected[i]) << leaf << " axis " << axis << " at " << i;
          ASSERT_EQ(reversed[i].ordinal, expected[i]) << leaf << " axis " << axis << " at " << i;
          ASSERT_EQ(inPlace[i].ordinal, expected[i]) << leaf << " axis " << axis << " at " << i;
        }
        std::free(table);
        std::free(keys);
      }
    }
  }
}

TEST(FacetStore, PointerTableRefusals) {
  Blocks blocks;
  EXPECT_EQ(sortFacetPointers(blocks.slot, kFacetLoadLimit + 1, 0), nullptr);
  EXPECT_EQ(sortFacetPointers(blocks.slot, 1, 3), nullptr);
  EXPECT_EQ(sortFacetPointers(blocks.slot, 1, 0), nullptr) << "missing block";
}
