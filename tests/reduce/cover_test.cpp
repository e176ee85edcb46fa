// The certificate of a piece: the bound that the engine proves for every
// point of a piece against one to three triangles is never below the true
// distance at any point of a dense grid over the piece, found by a closest
// point routine of the test's own in long double.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>

#include "stars.h"

namespace {

using LPt = std::array<long double, 3>;

LPt sub(const LPt& a, const LPt& b) { return {a[0] - b[0], a[1] - b[1], a[2] - b[2]}; }
long double dot(const LPt& a, const LPt& b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Squared distance from p to the triangle abc by the regions of its closest
// point (Ericson, Real-Time Collision Detection, 5.1.5).
long double refDist2(const LPt& p, const LPt& a, const LPt& b, const LPt& c) {
  const LPt ab = sub(b, a), ac = sub(c, a), ap = sub(p, a);
  auto at = [&](long double v, long double w) {
    LPt q;
    for (int k = 0; k < 3; ++k) q[k] = a[k] + v * ab[k] + w * ac[k];
    const LPt d = sub(p, q);
    return dot(d, d);
  };
  const long double d1 = dot(ab, ap), d2 = dot(ac, ap);
  if (d1 <= 0 && d2 <= 0) return at(0, 0);
  const LPt bp = sub(p, b);
  const long double d3 = dot(ab, bp), d4 = dot(ac, bp);
  if (d3 >= 0 && d4 <= d3) return at(1, 0);
  const long double vc = d1 * d4 - d3 * d2;
  if (vc <= 0 && d1 >= 0 && d3 <= 0) return at(d1 / (d1 - d3), 0);
  const LPt cp = sub(p, c);
  const long double d5 = dot(ab, cp), d6 = dot(ac, cp);
  if (d6 >= 0 && d5 <= d6) return at(0, 1);
  const long double vb = d5 * d2 - d1 * d6;
  if (vb <= 0 && d2 >= 0 && d6 <= 0) return at(0, d2 / (d2 - d6));
  const long double va = d3 * d6 - d5 * d4;
  if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0) {
    const long double w = (d4 - d3) / ((d4 - d3) + (d5 - d6));
    return at(1 - w, w);
  }
  const long double den = 1 / (va + vb + vc);
  return at(vb * den, vc * den);
}

LPt widen(const double* x) { return {x[0], x[1], x[2]}; }

struct Layout {
  const char* name;
  Shape shape;  // the homes, one per face
};

Shape scaled(Shape s, double f) {
  for (auto& p : s.pts)
    for (double& c : p) c *= f;
  return s;
}

}  // namespace

TEST(Certificate, NeverBelowTheDistanceAnywhereOnThePiece) {
  const Layout layouts[] = {
      {"one triangle", {{{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}, {{0, 1, 2}}}},
      {"coplanar pair", {{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}}, {{0, 1, 2}, {0, 2, 3}}}},
      {"crease", {{{0, 0, 0}, {1, 0, 0}, {0.5, 1, 0.6}, {0.5, -1, 0.6}}, {{0, 1, 2}, {1, 0, 3}}}},
      {"needle beside a triangle", {{{0, 0, 0}, {1, 0, 0}, {0.5, 1e-9, 0}, {0.5, -1, 0.2}}, {{0, 1, 2}, {1, 0, 3}}}},
      {"fan of three", {{{0, 0, 0}, {1, 0, 0.1}, {0, 1, -0.1}, {-1, -0.2, 0.3}}, {{0, 1, 2}, {0, 2, 3}, {0, 3, 1}}}},
  };
  std::mt19937_64 random(7);
  std::uniform_real_distribution<double> near(-0.4, 1.2), lift(-0.15, 0.15);
  for (const double scale : {1e-4, 1e4})
    for (const Layout& layout : layouts) {
      Fixture f(scaled(layout.shape, scale));
      std::vector<qvHome> homes(f.t.size());
      for (size_t j = 0; j < f.t.size(); ++j) ASSERT_EQ(qvHomeSet(&homes[j], f.t[j]), 0);
      qvHomeLink(homes.data(), static_cast<int32_t>(homes.size()));
      double largest = 0.0;
      for (const auto& p : f.v)
        for (int k = 0; k < 3; ++k) largest = std::max(largest, std::fabs(qvVtxXyz(p)[k]));
      const double eta = 0x1p-32 * 2.0 * largest;  // the engine's allowance, for corners up to twice as far out
      int held = 0;
      for (int trial = 0; trial < 200; ++trial) {
        double pts[3][3];
        for (auto& p : pts) {
          p[0] = near(random) * scale;
          p[1] = near(random) * scale;
          p[2] = lift(random) * scale;
        }
        const double* q[3] = {pts[0], pts[1], pts[2]};
        const double bound = qvPieceBound(q, homes.data(), static_cast<int32_t>(homes.size()));
        if (!std::isfinite(bound)) continue;
        ++held;
        long double worst = 0;
        const int n = 40;
        for (int i = 0; i <= n; ++i)
          for (int j = 0; i + j <= n; ++j) {
            LPt x;
            for (int k = 0; k < 3; ++k)
              x[k] = (static_cast<long double>(n - i - j) * q[0][k] + static_cast<long double>(i) * q[1][k] +
                      static_cast<long double>(j) * q[2][k]) / n;
            long double d = INFINITY;
            for (const qvHome& h : homes) d = std::min(d, refDist2(x, widen(h.x[0]), widen(h.x[1]), widen(h.x[2])));
            worst = std::max(worst, d);
          }
        EXPECT_GE(std::sqrt(bound) + eta, static_cast<double>(std::sqrt(worst)))
            << layout.name << " at scale " << scale << ", piece " << trial;
      }
      EXPECT_GT(held, 150) << layout.name;
    }
}

TEST(Certificate, APieceInThePlaneOfTwoHomesIsHeldByThePair) {
  // Across the diagonal of a flat square no single home holds the piece, the
  // pair does, with a bound of rounding size.
  Fixture f(kSquare);
  qvHome homes[2];
  for (int j = 0; j < 2; ++j) ASSERT_EQ(qvHomeSet(&homes[j], f.t[j]), 0);
  qvHomeLink(homes, 2);
  const double a[3] = {0.1, 0.2, 0.0}, b[3] = {0.9, 0.3, 0.0}, c[3] = {0.4, 0.8, 0.0};
  const double* q[3] = {a, b, c};
  EXPECT_LE(qvPieceBound(q, homes, 2), 1e-30);
  qvHome alone = homes[0];
  qvHomeLink(&alone, 1);
  EXPECT_GT(qvPieceBound(q, &alone, 1), 1e-3);
}
