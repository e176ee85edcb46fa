// Planar crossing, polynomial roots and Jacobi rotations, against hand-made
// answers, exact orientation signs and the defining equations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

#include "kernels/kernels.h"

namespace {

// Sorts up to three roots (std::sort on a count the compiler can't bound
// draws a false array-bounds warning).
void sortRoots(double* r, int n) {
  for (int i = 0; i < n; i++) {
    for (int j = i + 1; j < n; j++) {
      if (r[j] < r[i]) std::swap(r[i], r[j]);
    }
  }
}

TEST(SegSegIntersect2d, HandMadeContactsEitherWayRound) {
  struct Case {
    double p0[2], p1[2], q0[2], q1[2], tol;
    int32_t expect;
    double out[4];  // x, y, s, t for a single contact
  };
  const double tol = 1e-6;
  const Case cases[] = {
      {{0, 0}, {2, 2}, {0, 2}, {2, 0}, tol, kCrossPoint, {1, 1, 0.5, 0.5}},          // crossing
      {{0, 0}, {1, 0}, {1, 0}, {1, 1}, tol, kCrossPoint, {1, 0, 1, 0}},              // shared end
      {{0, 0}, {1, 1}, {1, 1}, {0, 0}, tol, kCrossOverlap, {}},                      // both shared
      {{0, 0}, {2, 0}, {1, 0}, {3, 0}, tol, kCrossOverlap, {}},                      // overlap
      {{0, 0}, {2, 0}, {1, 0}, {1, 1}, tol, kCrossPoint, {1, 0, 0.5, 0}},            // T
      {{0, 0}, {1, 0}, {2, 0}, {3, 0}, tol, kCrossNone, {}},                         // collinear apart
      {{0, 0}, {1, 0}, {2, -1}, {3, 1}, tol, kCrossNone, {}},                        // lines cross outside
      // A T a hair short of p, within tol: snapped to q0, s found again.
      {{0, 0}, {1, 0}, {0.5, 1e-7}, {1.5, 1}, tol, kCrossPoint, {0.5, 1e-7, 0.5, 0}},
      {{0, 0}, {1, 0}, {0.5, 1e-7}, {1.5, 1}, 0.0, kCrossNone, {}},
      {{0, 0}, {0, 0}, {0, 0}, {0, 0}, tol, kCrossPoint, {0, 0, 0, 0}},              // equal points
      {{0, 0}, {1e-7, 0}, {1, 0}, {1, 0}, tol, kCrossNone, {}},                      // points apart
      {{0, 0}, {2, 0}, {1, 0}, {1, 0}, tol, kCrossPoint, {1, 0, 0.5, 0}},            // q a point on p
  };
  for (const Case& k : cases) {
    double out[4], back[4];
    ASSERT_EQ(segSegIntersect2d(k.p0, k.p1, k.q0, k.q1, k.tol, out), k.expect) << k.out[0];
    ASSERT_EQ(segSegIntersect2d(k.q0, k.q1, k.p0, k.p1, k.tol, back), k.expect) << k.out[0];
    if (k.expect == kCrossPoint) {
      for (int i = 0; i < 4; i++) EXPECT_DOUBLE_EQ(out[i], k.out[i]) << i;
      EXPECT_TRUE(back[0] == out[0] && back[1] == out[1] && back[2] == out[3] && back[3] == out[2]);
    }
  }
  // Ends are shared by bits: with -0.0 against 0.0 the segments only touch.
  const double p0[2] = {-1, 0}, p1[2] = {0.0, 0}, q0[2] = {-0.0, 0}, q1[2] = {0, 1};
  double out[4];
  EXPECT_EQ(segSegIntersect2d(p0, p1, q0, q1, tol, out), kCrossPoint);
  EXPECT_EQ(segSegIntersect2d(p0, q1, q1, p0, tol, out), kCrossOverlap);
}

TEST(SegSegIntersect2d, AgreesWithExactOrientationOnRandomSegments) {
  exactinit();
  std::mt19937_64 rng(21);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int contacts = 0;
  for (int i = 0; i < 20000; i++) {
    double p0[2] = {u(rng), u(rng)}, p1[2] = {u(rng), u(rng)};
    double q0[2] = {u(rng), u(rng)}, q1[2] = {u(rng), u(rng)};
    double o[4] = {orient2d(p0, p1, q0), orient2d(p0, p1, q1), orient2d(q0, q1, p0),
                   orient2d(q0, q1, p1)};
    if (std::min({std::fabs(o[0]), std::fabs(o[1]), std::fabs(o[2]), std::fabs(o[3])}) < 1e-3) {
      continue;  // near touching, where tol decides
    }
    bool cross = (o[0] > 0) != (o[1] > 0) && (o[2] > 0) != (o[3] > 0);
    double out[4];
    ASSERT_EQ(segSegIntersect2d(p0, p1, q0, q1, 1e-6, out), cross ? kCrossPoint : kCrossNone);
    if (cross) {
      contacts++;
      for (int k = 0; k < 2; k++) {
        EXPECT_NEAR(out[k], p0[k] + out[2] * (p1[k] - p0[k]), 1e-9);
        EXPECT_NEAR(out[k], q0[k] + out[3] * (q1[k] - q0[k]), 1e-9);
      }
    }
  }
  EXPECT_GT(contacts, 1000);
}

// Without a cubic term, the quadratic's roots: none, one for a linear or a
// double root (the discriminant within tol counts as zero), or a complex pair,
// whose imaginary parts are +-sqrt(-disc), not divided by 2 a2. Roots are
// checked relative to their size, which a cancelling formula misses at 1e-8.
TEST(SolveCubic, DegenerateRepeatedAndComplexRootsOnHandMadePolynomials) {
  struct Case {
    double a3, a2, a1, a0, tol;
    int32_t count, kind;
    double roots[3], im;  // real parts, sorted; the largest imaginary part
  };
  const double d = std::sqrt(1e-13);
  const Case cases[] = {
      {0, 0, 0, 3, 1e-12, 0, kRootsReal, {}, 0},
      {0, 0, 2, 3, 1e-12, 1, kRootsReal, {-1.5}, 0},
      {0, 1, -2, 1, 1e-12, 1, kRootsReal, {1}, 0},
      {0, -1, 3, -2, 1e-12, 2, kRootsReal, {1, 2}, 0},
      {0, 1, 2, 5, 1e-12, 2, kRootsComplex, {-1, -1}, 4},
      {0, 1, -2, 1 - 1e-13, 1e-12, 1, kRootsReal, {1}, 0},
      {0, 1, -2, 1 - 1e-13, 0, 2, kRootsReal, {1 - d, 1 + d}, 0},
      {0, 1, -1e8, 1, 0, 2, kRootsReal, {1e-8, 1e8}, 0},
      {1, -6, 9, -4, 1e-12, 2, kRootsReal, {1, 4}, 0},
      {1, -6, 12, -8, 1e-12, 1, kRootsReal, {2}, 0},
      // (x - 0.1)^2 (x - 0.4), coefficients rounded: the discriminant is a
      // rounding residue within the limit, so the root counts as double.
      {1, -0.6, 0.09, -0.004, 1e-12, 2, kRootsReal, {0.1, 0.4}, 0},
  };
  for (const Case& k : cases) {
    double re[3], im[3];
    int32_t kind = -9;
    SCOPED_TRACE(testing::Message() << k.a3 << " " << k.a2 << " " << k.a1 << " " << k.a0);
    ASSERT_EQ(solveCubic(k.a3, k.a2, k.a1, k.a0, k.tol, re, im, &kind), k.count);
    EXPECT_EQ(kind, k.kind);
    sortRoots(re, k.count);
    for (int i = 0; i < k.count; i++) EXPECT_NEAR(re[i], k.roots[i], 1e-9 * std::fabs(k.roots[i]));
    if (k.count > 0) {
      EXPECT_EQ(*std::max_element(im, im + k.count), k.im);
      EXPECT_EQ(*std::min_element(im, im + k.count), -k.im);
    }
  }
}

TEST(SolveCubic, RootsOfRandomCubicsAreRoots) {
  // Three real roots at least 0.1 apart, or one real root and the pair
  // r1 +- i (r2 - r1), whose imaginary parts are the true ones here.
  std::mt19937_64 rng(22);
  std::uniform_real_distribution<double> u(-10.0, 10.0);
  for (int i = 0; i < 3000; i++) {
    double r[3] = {u(rng), u(rng), u(rng)};
    std::sort(r, r + 3);
    if (r[1] - r[0] < 0.1 || r[2] - r[1] < 0.1) continue;
    bool pair = i % 2 == 1;
    double c2 = pair ? -2 * r[1] : -(r[1] + r[2]);
    double c1 = pair ? r[1] * r[1] + (r[2] - r[1]) * (r[2] - r[1]) : r[1] * r[2];
    double lead = 0.5 + std::fabs(u(rng));
    double coef[4] = {-r[0] * c1 * lead, (c1 - r[0] * c2) * lead, (c2 - r[0]) * lead, lead};
    double re[3], im[3];
    int32_t kind;
    ASSERT_EQ(solveCubic(coef[3], coef[2], coef[1], coef[0], 1e-12, re, im, &kind), 3);
    ASSERT_EQ(kind, pair ? kRootsComplex : kRootsReal);
    for (int k = 0; k < 3; k++) {
      std::complex<double> x(re[k], im[k]), v = 0.0;
      for (int j = 3; j >= 0; j--) v = v * x + coef[j];
      EXPECT_LT(std::abs(v), 1e-5 * lead) << i;
    }
    sortRoots(re, pair ? 1 : 3);
    for (int k = 0; k < (pair ? 1 : 3); k++) EXPECT_NEAR(re[k], r[k], 1e-7);
  }
}

TEST(JacobiEigen, GivesEigenpairsOfRandomSymmetricMatrices) {
  double a[5][5], m[5][5], v[5][5];
  double* mr[5] = {m[0], m[1], m[2], m[3], m[4]};
  double* vr[5] = {v[0], v[1], v[2], v[3], v[4]};
  EXPECT_EQ(jacobiEigen(mr, kJacobiMaxOrder + 1, vr), -1);
  std::mt19937_64 rng(23);
  std::uniform_real_distribution<double> u(-5.0, 5.0);
  for (int it = 0; it < 2000; it++) {
    int n = it % 4 == 3 ? 5 : 3;
    double w[5] = {u(rng), u(rng), u(rng), u(rng), u(rng)};
    for (int i = 0; i < n; i++) {
      for (int j = i; j < n; j++) {
        // Every tenth matrix is I + w w^T, with a repeated eigenvalue.
        a[i][j] = a[j][i] = it % 10 == 0 ? (i == j) + w[i] * w[j] : u(rng);
        m[i][j] = m[j][i] = a[i][j];
      }
    }
    ASSERT_GT(jacobiEigen(mr, n, vr), 0) << it;
    for (int k = 0; k < n; k++) {
      for (int i = 0; i < n; i++) {
        double av = 0, vv = 0;
        for (int j = 0; j < n; j++) av += a[i][j] * v[j][k], vv += v[j][i] * v[j][k];
        EXPECT_NEAR(av, m[k][k] * v[i][k], 1e-11 * n) << it;  // A v = lambda v
        EXPECT_NEAR(vv, i == k ? 1.0 : 0.0, 1e-13) << it;     // orthonormal
      }
    }
  }
}

}  // namespace
