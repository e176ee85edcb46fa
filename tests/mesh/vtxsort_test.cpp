// Vertex sort and boxes, against std::sort and brute-force minima.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "mesh/qvMesh.h"

namespace {

using Point = std::array<double, 3>;

// A mesh of n vertices on a coarse grid, so that ties on each axis are
// common; dat[3] holds each vertex's creation number.
qvMesh* cloud(int n, unsigned seed) {
  std::mt19937 rng(seed);
  std::uniform_int_distribution<int> grid(-2, 2);
  qvMesh* m = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  for (int i = 0; i < n; ++i) {
    qvVtx* v = qvVtxNew(kVtxHasNormal, nullptr);
    for (int k = 0; k < 3; ++k) v->dat[k] = grid(rng) * 0.5;
    v->dat[3] = i;
    m->vtx = qvVtxConcat(v, m->vtx);
  }
  return m;
}

std::vector<Point> points(const qvMesh* m) {
  std::vector<Point> p;
  for (const qvVtx* v = m->vtx; v; v = v->next) p.push_back({v->dat[0], v->dat[1], v->dat[2]});
  return p;
}

}  // namespace

TEST(VtxSort, OrdersByAxisThenTheNextAxesCyclically) {
  struct Case {
    uint32_t request;
    int axis;
    bool descending;
  } cases[] = {{kMeshSortX, 0, false}, {kMeshSortY, 1, false}, {kMeshSortZ | kMeshSortDesc, 2, true},
               {kMeshSortY | kMeshSortDesc, 1, true}};
  for (const Case& c : cases) {
    qvMesh* m = cloud(300, 11);
    std::vector<Point> want = points(m);
    auto key = [&](const Point& p) { return Point{p[c.axis], p[(c.axis + 1) % 3], p[(c.axis + 2) % 3]}; };
    std::sort(want.begin(), want.end(), [&](const Point& a, const Point& b) {
      return c.descending ? key(b) < key(a) : key(a) < key(b);
    });
    Point lo = want[0], hi = want[0];
    for (const Point& p : want)
      for (int k = 0; k < 3; ++k) lo[k] = std::min(lo[k], p[k]), hi[k] = std::max(hi[k], p[k]);

    m->flags |= kMeshSortedSet & ~(c.request & kMeshSortedSet);  // stale bits of other axes
    qvBox box;
    ASSERT_EQ(qvMeshSortVtx(m, c.request, &box), 0);
    EXPECT_EQ(points(m), want) << c.request;
    EXPECT_EQ(m->flags & kMeshSortedSet, c.request & kMeshSortedSet);
    EXPECT_EQ(qvVtxTail(m->vtx)->next, nullptr);
    for (int k = 0; k < 3; ++k) {
      EXPECT_EQ(*box[k], lo[k]);
      EXPECT_EQ(*box[k + 3], hi[k]);
    }
    qvMeshFree(m);
  }
}

// Vertices that compare equal keep their list order, ascending and
// descending; 0.0 and -0.0 compare equal, NaN comes after every number, and a
// derived vertex without an owner (no coordinates) after every vertex that
// has them, each reversed when descending. The expected order is that of
// std::stable_sort over the points with the order written out by hand.
TEST(VtxSort, EqualsKeepListOrderWithSignedZerosNanAndNoCoordinates) {
  const double nan = std::nan("");
  const double pattern[] = {1.0, -0.0, nan, 0.0, 1.0, -2.0, nan, 0.0, -0.0, 1.0, -2.0, 0.5};
  // Sixty vertices, long enough for any sort to leave its simple short-list
  // path; two of them bare, at the head and in the middle of the list.
  const int n = 60;
  auto isBare = [](int i) { return i == 0 || i == 31; };
  auto xOf = [&](int i) { return pattern[i % 12]; };
  auto rank = [](double x) { return std::isnan(x) ? 1e300 : x; };  // NaN last, zeros as one
  for (const bool descending : {false, true}) {
    qvMesh* m = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
    std::vector<int> want;
    for (int i = 0; i < n; ++i) {
      qvVtx* v = qvVtxNew(isBare(i) ? kVtxDerived | kVtxHasNormal : kVtxHasNormal, nullptr);
      if (isBare(i)) {
        v->dat[0] = i;  // the creation number, in the normal slot
      } else {
        v->dat[0] = xOf(i);
        v->dat[1] = 0.0;
        v->dat[2] = 0.0;
        v->dat[3] = i;
      }
      m->vtx = qvVtxConcat(m->vtx, v);
      want.push_back(i);
    }
    std::stable_sort(want.begin(), want.end(), [&](int a, int b) {
      if (isBare(a) || isBare(b)) return descending ? isBare(a) && !isBare(b) : !isBare(a) && isBare(b);
      return descending ? rank(xOf(a)) > rank(xOf(b)) : rank(xOf(a)) < rank(xOf(b));
    });
    ASSERT_EQ(qvMeshSortVtx(m, kMeshSortX | (descending ? kMeshSortDesc : 0), nullptr), 0);
    std::vector<int> got;
    for (const qvVtx* v = m->vtx; v; v = v->next)
      got.push_back(static_cast<int>((v->flags & kVtxDerived) ? v->dat[0] : v->dat[3]));
    EXPECT_EQ(got, want) << (descending ? "descending" : "ascending");
    qvMeshFree(m);
  }
}
