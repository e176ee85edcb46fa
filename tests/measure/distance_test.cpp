// Distances against independent answers: dense brute-force sampling for the
// point-to-triangle routine and the certified bounds, a scan of every triangle
// for the tree, and hand-computed Hausdorff distances for a bump, a facet and
// an edge.
#include "fixtures.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>

using fixture::Soup;
using fixture::Welded;

namespace {

// Smallest distance from p to a grid of (n + 1)(n + 2) / 2 barycentric points of abc.
double bruteDistance(const double p[3], const double a[3], const double b[3], const double c[3],
                     int n) {
  double best = std::numeric_limits<double>::infinity();
  for (int i = 0; i <= n; ++i) {
    for (int j = 0; i + j <= n; ++j) {
      const double u = double(i) / n, v = double(j) / n;
      double d2 = 0;
      for (int k = 0; k < 3; ++k) {
        const double q = a[k] + u * (b[k] - a[k]) + v * (c[k] - a[k]);
        d2 += (p[k] - q) * (p[k] - q);
      }
      best = std::min(best, std::sqrt(d2));
    }
  }
  return best;
}

double longestSide(const double a[3], const double b[3], const double c[3]) {
  auto len = [](const double *x, const double *y) { return std::hypot(x[0] - y[0], x[1] - y[1], x[2] - y[2]); };
  return std::max({len(a, b), len(b, c), len(c, a)});
}

MeasureDistance distance(const MeasureMesh &from, const MeasureMesh &to, double step,
                         bool edges = true, bool faces = true, int threads = 1,
                         int64_t cap = kMeasureSampleCap) {
  MeasureTree tree;
  EXPECT_EQ(measureTreeBuild(&to, &tree), 0);
  const MeasureSampling sampling = {step, cap, edges, faces};
  MeasureDistance d;
  EXPECT_EQ(measureDistance(&from, &tree, &sampling, threads, &d), 0);
  measureTreeFree(&tree);
  return d;
}

MeasureBound bound(const MeasureMesh &from, const MeasureMesh &to, bool decide = false,
                   double tol = 0, int threads = 1) {
  MeasureTree tree;
  EXPECT_EQ(measureTreeBuild(&to, &tree), 0);
  MeasureBound b;
  EXPECT_EQ(measureBound(&from, &tree, decide, tol, threads, &b), 0);
  measureTreeFree(&tree);
  return b;
}

// A height field of n x n squares over [0, 1]^2 scaled by `scale`, with
// pseudo-random heights below `relief` at the vertices (a function of the
// vertex, so the facets stay joined), folded along x = 0.5 when `crease`.
Soup heightField(int n, double relief, double scale, bool crease, double seed) {
  Soup s = fixture::sheet(n);
  for (size_t i = 0; i < s.size(); i += 3) {
    const double x = s[i] / n, y = s[i + 1] / n, noise = std::sin(x * 91.7 + y * 37.3 + seed) * 4375.85;
    s[i] = float(scale * x), s[i + 1] = float(scale * y);
    s[i + 2] = float(scale * (relief * (noise - std::floor(noise)) + (crease ? 0.5 - std::fabs(0.5 - x) : 0)));
  }
  return s;
}

} // namespace

// The brute force misses the true distance by at most the grid spacing and can
// never beat it; the closest point must lie at the distance returned.
TEST(PointTriangle, MatchesDenseSamplingOnGeneralSliverAndDegenerateTriangles) {
  std::mt19937 random(12345);
  std::uniform_real_distribution<double> unit(-1, 1);
  const int grid = 300;
  for (int shape = 0; shape < 6; ++shape) {
    for (int trial = 0; trial < 12; ++trial) {
      double a[3], b[3], c[3];
      for (int k = 0; k < 3; ++k) {
        a[k] = unit(random);
        b[k] = unit(random);
        c[k] = unit(random);
      }
      const double s = 0.3 + 0.4 * (unit(random) + 1) / 2;
      for (int k = 0; k < 3; ++k) {
        if (shape == 1) c[k] = a[k] + s * (b[k] - a[k]) + 1e-7 * unit(random); // sliver
        if (shape == 2) c[k] = b[k] + 1e-6 * unit(random);                     // needle
        if (shape == 3) c[k] = a[k] + 0.5 * (b[k] - a[k]) * 4;                // collinear
        if (shape == 4) c[k] = b[k];                                           // repeated corner
        if (shape == 5) b[k] = c[k] = a[k];                                    // a point
      }
      for (int q = 0; q < 15; ++q) {
        const double p[3] = {1.5 * unit(random), 1.5 * unit(random), 1.5 * unit(random)};
        double closest[3];
        const double exact = std::sqrt(measurePointTriangle(p, a, b, c, closest));
        const double brute = bruteDistance(p, a, b, c, grid);
        SCOPED_TRACE(testing::Message() << "shape " << shape << " trial " << trial);
        EXPECT_LE(exact, brute + 1e-12);
        EXPECT_LE(brute, exact + 1.5 * longestSide(a, b, c) / grid);
        const double back = std::hypot(p[0] - closest[0], p[1] - closest[1], p[2] - closest[2]);
        EXPECT_NEAR(back, exact, 1e-12);
        EXPECT_LE(bruteDistance(closest, a, b, c, grid), 1.5 * longestSide(a, b, c) / grid);
      }
    }
  }
}

