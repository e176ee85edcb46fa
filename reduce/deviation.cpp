// The deviation measure: the squared one-sided Hausdorff distance from the
// triangles of the pass's starting surface under a star (old) to the surface
// that a removal would leave (ref), as a maximum over sampled points.
//
// Each corner's nearest reference triangle is found once. A triangle is then
// judged by how its corners' nearest triangles relate: one triangle for all
// means the corners bound it (the distance to a convex triangle is convex, so
// its largest value over a triangle lies at a corner); two that share an edge
// are checked along that edge; anything else is split at the midpoints, down
// to triangles shorter than leaf. Corners that lie on the new surface pin the
// measure to the reference triangles round them. The early stop at tol2 runs
// through every level: most trials that fail do so long before the maximum.
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernels/kernels.h"
#include "reduce/reduce_internal.h"

namespace {

constexpr double kDevTol = 1e-6;  // length tolerance of every distance kernel call
constexpr double kHalf = 0.5;     // midpoints

static_assert(sizeof(qvTri*) <= sizeof(double), "a triangle's address is kept in a double of the pair");

inline const double* xyzOf(const double* h) { return h ? qvVtxXyz(qvVtxOf(h)) : nullptr; }

inline qvTri* triOf(const qvLnk* l) { return static_cast<qvTri*>(l->item); }

double dist2(const double* a, const double* b) {
  const double d[3] = {b[0] - a[0], b[1] - a[1], b[2] - a[2]};
  return d[0] * d[0] + d[1] * d[1] + d[2] * d[2];
}

// A distance that isn't a number (coordinates whose products overflow) counts
// as too far, so that it refuses a removal instead of passing every test.
inline double orFar(double d) { return d >= 0.0 ? d : kDevTooFar; }

double fail(qvDevRun* run) {
  *run->err = -1;
  return -1.0;
}

double maxDist(const qvDevPt c[3]) {
  double d = c[0].dist;
  if (c[1].dist > d) d = c[1].dist;
  if (c[2].dist > d) d = c[2].dist;
  return d;
}

bool inList(const qvTri* t, const qvLnk* list) {
  for (const qvLnk* l = list; l; l = l->next)
    if (l->item == t) return true;
  return false;
}

// The nearest pair of a corner in its vertex's parameter pair: the
// triangle's address in the bits of the first double, the distance second.
void pairStore(double* h, qvTri* t, double d) {
  h[kRedPairAt] = 0.0;
  std::memcpy(h + kRedPairAt, &t, sizeof t);
  h[kRedPairAt + 1] = d;
}

qvTri* pairTri(const double* h) {
  qvTri* t = nullptr;
  std::memcpy(&t, h + kRedPairAt, sizeof t);
  return t;
}

// The distance from p to the triangle of entry e, through the triangle's
// cache, allocated on first use; 0.0 when p is a corner by address. -1.0 when
// no cache can be had.
double refDist(const qvDevPt* p, const qvDevRef& e) {
  if (p->h && (p->h == e.h[0] || p->h == e.h[1] || p->h == e.h[2])) return 0.0;
  qvTri* t = e.tri;
  if (!t->cache) {
    void* mem = std::malloc(sizeof(qvTriCache));
    if (!mem) return -1.0;  // a failed allocation fails the measure
    t->cache = new (mem) qvTriCache{};
  }
  return orFar(pointTriDist2(t->cache, e.xyz[0], e.xyz[1], e.xyz[2], p->xyz, kDevTol, nullptr, nullptr));
}

// Whether pointTriDist2 must give p at least best for the triangle of e:
// when p lies beyond the ball round the triangle by more than the root of
// best. Every point that routine measures to (a projection, a point of an
// edge, a midpoint, the centroid) lies in the ball up to rounding of a few
// units in the last place of the coordinates; the slack of 1e-12 of the
// largest coordinate, and the relative 1e-12 on top, cover that many times
// over. A value that isn't finite rules nothing out.
bool refBeyond(const qvDevRef& e, double pd2, double pscale, double root) {
  const double s = e.scale > pscale ? e.scale : pscale;
  const double reach = e.radius + 1e-12 * s + root * (1.0 + 1e-12);
  return pd2 > reach * reach * (1.0 + 1e-12) && std::isfinite(pd2);
}

// The nearest triangle of p in list, read from the records: distance 0.0 to
// a triangle that has p as a corner by address, else pointTriDist2. The
// first triangle, or one strictly nearer, is kept. false when a triangle's
// corners can't be read or a cache can't be had.
bool findNearestRecords(qvDevPt* p, qvLnk* list) {
  p->near = nullptr;
  p->dist = 0.0;
  for (qvLnk* l = list; l; l = l->next) {
    qvTri* t = triOf(l);
    double* c[3];
    if (!t || qvTriCorners(t, 0, c) != 0) return false;
    qvDevRef e{t, {c[0], c[1], c[2]}, {xyzOf(c[0]), xyzOf(c[1]), xyzOf(c[2])}, {}, 0.0, 0.0, 0};
    if (!e.xyz[0] || !e.xyz[1] || !e.xyz[2]) return false;
    const double d = refDist(p, e);
    if (d < 0.0) return false;
    if (!p->near || d < p->dist) {
      p->near = t;
      p->dist = d;
    }
  }
  return true;
}

// The same through the table of run. It finds the same triangle as the walk
// in list order, the first of the nearest: the triangle whose ball lies
// nearest is measured first, a triangle that lies beyond the best distance
// can't be nearer and is passed over, and an equal distance goes to
// whichever comes first in the list.
bool findNearest(qvDevPt* p, qvLnk* list, const qvDevRun* run) {
  if (!run || !run->refs) return findNearestRecords(p, list);
  const qvDevRef* entry[kDevRefMax];
  double pd2[kDevRefMax];  // squared distance from p to the entry's centre
  int32_t n = 0;
  int32_t first = -1;
  double firstKey = 0.0;
  for (qvLnk* l = list; l; l = l->next) {
    if (l->flags == 0 || l->flags > static_cast<uint32_t>(run->nRefs) || n == kDevRefMax) return false;
    entry[n] = &run->refs[l->flags - 1];
    pd2[n] = dist2(p->xyz, entry[n]->centre);
    const double key = pd2[n] - entry[n]->radius * entry[n]->radius;
    if (first < 0 || key < firstKey) {
      first = n;
      firstKey = key;
    }
    ++n;
  }
  p->near = nullptr;
  p->dist = 0.0;
  if (n == 0) return true;
  double best = refDist(p, *entry[first]);
  if (best < 0.0) return false;
  int32_t at = first;
  const double pscale = std::fmax(std::fabs(p->xyz[0]), std::fmax(std::fabs(p->xyz[1]), std::fabs(p->xyz[2])));
  double root = std::sqrt(best);
  for (int32_t i = 0; i < n; ++i) {
    if (i == first || refBeyond(*entry[i], pd2[i], pscale, root)) continue;
    const double d = refDist(p, *entry[i]);
    if (d < 0.0) return false;
    if (d < best || (d == best && i < at)) {
      best = d;
      at = i;
      root = std::sqrt(best);
    }
  }
  p->near = entry[at]->tri;
  p->dist = best;
  return true;
}

// Fills run's table from ref and numbers its nodes. false, with nothing
// changed, when ref is too long for the table (the measure then reads the
// records) or a triangle's corners can't be read.
bool refOpen(qvLnk* ref, qvDevRef* table, qvDevRun* run) {
  run->refs = nullptr;
  run->nRefs = 0;
  int32_t n = 0;
  for (qvLnk* l = ref; l; l = l->next) {
    qvTri* t = triOf(l);
    double* c[3];
    if (n == kDevRefMax || !t || qvTriCorners(t, 0, c) != 0) return false;
    qvDevRef& e = table[n++];
    e.tri = t;
    e.scale = 0.0;
    for (int k = 0; k < 3; ++k) {
      e.h[k] = c[k];
      e.xyz[k] = xyzOf(c[k]);
      if (!e.xyz[k]) return false;
      for (int i = 0; i < 3; ++i) {
        const double a = std::fabs(e.xyz[k][i]);
        if (a > e.scale) e.scale = a;
      }
    }
    for (int i = 0; i < 3; ++i) e.centre[i] = (e.xyz[0][i] + e.xyz[1][i] + e.xyz[2][i]) / 3.0;
    e.radius = 0.0;
    for (int k = 0; k < 3; ++k) {
      const double r = std::sqrt(dist2(e.centre, e.xyz[k]));
      if (r > e.radius) e.radius = r;
    }
    e.flags = l->flags;
  }
  int32_t i = 0;
  for (qvLnk* l = ref; l; l = l->next) l->flags = static_cast<uint32_t>(++i);
  run->refs = table;
  run->nRefs = n;
  return true;
}

// Gives the nodes of the reference list their own flags back.
void refClose(qvLnk* ref, qvDevRun* run) {
  if (!run->refs) return;
  for (qvLnk* l = ref; l; l = l->next)
    if (l->flags >= 1 && l->flags <= static_cast<uint32_t>(run->nRefs)) l->flags = run->refs[l->flags - 1].flags;
  run->refs = nullptr;
  run->nRefs = 0;
}

// How many corners of the triangle of node l are the handle h: -1 when they
// can't be read.
int32_t cornerCount(const qvLnk* l, const double* h, const qvDevRun* run) {
  const double* const* c;
  double* own[3];
  if (run && run->refs) {
    if (l->flags == 0 || l->flags > static_cast<uint32_t>(run->nRefs)) return -1;
    c = run->refs[l->flags - 1].h;
  } else {
    if (!l->item || qvTriCorners(triOf(l), 0, own) != 0) return -1;
    c = own;
  }
  return (c[0] == h) + (c[1] == h) + (c[2] == h);
}

// 1 if some triangle of ref has h as a corner, 0 if none, -1 on failure.
int32_t onRef(const double* h, const qvLnk* ref, const qvDevRun* run) {
  for (const qvLnk* l = ref; l; l = l->next) {
    const int32_t n = cornerCount(l, h, run);
    if (n != 0) return n < 0 ? -1 : 1;
  }
  return 0;
}

// The corners of a triangle of old with the nearest pairs qvDevNearest left.
bool cornersOf(const qvTri* t, qvDevPt c[3]) {
  double* h[3];
  if (!t || qvTriCorners(t, 0, h) != 0) return false;
  for (int k = 0; k < 3; ++k) {
    const qvVtx* v = qvVtxOf(h[k]);
    if (!(v->flags & kVtxHasParam)) return false;
    c[k] = qvDevPt{h[k], qvVtxXyz(v), pairTri(h[k]), h[k][kRedPairAt + 1]};
  }
  return true;
}

// The ends of the edge in slot of t, as coordinates.
bool edgeEnds(const qvTri* t, int32_t slot, const double** e0, const double** e1) {
  const qvEdg* e = t->edg[slot];
  if (!e) return false;
  *e0 = xyzOf(e->ends[0]);
  *e1 = xyzOf(e->ends[1]);
  return *e0 && *e1;
}

// d raised to the distance between the segments e0-e1 and p-q when their
// closest points lie strictly inside both.
double segTerm(double d, const double* e0, const double* e1, const double* p, const double* q) {
  double out[3];
  segSegDist2(e0, e1, p, q, kDevTol, out);
  if (out[1] > 0.0 && out[1] < 1.0 && out[2] > 0.0 && out[2] < 1.0) {
    const double x = orFar(out[0]);
    if (x > d) d = x;
  }
  return d;
}

typedef double (*PartFn)(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth);

// Splits c at its midpoints, found in the order m2, m0, m1 (m_k between
// corners k and k + 1), and measures the four parts with measure: the
// largest value, or the first above tol2.
double splitFour(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth, PartFn measure) {
  if (++run->calls > kDevCallBudget) return kDevTooFar;
  double pts[3][3];
  qvDevPt m[3];
  const int32_t order[3] = {2, 0, 1};
  for (int32_t k : order) {
    const double* a = c[k].xyz;
    const double* b = c[(k + 1) % 3].xyz;
    for (int i = 0; i < 3; ++i) pts[k][i] = kHalf * (a[i] + b[i]);
    m[k] = qvDevPt{nullptr, pts[k], nullptr, 0.0};
    if (!findNearest(&m[k], ref, run)) return fail(run);
  }
  qvDevPt parts[4][3] = {{m[2], c[0], m[0]}, {m[0], c[1], m[1]}, {m[1], c[2], m[2]}, {m[0], m[1], m[2]}};
  double best = -1.0;
  for (auto& part : parts) {
    const double d = measure(part, ref, run, depth + 1);
    if (*run->err != 0) return -1.0;
    if (d > run->params->tol2) return d;
    if (d > best) best = d;
  }
  return best;
}

// A list being cut into two groups, each kept in its order.
struct LnkRun {
  qvLnk* head;
  qvLnk* tail;
};

void append(LnkRun& r, qvLnk* n) {
  n->prev = r.tail;
  n->next = nullptr;
  if (r.tail) r.tail->next = n;
  else r.head = n;
  r.tail = n;
}

void joinBehind(LnkRun& a, const LnkRun& b) {
  if (!a.head || !b.head) return;
  a.tail->next = b.head;
  b.head->prev = a.tail;
}

}  // namespace

