// Editing primitives: adjacency links, reversal, vertex replacement,
// reference lists, fan walks and the marking of a vertex's surroundings.
#include <cassert>
#include <climits>
#include <utility>

#include "mesh/mesh_internal.h"

using ftmesh::listMoveToHead;
using ftmesh::listPrepend;

// ---------------------------------------------------------------------------
// Changing links

int32_t qvTriLink(qvTri* a, qvTri* b, qvEdg* e) {
  if (a) {
    const int32_t i = qvTriEdgeSlot(a, e);
    if (i < 0) return 1;
    a->adj[i] = b;
  }
  if (b) {
    const int32_t j = qvTriEdgeSlot(b, e);
    if (j < 0) return 1;
    b->adj[j] = a;
  }
  return 0;
}

int32_t qvTriUnlink(qvTri* t) {
  if (!t) return 1;
  int32_t status = 0;
  qvTri* former[3] = {t->adj[0], t->adj[1], t->adj[2]};
  for (int32_t i = 0; i < 3; ++i) {
    qvTri* n = t->adj[i];
    if (!n) continue;
    const int32_t j = qvTriEdgeSlot(n, t->edg[i]);
    if (j < 0) status = 1;
    else if (n->adj[j] == t) n->adj[j] = nullptr;  // another triangle's link stays
    t->adj[i] = nullptr;
  }
#ifndef NDEBUG
  ftmesh::debugCheckUnlinked(t, former);
#else
  (void)former;
#endif
  return status;
}

int32_t qvTriFlip(qvTri* t) {
  if (!t) return 1;
#ifndef NDEBUG
  // Only a triangle whose edg[2] closes its cycle has a reversal to check.
  double* before[3];
  const qvEdg* e2 = t->edg[2];
  const bool hadCorners = qvTriCorners(t, 0, before) == 0 && e2 &&
                          ((e2->ends[0] == before[2] && e2->ends[1] == before[0]) ||
                           (e2->ends[0] == before[0] && e2->ends[1] == before[2]));
#endif
  std::swap(t->edg[1], t->edg[2]);
  if (t->flags & kTriLinked) {
    // adj and aux belong to their edge's slot and move with it.
    std::swap(t->adj[1], t->adj[2]);
    std::swap(t->aux[1], t->aux[2]);
  }
#ifndef NDEBUG
  ftmesh::debugCheckFlip(t, before, hadCorners);
#endif
  return 0;
}

int32_t qvVtxReplace(qvMesh* mesh, qvVtx* keep, qvVtx* drop) {
  if (!mesh || !keep || !drop) return -1;
  if (keep == drop) return 0;
  double* const from = drop->dat;
  double* const to = keep->dat;
  int32_t n = 0;
  for (qvEdg* e = mesh->edg; e; e = e->next)
    for (double*& end : e->ends)
      if (end == from) end = to, ++n;
  return n;
}

// ---------------------------------------------------------------------------
// Reference lists

namespace {

// Puts a node for item at the head of the qvLnk list in slot.
bool pushRef(void*& slot, void* item) {
  qvLnk* node = qvLnkNew(0, item);
  if (!node) return false;
  slot = listPrepend(static_cast<qvLnk*>(slot), node);
  return true;
}

}  // namespace

int32_t qvEdgTriLists(qvMesh* mesh) {
  if (!mesh) return -1;
  for (qvTri* t = mesh->tri; t; t = t->next)
    for (qvEdg* e : t->edg)
      if (e && !pushRef(e->link, t)) return -1;
  return 0;
}

int32_t qvVtxEdgLists(qvMesh* mesh) {
  if (!mesh) return -1;
  for (qvEdg* e = mesh->edg; e; e = e->next)
    for (double* h : e->ends)
      if (h && !pushRef(qvVtxOf(h)->link, e)) return -1;
  return 0;
}

int32_t qvVtxTriLists(qvMesh* mesh) {
  if (!mesh) return -1;
  for (qvTri* t = mesh->tri; t; t = t->next) {
    double* c[3];
    if (qvTriCorners(t, 0, c) != 0) return -1;
    for (double* h : c)
      if (!pushRef(qvVtxOf(h)->link, t)) return -1;
  }
  return 0;
}

