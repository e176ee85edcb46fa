// The deviation measure on stars and the fan that removing the hub onto ring
// vertex 1 leaves: the star's triangles are measured against the fan's, which
// share the ring's vertices with them.
#include <gtest/gtest.h>

#include <cmath>

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

TEST(Deviation, StarMeasuresTheLiftOfItsHubAndStopsAboveTol2) {
  // The farthest point of a lifted star is the hub, straight above the flat
  // fan; above tol2 the measure returns the first value over tol2 it meets.
  // A flat star measures zero but for the rounding of the projections; off
  // centre, the midpoint of hub and vertex 2 lies beyond the one fan triangle
  // at vertex 2, and its distance to that triangle in the plane counts.
  struct Case {
    const char* name;
    Pt hub;
    int ring;
    double tol, lo, hi;  // the value lies in [lo, hi]
  };
  const Case cases[] = {
      {"flat hexagon", {0, 0, 0}, 6, 0.5, 0, 1e-24},
      {"flat pentagon", {0, 0, 0}, 5, 0.5, 0, 1e-24},
      {"flat square, hub off centre", {0.1, -0.2, 0}, 4, 0.5, 0, 1e-24},
      {"flat hexagon, hub off centre", {0.1, -0.2, 0}, 6, 0.5, 0.0037, 0.0039},
      {"lifted hexagon", {0, 0, 0.3}, 6, 1.0, 0.09 - 1e-12, 0.09 + 1e-12},
      {"lifted pentagon", {0, 0, 0.25}, 5, 1.0, 0.0625 - 1e-12, 0.0625 + 1e-12},
      {"lifted square, hub off centre", {0.1, -0.2, 0.3}, 4, 1.0, 0.09 - 1e-12, 0.09 + 1e-12},
      {"lifted above tol", {0, 0, 0.3}, 6, 0.1, std::nextafter(0.1 * 0.1, 1.0), 0.09 + 1e-12},
      // leaf2 is 0: only the depth limit and the budget of the measure end a split.
      {"lifted, tolerance zero", {0, 0, 0.3}, 6, 0.0, 1e-300, INFINITY},
  };
  for (const Case& c : cases) {
    const Measure m = measureStar(c.hub, circle(c.ring, 1.0, 0.0), c.tol);
    EXPECT_EQ(m.err, 0) << c.name;
    EXPECT_GE(m.value, c.lo) << c.name;
    EXPECT_LE(m.value, c.hi) << c.name;
  }
  const Measure flat = measureStar({0, 0, 0}, circle(6, 1.0, 0.0), 0.0);
  EXPECT_EQ(flat.err, 0);
  EXPECT_TRUE(flat.value < 1e-24 || flat.value == kDevTooFar) << flat.value;
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
