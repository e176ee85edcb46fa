// Certified bounds of the one-sided distance from a surface to another: every
// facet is a piece bounded below by distances at points of it and above by
// convexity to one reduced triangle, by a pair of triangles across a bisecting
// plane, or by a ball; pieces that do not settle are split 1:4, level by level.
// measure.h states the method, the targets, the limits and the rounding
// allowance. Written apart from the engine, like the rest of measure/.
#include "measure/measure_internal.h"

#include <omp.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>

using namespace measure_detail;

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();
constexpr double kUnit = 0x1p-53;               // u, the unit roundoff of double
constexpr double kAllowanceUlps = 32;           // delta = 32 u S
constexpr double kRelative = 8 * kUnit;         // relative rounding of a computed length
constexpr double kAllowanceGap = 4;             // without a tolerance, gaps of 4 delta settle
constexpr int kCandidates = 4;                  // nearest triangles of three corners and the centre
constexpr int64_t kPieceChunk = 256;            // pieces per unit of parallel work, one hint chain

// One piece: a triangle of a facet of `from`, its corners on the facet's grid
// of 2^depth steps per side, so that every corner is a dyadic combination.
struct Piece {
  int32_t facet;   // facet of `from`
  int32_t depth;   // splits below the facet
  int32_t grid[6]; // (i, j) per corner: the corner is a + i/2^depth (b - a) + j/2^depth (c - a)
  double lower;    // largest distance at a point evaluated, allowance taken off
  double upper;    // bound of the distance over the piece, allowance included
};
static_assert(sizeof(Piece) == 48, "Piece: facet, depth, three grid corners, two bounds");

// What every piece evaluation reads.
struct Context {
  const MeasureMesh *from; // the surface bounded
  const MeasureTree *to;   // the surface measured against
  double allowance;        // delta
};

double length(const double a[3], const double b[3]) {
  double d[3];
  sub(a, b, d);
  return std::sqrt(dot(d, d));
}

void slotCorners(const MeasureTree *tree, int32_t slot, double t[3][3]) {
  const float *v = tree->corner + 9 * static_cast<int64_t>(slot);
  for (int k = 0; k < 3; ++k) {
    for (int i = 0; i < 3; ++i) {
      t[k][i] = v[3 * k + i];
    }
  }
}

// y = a + v (b - a) + w (c - a), the form every witness takes.
void combine(const double a[3], const double ab[3], const double ac[3], double v, double w,
             double y[3]) {
  for (int i = 0; i < 3; ++i) {
    y[i] = a[i] + v * ab[i] + w * ac[i];
  }
}

