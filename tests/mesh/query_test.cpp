// Triangle corners and quads against hand counts. Areas and volumes are
// judged through the solid output, which sums them exactly.
#include <gtest/gtest.h>

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
  }
}
