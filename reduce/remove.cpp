// Vertex removal and refilling. The star of a vertex is copied into a small
// qvMesh of its own; the chosen spoke is collapsed in the copy, which closes
// the hole with a fan from the surviving neighbour; the fan may be improved by
// Delaunay flips; the covers the removal displaces are certified against the
// fan and the triangles round it; and a commit grafts that very copy into the
// mesh in place of the star and hands the pieces to their new homes.
//
// The surface a pass started from stays whole inside the mesh beside the live
// one: a triangle that a commit replaces is retired (kept, reached through adj
// only) when it was a base triangle, and freed when it was itself a
// replacement.
#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <initializer_list>
#include <limits>

#include "kernels/failure.h"
#include "kernels/kernels.h"
#include "kernels/alloc.h"
#include "reduce/reduce_internal.h"

namespace {

constexpr int32_t kFlipApexMin = 4;     // an apex of a flipped diagonal, after the flip

inline qvTri* liveAcross(const qvTri* t, int32_t i) { return t->aux[i] ? t->aux[i] : t->adj[i]; }

inline double* otherEnd(const qvEdg* e, const double* h) {
  if (e->ends[0] == h) return e->ends[1];
  if (e->ends[1] == h) return e->ends[0];
  return nullptr;
}

bool inEdgeList(const qvEdg* head, const qvEdg* e) {
  for (const qvEdg* x = head; x; x = x->next)
    if (x == e) return true;
  return false;
}

// Clears the marks a star copy sets: kTriMarkVisit on the head triangles and
// kEdgMarkVisit on the head edges.
void unmarkCopyHeads(qvMesh* mesh) {
  const uint32_t edgBits[2] = {kEdgMarkVisit, kEdgMarkVisit};
  qvHeadUnmark(mesh, kTriMarkVisit, edgBits, 0);
}

// Tells the triangle across e from a copy triangle that its neighbour is now
// `now` instead of `was`, when it saw `was` through aux (a triangle of the
// copy). Mesh triangles beyond the ring are told by the graft.
void retell(qvEdg* e, qvTri* across, const qvTri* was, qvTri* now) {
  if (!across) return;
  const int32_t j = qvTriEdgeSlot(across, e);
  if (j >= 0 && across->aux[j] == was) across->aux[j] = now;
}

}  // namespace

// ---------------------------------------------------------------------------
// The star copy

qvMesh* qvStarCopy(qvMesh* mesh, qvTri* t, const double* p, uint32_t outerMark) {
  if (!mesh || !t || !p) return nullptr;
  // The star's triangles and spokes become head runs of their lists.
  qvSpokeMarkCtx ctx{mesh, p, kTriMarkVisit, kEdgMarkVisit};
  if (qvFanWalk(t, p, qvFanMarkSpokes, &ctx) != 0) {
    unmarkCopyHeads(mesh);
    return nullptr;
  }
  qvMesh* copy = qvMeshNew(nullptr, nullptr, nullptr, 0);
  bool ok = copy != nullptr;

  // One new edge per spoke, left in the source's link.
  for (qvEdg* e = mesh->edg; e && (e->flags & kEdgMarkVisit); e = e->next) {
    e->flags &= ~kEdgMarkVisit;
    if (!ok) continue;
    qvEdg* c = qvEdgNew(e->ends[0], e->ends[1], e->flags, e->tag);
    if (!c) {
      ok = false;
      continue;
    }
    e->link = c;
    copy->edg = qvEdgConcat(c, copy->edg);
  }

  // One new triangle per star triangle; each inner edge notes its two
  // triangles (link, then own), each ring edge is the mesh's.
  for (qvTri* s = mesh->tri; s && (s->flags & kTriMarkVisit); s = s->next) {
    s->flags &= ~kTriMarkVisit;
    if (!ok) continue;
    qvEdg* ce[3];
    for (int32_t i = 0; i < 3; ++i) ce[i] = s->edg[i]->link ? static_cast<qvEdg*>(s->edg[i]->link) : s->edg[i];
    // A cap triangle stays one: it leaves with the caps.
    qvTri* c = qvTriNew(ce[0], ce[1], ce[2], s->flags & kTriCap);
    if (!c) {
      ok = false;
      continue;
    }
    c->link = s;
    copy->tri = qvTriConcat(c, copy->tri);
    for (int32_t i = 0; i < 3; ++i) {
      if (ce[i] != s->edg[i]) {
        if (!ce[i]->link) ce[i]->link = c;
        else if (!ce[i]->own) ce[i]->own = c;
        else ok = false;
      } else if (outerMark) {
        s->edg[i]->flags |= outerMark;
        c->adj[i] = s->adj[i];
        c->aux[i] = s->aux[i];
      }
    }
  }
  if (!copy) return nullptr;

  // The sources' links go back to null; the inner edges join their triangles.
  for (qvTri* c = copy->tri; c; c = c->next)
    for (qvEdg* e : static_cast<qvTri*>(c->link)->edg) e->link = nullptr;
  for (qvEdg* e = copy->edg; e; e = e->next) {
    qvTri* a = static_cast<qvTri*>(e->link);
    qvTri* b = e->own;
    e->link = nullptr;
    e->own = nullptr;
    if (!ok) continue;
    const int32_t ia = qvTriEdgeSlot(a, e);
    const int32_t ib = qvTriEdgeSlot(b, e);
    if (!a || !b || a == b || ia < 0 || ib < 0 || a->aux[ia] || b->aux[ib]) {
      ok = false;
      continue;
    }
    a->aux[ia] = b;
    b->aux[ib] = a;
  }
  if (ok) return copy;
  // A spoke whose triangles both failed to copy may still hold its copy.
  for (qvEdg* e = mesh->edg; e; e = e->next) e->link = nullptr;
  qvMeshFree(copy);
  return nullptr;
}

// ---------------------------------------------------------------------------
// The collapse