// A point of triangle t near p, after the region tests of Ericson (Real-Time
// Collision Detection, 5.1.5). Every branch returns a convex combination of the
// corners, with weights clamped so that rounding cannot leave the triangle, so
// |p - y| bounds d(p, t) from above whatever the triangle's shape; for a
// triangle of fair shape y is the closest point. A triangle that is a segment
// or a point falls through to the nearest of its three sides.
void witness(const double p[3], const double t[3][3], double y[3]) {
  const double *a = t[0];
  const double *b = t[1];
  const double *c = t[2];
  double ab[3], ac[3], ap[3], bp[3], cp[3];
  sub(b, a, ab);
  sub(c, a, ac);
  sub(p, a, ap);
  sub(p, b, bp);
  sub(p, c, cp);
  const double d1 = dot(ab, ap), d2 = dot(ac, ap);
  const double d3 = dot(ab, bp), d4 = dot(ac, bp);
  const double d5 = dot(ab, cp), d6 = dot(ac, cp);
  const double va = d3 * d6 - d5 * d4;
  const double vb = d5 * d2 - d1 * d6;
  const double vc = d1 * d4 - d3 * d2;
  const double sum = va + vb + vc;
  if (d1 <= 0 && d2 <= 0) {
    std::copy(a, a + 3, y);
  } else if (d3 >= 0 && d4 <= d3) {
    std::copy(b, b + 3, y);
  } else if (d6 >= 0 && d5 <= d6) {
    std::copy(c, c + 3, y);
  } else if (vc <= 0 && d1 >= 0 && d3 <= 0 && d1 - d3 > 0) {
    combine(a, ab, ac, std::min(1.0, d1 / (d1 - d3)), 0, y);
  } else if (vb <= 0 && d2 >= 0 && d6 <= 0 && d2 - d6 > 0) {
    combine(a, ab, ac, 0, std::min(1.0, d2 / (d2 - d6)), y);
  } else if (va <= 0 && d4 - d3 >= 0 && d5 - d6 >= 0 && (d4 - d3) + (d5 - d6) > 0) {
    const double w = std::min(1.0, (d4 - d3) / ((d4 - d3) + (d5 - d6)));
    combine(a, ab, ac, 1 - w, w, y);
  } else if (sum > 0 && std::isfinite(sum)) {
    double v = std::max(0.0, vb / sum);
    double w = std::max(0.0, vc / sum);
    if (v + w > 1) {
      v = v / (v + w);
      w = 1 - v;
    }
    combine(a, ab, ac, v, w, y);
  } else {
    // A segment or a point: the nearest of the clamped projections on the sides.
    double best = kInfinity;
    const double *from[3] = {a, b, c};
    for (int k = 0; k < 3; ++k) {
      const double *s = from[k];
      const double *e = from[(k + 1) % 3];
      double se[3], sp[3], q[3];
      sub(e, s, se);
      sub(p, s, sp);
      const double l2 = dot(se, se);
      const double f = l2 > 0 ? std::min(1.0, std::max(0.0, dot(sp, se) / l2)) : 0;
      for (int i = 0; i < 3; ++i) {
        q[i] = s[i] + f * se[i];
      }
      const double d = length(p, q);
      if (d < best) {
        best = d;
        std::copy(q, q + 3, y);
      }
    }
  }
}

double witnessDistance(const double p[3], const double t[3][3]) {
  double y[3];
  witness(p, t, y);
  return length(p, y);
}

// The largest witness distance from `count` points to triangle t: bound (a).
double triangleBound(const double (*q)[3], int count, const double t[3][3]) {
  double worst = 0;
  for (int k = 0; k < count; ++k) {
    worst = std::max(worst, witnessDistance(q[k], t));
  }
  return worst;
}

// Corners of t equal, as points, to corners of s: the indices of the first two
// shared ones; false unless two are.
bool sharedEdge(const double t[3][3], const double s[3][3], int *t0, int *t1, int *s0, int *s1) {
  int found = 0;
  for (int i = 0; i < 3 && found < 2; ++i) {
    for (int j = 0; j < 3; ++j) {
      if (t[i][0] == s[j][0] && t[i][1] == s[j][1] && t[i][2] == s[j][2]) {
        (found == 0 ? *t0 : *t1) = i;
        (found == 0 ? *s0 : *s1) = j;
        ++found;
        break;
      }
    }
  }
  return found == 2 && *s0 != *s1;
}

// Unit vector in the plane of the edge e0 + s e and the apex, perpendicular to
// e, towards the apex; false when the apex lies on the edge's line.
bool inward(const double e0[3], const double e[3], const double apex[3], double w[3]) {
  double r[3];
  sub(apex, e0, r);
  const double ee = dot(e, e);
  if (!(ee > 0)) {
    return false;
  }
  const double f = dot(r, e) / ee;
  for (int i = 0; i < 3; ++i) {
    w[i] = r[i] - f * e[i];
  }
  const double n = std::sqrt(dot(w, w));
  if (!(n > 0)) {
    return false;
  }
  for (int i = 0; i < 3; ++i) {
    w[i] /= n;
  }
  return true;
}

