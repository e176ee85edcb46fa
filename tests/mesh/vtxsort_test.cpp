// Vertex sort and boxes, against std::sort and brute-force minima.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <thread>
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

std::vector<int> numbers(const qvMesh* m) {
  std::vector<int> n;
  for (const qvVtx* v = m->vtx; v; v = v->next) n.push_back(static_cast<int>(v->dat[3]));
  return n;
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

TEST(VtxSort, SortedBitsDecideWhetherAnythingMoves) {
  qvMesh* m = cloud(50, 3);
  ASSERT_EQ(qvMeshSortVtx(m, kMeshSortX, nullptr), 0);
  const std::vector<int> first = numbers(m);
  m->vtx->dat[0] = 100.0;  // out of order now, but the bit says sorted
  qvBox box;
  EXPECT_EQ(qvMeshSortVtx(m, kMeshSortX, &box), 0);
  EXPECT_EQ(numbers(m), first);
  EXPECT_EQ(box[0], nullptr);
  m->flags &= ~kMeshSortedSet;
  EXPECT_EQ(qvMeshSortVtx(m, kMeshSortX, nullptr), 0);
  EXPECT_EQ(qvVtxTail(m->vtx)->dat[0], 100.0);
  qvMeshFree(m);

  m = cloud(1, 5);  // one vertex: gains the requested bit, keeps the others
  m->flags |= kMeshSortY;
  EXPECT_EQ(qvMeshSortVtx(m, kMeshSortX, &box), 0);
  EXPECT_EQ(m->flags & kMeshSortedSet, kMeshSortX | kMeshSortY);
  EXPECT_EQ(box[5], m->vtx->dat + 2);
  EXPECT_EQ(qvMeshBox(m, &box), -1);  // fewer than three vertices
  qvVtxDeleteAll(m->vtx);
  m->vtx = nullptr;
  EXPECT_EQ(qvMeshSortVtx(m, kMeshSortZ, &box), -1);  // empty
  EXPECT_EQ(m->flags & kMeshSortZ, 0u);
  qvMeshFree(m);
}

// The sort keeps no state between calls, so two at once on different axes
// each give what they give alone.
TEST(VtxSort, TwoThreadsOnDifferentAxesSortAsEachWouldAlone) {
  const uint32_t requests[2] = {kMeshSortX, kMeshSortZ | kMeshSortDesc};
  qvMesh* alone[2] = {cloud(20000, 100), cloud(20000, 101)};
  qvMesh* both[2] = {cloud(20000, 100), cloud(20000, 101)};
  for (int i = 0; i < 2; ++i) qvMeshSortVtx(alone[i], requests[i], nullptr);
  std::thread a([&] { qvMeshSortVtx(both[0], requests[0], nullptr); });
  qvMeshSortVtx(both[1], requests[1], nullptr);
  a.join();
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(numbers(both[i]), numbers(alone[i])) << "mesh " << i;
    qvMeshFree(both[i]);
    qvMeshFree(alone[i]);
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
