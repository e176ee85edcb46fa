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
    double* p[3];
    ASSERT_EQ(qvTriCorners(f.t[i], 0, c) | qvTriCornerVtx(f.t[i], 0, v) | qvTriCoords(f.t[i], 0, p), 0);
    for (int k = 0; k < 3; ++k) {
      const int want = kTetra.faces[i][k];
      EXPECT_EQ(c[k], f.h(want)) << "face " << i << " corner " << k;
      EXPECT_EQ(v[k], f.v[want]);
      EXPECT_EQ(p[k], f.h(want));
      EXPECT_EQ(qvTriEdgeRev(f.t[i], k), rev[i][k]) << "face " << i << " slot " << k;
      EXPECT_EQ(qvTriDisagree(f.t[i], k), 0);
    }
  }
  qvTri* bad = qvTriNew(f.e(0, 1), f.e(2, 3), f.e(0, 2), 0);  // first two edges share no end
  double* c[3];
  int32_t err = 0;
  EXPECT_EQ(qvTriCorners(bad, 0, c), 1);
  EXPECT_EQ(qvTriEdgeRev(bad, 0), -1);
  EXPECT_EQ(qvTriArea(bad), -1.0);
  EXPECT_EQ(qvTriVolume(bad, nullptr, &err), 0.0);
  EXPECT_EQ(err, -1);
  qvTriFree(bad);
}

TEST(Query, SignAsksForATurningSenseInThePlane) {
  Fixture f(kSquare);  // face 0 is 0 1 2, counterclockwise
  Fixture line({{{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}, {{0, 1, 2}}});
  struct Case {
    qvTri* t;
    uint32_t signBits;
    int32_t sign, status;
    bool swapped;
  } cases[] = {{f.t[0], 0, 1, 0, false}, {f.t[0], 0, -1, 0, true}, {f.t[0], kTriSignNeg, 1, 0, true},
               {line.t[0], 0, 1, 1, false}};
  for (const Case& c : cases) {
    c.t->flags = (c.t->flags & ~kTriSignSet) | c.signBits;
    double* plain[3];
    double* got[3];
    qvTriCorners(c.t, 0, plain);
    ASSERT_EQ(qvTriCorners(c.t, c.sign, got), c.status);
    if (c.status == 0) {
      EXPECT_EQ(got[0], plain[c.swapped ? 1 : 0]);
      EXPECT_EQ(got[2], plain[2]);
    }
  }
}

TEST(Query, EdgesAtACornerComeInCycleSenseAndTheOppositeIsTheThird) {
  Fixture f(kTetra);
  qvTri* t = f.t[0];  // 0 2 1: slot 0 is 0-2, slot 1 is 2-1, slot 2 is 1-0
  struct Case {
    int corner, count, s0, s1;
  } cases[] = {{0, 2, 2, 0}, {2, 2, 0, 1}, {1, 2, 1, 2}, {3, 0, -1, -1}};
  for (const Case& c : cases) {
    qvEdg* pair[2];
    int32_t slots[2];
    ASSERT_EQ(qvTriEdgesAt(t, f.h(c.corner), pair, slots), c.count) << c.corner;
    EXPECT_EQ(slots[0], c.s0);
    EXPECT_EQ(slots[1], c.s1);
  }
  EXPECT_EQ(qvTriEdgesAt(t, nullptr, nullptr, nullptr), -1);
  EXPECT_EQ(qvTriOpposite(t, f.e(0, 2)), f.h(1));
  EXPECT_EQ(qvTriOppositeAt(t, 1), f.h(0));
  EXPECT_EQ(qvTriOppositeAt(t, 3), nullptr);
  EXPECT_EQ(qvTriFarEdge(t, f.h(0)), f.e(1, 2));
  int32_t slot = 0;
  EXPECT_EQ(qvTriAdjAt(t, f.e(1, 2), &slot), f.t[3]);
  EXPECT_EQ(slot, 1);
  EXPECT_EQ(qvTriAdjAt(t, f.e(1, 3), &slot), nullptr);
  EXPECT_EQ(slot, -1);
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
  EXPECT_NEAR(qvTriVolume(f.t[3], nullptr, &err), 1.0 / 6, 1e-15);
  EXPECT_NEAR(qvTriVolume(f.t[3], front, &err), -1.0 / 3, 1e-15);
  EXPECT_EQ(err, 0);
  EXPECT_EQ(qvMeshVolume(nullptr, nullptr, &err), 0.0);
  EXPECT_EQ(err, -1);
  EXPECT_EQ(qvMeshArea(nullptr), -1.0);
  EXPECT_EQ(qvEdgLen2(f.e(1, 2)), 2.0);

  double n[3];
  double* c[3];
  Fixture sq(kSquare);  // face 1 is 0 2 3; edge 0-2 was made 2 -> 0 by face 0
  ASSERT_EQ(qvTriNormal(sq.t[1], nullptr, 0, c, n), 0);
  EXPECT_EQ(n[2], 1.0);
  ASSERT_EQ(qvTriNormal(sq.t[1], sq.e(0, 2), 0, c, n), 0);  // the edge's sense, not the cycle's
  EXPECT_EQ(n[2], -1.0);
  EXPECT_EQ(c[0], sq.h(2));
  EXPECT_EQ(c[2], sq.h(3));

  Fixture oct(kOctahedron);
  qvBox box;
  EXPECT_EQ(qvMeshBox(oct.mesh, &box), 6);
  for (int k = 0; k < 6; ++k) EXPECT_EQ(*box[k], k < 3 ? -1.0 : 1.0);
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
