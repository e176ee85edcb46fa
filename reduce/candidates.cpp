// Removal candidates. A candidate is a vertex with a score: what removing it
// would cost, found by removing it on a copy of its star and measuring the
// result against the pass's starting surface. A sweep keeps the candidates
// in a queue by key, tries the head again on the current mesh and removes it
// while it costs least, until the head's cost passes the tolerance.
#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>

#include "kernels/alloc.h"
#include "kernels/failure.h"
#include "kernels/predicates.h"
#include "kernels/progress.h"
#include "reduce/reduce_internal.h"

namespace {


inline double scoreOf(const qvVtx* v) { return *qvScoreOf(v); }
inline void scoreSet(qvVtx* v, double s) { *qvScoreOf(v) = s; }
// A score that is no candidate. NaN never comes out of the measure; should
// one appear, it counts as none rather than as one that passes every test.
inline bool noScore(double s) { return !(s >= 0.0); }

inline double* otherEnd(const qvEdg* e, const double* h) {
  if (e->ends[0] == h) return e->ends[1];
  if (e->ends[1] == h) return e->ends[0];
  return nullptr;
}

void unmarkStar(qvMesh* mesh) {
  const uint32_t edgBits[2] = {kMarkSet.edg, kMarkSet.edg};
  qvHeadUnmark(mesh, kMarkSet.tri, edgBits, kMarkSet.vtx);
}

// Where sheets the input joined meet along a line of joint edges, a joint
// may go only when it lies strictly inside the straight segment between its
// two neighbours on the line: the edge that replaces the two lays the same
// points, so the other sheet, whose vertices there stay or go the same way,
// still meets this one all along it. Exact: the three corners are collinear
// in every coordinate plane and p lies between a and b in every coordinate.
bool straightJoint(const double* a, const double* p, const double* b) {
  if (!a || !p || !b) return false;
  for (int32_t k = 0; k < 3; ++k) {
    const int32_t i = k, j = (k + 1) % 3;
    const double pa[2] = {a[i], a[j]}, pp[2] = {p[i], p[j]}, pb[2] = {b[i], b[j]};
    if (orient2d(pa, pp, pb) != 0.0) return false;
    if (!(std::min(a[k], b[k]) <= p[k] && p[k] <= std::max(a[k], b[k]))) return false;
  }
  return !(p[0] == a[0] && p[1] == a[1] && p[2] == a[2]) && !(p[0] == b[0] && p[1] == b[1] && p[2] == b[2]);
}

// Whether the live star round a corner lies exactly in one plane: the
// plane of its first triangle, which must not be degenerate; no cap.
struct FlatSeek {
  const double* plane[3];
  bool flat;
};

int32_t seekFlat(qvTri* t, void* ctx) {
  auto& f = *static_cast<FlatSeek*>(ctx);
  double* c[3];
  f.flat = !(t->flags & kTriCap) && qvTriCoords(t, 0, c) == 0;
  if (!f.flat) return 1;
  if (!f.plane[0]) {
    f.flat = false;
    for (int32_t drop = 0; drop < 3 && !f.flat; ++drop) {
      const int32_t i = (drop + 1) % 3, j = (drop + 2) % 3;
      const double a[2] = {c[0][i], c[0][j]}, b[2] = {c[1][i], c[1][j]}, d[2] = {c[2][i], c[2][j]};
      f.flat = orient2d(a, b, d) != 0.0;
    }
    for (int k = 0; k < 3; ++k) f.plane[k] = c[k];
    return f.flat ? 0 : 1;
  }
  for (const double* x : c)
    if (x != f.plane[0] && x != f.plane[1] && x != f.plane[2] &&
        orient3dSign(f.plane[0], f.plane[1], f.plane[2], x) != 0) {
      f.flat = false;
      return 1;
    }
  return 0;
}

bool starFlat(qvVtx* v) {
  FlatSeek seek{{nullptr, nullptr, nullptr}, false};
  const int32_t r = qvFanWalk(static_cast<qvTri*>(v->aux), v->dat, seekFlat, &seek);
  return r == 0 && seek.flat;
}

}  // namespace

// ---------------------------------------------------------------------------
// The spoke

