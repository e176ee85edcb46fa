// Vertex sort and box, against std::stable_sort and brute-force minima.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <numeric>
#include <random>
#include <vector>

#include "mesh/qvMesh.h"

// The sort assembly runs: by x, ties by y then z, equal points in list order.
// A coarse grid makes ties on every axis common, and zero comes as 0.0 and
// -0.0, which compare equal.
TEST(VtxSort, OrdersByXThenYThenZKeepingListOrderForEqualPoints) {
  std::mt19937 rng(11);
  std::uniform_int_distribution<int> grid(-2, 2);
  const int n = 300;
  std::vector<std::array<double, 3>> pts(n);
  qvMesh* m = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  for (int i = 0; i < n; ++i) {
    qvVtx* v = qvVtxNew(kVtxHasNormal, nullptr);
    for (int k = 0; k < 3; ++k) {
      const int g = grid(rng);
      v->dat[k] = pts[i][k] = g == 0 && (i + k) % 2 ? -0.0 : g * 0.5;
    }
    v->dat[3] = i;  // the creation number
    m->vtx = qvVtxConcat(m->vtx, v);
  }
  std::vector<int> want(n);
  std::iota(want.begin(), want.end(), 0);
  std::stable_sort(want.begin(), want.end(), [&](int a, int b) { return pts[a] < pts[b]; });
  m->flags |= kMeshSortedSet & ~kMeshSortX;  // stale bits of other orders
  qvBox box;
  ASSERT_EQ(qvMeshSortVtx(m, kMeshSortX, &box), 0);
  std::vector<int> got;
  for (const qvVtx* v = m->vtx; v; v = v->next) got.push_back(static_cast<int>(v->dat[3]));
  EXPECT_EQ(got, want);
  EXPECT_EQ(m->flags & kMeshSortedSet, kMeshSortX & kMeshSortedSet);
  for (int k = 0; k < 3; ++k) {
    const auto [lo, hi] = std::minmax_element(pts.begin(), pts.end(), [k](auto& a, auto& b) { return a[k] < b[k]; });
    EXPECT_TRUE(*box[k] == (*lo)[k] && *box[k + 3] == (*hi)[k]) << k;
  }
  qvMeshFree(m);
}
