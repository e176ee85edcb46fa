// Planar crossing, polynomial roots and Jacobi rotations, against hand-made
// answers, exact orientation signs, and the defining equations.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <random>

#include "kernels/kernels.h"

namespace {

// ---------------------------------------------------------------------------
// segSegIntersect2d

TEST(SegSegIntersect2d, HandMadeContacts) {
  struct Case {
    double p0[2], p1[2], q0[2], q1[2];
    double tol;
    int32_t expect;
    double x, y, s, t;  // expected out for a single contact
    const char* what;
  };
  const Case cases[] = {
      {{0, 0}, {2, 2}, {0, 2}, {2, 0}, 1e-6, kCrossPoint, 1, 1, 0.5, 0.5, "crossing"},
      {{0, 0}, {1, 0}, {1, 0}, {1, 1}, 1e-6, kCrossPoint, 1, 0, 1, 0, "one shared end"},
      {{0.1, 0.3}, {1.7, 0.9}, {0.1, 0.3}, {-2, 5}, 1e-6, kCrossPoint, 0.1, 0.3, 0, 0,
       "shared first ends"},
      {{0, 0}, {1, 1}, {1, 1}, {0, 0}, 1e-6, kCrossOverlap, 0, 0, 0, 0, "both ends shared"},
      {{0, 0}, {2, 0}, {1, 0}, {3, 0}, 1e-6, kCrossOverlap, 0, 0, 0, 0, "collinear overlap"},
      {{0, 0}, {4, 0}, {1, 0}, {2, 0}, 1e-6, kCrossOverlap, 0, 0, 0, 0, "one inside the other"},
      {{0, 0}, {1, 0}, {1, 0}, {2, 0}, 1e-6, kCrossPoint, 1, 0, 1, 0, "collinear, end to end"},
      {{0, 0}, {2, 0}, {1, 0}, {1, 1}, 1e-6, kCrossPoint, 1, 0, 0.5, 0, "T touch"},
      {{1, -1}, {1, 1}, {0, 0}, {1, 0}, 1e-6, kCrossPoint, 1, 0, 0.5, 1, "T touch at q1"},
      {{0, 0}, {1, 0}, {2, 0}, {3, 0}, 1e-6, kCrossNone, 0, 0, 0, 0, "collinear apart"},
      {{0, 0}, {1, 0}, {0, 1}, {1, 1}, 1e-6, kCrossNone, 0, 0, 0, 0, "parallel"},
      {{0, 0}, {1, 0}, {2, -1}, {3, 1}, 1e-6, kCrossNone, 0, 0, 0, 0, "lines cross outside"},
      {{0, 0}, {1, 0}, {0.5, 0.1}, {0.5, 1}, 1e-6, kCrossNone, 0, 0, 0, 0, "near T, apart"},
      {{0, 0}, {1, 0}, {0.5, 1e-7}, {1.5, 1}, 1e-6, kCrossPoint, 0.5, 1e-7, 0.5, 0,
       "slanted T within tol: snapped to q0, s found again"},
      {{0, 0}, {1, 0}, {0.5, 1e-7}, {0.5, 1}, 0.0, kCrossNone, 0, 0, 0, 0, "same, tol 0"},
      {{0, 0}, {0, 0}, {0, 0}, {0, 0}, 1e-6, kCrossPoint, 0, 0, 0, 0, "two equal points"},
      {{0, 0}, {1e-7, 0}, {1, 0}, {1, 0}, 1e-6, kCrossNone, 0, 0, 0, 0, "two points apart"},
      {{0, 0}, {2, 0}, {1, 0}, {1, 0}, 1e-6, kCrossPoint, 1, 0, 0.5, 0, "q a point on p"},
      {{1, 0}, {1, 0}, {0, 0}, {2, 0}, 1e-6, kCrossPoint, 1, 0, 0, 0.5, "p a point on q"},
  };
  for (const Case& k : cases) {
    double out[4] = {-9, -9, -9, -9};
    ASSERT_EQ(segSegIntersect2d(k.p0, k.p1, k.q0, k.q1, k.tol, out), k.expect) << k.what;
    if (k.expect == kCrossPoint) {
      EXPECT_DOUBLE_EQ(out[0], k.x) << k.what;
      EXPECT_DOUBLE_EQ(out[1], k.y) << k.what;
      EXPECT_DOUBLE_EQ(out[2], k.s) << k.what;
      EXPECT_DOUBLE_EQ(out[3], k.t) << k.what;
    }
    // Exchanging the segments exchanges the positions and keeps the answer.
    double back[4];
    EXPECT_EQ(segSegIntersect2d(k.q0, k.q1, k.p0, k.p1, k.tol, back), k.expect) << k.what;
    if (k.expect == kCrossPoint) {
      EXPECT_DOUBLE_EQ(back[2], k.t) << k.what;
      EXPECT_DOUBLE_EQ(back[3], k.s) << k.what;
    }
  }
}

TEST(SegSegIntersect2d, SharedEndsAreRecognisedByBitsOnly) {
  // q0 equals p1 only up to the sign of zero: the ends are not shared, but
  // the segments still touch there.
  const double p0[2] = {-1, 0}, p1[2] = {0.0, 0};
  const double q0[2] = {-0.0, 0}, q1[2] = {0, 1};
  double out[4];
  EXPECT_EQ(segSegIntersect2d(p0, p1, q0, q1, 1e-6, out), kCrossPoint);
  // Both ends equal by bits gives an overlap, even for crossing directions.
  const double r0[2] = {0.0, 1}, r1[2] = {-1, 0};
  EXPECT_EQ(segSegIntersect2d(p0, p1, p1, p0, 1e-6, out), kCrossOverlap);
  EXPECT_EQ(segSegIntersect2d(p0, r0, r0, p0, 1e-6, out), kCrossOverlap);
  EXPECT_EQ(segSegIntersect2d(r1, r0, r0, r1, 1e-6, out), kCrossOverlap);
}

TEST(SegSegIntersect2d, AgreesWithExactOrientationOnRandomSegments) {
  exactinit();
  std::mt19937_64 rng(21);
  std::uniform_real_distribution<double> u(-1.0, 1.0);
  int contacts = 0, checked = 0;
  for (int i = 0; i < 20000; i++) {
    double p0[2] = {u(rng), u(rng)}, p1[2] = {u(rng), u(rng)};
    double q0[2] = {u(rng), u(rng)}, q1[2] = {u(rng), u(rng)};
    double o[4] = {orient2d(p0, p1, q0), orient2d(p0, p1, q1), orient2d(q0, q1, p0),
                   orient2d(q0, q1, p1)};
    // Keep away from touching configurations, where tol decides.
    if (std::min({std::fabs(o[0]), std::fabs(o[1]), std::fabs(o[2]), std::fabs(o[3])}) < 1e-3) {
      continue;
    }
    bool cross = (o[0] > 0) != (o[1] > 0) && (o[2] > 0) != (o[3] > 0);
    double out[4];
    int32_t r = segSegIntersect2d(p0, p1, q0, q1, 1e-6, out);
    ASSERT_EQ(r, cross ? kCrossPoint : kCrossNone) << i;
    checked++;
    if (cross) {
      contacts++;
      // The point lies on both segments at the reported positions.
      EXPECT_NEAR(out[0], p0[0] + out[2] * (p1[0] - p0[0]), 1e-9);
      EXPECT_NEAR(out[1], p0[1] + out[2] * (p1[1] - p0[1]), 1e-9);
      EXPECT_NEAR(out[0], q0[0] + out[3] * (q1[0] - q0[0]), 1e-9);
      EXPECT_NEAR(out[1], q0[1] + out[3] * (q1[1] - q0[1]), 1e-9);
    }
  }
  EXPECT_GT(checked, 10000);
  EXPECT_GT(contacts, 1000);
}

// ---------------------------------------------------------------------------
// Polynomials

std::complex<double> evalPoly(const double* coef, int degree, std::complex<double> x) {
  std::complex<double> v = 0.0;
  for (int i = degree; i >= 0; i--) v = v * x + coef[i];
  return v;
}

TEST(SolveQuadratic, HandlesEachDegenerateCase) {
  struct Case {
    double a2, a1, a0;
    int32_t count, kind;
    double re0, re1, im0;
    const char* what;
  };
  const Case cases[] = {
      {0, 0, 3, 0, kRootsReal, 0, 0, 0, "no x terms"},
      {0, 2, 3, 1, kRootsReal, -1.5, 0, 0, "linear"},
      {2, 0, 0, 1, kRootsReal, 0, 0, 0, "a1 = a0 = 0: one root 0"},
      {2, 0, -8, 2, kRootsReal, 2, -2, 0, "a1 = 0, real pair"},
      {2, 0, 8, 2, kRootsComplex, 0, 0, 2, "a1 = 0, imaginary pair"},
      {2, -6, 0, 2, kRootsReal, 0, 3, 0, "a0 = 0"},
      {1, -2, 1, 1, kRootsReal, 1, 0, 0, "double root"},
      {1, 2, 5, 2, kRootsComplex, -1, -1, 4, "complex: im is sqrt(-disc), undivided"},
      {1, -3, 2, 2, kRootsReal, 2, 1, 0, "two roots"},
      {-1, 3, -2, 2, kRootsReal, 2, 1, 0, "two roots, a2 negative"},
  };
  for (const Case& k : cases) {
    double re[2] = {-9, -9}, im[2] = {-9, -9};
    int32_t kind = -9;
    ASSERT_EQ(solveQuadratic(k.a2, k.a1, k.a0, 1e-12, re, im, &kind), k.count) << k.what;
    EXPECT_EQ(kind, k.kind) << k.what;
    if (k.count >= 1) {
      EXPECT_DOUBLE_EQ(re[0], k.re0) << k.what;
    }
    if (k.count == 2) {
      EXPECT_DOUBLE_EQ(re[1], k.re1) << k.what;
    }
    if (k.kind == kRootsComplex) {
      EXPECT_DOUBLE_EQ(im[0], k.im0) << k.what;
      EXPECT_DOUBLE_EQ(im[1], -k.im0) << k.what;
    }
  }
  // A small discriminant within tol is one root.
  double re[2], im[2];
  int32_t kind;
  EXPECT_EQ(solveQuadratic(1, -2, 1 - 1e-13, 1e-12, re, im, &kind), 1);
  EXPECT_EQ(solveQuadratic(1, -2, 1 - 1e-13, 0.0, re, im, &kind), 2);
  // No cancellation for a small root beside a large one.
  ASSERT_EQ(solveQuadratic(1, -1e8, 1, 0.0, re, im, &kind), 2);
  EXPECT_NEAR(re[0], 1e8, 1e-6);
  EXPECT_NEAR(re[1], 1e-8, 1e-22);
}

TEST(SolveCubic, FindsKnownRoots) {
  struct Case {
    double a3, a2, a1, a0;
    int32_t count, kind;
    double roots[3];  // real parts, in any order
    const char* what;
  };
  const Case cases[] = {
      {1, -6, 11, -6, 3, kRootsReal, {1, 2, 3}, "three real"},
      {2, -12, 22, -12, 3, kRootsReal, {1, 2, 3}, "three real, scaled"},
      {1, -6, 9, -4, 2, kRootsReal, {4, 1, 0}, "double root 1 and 4"},
      {1, -6, 12, -8, 1, kRootsReal, {2, 0, 0}, "triple root"},
      {1, -1, 1, -1, 3, kRootsComplex, {1, 0, 0}, "1 and +-i"},
      {0, 1, -3, 2, 2, kRootsReal, {2, 1, 0}, "a3 = 0: the quadratic"},
  };
  for (const Case& k : cases) {
    double re[3], im[3];
    int32_t kind = -9;
    ASSERT_EQ(solveCubic(k.a3, k.a2, k.a1, k.a0, 1e-12, re, im, &kind), k.count) << k.what;
    EXPECT_EQ(kind, k.kind) << k.what;
    std::vector<double> got(re, re + k.count), want(k.roots, k.roots + k.count);
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    for (int i = 0; i < k.count; i++) EXPECT_NEAR(got[i], want[i], 1e-9) << k.what;
  }
  double re[3], im[3];
  int32_t kind;
  // (x - 0.1)^2 (x - 0.4) with rounded coefficients: the discriminant is
  // a rounding residue, within the limit, so the root counts as double.
  ASSERT_EQ(solveCubic(1, -0.6, 0.09, -0.004, 0, re, im, &kind), 2);
  EXPECT_NEAR(re[0], 0.4, 1e-9);
  EXPECT_NEAR(re[1], 0.1, 1e-9);
  ASSERT_EQ(solveCubic(1, -1, 1, -1, 0, re, im, &kind), 3);
  EXPECT_NEAR(std::fabs(im[1]), 1.0, 1e-12);
  EXPECT_EQ(im[2], -im[1]);
  EXPECT_EQ(im[0], 0.0);
}

TEST(SolveCubic, RootsOfRandomCubicsAreRoots) {
  // Three real roots at least 0.1 apart, or one real root and a complex pair
  // (r1 +- i (r2 - r1)). The imaginary parts are the true ones here.
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
      EXPECT_LT(std::abs(evalPoly(coef, 3, {re[k], im[k]})), 1e-5 * lead) << i;
    }
    std::sort(re, re + (pair ? 1 : 3));
    for (int k = 0; k < (pair ? 1 : 3); k++) EXPECT_NEAR(re[k], r[k], 1e-7);
  }
}

