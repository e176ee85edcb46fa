// The reduction pipeline: the two leaves of the engine and the bookkeeping at
// the start and end of a pass. Both make one pass at the whole tolerance
// against the input surface: reduceOnePass weighs the fans of a vertex's
// shortest spoke, flipped and not (longer spokes when those are refused),
// and removes the cheapest first; reduceQuick sweeps the vertices in list order along their shortest
// spokes, the removals of a sweep apart. Open boundaries are capped for the
// time of the pass, so that every fan is closed, and their vertices are
// never removed.
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <unordered_set>

#include "kernels/failure.h"
#include "kernels/progress.h"
#include "reduce/reduce_internal.h"

namespace {


void clearPinned(qvMesh* mesh) { qvVtxAndAll(mesh->vtx, ~kVtxPinned); }

// What both leaves do first: analyse the surface, mark its features and cap
// its open boundaries. The number of loops capped, or -1.
int32_t leafStart(qvMesh* mesh, const qvRedParams* params, const double* angle) {
  qvTopo topo;
  if (!mesh || qvMeshTopo(mesh, &topo) != 0) return FT_FAIL(-1);
  // A negative angle means no features at all.
  if (!(angle && *angle < 0.0) && qvRedFeatures(mesh, angle, params) < 0) return -1;
  return qvRedCapOpen(mesh);
}

// What both leaves do last: the caps go, and *removed gets the triangles
// the leaf took away, against before, counted ahead of the caps. 0, or -1.
int32_t leafEnd(qvMesh* mesh, int32_t capped, int32_t before, int32_t* removed) {
  if (capped != 0 && qvRedCapDrop(mesh) < 0) return -1;
  if (removed) *removed = before - qvTriCount(mesh->tri);
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Caps

int32_t qvRedCapOpen(qvMesh* mesh) {
  if (!mesh) return -1;
  int32_t count = 0;
  qvMesh* cap = qvCapBuild(mesh, &count);
  if (count < 0) {
    qvMeshFree(cap);
    return -1;
  }
  if (cap && count > 0) {
    qvMeshPrependLists(mesh, cap);
    mesh->flags &= ~kMeshSortedSet;
  }
  qvMeshFree(cap);
  return count;
}

int32_t qvRedCapDrop(qvMesh* mesh) {
  if (!mesh) return -1;
  int32_t deleted = 0;
  for (qvTri* t = mesh->tri; t;) {
    qvTri* next = t->next;  // read before t is freed
    if (!(t->flags & kTriCap)) {
      t = next;
      continue;
    }
    // The rim triangles across the cap forget it.
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      if (!(e->flags & kEdgRim)) continue;
      for (qvTri* n : {t->adj[i], t->aux[i]}) {
        if (!n) continue;
        const int32_t j = qvTriEdgeSlot(n, e);
        if (j < 0) return -1;
        n->adj[j] = nullptr;
        n->aux[j] = nullptr;
      }
    }
    qvCoverFree(t);
    mesh->tri = qvTriDelete(mesh->tri, t);
    ++deleted;
    t = next;
  }
  mesh->edg = qvEdgDeleteFlagged(mesh->edg, kEdgCap);
  int32_t hubs = 0;
  mesh->vtx = qvVtxDeleteFlagged(mesh->vtx, kVtxHub, &hubs);
  if (hubs) mesh->flags &= ~kMeshSortedSet;
  return deleted;
}

// ---------------------------------------------------------------------------
// Passes

int32_t qvRedFinishPass(qvMesh* mesh, int32_t keepFrozen) {
  if (!mesh) return -1;
  int32_t count = 0;
  for (qvTri* t = mesh->tri; t;) {
    qvTri* next = t->next;  // read before t is freed
    qvCoverFree(t);
    std::free(t->cache);
    t->cache = nullptr;
    if (t->flags & kTriRetired) {
      mesh->tri = qvTriDelete(mesh->tri, t);
      t = next;
      continue;
    }
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg* e = t->edg[i];
      // Surviving edges and vertices are those of a surviving triangle.
      e->flags |= kEdgMarkVisit;
      for (double* h : e->ends) qvVtxOf(h)->flags |= kVtxMarkVisit;
      if (t->aux[i]) {
        t->adj[i] = t->aux[i];
        t->aux[i] = nullptr;
      }
    }
    t->flags &= kTriPassKeep;
    ++count;
    t = next;
  }
  for (qvEdg* e = mesh->edg; e;) {
    qvEdg* next = e->next;
    if (e->flags & kEdgMarkVisit) e->flags &= kEdgPassKeep & ~kEdgMarkVisit;
    else mesh->edg = qvEdgDelete(mesh->edg, e);
    e = next;
  }
  const uint32_t vtxDrop = kVtxMarkVisit | kVtxPassDrop | (keepFrozen ? 0u : kVtxPinned);
  int32_t gone = 0;
  for (qvVtx* v = mesh->vtx; v;) {
    qvVtx* next = v->next;
    if (v->flags & kVtxMarkVisit) {
      v->flags &= ~vtxDrop;
      v->slot = 0;
    } else {
      mesh->vtx = qvVtxDelete(mesh->vtx, v);
      ++gone;
    }
    v = next;
  }
  if (gone) mesh->flags &= ~kMeshSortedSet;
  return count;
}

