// Mesh assembly: a soup of facets becomes a linked, oriented mesh and then a
// chain of shells. The stitching steps run in the order below and the first
// failure ends the run: merge vertices, merge edges (dropping degenerate and
// doubled triangles), link triangles, pair the triangles of bodies that meet
// along a non-manifold edge and pull the rest of such edges apart, split
// vertices with more than one fan, undo the pairings whose bodies the split
// could not tell apart (and split again), rejoin the pieces of pulled-apart
// edges that still meet, release the working lists, orient.
//
// Working lists: vertices hold qvLnk lists of their edges (steps 1-2) and of
// their triangles (step 5) in link; edges hold qvLnk lists of their
// triangles in link, except in edgHeld after step 4, where link is the one
// triangle itself. Whatever the outcome, all of them are released before
// qvMeshStitch returns. Their nodes come from a pool that the stitch owns
// (RefPool below), so releasing a list is clearing a link, and the pool goes
// as a whole at the end.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "mesh/mesh_internal.h"
#include "kernels/alloc.h"
#include "kernels/failure.h"
#include "kernels/kernels.h"

using ftmesh::listMoveToHead;
using ftmesh::listPrepend;
using ftmesh::listUnlink;

// ---------------------------------------------------------------------------
// Adding a facet

int32_t qvMeshAddFacet(qvMesh* mesh, qvVtx* corners[3]) {
  if (!mesh || !corners) return -1;
  qvVtx* c0 = corners[0];
  qvVtx* c1 = corners[1];
  qvVtx* c2 = corners[2];
  // Each corner is new: in no list, and not given twice.
  for (const qvVtx* c : {c0, c1, c2})
    if (!c || c->prev || c->next || c == mesh->vtx || !c->dat) return -1;
  if (c0 == c1 || c1 == c2 || c0 == c2) return -1;
  qvEdg* e2 = qvEdgNew(c2->dat, c0->dat, 0, 0);
  qvEdg* e0 = qvEdgNew(c0->dat, c1->dat, 0, 0);
  qvEdg* e1 = qvEdgNew(c1->dat, c2->dat, 0, 0);
  qvTri* t = (e0 && e1 && e2) ? qvTriNew(e0, e1, e2, 0) : nullptr;
  if (!t) {
    qvEdgFree(e0);
    qvEdgFree(e1);
    qvEdgFree(e2);
    return -1;
  }
  mesh->edg = listPrepend(mesh->edg, e2);
  mesh->vtx = listPrepend(mesh->vtx, c0);
  mesh->edg = listPrepend(mesh->edg, e0);
  mesh->vtx = listPrepend(mesh->vtx, c1);
  mesh->edg = listPrepend(mesh->edg, e1);
  mesh->vtx = listPrepend(mesh->vtx, c2);
  mesh->tri = listPrepend(mesh->tri, t);
  mesh->flags &= ~kMeshSortedSet;
  return 0;
}

namespace {

qvLnk* lnkOf(void* link) { return static_cast<qvLnk*>(link); }
qvEdg* edgOf(const qvLnk* l) { return static_cast<qvEdg*>(l->item); }
qvTri* triOf(const qvLnk* l) { return static_cast<qvTri*>(l->item); }

// Grouping without quadratic scans. Where a step compares every record of a
// list with every later one and acts only on equal keys, the pairs of one key
// can be visited group by group, each group in list order, with the same
// outcome: what a pair does touches only records of its own key. Long lists
// are sorted by key and position for that.
constexpr int32_t kGroupFrom = 16;  // lists shorter than this are scanned pairwise

struct Keyed {
  uintptr_t key[2];  // what groups the records
  int32_t pos;       // place in list order
  void* item;        // the record, or its list node
};

int compareKeyed(const void* pa, const void* pb) {
  const Keyed* a = static_cast<const Keyed*>(pa);
  const Keyed* b = static_cast<const Keyed*>(pb);
  for (int k = 0; k < 2; ++k)
    if (a->key[k] != b->key[k]) return a->key[k] < b->key[k] ? -1 : 1;
  return a->pos < b->pos ? -1 : a->pos > b->pos ? 1 : 0;
}

// Sorts n records by key, then list order; the end of the group at i.
void sortKeyed(Keyed* a, int32_t n) { std::qsort(a, static_cast<size_t>(n), sizeof(Keyed), compareKeyed); }
int32_t groupEnd(const Keyed* a, int32_t n, int32_t i) {
  int32_t j = i + 1;
  while (j < n && a[j].key[0] == a[i].key[0] && a[j].key[1] == a[i].key[1]) ++j;
  return j;
}

uintptr_t keyOf(const void* p) { return reinterpret_cast<uintptr_t>(p); }

// An uninitialised array of n records from the heap, or null.
template <class T>
T* newArray(int32_t n) {
  return static_cast<T*>(ftMalloc(sizeof(T) * static_cast<size_t>(n)));
}

// The nodes of the working lists. Millions of them are made and let go in
// one stitch, so they come from large blocks rather than one heap allocation
// each: a node let go waits on a free list for the next one made, and the
// blocks are freed together when the stitch ends. A node of the pool must
// therefore never reach qvLnkFree, and no list of it may outlive the stitch.
class RefPool {
 public:
  RefPool() = default;
  RefPool(const RefPool&) = delete;
  RefPool& operator=(const RefPool&) = delete;
  ~RefPool() {
    while (blocks_) {
      Block* next = blocks_->next;
      std::free(blocks_);
      blocks_ = next;
    }
  }

  // A node for item in front of the list in slot; false if memory ran out.
  bool push(void*& slot, void* item) {
    qvLnk* node = spare_;
    if (node) {
      spare_ = node->next;
    } else {
      if (used_ == kBlockNodes && !grow()) return false;
      node = &blocks_->nodes[used_++];
    }
    *node = qvLnk{0, 0, nullptr, nullptr, item};
    slot = ftmesh::listPrepend(lnkOf(slot), node);
    return true;
  }

  // Lets go of one node that is in no list any more.
  void drop(qvLnk* l) {
    l->next = spare_;
    spare_ = l;
  }

  // Lets go of a whole list.
  void dropAll(qvLnk* head) {
    while (head) {
      qvLnk* next = head->next;  // read before the node joins the spares
      drop(head);
      head = next;
    }
  }