TEST(Tree, NearestEqualsScanOfEveryTriangleWhateverTheHint) {
  std::mt19937 random(777);
  std::uniform_real_distribution<float> unit(-10, 10);
  std::uniform_real_distribution<float> small(-0.5f, 0.5f);
  Soup soup;
  for (int t = 0; t < 3000; ++t) {
    const float a[3] = {unit(random), unit(random), unit(random)};
    const float b[3] = {a[0] + small(random), a[1] + small(random), a[2] + 4 * small(random)};
    const float c[3] = {a[0] + small(random), a[1] + 4 * small(random), a[2] + small(random)};
    fixture::tri(soup, a, b, c);
  }
  Welded w(soup);
  MeasureTree tree;
  ASSERT_EQ(measureTreeBuild(&w.mesh, &tree), 0);
  for (int q = 0; q < 500; ++q) {
    const double p[3] = {1.2 * unit(random), 1.2 * unit(random), 1.2 * unit(random)};
    double scan = std::numeric_limits<double>::infinity();
    for (int64_t f = 0; f < w.mesh.facetCount; ++f) {
      double v[3][3];
      for (int k = 0; k < 3; ++k)
        for (int i = 0; i < 3; ++i) v[k][i] = w.mesh.xyz[3 * w.mesh.tri[3 * f + k] + i];
      scan = std::min(scan, measurePointTriangle(p, v[0], v[1], v[2], nullptr));
    }
    int32_t hint = q % 2 ? -1 : q * 5;
    EXPECT_EQ(measureTreeNearest(&tree, p, &hint), scan);
  }
  measureTreeFree(&tree);
  MeasureTree empty;
  MeasureMesh none = {};
  ASSERT_EQ(measureTreeBuild(&none, &empty), 0);
  const double p[3] = {0, 0, 0};
  EXPECT_EQ(measureTreeNearest(&empty, p, nullptr), std::numeric_limits<double>::infinity());
}

// Random height fields and soups against random finer and coarser ones, flat
// and creased, at 1e-4 and 1e4: the densely sampled maximum can never exceed the upper bound,
// the lower bound never exceeds it by more than the sample step, the refinement
// meets its gap, and deciding at either side of the bounds gives that verdict.
TEST(Bound, BracketsTheDenseMaximumOfRandomSurfacesAtEveryScale) {
  std::mt19937 random(2024);
  std::uniform_real_distribution<float> unit(0, 1);
  for (double scale : {1e-4, 1e4}) {
    for (int shape = 0; shape < 4; ++shape) {
      // Coarse against fine puts the maxima inside facets, fine against coarse at corners.
      const bool coarse = shape == 1;
      Soup from = heightField(coarse ? 2 : 6, coarse ? 0 : 0.1, scale, shape == 2, shape), to;
      if (shape < 3) {
        to = heightField(coarse ? 7 : 3, 0.1, scale, shape == 2, 10 + shape);
      } else {
        for (float &x : from) x = float(scale) * unit(random);
        for (int t = 0; t < 9 * 6; ++t) to.push_back(float(scale) * unit(random));
      }
      SCOPED_TRACE(testing::Message() << "scale " << scale << " shape " << shape);
      Welded a(from), b(to);
      const double step = scale / 250, dense = distance(a.mesh, b.mesh, step).max;
      const MeasureBound c = bound(a.mesh, b.mesh);
      EXPECT_FALSE(c.limited);
      EXPECT_GE(c.upper, dense);
      EXPECT_LE(c.lower, dense + step);
      EXPECT_LE(c.upper - c.lower, 1e-3 * c.upper);
      EXPECT_LE(c.allowance, 64 * 0x1p-53 * scale);
      EXPECT_EQ(bound(a.mesh, b.mesh, true, c.upper).verdict, kVerdictWithin);
      EXPECT_EQ(bound(a.mesh, b.mesh, true, 0.99 * c.lower).verdict, kVerdictBeyond);
    }
  }
}