int32_t qvValenceCollapse(qvVtx* v, qvVtx* w, qvVtx* a, qvVtx* b) {
  if (!v || !w || !a || !b) return -1;
  if (v->tag < kValenceMin || w->tag < kValenceMin || v->tag + w->tag < 2 * kValenceMin + 1) return -1;
  if (a->tag - 1 < kValenceMin || b->tag - 1 < kValenceMin) return -1;
  w->tag += v->tag - 4;  // w loses the two triangles on the spoke and gains v's others
  --a->tag;
  --b->tag;
  return 0;
}

int32_t qvCollapse(qvMesh* copy, qvVtx* v, uint32_t mark, qvEdg** features) {
  if (!copy || !v) return -1;
  qvEdg* e = copy->edg;
  while (e && !(e->flags & mark)) e = e->next;
  if (!e) return -1;
  e->flags &= ~mark;
  double* const p = v->dat;
  double* const wh = otherEnd(e, p);
  if (!wh || (e->flags & kEdgCap) || (v->flags & kVtxHub) || (qvVtxOf(wh)->flags & kVtxHub)) return -1;
  qvVtx* w = qvVtxOf(wh);

  // The two triangles on the spoke, and the corners opposite it, read before
  // any handle changes.
  qvTri* pair[2] = {copy->tri, nullptr};
  while (pair[0] && qvTriEdgeSlot(pair[0], e) < 0) pair[0] = pair[0]->next;
  if (!pair[0]) return -1;
  pair[1] = pair[0]->aux[qvTriEdgeSlot(pair[0], e)];
  if (!pair[1] || qvTriEdgeSlot(pair[1], e) < 0) return -1;
  double* opp[2] = {qvTriOpposite(pair[0], e), qvTriOpposite(pair[1], e)};
  if (!opp[0] || !opp[1]) return -1;
  if (v->tag != 0 && qvValenceCollapse(v, w, qvVtxOf(opp[0]), qvVtxOf(opp[1])) != 0) return -1;

  v->flags |= kVtxMarkCollapse;
  // The copy's spokes now end at w: at least the two on the spoke's triangles.
  int32_t status = qvVtxReplace(copy, w, v) >= 2 ? 0 : -1;
  for (qvTri* t : pair) {
    if (status != 0) break;
    const int32_t s = qvTriEdgeSlot(t, e);
    const int32_t k1 = (s + 1) % 3;
    const int32_t k2 = (s + 2) % 3;
    // The ring edge stays; the spoke, now a double of it, goes. Of two
    // copied edges the second goes.
    const bool in2 = inEdgeList(copy->edg, t->edg[k2]);
    const int32_t kd = in2 ? k2 : k1;
    const int32_t kk = in2 ? k1 : k2;
    qvEdg* drop = t->edg[kd];
    qvEdg* keep = t->edg[kk];
    qvTri* n = liveAcross(t, kd);
    const int32_t nd = n ? qvTriEdgeSlot(n, drop) : -1;
    if (nd < 0 || !inEdgeList(copy->edg, drop)) {
      status = -1;
      break;
    }
    // The neighbour across the dropped edge takes the kept one with its links.
    n->edg[nd] = keep;
    // A feature that turns at v round this triangle goes on along the kept
    // edge; a ring edge is the mesh's own and takes the mark on commit.
    if ((drop->flags & kEdgFeatureSet) && !(keep->flags & kEdgFeatureSet)) {
      if (inEdgeList(copy->edg, keep)) keep->flags |= kEdgFeatureSet;
      else if (features) features[t == pair[0] ? 0 : 1] = keep;
    }
    n->adj[nd] = t->adj[kk];
    n->aux[nd] = t->aux[kk];
    if (inEdgeList(copy->edg, keep)) retell(keep, t->aux[kk], t, n);
    copy->edg = qvEdgDelete(copy->edg, drop);
    copy->tri = qvTriDelete(copy->tri, t);
  }
  if (status == 0) copy->edg = qvEdgDelete(copy->edg, e);
  v->flags &= ~kVtxMarkCollapse;
  return status;
}

// ---------------------------------------------------------------------------
// Flips

int32_t qvFlipOp(qvMesh* copy, const qvFlipRec* rec) {
  if (!copy || !rec || !rec->tri[0] || !rec->tri[1]) return -1;
  qvTri* t0 = rec->tri[0];
  qvTri* t1 = rec->tri[1];
  const int32_t s0 = rec->slot[0];
  const int32_t s1 = rec->slot[1];
  if (s0 < 0 || s0 > 2 || s1 < 0 || s1 > 2) return -1;
  qvEdg* e = t0->edg[s0];
  double* c0[3];
  double* c1[3];
  if (e != t1->edg[s1] || qvTriCorners(t0, 0, c0) != 0 || qvTriCorners(t1, 0, c1) != 0) return -1;
  // t0 runs x -> y -> a0 with e from x to y, t1 runs y -> x -> a1.
  double* x = c0[s0];
  double* y = c0[(s0 + 1) % 3];
  double* a0 = c0[(s0 + 2) % 3];
  double* a1 = c1[(s1 + 2) % 3];
  if (c1[s1] != y || c1[(s1 + 1) % 3] != x) return -1;
  qvVtx* vx = qvVtxOf(x);
  qvVtx* vy = qvVtxOf(y);
  qvVtx* va0 = qvVtxOf(a0);
  qvVtx* va1 = qvVtxOf(a1);
  if (vx->tag - 1 < kValenceMin || vy->tag - 1 < kValenceMin || va0->tag + 1 < kFlipApexMin ||
      va1->tag + 1 < kFlipApexMin)
    return -1;
  qvEdg* d = qvEdgNew(a0, a1, 0, 0);
  if (!d) return -1;
  d->flags |= kEdgMarkVisit;
  copy->edg = qvEdgConcat(d, copy->edg);

  // t0 becomes x -> a1 -> a0: it takes t1's edge x-a1 with its links, and the
  // diagonal; t1 becomes y -> a0 -> a1 likewise.
  const int32_t p0 = (s0 + 1) % 3;
  const int32_t p1 = (s1 + 1) % 3;
  qvEdg* fromT0 = t0->edg[p0];
  qvTri* fromT0Adj = t0->adj[p0];
  qvTri* fromT0Aux = t0->aux[p0];
  qvEdg* fromT1 = t1->edg[p1];
  qvTri* fromT1Adj = t1->adj[p1];
  qvTri* fromT1Aux = t1->aux[p1];
  t0->edg[s0] = fromT1;
  t0->adj[s0] = fromT1Adj;
  t0->aux[s0] = fromT1Aux;
  t0->edg[p0] = d;
  t0->adj[p0] = nullptr;
  t0->aux[p0] = t1;
  t1->edg[s1] = fromT0;
  t1->adj[s1] = fromT0Adj;
  t1->aux[s1] = fromT0Aux;
  t1->edg[p1] = d;
  t1->adj[p1] = nullptr;
  t1->aux[p1] = t0;
  retell(fromT1, fromT1Aux, t1, t0);
  retell(fromT0, fromT0Aux, t0, t1);
  --vx->tag;
  --vy->tag;
  ++va0->tag;
  ++va1->tag;
  copy->edg = qvEdgDelete(copy->edg, e);

  // The quad's sides are examined again, unless they are the ring of a commit.
  for (qvEdg* side : {t0->edg[s0], t0->edg[(s0 + 2) % 3], t1->edg[s1], t1->edg[(s1 + 2) % 3]})
    if (!(side->flags & kEdgMarkOuter)) side->flags &= ~kEdgMarkVisit;
  return 0;
}

