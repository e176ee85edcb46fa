// The deviation measure on stars and the fan that removing the hub onto ring
// vertex 1 leaves: the star's triangles are measured against the fan's, which
// share the ring's vertices with them.
#include <gtest/gtest.h>

#include "stars.h"

namespace {

struct Measure {
  double value;
  int32_t err;
};

// qvDevList of the star's triangles against the fan's at tolerance tol; the
// reference list must come back whole and the mesh at rest.
Measure measureStar(const Pt& hub, const std::vector<Pt>& ring, double tol) {
  Fixture f(starShape(hub, ring, true));
  const size_t n = ring.size();
  EXPECT_EQ(qvRedPrepFirst(f.mesh), static_cast<int32_t>(n) + 1);
  qvLnk* old = lnkList({f.t.begin(), f.t.begin() + static_cast<long>(n)});
  qvLnk* ref = lnkList({f.t.begin() + static_cast<long>(n), f.t.end()});
  qvRedParams p;
  qvRedParamsSet(tol, &p);
  Measure m{0.0, 99};
  m.value = qvDevList(old, ref, &p, &m.err);
  size_t i = n;
  for (qvLnk* l = ref; l; l = l->next) EXPECT_EQ(l->item, f.t[i++]);
  EXPECT_EQ(i, f.t.size());
  qvLnkDeleteAll(old);
  qvLnkDeleteAll(ref);
  backToRest(f.mesh);
  EXPECT_EQ(validateText(f.mesh), "");
  return m;
}

}  // namespace

TEST(Deviation, CoplanarStarMeasuresZero) {
  struct Case {
    Pt hub;
    int ring;
  };
  for (const Case& c : {Case{{0, 0, 0}, 6}, Case{{0, 0, 0}, 5}, Case{{0.1, -0.2, 0}, 4}}) {
    const Measure m = measureStar(c.hub, circle(c.ring, 1.0, 0.0), 0.5);
    EXPECT_EQ(m.err, 0) << c.ring;
    EXPECT_LT(m.value, 1e-24) << c.ring;  // zero but for the rounding of the projections
  }
  // A part with one corner on the new surface is measured against the
  // reference triangles at that corner only. With the hub off centre, the
  // midpoint of hub and vertex 2 lies beyond the one fan triangle at vertex 2,
  // and its distance to that triangle in the plane (about 0.0038) counts.
  const Measure off = measureStar({0.1, -0.2, 0.0}, circle(6, 1.0, 0.0), 0.5);
  EXPECT_EQ(off.err, 0);
  EXPECT_NEAR(off.value, 0.0038, 1e-4);
}

TEST(Deviation, LiftedHubMeasuresItsLiftAndStopsAboveTol2) {
  struct Case {
    Pt hub;
    int ring;
    double tol;
  };
  for (const Case& c : {Case{{0, 0, 0.3}, 6, 1.0}, Case{{0, 0, 0.25}, 5, 1.0}, Case{{0.1, -0.2, 0.3}, 4, 1.0},
                        Case{{0, 0, 0.3}, 6, 0.1}}) {
    const Measure m = measureStar(c.hub, circle(c.ring, 1.0, 0.0), c.tol);
    EXPECT_EQ(m.err, 0);
    // The farthest point is the hub, straight above the flat fan; below it, the
    // measure returns the first value above tol2 it meets.
    const double lift = c.hub[2] * c.hub[2];
    if (lift <= c.tol * c.tol) {
      EXPECT_NEAR(m.value, lift, 1e-12);
    } else {
      EXPECT_TRUE(m.value > c.tol * c.tol && m.value <= lift + 1e-12) << m.value;
    }
  }
}

TEST(Deviation, ZeroToleranceStillEnds) {
  // leaf2 is 0: only the depth limit and the budget of the measure end a split.
  const Measure flat = measureStar({0, 0, 0}, circle(6, 1.0, 0.0), 0.0);
  EXPECT_EQ(flat.err, 0);
  EXPECT_TRUE(flat.value < 1e-24 || flat.value == kDevTooFar) << flat.value;
  EXPECT_GT(measureStar({0, 0, 0.3}, circle(6, 1.0, 0.0), 0.0).value, 0.0);
}

TEST(Deviation, EmptyListsAndFailures) {
  qvRedParams p;
  qvRedParamsSet(1.0, &p);
  Fixture f(kSquare);
  qvLnk* old = lnkList({f.t[1]});
  qvLnk* ref = lnkList({f.t[0]});
  int32_t err = 99;
  EXPECT_TRUE(qvDevList(nullptr, ref, &p, &err) == -1.0 && err == 0);  // nothing to measure: no candidate
  EXPECT_TRUE(qvDevList(old, nullptr, &p, &err) == -1.0 && err == -1);  // nothing to measure against
  EXPECT_TRUE(qvDevList(old, ref, &p, &err) == -1.0 && err == -1);  // corners not in the engine's form
  qvLnkDeleteAll(old);
  qvLnkDeleteAll(ref);
  EXPECT_EQ(validateText(f.mesh), "");  // no mark left behind
}
