// Distance kernels against dense sampling, and their prescribed rules for
// degenerate input.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "kernels/kernels.h"

namespace {

struct V3 {
  double v[3];
};

double d2(const double* a, const double* b) {
  double x = a[0] - b[0], y = a[1] - b[1], z = a[2] - b[2];
  return x * x + y * y + z * z;
}

double len(const double* a, const double* b) {
  return std::sqrt(d2(a, b));
}

V3 lerp(const double* a, const double* b, double t) {
  return {{a[0] + t * (b[0] - a[0]), a[1] + t * (b[1] - a[1]), a[2] + t * (b[2] - a[2])}};
}

// a + s (b - a) + t (c - b): the triangle's own parametrisation.
V3 triPoint(const double* a, const double* b, const double* c, double s, double t) {
  V3 r;
  for (int i = 0; i < 3; i++) r.v[i] = a[i] + s * (b[i] - a[i]) + t * (c[i] - b[i]);
  return r;
}

// Squared distance from p to a lattice of the triangle, refined once around
// the best lattice point. The squared distance is convex over the triangle,
// so the refinement stays near the true minimum.
double bruteTri(const double* a, const double* b, const double* c, const double* p) {
  const int n = 120, fine = 60;
  double best = INFINITY, bs = 0, bt = 0;
  for (int i = 0; i <= n; i++) {
    for (int j = 0; j <= i; j++) {
      double s = double(i) / n, t = double(j) / n;
      double d = d2(triPoint(a, b, c, s, t).v, p);
      if (d < best) {
        best = d;
        bs = s;
        bt = t;
      }
    }
  }
  double h = 2.0 / n;
  for (int i = -fine; i <= fine; i++) {
    for (int j = -fine; j <= fine; j++) {
      double s = bs + h * i / fine, t = bt + h * j / fine;
      if (t < 0 || t > s || s > 1) continue;
      best = std::min(best, d2(triPoint(a, b, c, s, t).v, p));
    }
  }
  return best;
}

double bruteSegSeg(const double* a0, const double* a1, const double* b0, const double* b1) {
  const int n = 300;
  double best = INFINITY;
  for (int i = 0; i <= n; i++) {
    V3 x = lerp(a0, a1, double(i) / n);
    for (int j = 0; j <= n; j++) best = std::min(best, d2(x.v, lerp(b0, b1, double(j) / n).v));
  }
  return best;
}

// ---------------------------------------------------------------------------
// Point to segment

TEST(PointSegDist2, PositionIsUnclampedAndShortSegmentsAreMidpoints) {
  struct Case {
    double p[3];
    double tol;
    double dist, t;
    const char* what;
  };
  const double a[3] = {1, 0, 0}, b[3] = {3, 0, 0};
  const Case cases[] = {
      {{5, 1, 0}, 1e-6, 5, 2, "beyond b: distance to b, t above 1"},
      {{0, 0, 2}, 1e-6, 5, -0.5, "behind a: distance to a, t below 0"},
      {{1.5, 3, 4}, 1e-6, 25, 0.25, "inside"},
      {{3, 2, 0}, 1e-6, 4, 1, "at b"},
      {{2, 5, 0}, 2.5, 25, 0, "shorter than tol: midpoint, t 0"},
      {{0, 0, 0}, 2.5, 4, 0, "shorter than tol, p off the middle"},
  };
  for (const Case& k : cases) {
    double t = -9;
    EXPECT_EQ(pointSegDist2(a, b, k.p, k.tol, &t), k.dist) << k.what;
    EXPECT_EQ(t, k.t) << k.what;
    t = -9;
    EXPECT_EQ(pointSegDist2d(a, b, k.p, k.tol, &t), k.dist - k.p[2] * k.p[2]) << k.what;
    EXPECT_EQ(t, k.t) << k.what;
  }
}

// ---------------------------------------------------------------------------
// Point to triangle

TEST(PointTriDist2, MatchesDenseSamplingOnRegularTriangles) {
  std::mt19937_64 rng(31);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int checked = 0;
  for (int i = 0; i < 1500; i++) {
    V3 a = {{u(rng), u(rng), u(rng)}}, b = {{u(rng), u(rng), u(rng)}}, c = {{u(rng), u(rng), u(rng)}};
    V3 p;
    if (i % 3 == 0) {
      p = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}};
    } else {
      // In the plane or just off it, inside or outside the triangle.
      p = triPoint(a.v, b.v, c.v, 1.5 * u(rng) + 0.5, 1.5 * u(rng) + 0.25);
      if (i % 3 == 2) p.v[2] += 0.01 * u(rng);
    }
    double raw[2], clamped[2];
    double d = pointTriDist2(nullptr, a.v, b.v, c.v, p.v, 1e-6, raw, clamped);
    // Keep to triangles that are not degenerate at this tolerance.
    double ab = len(a.v, b.v), bc = len(b.v, c.v), ac = len(a.v, c.v);
    if (std::min({ab, bc, ac}) < 0.05) continue;
    checked++;
    // The reported point lies on the triangle at the reported distance ...
    EXPECT_GE(clamped[1], 0.0);
    EXPECT_LE(clamped[1], clamped[0]);
    EXPECT_LE(clamped[0], 1.0);
    EXPECT_NEAR(d2(triPoint(a.v, b.v, c.v, clamped[0], clamped[1]).v, p.v), d, 1e-12);
    // ... and no sample of the triangle is nearer.
    double brute = bruteTri(a.v, b.v, c.v, p.v);
    EXPECT_LE(d, brute + 1e-12) << i;
    EXPECT_GE(std::sqrt(d), std::sqrt(brute) - 1e-3 * std::max({ab, bc, ac})) << i;
  }
  EXPECT_GT(checked, 1000);
}

