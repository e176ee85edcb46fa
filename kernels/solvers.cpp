// Planar crossing of two segments, the roots of quadratics and cubics, and
// cyclic Jacobi rotations: what the projection of a vertex ring and its
// best-fit plane need.
#include <cmath>

#include "kernels/kernels.h"

namespace {

// ---------------------------------------------------------------------------
// Planar crossing

constexpr double kRefitLimit = 1e-20;  // length limit when a position is found again by projection

inline double clamp01(double v) {
  return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
}

inline double cross2(const double* u, const double* v) {
  return u[0] * v[1] - u[1] * v[0];
}

void setOut(double* out, const double* point, double s, double t) {
  out[0] = point[0];
  out[1] = point[1];
  out[2] = s;
  out[3] = t;
}

// Position of p along the line of a, b (1 at b), not limited; 0 for a
// segment shorter than tol.
double segPosition2d(const double* a, const double* b, const double* p, double tol) {
  const double dx = b[0] - a[0];
  const double dy = b[1] - a[1];
  const double d2 = dx * dx + dy * dy;
  if (tol * tol > d2) return 0.0;
  return ((p[0] - a[0]) * dx + (p[1] - a[1]) * dy) / d2;
}

// Position of x along the segment a, b, limited to 0 and 1.
double refit(const double* a, const double* b, const double* x) { return clamp01(segPosition2d(a, b, x, kRefitLimit)); }

// Pairs of ends equal by bits, in the order q0 on p0, q1 on p0, q0 on p1,
// q1 on p1. Returns their number and writes the first one to out.
int sharedEnds(const double* p0, const double* p1, const double* q0, const double* q1,
               double* out) {
  const double* pe[4] = {p0, p0, p1, p1};
  const double* qe[4] = {q0, q1, q0, q1};
  int count = 0;
  for (int i = 0; i < 4; i++) {
    if (bitsEqual2d(pe[i], qe[i]) == 1) {
      if (count == 0) {
        setOut(out, qe[i], i < 2 ? 0.0 : 1.0, i % 2 == 0 ? 0.0 : 1.0);
      }
      count++;
    }
  }
  return count;
}

// A pair of classifications (turn2dFast of both ends of one segment against
// the other's line) that puts the segment wholly on one side: both ends in
// the same class, and that class is not "between".
inline bool oneSide(int32_t c0, int32_t c1) {
  return c0 == c1 && c0 != kTurnBetween;
}

// Collinear segments: the positions r0, r1 of p0, p1 along q decide.
int32_t collinearContact(const double* p0, const double* p1, const double* q0, const double* q1,
                         double* out) {
  const double r0 = segPosition2d(q0, q1, p0, kRefitLimit);
  const double r1 = segPosition2d(q0, q1, p1, kRefitLimit);
  double lo = std::fmax(std::fmin(r0, r1), 0.0);
  double hi = std::fmin(std::fmax(r0, r1), 1.0);
  if (lo > hi) {
    return kCrossNone;  // both ends of p before q0, or both beyond q1
  }
  // The contact starts at lo: an end of q, or else the end of p that lies there.
  double s = r0 == lo ? 0.0 : 1.0;
  const double* start = s == 0.0 ? p0 : p1;
  if (lo == 0.0) {
    start = q0;
    s = refit(p0, p1, q0);
  } else if (lo == 1.0) {
    start = q1;
    s = refit(p0, p1, q1);
  }
  setOut(out, start, s, lo);
  return lo == hi ? kCrossPoint : kCrossOverlap;
}

// Lines that cross: positions s along p and t along q. Positions a hair
// outside a segment (rounding) are moved onto its end.
int32_t regularCrossing(const double* p0, const double* p1, const double* q0, const double* q1,
                        const double* dp, double s, double t, double* out) {
  double point[2] = {p0[0] + s * dp[0], p0[1] + s * dp[1]};
  if (t <= 0.0 || t >= 1.0) {
    const double* end = t <= 0.0 ? q0 : q1;
    point[0] = end[0];
    point[1] = end[1];
    if (t < 0.0 || t > 1.0) {
      t = t < 0.0 ? 0.0 : 1.0;
      s = refit(p0, p1, end);
    }
  } else if (s < 0.0 || s > 1.0) {
    const double* end = s < 0.0 ? p0 : p1;
    point[0] = end[0];
    point[1] = end[1];
    s = s < 0.0 ? 0.0 : 1.0;
    t = refit(q0, q1, end);
  }
  setOut(out, point, clamp01(s), clamp01(t));
  return kCrossPoint;
}

// ---------------------------------------------------------------------------
// Polynomial roots

constexpr double kCubicLimitMax = 1e-10;    // largest limit of the repeated-root test
constexpr double kCubicLimitRel = 1e-16;    // limit relative to the largest coefficient
constexpr double kPi = 3.14159265358979323846;
constexpr double kSqrt3Half = 0.8660254037844386;  // sin(pi / 3)

// ---------------------------------------------------------------------------
// Jacobi rotations

constexpr int kJacobiMaxSweeps = 50;         // sweeps before the solver gives up
constexpr int kJacobiThreshSweeps = 3;       // sweeps with a rotation threshold
constexpr int kJacobiSkipAfter = 4;          // sweeps after which negligible elements are zeroed
constexpr double kJacobiThreshFactor = 0.2;  // threshold = factor * sum / n^2
constexpr double kJacobiNegligible = 100.0;  // element scale for the negligibility test

// One rotation step on the pair of elements x = m[i][j], y = m[k][l].
inline void rotate(double& x, double& y, double s, double tau) {
  double g = x;
  double h = y;
  x = g - s * (h + g * tau);
  y = h + s * (g - h * tau);
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

int32_t segSegIntersect2d(const double* p0, const double* p1, const double* q0, const double* q1,
                          double tol, double* out) {
  // Quick rejection: each segment lies wholly on one side of the other's line.
  double dp[2], dq[2], w[2];
  int32_t cq0 = turn2dFast(p0, p1, q0, 0, dp, w);
  int32_t cq1 = turn2dFast(p0, p1, q1, kTurnGivenAb, dp, w);
  int32_t cp0 = turn2dFast(q0, q1, p0, 0, dq, w);
  int32_t cp1 = turn2dFast(q0, q1, p1, kTurnGivenAb, dq, w);
  if (oneSide(cq0, cq1) && oneSide(cp0, cp1)) {
    return kCrossNone;
  }

  // Segments within tol of a point.
  double lim = tol * tol;
  double lp = dp[0] * dp[0] + dp[1] * dp[1];
  double lq = dq[0] * dq[0] + dq[1] * dq[1];
  if (lp <= lim && lq <= lim) {
    return sharedEnds(p0, p1, q0, q1, out) > 0 ? kCrossPoint : kCrossNone;
  }
  if (lq <= lim) {
    int32_t r = segSegIntersect2d(q0, q1, p0, p1, tol, out);
    double s = out[2];
    out[2] = out[3];
    out[3] = s;
    return r;
  }

  int shared = sharedEnds(p0, p1, q0, q1, out);
  if (shared >= 2) {
    return kCrossOverlap;
  }
  int32_t noCrossing = shared == 1 ? kCrossPoint : kCrossNone;

  double denom = cross2(dp, dq);
  if (denom == 0.0) {
    // Parallel: collinear unless both ends of q lie strictly off p's line.
    bool offLine = (cq0 == kTurnLeft || cq0 == kTurnRight) && (cq1 == kTurnLeft || cq1 == kTurnRight);
    return offLine ? noCrossing : collinearContact(p0, p1, q0, q1, out);
  }
  double wq[2] = {q0[0] - p0[0], q0[1] - p0[1]};
  double s = cross2(wq, dq) / denom;
  double t = cross2(wq, dp) / denom;
  // The crossing must lie on both segments, give or take tol along each.
  double slackP = tol / std::sqrt(lp);
  double slackQ = tol / std::sqrt(lq);
  if (s < -slackP || s > 1.0 + slackP || t < -slackQ || t > 1.0 + slackQ) {
    return noCrossing;
  }
  return regularCrossing(p0, p1, q0, q1, dp, s, t, out);
}

int32_t solveQuadratic(double a2, double a1, double a0, double tol, double* re, double* im,
                       int32_t* kind) {
  *kind = kRootsReal;
  im[0] = 0.0;
  im[1] = 0.0;
  if (a2 == 0.0) {
    if (a1 == 0.0) {
      return 0;
    }
    re[0] = -a0 / a1;
    return 1;
  }
  if (a1 == 0.0) {
    if (a0 == 0.0) {
      re[0] = 0.0;
      return 1;
    }
    double q = -a0 / a2;
    if (q >= 0.0) {
      re[0] = std::sqrt(q);
      re[1] = -re[0];
      return 2;
    }
    *kind = kRootsComplex;
    re[0] = 0.0;
    re[1] = 0.0;
    im[0] = std::sqrt(-q);
    im[1] = -im[0];
    return 2;
  }
  if (a0 == 0.0) {
    re[0] = 0.0;
    re[1] = -a1 / a2;
    return 2;
  }
  double disc = a1 * a1 - 4.0 * a2 * a0;
  if (std::fabs(disc) <= tol) {
    re[0] = a1 * -0.5 / a2;
    return 1;
  }
  if (disc < 0.0) {
    // The imaginary parts are not divided by 2 a2: callers only ask whether
    // the roots are complex.
    *kind = kRootsComplex;
    re[0] = a1 * -0.5 / a2;
    re[1] = re[0];
    im[0] = std::sqrt(-disc);
    im[1] = -im[0];
    return 2;
  }
  // Add quantities of the same sign only, which avoids cancellation.
  double root = std::sqrt(disc);
  double r = -0.5 * (a1 + (a1 < 0.0 ? -root : root));
  re[0] = r / a2;
  re[1] = a0 / r;
  return 2;
}

int32_t solveCubic(double a3, double a2, double a1, double a0, double tol, double* re,
                   double* im, int32_t* kind) {
  if (a3 == 0.0) {
    return solveQuadratic(a2, a1, a0, tol, re, im, kind);
  }
  *kind = kRootsReal;
  im[0] = 0.0;
  im[1] = 0.0;
  im[2] = 0.0;
  double b = a2, c = a1, d = a0;
  if (a3 != 1.0) {
    b = a2 / a3;
    c = a1 / a3;
    d = a0 / a3;
  }
  // Depressed cubic y^3 + 3 p y + 2 q with x = y - b / 3.
  double big = std::fmax(std::fabs(b), std::fmax(std::fabs(c), std::fabs(d)));
  double limit = std::fmin(kCubicLimitMax, kCubicLimitRel * big);
  double p = (c - b * b / 3.0) / 3.0;
  double q = (2.0 * b * b * b / 27.0 + d - b * c / 3.0) / 2.0;
  double p3 = p * p * p;
  double disc = p3 + q * q;

  int32_t count;
  if (std::fabs(disc) <= limit || disc == 0.0) {
    if (q == 0.0) {
      re[0] = 0.0;
      count = 1;
    } else {
      double r = std::cbrt(-q);
      re[0] = 2.0 * r;
      re[1] = -r;
      count = 2;
    }
  } else if (disc < 0.0) {
    if (p3 > 0.0) {
      return -1;
    }
    double r = std::sqrt(-p3);
    double u = -q / r;
    double angle = u <= -1.0 ? kPi : (u >= 1.0 ? 0.0 : std::acos(u));
    double scale = 2.0 * std::cbrt(r);
    for (int k = 0; k < 3; k++) {
      re[k] = scale * std::cos((angle + 2.0 * kPi * k) / 3.0);
    }
    count = 3;
  } else if (disc > 0.0) {
    *kind = kRootsComplex;
    double w = std::sqrt(disc);
    double s1 = std::cbrt(w - q);
    double s2 = std::cbrt(-q - w);
    re[0] = s1 + s2;
    re[1] = -0.5 * (s1 + s2);
    re[2] = re[1];
    im[1] = kSqrt3Half * (s1 - s2);
    im[2] = -im[1];
    count = 3;
  } else {
    return -1;  // NaN coefficients
  }
  for (int k = 0; k < count; k++) {
    re[k] -= b / 3.0;
  }
  return count;
}

int32_t jacobiEigen(double** m, int32_t n, double** vectors) {
  if (n < 1 || n > kJacobiMaxOrder) {
    return -1;
  }
  // m's diagonal is the running eigenvalue estimate; base holds its value at
  // the start of the sweep and shift the sum of the sweep's updates, which
  // are added in one go to limit rounding.
  double base[kJacobiMaxOrder], shift[kJacobiMaxOrder];
  for (int i = 0; i < n; i++) {
    for (int j = 0; j < n; j++) {
      vectors[i][j] = i == j ? 1.0 : 0.0;
    }
    base[i] = m[i][i];
    shift[i] = 0.0;
  }
  int32_t rotations = 0;
  for (int sweep = 1; sweep <= kJacobiMaxSweeps; sweep++) {
    double sum = 0.0;
    for (int p = 0; p < n - 1; p++) {
      for (int q = p + 1; q < n; q++) {
        sum += std::fabs(m[p][q]);
      }
    }
    if (sum == 0.0) {
      return rotations;
    }
    double thresh = sweep <= kJacobiThreshSweeps ? kJacobiThreshFactor * sum / (n * n) : 0.0;
    for (int p = 0; p < n - 1; p++) {
      for (int q = p + 1; q < n; q++) {
        double g = kJacobiNegligible * std::fabs(m[p][q]);
        double dp = std::fabs(m[p][p]);
        double dq = std::fabs(m[q][q]);
        if (sweep > kJacobiSkipAfter && dp + g == dp && dq + g == dq) {
          m[p][q] = 0.0;
          continue;
        }
        if (std::fabs(m[p][q]) <= thresh) {
          continue;
        }
        double theta = 0.5 * (m[q][q] - m[p][p]) / m[p][q];
        double t = 1.0 / (std::fabs(theta) + std::sqrt(theta * theta + 1.0));
        if (theta < 0.0) {
          t = -t;
        }
        double c = 1.0 / std::sqrt(1.0 + t * t);
        double s = t * c;
        double tau = s / (1.0 + c);
        double h = t * m[p][q];
        shift[p] -= h;
        shift[q] += h;
        m[p][p] -= h;
        m[q][q] += h;
        m[p][q] = 0.0;
        for (int j = 0; j < p; j++) {
          rotate(m[j][p], m[j][q], s, tau);
        }
        for (int j = p + 1; j < q; j++) {
          rotate(m[p][j], m[j][q], s, tau);
        }
        for (int j = q + 1; j < n; j++) {
          rotate(m[p][j], m[q][j], s, tau);
        }
        for (int j = 0; j < n; j++) {
          rotate(vectors[j][p], vectors[j][q], s, tau);
        }
        rotations++;
      }
    }
    for (int i = 0; i < n; i++) {
      base[i] += shift[i];
      m[i][i] = base[i];
      shift[i] = 0.0;
    }
  }
  return -1;
}