// The square split on one diagonal against the same square split on the other:
// the nearest triangle changes inside both facets at distance 0, which the pair
// bound settles without a split; identical facets certify exactly 0, so only
// they pass a tolerance of 0, and no surface passes a negative one.
TEST(Bound, CoplanarSplitCertifiesZeroAndToleranceZeroOrBelow) {
  Soup other = fixture::square(0);
  for (int k = 0; k < 3; ++k) other[6 + k] = other[15 + k], other[9 + k] = other[3 + k];
  Welded flat(fixture::square(0)), split(other);
  const MeasureBound c = bound(flat.mesh, split.mesh);
  EXPECT_EQ(c.lower, 0);
  EXPECT_LE(c.upper, 2 * c.allowance);
  EXPECT_EQ(c.pieces, 2);
  EXPECT_EQ(bound(flat.mesh, split.mesh, true, 1e-9).verdict, kVerdictWithin);
  EXPECT_EQ(bound(flat.mesh, split.mesh, true, 0).verdict, kVerdictUndecided);
  EXPECT_EQ(bound(flat.mesh, flat.mesh, true, 0).verdict, kVerdictWithin);
  EXPECT_EQ(bound(flat.mesh, flat.mesh, true, -1e-30).verdict, kVerdictBeyond);
}

// Triangle (0,0), (4,0), (0,3) has its incircle of radius 1 at (1, 1). Raising
// that point to height 1 makes three faces sloped at 45 degrees, so the flat
// triangle strays by 1/sqrt(2) at its incentre, inside the facet, and nowhere
// else by more; its edges and vertices lie on the raised surface.
TEST(Hausdorff, MaximumInsideAFacetIsFoundWithinAStepAndMissedWithoutFaceSamples) {
  const float a[3] = {0, 0, 0}, b[3] = {4, 0, 0}, c[3] = {0, 3, 0}, p[3] = {1, 1, 1};
  Soup raised, flatSoup;
  fixture::tri(raised, a, b, p);
  fixture::tri(raised, b, c, p);
  fixture::tri(raised, c, a, p);
  fixture::tri(flatSoup, a, b, c);
  Welded tent(raised), flat(flatSoup);
  const double step = 0.05, peak = 1 / std::sqrt(2.0);
  const MeasureDistance found = distance(flat.mesh, tent.mesh, step);
  EXPECT_LE(found.max, peak + 1e-12);
  EXPECT_GE(found.max, peak - step);
  EXPECT_NEAR(found.at[0], 1, 2 * step);
  EXPECT_NEAR(found.at[1], 1, 2 * step);
  EXPECT_LT(distance(flat.mesh, tent.mesh, step, true, false).max, 1e-9);
  EXPECT_EQ(distance(tent.mesh, flat.mesh, step).max, 1);
  const MeasureBound certified = bound(flat.mesh, tent.mesh);
  EXPECT_GE(certified.upper, peak);
  EXPECT_LE(certified.lower, peak);
  EXPECT_LE(certified.upper - certified.lower, 1e-3 * peak);
}

TEST(Hausdorff, CapGrowsTheStepAndEmptyTargetIsInfiniteAndFails) {
  Welded bump(fixture::square(0.5f)), flat(fixture::square(0));
  const MeasureDistance capped = distance(flat.mesh, bump.mesh, 0.001, true, true, 1, 5000);
  EXPECT_TRUE(capped.capped && capped.step > 0.001 && capped.samples <= 5000);
  Welded none(Soup{});
  const MeasureDistance toEmpty = distance(flat.mesh, none.mesh, 0.1);
  EXPECT_EQ(toEmpty.max, std::numeric_limits<double>::infinity());
  const MeasureDistance fromEmpty = distance(none.mesh, flat.mesh, 0.1);
  EXPECT_EQ(fromEmpty.max, 0);
  EXPECT_EQ(fromEmpty.samples, 0);
  EXPECT_EQ(bound(flat.mesh, none.mesh, true, 1e30).verdict, kVerdictBeyond);
  EXPECT_EQ(bound(none.mesh, flat.mesh, true, 0).upper, 0);
}

// Many chunks of uneven work; every figure must be bitwise the same.
TEST(Hausdorff, BitwiseSameForAnyThreadCount) {
  Soup wavy = fixture::sheet(60);
  for (size_t i = 2; i < wavy.size(); i += 3) {
    wavy[i] = 0.3f * std::sin(wavy[i - 2] * 0.7f) * std::cos(wavy[i - 1] * 0.4f);
  }
  Welded a(wavy), b(fixture::sheet(60));
  const MeasureDistance one = distance(a.mesh, b.mesh, 0.02, true, true, 1);
  const MeasureBound first = bound(b.mesh, a.mesh, false, 0, 1);
  ASSERT_GT(one.samples, 100000);
  ASSERT_GT(first.depth, 0);
  for (int threads : {2, 3, 7}) {
    const MeasureDistance many = distance(a.mesh, b.mesh, 0.02, true, true, threads);
    const MeasureBound again = bound(b.mesh, a.mesh, false, 0, threads);
    EXPECT_EQ(std::memcmp(&one, &many, sizeof one), 0) << threads << " threads";
    EXPECT_EQ(std::memcmp(&first, &again, sizeof first), 0) << threads << " threads";
  }
}