TEST(PointTriDist2, DegenerateTrianglesStayWithinTheirSize) {
  // Needles and slivers at tol 1e-6: the measure may differ from the true
  // distance by no more than the collapsed width.
  std::mt19937_64 rng(32);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  const double tol = 1e-6;
  for (int i = 0; i < 900; i++) {
    V3 a = {{u(rng), u(rng), u(rng)}}, b, c;
    V3 dir = {{u(rng), u(rng), u(rng)}};
    V3 off = {{1e-7 * u(rng), 1e-7 * u(rng), 1e-7 * u(rng)}};
    switch (i % 3) {
      case 0:  // needle: ab shorter than tol
        b = {{a.v[0] + off.v[0], a.v[1] + off.v[1], a.v[2] + off.v[2]}};
        c = {{a.v[0] + dir.v[0], a.v[1] + dir.v[1], a.v[2] + dir.v[2]}};
        break;
      case 1:  // needle: bc shorter than tol
        b = {{a.v[0] + dir.v[0], a.v[1] + dir.v[1], a.v[2] + dir.v[2]}};
        c = {{b.v[0] + off.v[0], b.v[1] + off.v[1], b.v[2] + off.v[2]}};
        break;
      default: {  // sliver: c near the line ab, all edges long
        b = {{a.v[0] + dir.v[0], a.v[1] + dir.v[1], a.v[2] + dir.v[2]}};
        V3 m = lerp(a.v, b.v, 0.5 + 0.4 * u(rng));
        c = {{m.v[0] + off.v[0], m.v[1] + off.v[1], m.v[2] + off.v[2]}};
        if (len(a.v, b.v) < 0.1) continue;
      }
    }
    V3 p = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}};
    double clamped[2];
    double d = pointTriDist2(nullptr, a.v, b.v, c.v, p.v, tol, nullptr, clamped);
    double brute = bruteTri(a.v, b.v, c.v, p.v);
    double size = std::max({len(a.v, b.v), len(b.v, c.v), len(a.v, c.v)});
    EXPECT_NEAR(std::sqrt(d), std::sqrt(brute), 1e-3 * size + 2e-7) << i;
  }
}