 private:
  static constexpr int32_t kBlockNodes = 8192;
  struct Block {
    Block* next;               // the block made before this one
    qvLnk nodes[kBlockNodes];  // handed out from the front
  };

  bool grow() {
    Block* b = static_cast<Block*>(ftMalloc(sizeof(Block)));
    if (!b) return false;
    b->next = blocks_;
    blocks_ = b;
    used_ = 0;
    return true;
  }

  Block* blocks_ = nullptr;
  int32_t used_ = kBlockNodes;  // nodes handed out of the newest block
  qvLnk* spare_ = nullptr;      // nodes let go, chained through next
};

// Two triangles that pairing joined across a new edge of a non-manifold
// edge's ends, and which of those edges (counted from 0) it came from.
struct Pairing {
  qvEdg* piece;  // the new edge between t and u
  qvTri* t;
  qvTri* u;
  int32_t group;  // the non-manifold edge it came from
};

// The pairings made, in the order made; the array goes with the stitch.
class PairLog {
 public:
  PairLog() = default;
  PairLog(const PairLog&) = delete;
  PairLog& operator=(const PairLog&) = delete;
  ~PairLog() { std::free(items_); }

  bool add(const Pairing& p) {
    if (count_ == cap_) {
      const int32_t cap = cap_ ? 2 * cap_ : 64;
      void* grown = ftRealloc(items_, sizeof(Pairing) * static_cast<size_t>(cap));
      if (!grown) return false;
      items_ = static_cast<Pairing*>(grown);
      cap_ = cap;
    }
    items_[count_++] = p;
    return true;
  }
  int32_t count() const { return count_; }
  Pairing& operator[](int32_t i) { return items_[i]; }

