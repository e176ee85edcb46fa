// Distance kernels against dense sampling, and their rules for degenerate input.
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

// a + s (b - a) + t (c - b): with c == b a point of the segment a, b.
V3 at(const double* a, const double* b, const double* c, double s, double t = 0) {
  V3 r;
  for (int i = 0; i < 3; i++) r.v[i] = a[i] + s * (b[i] - a[i]) + t * (c[i] - b[i]);
  return r;
}

// p against a lattice of the triangle, refined once round the best node; the
// squared distance is convex over the triangle, so that is near the minimum.
double bruteTri(const double* a, const double* b, const double* c, const double* p) {
  const int n = 120, fine = 60;
  double best = INFINITY, bs = 0, bt = 0;
  for (int i = 0; i <= n; i++) {
    for (int j = 0; j <= i; j++) {
      double d = d2(at(a, b, c, double(i) / n, double(j) / n).v, p);
      if (d < best) best = d, bs = double(i) / n, bt = double(j) / n;
    }
  }
  for (int i = -fine; i <= fine; i++) {
    for (int j = -fine; j <= fine; j++) {
      double s = bs + 2.0 * i / (n * fine), t = bt + 2.0 * j / (n * fine);
      if (t >= 0 && t <= s && s <= 1) best = std::min(best, d2(at(a, b, c, s, t).v, p));
    }
  }
  return best;
}

double bruteSegSeg(const double* a0, const double* a1, const double* b0, const double* b1) {
  const int n = 300;
  double best = INFINITY;
  for (int i = 0; i <= n; i++) {
    for (int j = 0; j <= n; j++) {
      best = std::min(best, d2(at(a0, a1, a1, double(i) / n).v, at(b0, b1, b1, double(j) / n).v));
    }
  }
  return best;
}

TEST(PointSegDist2, PositionIsUnclampedAndShortSegmentsAreMidpoints) {
  const double a[3] = {1, 0, 0}, b[3] = {3, 0, 0};
  const double p[][3] = {{5, 1, 0}, {0, 0, 2}, {1.5, 3, 4}, {2, 5, 0}, {0, 0, 0}};
  const double tol[] = {1e-6, 1e-6, 1e-6, 2.5, 2.5};
  const double dist[] = {5, 5, 25, 25, 4}, pos[] = {2, -0.5, 0.25, 0, 0};
  for (int i = 0; i < 5; i++) {
    double t = -9, t2 = -9;
    EXPECT_EQ(pointSegDist2(a, b, p[i], tol[i], &t), dist[i]) << i;
    EXPECT_EQ(pointSegDist2d(a, b, p[i], tol[i], &t2), dist[i] - p[i][2] * p[i][2]) << i;
    EXPECT_TRUE(t == pos[i] && t2 == pos[i]) << i;
  }
}

TEST(PointTriDist2, MatchesDenseSamplingOnRegularAndDegenerateTriangles) {
  std::mt19937_64 rng(31);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int i = 0; i < 2400; i++) {
    V3 a = {{u(rng), u(rng), u(rng)}}, b = {{u(rng), u(rng), u(rng)}}, c = {{u(rng), u(rng), u(rng)}};
    V3 off = {{1e-7 * u(rng), 1e-7 * u(rng), 1e-7 * u(rng)}};
    double width = 0;  // how far the measure may be from the true distance
    switch (i % 4) {
      case 1:  // needle: ab (or bc) shorter than tol
        for (int k = 0; k < 3; k++) {
          if (i % 8 == 1) b.v[k] = a.v[k] + off.v[k];
          else c.v[k] = b.v[k] + off.v[k];
        }
        width = 2e-7;
        break;
      case 2:  // sliver: c beside ab, all edges long
        c = at(a.v, b.v, b.v, 0.5 + 0.4 * u(rng));
        for (int k = 0; k < 3; k++) c.v[k] += off.v[k];
        width = 2e-7;
        break;
    }
    if (std::max(len(a.v, b.v), len(b.v, c.v)) < 0.1 ||
        (width == 0 && std::min({len(a.v, b.v), len(b.v, c.v), len(a.v, c.v)}) < 0.05)) {
      continue;
    }
    V3 p = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}};
    if (i % 4 == 3) p = at(a.v, b.v, c.v, 1.5 * u(rng) + 0.5, 1.5 * u(rng) + 0.25);  // in the plane
    double raw[2], cl[2];
    double d = pointTriDist2(nullptr, a.v, b.v, c.v, p.v, 1e-6, raw, cl);
    double brute = bruteTri(a.v, b.v, c.v, p.v);
    double reach = 1e-3 * std::max({len(a.v, b.v), len(b.v, c.v), len(a.v, c.v)});
    EXPECT_LE(std::sqrt(d), std::sqrt(brute) + width + 1e-12) << i;
    EXPECT_GE(std::sqrt(d), std::sqrt(brute) - width - reach) << i;
    if (width == 0) {
      // The clamped pair is a point of the triangle at the reported distance.
      EXPECT_TRUE(0 <= cl[1] && cl[1] <= cl[0] && cl[0] <= 1) << i;
      EXPECT_NEAR(d2(at(a.v, b.v, c.v, cl[0], cl[1]).v, p.v), d, 1e-12) << i;
    }
  }
}