int32_t qvSpokePickMarked(qvMesh* mesh, qvVtx* v, int32_t ring, bool valences, bool first, qvSpokes* out) {
  if (!mesh || !v || !out) return -1;
  *out = qvSpokes{};
  const double* p = v->dat;
  bool failed = ring < kValenceMin;
  double len2[kSpokeMax];
  qvTri* from[kSpokeMax];  // the star triangle each spoke was met in
  // A joint moves only along its line: see straightJoint.
  const bool joint = (v->flags & kVtxJoint) != 0;
  const double* line[2] = {nullptr, nullptr};
  int32_t joints = 0;
  // A rim vertex moves only along its rim, on one loop: see below.
  const bool rim = (v->flags & kVtxRim) != 0;
  int32_t rims = 0;
  // No triangle on both joint spokes, whose far side would take the line;
  // none on both rim spokes, an ear whose third side would have to become rim.
  bool apart = true;
  // A feature end moves only along a feature spoke. One whose features the
  // pass collapsed away (the last edge of a line taken into its other end)
  // has none left to keep and goes as a plain vertex.
  bool feature = false;
  for (qvTri* s = mesh->tri; (v->flags & kVtxFeatureEnd) && !feature && s && (s->flags & kMarkSet.tri); s = s->next)
    for (const qvEdg* e : s->edg) feature = feature || ((e->flags & kEdgFeatureSet) && otherEnd(e, p));
  for (qvTri* s = mesh->tri; (joint || rim) && s && (s->flags & kMarkSet.tri); s = s->next) {
    int32_t onJoint = 0, onRim = 0;
    for (const qvEdg* e : s->edg) {
      onJoint += (e->flags & kEdgJoint) && otherEnd(e, p);
      onRim += (e->flags & kEdgRim) && otherEnd(e, p);
    }
    apart = apart && (!joint || onJoint < 2) && (!rim || onRim < 2);
  }
  // The ring as handles in ascending order, read from the star's far edges,
  // for the link tests. These walk the fans of the ring vertices, which
  // leave the star across its far edges: the triangles there, and their
  // edges, are fetched together before the walks, which would each wait for
  // them in turn.
  constexpr int32_t kLocalRing = 64;
  const double* local[kLocalRing];
  const double** ringList = local;
  int32_t nList = 0;
  int32_t nStar = 0;
  for (qvTri* s = mesh->tri; s && (s->flags & kMarkSet.tri); s = s->next) ++nStar;
  if (2 * nStar > kLocalRing) {
    ringList = static_cast<const double**>(ftMalloc(sizeof(const double*) * 2 * static_cast<size_t>(nStar)));
    if (!ringList) return -1;
  }
  // A star triangle has one far edge: two ends each.
  for (qvTri* s = mesh->tri; s && (s->flags & kMarkSet.tri); s = s->next)
    for (int32_t i = 0; i < 3 && !failed; ++i) {
      const qvEdg* e = s->edg[i];
      if (otherEnd(e, p)) continue;
      if (nList + 2 > 2 * nStar) {
        failed = true;
        break;
      }
      qvTri* n = s->aux[i] ? s->aux[i] : s->adj[i];
      if (n) __builtin_prefetch(n);
      for (const double* x : e->ends) {
        int32_t at = nList;
        while (at > 0 && std::less<const double*>()(x, ringList[at - 1])) --at;
        if (at > 0 && ringList[at - 1] == x) continue;
        std::copy_backward(ringList + at, ringList + nList, ringList + nList + 1);
        ringList[at] = x;
        ++nList;
      }
    }
  for (qvTri* s = mesh->tri; s && (s->flags & kMarkSet.tri); s = s->next)
    for (int32_t i = 0; i < 3; ++i) {
      const qvTri* n = otherEnd(s->edg[i], p) ? nullptr : s->aux[i] ? s->aux[i] : s->adj[i];
      for (int32_t k = 0; n && k < 3; ++k) {
        __builtin_prefetch(n->edg[k]);
        __builtin_prefetch(n->aux[k] ? n->aux[k] : n->adj[k]);
      }
    }
  for (qvTri* s = mesh->tri; s && (s->flags & kMarkSet.tri) && !failed; s = s->next)
    for (qvEdg* e : s->edg) {
      // Each spoke once: the mark stays on it until the end.
      if ((e->flags & kEdgMarkSpoke) || !otherEnd(e, p)) continue;
      if (joint && (e->flags & kEdgJoint)) line[std::min(joints++, 1)] = otherEnd(e, p);
      rims += (e->flags & kEdgRim) != 0;
      e->flags |= kEdgMarkSpoke;
      // A first pick tests its candidates below, shortest first.
      int32_t farValence = 0;
      const int32_t ok = first ? 1 : qvLinkTest(s, e, p, ringList, nList, ring, &farValence);
      if (ok < 0) {
        failed = true;
        break;
      }
      if (ok == 0) ++out->blocked;
      else if (valences && !first) qvVtxOf(otherEnd(e, p))->tag = farValence;
      if ((v->flags & kVtxRim) && !(e->flags & kEdgRim)) continue;
      if (feature && !(e->flags & kEdgFeatureSet)) continue;
      if (joint && !(e->flags & kEdgJoint)) continue;
      if ((e->flags & kEdgCap) || ok == 0) continue;
      // Into the shortest few, behind its equals.
      const double l = qvEdgLen2(e);
      int32_t at = out->n;
      while (at > 0 && len2[at - 1] > l) --at;
      if (at == kSpokeMax) continue;
      for (int32_t k = std::min(out->n, kSpokeMax - 1); k > at; --k) {
        out->e[k] = out->e[k - 1];
        from[k] = from[k - 1];
        len2[k] = len2[k - 1];
      }
      out->e[at] = e;
      from[at] = s;
      len2[at] = l;
      out->n = std::min(out->n + 1, kSpokeMax);
    }
  // A first pick: the candidates in order until one passes. Should all of a
  // full list fail, a spoke past it might pass: the pick is then made whole.
  int32_t tested = 0;
  while (first && !failed && tested < out->n) {
    const int32_t ok = qvLinkTest(from[tested], out->e[tested], p, ringList, nList, ring, nullptr);
    if (ok < 0) failed = true;
    else if (ok > 0) break;
    else ++out->blocked;
    ++tested;
  }
  const bool whole = first && !failed && tested == kSpokeMax;
  if (first && !failed && !whole) {
    if (tested < out->n) out->e[0] = out->e[tested];
    out->n = tested < out->n ? 1 : 0;
    out->untested = true;
  }
  for (qvTri* s = mesh->tri; s && (s->flags & kMarkSet.tri); s = s->next)
    for (qvEdg* e : s->edg) e->flags &= ~kEdgMarkSpoke;
  if (ringList != local) std::free(ringList);
  if (whole) return qvSpokePickMarked(mesh, v, ring, valences, false, out);
  if (joint && !(apart && joints == 2 &&
                 straightJoint(qvVtxXyz(qvVtxOf(line[0])), qvVtxXyz(v), qvVtxXyz(qvVtxOf(line[1])))))
    out->n = 0;
  // A rim vertex on one boundary loop slides onto a neighbour on it: the loop
  // loses a corner and stays a loop. Where two loops meet, it stays.
  if (rim && !(apart && rims == 2)) out->n = 0;
  if (valences && !failed) v->tag = ring;
  return failed ? -1 : 0;
}