// Bound (c): triangles t and s share an edge; the plane through it with normal
// w_t - w_s (w the inward directions of the two) bisects their dihedral angle,
// t's apex on its positive side. The piece is cut by it: the corners on each
// side and the crossing points on the sides of the piece that change side span
// the two parts (for any crossing points on those sides, so their rounding only
// moves the cut), and each part is bounded against its own triangle.
double pairBound(const double q[3][3], const double t[3][3], const double s[3][3]) {
  int t0 = 0, t1 = 0, s0 = 0, s1 = 0;
  if (!sharedEdge(t, s, &t0, &t1, &s0, &s1)) {
    return kInfinity;
  }
  const double *e0 = t[t0];
  double e[3], wt[3], ws[3], m[3];
  sub(t[t1], e0, e);
  if (!inward(e0, e, t[3 - t0 - t1], wt) || !inward(e0, e, s[3 - s0 - s1], ws)) {
    return kInfinity;
  }
  sub(wt, ws, m);
  if (!(dot(m, m) > 0)) {
    return kInfinity;
  }
  double side[3];
  for (int k = 0; k < 3; ++k) {
    double r[3];
    sub(q[k], e0, r);
    side[k] = dot(r, m);
  }
  double onT[4][3], onS[4][3];
  int nt = 0, ns = 0;
  for (int k = 0; k < 3; ++k) {
    const int next = (k + 1) % 3;
    const bool here = side[k] >= 0;
    std::copy(q[k], q[k] + 3, here ? onT[nt++] : onS[ns++]);
    if (here != (side[next] >= 0)) {
      const double f = std::min(1.0, std::max(0.0, side[k] / (side[k] - side[next])));
      double x[3];
      for (int i = 0; i < 3; ++i) {
        x[i] = q[k][i] + f * (q[next][i] - q[k][i]);
      }
      std::copy(x, x + 3, onT[nt++]);
      std::copy(x, x + 3, onS[ns++]);
    }
  }
  return std::max(triangleBound(onT, nt, t), triangleBound(onS, ns, s));
}

// The facet's corners are all, as points, corners of triangle t: the facet lies in t.
bool facetInTriangle(const MeasureMesh *from, int32_t facet, const double t[3][3]) {
  for (int k = 0; k < 3; ++k) {
    double p[3];
    corner(from, facet, k, p);
    bool found = false;
    for (int j = 0; j < 3 && !found; ++j) {
      found = p[0] == t[j][0] && p[1] == t[j][1] && p[2] == t[j][2];
    }
    if (!found) {
      return false;
    }
  }
  return true;
}

// Fills the piece's bounds. `hint` carries the last nearest triangle from piece
// to piece within a chunk, which speeds the searches; chunks are fixed ranges
// that start from no hint, so the figures do not depend on the threads.
void evaluate(const Context *ctx, Piece *piece, int32_t *hint) {
  double a[3], b[3], c[3], ab[3], ac[3];
  corner(ctx->from, piece->facet, 0, a);
  corner(ctx->from, piece->facet, 1, b);
  corner(ctx->from, piece->facet, 2, c);
  sub(b, a, ab);
  sub(c, a, ac);
  const double scale = std::ldexp(1.0, -piece->depth);
  double q[3][3];
  for (int k = 0; k < 3; ++k) {
    combine(a, ab, ac, piece->grid[2 * k] * scale, piece->grid[2 * k + 1] * scale, q[k]);
  }
  double centre[3];
  for (int i = 0; i < 3; ++i) {
    centre[i] = (q[0][i] + q[1][i] + q[2][i]) / 3;
  }
  const double *points[kCandidates] = {q[0], q[1], q[2], centre};
  int32_t slot[kCandidates];
  double lower = 0;
  for (int k = 0; k < kCandidates; ++k) {
    lower = std::max(lower, std::sqrt(measureTreeNearest(ctx->to, points[k], hint)));
    slot[k] = *hint;
  }
  double tri[kCandidates][3][3];
  int distinct = 0;
  int which[kCandidates]; // the nearest triangle of each point, as an index of tri
  for (int k = 0; k < kCandidates; ++k) {
    const int earlier = static_cast<int>(std::find(slot, slot + k, slot[k]) - slot);
    if (earlier == k) {
      slotCorners(ctx->to, slot[k], tri[distinct++]);
    }
    which[k] = earlier == k ? distinct - 1 : which[earlier];
  }
  piece->lower = std::max(0.0, lower * (1 - kRelative) - ctx->allowance);
  if (piece->depth == 0) {
    for (int k = 0; k < distinct; ++k) {
      if (facetInTriangle(ctx->from, piece->facet, tri[k])) {
        // A facet of the result itself: distance 0 exactly, whatever the
        // nearest-point search made of its corners.
        piece->lower = 0;
        piece->upper = 0;
        return;
      }
    }
  }
  double radius = 0;
  for (int k = 0; k < 3; ++k) {
    radius = std::max(radius, length(q[k], centre));
  }
  double best = witnessDistance(centre, tri[which[kCandidates - 1]]) + radius;
  for (int k = 0; k < distinct; ++k) {
    best = std::min(best, triangleBound(q, 3, tri[k]));
    for (int j = k + 1; j < distinct; ++j) {
      best = std::min(best, pairBound(q, tri[k], tri[j]));
    }
  }
  piece->upper = best * (1 + kRelative) + ctx->allowance;
}