TEST(PointTriDist2, ShortEdgesTiesAndTheSliverPositionRule) {
  struct Case {
    double a[3], b[3], c[3], p[3];
    double dist, raw0, raw1;
    const char* what;
  };
  const double h = 1e-8;
  const Case cases[] = {
      {{0, 0, 0}, {0, 0, 0}, {0, 0, 0}, {1, 2, 2}, 9, 0.5, 0.5, "a point: pairs of 0.5"},
      {{0, 0, 0}, {3e-7, 0, 0}, {6e-7, 0, 0}, {1, 2, 2}, (1 - 3e-7) * (1 - 3e-7) + 8, 0.5, 0.5, "within tol: centroid"},
      {{0, 0, 0}, {9e-7, 0, 0}, {1.8e-6, 0, 0}, {2, 1, 0}, (2 - 1.8e-6) * (2 - 1.8e-6) + 1, 2 / 1.8e-6, 2 / 1.8e-6,
       "ab, bc short, ac long: (r, r) on ac"},
      {{0, 0, 0}, {1e-7, 0, 0}, {4, 0, 0}, {2, 1, 0}, 1, 1, (2 - 1e-7) / (4 - 1e-7),
       "ab short: (1, r) on bc"},
      {{0, 0, 0}, {4, 0, 0}, {4, 1e-7, 0}, {2, 1, 0}, 1, 0.5, 0, "bc short: (r, 0) on ab"},
      {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {2, -1, 0}, 2, 2, 0, "tie at b: ab before bc"},
      {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {1.5, 2.5, 0}, 2.5, 1, 2.5, "tie at c: bc before ac"},
      {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {-1, -0.5, 0}, 1.25, -1, 0, "tie at a: ab before ac"},
      {{0, 0, 0}, {1, 0, 0}, {2, 1, 0}, {1, 2, 0}, 1.8, 0.8, 0.8, "regular, nearest ac"},
      // A sliver whose long edge is ac: p is nearer ac (0.25 along it) than
      // ab, yet the pair carries the position found on ab.
      {{0, 0, 0}, {1, 0, 0}, {2, h, 0}, {0.5, 1, 0}, (2 - h / 2) * (2 - h / 2) / (4 + h * h),
       0.5, 0.5, "sliver nearest ac: ab's position"},
  };
  for (const Case& k : cases) {
    double raw[2], cl[2];
    double d = pointTriDist2(nullptr, k.a, k.b, k.c, k.p, 1e-6, raw, cl);
    EXPECT_NEAR(d, k.dist, 1e-14) << k.what;
    EXPECT_DOUBLE_EQ(raw[0], k.raw0) << k.what;
    EXPECT_DOUBLE_EQ(raw[1], k.raw1) << k.what;
    EXPECT_DOUBLE_EQ(cl[0], std::clamp(k.raw0, 0.0, 1.0)) << k.what;
    EXPECT_DOUBLE_EQ(cl[1], std::clamp(k.raw1, 0.0, 1.0)) << k.what;
  }
}