int32_t qvSpokePick(qvMesh* mesh, qvTri* t, qvVtx* v, qvSpokes* out) {
  if (!mesh || !t || !v || !out) return -1;
  const int32_t ring = qvFanMark(mesh, t, v->dat, kMarkSet.tri, kMarkSet.edg, kMarkSet.vtx, kFanMarkMode);
  const int32_t r = qvSpokePickMarked(mesh, v, ring, false, false, out);
  unmarkStar(mesh);
  return r;
}

// ---------------------------------------------------------------------------
// The trial

int32_t qvVtxScore(qvMesh* mesh, qvVtx* v, const qvRedParams* params, qvTrial* tr) {
  if (!mesh || !v || !params || !tr || !qvScoreOf(v)) return -1;
  scoreSet(v, kRedScoreNone);
  if (qvVtxStays(v, params)) return 0;
  if (!v->link || !v->aux) return FT_FAIL(-1);
  // The shortest spoke only: its score is at least the best spoke's, so the
  // vertex enters the order at worst later than it should, and the trial
  // made when it comes up weighs every spoke.
  tr->only = 0;
  tr->area = 0.0;
  const int32_t r = qvTrialRun(mesh, v, params, tr);
  tr->only = -1;
  if (r != 0) return r;
  scoreSet(v, tr->score);
  qvTrialDrop(tr);
  return 0;
}

// ---------------------------------------------------------------------------
// The order