// The largest coordinate magnitude of a mesh and of a tree's triangles, and the
// box around both.
double scaleOf(const MeasureMesh *from, const MeasureTree *to, double box[6]) {
  double largest = 0;
  for (int i = 0; i < 3; ++i) {
    box[i] = kInfinity;
    box[3 + i] = -kInfinity;
  }
  auto take = [&](const float *v) {
    for (int i = 0; i < 3; ++i) {
      largest = std::max(largest, std::fabs(static_cast<double>(v[i])));
      box[i] = std::min(box[i], static_cast<double>(v[i]));
      box[3 + i] = std::max(box[3 + i], static_cast<double>(v[i]));
    }
  };
  for (int64_t v = 0; v < from->vertexCount; ++v) {
    take(from->xyz + 3 * v);
  }
  for (int64_t k = 0; k < 3 * static_cast<int64_t>(to->slotCount); ++k) {
    take(to->corner + 3 * k);
  }
  return largest;
}

// Children of a piece in the order: corner 0, corner 1, corner 2, middle.
void split(const Piece *parent, Piece child[4]) {
  int32_t p[3][2], m[3][2];
  for (int k = 0; k < 3; ++k) {
    p[k][0] = 2 * parent->grid[2 * k];
    p[k][1] = 2 * parent->grid[2 * k + 1];
  }
  for (int k = 0; k < 3; ++k) {
    const int next = (k + 1) % 3;
    m[k][0] = (p[k][0] + p[next][0]) / 2;
    m[k][1] = (p[k][1] + p[next][1]) / 2;
  }
  const int32_t *corners[4][3] = {
      {p[0], m[0], m[2]}, {m[0], p[1], m[1]}, {m[2], m[1], p[2]}, {m[1], m[2], m[0]}};
  for (int c = 0; c < 4; ++c) {
    child[c].facet = parent->facet;
    child[c].depth = parent->depth + 1;
    for (int k = 0; k < 3; ++k) {
      child[c].grid[2 * k] = corners[c][k][0];
      child[c].grid[2 * k + 1] = corners[c][k][1];
    }
    child[c].lower = 0;
    child[c].upper = kInfinity;
  }
}

void evaluateAll(const Context *ctx, Piece *pieces, int64_t count, int threads) {
  const int64_t chunks = (count + kPieceChunk - 1) / kPieceChunk;
#pragma omp parallel for num_threads(threads > 0 ? threads : 1) schedule(dynamic, 1)
  for (int64_t c = 0; c < chunks; ++c) {
    int32_t hint = -1;
    for (int64_t k = c * kPieceChunk; k < std::min(count, (c + 1) * kPieceChunk); ++k) {
      evaluate(ctx, pieces + k, &hint);
    }
  }
}

} // namespace