namespace {

// Whether a and b are the ends of a ring edge of the copy. The copies
// that unfold and flip are of stars that pass the link test at every spoke,
// so no edge outside them joins two ring vertices but a ring edge: a new
// diagonal between the ends of one would give that edge a third and fourth
// triangle.
bool ringEdge(const qvMesh* copy, const double* a, const double* b) {
  for (const qvTri* t = copy->tri; t; t = t->next)
    for (const qvEdg* e : t->edg)
      if ((e->flags & kEdgMarkOuter) &&
          ((e->ends[0] == a && e->ends[1] == b) || (e->ends[0] == b && e->ends[1] == a)))
        return true;
  return false;
}

}  // namespace

// ---------------------------------------------------------------------------
// The fill of a folded fan
//
// A collapse fills the ring with a fan from one of its vertices, which folds
// over where the ring, laid flat, isn't visible from that vertex (round a
// hole, along a concave outline). A clean star then gets the ring's own
// triangulation instead: ears clipped in (u, v), reached from the fan by
// flips of the copy's inner edges (every triangulation of a polygon is a
// chain of flips away from any fan of it).

namespace {

constexpr int32_t kFillMax = 48;  // the longest ring a fill takes on

// Whether the n points at(0) .. at(n - 1) lie in one plane and not all on
// one line, exactly: the first point off the line of the first two, in some
// coordinate plane, fixes the plane, and every other point must lie in it.
template <class At>
bool flatPoints(int32_t n, At at) {
  if (n < 3) return false;
  const double* x0 = at(0);
  const double* x1 = at(1);
  auto offLine = [&](const double* p) {
    for (int32_t drop = 0; drop < 3; ++drop) {
      const int32_t i = (drop + 1) % 3, j = (drop + 2) % 3;
      const double a[2] = {x0[i], x0[j]}, b[2] = {x1[i], x1[j]}, c[2] = {p[i], p[j]};
      if (orient2d(a, b, c) != 0.0) return true;
    }
    return false;
  };
  int32_t k = 2;
  while (k < n && !offLine(at(k))) ++k;
  if (k == n) return false;
  for (int32_t i = 2; i < n; ++i)
    if (i != k && orient3dSign(x0, x1, at(k), at(i)) != 0) return false;
  return true;
}

inline const double* uv(const double* h) { return h + kRedPairAt; }

// 1, -1 or 0 for the turn of a, b, c in (u, v), times sense.
inline int32_t turnUv(const double* a, const double* b, const double* c, double sense) {
  const double d = sense * orient2d(uv(a), uv(b), uv(c));
  return d > 0.0 ? 1 : (d < 0.0 ? -1 : 0);
}

struct Fill {
  const double* poly[kFillMax];  // the ring from w, in the sense of the fan's triangles
  int32_t n;
  int32_t tri[kFillMax][3];      // a triangulation of poly, by index
  int32_t nTri;
  int32_t flips[kFillMax][3];    // (a, b, c): the fan's diagonal 0-c becomes a-b, last first
  int32_t nFlips;
};

// The polygon of the fan from w in the copy. false when the copy isn't such
// a fan or the ring is too long.
bool fanPolygon(qvMesh* copy, const double* w, Fill* f) {
  const double* from[kFillMax];
  const double* to[kFillMax];
  int32_t m = 0;
  for (qvTri* t = copy->tri; t; t = t->next) {
    double* c[3];
    if (m + 2 >= kFillMax || qvTriCorners(t, 0, c) != 0) return false;
    int32_t k = 0;
    while (k < 3 && c[k] != w) ++k;
    if (k == 3) return false;
    from[m] = c[(k + 1) % 3];
    to[m++] = c[(k + 2) % 3];
  }
  // The ring starts at the corner that follows no other.
  int32_t start = -1;
  for (int32_t i = 0; i < m && start < 0; ++i) {
    bool follows = false;
    for (int32_t j = 0; j < m && !follows; ++j) follows = to[j] == from[i];
    if (!follows) start = i;
  }
  if (start < 0) return false;
  f->n = 0;
  f->poly[f->n++] = w;
  f->poly[f->n++] = from[start];
  for (int32_t step = 0, at = start; step < m; ++step) {
    f->poly[f->n++] = to[at];
    int32_t next = -1;
    for (int32_t j = 0; j < m && next < 0; ++j)
      if (from[j] == to[at]) next = j;
    if (step + 1 < m && next < 0) return false;
    at = next;
  }
  return f->n == m + 2;
}

// Clips ears off poly: each time the first corner, in index order, whose
// triangle with its neighbours turns with the polygon and holds no other
// corner, boundary included. false when none is left to clip.
bool clipEars(Fill* f, double sense) {
  int32_t left[kFillMax];
  int32_t k = f->n;
  for (int32_t i = 0; i < k; ++i) left[i] = i;
  f->nTri = 0;
  while (k > 3) {
    int32_t ear = -1;
    for (int32_t i = 0; i < k && ear < 0; ++i) {
      const double* a = f->poly[left[(i + k - 1) % k]];
      const double* b = f->poly[left[i]];
      const double* c = f->poly[left[(i + 1) % k]];
      if (turnUv(a, b, c, sense) <= 0) continue;
      bool empty = true;
      for (int32_t j = 0; j < k && empty; ++j) {
        const double* x = f->poly[left[j]];
        if (x == a || x == b || x == c) continue;
        empty = !(turnUv(a, b, x, sense) >= 0 && turnUv(b, c, x, sense) >= 0 && turnUv(c, a, x, sense) >= 0);
      }
      if (empty) ear = i;
    }
    if (ear < 0) return false;
    int32_t* t = f->tri[f->nTri++];
    t[0] = left[(ear + k - 1) % k];
    t[1] = left[ear];
    t[2] = left[(ear + 1) % k];
    for (int32_t i = ear; i + 1 < k; ++i) left[i] = left[i + 1];
    --k;
  }
  int32_t* t = f->tri[f->nTri++];
  t[0] = left[0];
  t[1] = left[1];
  t[2] = left[2];
  return true;
}

inline bool holds(const int32_t* t, int32_t x) { return t[0] == x || t[1] == x || t[2] == x; }

// Turns the triangulation into the fan from corner 0, flip by flip: a
// triangle at 0 whose far side is a diagonal a-b gives it up to 0-c, c the
// apex across it. The flips are noted in order; undone last first, they lead
// from the fan to the triangulation.
bool toFan(Fill* f) {
  int32_t tri[kFillMax][3];
  std::copy(&f->tri[0][0], &f->tri[0][0] + 3 * f->nTri, &tri[0][0]);
  f->nFlips = 0;
  for (bool again = true; again;) {
    again = false;
    for (int32_t i = 0; i < f->nTri && !again; ++i) {
      if (!holds(tri[i], 0)) continue;
      int32_t a = -1, b = -1;
      for (int32_t x : tri[i])
        if (x != 0) (a < 0 ? a : b) = x;
      if (b - a == 1 || a - b == 1) continue;  // a side of the polygon
      int32_t j = 0;
      while (j < f->nTri && (j == i || !holds(tri[j], a) || !holds(tri[j], b))) ++j;
      if (j == f->nTri || f->nFlips == kFillMax) return false;
      const int32_t c = tri[j][0] + tri[j][1] + tri[j][2] - a - b;
      tri[i][0] = 0, tri[i][1] = a, tri[i][2] = c;
      tri[j][0] = 0, tri[j][1] = c, tri[j][2] = b;
      int32_t* flip = f->flips[f->nFlips++];
      flip[0] = a, flip[1] = b, flip[2] = c;
      again = true;
    }
  }
  return true;
}

// Whether the valences allow the flips, each as qvFlipOp asks: the ends of
// the diagonal keep three triangles, its new ends reach four.
bool valencesHold(const Fill& f) {
  int32_t tag[kFillMax];
  for (int32_t i = 0; i < f.n; ++i) tag[i] = qvVtxOf(f.poly[i])->tag;
  for (int32_t k = f.nFlips - 1; k >= 0; --k) {
    const int32_t a = f.flips[k][0], b = f.flips[k][1], c = f.flips[k][2];
    if (tag[0] - 1 < kValenceMin || tag[c] - 1 < kValenceMin || tag[a] + 1 < kFlipApexMin ||
        tag[b] + 1 < kFlipApexMin)
      return false;
    --tag[0], --tag[c], ++tag[a], ++tag[b];
  }
  return true;
}

// Applies the flips to the copy. 0, or -1 when the copy isn't as the fill
// expects.
int32_t applyFlips(qvMesh* copy, const Fill& f) {
  for (int32_t k = f.nFlips - 1; k >= 0; --k) {
    const double* w = f.poly[0];
    const double* c = f.poly[f.flips[k][2]];
    qvEdg* e = copy->edg;
    while (e && !((e->ends[0] == w && e->ends[1] == c) || (e->ends[0] == c && e->ends[1] == w))) e = e->next;
    qvTri* t = copy->tri;
    while (t && (!e || qvTriEdgeSlot(t, e) < 0)) t = t->next;
    if (!t) return -1;
    const int32_t s = qvTriEdgeSlot(t, e);
    qvTri* n = t->aux[s];
    const int32_t sn = n ? qvTriEdgeSlot(n, e) : -1;
    if (sn < 0) return -1;
    const qvFlipRec rec = {{t, n}, {s, sn}};
    if (qvFlipOp(copy, &rec) != 0) return -1;
  }
  // The flip sweep that follows examines every inner edge afresh.
  for (qvEdg* e = copy->edg; e; e = e->next)
    if (!(e->flags & kEdgMarkOuter)) e->flags &= ~kEdgMarkVisit;
  return 0;
}

// Whether the ring lies in one plane, exactly: only there does a fold lay
// the surface over itself. On a curved surface the certificate alone
// judges a folded fan.
bool flatRing(const Fill& f) {
  return flatPoints(f.n, [&](int32_t i) { return qvVtxXyz(qvVtxOf(f.poly[i])); });
}

// Whether the ring f, laid out in (u, v), folds: 2 with *sense set to the
// sense of its turn, 0 when it doesn't, 1 when it encloses no area.
int32_t foldIn(const Fill& f, double* sense) {
  double area = 0.0;
  for (int32_t i = 0; i < f.n; ++i) {
    const double* a = uv(f.poly[i]);
    const double* b = uv(f.poly[(i + 1) % f.n]);
    area += a[0] * b[1] - a[1] * b[0];
  }
  if (!(area != 0.0)) return 1;
  *sense = area > 0.0 ? 1.0 : -1.0;
  bool folded = false;
  for (int32_t i = 1; i + 1 < f.n && !folded; ++i)
    folded = turnUv(f.poly[0], f.poly[i], f.poly[i + 1], *sense) <= 0;
  return folded ? 2 : 0;
}

// Whether the unfold takes on the fan from w in the copy, whose ring f it
// makes: a ring in one plane, or any ring with anyRing.
bool unfoldTakes(qvMesh* copy, const double* w, bool anyRing, Fill* f) {
  return fanPolygon(copy, w, f) && (anyRing || flatRing(*f));
}

}  // namespace