// ---------------------------------------------------------------------------
// Keeping the order
//
// The live order is a min-heap of entries (score, weight, seq), one per
// vertex with a score, each knowing its place: a new placement moves the
// vertex's entry, a trial takes it out. seq grows with every entry made, so
// among equal keys the later entry comes behind, as a vertex merged into a
// sorted list behind its equals would. The vertices without a score form a
// queue in arrival order, whose entry is valid while the vertex's current
// seq is the entry's. The result is the order the list itself would have,
// and the list is relinked to it when the sweep ends.

namespace {

constexpr uint32_t kGone = 0xFFFFFFFFu;  // current seq of a retired vertex: no entry is valid

struct OrderEntry {
  double score;    // the score the vertex had when it entered
  double weight;  // the star area of its last trial's score of 0, else 0
  uint32_t seq;  // when it entered
  uint32_t id;   // the vertex's index in byId
};

// Scores, then weights, then seq: a total order, as no two entries share a seq.
bool entryBefore(const OrderEntry& a, const OrderEntry& b) {
  assert(a.seq != b.seq || a.id == b.id);
  if (a.score != b.score) return a.score < b.score;
  return a.weight < b.weight || (a.weight == b.weight && a.seq < b.seq);
}

template <class T>
bool grow(T*& arr, size_t& cap, size_t need) {
  if (need <= cap) return true;
  size_t next = cap ? cap * 2 : 64;
  while (next < need) next *= 2;
  void* mem = ftRealloc(arr, next * sizeof(T));
  if (!mem) return false;
  arr = static_cast<T*>(mem);
  cap = next;
  return true;
}

}  // namespace

struct qvRedOrder {
  qvVtx** byId;        // the vertices in the order of the list at the start; each holds its index in slot
  uint32_t* current;   // per vertex: seq of its valid entry, or kGone
  uint32_t n;          // vertices
  uint32_t seq;        // the next seq
  OrderEntry* heap;    // the live order: a min-heap by entryBefore, one entry per vertex with a score
  size_t heapN, heapCap;
  uint32_t* at;        // per vertex: its place in heap, or kGone
  OrderEntry* tail;    // the vertices without a score, in arrival order
  size_t tailN, tailCap;
  qvVtx** retired;     // removed vertices, in order of removal
  size_t retiredN;
  uint8_t* spoke;      // per vertex: 1 + the place of the spoke its last trial kept, while the
                       // mesh round it is as that trial saw it; 0 when unknown
  double* weight;     // per vertex: the weight of its entry
};