 private:
  Pairing* items_ = nullptr;
  int32_t count_ = 0;
  int32_t cap_ = 0;
};

// Where a stitch stands: the mesh, the pool of its working lists and the
// pairings made on non-manifold edges.
struct Stitch {
  qvMesh* mesh;
  RefPool refs;
  PairLog pairs;
  int32_t groups = 0;  // non-manifold edges whose triangles all paired
};

// The working lists, built in the order of the library's routines of the
// same purpose (each node in front of its list, records in list order): the
// triangles of each edge, the edges at each vertex, the triangles at each
// vertex.
bool edgTriLists(Stitch& s) {
  for (qvTri* t = s.mesh->tri; t; t = t->next)
    for (qvEdg* e : t->edg)
      if (e && !s.refs.push(e->link, t)) return false;
  return true;
}

bool vtxEdgLists(Stitch& s) {
  for (qvEdg* e = s.mesh->edg; e; e = e->next)
    for (double* h : e->ends)
      if (h && !s.refs.push(qvVtxOf(h)->link, e)) return false;
  return true;
}

bool vtxTriLists(Stitch& s) {
  for (qvTri* t = s.mesh->tri; t; t = t->next) {
    double* c[3];
    if (qvTriCorners(t, 0, c) != 0) return false;
    for (double* h : c)
      if (!s.refs.push(qvVtxOf(h)->link, t)) return false;
  }
  return true;
}

// Clears every working list and mark a failed stitch may have left; the
// nodes go with the pool.
void stitchRelease(Stitch& s) {
  qvMesh* mesh = s.mesh;
  for (qvVtx* v = mesh->vtx; v; v = v->next) v->link = nullptr;
  for (qvEdg* e = mesh->edg; e; e = e->next) e->link = nullptr;
  for (qvEdg* e = mesh->edgHeld; e; e = e->next) e->link = nullptr;
  qvTriAndAll(mesh->tri, kMarkKeep);
  qvTriAndAll(mesh->triHeld, kMarkKeep);
}

// Records a soup can be stitched from: vertices with inline coordinates of
// their own and no working link, edges with both ends, triangles with three
// edges, nothing held.
bool stitchable(const qvMesh* mesh) {
  if (mesh->held || mesh->edgHeld || mesh->triHeld) return false;
  for (const qvVtx* v = mesh->vtx; v; v = v->next)
    if ((v->flags & (kVtxDerived | kVtxOwnBlock)) || v->link || !qvVtxXyz(v)) return false;
  for (const qvEdg* e = mesh->edg; e; e = e->next)
    if (!e->ends[0] || !e->ends[1] || e->link) return false;
  for (const qvTri* t = mesh->tri; t; t = t->next)
    if (!t->edg[0] || !t->edg[1] || !t->edg[2]) return false;
  return true;
}

// ---------------------------------------------------------------------------
// Step 1: merge vertices

bool sameBits(const double* a, const double* b) { return std::memcmp(a, b, 3 * sizeof(double)) == 0; }

bool sameValue(const double* a, const double* b) { return a[0] == b[0] && a[1] == b[1] && a[2] == b[2]; }

// With a tolerance: each vertex in turn is a base for the vertices behind it
// in x order, up to tol[0] further along x. A vertex that matches joins the
// base's chain, so merging is transitive and can span more than the
// tolerance; merged vertices still serve as bases with their own coordinates.
// The comparisons are written so that a NaN never matches and ends the walk.
void weldNear(qvMesh* mesh, const double* tol) {
  const double lin = tol[0];
  const double sq = tol[1];
  qvVtx* runEnd = nullptr;  // first vertex whose x differs from the base's
  const double* runX = nullptr;
  for (qvVtx* b = mesh->vtx; b; b = b->next) {
    const double* pb = qvVtxXyz(b);
    if (!runX || !(pb[0] == *runX)) {
      runX = pb;
      runEnd = b->next;
      while (runEnd && qvVtxXyz(runEnd)[0] == pb[0]) runEnd = runEnd->next;
    }
    qvVtx* head = b->link ? static_cast<qvVtx*>(b->link) : b;
    for (qvVtx* c = b->next; c;) {
      if (c->link) {
        c = c->next;
        continue;
      }
      const double* pc = qvVtxXyz(c);
      const double dx = pc[0] - pb[0];
      if (!(dx <= lin)) break;
      const double dy = pc[1] - pb[1];
      const double dz = pc[2] - pb[2];
      // Among equal x the list is in y order: nothing further at this x can
      // come within reach in y.
      if (dx == 0.0 && dy > lin) {
        c = runEnd;
        continue;
      }
      if (std::fabs(dy) <= lin && std::fabs(dz) <= lin && dx * dx + dy * dy + dz * dz <= sq) c->link = head;
      c = c->next;
    }
  }
}

// Without a tolerance: runs of bitwise equal coordinates join their first
// vertex. The sort orders 0.0 and -0.0 as equal, so equal values with
// different signs of zero may interleave; a run is therefore a run of equal
// values, and each vertex joins the first of that run with its very bits (at
// most eight bit patterns share a value: the signs of three zeros).
void weldExact(qvMesh* mesh) {
  qvVtx* heads[8];
  int n = 0;
  for (qvVtx* c = mesh->vtx; c; c = c->next) {
    const double* pc = qvVtxXyz(c);
    const double* p0 = n > 0 ? qvVtxXyz(heads[0]) : nullptr;
    if (!p0 || !(sameBits(pc, p0) || sameValue(pc, p0))) {
      heads[0] = c;
      n = 1;
      continue;
    }
    qvVtx* match = nullptr;
    for (int i = 0; i < n && !match; ++i)
      if (sameBits(pc, qvVtxXyz(heads[i]))) match = heads[i];
    if (match) {
      c->link = match;
    } else if (n < 8) {
      heads[n++] = c;
    } else {
      heads[0] = c;
      n = 1;
    }
  }
}

bool mergeVertices(Stitch& s, const double* tol) {
  qvMesh* mesh = s.mesh;
  // The merge walks the list in x order: it must really be sorted by x.
  if (mesh->vtx && qvMeshSortVtx(mesh, kMeshSortX, nullptr) != 0) return false;
  if (tol) weldNear(mesh, tol);
  else weldExact(mesh);
  for (qvEdg* e = mesh->edg; e;) {
    qvEdg* next = e->next;  // read before e moves to the head
    for (double*& h : e->ends) {
      const qvVtx* v = qvVtxOf(h);
      if (v->link) h = static_cast<qvVtx*>(v->link)->dat;
    }
    if (e->ends[0] == e->ends[1]) mesh->edg = listMoveToHead(mesh->edg, e);
    e = next;
  }
  for (qvVtx* v = mesh->vtx; v;) {
    qvVtx* next = v->next;  // read before v is freed
    if (v->link) mesh->vtx = qvVtxDelete(mesh->vtx, v);
    v = next;
  }
  mesh->flags &= ~kMeshSortedSet;
  return vtxEdgLists(s);
}

// ---------------------------------------------------------------------------
// Step 2: merge edges

bool sameEnds(const qvEdg* a, const qvEdg* b) {
  return (a->ends[0] == b->ends[0] && a->ends[1] == b->ends[1]) ||
         (a->ends[0] == b->ends[1] && a->ends[1] == b->ends[0]);
}

// Merges two edges on the same two vertices. The edge with more triangles
// gives way and the one with fewer survives (b at equal counts): the slot
// rewriting below pays for the longer list. This is deliberate and kept so.
bool mergePair(qvMesh* mesh, qvEdg* a, qvEdg* b) {
  if (!a->link || !b->link) return true;
  const bool aGives = qvLnkCount(lnkOf(a->link)) > qvLnkCount(lnkOf(b->link));
  qvEdg* gives = aGives ? a : b;
  qvEdg* stays = aGives ? b : a;
  for (qvLnk* l = lnkOf(gives->link); l; l = l->next) {
    const int32_t slot = qvTriEdgeSlot(triOf(l), gives);
    if (slot < 0) return false;
    triOf(l)->edg[slot] = stays;
  }
  stays->link = ftmesh::listConcat(lnkOf(stays->link), lnkOf(gives->link));
  gives->link = nullptr;
  mesh->edg = listMoveToHead(mesh->edg, gives);
  return true;
}

// Deletes the edges without triangles that stand at the head of the edge
// list, taking every node for them out of the vertices' edge lists; a vertex
// whose list empties moves to the head of the vertex list, and the vertices
// at the head without a list are deleted. Each vertex list is walked once
// for all the edges, not once per edge: at a vertex with thousands of edges
// the latter would be quadratic.
void purgeEdges(Stitch& s) {
  qvMesh* mesh = s.mesh;
  qvEdg* e = mesh->edg;
  for (; e && !e->link; e = e->next) e->flags |= kEdgMarkVisit;
  if (e == mesh->edg) return;
  for (qvVtx* v = mesh->vtx; v;) {
    qvVtx* next = v->next;  // read before v moves to the head
    qvLnk* list = lnkOf(v->link);
    const bool had = list != nullptr;
    for (qvLnk* l = list; l;) {
      qvLnk* after = l->next;  // read before the node is freed
      if (edgOf(l)->flags & kEdgMarkVisit) {
        list = listUnlink(list, l);
        s.refs.drop(l);
      }
      l = after;
    }
    v->link = list;
    if (had && !list) mesh->vtx = listMoveToHead(mesh->vtx, v);
    v = next;
  }
  while (mesh->edg && (mesh->edg->flags & kEdgMarkVisit)) mesh->edg = qvEdgDelete(mesh->edg, mesh->edg);
  while (mesh->vtx && !mesh->vtx->link) {
    mesh->vtx = qvVtxDelete(mesh->vtx, mesh->vtx);
    mesh->flags &= ~kMeshSortedSet;
  }
}

// Takes every node naming item out of the list in link; whether one was there.
bool dropAll(RefPool& refs, void*& link, const void* item) {
  bool found = false;
  qvLnk* list = lnkOf(link);
  for (qvLnk* l = list; l;) {
    qvLnk* next = l->next;  // read before the node is freed
    if (l->item == item) {
      list = listUnlink(list, l);
      refs.drop(l);
      found = true;
    }
    l = next;
  }
  link = list;
  return found;
}

// Marks a triangle to go: mark, and to the head of the list.
void markGone(qvMesh* mesh, qvTri* t, int32_t& marked) {
  t->flags |= kTriMarkVisit;
  mesh->tri = listMoveToHead(mesh->tri, t);
  ++marked;
}

// Marks each unmarked triangle on e whose corner opposite e is that of an
// earlier unmarked one: the two have the same three vertices. Which of them
// goes to the head first doesn't matter, since all marked ones are deleted.
bool markDoubled(qvMesh* mesh, qvEdg* e, int32_t& marked) {
  const int32_t n = qvLnkCount(lnkOf(e->link));
  if (n < kGroupFrom) {
    for (qvLnk* a = lnkOf(e->link); a; a = a->next) {
      if (triOf(a)->flags & kTriMarkVisit) continue;
      const double* oa = qvTriOpposite(triOf(a), e);
      if (!oa) return false;
      for (qvLnk* b = a->next; b; b = b->next) {
        if (triOf(b)->flags & kTriMarkVisit) continue;
        const double* ob = qvTriOpposite(triOf(b), e);
        if (!ob) return false;
        if (ob == oa) markGone(mesh, triOf(b), marked);
      }
    }
    return true;
  }
  Keyed* keyed = newArray<Keyed>(n);
  bool ok = keyed != nullptr;
  int32_t m = 0;
  int32_t pos = 0;
  for (qvLnk* l = lnkOf(e->link); l && ok; l = l->next, ++pos) {
    if (triOf(l)->flags & kTriMarkVisit) continue;
    const double* o = qvTriOpposite(triOf(l), e);
    ok = o != nullptr;
    keyed[m++] = {{keyOf(o), 0}, pos, l->item};
  }
  if (ok) sortKeyed(keyed, m);
  for (int32_t i = 0; i < m && ok;) {
    const int32_t end = groupEnd(keyed, m, i);
    for (int32_t j = i + 1; j < end; ++j) {
      qvTri* t = static_cast<qvTri*>(keyed[j].item);
      if (!(t->flags & kTriMarkVisit)) markGone(mesh, t, marked);
    }
    i = end;
  }
  std::free(keyed);
  return ok;
}

// Removes triangles on a degenerate edge, and the second of two triangles on
// the same three vertices, whichever its orientation. Three different
// vertices in a line are no degeneracy here: that triangle stays.
bool removeDegenerate(Stitch& s) {
  qvMesh* mesh = s.mesh;
  int32_t marked = 0;
  for (qvEdg* e = mesh->edg; e; e = e->next) {
    if (e->ends[0] != e->ends[1]) continue;
    for (qvLnk* l = lnkOf(e->link); l; l = l->next)
      if (!(triOf(l)->flags & kTriMarkVisit)) markGone(mesh, triOf(l), marked);
  }
  for (qvEdg* e = mesh->edg; e; e = e->next)
    if (!markDoubled(mesh, e, marked)) return false;
  if (marked == 0) return true;

  int32_t deleted = 0;
  bool emptied = false;
  while (mesh->tri && (mesh->tri->flags & kTriMarkVisit)) {
    qvTri* t = mesh->tri;
    for (qvEdg* e : t->edg) {
      if (!dropAll(s.refs, e->link, t) || e->link) continue;
      mesh->edg = listMoveToHead(mesh->edg, e);
      emptied = true;
    }
    qvTriUnlink(t);
    mesh->tri = qvTriDelete(mesh->tri, t);
    ++deleted;
  }
  if (deleted != marked) return false;
  if (emptied) purgeEdges(s);
  return true;
}

// Merges the edges of each pair (a, b) of v's list, b behind a, that join
// the same two vertices. A pair whose first edge has no triangles left does
// nothing, so the inner walk stops there. 1 if something merged, 0 if not,
// -1 on failure.
int32_t mergePairs(qvMesh* mesh, qvLnk* const* node, int32_t n) {
  int32_t merged = 0;
  for (int32_t i = 0; i < n; ++i) {
    qvEdg* a = edgOf(node[i]);
    for (int32_t j = i + 1; j < n && a->link; ++j) {
      qvEdg* b = edgOf(node[j]);
      if (a == b || !sameEnds(a, b) || !b->link) continue;
      if (!mergePair(mesh, a, b)) return FT_FAIL(-1);
      merged = 1;
    }
  }
  return merged;
}

// The edges at v, paired among those that end at the same other vertex. A
// long list is grouped by that vertex first: a cone's apex has two edges for
// each of its facets, and pairing them all would be quadratic.
int32_t mergeAt(qvMesh* mesh, qvVtx* v) {
  const int32_t n = qvLnkCount(lnkOf(v->link));
  qvLnk* few[kGroupFrom];
  Keyed* keyed = n >= kGroupFrom ? newArray<Keyed>(n) : nullptr;
  qvLnk** nodes = n >= kGroupFrom ? newArray<qvLnk*>(n) : few;
  int32_t merged = 0;
  if (!nodes || (n >= kGroupFrom && !keyed)) {
    merged = -1;
  } else if (!keyed) {
    int32_t i = 0;
    for (qvLnk* l = lnkOf(v->link); l; l = l->next) nodes[i++] = l;
    merged = mergePairs(mesh, nodes, n);
  } else {
    int32_t i = 0;
    for (qvLnk* l = lnkOf(v->link); l; l = l->next, ++i) {
      const qvEdg* e = edgOf(l);
      keyed[i] = {{keyOf(e->ends[0] == v->dat ? e->ends[1] : e->ends[0]), 0}, i, l};
    }
    sortKeyed(keyed, n);
    for (i = 0; i < n && merged >= 0;) {
      const int32_t end = groupEnd(keyed, n, i);
      for (int32_t k = i; k < end; ++k) nodes[k - i] = static_cast<qvLnk*>(keyed[k].item);
      const int32_t m = mergePairs(mesh, nodes, end - i);
      merged = m < 0 ? -1 : (merged | m);
      i = end;
    }
  }
  std::free(keyed);
  if (nodes != few) std::free(nodes);
  return merged;
}

bool mergeEdges(Stitch& s) {
  qvMesh* mesh = s.mesh;
  if (!edgTriLists(s)) return false;
  // The merged-away edges gather at the head of the edge list. They are
  // deleted once all vertices are through, not after each vertex: a pair
  // with an edge that has no triangles does nothing, and no vertex loses its
  // last edge here (each keeps the survivor), so the outcome is the same,
  // and a vertex list is not walked again for every edge merged at its
  // neighbours.
  for (qvVtx* v = mesh->vtx; v; v = v->next)
    if (mergeAt(mesh, v) < 0) return false;
  purgeEdges(s);
  if (!removeDegenerate(s)) return false;
  for (qvVtx* v = mesh->vtx; v;) {
    qvVtx* next = v->next;  // read before v is freed
    if (v->link) {
      s.refs.dropAll(lnkOf(v->link));
      v->link = nullptr;
    } else {
      mesh->vtx = qvVtxDelete(mesh->vtx, v);
      mesh->flags &= ~kMeshSortedSet;
    }
    v = next;
  }
  // By triangle count: boundary edges to the head, non-manifold ones aside.
  for (qvEdg* e = mesh->edg; e;) {
    qvEdg* next = e->next;  // read before e moves
    const int32_t n = qvLnkCount(lnkOf(e->link));
    if (n == 0) {
      mesh->edg = qvEdgDelete(mesh->edg, e);
    } else if (n == 1) {
      mesh->edg = listMoveToHead(mesh->edg, e);
    } else if (n > 2) {
      mesh->edg = listUnlink(mesh->edg, e);
      mesh->edgHeld = listPrepend(mesh->edgHeld, e);
    }
    e = next;
  }
  return true;
}

// ---------------------------------------------------------------------------
// Step 3: link triangles

// The lists of the edges in the mesh's list are not read after this step:
// each is let go here, once its triangles are linked, rather than in a walk
// of its own at the end (step 7), which would visit every edge once more.
bool linkTriangles(Stitch& s) {
  qvMesh* mesh = s.mesh;
  for (qvEdg* e = mesh->edg; e; e = e->next) {
    qvLnk* l = lnkOf(e->link);
    if (!l) return false;
    if (l->next && (l->next->next || qvTriLink(triOf(l), triOf(l->next), e) != 0)) return false;
    s.refs.dropAll(l);
    e->link = nullptr;
  }
  // The triangles of non-manifold edges wait apart, in reverse order.
  bool moved = false;
  for (qvEdg* e = mesh->edgHeld; e; e = e->next) {
    for (qvLnk* l = lnkOf(e->link); l; l = l->next) {
      qvTri* t = triOf(l);
      if (t->flags & kTriMarkVisit) continue;
      t->flags |= kTriMarkVisit;
      mesh->tri = listUnlink(mesh->tri, t);
      mesh->triHeld = listPrepend(mesh->triHeld, t);
      moved = true;
    }
  }
  if (moved) qvTriAndAll(mesh->triHeld, kMarkKeep);
  return true;
}

// ---------------------------------------------------------------------------
// Step 4: pair or pull apart the triangles of non-manifold edges

// A triangle of a non-manifold edge p-q (ends[0]-ends[1]) as it stands round
// the edge: the angle of its third corner about the axis p->q, and whether
// its cycle runs from p to q. Its normal then turns towards growing angles,
// so the body it bounds lies on the side of smaller ones.
struct EdgeFan {
  qvTri* t;
  double angle;
  bool forward;
};

double dot(const double* a, const double* b) { return a[0] * b[0] + a[1] * b[1] + a[2] * b[2]; }

// Fills fan[0..n) for the triangles of e and sorts it by angle. The angle is
// measured in a frame of the edge's own: from the first triangle's third
// corner, turning about p->q. 1 when sorted, 0 when the first triangle gives
// no frame (a flat or overflowing one), -1 when corners can't be read.
int32_t edgeFan(const qvEdg* e, const qvLnk* list, EdgeFan* fan, int32_t n) {
  double axis[3], base[3] = {0, 0, 0}, side[3] = {0, 0, 0};
  int32_t i = 0;
  for (const qvLnk* l = list; l; l = l->next, ++i) {
    double* h[3];
    double* x[3];
    qvTri* t = triOf(l);
    if (qvTriCorners(t, 0, h) != 0 || qvTriCoords(t, 0, x) != 0) return -1;
    int32_t a = 0;
    while (a < 3 && h[a] != e->ends[0]) ++a;
    if (a == 3) return -1;
    const bool forward = h[(a + 1) % 3] == e->ends[1];
    const double* p = x[a];
    const double* r = x[forward ? (a + 2) % 3 : (a + 1) % 3];
    const double* q = x[forward ? (a + 1) % 3 : (a + 2) % 3];
    const double rel[3] = {r[0] - p[0], r[1] - p[1], r[2] - p[2]};
    if (i == 0) {
      for (int k = 0; k < 3; ++k) axis[k] = q[k] - p[k];
      const double along = dot(rel, axis) / dot(axis, axis);
      for (int k = 0; k < 3; ++k) base[k] = rel[k] - along * axis[k];
      vecCross(axis, base, side);
      if (!(dot(side, side) > 0.0)) return 0;
    }
    fan[i] = {t, std::atan2(dot(rel, side), dot(rel, base)), forward};
    if (!std::isfinite(fan[i].angle)) return 0;
  }
  std::sort(fan, fan + n, [](const EdgeFan& a, const EdgeFan& b) { return a.angle < b.angle; });
  return 1;
}

// Links t and u across a new edge of e's ends, which joins the mesh's edges
// and the log of pairings.
bool linkAcross(Stitch& s, const qvEdg* e, qvTri* t, qvTri* u) {
  const int32_t st = qvTriEdgeSlot(t, e), su = qvTriEdgeSlot(u, e);
  if (st < 0 || su < 0 || t->adj[st] || u->adj[su]) return false;
  qvEdg* piece = qvEdgNew(e->ends[0], e->ends[1], e->flags, e->tag);
  if (!piece) return false;
  piece->flags = e->flags;
  s.mesh->edg = listPrepend(s.mesh->edg, piece);
  t->edg[st] = piece;
  u->edg[su] = piece;
  return qvTriLink(t, u, piece) == 0 && s.pairs.add({piece, t, u, s.groups});
}

// When the triangles round e alternate in sense, they bound bodies that meet
// along e: each triangle that runs from p to q is paired with its neighbour
// on the side of smaller angles, which runs back, and both leave e's list.
// Two closed bodies that share an edge so get an edge each, also along an
// edge of several segments, where the vertex split and the rejoin below
// would tell them apart only at the ends and leave a slit between. Any other
// edge is left whole to be pulled apart. False on failure.
bool pairBodies(Stitch& s, qvEdg* e) {
  const int32_t n = qvLnkCount(lnkOf(e->link));
  EdgeFan few[8];
  EdgeFan* fan = n <= 8 ? few : newArray<EdgeFan>(n);
  const int32_t sorted = fan ? edgeFan(e, lnkOf(e->link), fan, n) : -1;
  bool ok = sorted >= 0, alternate = sorted > 0;
  for (int32_t i = 0; i < n && alternate; ++i) alternate = fan[i].forward != fan[(i + 1) % n].forward;
  for (int32_t i = 0; i < n && alternate && ok; ++i) {
    const EdgeFan& below = fan[(i + n - 1) % n];
    if (fan[i].forward)
      ok = linkAcross(s, e, fan[i].t, below.t) && dropAll(s.refs, e->link, fan[i].t) &&
           dropAll(s.refs, e->link, below.t);
  }
  if (alternate && ok) ++s.groups;
  if (fan != few) std::free(fan);
  return ok;
}

// Each triangle of a held edge that was not paired gets a piece of its own: a
// copy for all but the last, which keeps the edge. Copies go to the head of
// edgHeld, in front of the walk. A piece's link is then its one triangle, not
// a list. An edge whose triangles all paired goes.
bool pullApart(Stitch& s) {
  qvMesh* mesh = s.mesh;
  for (qvEdg* e = mesh->edgHeld, *next = nullptr; e; e = next) {
    next = e->next;  // read before e may go
    if (!pairBodies(s, e)) return false;
    qvLnk* list = lnkOf(e->link);
    if (!list) {
      mesh->edgHeld = listUnlink(mesh->edgHeld, e);
      qvEdgFree(e);
      continue;
    }
    for (qvLnk* l = list; l; l = l->next) {
      qvTri* t = triOf(l);
      const int32_t slot = qvTriEdgeSlot(t, e);
      if (slot < 0 || t->adj[slot]) return false;
      if (!l->next) {
        s.refs.dropAll(list);
        e->link = t;
        break;
      }
      qvEdg* piece = qvEdgNew(e->ends[0], e->ends[1], e->flags, e->tag);
      if (!piece) return false;
      piece->flags = e->flags;
      mesh->edgHeld = listPrepend(mesh->edgHeld, piece);
      t->edg[slot] = piece;
      piece->link = t;
    }
  }
  mesh->tri = qvTriConcat(mesh->triHeld, mesh->tri);
  mesh->triHeld = nullptr;
  return mesh->held == nullptr;
}

// ---------------------------------------------------------------------------
// Step 5: split vertices

// Collects the triangles of a fan: marked, and chained through link.
struct FanChain {
  qvTri* head;  // the triangles reached, last first
};

int32_t collectTri(qvTri* t, void* ctx) {
  FanChain& c = *static_cast<FanChain*>(ctx);
  t->flags |= kTriMarkVisit;
  t->link = c.head;
  c.head = t;
  return 0;
}

// Gives each fan of v but the one its first triangle is in a vertex of its
// own. Told as a recursion, v keeps the fan of the first triangle in its
// list and a clone takes the rest, its list reversed by the moves, and is
// treated the same way at once. The same outcome in one pass over v's list:
// the fan of each level starts at the first triangle left, from the front and
// from the back of v's list by turns, and its triangles go straight to that
// level's clone. A vertex can have any number of fans, so no recursion.
bool splitFans(qvMesh* mesh, qvVtx* v) {
  qvLnk* front = lnkOf(v->link);
  if (!front || !front->item) return false;
  qvLnk* back = nullptr;  // found when a second fan is looked for
  bool ok = true;
  for (int32_t level = 0; ok; ++level) {
    if (level == 1) back = qvLnkTail(front);
    qvLnk*& from = level % 2 == 0 ? front : back;
    while (from && (triOf(from)->flags & kTriMarkVisit)) from = level % 2 == 0 ? from->next : from->prev;
    if (!from) break;
    FanChain fan{nullptr};
    const int32_t walk = qvFanWalk(triOf(from), v->dat, collectTri, &fan);
    ok = walk == 0 || walk == -1;
    qvVtx* twin = ok && level > 0 ? qvVtxClone(v) : nullptr;
    if (twin) {
      twin->link = nullptr;
      mesh->flags &= ~kMeshSortedSet;
      mesh->vtx = listPrepend(mesh->vtx, twin);
    } else if (level > 0) {
      ok = false;
    }
    for (qvTri* t = fan.head; t;) {
      qvTri* next = static_cast<qvTri*>(t->link);
      t->link = nullptr;
      if (twin)
        for (qvEdg* e : t->edg)
          for (double*& h : e->ends)
            if (h == v->dat) h = twin->dat;
      t = next;
    }
  }
  for (qvLnk* l = lnkOf(v->link); l; l = l->next) triOf(l)->flags &= ~kTriMarkVisit;
  return ok;
}

bool splitVertices(Stitch& s) {
  qvMesh* mesh = s.mesh;
  bool ok = vtxTriLists(s);
  for (qvVtx* v = mesh->vtx; v && ok; v = v->next) ok = splitFans(mesh, v);
  // Nothing is made from the pool after this step: the nodes stay with it.
  for (qvVtx* v = mesh->vtx; v; v = v->next) v->link = nullptr;
  if (!ok) qvTriAndAll(mesh->tri, kMarkKeep);
  return ok;
}

// Pairing separates the bodies round a non-manifold edge only where the
// vertex split then tells them apart at an end of the edge. Where it can't
// (a dirty surface whose sheets also meet round both ends), two edges of one
// fan would join the same two vertices, which no later edit expects. Every
// pairing of such an edge is undone: its triangles get a held piece each, as
// an edge that is pulled apart, and the vertices are split again for the
// fans the cut opens; the rejoin then treats those pieces like any other.
// Edges of different non-manifold edges never share both ends, so one sort
// of all new edges by their ends finds every such edge. False on failure.
bool unpairJoined(Stitch& s) {
  const int32_t n = s.pairs.count();
  if (n < 2) return true;
  Keyed* keyed = newArray<Keyed>(n);
  bool* undo = static_cast<bool*>(ftCalloc(static_cast<size_t>(s.groups), sizeof(bool)));
  bool ok = keyed && undo, any = false;
  for (int32_t i = 0; i < n && ok; ++i) {
    const qvEdg* e = s.pairs[i].piece;
    const uintptr_t a = keyOf(e->ends[0]), b = keyOf(e->ends[1]);
    keyed[i] = {{a < b ? a : b, a < b ? b : a}, i, nullptr};
  }
  if (ok) sortKeyed(keyed, n);
  for (int32_t i = 0; i < n && ok;) {
    const int32_t end = groupEnd(keyed, n, i);
    for (int32_t k = i; k < end && end - i > 1; ++k) undo[s.pairs[keyed[k].pos].group] = any = true;
    i = end;
  }
  qvMesh* mesh = s.mesh;
  for (int32_t i = 0; i < n && ok && any; ++i) {
    const Pairing& p = s.pairs[i];
    if (!undo[p.group]) continue;
    qvEdg* twin = qvEdgNew(p.piece->ends[0], p.piece->ends[1], p.piece->flags, p.piece->tag);
    const int32_t su = qvTriEdgeSlot(p.u, p.piece);
    ok = twin && su >= 0 && qvTriLink(p.t, nullptr, p.piece) == 0 && qvTriLink(p.u, nullptr, p.piece) == 0;
    if (!ok) {
      qvEdgFree(twin);
      break;
    }
    twin->flags = p.piece->flags;
    p.u->edg[su] = twin;
    twin->link = p.u;
    mesh->edg = listUnlink(mesh->edg, p.piece);
    mesh->edgHeld = listPrepend(mesh->edgHeld, p.piece);
    mesh->edgHeld = listPrepend(mesh->edgHeld, twin);
    p.piece->link = p.t;
  }
  std::free(keyed);
  std::free(undo);
  return ok && (!any || splitVertices(s));
}

// ---------------------------------------------------------------------------
// Step 6: rejoin

// Joins held piece e's triangle with that of f, the next piece of the same
// ends that still has its triangle, across e; f goes. e keeps its link, so
// that no later search can give its triangle a second partner.
bool pairPieces(qvEdg* e, qvEdg* f) {
  qvTri* t = static_cast<qvTri*>(e->link);
  const int32_t slot = qvTriEdgeSlot(t, e);
  if (slot < 0 || t->adj[slot]) return false;
  if (!f) return true;
  qvTri* tf = static_cast<qvTri*>(f->link);
  const int32_t fs = qvTriEdgeSlot(tf, f);
  if (fs < 0 || tf->adj[fs]) return false;
  f->link = nullptr;
  tf->edg[fs] = e;
  return qvTriLink(t, tf, e) == 0;
}

// Pieces of a pulled-apart edge that still end on the same two vertices, in
// the same order, pair up two at a time in list order: two solids along an
// edge each get their own two pieces back. A piece without a partner stays a
// boundary edge. Every piece has its triangle when this starts, so in each
// group of equal ends the first pairs with the second, the third with the
// fourth, and so on: a long list is grouped by sorting rather than searched
// onwards from each piece.
bool rejoin(qvMesh* mesh) {
  const int32_t n = qvEdgCount(mesh->edgHeld);
  Keyed* keyed = n >= kGroupFrom ? newArray<Keyed>(n) : nullptr;
  bool ok = n < kGroupFrom || keyed;
  if (keyed) {
    int32_t i = 0;
    for (qvEdg* e = mesh->edgHeld; e; e = e->next, ++i)
      keyed[i] = {{keyOf(e->ends[0]), keyOf(e->ends[1])}, i, e};
    sortKeyed(keyed, n);
    for (i = 0; i < n && ok;) {
      const int32_t end = groupEnd(keyed, n, i);
      for (int32_t k = i; k < end && ok; k += 2) {
        qvEdg* e = static_cast<qvEdg*>(keyed[k].item);
        ok = e->link && pairPieces(e, k + 1 < end ? static_cast<qvEdg*>(keyed[k + 1].item) : nullptr);
      }
      i = end;
    }
    std::free(keyed);
  } else if (ok) {
    for (qvEdg* e = mesh->edgHeld; e && ok; e = e->next) {
      if (!e->link) continue;
      qvEdg* f = e->next;
      while (f && !(f->link && f->ends[0] == e->ends[0] && f->ends[1] == e->ends[1])) f = f->next;
      ok = pairPieces(e, f);
    }
  }
  if (!ok) return false;
  while (qvEdg* e = mesh->edgHeld) {
    mesh->edgHeld = listUnlink(mesh->edgHeld, e);
    if (e->link) {
      e->link = nullptr;
      mesh->edg = listPrepend(mesh->edg, e);
    } else {
      qvEdgFree(e);
    }
  }
  return mesh->held == nullptr;
}

// ---------------------------------------------------------------------------
// Step 8: orientation

bool orient(qvMesh* mesh) {
  const int32_t check = qvOrientCheck(mesh);
  if (check < 0) return false;
  if (check > 0) {
    const int32_t pieces = qvOrientFlood(mesh);
    if (pieces < 0) return false;
    if (pieces == 0) return true;  // one-sided: reported by the analysis, no failure
  }
  // With no bits this marks nothing, and turns each boundary edge along its
  // triangle for good.
  return qvTopoMark(mesh, 0, 0, 0, 0, nullptr) >= 0;
}

}  // namespace