int32_t qvFanUnfold(qvMesh* copy, const double* w, bool anyRing) {
  if (!copy || !w) return -1;
  Fill f;
  if (!fanPolygon(copy, w, &f)) return 1;
  if (!anyRing && !flatRing(f)) return 0;
  double sense;
  const int32_t fold = foldIn(f, &sense);
  if (fold != 2) return fold;
  if (!clipEars(&f, sense) || !toFan(&f) || !valencesHold(f)) return 1;
  for (int32_t k = 0; k < f.nFlips; ++k)
    if (ringEdge(copy, f.poly[f.flips[k][0]], f.poly[f.flips[k][1]])) return 1;
  return applyFlips(copy, f) == 0 ? 0 : -1;
}

int32_t qvFlipSweep(qvMesh* copy) {
  if (!copy) return -1;
  int32_t flips = 0;
  for (bool again = true; again;) {
    again = false;
    for (qvTri* t = copy->tri; t; t = t->next) {
      for (int32_t i = 0; i < 3; ++i) {
        qvEdg* e = t->edg[i];
        if (e->flags & kEdgFlipDone) continue;
        qvTri* n = liveAcross(t, i);
        if (!n || (e->flags & kEdgNoFlipSet)) continue;
        e->flags |= kEdgMarkVisit;
        const qvFlipRec rec = {{t, n}, {i, qvTriEdgeSlot(n, e)}};
        const int32_t r = qvFlipTest(&rec);
        if (r < 0) return -1;
        if (r == 0) continue;
        double* quad[4];
        if (qvEdgQuad(&rec, 0, quad) != 0) return -1;
        if (ringEdge(copy, quad[1], quad[3])) continue;
        if (qvFlipOp(copy, &rec) != 0) return -1;
        ++flips;
        again = true;
        i = -1;  // the triangle has new edges: from slot 0 again
      }
    }
  }
  for (qvEdg* e = copy->edg; e; e = e->next)
    if (!(e->flags & kEdgMarkOuter)) e->flags &= ~kEdgMarkVisit;
  return flips;
}