// ---------------------------------------------------------------------------
// Nearest triangles of the corners

namespace {

int32_t nearestAll(qvLnk* old, qvLnk* ref, const qvDevRun* run) {
  bool ok = true;
  for (qvLnk* l = old; l && ok; l = l->next) {
    qvVtx* c[3];
    if (!l->item || qvTriCornerVtx(triOf(l), 0, c) != 0) {
      ok = false;
      break;
    }
    for (qvVtx* x : c) {
      if (x->flags & kVtxHasParam) x->flags |= kVtxMarkNearest;
      else ok = false;
    }
  }
  // A corner shared by several triangles is measured at its first.
  for (qvLnk* l = old; l && ok; l = l->next) {
    qvVtx* c[3];
    qvTriCornerVtx(triOf(l), 0, c);
    for (qvVtx* x : c) {
      if (!(x->flags & kVtxMarkNearest)) continue;
      x->flags &= ~kVtxMarkNearest;
      qvDevPt p{x->dat, qvVtxXyz(x), nullptr, 0.0};
      if (!findNearest(&p, ref, run)) {
        ok = false;
        break;
      }
      pairStore(x->dat, p.near, p.dist);
    }
  }
  for (qvLnk* l = old; l; l = l->next) {
    qvVtx* c[3];
    if (!l->item || qvTriCornerVtx(triOf(l), 0, c) != 0) break;
    for (qvVtx* x : c) x->flags &= ~kVtxMarkNearest;
  }
  return ok ? 0 : -1;
}

}  // namespace

