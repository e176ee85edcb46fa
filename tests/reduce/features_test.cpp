// Feature classification against hand answers: the edges of a cube, the
// crease of a sheet, and the fold of a hinge at each angle and size of the rule.
#include <gtest/gtest.h>

#include <algorithm>
#include <optional>

#include "stars.h"

namespace {

// A unit cube, each side split by one diagonal.
const Shape kCube = {
    {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}, {0, 0, 1}, {1, 0, 1}, {1, 1, 1}, {0, 1, 1}},
    {{0, 2, 1}, {0, 3, 2}, {4, 5, 6}, {4, 6, 7}, {0, 1, 5}, {0, 5, 4},
     {1, 2, 6}, {1, 6, 5}, {2, 3, 7}, {2, 7, 6}, {3, 0, 4}, {3, 4, 7}}};

// Nine points of a sheet, flat for x <= 1 and rising at 45 degrees beyond.
Shape creasedSheet() {
  Shape s;
  for (int y = 0; y < 3; ++y)
    for (int x = 0; x < 3; ++x) s.pts.push_back({double(x), double(y), x > 1 ? 1.0 : 0.0});
  for (int y = 0; y < 2; ++y)
    for (int x = 0; x < 2; ++x) {
      const int a = 3 * y + x;
      s.faces.push_back({a, a + 1, a + 4});
      s.faces.push_back({a, a + 4, a + 3});
    }
  return s;
}

// Two triangles on the edge 0-1 whose normals are fold degrees apart; the
// second's normal is r long (its apex r from the edge). 90 degrees is built
// exactly, so that the cosine is exactly zero.
Shape hinge(double fold, double r) {
  const double a = fold * M_PI / 180.0;
  const double c = fold == 90.0 ? 0.0 : std::cos(a);
  const double s = fold == 90.0 ? 1.0 : std::sin(a);
  return {{{0, 0, 0}, {1, 0, 0}, {0.5, -1, 0}, {0.5, r * c, r * s}}, {{0, 1, 2}, {1, 0, 3}}};
}

qvRedParams paramsOf(double tol) {
  qvRedParams p;
  EXPECT_EQ(qvRedParamsSet(tol, &p), 0);
  return p;
}

}  // namespace

TEST(Features, CubeGivesItsEdgesAndSheetItsCreaseButNotItsRim) {
  struct Case {
    const char* name;
    Shape shape;
    int32_t count, ends;  // feature edges and their ends
    bool (*feature)(const double* a, const double* b);  // the hand answer for an edge
  };
  const Case cases[] = {
      // A cube edge runs along one axis; a face diagonal along two.
      {"cube", kCube, 12, 8,
       [](const double* a, const double* b) { return (a[0] != b[0]) + (a[1] != b[1]) + (a[2] != b[2]) == 1; }},
      {"creased sheet", creasedSheet(), 2, 3, [](const double* a, const double* b) { return a[0] == 1 && b[0] == 1; }},
  };
  for (const Case& c : cases) {
    Fixture f(c.shape);
    const qvRedParams p = paramsOf(0.01);
    EXPECT_EQ(qvRedFeatures(f.mesh, nullptr, &p), c.count) << c.name;
    for (qvEdg* e = f.mesh->edg; e; e = e->next) {
      const bool want = c.feature(qvVtxXyz(qvVtxOf(e->ends[0])), qvVtxXyz(qvVtxOf(e->ends[1])));
      EXPECT_EQ(e->flags & kEdgFeatureSet, want ? kEdgFeatureSet : 0u) << c.name;  // both bits or none
      EXPECT_TRUE(!want || (qvVtxOf(e->ends[0])->flags & qvVtxOf(e->ends[1])->flags & kVtxFeatureEnd));
    }
    EXPECT_EQ(std::count_if(f.v.begin(), f.v.end(), [](qvVtx* v) { return v->flags & kVtxFeatureEnd; }), c.ends);
    EXPECT_EQ(validateText(f.mesh), "") << c.name;
  }
}

TEST(Features, HingeFollowsTheSquaredSignedCosineRule) {
  struct Case {
    std::optional<double> angle;
    double fold, r, tol;
    bool feature;
  };
  const Case cases[] = {
      {{}, 9, 1, 0.01, false},    {{}, 11, 1, 0.01, true},  // default: 10 degrees
      {0.0, 0, 1, 0.01, false},   {0.0, 1, 1, 0.01, true},  // only coplanar pairs stay plain
      {30.0, 29, 1, 0.01, false}, {30.0, 31, 1, 0.01, true},
      // At 90 the threshold is cos^2 of a rounded right angle, about 3.7e-33:
      // an exact right angle has s = 0 below it and is a feature.
      {90.0, 89, 1, 0.01, false}, {90.0, 90, 1, 0.01, true}, {90.0, 91, 1, 0.01, true},
      {170.0, 9, 1, 0.01, false}, {170.0, 11, 1, 0.01, true},  // acts as 10
      // Visible at the tolerance: the lower height times the sine above tol.
      {{}, 90, 1, 0.99, true}, {{}, 90, 1, 1.01, false},
      {{}, 45, 1, 0.7, true},   {{}, 45, 1, 0.71, false}, {{}, 135, 0.5, 0.49, true},
      {{}, 45, 0.01, 0.01, false},  // the low triangle decides
      {{}, 45, 0, 0.01, false},  // a zero normal: not a feature, and no failure
  };
  for (const Case& c : cases) {
    Fixture f(hinge(c.fold, c.r));
    const qvRedParams p = paramsOf(c.tol);
    const double* angle = c.angle ? &*c.angle : nullptr;
    EXPECT_EQ(qvRedFeatures(f.mesh, angle, &p), c.feature ? 1 : 0)
        << "angle " << (c.angle ? *c.angle : -1) << " fold " << c.fold << " r " << c.r;
    EXPECT_EQ((f.e(0, 1)->flags & kEdgFeatureSet) != 0, c.feature);
    EXPECT_EQ(validateText(f.mesh), "");
  }
}
