// Squared distances between points, segments and triangles, in plain double
// arithmetic. Short edges count as points and flat triangles as three edges,
// so degenerate input always gets a distance.
#include <cmath>

#include "kernels/kernels.h"

namespace {

constexpr double kHalf = 0.5;  // midpoints, and the pair of a triangle that is a point

inline double dot3(const double* a, const double* b) {
  return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline void sub3(const double* a, const double* b, double* out) {
  out[0] = a[0] - b[0];
  out[1] = a[1] - b[1];
  out[2] = a[2] - b[2];
}

inline double dist2(const double* a, const double* b) {
  double d[3];
  sub3(a, b, d);
  return dot3(d, d);
}

inline double clamp01(double v) {
  return v < 0.0 ? 0.0 : (v > 1.0 ? 1.0 : v);
}

// ---------------------------------------------------------------------------
// Triangle working block

// Fills the fields of w named by need (and those they are made from) that
// are not valid yet.
void triFill(qvTriCache& w, const double* a, const double* b, const double* c, uint32_t need) {
  uint32_t missing = need & ~w.have;
  if (missing == 0) {
    return;
  }
  if ((missing & (kTriHaveN | kTriHaveN2 | kTriHaveVol)) != 0) {
    missing |= kTriHaveAb | kTriHaveBc;
  }
  if ((missing & (kTriHaveN2 | kTriHaveVol)) != 0) {
    missing |= kTriHaveN;
  }
  if ((missing & kTriHaveAb2) != 0) missing |= kTriHaveAb;
  if ((missing & kTriHaveBc2) != 0) missing |= kTriHaveBc;
  if ((missing & kTriHaveAc2) != 0) missing |= kTriHaveAc;
  missing &= ~w.have;

  if ((missing & kTriHaveAb) != 0) sub3(b, a, w.ab);
  if ((missing & kTriHaveBc) != 0) sub3(c, b, w.bc);
  if ((missing & kTriHaveAc) != 0) sub3(c, a, w.ac);
  if ((missing & kTriHaveN) != 0) vecCross(w.ab, w.bc, w.n);
  if ((missing & kTriHaveAb2) != 0) w.ab2 = dot3(w.ab, w.ab);
  if ((missing & kTriHaveBc2) != 0) w.bc2 = dot3(w.bc, w.bc);
  if ((missing & kTriHaveAc2) != 0) w.ac2 = dot3(w.ac, w.ac);
  if ((missing & kTriHaveN2) != 0) w.n2 = dot3(w.n, w.n);
  if ((missing & kTriHaveVol) != 0) w.vol = vecTriple(w.ab, w.bc, w.n);
  w.have |= missing;
}

// ---------------------------------------------------------------------------
// Point to triangle

void setPair(double* pair, double s, double t) {
  if (pair != nullptr) {
    pair[0] = s;
    pair[1] = t;
  }
}

// The pairs of the nearest point on one edge at position r along it. a + s ab
// + t bc lies on ab for (r, 0), on bc for (1, r) and on ac for (r, r).
enum class Edge { kAb, kBc, kAc };

void edgePairs(Edge e, double r, double* raw, double* clamped) {
  double k = clamp01(r);
  switch (e) {
    case Edge::kAb:
      setPair(raw, r, 0.0);
      setPair(clamped, k, 0.0);
      break;
    case Edge::kBc:
      setPair(raw, 1.0, r);
      setPair(clamped, 1.0, k);
      break;
    case Edge::kAc:
      setPair(raw, r, r);
      setPair(clamped, k, k);
      break;
  }
}

// Nearest of the three edges, ab preferred to bc and bc to ac on a tie.
double nearestEdge(double dab, double rab, double dbc, double rbc, double dac, double rac,
                   double* raw, double* clamped) {
  if (dab <= dbc && dab <= dac) {
    edgePairs(Edge::kAb, rab, raw, clamped);
    return dab;
  }
  if (dbc <= dac) {
    edgePairs(Edge::kBc, rbc, raw, clamped);
    return dbc;
  }
  edgePairs(Edge::kAc, rac, raw, clamped);
  return dac;
}

// The six cases of pointTriDist2, in their order, on the working block w.
double pointTriMeasure(qvTriCache& w, const double* a, const double* b, const double* c,
                       const double* p, double tol, double* raw, double* clamped) {
  double lim = tol * tol;
  triFill(w, a, b, c, kTriHaveAb2 | kTriHaveBc2);
  bool shortAb = w.ab2 <= lim;
  bool shortBc = w.bc2 <= lim;
  double r = 0.0;

  if (shortAb && shortBc) {
    triFill(w, a, b, c, kTriHaveAc2);
    if (w.ac2 <= lim) {
      // A point: measured to the centroid.
      double g[3];
      for (int i = 0; i < 3; i++) {
        g[i] = (a[i] + b[i] + c[i]) / 3.0;
      }
      setPair(raw, kHalf, kHalf);
      setPair(clamped, kHalf, kHalf);
      return dist2(p, g);
    }
    double dist = pointSegDist2(a, c, p, tol, &r);
    edgePairs(Edge::kAc, r, raw, clamped);
    return dist;
  }
  if (shortAb) {
    double dist = pointSegDist2(b, c, p, tol, &r);
    edgePairs(Edge::kBc, r, raw, clamped);
    return dist;
  }
  if (shortBc) {
    double dist = pointSegDist2(a, b, p, tol, &r);
    edgePairs(Edge::kAb, r, raw, clamped);
    return dist;
  }

  triFill(w, a, b, c, kTriHaveN2);
  if (w.n2 <= lim) {
    // A sliver: the nearest of its edges. The measurements on ac and ab share
    // one position, so when ac is the nearest its pair carries the position
    // found on ab. This is the established behaviour and is kept.
    double rbc = 0.0;
    double dac = pointSegDist2(a, c, p, tol, &r);
    double dab = pointSegDist2(a, b, p, tol, &r);
    double dbc = pointSegDist2(b, c, p, tol, &rbc);
    return nearestEdge(dab, r, dbc, rbc, dac, r, raw, clamped);
  }

  // The pair (s, t) of p's projection onto the plane, from triple products.
  triFill(w, a, b, c, kTriHaveN | kTriHaveVol);
  double ap[3];
  sub3(p, a, ap);
  double s = vecTriple(ap, w.bc, w.n) / w.vol;
  double t = vecTriple(w.ab, ap, w.n) / w.vol;
  if (0.0 <= t && t <= s && s <= 1.0) {
    double x[3];
    for (int i = 0; i < 3; i++) {
      x[i] = a[i] + s * w.ab[i] + t * w.bc[i];
    }
    setPair(raw, s, t);
    setPair(clamped, s, t);
    return dist2(p, x);
  }
  double rab = 0.0, rbc = 0.0, rac = 0.0;
  double dac = pointSegDist2(a, c, p, tol, &rac);
  double dab = pointSegDist2(a, b, p, tol, &rab);
  double dbc = pointSegDist2(b, c, p, tol, &rbc);
  return nearestEdge(dab, rab, dbc, rbc, dac, rac, raw, clamped);
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

double pointSegDist2(const double* a, const double* b, const double* p, double tol, double* t) {
  double d[3];
  sub3(b, a, d);
  double d2 = dot3(d, d);
  double r = 0.0;
  double dist;
  if (tol * tol > d2) {
    // Shorter than tol: the segment counts as its midpoint.
    double m[3] = {(a[0] + b[0]) * kHalf, (a[1] + b[1]) * kHalf, (a[2] + b[2]) * kHalf};
    dist = dist2(p, m);
  } else {
    double ap[3];
    sub3(p, a, ap);
    r = dot3(ap, d) / d2;
    if (r <= 0.0) {
      dist = dist2(p, a);
    } else if (r >= 1.0) {
      dist = dist2(p, b);
    } else {
      double x[3] = {a[0] + r * d[0], a[1] + r * d[1], a[2] + r * d[2]};
      dist = dist2(p, x);
    }
  }
  if (t != nullptr) {
    *t = r;
  }
  return dist;
}

double pointSegDist2d(const double* a, const double* b, const double* p, double tol, double* t) {
  double dx = b[0] - a[0];
  double dy = b[1] - a[1];
  double d2 = dx * dx + dy * dy;
  double r = 0.0;
  double ex, ey;
  if (tol * tol > d2) {
    ex = p[0] - (a[0] + b[0]) * kHalf;
    ey = p[1] - (a[1] + b[1]) * kHalf;
  } else {
    r = ((p[0] - a[0]) * dx + (p[1] - a[1]) * dy) / d2;
    if (r <= 0.0) {
      ex = p[0] - a[0];
      ey = p[1] - a[1];
    } else if (r >= 1.0) {
      ex = p[0] - b[0];
      ey = p[1] - b[1];
    } else {
      ex = p[0] - (a[0] + r * dx);
      ey = p[1] - (a[1] + r * dy);
    }
  }
  if (t != nullptr) {
    *t = r;
  }
  return ex * ex + ey * ey;
}

double pointTriDist2(qvTriCache* cache, const double* a, const double* b, const double* c,
                     const double* p, double tol, double* raw, double* clamped) {
  if (cache != nullptr) {
    return pointTriMeasure(*cache, a, b, c, p, std::fabs(tol), raw, clamped);
  }
  qvTriCache w;
  w.have = 0;
  return pointTriMeasure(w, a, b, c, p, std::fabs(tol), raw, clamped);
}

int32_t segSegDist2(const double* a0, const double* a1, const double* b0, const double* b1,
                    double tol, double* out) {
  double da[3], db[3], n[3];
  sub3(a1, a0, da);
  sub3(b1, b0, db);
  vecCross(da, db, n);
  double n2 = dot3(n, n);
  int32_t status = 1;
  if (n2 > tol * tol) {
    // Closest points of the two lines: a0 + s da - (b0 + t db) is parallel
    // to n, which gives s and t by triple products.
    status = 0;
    double w[3];
    sub3(b0, a0, w);
    double s = vecTriple(w, db, n) / n2;
    double t = vecTriple(w, da, n) / n2;
    if (0.0 <= s && s <= 1.0 && 0.0 <= t && t <= 1.0) {
      double x[3], y[3];
      for (int i = 0; i < 3; i++) {
        x[i] = a0[i] + s * da[i];
        y[i] = b0[i] + t * db[i];
      }
      out[0] = dist2(x, y);
      out[1] = s;
      out[2] = t;
      return status;
    }
  }
  // Parallel lines, or closest points outside a segment: the minimum lies at
  // an end of one segment against the other. Only a strictly smaller value
  // replaces the one held.
  double r = 0.0;
  out[0] = pointSegDist2(b0, b1, a0, tol, &r);
  out[1] = 0.0;
  out[2] = clamp01(r);
  double d = pointSegDist2(b0, b1, a1, tol, &r);
  if (d < out[0]) {
    out[0] = d;
    out[1] = 1.0;
    out[2] = clamp01(r);
  }
  d = pointSegDist2(a0, a1, b0, tol, &r);
  if (d < out[0]) {
    out[0] = d;
    out[1] = clamp01(r);
    out[2] = 0.0;
  }
  d = pointSegDist2(a0, a1, b1, tol, &r);
  if (d < out[0]) {
    out[0] = d;
    out[1] = clamp01(r);
    out[2] = 1.0;
  }
  return status;
}

double segTriDist2(qvTriCache* cache, const double* a, const double* b, const double* c,
                   const double* p, const double* q, double tol) {
  qvTriCache own;
  own.have = 0;
  qvTriCache& w = cache != nullptr ? *cache : own;
  triFill(w, a, b, c, kTriHaveAb | kTriHaveBc | kTriHaveN);
  double pq[3];
  sub3(q, p, pq);
  double den = dot3(pq, w.n);
  if (den != 0.0) {
    double ap[3], m[3];
    sub3(p, a, ap);
    vecCross(pq, ap, m);
    double u = dot3(ap, w.n) / -den;
    double s = -dot3(m, w.bc) / -den;
    double t = dot3(m, w.ab) / -den;
    if (0.0 <= u && u <= 1.0 && 0.0 <= s && s <= 1.0 && 0.0 <= t && t <= 1.0 && t <= s) {
      return 0.0;
    }
  }
  // q is measured too, which fills the cache, but its distance is left out
  // of the minimum: the result is defined without it.
  double dist = pointTriDist2(cache, a, b, c, p, tol, nullptr, nullptr);
  pointTriDist2(cache, a, b, c, q, tol, nullptr, nullptr);
  const double* ends[3][2] = {{a, b}, {a, c}, {b, c}};
  for (const auto& e : ends) {
    double out[3];
    segSegDist2(p, q, e[0], e[1], tol, out);
    if (out[0] < dist) {
      dist = out[0];
    }
  }
  return dist;
}