int32_t qvDevNearest(qvLnk* old, qvLnk* ref) { return nearestAll(old, ref, nullptr); }

// ---------------------------------------------------------------------------
// Classification

int32_t qvTriShareKind(const qvTri* a, const qvTri* b, int32_t out[2]) {
  if (!a || !b) return -1;
  int32_t slot = -1;
  int32_t count = 0;
  for (int32_t i = 0; i < 3; ++i)
    if (a->edg[i] && qvTriEdgeSlot(b, a->edg[i]) >= 0) {
      if (slot < 0) slot = i;
      ++count;
    }
  if (slot < 0) return 0;
  if (out) {
    out[0] = slot;
    out[1] = count;
  }
  const bool ra = a->flags & kTriReplace;
  const bool rb = b->flags & kTriReplace;
  return ra && rb ? 2 : (!ra && !rb ? 1 : 3);
}

int32_t qvDevClass(const qvDevPt c[3], int32_t pin, qvLnk* ref) {
  if (pin > 2) return -1;
  for (int k = 0; k < 3; ++k)
    if (c[k].near && !inList(c[k].near, ref)) return -1;
  const qvTri* t0 = c[0].near;
  const qvTri* t1 = c[1].near;
  const qvTri* t2 = c[2].near;
  if (t0 == t1 && t1 == t2) return 1;
  const qvTri* a;
  const qvTri* b;
  if (t0 == t1 || t1 == t2 || t0 == t2) {
    a = t1 == t2 ? t1 : t0;                     // the one met twice
    b = t0 == t1 ? t2 : (t0 == t2 ? t1 : t0);  // the other
    if (!b) return 1;
  } else if (pin < 0) {
    return 0;
  } else {
    a = c[(pin + 1) % 3].near;
    b = c[(pin + 2) % 3].near;
  }
  const int32_t kind = qvTriShareKind(a, b, nullptr);
  if (kind < 0) return -1;
  return kind == 0 ? 0 : 2;
}