TEST(PointTriDist2, TinyTrianglesAreMeasuredAsPointsAndSegments) {
  const double tol = 1e-6;
  const double p[3] = {1, 2, 2};
  double raw[2], clamped[2];
  // Three coincident corners: the point itself, pairs of 0.5.
  const double o[3] = {0, 0, 0};
  EXPECT_EQ(pointTriDist2(nullptr, o, o, o, p, tol, raw, clamped), 9.0);
  EXPECT_EQ(raw[0], 0.5);
  EXPECT_EQ(raw[1], 0.5);
  EXPECT_EQ(clamped[0], 0.5);
  EXPECT_EQ(clamped[1], 0.5);
  // Corners within tol of each other: the centroid.
  const double a[3] = {0, 0, 0}, b[3] = {3e-7, 0, 0}, c[3] = {6e-7, 0, 0};
  const double g[3] = {3e-7, 0, 0};
  EXPECT_DOUBLE_EQ(pointTriDist2(nullptr, a, b, c, p, tol, raw, clamped), d2(p, g));

  struct Case {
    double a[3], b[3], c[3];
    double raw0, raw1;
    const char* what;
  };
  // p = (2, 1, 0) against triangles with short edges; the expected pair puts
  // the nearest point on the remaining long segment.
  const double q[3] = {2, 1, 0};
  const Case cases[] = {
      {{0, 0, 0}, {9e-7, 0, 0}, {1.8e-6, 0, 0}, 2.0 / 1.8e-6, 2.0 / 1.8e-6,
       "ab, bc short, ac long: segment ac, (r, r)"},
      {{0, 0, 0}, {1e-7, 0, 0}, {4, 0, 0}, 1, (2 - 1e-7) / (4 - 1e-7), "ab short: bc, (1, r)"},
      {{0, 0, 0}, {4, 0, 0}, {4, 1e-7, 0}, 0.5, 0, "bc short: ab, (r, 0)"},
  };
  for (const Case& k : cases) {
    pointTriDist2(nullptr, k.a, k.b, k.c, q, tol, raw, clamped);
    EXPECT_DOUBLE_EQ(raw[0], k.raw0) << k.what;
    EXPECT_DOUBLE_EQ(raw[1], k.raw1) << k.what;
    EXPECT_DOUBLE_EQ(clamped[0], std::min(k.raw0, 1.0)) << k.what;
    EXPECT_DOUBLE_EQ(clamped[1], std::min(k.raw1, 1.0)) << k.what;
  }
}

TEST(PointTriDist2, SliverNearestOnAcCarriesThePositionFoundOnAb) {
  // A sliver whose long edge is ac: c = (2, h), b = (1, 0). The point is
  // nearer ac than ab, but the pair holds ab's position 0.5, not ac's 0.25.
  const double h = 1e-8;
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {2, h, 0};
  const double p[3] = {0.5, 1, 0};
  double raw[2], clamped[2];
  double d = pointTriDist2(nullptr, a, b, c, p, 1e-6, raw, clamped);
  // Distance of p to the line through a and c, by hand.
  double acLen2 = 4 + h * h;
  double cross = 2 * 1 - h * 0.5;
  EXPECT_NEAR(d, cross * cross / acLen2, 1e-15);
  EXPECT_LT(d, 1.0);  // strictly nearer than ab (distance 1)
  EXPECT_EQ(raw[0], 0.5);
  EXPECT_EQ(raw[1], 0.5);

  // The same configuration opened up into a regular triangle keeps ac's own
  // position.
  const double c2[3] = {2, 1, 0};
  const double p2[3] = {1, 2, 0};
  EXPECT_DOUBLE_EQ(pointTriDist2(nullptr, a, b, c2, p2, 1e-6, raw, clamped), 1.8);
  EXPECT_DOUBLE_EQ(raw[0], 0.8);
  EXPECT_DOUBLE_EQ(raw[1], 0.8);
}

TEST(PointTriDist2, TiesPreferAbThenBc) {
  // Points nearest a corner shared by two edges: the pair says which edge
  // was chosen, since the raw positions differ.
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {1, 1, 0};
  struct Case {
    double p[3];
    double dist, raw0, raw1;
    const char* what;
  };
  const Case cases[] = {
      {{2, -1, 0}, 2, 2, 0, "at b: ab before bc"},
      {{1.5, 2.5, 0}, 2.5, 1, 2.5, "at c: bc before ac"},
      {{-1, -0.5, 0}, 1.25, -1, 0, "at a: ab before ac"},
  };
  for (const Case& k : cases) {
    double raw[2], clamped[2];
    EXPECT_DOUBLE_EQ(pointTriDist2(nullptr, a, b, c, k.p, 1e-6, raw, clamped), k.dist) << k.what;
    EXPECT_DOUBLE_EQ(raw[0], k.raw0) << k.what;
    EXPECT_DOUBLE_EQ(raw[1], k.raw1) << k.what;
  }
}

