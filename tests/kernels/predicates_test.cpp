// Exact predicates against rational arithmetic, and the planar classifiers.
#include "kernels/predicates.h"

#include <gmpxx.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

namespace {

struct Pt {
  double v[2];
};

int sgn(double v) {
  return (v > 0.0) - (v < 0.0);
}

int exactOrient(const Pt& a, const Pt& b, const Pt& c) {
  mpq_class ax(a.v[0]), ay(a.v[1]), bx(b.v[0]), by(b.v[1]);
  return sgn((ax - c.v[0]) * (by - c.v[1]) - (ay - c.v[1]) * (bx - c.v[0]));
}

int exactIncircle(const Pt* p) {
  mpq_class dx[3], dy[3];
  for (int i = 0; i < 3; i++) {
    dx[i] = mpq_class(p[i].v[0]) - p[3].v[0];
    dy[i] = mpq_class(p[i].v[1]) - p[3].v[1];
  }
  mpq_class det = 0;
  for (int i = 0; i < 3; i++) {
    int j = (i + 1) % 3, k = (i + 2) % 3;
    det += (dx[i] * dx[i] + dy[i] * dy[i]) * (dx[j] * dy[k] - dx[k] * dy[j]);
  }
  return sgn(det);
}

// Every order of the arguments must give the exact sign: swapping two flips
// it, rotating three keeps it.
void expectExactSigns(const Pt* p) {
  int o = exactOrient(p[0], p[1], p[2]);
  ASSERT_EQ(sgn(orient2d(p[0].v, p[1].v, p[2].v)), o);
  ASSERT_EQ(sgn(orient2d(p[1].v, p[0].v, p[2].v)), -o);
  ASSERT_EQ(sgn(orient2d(p[1].v, p[2].v, p[0].v)), o);
  int e = exactIncircle(p);
  ASSERT_EQ(sgn(incircle(p[0].v, p[1].v, p[2].v, p[3].v)), e);
  ASSERT_EQ(sgn(incircle(p[1].v, p[0].v, p[2].v, p[3].v)), -e);
  ASSERT_EQ(incircleSign(p[1].v, p[2].v, p[0].v, p[3].v), 2 * e);
}

double ulps(double v, int k) {
  for (; k > 0; k--) v = std::nextafter(v, INFINITY);
  for (; k < 0; k++) v = std::nextafter(v, -INFINITY);
  return v;
}

TEST(Predicates, ExactZeroForCocircularPointsWherePlainProductsRound) {
  exactinit();
  std::mt19937_64 rng(11);
  std::uniform_int_distribution<int64_t> mn(1 << 18, 1 << 20);
  for (int i = 0; i < 2000; i++) {
    // (m^2 - n^2, 2mn) and its reflections lie on a circle of integer
    // radius; 41-bit coordinates make the products inexact.
    int64_t m = mn(rng), n = mn(rng);
    double x = double(m * m - n * n), y = double(2 * m * n);
    const Pt ring[8] = {{{x, y}}, {{-y, x}}, {{-x, -y}}, {{y, -x}}, {{y, x}}, {{-x, y}}, {{-y, -x}}, {{x, -y}}};
    Pt p[4];
    for (int k = 0; k < 4; k++) p[k] = ring[(i + 3 * k) % 8];
    ASSERT_EQ(exactIncircle(p), 0);
    EXPECT_EQ(incircle(p[0].v, p[1].v, p[2].v, p[3].v), 0.0);
    EXPECT_EQ(incircleSign(p[3].v, p[1].v, p[0].v, p[2].v), 0);
  }
}

TEST(Predicates, SignsMatchRationalArithmeticOnNearDegenerateInput) {
  exactinit();
  std::mt19937_64 rng(13);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_int_distribution<int64_t> mant(int64_t(1) << 40, (int64_t(1) << 50) - 1);
  std::uniform_int_distribution<int> expo(-40, 40), kick(-4, 4);
  const double scales[] = {1.0, 1e-40, 1e40};
  const double offsets[] = {0.0, 1e6, -3.5e9};
  for (double s : scales) {
    for (double off : offsets) {
      for (int i = 0; i < 900; i++) {
        // Three points on a circle, one on the line of two of them, or four
        // on y = 3x; then one coordinate moves by a few ulps.
        Pt p[4];
        double r = s * (1.0 + std::fabs(unit(rng)));
        for (int k = 0; k < 3; k++) {
          double ang = 3.14159 * unit(rng);
          p[k] = {{s * off + r * std::cos(ang), -s * off + r * std::sin(ang)}};
        }
        double t = 2.5 * unit(rng) + 0.5;
        p[3] = {{p[0].v[0] + t * (p[1].v[0] - p[0].v[0]), p[0].v[1] + t * (p[1].v[1] - p[0].v[1])}};
        if (i % 3 == 1) {
          double ang = 3.14159 * unit(rng);
          p[3] = {{s * off + r * std::cos(ang), -s * off + r * std::sin(ang)}};
        } else if (i % 3 == 2) {
          for (Pt& q : p) {
            q.v[0] = std::ldexp(double(mant(rng)), expo(rng));
            q.v[1] = 3.0 * q.v[0];
          }
        }
        p[3].v[i % 2] = ulps(p[3].v[i % 2], kick(rng));
        std::swap(p[2], p[3]);  // the moved point is the one tested in orient2d
        expectExactSigns(p);
        std::swap(p[2], p[3]);
        expectExactSigns(p);
      }
    }
  }
}

TEST(Predicates, Orient3dSignMatchesRationalArithmeticNearAPlane) {
  exactinit();
  std::mt19937_64 rng(17);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_int_distribution<int> expo(-30, 40), kick(-2, 2);
  for (int i = 0; i < 3000; i++) {
    // Nearby float points with a fourth on their plane, rounded; or four on
    // the plane x = y with magnitudes far apart, whose differences round.
    double p[4][3];
    const double s = std::ldexp(1.0, expo(rng)), off = i % 4 == 0 ? 1e3 * s : 0.0;
    for (int k = 0; k < 3; k++)
      for (double& x : p[k]) x = float(off + s * unit(rng));
    for (int c = 0; c < 3; c++) p[3][c] = p[0][c] + 0.5 * (p[1][c] - p[0][c]) - 0.25 * (p[2][c] - p[0][c]);
    if (i % 2) {
      for (auto& q : p) {
        q[0] = q[1] = float(std::ldexp(unit(rng), expo(rng)));
        q[2] = float(std::ldexp(unit(rng), expo(rng)));
      }
    }
    p[i % 4][i % 3] = ulps(p[i % 4][i % 3], kick(rng));
    mpq_class d[3][3];
    for (int k = 0; k < 3; k++)
      for (int c = 0; c < 3; c++) d[k][c] = mpq_class(p[k][c]) - p[3][c];
    const int e = sgn(d[0][0] * (d[1][1] * d[2][2] - d[1][2] * d[2][1]) -
                      d[0][1] * (d[1][0] * d[2][2] - d[1][2] * d[2][0]) +
                      d[0][2] * (d[1][0] * d[2][1] - d[1][1] * d[2][0]));
    ASSERT_EQ(orient3dSign(p[0], p[1], p[2], p[3]), e) << i;
    ASSERT_EQ(orient3dSign(p[1], p[0], p[2], p[3]), -e) << i;
    ASSERT_EQ(orient3dSign(p[3], p[0], p[1], p[2]), -e) << i;
  }
}

// ---------------------------------------------------------------------------
// Classifiers

TEST(Classifiers, GiveTheFiveClassesOnHandMadeCorners) {
  struct Case {
    double a[2], b[2], c[2];
    int32_t expect;
  };
  const Case cases[] = {
      {{0, 0}, {4, 0}, {1, -1}, kTurnRight},    {{0, 0}, {4, 0}, {1, 1}, kTurnLeft},
      {{0, 0}, {4, 0}, {-1, 0}, kTurnBehind},   {{0, 0}, {4, 0}, {1, 0}, kTurnBetween},
      {{0, 0}, {4, 0}, {5, 0}, kTurnBeyond},    {{0, 0}, {4, 0}, {0, 0}, kTurnBetween},
      {{0, 0}, {4, 0}, {4, 0}, kTurnBetween},
  };
  for (const Case& k : cases) {
    double ab[3], ac[3];
    qvTurn res;
    EXPECT_EQ(orient2dClass(k.a, k.b, k.c, 0, ab, ac, &res), k.expect);
    EXPECT_EQ(turn2d(k.a, k.b, k.c, 0, ab, ac, &res), k.expect);
    EXPECT_EQ(turn2dFast(k.a, k.b, k.c, 0, ab, ac), k.expect);
  }
}

TEST(Classifiers, Turn2dTreatsSin2AtThresholdAsParallel) {
  // a lies between b = (k, 0) and c = (-1, h), so the sine at a is the
  // largest of the three. Search for a first test with sin2 == 1e-20.
  const double a[2] = {0, 0};
  double b[2] = {1, 0}, c[2] = {-1, 0}, ab[3], ac[3];
  qvTurn res = {0, 0, 0};
  for (int k = 1; k <= 16 && res.sin2 != 1e-20; k++) {
    b[0] = k;
    c[1] = ulps(1e-10, -64);
    for (int i = 0; i < 128; i++, c[1] = ulps(c[1], 1)) {
      turn2d(a, b, c, 0, ab, ac, &res);
      if (res.sin2 == 1e-20) break;
    }
  }
  ASSERT_EQ(res.sin2, 1e-20);
  EXPECT_EQ(turn2d(a, b, c, 0, ab, ac, &res), kTurnBehind);
  EXPECT_EQ(orient2dClass(a, b, c, 0, ab, ac, &res), kTurnLeft);  // the exact sign sees it
  c[1] = ulps(c[1], 1);
  EXPECT_EQ(turn2d(a, b, c, 0, ab, ac, &res), kTurnLeft);

  // Too flat at a (sin2 1e-22), a right angle at c: the second test decides.
  const double e[2] = {1, 1e-11};
  b[0] = 1;
  EXPECT_EQ(turn2d(a, b, e, 0, ab, ac, &res), kTurnLeft);
  EXPECT_EQ(turn2d(a, a, e, 0, ab, ac, &res), kTurnBeyond);  // a zero-length ab
}

}  // namespace