// ---------------------------------------------------------------------------
// The levels of the measure

double qvDevTri(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth) {
  int32_t mask = 0;
  int32_t shared = 0;
  for (int32_t k = 0; k < 3; ++k) {
    if (!c[k].h) continue;
    const int32_t on = onRef(c[k].h, ref, run);
    if (on < 0) return fail(run);
    if (on) {
      mask |= 1 << k;
      ++shared;
    }
  }
  switch (shared) {
    case 0:
      return qvDevFree(c, ref, run, depth);
    case 1:
      return qvDevOneShared(c, mask / 2, ref, run, depth);
    case 2:
      return qvDevTwoShared(c, ref, run, depth);
    default:
      return fail(run);
  }
}

double qvDevFree(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth) {
  const int32_t kind = qvDevClass(c, -1, ref);
  if (kind < 0) return fail(run);
  if (kind == 1) return maxDist(c);
  if (kind == 2) return qvDevPair(c, run);
  return qvDevSplit4(c, ref, run, depth);
}

double qvDevSplit4(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth) {
  double m = 0.0;
  for (int k = 0; k < 3; ++k) {
    const double l = dist2(c[k].xyz, c[(k + 1) % 3].xyz);
    if (l > m) m = l;
  }
  if (run->params->leaf2 > m || depth >= kDevDepthMax) return maxDist(c);
  return splitFour(c, ref, run, depth, qvDevFree);
}