namespace {

void orderFree(qvRedOrder* o) {
  for (uint32_t i = 0; o->byId && i < o->n; ++i)
    if (o->byId[i]) o->byId[i]->slot = 0;
  std::free(o->byId);
  std::free(o->current);
  std::free(o->heap);
  std::free(o->at);
  std::free(o->tail);
  std::free(o->retired);
  std::free(o->spoke);
  std::free(o->weight);
  *o = qvRedOrder{};
}

// The index of v in the tables, or kGone.
uint32_t orderId(const qvRedOrder* o, const qvVtx* v) {
  const auto id = static_cast<uint32_t>(v->slot);
  return id < o->n && o->byId[id] == v ? id : kGone;
}

// Moves the entry at place i of the heap up or down to where it belongs,
// keeping the places of the entries it passes.
void heapSift(qvRedOrder* o, size_t i) {
  const OrderEntry e = o->heap[i];
  while (i > 0 && entryBefore(e, o->heap[(i - 1) / 2])) {
    o->heap[i] = o->heap[(i - 1) / 2];
    o->at[o->heap[i].id] = static_cast<uint32_t>(i);
    i = (i - 1) / 2;
  }
  for (;;) {
    size_t c = 2 * i + 1;
    if (c >= o->heapN) break;
    if (c + 1 < o->heapN && entryBefore(o->heap[c + 1], o->heap[c])) ++c;
    if (!entryBefore(o->heap[c], e)) break;
    o->heap[i] = o->heap[c];
    o->at[o->heap[i].id] = static_cast<uint32_t>(i);
    i = c;
  }
  o->heap[i] = e;
  o->at[e.id] = static_cast<uint32_t>(i);
}

// Takes the entry of vertex id out of the heap, if it has one there.
void heapRemove(qvRedOrder* o, uint32_t id) {
  const uint32_t i = o->at[id];
  if (i == kGone) return;
  o->at[id] = kGone;
  if (--o->heapN == i) return;
  o->heap[i] = o->heap[o->heapN];
  heapSift(o, i);
}

// v enters the order at its present score. false on failure.
bool orderPlace(qvRedOrder* o, qvVtx* v) {
  const uint32_t id = orderId(o, v);
  if (id == kGone) return false;
  const OrderEntry e{scoreOf(v), o->weight[id], o->seq++, id};
  o->current[id] = e.seq;
  if (noScore(e.score)) {
    heapRemove(o, id);
    if (!grow(o->tail, o->tailCap, o->tailN + 1)) return false;
    o->tail[o->tailN++] = e;
    return true;
  }
  size_t i = o->at[id];
  if (i == kGone) {
    if (!grow(o->heap, o->heapCap, o->heapN + 1)) return false;
    i = o->heapN++;
  }
  o->heap[i] = e;
  heapSift(o, i);
  return true;
}

// The vertex at the head of the live order, or null when it is empty.
qvVtx* orderFront(qvRedOrder* o) { return o->heapN > 0 ? o->byId[o->heap[0].id] : nullptr; }

// v leaves the order while it is tried: it comes back by orderPlace or
// leaves for good by orderRetire. Its index, or kGone.
uint32_t orderTake(qvRedOrder* o, const qvVtx* v) {
  const uint32_t id = orderId(o, v);
  if (id != kGone) {
    o->current[id] = kGone;
    heapRemove(o, id);
  }
  return id;
}

// v leaves the order for good.
bool orderRetire(qvRedOrder* o, qvVtx* v) {
  const uint32_t id = orderId(o, v);
  if (id == kGone) return false;
  o->current[id] = kGone;
  heapRemove(o, id);
  o->retired[o->retiredN++] = v;
  return true;
}

// Scores every vertex of the list, and makes the order: ascending keys,
// ties and the vertices without a score in list order. false on failure.
bool orderStart(qvRedOrder* o, qvMesh* mesh, const qvRedParams* params, qvTrial* tr) {
  *o = qvRedOrder{};
  const int32_t count = qvVtxCount(mesh->vtx);
  o->n = static_cast<uint32_t>(count);
  o->byId = static_cast<qvVtx**>(ftCalloc(o->n + 1, sizeof(qvVtx*)));
  o->current = static_cast<uint32_t*>(ftMalloc(sizeof(uint32_t) * (o->n + 1)));
  o->retired = static_cast<qvVtx**>(ftMalloc(sizeof(qvVtx*) * (o->n + 1)));
  o->spoke = static_cast<uint8_t*>(ftCalloc(o->n + 1, 1));
  o->weight = static_cast<double*>(ftCalloc(o->n + 1, sizeof(double)));
  o->at = static_cast<uint32_t*>(ftMalloc(sizeof(uint32_t) * (o->n + 1)));
  if (!o->byId || !o->current || !o->retired || !o->spoke || !o->weight || !o->at) return false;
  std::fill(o->at, o->at + o->n + 1, kGone);
  uint32_t i = 0;
  for (qvVtx* v = mesh->vtx; v; v = v->next, ++i) {
    o->byId[i] = v;
    v->slot = static_cast<int32_t>(i);
  }
  // A vertex whose star lies in one plane (no rim, joint or feature end)
  // enters at 0, weighed by its star's area, as its trial would score it
  // unless no fan over its ring keeps the plane; the trial made when it
  // comes up finds that out.
  constexpr uint32_t kNotFlat = kVtxRim | kVtxJoint | kVtxFeatureEnd;
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    if (!qvVtxStays(v, params) && !(v->flags & kNotFlat) && v->link && v->aux && starFlat(v)) {
      scoreSet(v, 0.0);
      o->weight[orderId(o, v)] = qvStarArea(v);
      continue;
    }
    tr->weight = 0;
    if (qvVtxScore(mesh, v, params, tr) < 0) return false;
    o->weight[orderId(o, v)] = tr->weight;
  }
  // In list order, so that equal keys keep the order of the list.
  for (qvVtx* v = mesh->vtx; v; v = v->next)
    if (!orderPlace(o, v)) return false;
  return true;
}