TEST(SegSegDist2, MatchesDenseSamplingOnRandomAndDegenerateSegments) {
  std::mt19937_64 rng(33);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  for (int i = 0; i < 1500; i++) {
    V3 a0 = {{u(rng), u(rng), u(rng)}}, a1 = {{u(rng), u(rng), u(rng)}};
    V3 b0 = {{u(rng), u(rng), u(rng)}}, b1 = {{u(rng), u(rng), u(rng)}};
    double m = 0.5 * u(rng) + 0.5, slack = i % 6 == 5 ? 1e-7 : 0;
    for (int k = 0; k < 3; k++) {
      double da = a1.v[k] - a0.v[k];
      if (i % 6 == 1) b1.v[k] = 2 * (a0.v[k] + m * da) - b0.v[k];  // crossing a
      if (i % 6 == 2) b1.v[k] = b0.v[k] + 0.5 * da;                  // exactly parallel
      if (i % 6 == 3) b0.v[k] = a0.v[k] + 0.75 * da, b1.v[k] = a0.v[k] + 2 * da;  // collinear
      if (i % 6 == 4) b1.v[k] = b0.v[k];                             // a point
      if (i % 6 == 5) b1.v[k] = b0.v[k] + 1e-7 * u(rng);             // shorter than tol
    }
    double out[3];
    EXPECT_EQ(segSegDist2(a0.v, a1.v, b0.v, b1.v, 1e-6, out), i % 6 >= 2 ? 1 : 0) << i;
    double brute = bruteSegSeg(a0.v, a1.v, b0.v, b1.v);
    double reach = (len(a0.v, a1.v) + len(b0.v, b1.v)) / 600.0;
    EXPECT_LE(std::sqrt(out[0]), std::sqrt(brute) + slack + 1e-12) << i;
    EXPECT_GE(std::sqrt(out[0]), std::sqrt(brute) - reach - slack) << i;
    ASSERT_TRUE(0 <= out[1] && out[1] <= 1 && 0 <= out[2] && out[2] <= 1) << i;
    if (slack == 0) {
      V3 x = at(a0.v, a1.v, a1.v, out[1]), y = at(b0.v, b1.v, b1.v, out[2]);
      EXPECT_NEAR(d2(x.v, y.v), out[0], 1e-12) << i;
    }
  }
  // Parallel means |da x db|^2 at or below tol^2: a sine of 1e-5 is not.
  const double a0[3] = {0, 0, 0}, a1[3] = {1, 0, 0}, b0[3] = {-0.25, 0, 0.5};
  const double sine[] = {1e-4, 1e-5, 1e-7};
  for (int k = 0; k < 3; k++) {
    const double b1[3] = {0.75, sine[k], 0.5};
    double out[3];
    EXPECT_EQ(segSegDist2(a0, a1, b0, b1, 1e-6, out), k == 2 ? 1 : 0);
    EXPECT_NEAR(out[0], 0.25, 1e-9);
  }
}

TEST(SegTriDist2, PiercingInPlaneAndTheOmittedEnd) {
  const double a[3] = {0, 0, 0}, b[3] = {4, 0, 0}, c[3] = {4, 4, 0};
  const double p[][3] = {{3, 1, -1}, {3, 1, 0}, {-1, -1, 0}, {-2, 1, 0}, {2, 0.5, 1}};
  const double q[][3] = {{3, 1, 1}, {3, 1, 5}, {5, 1, 0}, {-2, -1, 0}, {2, 0.5, 3}};
  // Pierces; starts on it; in the plane across it (den 0); in the plane
  // beside a; above it with p nearest.
  const double dist[] = {0, 0, 0, 4, 1};
  for (int i = 0; i < 5; i++) EXPECT_NEAR(segTriDist2(nullptr, a, b, c, p[i], q[i], 1e-6), dist[i], 1e-15);

  // q hangs 0.1 over the interior, p is far off: the true distance is q's
  // 0.01, but the result is the nearest of p and the edges (0.05, from ab).
  const double s0[3] = {5, 5, 3}, s1[3] = {0.7, 0.2, 0.1};
  qvTriCache cache;
  cache.have = 0;
  EXPECT_NEAR(segTriDist2(&cache, a, b, c, s0, s1, 1e-6), 0.05, 1e-15);
  // The cache that call filled serves the point distance as well.
  EXPECT_EQ(pointTriDist2(&cache, a, b, c, s0, 1e-6, nullptr, nullptr),
            pointTriDist2(nullptr, a, b, c, s0, 1e-6, nullptr, nullptr));
}

TEST(SegTriDist2, MatchesSamplingWhereQIsNotTheNearestEnd) {
  // pointTriDist2 over samples of the segment gives the true distance. The
  // routine is never below it, and reaches it unless q alone is nearest.
  std::mt19937_64 rng(34);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int compared = 0;
  for (int i = 0; i < 600; i++) {
    V3 a = {{u(rng), u(rng), u(rng)}}, b = {{u(rng), u(rng), u(rng)}}, c = {{u(rng), u(rng), u(rng)}};
    if (std::min({len(a.v, b.v), len(b.v, c.v), len(a.v, c.v)}) < 0.1) continue;
    V3 p = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}}, q = {{2 * u(rng), 2 * u(rng), 2 * u(rng)}};
    double d = std::sqrt(segTriDist2(nullptr, a.v, b.v, c.v, p.v, q.v, 1e-6));
    double truth = INFINITY;
    for (int k = 0; k <= 2000; k++) {
      V3 x = at(p.v, q.v, q.v, k / 2000.0);
      truth = std::min(truth, pointTriDist2(nullptr, a.v, b.v, c.v, x.v, 1e-6, nullptr, nullptr));
    }
    truth = std::sqrt(truth);
    EXPECT_GE(d, truth - len(p.v, q.v) / 4000.0 - 1e-12) << i;
    double dq = pointTriDist2(nullptr, a.v, b.v, c.v, q.v, 1e-6, nullptr, nullptr);
    if (truth + 1e-3 < std::sqrt(dq)) {
      compared++;
      EXPECT_LE(d, truth + 1e-12) << i;
    }
  }
  EXPECT_GT(compared, 300);
}

}  // namespace