// Two nearest triangles A and B that share an edge E: the corners, E against
// the measured triangle, and E against the sides along which the nearest
// triangle changes.
double qvDevPair(const qvDevPt c[3], qvDevRun* run) {
  const double tol2 = run->params->tol2;
  double d = maxDist(c);
  if (d > tol2) return d;
  qvTri* b = c[2].near;
  const int32_t k = c[0].near != b ? 0 : (c[1].near != b ? 1 : -1);
  if (k < 0) return fail(run);
  qvTri* a = c[k].near;
  int32_t out[2];
  const double* e0;
  const double* e1;
  if (qvTriShareKind(a, b, out) < 1 || !edgeEnds(a, out[0], &e0, &e1)) return fail(run);
  const double x = orFar(segTriDist2(nullptr, c[0].xyz, c[1].xyz, c[2].xyz, e0, e1, kDevTol));
  if (x > d) d = x;
  if (d > tol2) return d;
  d = segTerm(d, e0, e1, c[k].xyz, c[2].xyz);
  if (d > tol2) return d;
  const int32_t o = 1 - k;  // the corner other than k and 2
  if (c[o].near == b) return segTerm(d, e0, e1, c[k].xyz, c[o].xyz);
  return segTerm(d, e0, e1, c[o].xyz, c[2].xyz);
}

// Two corners on the new surface have distance 0: the parts hold at most one
// such corner each, so the split ends at the next level.
double qvDevTwoShared(qvDevPt c[3], qvLnk* ref, qvDevRun* run, int32_t depth) {
  if (depth >= kDevDepthMax) return maxDist(c);
  return splitFour(c, ref, run, depth, qvDevTri);
}

double qvDevOneShared(qvDevPt c[3], int32_t index, qvLnk* ref, qvDevRun* run, int32_t depth) {
  if (index < 0 || index > 2 || !c[index].h || !ref) return fail(run);
  const double* s = c[index].h;

  // inner: the reference triangles at s; outer: the others.
  qvLnk* const first = ref;
  LnkRun inner{nullptr, nullptr};
  LnkRun outer{nullptr, nullptr};
  bool ok = true;
  for (qvLnk* l = ref; l;) {
    qvLnk* next = l->next;  // read before l is relinked
    const int32_t n = cornerCount(l, s, run);
    if (n < 0 || n > 1) ok = false;
    append(n == 1 ? inner : outer, l);
    l = next;
  }
  ok = ok && inner.head;

  double d = -1.0;
  if (ok) {
    qvDevPt p[3] = {c[0], c[1], c[2]};
    for (qvLnk* l = inner.head; l; l = l->next) {
      p[index].near = triOf(l);
      p[index].dist = 0.0;
    }
    // A corner whose nearest triangle lies beyond s's own gets its nearest
    // among those at s, in this private copy.
    for (int32_t k = 0; k < 3 && ok; ++k) {
      if (k == index || !outer.head || inList(p[k].near, inner.head)) continue;
      ok = inList(p[k].near, outer.head) && findNearest(&p[k], inner.head, run);
    }
    if (ok) d = qvDevPinned(p, index, inner.head, run, depth);
  }

  // The list is whole again, with its former head in front.
  if (inner.head == first) joinBehind(inner, outer);
  else joinBehind(outer, inner);
  return ok ? d : fail(run);
}

