// Distances against independent answers: dense brute-force sampling for the
// point-to-triangle routine, a scan of every triangle for the tree, and
// hand-computed Hausdorff distances for a bump, a facet, an edge and two boxes.
#include "fixtures.h"

#include <gtest/gtest.h>

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
  auto len = [](const double *x, const double *y) {
    return std::sqrt((x[0] - y[0]) * (x[0] - y[0]) + (x[1] - y[1]) * (x[1] - y[1]) +
                     (x[2] - y[2]) * (x[2] - y[2]));
  };
  return std::max(len(a, b), std::max(len(b, c), len(c, a)));
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

// Square [-1, 1]^2 with an apex of height h against the flat square split on
// its diagonal. Original -> reduced is h at the apex. Reduced -> original peaks
// at the centre, which lies on the diagonal edge, at h / sqrt(1 + h^2): the
// distance to each sloped face's plane h y - z + h = 0 from (0, 0, 0).
TEST(Hausdorff, BumpOnPlaneBothWaysAndTheEdgeMaximumNeedsEdgeSamples) {
  const double h = 0.5;
  Welded bump(fixture::square(float(h))), flat(fixture::square(0));
  const MeasureDistance out = distance(bump.mesh, flat.mesh, 0.25);
  EXPECT_EQ(out.max, h);
  EXPECT_EQ(out.at[0], 0);
  EXPECT_EQ(out.at[2], h);
  const MeasureDistance back = distance(flat.mesh, bump.mesh, 0.25);
  EXPECT_NEAR(back.max, h / std::sqrt(1 + h * h), 1e-12);
  EXPECT_NEAR(std::hypot(back.at[0], back.at[1], back.at[2]), 0, 1e-12);
  const MeasureDistance missed = distance(flat.mesh, bump.mesh, 0.25, false, true);
  EXPECT_LT(missed.max, h / std::sqrt(1 + h * h) - 0.05);
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
}

// Box [-1, 1]^3 inside box [-2, 2]^3: every inner point is 1 from the outer
// surface; the outer corners are sqrt(3) from the inner corners.
TEST(Hausdorff, ConcentricBoxes) {
  Welded outer(fixture::box(-2, 2)), inner(fixture::box(-1, 1));
  const MeasureDistance in = distance(inner.mesh, outer.mesh, 0.1);
  EXPECT_NEAR(in.max, 1, 1e-12);
  EXPECT_NEAR(in.mean, 1, 1e-12);
  EXPECT_NEAR(in.rms, 1, 1e-12);
  const MeasureDistance out = distance(outer.mesh, inner.mesh, 0.1);
  EXPECT_NEAR(out.max, std::sqrt(3.0), 1e-12);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(std::fabs(out.at[i]), 2);
  EXPECT_GT(out.samples, 24 * 20 * 20);
}

TEST(Hausdorff, CapGrowsTheStepAndEmptyTargetIsInfinite) {
  Welded bump(fixture::square(0.5f)), flat(fixture::square(0));
  const MeasureDistance capped = distance(flat.mesh, bump.mesh, 0.001, true, true, 1, 5000);
  EXPECT_TRUE(capped.capped);
  EXPECT_GT(capped.step, 0.001);
  EXPECT_LE(capped.samples, 5000);
  EXPECT_GT(capped.samples, 1000);
  EXPECT_FALSE(distance(flat.mesh, bump.mesh, 0.01).capped);
  Welded none(Soup{});
  const MeasureDistance toEmpty = distance(flat.mesh, none.mesh, 0.1);
  EXPECT_EQ(toEmpty.max, std::numeric_limits<double>::infinity());
  const MeasureDistance fromEmpty = distance(none.mesh, flat.mesh, 0.1);
  EXPECT_EQ(fromEmpty.max, 0);
  EXPECT_EQ(fromEmpty.samples, 0);
}

// Many chunks of uneven work; every figure must be bitwise the same.
TEST(Hausdorff, BitwiseSameForAnyThreadCount) {
  Soup wavy = fixture::sheet(60);
  for (size_t i = 2; i < wavy.size(); i += 3) {
    wavy[i] = 0.3f * std::sin(wavy[i - 2] * 0.7f) * std::cos(wavy[i - 1] * 0.4f);
  }
  Welded a(wavy), b(fixture::sheet(60));
  const MeasureDistance one = distance(a.mesh, b.mesh, 0.02, true, true, 1);
  ASSERT_GT(one.samples, 100000);
  for (int threads : {2, 3, 7}) {
    const MeasureDistance many = distance(a.mesh, b.mesh, 0.02, true, true, threads);
    EXPECT_EQ(std::memcmp(&one, &many, sizeof one), 0) << threads << " threads";
  }
}