int32_t qvMeshStitch(qvMesh* mesh, const double* tol) {
  if (!mesh || !stitchable(mesh)) return FT_FAIL(-1);
  Stitch s{mesh, {}, {}};
  const bool ok = mergeVertices(s, tol) && mergeEdges(s) && linkTriangles(s) && pullApart(s) &&
                  splitVertices(s) && unpairJoined(s) && rejoin(mesh);
  if (!ok) {
    stitchRelease(s);
    return FT_FAIL(-1);
  }
  // Step 7: the edge lists of this mesh went in step 3; those of meshes
  // chained behind it are their own.
  qvEdgListsFree(mesh->next, qvLnkListFree);
  if (!orient(mesh)) return FT_FAIL(-1);
  mesh->flags |= kMeshStitched;
  return 0;
}

// ---------------------------------------------------------------------------
// Splitting into shells

namespace {

// Puts n, a record of the list, directly behind t.
void moveBehind(qvTri*& head, qvTri* t, qvTri* n) {
  head = listUnlink(head, n);
  n->prev = t;
  n->next = t->next;
  if (t->next) t->next->prev = n;
  t->next = n;
}

// A flood fill without a queue: the triangles reached from a triangle are
// moved directly behind it, so each shell stands in an unbroken run that ends
// at the first unmarked triangle, where the list is cut. Returns the last
// mesh of the new part of the chain through last; the count, or -1.
int32_t splitTriangles(qvMesh* mesh, qvMesh*& last) {
  int32_t shells = 0;
  qvMesh* c = mesh;
  for (qvTri* t = mesh->tri; t; t = t->next) {
    if (!(t->flags & kTriMarkVisit)) {
      t->flags |= kTriMarkVisit;
      if (shells > 0) {
        qvMesh* m = t->prev ? qvMeshNew(nullptr, nullptr, nullptr, mesh->flags) : nullptr;
        if (!m) {
          shells = -1;
          break;
        }
        t->prev->next = nullptr;
        t->prev = nullptr;
        m->tri = t;
        m->prev = c;
        m->next = c->next;
        if (c->next) c->next->prev = m;
        c->next = m;
        c = m;
      }
      ++shells;
    }
    for (qvTri* n : t->adj) {
      if (!n || (n->flags & kTriMarkVisit)) continue;
      n->flags |= kTriMarkVisit;
      moveBehind(c->tri, t, n);
    }
  }
  last = c;
  for (qvMesh* m = mesh;; m = m->next) {
    qvTriAndAll(m->tri, kMarkKeep);
    if (m == c) break;
  }
  return shells;
}

// Each mesh but the last takes the edges of its triangles to the head of the
// remaining list, cuts them off and hands the rest on. An edge's link names
// the mesh that took it, so an edge shared by two shells is a failure, not a
// record in two lists.
bool splitEdges(qvMesh* mesh, qvMesh* last) {
  bool ok = true;
  for (qvMesh* m = mesh; m != last && ok; m = m->next) {
    qvEdg* block = nullptr;  // the first moved: the last of the block
    for (qvTri* t = m->tri; t && ok; t = t->next) {
      for (qvEdg* e : t->edg) {
        if (e->link == m) continue;
        if (e->link) {
          ok = false;
          break;
        }
        e->link = m;
        m->edg = listMoveToHead(m->edg, e);
        if (!block) block = e;
      }
    }
    qvMesh* next = m->next;
    if (!block) {
      next->edg = m->edg;
      m->edg = nullptr;
      continue;
    }
    next->edg = block->next;
    if (next->edg) next->edg->prev = nullptr;
    block->next = nullptr;
  }
  for (qvMesh* m = mesh;; m = m->next) {
    for (qvEdg* e = m->edg; e; e = e->next) e->link = nullptr;
    if (m == last) break;
  }
  return ok;
}

// Each mesh, numbered from 1, claims the ends of its edges by tag and takes
// them to the head of the remaining list; a vertex already claimed by another
// shell gets a twin in this one (at most one: a vertex can be shared by two
// shells at most). Twins are linked to each other until the ends are rewritten.
bool splitVtx(qvMesh* mesh, qvMesh* last, qvVtx* (*clone)(const qvVtx*)) {
  bool twins = false;
  int32_t n = 1;
  for (qvMesh* m = mesh;; m = m->next, ++n) {
    qvVtx* block = nullptr;  // the first put at the head: the last of the block
    for (qvEdg* e = m->edg; e; e = e->next) {
      for (double* h : e->ends) {
        qvVtx* v = qvVtxOf(h);
        if (v->tag == 0) {
          v->tag = n;
          m->vtx = listMoveToHead(m->vtx, v);
          if (!block) block = v;
        } else if (v->tag != n) {
          qvVtx* twin = static_cast<qvVtx*>(v->link);
          if (twin) {
            if (twin->tag != n) return false;
            continue;
          }
          twin = clone(v);
          if (!twin) return false;
          twin->tag = n;
          twin->link = v;
          v->link = twin;
          m->vtx = listPrepend(m->vtx, twin);
          if (!block) block = twin;
          twins = true;
        }
      }
    }
    if (m == last) {
      // Every vertex must belong to a shell.
      if (!block || block->next) return false;
      break;
    }
    qvMesh* next = m->next;
    if (!block) {
      next->vtx = m->vtx;
      m->vtx = nullptr;
      continue;
    }
    next->vtx = block->next;
    if (next->vtx) next->vtx->prev = nullptr;
    block->next = nullptr;
  }
  if (!twins) return true;
  n = 1;
  for (qvMesh* m = mesh;; m = m->next, ++n) {
    for (qvEdg* e = m->edg; e; e = e->next)
      for (double*& h : e->ends) {
        const qvVtx* v = qvVtxOf(h);
        if (v->link && v->tag != n) h = static_cast<qvVtx*>(v->link)->dat;
      }
    if (m == last) break;
  }
  return true;
}

}  // namespace

int32_t qvMeshShells(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*)) {
  if (!mesh || !clone) return FT_FAIL(-1);
  qvMesh* last = mesh;
  int32_t shells = splitTriangles(mesh, last);
  if (shells <= 1 && last == mesh) return shells;

  qvVtxSetTag(mesh->vtx, 0);
  const bool ok = shells > 1 && splitEdges(mesh, last) && splitVtx(mesh, last, clone);
  for (qvMesh* m = mesh;; m = m->next) {
    for (qvVtx* v = m->vtx; v; v = v->next) {
      v->tag = 0;
      if (!(v->flags & kVtxDerived)) v->link = nullptr;
    }
    // Vertex lists are no longer in any sorted order, and an analysis of the
    // whole mesh describes none of the shells.
    m->flags &= ~kMeshSortedSet;
    if (m == last) break;
  }
  std::free(mesh->topo);
  mesh->topo = nullptr;
  return ok ? shells : -1;
}

int32_t qvMeshAssemble(qvMesh* mesh, const double* tol) {
  if (qvMeshStitch(mesh, tol) != 0) return FT_FAIL(-1);
  return qvMeshShells(mesh, qvVtxClone);
}