double qvDevPinned(qvDevPt c[3], int32_t pin, qvLnk* list, qvDevRun* run, int32_t depth) {
  const int32_t kind = qvDevClass(c, pin, list);
  if (kind < 0 || pin < 0) return fail(run);
  if (kind == 2) return qvDevPinnedPair(c, pin, run);
  if (kind == 0) {
    int32_t leaf = 0;
    const double d = qvDevBisect(c, pin, list, run, depth, &leaf);
    if (*run->err != 0 || !leaf) return d;
  }
  return maxDist(c);
}

double qvDevBisect(qvDevPt c[3], int32_t pin, qvLnk* list, qvDevRun* run, int32_t depth,
                   int32_t* leaf) {
  *leaf = 0;
  if (pin < 0 || pin > 2) return fail(run);
  const qvDevPt& a = c[(pin + 1) % 3];
  const qvDevPt& b = c[(pin + 2) % 3];
  if (run->params->leaf2 > dist2(a.xyz, b.xyz) || depth >= kDevDepthMax) {
    *leaf = 1;
    return 0.0;
  }
  if (++run->calls > kDevCallBudget) return kDevTooFar;
  double mid[3];
  for (int i = 0; i < 3; ++i) mid[i] = kHalf * (a.xyz[i] + b.xyz[i]);
  qvDevPt m{nullptr, mid, nullptr, 0.0};
  if (!findNearest(&m, list, run)) return fail(run);
  qvDevPt toA[3] = {c[pin], m, a};
  const double da = qvDevPinned(toA, 0, list, run, depth + 1);
  if (*run->err != 0 || da > run->params->tol2) return da;
  qvDevPt toB[3] = {c[pin], m, b};
  const double db = qvDevPinned(toB, 0, list, run, depth + 1);
  if (*run->err != 0) return db;
  return db > da ? db : da;
}

double qvDevPinnedPair(const qvDevPt c[3], int32_t pin, qvDevRun* run) {
  if (pin < 0 || pin > 2) return fail(run);
  const qvDevPt& a = c[(pin + 1) % 3];
  const qvDevPt& b = c[(pin + 2) % 3];
  int32_t out[2];
  const double* e0;
  const double* e1;
  if (qvTriShareKind(a.near, b.near, out) < 1 || !edgeEnds(a.near, out[0], &e0, &e1))
    return fail(run);
  const double d = maxDist(c);
  if (d > run->params->tol2) return d;
  return segTerm(d, e0, e1, a.xyz, b.xyz);
}

// ---------------------------------------------------------------------------
// Entry point

namespace {

double measureAll(qvLnk* old, qvLnk* ref, qvDevRun* run) {
  if (nearestAll(old, ref, run) != 0) {
    *run->err = -1;
    return -1.0;
  }
  double best = -1.0;
  for (const qvLnk* l = old; l; l = l->next) {
    qvDevPt c[3];
    if (!cornersOf(triOf(l), c)) {
      *run->err = -1;
      return -1.0;
    }
    const double d = qvDevTri(c, ref, run, 0);
    if (*run->err != 0) return -1.0;
    if (d > best) {
      if (d > run->params->tol2) return d;
      best = d;
    }
  }
  return best;
}

}  // namespace

double qvDevList(qvLnk* old, qvLnk* ref, const qvRedParams* params, int32_t* err) {
  int32_t local = 0;
  int32_t* status = err ? err : &local;
  *status = 0;
  // With nothing to measure against, no distance could be had.
  if (!params || !ref) {
    *status = -1;
    return -1.0;
  }
  if (!old) return -1.0;
  qvDevRef table[kDevRefMax];
  qvDevRun run{params, status, 0, nullptr, 0};
  refOpen(ref, table, &run);
  // The levels regroup ref's nodes but keep them all, with its head in
  // front, so every numbered node is in the list when the flags go back.
  const double d = measureAll(old, ref, &run);
  refClose(ref, &run);
  return d;
}