TEST(PointTriDist2, CacheIsFilledAndThenReadAsItStands) {
  const double a[3] = {0, 0, 0}, b[3] = {2, 0, 0}, c[3] = {2, 2, 0};
  const double p[3] = {1.5, 0.5, 3};
  qvTriCache cache;
  cache.have = 0;
  double raw[2], clamped[2];
  double d = pointTriDist2(&cache, a, b, c, p, 1e-6, raw, clamped);
  EXPECT_EQ(d, 9.0);
  const uint32_t all = kTriHaveAb | kTriHaveBc | kTriHaveN | kTriHaveAb2 | kTriHaveBc2 |
                       kTriHaveN2 | kTriHaveVol;
  EXPECT_EQ(cache.have & all, all);
  EXPECT_EQ(cache.n[2], 4.0);
  EXPECT_EQ(pointTriDist2(&cache, a, b, c, p, 1e-6, raw, clamped), d);
  // A cache that claims a flat triangle is believed: measured as a sliver.
  cache.n2 = 0.0;
  EXPECT_EQ(pointTriDist2(&cache, a, b, c, p, 1e-6, raw, clamped), 9.25);
}

// ---------------------------------------------------------------------------
// Segment to segment

TEST(SegSegDist2, MatchesDenseSamplingOnRandomAndDegenerateSegments) {
  std::mt19937_64 rng(33);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int i = 0; i < 1500; i++) {
    V3 a0 = {{u(rng), u(rng), u(rng)}}, a1 = {{u(rng), u(rng), u(rng)}};
    V3 b0 = {{u(rng), u(rng), u(rng)}}, b1 = {{u(rng), u(rng), u(rng)}};
    bool parallel = false;
    double slack = 0;
    switch (i % 6) {
      case 1: {  // crossing: b passes through a point of a
        V3 x = lerp(a0.v, a1.v, 0.5 * u(rng) + 0.5);
        for (int k = 0; k < 3; k++) b1.v[k] = 2 * x.v[k] - b0.v[k];
        break;
      }
      case 2:  // exactly parallel: b's direction is a's scaled by a power of 2
        for (int k = 0; k < 3; k++) b1.v[k] = b0.v[k] + 0.5 * (a1.v[k] - a0.v[k]);
        parallel = true;
        break;
      case 3:  // collinear, overlapping or not
        for (int k = 0; k < 3; k++) {
          b0.v[k] = a0.v[k] + 0.75 * (a1.v[k] - a0.v[k]);
          b1.v[k] = a0.v[k] + 2.0 * (a1.v[k] - a0.v[k]);
        }
        parallel = true;
        slack = 1e-7;
        break;
      case 4:  // b a point
        b1 = b0;
        parallel = true;
        break;
      case 5:  // b a needle shorter than tol: measured at its midpoint
        for (int k = 0; k < 3; k++) b1.v[k] = b0.v[k] + 3e-7 * u(rng);
        parallel = true;
        slack = 3e-7;
        break;
    }
    double out[3];
    int32_t status = segSegDist2(a0.v, a1.v, b0.v, b1.v, 1e-6, out);
    EXPECT_EQ(status, parallel ? 1 : 0) << i;
    double brute = bruteSegSeg(a0.v, a1.v, b0.v, b1.v);
    double reach = (len(a0.v, a1.v) + len(b0.v, b1.v)) / 600.0;
    EXPECT_LE(std::sqrt(out[0]), std::sqrt(brute) + slack + 1e-12) << i;
    EXPECT_GE(std::sqrt(out[0]), std::sqrt(brute) - reach - slack) << i;
    // The positions lie on the segments and realise the distance.
    ASSERT_GE(out[1], 0.0);
    ASSERT_LE(out[1], 1.0);
    ASSERT_GE(out[2], 0.0);
    ASSERT_LE(out[2], 1.0);
    if (slack == 0) {
      EXPECT_NEAR(d2(lerp(a0.v, a1.v, out[1]).v, lerp(b0.v, b1.v, out[2]).v), out[0], 1e-12) << i;
    }
  }
}

TEST(SegSegDist2, LinesAreParallelWhenTheirCrossProductIsWithinTol) {
  // |da x db|^2 against tol^2: a sine of 1e-4 is a regular crossing, 1e-7 is
  // parallel. Either way the distance is the true one.
  struct Case {
    double sine;
    int32_t status;
  };
  const Case cases[] = {{1e-4, 0}, {1e-5, 0}, {1e-7, 1}, {0, 1}};
  const double a0[3] = {0, 0, 0}, a1[3] = {1, 0, 0};
  for (const Case& k : cases) {
    const double b0[3] = {-0.25, 0, 0.5}, b1[3] = {0.75, k.sine, 0.5};
    double out[3];
    EXPECT_EQ(segSegDist2(a0, a1, b0, b1, 1e-6, out), k.status) << k.sine;
    EXPECT_NEAR(out[0], 0.25, 1e-9) << k.sine;
  }
}

