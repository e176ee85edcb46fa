// The link test, the ring projection and the flip test on hand-built stars.
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <vector>

#include "kernels/kernels.h"
#include "stars.h"

namespace {

qvTri* triOn(const Fixture& f, const qvEdg* e) {
  for (qvTri* t : f.t)
    if (qvTriEdgeSlot(t, e) >= 0) return t;
  return nullptr;
}

// The link test of the spoke v-w with v's ring marked as the spoke choice
// marks it, and every mark cleared again.
int32_t linkOf(Fixture& f, int v, int w) {
  qvEdg* e = f.e(v, w);
  qvTri* t = triOn(f, e);
  const int32_t ring =
      qvFanMark(f.mesh, t, f.h(v), kMarkSet.tri, kMarkSet.edg, kMarkSet.vtx, kFanMoveEdg | kFanMoveTri);
  std::vector<const double*> list;
  for (qvEdg* x = f.mesh->edg; x && (x->flags & kMarkSet.edg); x = x->next)
    for (const double* end : x->ends)
      if (std::find(list.begin(), list.end(), end) == list.end()) list.push_back(end);
  std::sort(list.begin(), list.end(), std::less<const double*>());
  const int32_t r = qvLinkTest(t, e, f.h(v), list.data(), static_cast<int32_t>(list.size()), ring);
  unmarkStar(f.mesh);
  return r;
}

// A regular hexagon in the plane through the origin with unit normal n, in
// the frame u, n x u, and a hub lifted by h along n.
Shape tiltedStar(const double n[3], const double u[3], double h) {
  double v[3];
  vecCross(n, u, v);
  std::vector<Pt> ring;
  for (const Pt& c : circle(6, 1.0, 0.0))
    ring.push_back({c[0] * u[0] + c[1] * v[0], c[0] * u[1] + c[1] * v[1], c[0] * u[2] + c[1] * v[2]});
  return starShape({h * n[0], h * n[1], h * n[2]}, ring, false);
}

}  // namespace

TEST(Link, TetrahedronFailsEverySpokeAndOctahedronPassesEvery) {
  struct Case {
    const char* name;
    const Shape& shape;
    int32_t want;  // the hand answer: a tetrahedron's ends share a third vertex
  };
  for (const Case& c : {Case{"tetrahedron", kTetra, 0}, Case{"octahedron", kOctahedron, 1}}) {
    Fixture f(c.shape);
    std::vector<qvEdg*> edges;  // the marking reorders the list: walk a copy
    for (qvEdg* e = f.mesh->edg; e; e = e->next) edges.push_back(e);
    ASSERT_EQ(edges.size(), c.shape.faces.size() * 3 / 2);
    for (qvEdg* e : edges) {
      int a = 0, b = 0;
      while (f.h(a) != e->ends[0]) ++a;
      while (f.h(b) != e->ends[1]) ++b;
      EXPECT_EQ(linkOf(f, a, b), c.want) << c.name << " " << a << "-" << b;
      EXPECT_EQ(linkOf(f, b, a), c.want) << c.name << " " << b << "-" << a;
    }
    EXPECT_EQ(validateText(f.mesh), "") << c.name;
  }
}

TEST(Project, EveryPlaneRowFindsTheRingsPlane) {
  const double n[3] = {1.0 / std::sqrt(14.0), 2.0 / std::sqrt(14.0), 3.0 / std::sqrt(14.0)};
  const double u[3] = {2.0 / std::sqrt(5.0), -1.0 / std::sqrt(5.0), 0.0};
  Fixture f(tiltedStar(n, u, 0.3));
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 7);
  ASSERT_EQ(markStar(f, 0), 6);
  for (int row = 0; row < kPlaneRows; ++row) {
    double plane[4];
    ASSERT_EQ(qvPlaneTable[row](f.mesh, f.h(0), 6, &kMarkSet, plane), kRowUsable) << row;
    const double c[3] = {plane[1] * n[2] - plane[2] * n[1], plane[2] * n[0] - plane[0] * n[2],
                         plane[0] * n[1] - plane[1] * n[0]};
    const double n2 = plane[0] * plane[0] + plane[1] * plane[1] + plane[2] * plane[2];
    EXPECT_LT((c[0] * c[0] + c[1] * c[1] + c[2] * c[2]) / n2, 1e-20) << "row " << row;
    EXPECT_EQ(qvPlaneTable[row](f.mesh, f.h(0), 5, &kMarkSet, plane), kRowBroken) << row;
  }
  for (qvVtx* v : f.v) EXPECT_EQ(v->flags & kMarkMask, v == f.v[0] ? 0u : kMarkSet.vtx);
  unmarkStar(f.mesh);
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");
}

