// Vector and plane helpers on three doubles.
#include <cmath>
#include <cstring>

#include "kernels/kernels.h"

namespace {

constexpr double kFrameTinyMax = 1e-6;  // largest length limit of the in-plane axes
constexpr double kFrameNearAxis = 0.5;  // w x (1,0,0) shorter than this: w lies close to x

// Unit vectors of the axes tried as the first in-plane direction.
constexpr double kAxisX[3] = {1.0, 0.0, 0.0};
constexpr double kAxisY[3] = {0.0, 1.0, 0.0};

inline double dot3(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline void copy3(const double* from, double* to) {
  to[0] = from[0];
  to[1] = from[1];
  to[2] = from[2];
}

}  // namespace

double* vecCross(const double* a, const double* b, double* out) {
  // Temporaries first, so that out may be a or b.
  double x = a[1] * b[2] - a[2] * b[1];
  double y = a[2] * b[0] - a[0] * b[2];
  double z = a[0] * b[1] - a[1] * b[0];
  out[0] = x;
  out[1] = y;
  out[2] = z;
  return out;
}

double vecTriple(const double* a, const double* b, const double* c) {
  double bc[3];
  vecCross(b, c, bc);
  return dot3(a, bc);
}

double vecNormalize(double* v, double minLen) {
  double len = std::sqrt(dot3(v, v));
  if (minLen > len) {
    v[0] = 0.0;
    v[1] = 0.0;
    v[2] = 0.0;
    return 0.0;
  }
  double inv = 1.0 / len;
  v[0] *= inv;
  v[1] *= inv;
  v[2] *= inv;
  return len;
}

int32_t vecCos2(int32_t given, double* u, double* v, double tiny, double* cos2) {
  if ((given & kCosGivenU) == 0) {
    u[3] = dot3(u, u);
  }
  if ((given & kCosGivenV) == 0) {
    v[3] = dot3(v, v);
  }
  double d = dot3(u, v);
  double d2 = d * d;
  // sign(dot) * dot^2 over the squared lengths. The division is unguarded:
  // with a zero-length vector cos2 is NaN or infinite, and the result bits
  // tell the caller so.
  *cos2 = (d < 0.0 ? -d2 : d2) / (u[3] * v[3]);
  int32_t bits = 0;
  if (tiny > u[3]) {
    bits |= kCosShortU;
  }
  if (tiny > v[3]) {
    bits |= kCosShortV;
  }
  return bits;
}

int32_t planeFrame(int32_t mode, const double* normal, double eps, double* u, double* v,
                   double* w) {
  copy3(normal, w);
  if (vecNormalize(w, eps) == 0.0) {
    return 1;
  }
  double tiny = std::fmin(kFrameTinyMax, eps);
  copy3(kAxisX, u);
  vecCross(w, u, v);
  if (vecNormalize(v, tiny) < kFrameNearAxis) {
    copy3(kAxisY, u);
    vecCross(w, u, v);
    if (vecNormalize(v, tiny) == 0.0) {
      return 1;
    }
  }
  vecCross(v, w, u);

  // Cyclic turns keep the frame right-handed.
  double t[3];
  if (mode == kFrameNormalW) {
    return 0;
  }
  if (mode == kFrameNormalV) {
    copy3(v, t);
    copy3(w, v);
    copy3(u, w);
    copy3(t, u);
    return 0;
  }
  copy3(u, t);
  copy3(w, u);
  copy3(v, w);
  copy3(t, v);
  return 0;
}

int32_t bitsEqual2d(const double* p, const double* q) {
  return std::memcmp(p, q, 2 * sizeof(double)) == 0 ? 1 : 0;
}

int32_t bitsEqual3d(const double* p, const double* q) {
  return std::memcmp(p, q, 3 * sizeof(double)) == 0 ? 1 : 0;
}

double tetVolume(const double* p0, const double* p1, const double* p2, const double* p3) {
  double a[3] = {p1[0] - p0[0], p1[1] - p0[1], p1[2] - p0[2]};
  double b[3] = {p2[0] - p0[0], p2[1] - p0[1], p2[2] - p0[2]};
  double c[3] = {p3[0] - p0[0], p3[1] - p0[1], p3[2] - p0[2]};
  return vecTriple(a, b, c) / 6.0;
}

double tetVolumeOrigin(const double* p0, const double* p1, const double* p2) {
  return vecTriple(p0, p1, p2) / 6.0;
}
