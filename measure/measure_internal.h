// Helpers shared by the sources of measure/: small vector arithmetic in double
// and the corner coordinates of a facet.
#pragma once

#include "measure/measure.h"

namespace measure_detail {

inline void sub(const double a[3], const double b[3], double out[3]) {
  out[0] = a[0] - b[0];
  out[1] = a[1] - b[1];
  out[2] = a[2] - b[2];
}

inline double dot(const double a[3], const double b[3]) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline void cross(const double a[3], const double b[3], double out[3]) {
  out[0] = a[1] * b[2] - a[2] * b[1];
  out[1] = a[2] * b[0] - a[0] * b[2];
  out[2] = a[0] * b[1] - a[1] * b[0];
}

// Corner `k` (0, 1 or 2) of facet `f`, widened to double (exactly).
inline void corner(const MeasureMesh *mesh, int64_t f, int k, double out[3]) {
  const float *v = mesh->xyz + 3 * static_cast<int64_t>(mesh->tri[3 * f + k]);
  out[0] = v[0];
  out[1] = v[1];
  out[2] = v[2];
}

} // namespace measure_detail