TEST(Project, ConvexRingIsLaidFlatAndAStarPolygonIsNotSimple) {
  // A hexagon round a lifted hub projects without crossing, and its (u, v)
  // keep the ring's own distances, since the ring is plane.
  const std::vector<Pt> hexagon = circle(6, 1.0, 0.0);
  Fixture f(starShape({0, 0, 0.5}, hexagon, false));
  ASSERT_EQ(qvRedPrepFirst(f.mesh), 7);
  EXPECT_EQ(qvRingProject(f.mesh, f.t[0], f.h(0), 0), 0);
  for (int i = 1; i <= 6; ++i) {
    const int j = i % 6 + 1;
    const double du = f.h(i)[0] - f.h(j)[0];
    const double dv = f.h(i)[1] - f.h(j)[1];
    EXPECT_NEAR(du * du + dv * dv, 1.0, 1e-12);  // the side of a unit hexagon
  }
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");

  // A pentagram winds twice round its hub: every one of the five planes is
  // the plane of the ring, and in it the ring crosses itself.
  Fixture g(starShape({0, 0, 0.5}, circle(5, 1.0, 0.0, 2), false));
  ASSERT_EQ(qvRedPrepFirst(g.mesh), 6);
  EXPECT_EQ(qvRingProject(g.mesh, g.t[0], g.h(0), 0), 1);
  backToRest(g.mesh);
  EXPECT_EQ(validateText(g.mesh), "");
}

TEST(Flip, FlipsOnlyAStrictlyDelaunayBreakingConvexQuad) {
  qvTri other{};  // stands for a neighbour that both triangles would share
  struct Case {
    const char* name;
    Pt p3;          // corner 3 of the square 0 1 2 3, split along 0-2
    int32_t tag0;   // valence of corner 0, an end of the diagonal
    uint32_t edg;   // flags on the diagonal
    uint32_t tri;   // flags on the first triangle
    bool shareAux;  // both triangles have `other` in aux
    int32_t want;
  };
  const Case cases[] = {
      {"cocircular square", {0, 1, 0}, 4, 0, 0, false, 0},
      {"apex inside the circle", {0.3, 0.7, 0}, 4, 0, 0, false, 1},
      {"valence would drop to 2", {0.3, 0.7, 0}, 3, 0, 0, false, 0},
      {"feature diagonal", {0.3, 0.7, 0}, 4, kEdgFeatureSet, 0, false, 0},
      {"cap diagonal", {0.3, 0.7, 0}, 4, kEdgCap, 0, false, 0},
      {"cap triangle", {0.3, 0.7, 0}, 4, 0, kTriCap, false, 0},
      {"common neighbour", {0.3, 0.7, 0}, 4, 0, 0, true, 0},
      {"not convex", {0.6, 0.4, 0}, 4, 0, 0, false, 0},
      {"apex outside the circle", {-0.5, 1.5, 0}, 4, 0, 0, false, 0},
  };
  for (const Case& c : cases) {
    Shape s = kSquare;
    s.pts[3] = c.p3;
    Fixture f(s);
    ASSERT_EQ(qvRedPrepFirst(f.mesh), 4);
    for (qvVtx* v : f.v) {
      v->dat[kRedPairAt] = qvVtxXyz(v)[0];  // (u, v) = (x, y)
      v->dat[kRedPairAt + 1] = qvVtxXyz(v)[1];
      v->tag = 4;
    }
    f.v[0]->tag = c.tag0;
    qvEdg* e = f.e(0, 2);
    e->flags |= c.edg;
    f.t[0]->flags |= c.tri;
    if (c.shareAux) f.t[0]->aux[0] = f.t[1]->aux[2] = &other;
    const qvFlipRec rec = {{f.t[0], f.t[1]}, {qvTriEdgeSlot(f.t[0], e), qvTriEdgeSlot(f.t[1], e)}};
    EXPECT_EQ(qvFlipTest(&rec), c.want) << c.name;
    // Read from the other triangle the answer is the same.
    const qvFlipRec back = {{f.t[1], f.t[0]}, {rec.slot[1], rec.slot[0]}};
    EXPECT_EQ(qvFlipTest(&back), c.want) << c.name << ", reversed";
    f.t[0]->aux[0] = f.t[1]->aux[2] = nullptr;
  }
  const qvFlipRec wrong = {{nullptr, nullptr}, {0, 0}};
  EXPECT_EQ(qvFlipTest(&wrong), -1);
}