int32_t qvEdgListsFree(qvMesh* chain, void (*freeFn)(void*)) {
  if (!chain) return -1;
  for (qvMesh* m = chain; m; m = m->next)
    for (qvEdg* e = m->edg; e; e = e->next) {
      if (e->link && freeFn) freeFn(e->link);
      e->link = nullptr;
    }
  return 0;
}

int32_t qvVtxListsFree(qvMesh* chain, void (*freeFn)(void*)) {
  if (!chain) return -1;
  for (qvMesh* m = chain; m; m = m->next)
    for (qvVtx* v = m->vtx; v; v = v->next) {
      if (v->link && freeFn) freeFn(v->link);
      v->link = nullptr;
    }
  return 0;
}

// ---------------------------------------------------------------------------
// Fan walks

namespace {

// Which surface a walk follows: the live one crosses aux where it is set.
enum class Surface { kLive, kStart };

template <Surface S>
qvTri* across(const qvTri* t, int32_t slot) {
  if (S == Surface::kLive && t->aux[slot]) return t->aux[slot];
  return t->adj[slot];
}

// Walks round h from start, which was entered across entry, calling fn on
// each triangle, until the walk comes to stop (0), to a boundary (-1), or
// fails. A triangle met twice without reaching stop means broken links:
// Brent's cycle check (a saved triangle, renewed at doubling distances)
// notices it within twice the loop's length, and the walk gives -2.
template <Surface S>
int32_t walkOneWay(qvTri* start, const qvTri* stop, const qvEdg* entry, const double* h, qvFanFn fn,
                   void* ctx) {
  qvTri* cur = start;
  const qvEdg* in = entry;
  const qvTri* saved = start;
  uint64_t limit = 2;
  uint64_t taken = 0;
  for (;;) {
    if (fn) {
      const int32_t code = fn(cur, ctx);
      if (code != 0) return code == INT32_MIN ? INT32_MAX : (code < 0 ? -code : code);
    }
    qvEdg* pair[2];
    int32_t slots[2];
    if (qvTriEdgesAt(cur, h, pair, slots) != 2) return -2;
    int32_t out;
    if (pair[0] == in) out = 1;
    else if (pair[1] == in) out = 0;
    else return -2;
    if (!(cur->flags & kTriLinked)) return -3;
    qvTri* next = across<S>(cur, slots[out]);
    if (!next) return -1;
    if (next == stop) return 0;
    if (next == saved) return -2;
    if (++taken == limit) {
      saved = next;
      limit *= 2;
      taken = 0;
    }
    in = pair[out];
    cur = next;
  }
}

// Forward from t, leaving it by the edge that starts at h; at a boundary,
// back to t and the other way, from the neighbour across the edge that ends
// at h. The second walk can only end open: reaching t again is an error.
template <Surface S>
int32_t fanWalk(qvTri* t, const double* h, qvFanFn fn, void* ctx) {
  qvEdg* pair[2];
  int32_t slots[2];
  if (!t || !h || qvTriEdgesAt(t, h, pair, slots) != 2) return -2;
  const int32_t forward = walkOneWay<S>(t, t, pair[0], h, fn, ctx);
  if (forward != -1) return forward;
  qvTri* back = across<S>(t, slots[0]);
  if (!back) return -1;
  const int32_t backward = walkOneWay<S>(back, t, pair[0], h, fn, ctx);
  return backward == 0 ? -2 : backward;
}

}  // namespace

int32_t qvFanWalk(qvTri* t, const double* h, qvFanFn fn, void* ctx) {
  return fanWalk<Surface::kLive>(t, h, fn, ctx);
}

int32_t qvFanWalkOld(qvTri* t, const double* h, qvFanFn fn, void* ctx) {
  return fanWalk<Surface::kStart>(t, h, fn, ctx);
}

// ---------------------------------------------------------------------------
// Marking the surroundings of a vertex

