// Triangle queries and measures against hand counts and hand-computed
// areas, volumes and boxes.
#include <gtest/gtest.h>

#include <cmath>

#include "fixture.h"

TEST(Query, CornersFollowTheFaceWhicheverWayItsEdgesRun) {
  Fixture f(kTetra);
  // By hand: the first face to use an edge made it along its own cycle, so
  // every later face runs against it.
  const int rev[4][3] = {{0, 0, 0}, {1, 0, 0}, {1, 0, 1}, {1, 1, 1}};
  for (size_t i = 0; i < kTetra.faces.size(); ++i) {
    double* c[3];
    qvVtx* v[3];
    ASSERT_EQ(qvTriCorners(f.t[i], 0, c) | qvTriCornerVtx(f.t[i], 0, v), 0);
    for (int k = 0; k < 3; ++k) {
      const int want = kTetra.faces[i][k];
      EXPECT_TRUE(c[k] == f.h(want) && v[k] == f.v[want]) << "face " << i << " corner " << k;
      EXPECT_EQ(qvTriEdgeRev(f.t[i], k), rev[i][k]) << "face " << i << " slot " << k;
      EXPECT_EQ(qvTriDisagree(f.t[i], k), 0);
    }
  }
  qvTri* bad = qvTriNew(f.e(0, 1), f.e(2, 3), f.e(0, 2), 0);  // first two edges share no end
  double* c[3];
  EXPECT_EQ(qvTriCorners(bad, 0, c), 1);
  EXPECT_EQ(qvTriArea(bad), -1.0);
  qvTriFree(bad);
}

TEST(Query, EdgesAtACornerComeInCycleSenseAndTheOppositeIsTheThird) {
  Fixture f(kTetra);
  qvTri* t = f.t[0];  // 0 2 1: slot 0 is 0-2, slot 1 is 2-1, slot 2 is 1-0
  const int corner[4] = {0, 2, 1, 3}, s0[4] = {2, 0, 1, -1}, s1[4] = {0, 1, 2, -1};
  for (int i = 0; i < 4; ++i) {
    qvEdg* pair[2];
    int32_t slots[2];
    ASSERT_EQ(qvTriEdgesAt(t, f.h(corner[i]), pair, slots), i < 3 ? 2 : 0) << corner[i];
    EXPECT_TRUE(slots[0] == s0[i] && slots[1] == s1[i]) << corner[i];
  }
  EXPECT_EQ(qvTriOpposite(t, f.e(0, 2)), f.h(1));
  EXPECT_EQ(qvTriFarEdge(t, f.h(0)), f.e(1, 2));
  EXPECT_EQ(qvTriAdjAt(t, f.e(1, 2), nullptr), f.t[3]);
}

TEST(Query, MeasuresMatchHandComputedValues) {
  const double r3 = std::sqrt(3.0);
  const double far[3] = {5, -3, 2};
  struct Case {
    const Shape* shape;
    double area, volume;
    bool closed;
  } cases[] = {{&kTetra, 1.5 + r3 / 2, 1.0 / 6, true},
               {&kOctahedron, 4 * r3, 4.0 / 3, true},
               {&kOpenCone, 2 * r3, 2.0 / 3, false}};  // its open base lies in z = 0
  for (const Case& c : cases) {
    Fixture f(*c.shape);
    int32_t err = 5;
    EXPECT_NEAR(qvMeshArea(f.mesh), c.area, 1e-12);
    EXPECT_NEAR(qvMeshVolume(f.mesh, nullptr, &err), c.volume, 1e-12);
    EXPECT_EQ(err, 0);
    if (c.closed) {
      EXPECT_NEAR(qvMeshVolume(f.mesh, far, &err), c.volume, 1e-12);  // any apex, for a closed surface
    }
  }
  Fixture f(kTetra);
  const double front[3] = {1, 1, 1};
  int32_t err = 0;
  EXPECT_NEAR(qvTriVolume(f.t[3], front, &err), -1.0 / 3, 1e-15);  // seen from the front, negative
  EXPECT_EQ(err, 0);
  double n[3];
  double* c[3];
  Fixture sq(kSquare);  // face 1 is 0 2 3; edge 0-2 was made 2 -> 0 by face 0
  ASSERT_EQ(qvTriNormal(sq.t[1], nullptr, 0, c, n), 0);
  EXPECT_EQ(n[2], 1.0);
  ASSERT_EQ(qvTriNormal(sq.t[1], sq.e(0, 2), 0, c, n), 0);  // the edge's sense, not the cycle's
  EXPECT_EQ(n[2], -1.0);

  Fixture oct(kOctahedron);
  qvBox box;
  EXPECT_EQ(qvTriBox(oct.t[0], &box), 3);  // corners +x, +y, +z
  for (int k = 0; k < 6; ++k) EXPECT_EQ(*box[k], k < 3 ? 0.0 : 1.0);
}

TEST(Query, QuadIsConvexOnlyWhenAllFourCornersTurnStrictlyAlike) {
  struct Case {
    const char* name;
    double x3, y3;
    int32_t convex;
  } cases[] = {{"square", 0, 1, 1}, {"dart", 0.8, 0.6, 0}, {"corner on the diagonal", 0.5, 0.5, 0}};
  for (const Case& c : cases) {
    Shape s = kSquare;
    s.pts[3] = {c.x3, c.y3, 0};
    Fixture f(s);
    qvEdg* d = f.e(0, 2);
    qvQuad q = {{f.t[0], f.t[1]}, {qvTriEdgeSlot(f.t[0], d), qvTriEdgeSlot(f.t[1], d)}};
    double* out[4];
    ASSERT_EQ(qvEdgQuad(&q, 0, out), 0);
    for (int k = 0; k < 4; ++k) EXPECT_EQ(out[k], f.h(k)) << c.name;  // round the quad
    EXPECT_EQ(qvQuadConvex(&q), c.convex) << c.name;
    q.tri[1] = nullptr;
    EXPECT_EQ(qvEdgQuad(&q, 0, out), 1);
    EXPECT_EQ(out[3], nullptr);
    EXPECT_EQ(qvQuadConvex(&q), -1);
  }
}
