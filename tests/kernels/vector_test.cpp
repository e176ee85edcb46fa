// Vector and plane helpers, on hand-computed values.
#include <gtest/gtest.h>

#include <cmath>

#include "kernels/kernels.h"

namespace {

double dot(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

TEST(Vectors, CrossAliasingTripleAndVolumesOnHandValues) {
  double a[3] = {1, 2, 3}, b[3] = {4, 5, 6};
  const double a0[3] = {1, 2, 3};
  EXPECT_EQ(vecCross(a0, b, b), b);  // out aliases the second input
  EXPECT_EQ(vecCross(a, a0, a), a);  // ... and the first: a x a0 = 0
  for (int i = 0; i < 3; i++) EXPECT_TRUE(b[i] == (i == 1 ? 6 : -3) && a[i] == 0.0) << i;
  const double r2[3] = {7, 8, 10}, r1[3] = {4, 5, 6};
  EXPECT_EQ(vecTriple(a0, r1, r2), -3.0);  // the determinant of the rows
  const double o[3] = {5, -2, 7}, x[3] = {6, -2, 7}, y[3] = {5, -1, 7}, z[3] = {5, -2, 9};
  EXPECT_DOUBLE_EQ(tetVolume(o, x, y, z), 2.0 / 6.0);
  EXPECT_DOUBLE_EQ(tetVolume(o, y, x, z), -2.0 / 6.0);
  const double ux[3] = {1, 0, 0}, uy[3] = {0, 1, 0}, uz[3] = {0, 0, 1};
  EXPECT_DOUBLE_EQ(tetVolumeOrigin(ux, uy, uz), 1.0 / 6.0);
}

TEST(Vectors, NormalizeAndBitsEqualAtTheirLimits) {
  const double limits[] = {0.0, 5.0, std::nextafter(5.0, 6.0)}, lens[] = {5.0, 5.0, 0.0};
  for (int i = 0; i < 3; i++) {
    double v[3] = {3, 4, 0};
    EXPECT_EQ(vecNormalize(v, limits[i]), lens[i]);
    EXPECT_DOUBLE_EQ(v[0], lens[i] == 0 ? 0.0 : 0.6);
    EXPECT_DOUBLE_EQ(v[1], lens[i] == 0 ? 0.0 : 0.8);
  }
  // Stored bits: 0.0 and -0.0 differ, a NaN equals itself, z is not read.
  const double nan = std::nan("");
  const double p[][3] = {{0.0, 2, 3}, {1, 2, 0.0}, {nan, 2, 3}};
  const double q[][3] = {{-0.0, 2, 3}, {1, 2, -0.0}, {nan, 2, 3}};
  for (int i = 0; i < 3; i++) EXPECT_EQ(bitsEqual2d(p[i], q[i]), i > 0 ? 1 : 0) << i;
}

TEST(Vectors, PlaneFrameIsRightHandedOrthonormalWithTheNormalInTheNamedAxis) {
  const double s = std::sin(0.35), c = std::cos(0.35);
  const double normals[][3] = {{c, 0.6 * s, 0.8 * s}, {0.5, 0.6, 0.8}, {-2, 0, 0}, {0, 1e-3, -1}};
  for (const auto& nrm : normals) {
    double n = std::sqrt(dot(nrm, nrm));
    for (int32_t mode : {kFrameNormalU, kFrameNormalV, kFrameNormalW, 0, 7}) {
      double f[3][3];
      ASSERT_EQ(planeFrame(mode, nrm, 1e-6, f[0], f[1], f[2]), 0);
      for (int i = 0; i < 3; i++) {
        EXPECT_NEAR(dot(f[i], f[i]), 1.0, 1e-14);
        EXPECT_NEAR(dot(f[i], f[(i + 1) % 3]), 0.0, 1e-14);
      }
      EXPECT_NEAR(vecTriple(f[0], f[1], f[2]), 1.0, 1e-14);
      int axis = mode == kFrameNormalW ? 2 : mode == kFrameNormalV ? 1 : 0;
      for (int i = 0; i < 3; i++) EXPECT_NEAR(f[axis][i], nrm[i] / n, 1e-15);
    }
  }
  double u[3], v[3], w[3];
  const double shortN[3] = {1e-7, 0, 0};
  EXPECT_EQ(planeFrame(kFrameNormalW, shortN, 1e-6, u, v, w), 1);
  EXPECT_EQ(planeFrame(kFrameNormalW, shortN, 1e-8, u, v, w), 0);
}

}  // namespace