// ---------------------------------------------------------------------------
// Commit: retire, graft

namespace {

// Frees replaced replacement triangles (a qvLnk list, freed too) with the
// edges that only they shared.
void triReap(qvMesh* mesh, qvLnk* list) {
  // An edge met in two reaped triangles was inner to the replaced group: it
  // goes with them. One met once still borders a live triangle.
  qvEdg* inner = nullptr;
  for (qvLnk* l = list; l; l = l->next) {
    qvTri* t = static_cast<qvTri*>(l->item);
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      if (!(e->flags & kEdgReplace)) continue;
      t->adj[i] = nullptr;
      if ((e->flags & kEdgReapCount) == kEdgReapCount) continue;
      e->flags |= (e->flags & kEdgReapOnce) ? kEdgReapTwice : kEdgReapOnce;
      if ((e->flags & kEdgReapCount) == kEdgReapCount) {
        mesh->edg = qvEdgUnlink(mesh->edg, e);
        inner = qvEdgConcat(e, inner);
      }
    }
  }
  for (qvLnk* l = list; l; l = l->next)
    for (qvEdg* e : static_cast<qvTri*>(l->item)->edg) e->flags &= ~kEdgReapCount;
  for (qvLnk* l = list; l;) {
    qvLnk* next = l->next;
    qvTri* t = static_cast<qvTri*>(l->item);
    qvCoverFree(t);
    qvTriFree(t);
    qvLnkFree(l);
    l = next;
  }
  qvEdgDeleteAll(inner);
}

}  // namespace

int32_t qvStarRetire(qvMesh* mesh, qvTri* const* star, int32_t n, qvMesh* copy) {
  if (!mesh || !star || !copy) return -1;
  for (qvTri* c = copy->tri; c; c = c->next) c->link = nullptr;
  qvLnk* reaped = nullptr;
  bool ok = true;
  for (int32_t i = 0; i < n; ++i) {
    qvTri* o = star[i];
    qvCoverFree(o);
    if (o->flags & kTriReplace) {
      mesh->tri = qvTriUnlinkList(mesh->tri, o);
      qvLnk* l = qvLnkNew(0, o);
      if (l) reaped = qvLnkConcat(l, reaped);
      else ok = false;  // o is out of every list now: the run is given up anyway
    } else {
      o->flags |= kTriRetired;
      o->aux[0] = o->aux[1] = o->aux[2] = nullptr;
    }
  }
  triReap(mesh, reaped);
  return ok ? 0 : -1;
}