int measureBound(const MeasureMesh *from, const MeasureTree *to, bool decide, double tolerance,
                 int threads, MeasureBound *out) {
  if (!out) {
    return -4;
  }
  *out = {};
  out->verdict = kVerdictNone;
  if (!from || !to || (from->facetCount > 0 && (!from->tri || !from->xyz)) ||
      (decide && !std::isfinite(tolerance))) {
    return -4;
  }
  double box[6];
  const Context ctx = {from, to, kAllowanceUlps * kUnit * scaleOf(from, to, box)};
  out->allowance = ctx.allowance;
  double diagonal = 0;
  for (int i = 0; i < 3; ++i) {
    diagonal = box[3 + i] > box[i] ? std::hypot(diagonal, box[3 + i] - box[i]) : diagonal;
  }
  const int64_t facets = from->facetCount;
  const bool emptyTarget = !to->node || to->slotCount == 0;
  double lower = facets > 0 && emptyTarget ? kInfinity : 0;
  double settledUpper = lower;
  int64_t open = 0;
  Piece *level = nullptr;
  if (facets > 0 && !emptyTarget) {
    level = static_cast<Piece *>(std::malloc(facets * sizeof(Piece)));
    if (!level) {
      return -3;
    }
    for (int64_t f = 0; f < facets; ++f) {
      level[f] = {static_cast<int32_t>(f), 0, {0, 0, 1, 0, 0, 1}, 0, kInfinity};
    }
    evaluateAll(&ctx, level, facets, threads);
    open = facets;
    out->pieces = facets;
  }
  const double gapFloor = std::max(kBoundDiagonalGap * diagonal, kAllowanceGap * ctx.allowance);
  auto settled = [&](double upper) {
    return decide ? upper <= tolerance
                  : upper - lower <= std::max(kBoundGap * upper, gapFloor);
  };
  int64_t budget = kBoundPieces;
  for (;;) {
    for (int64_t k = 0; k < open; ++k) {
      lower = std::max(lower, level[k].lower);
    }
    int64_t kept = 0;
    for (int64_t k = 0; k < open; ++k) {
      if (settled(level[k].upper)) {
        settledUpper = std::max(settledUpper, level[k].upper);
      } else {
        level[kept++] = level[k];
      }
    }
    open = kept;
    const bool beyond = decide && lower > tolerance;
    // A positive tolerance below the allowance cannot be reached by refining.
    const bool hopeless = decide && tolerance < ctx.allowance;
    if (open == 0 || beyond) {
      break;
    }
    if (hopeless || out->depth == kBoundDepth || budget < 4) {
      out->limited = true;
      break;
    }
    int64_t refine = open;
    if (4 * open > budget) {
      refine = budget / 4;
      std::sort(level, level + open, [](const Piece &x, const Piece &y) {
        if (x.upper != y.upper) {
          return x.upper > y.upper;
        }
        if (x.facet != y.facet) {
          return x.facet < y.facet;
        }
        return std::memcmp(x.grid, y.grid, sizeof x.grid) < 0;
      });
    }
    const int64_t leftover = open - refine;
    Piece *next = static_cast<Piece *>(std::malloc((4 * refine + leftover) * sizeof(Piece)));
    if (!next) {
      std::free(level);
      return -3;
    }
    for (int64_t k = 0; k < refine; ++k) {
      split(level + k, next + 4 * k);
    }
    evaluateAll(&ctx, next, 4 * refine, threads);
    std::copy(level + refine, level + open, next + 4 * refine);
    std::free(level);
    level = next;
    open = 4 * refine + leftover;
    budget -= 4 * refine;
    out->pieces += 4 * refine;
    ++out->depth;
  }
  double upper = settledUpper;
  for (int64_t k = 0; k < open; ++k) {
    upper = std::max(upper, level[k].upper);
  }
  std::free(level);
  out->lower = std::min(lower, upper);  // the search's rounding can't lift it above a proof
  out->upper = upper;
  if (decide) {
    out->verdict = out->lower > tolerance ? kVerdictBeyond
                   : upper <= tolerance ? kVerdictWithin
                                        : kVerdictUndecided;
  }
  return 0;
}