namespace {

// One pass over a prepared mesh: covers made, the guests taken into them,
// the sweep (which scores every vertex first), covers released.
int32_t runPass(qvMesh* mesh, const qvRedParams* given, qvGuests* guests) {
  if (!mesh || !given) return -1;
  ftProgress(kProgressPass, qvVtxCount(mesh->vtx));
  qvRedParams params = *given;
  int32_t removed = -1;
  qvTrial tr{};
  if (qvCoverStart(mesh, &params) == 0 && (!guests || qvGuestsTake(mesh, &params, guests) >= 0))
    removed = qvRedSweep(mesh, &params, &tr);
  qvTrialFree(&tr);
  qvCoverEnd(mesh, &params);
  ftProgress(kProgressPassEnd, 0);
  return removed < 0 ? FT_FAIL(-1) : removed;
}

}  // namespace

int32_t qvRedPass(qvMesh* mesh, const qvRedParams* params) { return runPass(mesh, params, nullptr); }

// ---------------------------------------------------------------------------
// The leaves

namespace {

// The leaves: one pass at the whole tolerance, quick or not.
int32_t leaf(qvMesh* mesh, double tol, const double* angle, bool quick, bool rims, qvGuests* guests,
             int32_t* removed) {
  if (removed) *removed = 0;
  for (int32_t i = 0; guests && i < guests->n; ++i) guests->taken[i] = 0;
  qvRedParams params;
  if (!mesh || qvRedParamsSet(tol, &params) != 0) return -1;
  params.quick = quick;
  params.rims = rims;
  const int32_t before = qvTriCount(mesh->tri);
  const int32_t capped = leafStart(mesh, &params, angle);
  if (capped < 0) return -1;
  // A negative tolerance, or one that is not a number, removes nothing: no
  // pass runs, and the caps go again. At exactly 0 the full pass removes
  // only what leaves the surface exactly as it was; the quick one runs none.
  if (tol > 0.0 || (tol == 0.0 && !quick)) {
    if (qvRedPrepFirst(mesh) < 0 || runPass(mesh, &params, guests) < 0 || qvRedFinishPass(mesh, 0) < 0) return -1;
  } else {
    clearPinned(mesh);
  }
  return leafEnd(mesh, capped, before, removed);
}

}  // namespace

int32_t reduceOnePass(qvMesh* mesh, double tol, const double* angle, int32_t* removed) {
  return leaf(mesh, tol, angle, false, false, nullptr, removed);
}

int32_t reduceWhole(qvMesh* mesh, double tol, const double* angle, int32_t* removed) {
  return leaf(mesh, tol, angle, false, true, nullptr, removed);
}

int32_t reduceWholeWith(qvMesh* mesh, double tol, const double* angle, qvGuests* guests, int32_t* removed) {
  return leaf(mesh, tol, angle, false, true, guests, removed);
}

int32_t reduceQuick(qvMesh* mesh, double tol, const double* angle, int32_t* removed) {
  return leaf(mesh, tol, angle, true, false, nullptr, removed);
}

// ---------------------------------------------------------------------------
// The pass-state check

int32_t qvRedPassCheck(const qvMesh* mesh, FILE* out) {
  if (!mesh) return 0;
  int32_t bad = 0;
  auto report = [&](const char* what, const void* rec) {
    ++bad;
    if (out) std::fprintf(out, "pass state: %s (%p)\n", what, rec);
  };
  std::unordered_set<const qvTri*> tris;
  for (const qvTri* t = mesh->tri; t; t = t->next)
    if (!tris.insert(t).second) {
      report("triangle list runs in a cycle", t);
      return bad;
    }
  for (const qvTri* t = mesh->tri; t; t = t->next) {
    if (t->flags & kTriRetired) continue;
    if (t->flags & kMarkMask) report("live triangle bears a mark", t);
    for (int32_t i = 0; i < 3; ++i) {
      const qvTri* n = t->aux[i] ? t->aux[i] : t->adj[i];
      if (!n) {
        report("live triangle has an open edge", t);
        continue;
      }
      if (!tris.count(n)) {
        report("live neighbour is no triangle of the mesh", t);
        continue;
      }
      if (n->flags & kTriRetired) {
        report("live neighbour is retired", t);
        continue;
      }
      const int32_t j = qvTriEdgeSlot(n, t->edg[i]);
      const qvTri* back = j < 0 ? nullptr : (n->aux[j] ? n->aux[j] : n->adj[j]);
      if (back != t) report("live neighbour doesn't see the triangle back", t);
    }
  }
  for (const qvVtx* v = mesh->vtx; v; v = v->next) {
    if ((v->flags & kVtxRetired) || !v->aux) continue;
    const qvTri* t = static_cast<const qvTri*>(v->aux);
    if (!tris.count(t) || (t->flags & kTriRetired)) {
      report("live vertex enters the surface at a triangle that is not live", v);
      continue;
    }
    double* c[3];
    if (qvTriCorners(t, 0, c) != 0 || (c[0] != v->dat && c[1] != v->dat && c[2] != v->dat))
      report("live vertex enters the surface at a triangle not at it", v);
  }
  return bad;
}