// Relinks the vertex list: retired vertices in order of removal, the live
// order, then those without a score. The new head, or null on failure.
qvVtx* orderList(qvRedOrder* o) {
  qvVtx** arr = static_cast<qvVtx**>(ftMalloc(sizeof(qvVtx*) * (o->n + 1)));
  if (!arr) return nullptr;
  size_t k = 0;
  for (size_t i = 0; i < o->retiredN; ++i) arr[k++] = o->retired[i];
  std::sort(o->heap, o->heap + o->heapN, entryBefore);
  for (size_t i = 0; i < o->heapN; ++i)
    if (o->current[o->heap[i].id] == o->heap[i].seq && k < o->n) arr[k++] = o->byId[o->heap[i].id];
  for (size_t i = 0; i < o->tailN; ++i)
    if (o->current[o->tail[i].id] == o->tail[i].seq && k < o->n) arr[k++] = o->byId[o->tail[i].id];
  qvVtx* head = nullptr;
  if (k == o->n && k > 0) {
    for (size_t i = 0; i < k; ++i) {
      arr[i]->prev = i > 0 ? arr[i - 1] : nullptr;
      arr[i]->next = i + 1 < k ? arr[i + 1] : nullptr;
    }
    head = arr[0];
  }
  std::free(arr);
  return head;
}

}  // namespace

int32_t qvRingDirty(qvRedOrder* order, qvVtx* const* touched, int32_t n, bool ring, const qvRedParams* params) {
  const double key = params->tol2;
  bool ok = true;
  for (int32_t i = 0; i < n && order && ok; ++i) {
    qvVtx* x = touched[i];
    const uint32_t id = orderId(order, x);
    if (id != kGone) order->spoke[id] = 0;
    const double s = scoreOf(x);
    if (qvVtxStays(x, params)) continue;
    // A removal that leaves the surface where it was is weighed by the area
    // of its star, which the commit may have changed: its key follows.
    if (s == 0.0 && id != kGone) {
      if (!ring || order->current[id] == kGone) continue;
      const double area = qvStarArea(x);
      if (area != order->weight[id]) {
        order->weight[id] = area;
        ok = orderPlace(order, x);
      }
      continue;
    }
    if (!noScore(s) && s <= key) continue;
    // Its trial is stale: it waits among its equals in order of arrival.
    scoreSet(x, key);
    if (id != kGone) order->weight[id] = 0;
    ok = orderPlace(order, x);
  }
  return ok ? 0 : -1;
}

bool qvRedOrderBehind(qvRedOrder* order, double score, double weight) {
  if (!order || !orderFront(order)) return false;
  const OrderEntry& head = order->heap[0];
  return score > head.score || (score == head.score && weight > head.weight);
}

// ---------------------------------------------------------------------------
// Sweeps