// ---------------------------------------------------------------------------
// jacobiEigen

struct Mat {
  double v[5][5];
  double* rows[5];
};

void bind(Mat& m) {
  for (int i = 0; i < 5; i++) m.rows[i] = m.v[i];
}

TEST(JacobiEigen, DiagonalMatrixNeedsNoRotation) {
  Mat m = {{{3, 0, 0}, {0, -1, 0}, {0, 0, 7}}, {}}, vec;
  bind(m);
  bind(vec);
  EXPECT_EQ(jacobiEigen(m.rows, 3, vec.rows), 0);
  const double diag[3] = {3, -1, 7};
  for (int i = 0; i < 3; i++) {
    EXPECT_EQ(m.v[i][i], diag[i]);
    for (int j = 0; j < 3; j++) EXPECT_EQ(vec.v[i][j], i == j ? 1.0 : 0.0);
  }
  EXPECT_EQ(jacobiEigen(m.rows, 0, vec.rows), -1);
  EXPECT_EQ(jacobiEigen(m.rows, kJacobiMaxOrder + 1, vec.rows), -1);
}

TEST(JacobiEigen, RandomSymmetricMatricesGiveEigenpairs) {
  std::mt19937_64 rng(23);
  std::uniform_real_distribution<double> u(-5.0, 5.0);
  for (int i = 0; i < 2000; i++) {
    int n = i % 4 == 3 ? 5 : 3;
    Mat a, m, vec;
    for (int r = 0; r < n; r++) {
      for (int c = r; c < n; c++) a.v[r][c] = a.v[c][r] = u(rng);
    }
    if (i % 10 == 0) {
      // A repeated eigenvalue: I + w w^T.
      double w[5];
      for (int r = 0; r < n; r++) w[r] = u(rng);
      for (int r = 0; r < n; r++) {
        for (int c = 0; c < n; c++) a.v[r][c] = (r == c) + w[r] * w[c];
      }
    }
    m = a;
    bind(m);
    bind(vec);
    ASSERT_GT(jacobiEigen(m.rows, n, vec.rows), 0) << i;
    double scale = 0;
    for (int r = 0; r < n; r++) {
      for (int c = 0; c < n; c++) scale = std::max(scale, std::fabs(a.v[r][c]));
    }
    for (int k = 0; k < n; k++) {
      double lambda = m.v[k][k];
      for (int r = 0; r < n; r++) {
        double av = 0;
        for (int c = 0; c < n; c++) av += a.v[r][c] * vec.v[c][k];
        EXPECT_NEAR(av, lambda * vec.v[r][k], 1e-12 * scale * n) << i;
      }
      for (int l = 0; l < n; l++) {
        double d = 0;
        for (int r = 0; r < n; r++) d += vec.v[r][k] * vec.v[r][l];
        EXPECT_NEAR(d, k == l ? 1.0 : 0.0, 1e-13) << i;
      }
    }
  }
}

}  // namespace