int32_t qvStarGraft(qvMesh* copy, qvMesh* mesh, uint32_t m) {
  if (!copy || !mesh) return -1;
  int32_t status = 0;
  for (qvTri* c = copy->tri; c; c = c->next)
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = c->edg[i];
      if (!(e->flags & m)) continue;
      for (qvTri* n : {c->adj[i], c->aux[i]}) {
        if (!n) continue;
        const int32_t j = qvTriEdgeSlot(n, e);
        if (j < 0) status = -1;
        else n->aux[j] = c;
      }
      e->flags &= ~m;
    }
  // The new triangles are the live entries of their corners.
  for (qvTri* c = copy->tri; c; c = c->next) {
    qvVtx* x[3];
    if (qvTriCornerVtx(c, 0, x) != 0) status = -1;
    else
      for (qvVtx* k : x) k->aux = c;
  }
  mesh->tri = qvTriConcat(copy->tri, mesh->tri);
  mesh->edg = qvEdgConcat(copy->edg, mesh->edg);
  copy->tri = nullptr;
  copy->edg = nullptr;
  qvMeshFree(copy);
  return status;
}

// ---------------------------------------------------------------------------
// The trial and the commit

namespace {

template <class T>
bool push(T*& arr, int32_t& n, int32_t& cap, T x) {
  if (!qvGrow(arr, cap, n + 1, 16)) return false;
  arr[n++] = x;
  return true;
}

inline bool touches(const qvEdg* e, const double* h) { return e->ends[0] == h || e->ends[1] == h; }

void unmarkStar(qvMesh* mesh) {
  const uint32_t edgBits[2] = {kMarkSet.edg, kMarkSet.edg};
  qvHeadUnmark(mesh, kMarkSet.tri, edgBits, kMarkSet.vtx);
}

// The star, its ring and the live triangles across the ring, read while the
// star bears kMarkSet at the list heads; with valences, the corners' tags
// too, which go back to zero.
bool gatherStar(qvMesh* mesh, qvTrial* tr, bool valences) {
  const double* p = tr->v->dat;
  for (qvTri* t = mesh->tri; t && (t->flags & kMarkSet.tri); t = t->next)
    if (!push(tr->star, tr->nStar, tr->starCap, t)) return false;
  for (qvEdg* e = mesh->edg; e && (e->flags & kMarkSet.edg); e = e->next)
    for (double* h : e->ends) {
      qvVtx* x = qvVtxOf(h);
      if (!(x->flags & kMarkSet.vtx)) continue;
      x->flags &= ~kMarkSet.vtx;
      if (x->flags & kVtxRetired) return false;
      if (!(x->flags & kVtxHub) && !push(tr->ring, tr->nRing, tr->ringCap, x)) return false;
      if (valences && !push(tr->valences, tr->nValences, tr->valencesCap, qvValence{x, x->tag})) return false;
      x->tag = 0;
    }
  if (valences && !push(tr->valences, tr->nValences, tr->valencesCap, qvValence{tr->v, tr->v->tag})) return false;
  tr->v->tag = 0;
  for (int32_t s = 0; s < tr->nStar; ++s) {
    qvTri* t = tr->star[s];
    for (int32_t i = 0; i < 3; ++i) {
      if (touches(t->edg[i], p)) continue;
      qvTri* n = liveAcross(t, i);
      if (!n) return false;
      if (n->flags & (kMarkSet.tri | kTriCap)) continue;
      bool seen = false;
      for (int32_t k = 0; k < tr->nNear && !seen; ++k) seen = tr->near[k] == n;
      if (!seen && !push(tr->near, tr->nNear, tr->nearCap, n)) return false;
    }
  }
  for (int32_t i = 0; i < tr->nValences; ++i)
    if (tr->valences[i].n < kValenceMin) return false;
  // The covers are read once the fan is made: their first lines are fetched
  // while it is.
  for (int32_t s = 0; s < tr->nStar; ++s) {
    const char* c = static_cast<const char*>(tr->star[s]->link);
    if (c) {
      __builtin_prefetch(c);
      __builtin_prefetch(c + 64);
    }
  }
  for (int32_t k = 0; k < tr->nNear; ++k)
    if (tr->near[k]->link) __builtin_prefetch(tr->near[k]->link);
  return true;
}

// Whether the ring of a clean star lies exactly in one plane: every fan
// over it then lays the same flat polygon, whatever its flips.
bool ringFlat(const qvTrial* tr) {
  // The star's centre comes last among the valences.
  const int32_t n = tr->nValences - 1;
  if (n < 0 || tr->valences[n].v != tr->v) return false;
  return flatPoints(n, [&](int32_t i) { return qvVtxXyz(tr->valences[i].v); });
}

// Opens the star of v once for every spoke a run tries: picks the spokes
// while it is marked, projects the ring when no spoke is blocked, and
// gathers the star, its ring, the triangles round it and, for a clean star,
// the valences. Whether the ring lies in one plane is found out only for a
// run that weighs several tries (weigh), the one reader of tr->flat. A run
// that tries the shortest spoke alone, unflipped, needs the other spokes'
// link tests, the ring's projection and the valences only where its fan
// folds and the unfold flips it (first): the star is then unsure, neither
// projected nor with valences, and the trial asks for it whole when it gets
// there. 0, or -1 on failure; no mark and no tag stay.
int32_t openStar(qvMesh* mesh, qvVtx* v, qvTrial* tr, qvSpokes* spokes, bool weigh, bool first) {
  tr->nStar = tr->nNear = tr->nRing = tr->nValences = 0;
  tr->start = static_cast<qvTri*>(v->aux);
  const double* p = v->dat;
  const int32_t ring = qvFanMark(mesh, tr->start, p, kMarkSet.tri, kMarkSet.edg, kMarkSet.vtx, kFanMarkMode);
  bool ok = qvSpokePickMarked(mesh, v, ring, true, first, spokes) == 0;
  // A rim vertex's star holds cap triangles, which neither unfold nor flip.
  tr->clean = ok && spokes->blocked == 0 && !(v->flags & kVtxRim);
  tr->unsure = tr->clean && spokes->untested;
  if (ok && tr->clean && !tr->unsure && spokes->n > 0) {
    const int32_t r = qvRingProject(mesh, tr->start, p, ring);
    ok = r >= 0;
    tr->clean = r == 0;
  }
  ok = ok && gatherStar(mesh, tr, tr->clean && !tr->unsure);
  tr->flat = ok && tr->clean && weigh && ringFlat(tr);
  if (!ok) {
    for (qvTri* t = mesh->tri; t && (t->flags & kMarkSet.tri); t = t->next) {
      qvVtx* c[3];
      if (qvTriCornerVtx(t, 0, c) == 0)
        for (qvVtx* x : c) x->tag = 0;
    }
  }
  unmarkStar(mesh);
  return ok ? 0 : -1;
}

// Gives alt the star that tr opened.
bool shareStar(const qvTrial* tr, qvTrial* alt) {
  alt->v = tr->v;
  alt->start = tr->start;
  alt->clean = tr->clean;
  alt->unsure = tr->unsure;
  alt->flat = tr->flat;
  alt->area = tr->area;
  alt->nStar = alt->nNear = alt->nRing = alt->nValences = 0;
  bool ok = qvGrow(alt->star, alt->starCap, tr->nStar) && qvGrow(alt->near, alt->nearCap, tr->nNear) &&
            qvGrow(alt->ring, alt->ringCap, tr->nRing) && qvGrow(alt->valences, alt->valencesCap, tr->nValences);
  if (!ok) return false;
  std::copy(tr->star, tr->star + tr->nStar, alt->star);
  std::copy(tr->near, tr->near + tr->nNear, alt->near);
  std::copy(tr->ring, tr->ring + tr->nRing, alt->ring);
  std::copy(tr->valences, tr->valences + tr->nValences, alt->valences);
  alt->nStar = tr->nStar;
  alt->nNear = tr->nNear;
  alt->nRing = tr->nRing;
  alt->nValences = tr->nValences;
  return true;
}

}  // namespace