namespace {

int32_t sweep(qvMesh* mesh, const qvRedParams* params, qvTrial* tr) {
  if (!mesh || !params) return -1;
  if (!mesh->vtx) return 0;
  qvRedOrder order;
  if (!orderStart(&order, mesh, params, tr)) {
    orderFree(&order);
    return -1;
  }
  int32_t removed = 0;
  int32_t untold = 0;  // vertices done (removed or refused) since the last progress note
  for (qvVtx* v = orderFront(&order); v; v = orderFront(&order)) {
    const double s = scoreOf(v);
    if (noScore(s) || s > params->tol2) break;
    // Out of the order while it is tried, so that the order's head is the
    // next candidate.
    const uint32_t id = orderTake(&order, v);
    if (id == kGone) {
      removed = -1;
      break;
    }
    // A vertex whose surroundings are as its last trial saw them gets the
    // same trial again, so the spoke that trial kept is the one to try.
    // Should that spoke now be refused, every spoke is tried.
    tr->only = order.spoke[id] - 1;
    // A key of 0 holds the area of the star as it is: every commit that
    // changes the star brings it up to date (qvRingDirty).
    tr->area = s == 0.0 && params->tol2 > 0.0 ? order.weight[id] : 0.0;
    int32_t r = qvVtxRemove(mesh, v, params, &order, tr);
    if (r == 1 && tr->only >= 0) {
      tr->only = -1;
      r = qvVtxRemove(mesh, v, params, &order, tr);
    }
    tr->only = -1;
    tr->area = 0.0;
    order.spoke[id] = r == 2 ? static_cast<uint8_t>(tr->spoke + 1) : 0;
    if (r < 0) {
      removed = -1;
      break;
    }
    if (r == 0) {
      ++removed;
      if (!orderRetire(&order, v)) removed = -1;
    } else {
      // Behind the head at its new score, or refused: to the tail, until a
      // neighbour's removal brings it back.
      scoreSet(v, r == 2 ? tr->score : kRedScoreNone);
      order.weight[id] = r == 2 ? tr->weight : 0;
      if (!orderPlace(&order, v)) removed = -1;
    }
    if (removed < 0) break;
    // A vertex put back behind the head is not done yet.
    if (r != 2 && ++untold == kProgressEvery) {
      ftProgress(kProgressSweep, untold);
      untold = 0;
    }
  }
  ftProgress(kProgressSweep, untold);
  if (removed >= 0) {
    qvVtx* head = orderList(&order);
    if (head) mesh->vtx = head;
    else removed = -1;
    mesh->flags &= ~kMeshSortedSet;
  }
  orderFree(&order);
#ifndef NDEBUG
  if (removed >= 0) assert(qvRedPassCheck(mesh, stderr) == 0 && qvCoverCheck(mesh, params, stderr) == 0);
#endif
  return removed;
}

// The quick sweep's states, one byte per place in the vertex list: due to be
// tried in this sweep, changed by a removal in this sweep (tried in the next
// one), or tried and refused on the mesh as it is. Each vertex's slot holds
// its place, so that a removal finds the states of the vertices it changed;
// the pass's end clears it.
constexpr uint8_t kQuickDue = 0;
constexpr uint8_t kQuickNext = 1;
constexpr uint8_t kQuickDone = 2;

// The quick sweep: the vertices in list order, each tried along its
// shortest spoke, its fan not flipped, and removed when it scores within
// the tolerance. The vertices whose trials a removal changes
// (qvTrialTouched) wait for the next sweep, so that the removals of one
// sweep lie apart and no fan grows across a flat face by one removal after
// another. Sweeps go on while any vertex waits. No order is kept, and a
// vertex is tried again only when a removal changed its surroundings; like
// the full sweep, it ends only when every vertex left was tried on the
// final mesh.
int32_t sweepQuick(qvMesh* mesh, const qvRedParams* params, qvTrial* tr) {
  const int32_t n = qvVtxCount(mesh->vtx);
  qvVtx** at = static_cast<qvVtx**>(ftMalloc(sizeof(qvVtx*) * (static_cast<size_t>(n) + 1)));
  auto* state = static_cast<uint8_t*>(ftCalloc(static_cast<size_t>(n) + 1, 1));  // all due
  if (!at || !state) {
    std::free(at);
    std::free(state);
    return -1;
  }
  int32_t place = 0;
  for (qvVtx* v = mesh->vtx; v; v = v->next, ++place) {
    at[place] = v;
    v->slot = place;
  }
  auto changed = [&](qvVtx* const* x, int32_t count, bool) {
    for (int32_t i = 0; i < count; ++i)
      if (!qvVtxStays(x[i], params)) state[x[i]->slot] = kQuickNext;
    return 0;
  };
  int32_t removed = 0;
  int32_t untold = 0;  // vertices of the first sweep done since the last progress note
  for (bool again = true, first = true; again && removed >= 0; first = false) {
    again = false;
    for (int32_t i = 0; i < n; ++i)
      if (state[i] == kQuickNext) state[i] = kQuickDue;
    for (int32_t i = 0; i < n; ++i) {
      qvVtx* v = at[i];
      if (state[i] != kQuickDue || qvVtxStays(v, params) || (v->flags & kVtxRetired)) continue;
      state[i] = kQuickDone;
      const int32_t r = qvTrialRun(mesh, v, params, tr);
      if (r < 0) {
        removed = -1;
        break;
      }
      if (r == 0 && !(tr->score <= params->lim2)) {
        qvTrialDrop(tr);
      } else if (r == 0) {
        if (qvTrialCommit(mesh, tr, params) != 0 || qvTrialTouched(tr, changed) != 0) {
          removed = -1;
          break;
        }
        ++removed;
        again = true;
      }
      if (first && ++untold == kProgressEvery) {
        ftProgress(kProgressSweep, untold);
        untold = 0;
      }
    }
  }
  std::free(at);
  std::free(state);
  if (removed < 0) return -1;
  ftProgress(kProgressSweep, untold);
#ifndef NDEBUG
  assert(qvRedPassCheck(mesh, stderr) == 0 && qvCoverCheck(mesh, params, stderr) == 0);
#endif
  return removed;
}

}  // namespace

int32_t qvRedSweep(qvMesh* mesh, const qvRedParams* params, qvTrial* tr) {
  return params->quick ? sweepQuick(mesh, params, tr) : sweep(mesh, params, tr);
}