namespace {

struct FanMarkCtx {
  qvMesh* mesh;     // lists to move marked records to, or null
  const double* h;  // the corner walked round
  uint32_t triBit;  // bit for the triangles, or 0
  uint32_t edgBit;  // bit for the far edges, or 0
  uint32_t vtxBit;  // bit for the far edges' ends, or 0
  uint32_t opts;    // kFanMove* bits
  int32_t nEdg;     // far edges marked: the result
  int32_t newTri;   // triangles that didn't bear triBit before
  int32_t newEdg;   // far edges that didn't bear edgBit before
  int32_t newVtx;   // vertices that didn't bear vtxBit before
};

int32_t markOne(qvTri* t, void* p) {
  FanMarkCtx& c = *static_cast<FanMarkCtx*>(p);
  if (c.triBit) {
    c.newTri += (t->flags & c.triBit) != c.triBit;
    t->flags |= c.triBit;
    if (c.mesh && (c.opts & kFanMoveTri)) c.mesh->tri = listMoveToHead(c.mesh->tri, t);
  }
  qvEdg* far = qvTriFarEdge(t, c.h);
  if (!far) return 1;
  if (c.edgBit) {
    c.newEdg += (far->flags & c.edgBit) != c.edgBit;
    far->flags |= c.edgBit;
    ++c.nEdg;
    if (c.mesh && (c.opts & kFanMoveEdg)) c.mesh->edg = listMoveToHead(c.mesh->edg, far);
  }
  if (c.vtxBit) {
    for (double* end : far->ends) {
      if (!end) continue;
      qvVtx* v = qvVtxOf(end);
      if ((v->flags & c.vtxBit) == c.vtxBit) continue;
      if (c.mesh && (c.opts & kFanMoveVtx)) {
        c.mesh->vtx = listMoveToHead(c.mesh->vtx, v);
        c.mesh->flags &= ~kMeshSortedSet;  // the list's order changed
      }
      v->flags |= c.vtxBit;
      ++c.newVtx;
    }
  }
  return 0;
}

template <Surface S>
int32_t fanMark(qvMesh* mesh, qvTri* t, const double* h, uint32_t triBit, uint32_t edgBit,
                uint32_t vtxBit, uint32_t opts) {
  if (!t || !h) return -1;
  FanMarkCtx ctx{mesh, h, triBit, edgBit, vtxBit, opts, 0, 0, 0, 0};
  if (fanWalk<S>(t, h, markOne, &ctx) != 0) return -1;
#ifndef NDEBUG
  ftmesh::debugCheckHeadRun(mesh, opts, triBit, ctx.newTri, edgBit, ctx.newEdg, vtxBit, ctx.newVtx);
#endif
  return ctx.nEdg;
}

}  // namespace

int32_t qvFanMark(qvMesh* mesh, qvTri* t, const double* h, uint32_t triBit, uint32_t edgBit,
                  uint32_t vtxBit, uint32_t opts) {
  return fanMark<Surface::kLive>(mesh, t, h, triBit, edgBit, vtxBit, opts);
}

int32_t qvFanMarkOld(qvMesh* mesh, qvTri* t, const double* h, uint32_t triBit, uint32_t edgBit,
                     uint32_t vtxBit, uint32_t opts) {
  return fanMark<Surface::kStart>(mesh, t, h, triBit, edgBit, vtxBit, opts);
}

int32_t qvFanMarkSpokes(qvTri* t, void* ctx) {
  const qvSpokeMarkCtx* c = static_cast<const qvSpokeMarkCtx*>(ctx);
  qvEdg* pair[2];
  int32_t slots[2];
  if (!c || qvTriEdgesAt(t, c->h, pair, slots) != 2) return 1;
  t->flags |= c->triBit;
  if (c->mesh) c->mesh->tri = listMoveToHead(c->mesh->tri, t);
  if (c->edgBit) {
    // In cycle order from the far edge the spokes come as pair[0], pair[1].
    for (qvEdg* e : pair) {
      e->flags |= c->edgBit;
      if (c->mesh) c->mesh->edg = listMoveToHead(c->mesh->edg, e);
    }
  }
  return 0;
}