void qvTrialDrop(qvTrial* tr) {
  if (!tr || !tr->copy) return;
  qvMeshFree(tr->copy);
  tr->copy = nullptr;
  for (int32_t s = 0; s < tr->nStar; ++s)
    for (qvEdg* e : tr->star[s]->edg) e->flags &= ~kEdgMarkOuter;
}

namespace {

// One trial along spoke, on the star that tr holds, with the fan's
// Delaunay flips or without; tr->flips gets the flips made. 0 or -1 as for
// qvTrialRun, or 2, with no copy, when the fan of an unsure star folds.
int32_t trialAlong(qvMesh* mesh, const qvRedParams* params, qvTrial* tr, qvEdg* spoke, bool flip) {
  tr->flips = 0;
  tr->features[0] = tr->features[1] = nullptr;
  tr->copy = nullptr;
  tr->err = 0;
  tr->score = std::numeric_limits<double>::infinity();
  qvVtx* const v = tr->v;
  double* const p = v->dat;
  for (int32_t i = 0; i < tr->nValences; ++i) tr->valences[i].v->tag = tr->valences[i].n;

  spoke->flags |= kEdgMarkSpoke;
  tr->copy = qvStarCopy(mesh, tr->start, p, kEdgMarkOuter);
  spoke->flags &= ~kEdgMarkSpoke;
  bool ok = tr->copy != nullptr;
  if (ok) {
    qvTriOrAll(tr->copy->tri, kTriReplace);
    qvEdgOrAll(tr->copy->edg, kEdgReplace);
    ok = qvCollapse(tr->copy, v, kEdgMarkSpoke, tr->features) == 0;
  }
  if (ok && tr->clean) {
    // A joint's fan keeps its line's edge, which unfolding might flip.
    const bool unfold = !(v->flags & kVtxJoint);
    const bool anyRing = (v->flags & kVtxFeatureEnd) != 0;
    // An unsure star's ring is projected only where the unfold might take
    // its fan on; where it folds, or the projection fails, the star is
    // opened whole.
    const double* w = otherEnd(spoke, p);
    Fill f;
    double sense;
    if (unfold && tr->unsure && unfoldTakes(tr->copy, w, anyRing, &f)) {
      const int32_t r = qvRingProject(mesh, tr->start, p, 0);
      if (r < 0 || (r == 0 && foldIn(f, &sense) == 2)) {
        qvTrialDrop(tr);
        return 2;
      }
    }
    if (unfold && !tr->unsure) ok = qvFanUnfold(tr->copy, w, anyRing) >= 0;
    if (ok && flip) ok = (tr->flips = qvFlipSweep(tr->copy)) >= 0;
  }
  for (int32_t i = 0; i < tr->nValences; ++i) tr->valences[i].v->tag = 0;
  ok = ok && qvTrialCertify(tr, params) == 0;
  if (ok) return 0;
  qvTrialDrop(tr);
  return FT_FAIL(-1);
}

// Sets or clears kEdgMarkOuter on the ring edges of the trial's star. Two
// trials of one star share those edges: the mark stands for the one that
// a commit may apply, and is off while another spoke is tried.
void markRing(qvTrial* tr, bool on) {
  const double* p = tr->v->dat;
  for (int32_t s = 0; s < tr->nStar; ++s)
    for (qvEdg* e : tr->star[s]->edg)
      if (on && !touches(e, p)) e->flags |= kEdgMarkOuter;
      else e->flags &= ~kEdgMarkOuter;
}

}  // namespace

