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

// The nearest triangle of p in list: distance 0.0 to a triangle that has p as
// a corner by address, else pointTriDist2 through the triangle's cache,
// allocated on first use. The first triangle, or one strictly nearer, is
// kept. false when a triangle's corners can't be read or a cache can't be had.
bool findNearest(qvDevPt* p, qvLnk* list) {
  p->near = nullptr;
  p->dist = 0.0;
  for (qvLnk* l = list; l; l = l->next) {
    qvTri* t = triOf(l);
    double* c[3];
    if (!t || qvTriCorners(t, 0, c) != 0) return false;
    double d = 0.0;
    if (!p->h || (p->h != c[0] && p->h != c[1] && p->h != c[2])) {
      const double* a = xyzOf(c[0]);
      const double* b = xyzOf(c[1]);
      const double* e = xyzOf(c[2]);
      if (!a || !b || !e) return false;
      if (!t->cache) {
        void* mem = std::malloc(sizeof(qvTriCache));
        if (!mem) return false;  // a failed allocation fails the measure
        t->cache = new (mem) qvTriCache{};
      }
      d = orFar(pointTriDist2(t->cache, a, b, e, p->xyz, kDevTol, nullptr, nullptr));
    }
    if (!p->near || d < p->dist) {
      p->near = t;
      p->dist = d;
    }
  }
  return true;
}

// How many corners of t are the handle h: -1 when they can't be read.
int32_t cornerCount(const qvTri* t, const double* h) {
  double* c[3];
  if (!t || qvTriCorners(t, 0, c) != 0) return -1;
  return (c[0] == h) + (c[1] == h) + (c[2] == h);
}

// 1 if some triangle of ref has h as a corner, 0 if none, -1 on failure.
int32_t onRef(const double* h, const qvLnk* ref) {
  for (const qvLnk* l = ref; l; l = l->next) {
    const int32_t n = cornerCount(triOf(l), h);
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
    if (!findNearest(&m[k], ref)) return fail(run);
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

int32_t qvDevNearest(qvLnk* old, qvLnk* ref) {
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
      if (!findNearest(&p, ref)) {
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
    const int32_t on = onRef(c[k].h, ref);
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
    const int32_t n = cornerCount(triOf(l), s);
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
      ok = inList(p[k].near, outer.head) && findNearest(&p[k], inner.head);
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
  if (!findNearest(&m, list)) return fail(run);
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
  if (qvDevNearest(old, ref) != 0) {
    *status = -1;
    return -1.0;
  }
  qvDevRun run{params, status, 0};
  double best = -1.0;
  for (const qvLnk* l = old; l; l = l->next) {
    qvDevPt c[3];
    if (!cornersOf(triOf(l), c)) {
      *status = -1;
      return -1.0;
    }
    const double d = qvDevTri(c, ref, &run, 0);
    if (*status != 0) return -1.0;
    if (d > best) {
      if (d > params->tol2) return d;
      best = d;
    }
  }
  return best;
}