int32_t qvHeadUnmark(qvMesh* mesh, uint32_t triBit, const uint32_t edgBits[2], uint32_t vtxBit) {
  if (!mesh) return -1;
  if (triBit)
    for (qvTri* t = mesh->tri; t && (t->flags & triBit); t = t->next) t->flags &= ~triBit;
  if (!edgBits || !edgBits[1]) return 0;
  for (qvEdg* e = mesh->edg; e && (e->flags & edgBits[1]);) {
    qvEdg* next = e->next;  // read before e may move to the head
    e->flags &= ~edgBits[0];
    if (vtxBit)
      for (double* end : e->ends)
        if (end) qvVtxOf(end)->flags &= ~vtxBit;
    if (e->flags & edgBits[1]) mesh->edg = listMoveToHead(mesh->edg, e);
    e = next;
  }
  return 0;
}

// ---------------------------------------------------------------------------
// Deleting edges without triangles

namespace {

// Takes every node for e out of v's edge list; true if that emptied it.
bool dropRefs(qvVtx* v, const qvEdg* e) {
  qvLnk* list = static_cast<qvLnk*>(v->link);
  if (!list) return false;
  for (qvLnk* l = list; l;) {
    qvLnk* next = l->next;  // read before the node is freed
    if (l->item == e) list = qvLnkDelete(list, l);
    l = next;
  }
  v->link = list;
  return list == nullptr;
}

}  // namespace

int32_t qvEdgPurge(qvMesh* mesh, int32_t headOnly) {
  if (!mesh) return -1;
  int32_t deleted = 0;
  bool vtxChanged = false;
  for (qvEdg* e = mesh->edg; e;) {
    qvEdg* next = e->next;  // read before e is freed
    if (e->link) {
      if (headOnly) break;
      e = next;
      continue;
    }
    for (double* end : e->ends) {
      if (!end) continue;
      qvVtx* v = qvVtxOf(end);
      if (dropRefs(v, e)) {
        mesh->vtx = listMoveToHead(mesh->vtx, v);
        vtxChanged = true;
      }
    }
    mesh->edg = qvEdgDelete(mesh->edg, e);
    ++deleted;
    e = next;
  }
  // Vertices that lost their last edge now stand at the head.
  while (mesh->vtx && !mesh->vtx->link) {
    mesh->vtx = qvVtxDelete(mesh->vtx, mesh->vtx);
    vtxChanged = true;
  }
  if (vtxChanged) mesh->flags &= ~kMeshSortedSet;
  return deleted;
}

// ---------------------------------------------------------------------------
// Debug checks of a changed neighbourhood

#ifndef NDEBUG
namespace ftmesh {

void debugCheckFlip(const qvTri* t, double* const before[3], bool hadCorners) {
  if (!hadCorners) return;
  // Reversal keeps corner 2 and exchanges corners 0 and 1.
  double* after[3];
  const int32_t status = qvTriCorners(t, 0, after);
  assert(status == 0 && after[0] == before[1] && after[1] == before[0] && after[2] == before[2]);
  (void)status;
  (void)after;
}

void debugCheckUnlinked(const qvTri* t, qvTri* const former[3]) {
  for (int32_t i = 0; i < 3; ++i) {
    assert(t->adj[i] == nullptr);
    const qvTri* n = former[i];
    if (!n) continue;
    const int32_t j = qvTriEdgeSlot(n, t->edg[i]);
    assert(j < 0 || n->adj[j] != t);
    (void)j;
  }
}

namespace {
template <class T>
int32_t headRun(const T* head, uint32_t bit) {
  int32_t n = 0;
  for (const T* r = head; r && (r->flags & bit); r = r->next) ++n;
  return n;
}
}  // namespace

void debugCheckHeadRun(const qvMesh* mesh, uint32_t opts, uint32_t triBit, int32_t nTri,
                       uint32_t edgBit, int32_t nEdg, uint32_t vtxBit, int32_t nVtx) {
  if (!mesh) return;
  // Every record that gained its bit was moved to the head, so the head run
  // bearing the bit is at least as long as the number that gained it.
  if ((opts & kFanMoveTri) && triBit) assert(headRun(mesh->tri, triBit) >= nTri);
  if ((opts & kFanMoveEdg) && edgBit) assert(headRun(mesh->edg, edgBit) >= nEdg);
  if ((opts & kFanMoveVtx) && vtxBit) assert(headRun(mesh->vtx, vtxBit) >= nVtx);
  (void)nTri;
  (void)nEdg;
  (void)nVtx;
}

}  // namespace ftmesh
#endif