// ---------------------------------------------------------------------------
// Segment to triangle

TEST(SegTriDist2, PiercingAndInPlaneSegments) {
  const double a[3] = {0, 0, 0}, b[3] = {4, 0, 0}, c[3] = {4, 4, 0};
  struct Case {
    double p[3], q[3];
    double dist;
    const char* what;
  };
  const Case cases[] = {
      {{3, 1, -1}, {3, 1, 1}, 0.0, "pierces the interior"},
      {{3, 1, 0}, {3, 1, 5}, 0.0, "starts on the triangle"},
      {{-1, -1, 0}, {5, 1, 0}, 0.0, "in the plane, across the triangle: den 0"},
      {{-2, 1, 0}, {-2, -1, 0}, 4.0, "in the plane, outside: to a"},
      {{2, 0.5, 1}, {2, 0.5, 3}, 1.0, "above: p nearest"},
  };
  for (const Case& k : cases) {
    EXPECT_NEAR(segTriDist2(nullptr, a, b, c, k.p, k.q, 1e-6), k.dist, 1e-15) << k.what;
  }
}

TEST(SegTriDist2, LeavesTheDistanceOfQOutOfTheMinimum) {
  // q hangs 0.1 above the interior, p far off: the true distance is q's
  // (0.01), but the result is the nearest of p and the edges.
  const double a[3] = {0, 0, 0}, b[3] = {1, 0, 0}, c[3] = {1, 1, 0};
  const double p[3] = {5, 5, 3}, q[3] = {0.7, 0.2, 0.1};
  qvTriCache cache;
  cache.have = 0;
  double d = segTriDist2(&cache, a, b, c, p, q, 1e-6);
  EXPECT_NEAR(pointTriDist2(nullptr, a, b, c, q, 1e-6, nullptr, nullptr), 0.01, 1e-15);
  // Brute force over the segment against the three edges, and p itself.
  double expect = bruteTri(a, b, c, p);
  const double* edges[3][2] = {{a, b}, {b, c}, {a, c}};
  for (const auto& e : edges) expect = std::min(expect, bruteSegSeg(p, q, e[0], e[1]));
  EXPECT_GT(d, 0.04);
  EXPECT_NEAR(std::sqrt(d), std::sqrt(expect), 0.03);
  EXPECT_LE(d, expect + 1e-12);
  EXPECT_NE(cache.have & kTriHaveVol, 0u);
}

TEST(SegTriDist2, MatchesSamplingWhereQIsNotTheNearestEnd) {
  // Sampling the segment with pointTriDist2 (checked above against sampling
  // of the triangle) gives the true distance. The routine must never be
  // below it, and must reach it unless q alone is nearest.
  std::mt19937_64 rng(34);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int compared = 0;
  for (int i = 0; i < 600; i++) {
    V3 a = {{u(rng), u(rng), u(rng)}}, b = {{u(rng), u(rng), u(rng)}}, c = {{u(rng), u(rng), u(rng)}};
    if (std::min({len(a.v, b.v), len(b.v, c.v), len(a.v, c.v)}) < 0.1) continue;
    V3 p = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}}, q = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}};
    double d = segTriDist2(nullptr, a.v, b.v, c.v, p.v, q.v, 1e-6);
    const int n = 2000;
    double truth = INFINITY;
    for (int k = 0; k <= n; k++) {
      V3 x = lerp(p.v, q.v, double(k) / n);
      truth = std::min(truth, pointTriDist2(nullptr, a.v, b.v, c.v, x.v, 1e-6, nullptr, nullptr));
    }
    double reach = len(p.v, q.v) / (2.0 * n);
    EXPECT_GE(std::sqrt(d), std::sqrt(truth) - reach - 1e-12) << i;
    double dq = pointTriDist2(nullptr, a.v, b.v, c.v, q.v, 1e-6, nullptr, nullptr);
    if (std::sqrt(truth) + 1e-3 < std::sqrt(dq)) {
      compared++;
      EXPECT_LE(std::sqrt(d), std::sqrt(truth) + 1e-12) << i;
    }
  }
  EXPECT_GT(compared, 300);
}

}  // namespace