int32_t qvTrialRun(qvMesh* mesh, qvVtx* v, const qvRedParams* params, qvTrial* tr) {
  if (!mesh || !v || !params || !tr) return -1;
  tr->v = v;
  tr->copy = nullptr;
  if (qvVtxStays(v, params) || (v->flags & kVtxRetired)) return 1;
  if (!v->aux) return -1;
  const bool alone = tr->only >= 0 || params->quick;
  qvSpokes spokes;
  if (openStar(mesh, v, tr, &spokes, !alone, params->quick && tr->only < 0) != 0) return FT_FAIL(-1);
  if (spokes.n == 0) return 1;
  // The tries in order: each spoke, shortest first, with the fan's flips,
  // and without them when the flips changed the fan; try t is spoke t / 2,
  // without flips when t is odd. The spokes past the shortest kSpokeTries
  // are tried only when all of those are refused, and not over a flat ring,
  // where a longer spoke lays the same surface. The quick sweep makes one
  // try, the shortest spoke without flips: it has no second try to weigh
  // them against, and flips made unweighed keep about as many triangles as
  // they save, for the time they take.
  const int32_t all = 2 * spokes.n - 1;
  int32_t last = 2 * std::min(spokes.n, kSpokeTries) - 1;
  const int32_t first = tr->only >= 0 ? std::min(tr->only, all) : params->quick ? 1 : 0;
  tr->beat = std::numeric_limits<double>::infinity();
  tr->probe = nullptr;
  int32_t r = trialAlong(mesh, params, tr, spokes.e[first / 2], first % 2 == 0);
  if (r == 2) {
    // The fan folds: the star opened whole decides whether it unfolds.
    if (openStar(mesh, v, tr, &spokes, !alone, false) != 0) return FT_FAIL(-1);
    if (spokes.n == 0) return FT_FAIL(-1);
    r = trialAlong(mesh, params, tr, spokes.e[first / 2], first % 2 == 0);
  }
  if (r != 0) return r < 0 ? r : FT_FAIL(-1);
  tr->spoke = first;
  // The next tries are made while one may still do better; the trial kept
  // is the best, the first among equals, so a fan keeps its flips unless
  // they raise its score. A score within the rounding allowance counts as
  // none: on a flat face the first spoke stays, whatever the roundings of
  // the others.
  if (!alone && !tr->spare) {
    tr->spare = static_cast<qvTrial*>(ftCalloc(1, sizeof(qvTrial)));
    if (!tr->spare) {
      qvTrialDrop(tr);
      return FT_FAIL(-1);
    }
  }
  qvTrial* alt = tr->spare;
  // The flips stand unjudged over a flat ring, where every fan lays the
  // same surface and scores differ only by how finely the certificate cut
  // the pieces: the planar rule alone shapes that fan.
  const bool judge = !tr->flat;
  int32_t flipped = judge ? tr->flips : 0;  // flips made by the last try with flips
  for (int32_t t = first + 1; !alone && tr->score > params->eta * params->eta; ++t) {
    if (t > last) {
      if (last == all || tr->score <= params->lim2 || tr->flat) break;
      last = all;
    }
    if (t % 2 == 1 && flipped == 0) continue;
    markRing(tr, false);
    // Only a strictly smaller score wins: the certificate stops at the first
    // piece that rules it out, and weighs first the piece that holds the
    // score to beat, which most often does.
    alt->beat = tr->score;
    alt->probe = tr->critical;
    if (!shareStar(tr, alt) || trialAlong(mesh, params, alt, spokes.e[t / 2], t % 2 == 0) < 0) {
      qvTrialDrop(tr);
      return FT_FAIL(-1);
    }
    if (t % 2 == 0) flipped = judge ? alt->flips : 0;
    if (alt->score < tr->score) {
      qvTrial* keep = tr->spare;
      const int32_t only = tr->only;
      std::swap(*tr, *alt);
      tr->spare = keep;
      tr->only = only;
      tr->spoke = t;
      alt->spare = nullptr;
    }
    qvMeshFree(alt->copy);
    alt->copy = nullptr;
    markRing(tr, true);
  }
  return 0;
}

int32_t qvTrialCommit(qvMesh* mesh, qvTrial* tr, const qvRedParams* params) {
  if (!mesh || !tr || !tr->copy) return -1;
  qvMesh* copy = tr->copy;
  tr->copy = nullptr;
  if (qvStarRetire(mesh, tr->star, tr->nStar, copy) != 0) {
    qvMeshFree(copy);
    return FT_FAIL(-1);
  }
  tr->v->flags |= kVtxRetired;
  if (qvStarGraft(copy, mesh, kEdgMarkOuter) != 0 || qvTrialApply(tr) != 0) return FT_FAIL(-1);
  for (qvEdg* e : tr->features)
    if (e) e->flags |= kEdgFeatureSet;
#ifndef NDEBUG
  for (int32_t i = 0; i < tr->nPlan; ++i)
    assert(qvCoverCheckPiece(tr->homes[tr->plan[i].home].tri, tr->plan[i].piece, params) == 0);
#else
  (void)params;
#endif
  return 0;
}

namespace {

int32_t removeVertex(qvMesh* mesh, qvVtx* v, const qvRedParams* params, qvRedOrder* order, qvTrial* tr) {
  if (!mesh || !v || !params || !tr || !v->aux) return -1;
  const int32_t r = qvTrialRun(mesh, v, params, tr);
  if (r != 0) return r;
  if (!(tr->score <= params->lim2)) {
    qvTrialDrop(tr);
    return 1;
  }
  // A sweep takes the vertex only while its score, made on the current mesh,
  // heads the order; the keys behind it are the scores their vertices had
  // when last tried, and a vertex is tried again when it comes up.
  if (qvRedOrderBehind(order, tr->score, tr->weight)) {
    qvTrialDrop(tr);
    return 2;
  }
  if (qvTrialCommit(mesh, tr, params) != 0) return -1;
  const int32_t done = qvTrialTouched(
      tr, [&](qvVtx* const* x, int32_t n, bool ring) { return qvRingDirty(order, x, n, ring, params); });
  return done < 0 ? -1 : 0;
}

}  // namespace

int32_t qvVtxRemove(qvMesh* mesh, qvVtx* v, const qvRedParams* params, qvRedOrder* order, qvTrial* tr) {
  return removeVertex(mesh, v, params, order, tr);
}
