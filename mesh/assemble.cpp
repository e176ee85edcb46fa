// Mesh assembly: a soup of facets becomes a linked, oriented mesh and then a
// chain of shells. The stitching steps run in the order below and the first
// failure ends the run: merge vertices, merge edges (dropping degenerate and
// doubled triangles), link triangles, pair the triangles of bodies that meet
// along a non-manifold edge, or else those of a sheet that meets it with two,
// and pull the rest of such edges apart, split
// vertices with more than one fan, undo the pairings whose bodies the split
// could not tell apart (and split again), rejoin the pieces of pulled-apart
// edges that still meet, release the working lists, orient.
//
// Steps 1-3 run on flat arrays over the soup, numbered in list order: the
// vertices are ordered by sorting (key, place) pairs, the edges grouped by
// their welded ends, and each record that stays is written once. A soup can
// come as records (qvMeshStitch) or as corners alone (qvMeshAssembleCorners),
// which makes only the records that stay and, where no edge has more than two
// triangles, settles fans, orientation and a single shell on the arrays too.
//
// Working lists: vertices hold qvLnk lists of their triangles (step 5) in
// link; edges in edgHeld hold qvLnk lists of their triangles in link, until
// step 4 leaves each piece with its one triangle itself. Whatever the
// outcome, all of them are released before qvMeshStitch returns. Their nodes
// come from a pool that the stitch owns (RefPool below), so releasing a list
// is clearing a link, and the pool goes as a whole at the end.
#include <algorithm>
#include <cassert>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <unordered_map>
#include <utility>
#include <vector>

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
  int32_t groups = 0;     // non-manifold edges whose triangles all paired
  bool oriented = false;  // orientation found consistent, every edge already along its first triangle
  qvVtx** fans = nullptr; // vertices of more than one fan in list order, with their triangle lists
  int32_t nFans = -1;     // how many; -1 when every vertex must be looked at
  ~Stitch() { std::free(fans); }
};

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

// The triangles at each vertex, in the order of the library's routine of the
// same purpose: each node in front of its list, triangles in list order.
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
// Steps 1-3: weld, merge edges, drop degenerate and doubled triangles, link
//
// These run on flat arrays over the soup's records, numbered in list order,
// and each record that stays is written once at the end. What they compute is
// fixed by the list orders of the soup:
//  - The vertex order is by x, y, z, then list position (qvMeshSortVtx's
//    order). A welded vertex joins the first vertex of its run, which stays.
//  - Edges on the same two welded vertices form a group. Walked from the edge
//    last in the list to the first, each edge that still has triangles takes
//    over those of each later one in turn; the one with more triangles gives
//    way, the later one at equal counts, and the one that takes over puts the
//    other's triangles behind its own. The survivor of a group stays, at its
//    own place in the list and with its own ends.
//  - A triangle with two corners welded together goes. So does a triangle on
//    the same three vertices as another: edges are visited in list order, and
//    on each, among the triangles still there, the first of each opposite
//    corner in the edge's order stays.
//  - An edge left with one triangle is a boundary edge: these stand at the
//    head of the edge list, last first; edges with two follow in list order,
//    their triangles joined by adj; edges with more wait in edgHeld, last
//    first, each with a list of its triangles, whose triangles wait in
//    triHeld in reverse order of their first appearance there.
//  - A vertex stays when a triangle that stays has it as a corner.

// The soup as arrays. Vertices, edges and triangles are numbered by their
// place in their lists; ends and slots refer to those numbers.
struct Soup {
  int32_t nv = 0, ne = 0, nt = 0;
  qvVtx** vtx = nullptr;     // vertex records in list order
  double* xyz = nullptr;     // their coordinates, three per vertex
  qvEdg** edg = nullptr;     // edge records in list order
  int32_t* ends = nullptr;   // two vertex numbers per edge
  qvTri** tri = nullptr;     // triangle records in list order
  int32_t* slots = nullptr;  // three edge numbers per triangle
  int32_t* owner = nullptr;  // per edge: 3 x its triangle's number + its slot there
  bool records = true;       // numbered from a mesh's records, not made from corners
  int32_t* corner = nullptr; // per triangle slot k: the welded vertex at corner k, once welded
  int32_t flooded = 0;       // shells whose flood ordered the triangles as made (floodOnArrays), or 0
  int32_t nOrdered = 0;      // entries of the vertex order: every vertex, or only those that stay
  ~Soup() {
    std::free(corner);
    std::free(owner);
    std::free(vtx);
    std::free(xyz);
    std::free(edg);
    std::free(ends);
    std::free(tri);
    std::free(slots);
  }
};

// Numbers the records of a soup made by qvMeshAddFacet: every triangle on
// three edges of its own, in the cycle c0-c1, c1-c2, c2-c0 of three listed
// vertices, none linked, every listed edge in one triangle. Vertex and edge
// links hold number + 1 while this runs and are cleared before it returns.
// False for any other mesh or when memory runs out.
bool numberSoup(qvMesh* mesh, Soup& s) {
  for (const qvVtx* v = mesh->vtx; v; v = v->next) ++s.nv;
  for (const qvEdg* e = mesh->edg; e; e = e->next) ++s.ne;
  for (const qvTri* t = mesh->tri; t; t = t->next) ++s.nt;
  if (s.ne != 3 * s.nt) return false;
  s.vtx = newArray<qvVtx*>(s.nv);
  s.xyz = newArray<double>(3 * s.nv);
  s.edg = newArray<qvEdg*>(s.ne);
  s.ends = newArray<int32_t>(2 * s.ne);
  s.tri = newArray<qvTri*>(s.nt);
  s.slots = newArray<int32_t>(3 * s.nt);
  s.owner = newArray<int32_t>(s.ne);
  if (s.nt > 0 && (!s.vtx || !s.xyz || !s.edg || !s.ends || !s.tri || !s.slots || !s.owner)) return false;
  int32_t i = 0;
  for (qvVtx* v = mesh->vtx; v; v = v->next, ++i) {
    s.vtx[i] = v;
    std::memcpy(s.xyz + 3 * i, qvVtxXyz(v), 3 * sizeof(double));
    v->link = reinterpret_cast<void*>(static_cast<uintptr_t>(i) + 1);
  }
  // A handle's number, or -1 when it isn't a vertex of the list.
  auto vtxNumber = [&s](const double* h) -> int32_t {
    const uintptr_t n = reinterpret_cast<uintptr_t>(qvVtxOf(h)->link);
    return n >= 1 && n <= static_cast<uintptr_t>(s.nv) && s.vtx[n - 1]->dat == h ? static_cast<int32_t>(n - 1) : -1;
  };
  bool ok = true;
  i = 0;
  for (qvEdg* e = mesh->edg; e && ok; e = e->next, ++i) {
    s.edg[i] = e;
    s.ends[2 * i] = vtxNumber(e->ends[0]);
    s.ends[2 * i + 1] = vtxNumber(e->ends[1]);
    ok = s.ends[2 * i] >= 0 && s.ends[2 * i + 1] >= 0;
    e->link = reinterpret_cast<void*>(static_cast<uintptr_t>(i) + 1);
  }
  i = 0;
  for (qvTri* t = mesh->tri; t && ok; t = t->next, ++i) {
    s.tri[i] = t;
    for (int k = 0; k < 3 && ok; ++k) {
      const qvEdg* e = t->edg[k];
      const uintptr_t n = reinterpret_cast<uintptr_t>(e->link);
      ok = !t->adj[k] && n >= 1 && n <= static_cast<uintptr_t>(s.ne) && s.edg[n - 1] == e;
      if (!ok) break;
      s.slots[3 * i + k] = static_cast<int32_t>(n - 1);
      s.owner[n - 1] = 3 * i + k;
      const_cast<qvEdg*>(e)->link = nullptr;  // a second use of the edge fails above
    }
    // The cycle: each edge starts where the one before it ends.
    for (int k = 0; k < 3 && ok; ++k)
      ok = s.ends[2 * s.slots[3 * i + k] + 1] == s.ends[2 * s.slots[3 * i + (k + 1) % 3]];
  }
  for (qvVtx* v = mesh->vtx; v; v = v->next) v->link = nullptr;
  for (qvEdg* e = mesh->edg; e; e = e->next) {
    ok = ok && !e->link;  // an edge of no triangle
    e->link = nullptr;
  }
  return ok;
}

// The order of a vertex list (qvMeshSortVtx's, along x).
struct VtxKey {
  uint64_t k[3];  // the coordinate keys of x, y, z
  int32_t pos;    // place in the list
};

bool vtxKeyBefore(const VtxKey& a, const VtxKey& b) {
  if (a.k[0] != b.k[0]) return a.k[0] < b.k[0];
  if (a.k[1] != b.k[1]) return a.k[1] < b.k[1];
  if (a.k[2] != b.k[2]) return a.k[2] < b.k[2];
  return a.pos < b.pos;
}

bool sameBits(const double* a, const double* b) { return std::memcmp(a, b, 3 * sizeof(double)) == 0; }

bool sameValue(const double* a, const double* b) { return a[0] == b[0] && a[1] == b[1] && a[2] == b[2]; }

// With a tolerance: each vertex in turn is a base for the vertices behind it
// in x order, up to tol[0] further along x. A vertex that matches joins the
// base's vertex (the base itself, or the one the base joined), so merging is
// transitive and can span more than the tolerance; merged vertices still
// serve as bases with their own coordinates. The comparisons are written so
// that a NaN never matches and ends the walk. order holds vertex numbers in
// x order, rep receives the vertex each one joins (-1 for none).
void weldNear(const Soup& s, const int32_t* order, int32_t* rep, const double* tol) {
  const double lin = tol[0];
  const double sq = tol[1];
  const int32_t n = s.nv;
  int32_t runEnd = 0;  // first place whose x differs from the base's
  const double* runX = nullptr;
  for (int32_t b = 0; b < n; ++b) {
    const double* pb = s.xyz + 3 * order[b];
    if (!runX || !(pb[0] == *runX)) {
      runX = pb;
      runEnd = b + 1;
      while (runEnd < n && s.xyz[3 * order[runEnd]] == pb[0]) ++runEnd;
    }
    const int32_t head = rep[order[b]] >= 0 ? rep[order[b]] : order[b];
    for (int32_t c = b + 1; c < n;) {
      if (rep[order[c]] >= 0) {
        ++c;
        continue;
      }
      const double* pc = s.xyz + 3 * order[c];
      const double dx = pc[0] - pb[0];
      if (!(dx <= lin)) break;
      const double dy = pc[1] - pb[1];
      const double dz = pc[2] - pb[2];
      // Among equal x the order is by y: nothing further at this x can come
      // within reach in y.
      if (dx == 0.0 && dy > lin) {
        c = runEnd;
        continue;
      }
      if (std::fabs(dy) <= lin && std::fabs(dz) <= lin && dx * dx + dy * dy + dz * dz <= sq) rep[order[c]] = head;
      ++c;
    }
  }
}

// Whether three float keys name neither a zero, whose sign the key drops, nor
// a NaN: then equal keys mean equal floats, bit for bit.
bool plainKeys(const qvFloatKeys& k) {
  const uint32_t zero = qvFloatKey(0.0f);
  const uint32_t words[3] = {static_cast<uint32_t>(k.hi >> 32), static_cast<uint32_t>(k.hi), k.lo};
  for (uint32_t w : words)
    if (w == zero || w == UINT32_MAX) return false;
  return true;
}

// Without a tolerance: runs of bitwise equal coordinates join their first
// vertex. The order takes 0.0 and -0.0 as equal, so equal values with
// different signs of zero may interleave; a run is therefore a run of equal
// values, and each vertex joins the first of that run with its very bits (at
// most eight bit patterns share a value: the signs of three zeros).
// With keys, the float keys of the coordinates in order (sortFloatCorners),
// runs whose keys name no zero and no NaN are found on the keys alone: equal
// keys then mean equal bits.
void weldExact(const Soup& s, const int32_t* order, int32_t* rep, const qvFloatKeys* keys) {
  int32_t heads[8];
  int n = 0;
  for (int32_t i = 0; i < s.nv; ++i) {
    const int32_t c = order[i];
    if (keys && plainKeys(keys[i])) {
      if (i > 0 && keys[i].hi == keys[i - 1].hi && keys[i].lo == keys[i - 1].lo) {
        rep[c] = heads[0];
      } else {
        heads[0] = c;
        n = 1;
      }
      continue;
    }
    const double* pc = s.xyz + 3 * c;
    const double* p0 = n > 0 ? s.xyz + 3 * heads[0] : nullptr;
    if (!p0 || !(sameBits(pc, p0) || sameValue(pc, p0))) {
      heads[0] = c;
      n = 1;
      continue;
    }
    int32_t match = -1;
    for (int k = 0; k < n && match < 0; ++k)
      if (sameBits(pc, s.xyz + 3 * heads[k])) match = heads[k];
    if (match >= 0) {
      rep[c] = match;
    } else if (n < 8) {
      heads[n++] = c;
    } else {
      heads[0] = c;
      n = 1;
    }
  }
}

// The vertex order when every coordinate is a float widened, as from a file:
// a float orders as its double does, so the three keys fit in 96 bits, and a
// stable radix sort of them keeps list order among equal keys. 1 when sorted
// into order, with the sorted keys in *sorted for the caller to free; 0 when
// some coordinate is no float (the caller sorts), -1 when memory ran out.
int32_t sortFloatCorners(const Soup& s, int32_t* order, qvFloatKeys** sorted) {
  const int32_t n = s.nv;
  for (int32_t i = 0; i < 3 * n; ++i) {
    const double d = s.xyz[i];
    if (!std::isnan(d) && static_cast<double>(static_cast<float>(d)) != d) return 0;
  }
  qvFloatKeys* keys = newArray<qvFloatKeys>(n);
  if (!keys) return -1;
  for (int32_t i = 0; i < n; ++i) {
    const double* p = s.xyz + 3 * i;
    keys[i] = {uint64_t{qvFloatKey(static_cast<float>(p[0]))} << 32 | qvFloatKey(static_cast<float>(p[1])),
               qvFloatKey(static_cast<float>(p[2])), i};
  }
  if (qvFloatKeysSort(keys, n) != 0) {
    std::free(keys);
    return -1;
  }
  for (int32_t i = 0; i < n; ++i) order[i] = keys[i].pos;
  *sorted = keys;
  return 1;
}

// Without a tolerance, on a soup made from corners: a vertex joins the
// first vertex with its very coordinate bits, which a hash table over the
// bits finds in one pass in list order; only the vertices that stay are then
// sorted, into the order they have among all (the order keeps equal keys in
// list order, so a vertex that stays is the first of its bits there too).
// order receives those alone, and the number of them is returned: 0 for a
// coordinate that is NaN (whose keys don't tell bits apart), when the caller
// welds the general way, and -1 when memory ran out.
int32_t weldByBits(const Soup& s, int32_t* order, int32_t* rep) {
  const int32_t nv = s.nv;
  // At least a fifth of the table stays free, should no two vertices weld.
  int bits = 4;
  while (bits < 30 && (size_t{1} << bits) < static_cast<size_t>(nv) + nv / 4) ++bits;
  const size_t mask = (size_t{1} << bits) - 1;
  int32_t* table = newArray<int32_t>(static_cast<int32_t>(mask + 1));
  if (!table) return -1;
  std::fill(table, table + mask + 1, -1);
  auto slotOf = [&s, mask](int32_t v) {
    uint64_t w[3];
    std::memcpy(w, s.xyz + 3 * v, sizeof w);
    uint64_t h = w[0] * 0x9E3779B97F4A7C15ull;
    h = (h ^ (h >> 29) ^ w[1]) * 0xBF58476D1CE4E5B9ull;
    h = (h ^ (h >> 31) ^ w[2]) * 0x94D049BB133111EBull;
    return static_cast<size_t>(h ^ (h >> 32)) & mask;
  };
  int32_t kept = 0;
  for (int32_t v = 0; v < nv; ++v) {
    const double* p = s.xyz + 3 * v;
    if (std::isnan(p[0]) || std::isnan(p[1]) || std::isnan(p[2])) {
      std::free(table);
      return 0;
    }
    size_t at = slotOf(v);
    while (table[at] >= 0 && !sameBits(s.xyz + 3 * table[at], s.xyz + 3 * v)) at = (at + 1) & mask;
    if (table[at] < 0) {
      table[at] = v;
      rep[v] = v;
      order[kept++] = v;
    } else {
      rep[v] = table[at];
    }
  }
  std::free(table);
  qvFloatKeys* keys = newArray<qvFloatKeys>(kept);
  if (!keys) return -1;
  for (int32_t i = 0; i < kept; ++i) {
    const double* p = s.xyz + 3 * order[i];
    keys[i] = {uint64_t{qvFloatKey(static_cast<float>(p[0]))} << 32 | qvFloatKey(static_cast<float>(p[1])),
               qvFloatKey(static_cast<float>(p[2])), order[i]};
  }
  const bool sorted = qvFloatKeysSort(keys, kept) == 0;
  for (int32_t i = 0; sorted && i < kept; ++i) order[i] = keys[i].pos;
  std::free(keys);
  return sorted ? kept : -1;
}

// Step 1: the vertex order and the weld. order receives the vertex numbers
// in x order (s.nOrdered of them); rank, each vertex's place in it. A mesh
// already marked as sorted by x keeps its list order. rep[v] becomes the
// vertex v is welded to, itself when it stays. False if memory ran out.
bool weld(const qvMesh* mesh, Soup& s, const double* tol, int32_t* order, int32_t* rep) {
  s.nOrdered = s.nv;
  if (!s.records && !tol && !(mesh->flags & kMeshSortX)) {
    const int32_t kept = weldByBits(s, order, rep);
    if (kept < 0) return false;
    if (kept > 0) {
      s.nOrdered = kept;
      return true;
    }
  }
  qvFloatKeys* floatKeys = nullptr;  // the keys in order, when the float sort ran
  if (mesh->flags & kMeshSortX) {
    for (int32_t i = 0; i < s.nv; ++i) order[i] = i;
  } else if (int32_t sorted = sortFloatCorners(s, order, &floatKeys); sorted <= 0) {
    if (sorted < 0) return false;
    VtxKey* keys = newArray<VtxKey>(s.nv);
    if (!keys) return false;
    for (int32_t i = 0; i < s.nv; ++i) {
      for (int k = 0; k < 3; ++k) keys[i].k[k] = qvCoordKey(s.xyz[3 * i + k]);
      keys[i].pos = i;
    }
    std::sort(keys, keys + s.nv, vtxKeyBefore);
    for (int32_t i = 0; i < s.nv; ++i) order[i] = keys[i].pos;
    std::free(keys);
  }
  for (int32_t i = 0; i < s.nv; ++i) rep[i] = -1;
  if (tol) weldNear(s, order, rep, tol);
  else weldExact(s, order, rep, floatKeys);
  std::free(floatKeys);
  for (int32_t i = 0; i < s.nv; ++i)
    if (rep[i] < 0) rep[i] = i;
  return true;
}

// Where the edges stand while they merge: each edge's triangles as a chain
// of entries, one entry per edge of the soup (the edge's own triangle),
// chained from head to tail through next.
struct EdgeLists {
  int32_t* head;   // first entry of the edge's chain, -1 when empty
  int32_t* tail;   // last entry
  int32_t* count;  // entries in the chain
  int32_t* next;   // entry behind an entry, -1 at the tail
};

// The survivor of two edges of a group takes over the other's triangles.
void mergePair(EdgeLists& l, int32_t a, int32_t b) {
  if (l.count[a] == 0 || l.count[b] == 0) return;
  const bool aGives = l.count[a] > l.count[b];
  const int32_t gives = aGives ? a : b;
  const int32_t stays = aGives ? b : a;
  l.next[l.tail[stays]] = l.head[gives];
  l.tail[stays] = l.tail[gives];
  l.count[stays] += l.count[gives];
  l.head[gives] = -1;
  l.count[gives] = 0;
}

// The survivors of the groups and their triangles, and the doubled
// triangles marked. group receives, for each edge, the edge its group merged
// into. gone[t] is set for each triangle that goes.
bool mergeEdges(const Soup& s, const int32_t* rep, const int32_t* rank, EdgeLists& l, int32_t* group,
                bool* gone) {
  const int32_t ne = s.ne;
  // The edges bucketed by their lower welded end (counting sort, by rank),
  // each bucket from the last edge of the list to the first.
  int32_t* start = newArray<int32_t>(s.nv + 1);
  int32_t* bucket = newArray<int32_t>(ne);
  int32_t* span = newArray<int32_t>(2 * ne);  // per edge: the ranks of its welded ends, lower first
  if (!start || !bucket || !span) {
    std::free(start);
    std::free(bucket);
    std::free(span);
    return false;
  }
  for (int32_t e = 0; e < ne; ++e) {
    const int32_t a = rank[rep[s.ends[2 * e]]], b = rank[rep[s.ends[2 * e + 1]]];
    span[2 * e] = a < b ? a : b;
    span[2 * e + 1] = a < b ? b : a;
  }
  auto lowEnd = [span](int32_t e) { return span[2 * e]; };
  auto highEnd = [span](int32_t e) { return span[2 * e + 1]; };
  for (int32_t i = 0; i <= s.nv; ++i) start[i] = 0;
  for (int32_t e = 0; e < ne; ++e) ++start[lowEnd(e) + 1];
  for (int32_t i = 0; i < s.nv; ++i) start[i + 1] += start[i];
  for (int32_t e = ne - 1; e >= 0; --e) bucket[start[lowEnd(e)]++] = e;
  for (int32_t i = s.nv; i > 0; --i) start[i] = start[i - 1];
  start[0] = 0;

  for (int32_t e = 0; e < ne; ++e) {
    l.head[e] = l.tail[e] = e;
    l.count[e] = 1;
    l.next[e] = -1;
    group[e] = e;
  }
  for (int32_t v = 0; v < s.nv; ++v) {
    int32_t* b = bucket + start[v];
    const int32_t n = start[v + 1] - start[v];
    // By the other end, keeping the order from the last edge to the first:
    // an insertion sort, as a bucket holds a handful of edges.
    for (int32_t i = 1; i < n; ++i) {
      const int32_t e = b[i];
      const int32_t key = highEnd(e);
      int32_t j = i;
      for (; j > 0 && highEnd(b[j - 1]) > key; --j) b[j] = b[j - 1];
      b[j] = e;
    }
    for (int32_t i = 0; i < n;) {
      int32_t end = i + 1;
      const int32_t key = highEnd(b[i]);
      while (end < n && highEnd(b[end]) == key) ++end;
      // A degenerate group's triangles all go; it merges nothing that stays.
      if (key != v) {
        for (int32_t x = i; x < end; ++x)
          for (int32_t y = x + 1; y < end && l.count[b[x]] > 0; ++y) mergePair(l, b[x], b[y]);
        int32_t survivor = b[i];
        for (int32_t x = i; x < end; ++x)
          if (l.count[b[x]] > 0) survivor = b[x];
        for (int32_t x = i; x < end; ++x) group[b[x]] = survivor;
      } else {
        for (int32_t x = i; x < end; ++x) {
          gone[s.owner[b[x]] / 3] = true;
          l.count[b[x]] = 0;
          l.head[b[x]] = -1;
        }
      }
      i = end;
    }
  }
  std::free(start);
  std::free(bucket);
  std::free(span);
  return true;
}

// The handle of a vertex of a stitchable soup, whose data is inline: worked
// out from the record's address, as reading dat would cost a visit to the
// record.
double* handleOf(qvVtx* v) {
  double* h = reinterpret_cast<double*>(reinterpret_cast<char*>(v) + sizeof(qvVtx));
  assert(h == v->dat);
  return h;
}

// The welded vertex at corner k of triangle t: where its edge in slot k starts.
int32_t cornerOf(const Soup& s, int32_t t, int32_t k) { return s.corner[3 * t + k]; }

// On each surviving edge in list order, among its triangles not yet gone, the
// first of each opposite corner stays and the others go.
bool markDoubled(const Soup& s, const EdgeLists& l, const int32_t* group, bool* gone) {
  struct Opp {
    int32_t corner;  // the welded vertex opposite the edge
    int32_t pos;     // place in the edge's chain
    int32_t t;       // the triangle
  };
  Opp few[kGroupFrom];
  Opp* many = nullptr;
  int32_t room = 0;
  for (int32_t e = 0; e < s.ne; ++e) {
    if (group[e] != e || l.count[e] < 2) continue;
    Opp* o = few;
    if (l.count[e] > kGroupFrom) {
      if (l.count[e] > room) {
        std::free(many);
        room = l.count[e];
        many = newArray<Opp>(room);
        if (!many) return false;
      }
      o = many;
    }
    int32_t m = 0, pos = 0;
    for (int32_t x = l.head[e]; x >= 0; x = l.next[x], ++pos) {
      const int32_t t = s.owner[x] / 3;
      if (!gone[t]) o[m++] = {cornerOf(s, t, (s.owner[x] % 3 + 2) % 3), pos, t};
    }
    if (m <= kGroupFrom) {
      for (int32_t a = 0; a < m; ++a)
        for (int32_t b = 0; b < a; ++b)
          if (o[b].corner == o[a].corner && !gone[o[b].t]) {
            gone[o[a].t] = true;
            break;
          }
    } else {
      std::sort(o, o + m, [](const Opp& a, const Opp& b) {
        return a.corner != b.corner ? a.corner < b.corner : a.pos < b.pos;
      });
      for (int32_t a = 1; a < m; ++a)
        if (o[a].corner == o[a - 1].corner) gone[o[a].t] = true;
    }
  }
  std::free(many);
  return true;
}

// Links a list of records given in order; the head, or null for none.
template <class T>
T* chainOf(T** items, int32_t n) {
  for (int32_t i = 0; i < n; ++i) {
    items[i]->prev = i > 0 ? items[i - 1] : nullptr;
    items[i]->next = i + 1 < n ? items[i + 1] : nullptr;
  }
  return n > 0 ? items[0] : nullptr;
}

// The soup that qvMeshAddFacet would make of the facets, one per corner
// triple in order, as arrays alone: facet f's corners c0, c1, c2 are vertices
// 3 (n-1-f) + 2, + 1, + 0 of the list, and its edges c1-c2, c0-c1, c2-c0
// edges 3 (n-1-f), + 1, + 2, since each facet goes in front of those before.
// Records are made later, for what stays. False when memory runs out.
bool soupOfCorners(const float* const* corners, int32_t n, Soup& s) {
  s.records = false;
  s.nv = s.ne = 3 * n;
  s.nt = n;
  s.vtx = static_cast<qvVtx**>(ftCalloc(static_cast<size_t>(s.nv) + 1, sizeof(qvVtx*)));
  s.xyz = newArray<double>(3 * s.nv);
  s.edg = static_cast<qvEdg**>(ftCalloc(static_cast<size_t>(s.ne) + 1, sizeof(qvEdg*)));
  s.ends = newArray<int32_t>(2 * s.ne);
  s.tri = static_cast<qvTri**>(ftCalloc(static_cast<size_t>(s.nt) + 1, sizeof(qvTri*)));
  s.slots = newArray<int32_t>(3 * s.nt);
  s.owner = newArray<int32_t>(s.ne);
  if (n > 0 && (!s.vtx || !s.xyz || !s.edg || !s.ends || !s.tri || !s.slots || !s.owner)) return false;
  for (int32_t f = 0; f < n; ++f) {
    if (!corners[f]) return false;
    const int32_t base = 3 * (n - 1 - f);
    int32_t c[3];
    for (int k = 0; k < 3; ++k) {
      c[k] = base + 2 - k;
      for (int d = 0; d < 3; ++d) s.xyz[3 * c[k] + d] = corners[f][3 * k + d];
    }
    const int32_t edge[3] = {base + 1, base, base + 2};  // by slot
    for (int k = 0; k < 3; ++k) {
      s.ends[2 * edge[k]] = c[k];
      s.ends[2 * edge[k] + 1] = c[(k + 1) % 3];
      s.slots[3 * f + k] = edge[k];
      s.owner[edge[k]] = 3 * f + k;
    }
  }
  return true;
}

// A list built at its tail as its records are made, each linked while it is
// still fresh in the cache.
template <class T>
struct TailChain {
  T* head = nullptr;
  T* tail = nullptr;
  void add(T* r) {
    r->prev = tail;
    if (tail) tail->next = r;
    else head = r;
    tail = r;
  }
};

// The vertex, edge and held edge lists of a soup made from corners.
struct MadeLists {
  qvVtx* vtx = nullptr;
  qvEdg* edg = nullptr;
  qvEdg* held = nullptr;
  qvTri* tri = nullptr;  // every triangle that stays, held ones included
};

// The records of a soup made from corners, for what stays, made in the order
// of the lists they form and linked into them (see weldAndLink): vertices
// with a zero normal slot, edges to be written, triangles on their edges, in
// soup order or, with triOrder, in that order (triangle numbers, ended by -1
// when short of nt). False when memory runs out, with none made.
bool makeRecords(Soup& s, const int32_t* order, const int32_t* rep, const bool* alive, const int32_t* group,
                 const int32_t* kept, const bool* gone, const int32_t* triOrder, MadeLists& lists) {
  bool ok = true;
  TailChain<qvVtx> vtx;
  for (int32_t i = 0; i < s.nOrdered && ok; ++i) {
    const int32_t v = order[i];
    if (rep[v] != v || !alive[v]) continue;
    s.vtx[v] = qvVtxNew(kVtxHasNormal, nullptr);
    ok = s.vtx[v] != nullptr;
    if (ok) {
      std::memcpy(qvVtxXyz(s.vtx[v]), s.xyz + 3 * v, 3 * sizeof(double));
      vtx.add(s.vtx[v]);
    }
  }
  // Boundary edges last first, then edges of two triangles first first; the
  // held edges of more, last first, in a list of their own.
  TailChain<qvEdg> edg, held;
  auto make = [&s, &ok](int32_t e, TailChain<qvEdg>& chain) {
    ok = (s.edg[e] = qvEdgNew(nullptr, nullptr, 0, 0)) != nullptr;
    if (ok) chain.add(s.edg[e]);
  };
  for (int32_t e = s.ne - 1; e >= 0 && ok; --e)
    if (group[e] == e && kept[e] == 1) make(e, edg);
  for (int32_t e = 0; e < s.ne && ok; ++e)
    if (group[e] == e && kept[e] == 2) make(e, edg);
  for (int32_t e = s.ne - 1; e >= 0 && ok; --e)
    if (group[e] == e && kept[e] > 2) make(e, held);
  TailChain<qvTri> tri;
  // The edge records of slots naming survivors, or any edges with through.
  auto makeTri = [&](int32_t t, const int32_t* through) {
    const int32_t* k = s.slots + 3 * t;
    s.tri[t] = through ? qvTriNew(s.edg[through[k[0]]], s.edg[through[k[1]]], s.edg[through[k[2]]], 0)
                       : qvTriNew(s.edg[k[0]], s.edg[k[1]], s.edg[k[2]], 0);
    ok = s.tri[t] != nullptr;
    if (ok) tri.add(s.tri[t]);
  };
  if (triOrder) {
    // The order jumps about the soup. Each slot first names its edge's
    // survivor, in one pass in soup order, where the groups are read nearly
    // in order too (group maps a survivor to itself, so whatever reads
    // group[slot] later reads the same); then the slots and the records of
    // their edges are asked for some triangles ahead.
    for (int32_t i = 0; i < 3 * s.nt; ++i) s.slots[i] = group[s.slots[i]];
    constexpr int32_t kAheadSlots = 16, kAheadEdges = 8;
    int32_t n = 0;
    while (n < s.nt && triOrder[n] >= 0) ++n;
    for (int32_t i = 0; i < n && ok; ++i) {
      if (i + kAheadSlots < n) __builtin_prefetch(s.slots + 3 * triOrder[i + kAheadSlots]);
      if (i + kAheadEdges < n)
        for (int k = 0; k < 3; ++k) __builtin_prefetch(s.edg + s.slots[3 * triOrder[i + kAheadEdges] + k]);
      makeTri(triOrder[i], nullptr);
    }
  } else {
    for (int32_t t = 0; t < s.nt && ok; ++t)
      if (!gone[t]) makeTri(t, group);
  }
  if (!ok) {
    for (int32_t i = 0; i < s.nv; ++i) qvVtxFree(s.vtx[i]);
    for (int32_t i = 0; i < s.ne; ++i) qvEdgFree(s.edg[i]);
    for (int32_t i = 0; i < s.nt; ++i) qvTriFree(s.tri[i]);
    return false;
  }
  lists = {vtx.head, edg.head, held.head, tri.head};
  return true;
}

// Where no edge has more than two triangles, adjacency is final after step 3
// and can be read off the edges' chains before any triangle is made: per
// triangle slot the neighbour across it, or -1. consistent tells whether
// every shared edge is run in opposite directions by its two triangles. Null
// when memory runs out.
int32_t* adjOnArrays(const Soup& s, const int32_t* group, const int32_t* kept, const EdgeLists& l,
                     bool& consistent) {
  int32_t* adj = newArray<int32_t>(3 * s.nt);
  consistent = true;
  if (!adj) return nullptr;
  for (int32_t i = 0; i < 3 * s.nt; ++i) adj[i] = -1;
  for (int32_t e = 0; e < s.ne; ++e) {
    if (group[e] != e || kept[e] != 2) continue;
    const int32_t x = s.owner[l.head[e]], y = s.owner[l.next[l.head[e]]];
    adj[x] = y / 3;
    adj[y] = x / 3;
    consistent = consistent && cornerOf(s, x / 3, x % 3) == cornerOf(s, y / 3, (y % 3 + 1) % 3);
  }
  return adj;
}

// The flood that gathers the shells (qvMeshShells), run on the arrays over
// the triangles that stay, in soup order: each triangle's unreached
// neighbours are moved directly behind it, so the list that results stands
// in the order the records would take, each shell an unbroken run. The
// triangle numbers in that order, ended by -1 when fewer than nt stay, and
// the shells in pieces; null when none stays or memory runs out.
int32_t* floodOnArrays(const Soup& s, const int32_t* adj, const bool* gone, int32_t* pieces) {
  const int32_t nt = s.nt;
  int32_t* next = newArray<int32_t>(nt);
  int32_t* prev = newArray<int32_t>(nt);
  bool* reached = static_cast<bool*>(ftCalloc(static_cast<size_t>(nt) + 1, sizeof(bool)));
  int32_t* flood = newArray<int32_t>(nt + 1);
  int32_t head = -1, last = -1, shells = 0;
  bool ok = next && prev && reached && flood;
  for (int32_t t = 0; ok && t < nt; ++t) {
    if (gone[t]) continue;
    if (last >= 0) next[last] = t;
    else head = t;
    prev[t] = last;
    last = t;
  }
  if (ok && last >= 0) next[last] = -1;
  if (ok) shells = qvFloodAll(adj, next, prev, &head, reached);
  int32_t n = 0;
  for (int32_t t = ok && shells >= 1 ? head : -1; t >= 0; t = next[t]) flood[n++] = t;
  if (n < nt && flood) flood[n] = -1;
  std::free(next);
  std::free(prev);
  std::free(reached);
  if (ok && shells >= 1) {
    *pieces = shells;
    return flood;
  }
  std::free(flood);
  return nullptr;
}

// With the adjacency of adjOnArrays, two later steps are settled on the
// arrays too. The vertices of more than one fan are found by walking each
// vertex's fan across the triangles' neighbours; only they get the list of
// their triangles (in reverse soup order, as step 5 builds it) and are
// split. And when the orientation is consistent it has nothing to turn: each
// edge is then laid along the first triangle in soup order that holds it,
// from its corner at the edge's slot, as the orientation step would. False
// if memory ran out.
bool settleManifold(Stitch& st, Soup& s, const int32_t* order, const int32_t* group,
                    const int32_t* kept, const EdgeLists& l, const bool* gone, const int32_t* adj,
                    bool consistent) {
  const int32_t nt = s.nt, nv = s.nv;
  int32_t* deg = static_cast<int32_t*>(ftCalloc(static_cast<size_t>(nv) + 1, sizeof(int32_t)));
  int32_t* start = newArray<int32_t>(nv);    // per vertex: 3 x a triangle at it + its corner there
  bool ok = adj && deg && start;
  for (int32_t t = 0; ok && t < nt; ++t)
    if (!gone[t])
      for (int k = 0; k < 3; ++k) {
        const int32_t v = cornerOf(s, t, k);
        if (deg[v]++ == 0) start[v] = 3 * t + k;
      }
  // The slot of the other edge at corner k than the one in slot k.
  auto otherAt = [](int32_t k) { return (k + 2) % 3; };
  // The triangles reached round v from start's triangle, crossing first the
  // edge in slot across, then always the edge at v not crossed yet; the walk
  // stops back at the start (closed), at a boundary, or past limit steps.
  auto walk = [&](int32_t v, int32_t from, int32_t across, int32_t limit, bool& closed) {
    const int32_t t0 = from / 3;
    int32_t t = t0, slot = across, n = 0;
    closed = false;
    while (n <= limit) {
      const int32_t u = adj[3 * t + slot];
      if (u < 0) return n;
      if (u == t0) {
        closed = true;
        return n;
      }
      ++n;
      const int32_t shared = group[s.slots[3 * t + slot]];
      int32_t ku = 0;
      while (ku < 3 && cornerOf(s, u, ku) != v) ++ku;
      if (ku == 3) return limit + 1;
      slot = group[s.slots[3 * u + ku]] == shared ? otherAt(ku) : ku;
      t = u;
    }
    return n;
  };
  int32_t nFans = 0;
  for (int32_t i = 0; ok && i < s.nOrdered; ++i) {
    const int32_t v = order[i];
    if (deg[v] == 0) continue;
    bool closed = false;
    const int32_t k = start[v] % 3;
    int32_t reached = 1 + walk(v, start[v], k, deg[v], closed);
    if (!closed) reached += walk(v, start[v], otherAt(k), deg[v], closed);
    if (reached != deg[v]) {
      deg[v] = -deg[v];  // a vertex to split
      ++nFans;
    }
  }
  if (ok) {
    st.fans = newArray<qvVtx*>(nFans + 1);
    ok = st.fans != nullptr;
  }
  st.nFans = 0;
  for (int32_t i = 0; ok && i < s.nOrdered; ++i)
    if (deg[order[i]] < 0) st.fans[st.nFans++] = s.vtx[order[i]];
  for (int32_t t = 0; ok && nFans > 0 && t < nt; ++t)
    if (!gone[t])
      for (int k = 0; k < 3 && ok; ++k) {
        const int32_t v = cornerOf(s, t, k);
        if (deg[v] < 0) ok = st.refs.push(s.vtx[v]->link, s.tri[t]);
      }
  if (ok && consistent) {
    for (int32_t e = 0; e < s.ne; ++e) {
      if (group[e] != e || kept[e] == 0) continue;
      int32_t x = s.owner[l.head[e]];
      if (kept[e] == 2 && s.owner[l.next[l.head[e]]] < x) x = s.owner[l.next[l.head[e]]];
      qvEdg* r = s.edg[e];
      r->ends[0] = handleOf(s.vtx[cornerOf(s, x / 3, x % 3)]);
      r->ends[1] = handleOf(s.vtx[cornerOf(s, x / 3, (x % 3 + 1) % 3)]);
    }
    st.oriented = true;
    st.mesh->flags &= ~kMeshPassSet;
  }
  std::free(deg);
  std::free(start);
  if (!ok) st.nFans = -1;
  return ok;
}

// Steps 1-3 on a soup (see above). On failure the mesh holds every record it
// held, with the working fields clear, or, once records are written, the
// mesh as it stands after step 3.
bool weldAndLink(Stitch& st, Soup& s, const double* tol) {
  qvMesh* mesh = st.mesh;
  const int32_t nv = s.nv, ne = s.ne, nt = s.nt;
  int32_t* order = newArray<int32_t>(nv > ne ? nv : ne);
  int32_t* rep = newArray<int32_t>(nv);
  int32_t* rank = newArray<int32_t>(nv);
  int32_t* group = newArray<int32_t>(ne);
  int32_t* kept = newArray<int32_t>(ne);  // per edge: its triangles that stay
  EdgeLists l{newArray<int32_t>(ne), newArray<int32_t>(ne), newArray<int32_t>(ne), newArray<int32_t>(ne)};
  bool* gone = static_cast<bool*>(ftCalloc(static_cast<size_t>(nt) + 1, sizeof(bool)));
  bool* alive = static_cast<bool*>(ftCalloc(static_cast<size_t>(nv) + 1, sizeof(bool)));
  void** items = newArray<void*>(nv > ne ? nv : ne);
  bool ok = nt == 0 || (order && rep && rank && group && kept && l.head && l.tail && l.count && l.next && gone &&
                        alive && items);
  if (ok && nt > 0) {
    ok = weld(mesh, s, tol, order, rep);
    s.corner = ok ? newArray<int32_t>(3 * nt) : nullptr;
    ok = s.corner != nullptr;
    for (int32_t i = 0; ok && i < 3 * nt; ++i) s.corner[i] = rep[s.ends[2 * s.slots[i]]];
    for (int32_t i = 0; ok && i < s.nOrdered; ++i) rank[order[i]] = i;
    ok = ok && mergeEdges(s, rep, rank, l, group, gone) && markDoubled(s, l, group, gone);
  }
  if (!ok || nt == 0) {
    std::free(order), std::free(rep), std::free(rank), std::free(group), std::free(kept);
    std::free(l.head), std::free(l.tail), std::free(l.count), std::free(l.next);
    std::free(gone), std::free(alive), std::free(items);
    if (ok) {
      // No triangle: nothing stays.
      qvVtxDeleteAll(mesh->vtx);
      mesh->vtx = nullptr;
      mesh->flags &= ~kMeshSortedSet;
    }
    return ok;
  }

  // Each surviving edge's triangles that stay, chained again.
  for (int32_t e = 0; e < ne; ++e) {
    kept[e] = 0;
    if (group[e] != e) continue;
    int32_t* link = &l.head[e];
    for (int32_t x = l.head[e]; x >= 0; x = l.next[x]) {
      if (gone[s.owner[x] / 3]) continue;
      *link = x;
      link = &l.next[x];
      ++kept[e];
    }
    *link = -1;
  }
  for (int32_t t = 0; t < nt; ++t)
    if (!gone[t])
      for (int k = 0; k < 3; ++k) alive[cornerOf(s, t, k)] = true;
  // A soup made from corners with no edge of more than two triangles has
  // its adjacency from the arrays; when its orientation is consistent, its
  // triangles are made in the order of the shells' flood, which their lists
  // end in anyway.
  bool manifold = true;
  for (int32_t e = 0; e < ne && manifold; ++e) manifold = group[e] != e || kept[e] <= 2;
  bool consistent = false;
  int32_t* adj = !s.records && manifold ? adjOnArrays(s, group, kept, l, consistent) : nullptr;
  int32_t pieces = 0;
  int32_t* flood = adj && consistent ? floodOnArrays(s, adj, gone, &pieces) : nullptr;
  MadeLists made;
  const bool madeAll = s.records || ((adj || !manifold) && makeRecords(s, order, rep, alive, group, kept, gone,
                                                                       flood, made));
  s.flooded = madeAll && flood ? pieces : 0;
  std::free(flood);
  if (!madeAll) {
    std::free(order), std::free(rep), std::free(rank), std::free(group), std::free(kept);
    std::free(l.head), std::free(l.tail), std::free(l.count), std::free(l.next);
    std::free(gone), std::free(alive), std::free(items), std::free(adj);
    return false;
  }
  for (int32_t t = 0; s.records && t < nt; ++t)
    if (!gone[t])
      for (int k = 0; k < 3; ++k) s.tri[t]->edg[k] = s.edg[group[s.slots[3 * t + k]]];
  for (int32_t e = 0; e < ne; ++e) {
    if (group[e] != e || kept[e] == 0) continue;
    qvEdg* r = s.edg[e];
    r->ends[0] = handleOf(s.vtx[rep[s.ends[2 * e]]]);
    r->ends[1] = handleOf(s.vtx[rep[s.ends[2 * e + 1]]]);
    if (kept[e] == 2) {
      const int32_t x = l.head[e], y = l.next[x];
      s.tri[s.owner[x] / 3]->adj[s.owner[x] % 3] = s.tri[s.owner[y] / 3];
      s.tri[s.owner[y] / 3]->adj[s.owner[y] % 3] = s.tri[s.owner[x] / 3];
    }
  }

  // The lists, and the records that go; a soup made from corners has its
  // lists linked already and no record that goes.
  int32_t n = 0;
  if (s.records) {
    for (int32_t i = 0; i < nv; ++i) {
      const int32_t v = order[i];
      if (rep[v] == v && alive[v]) items[n++] = s.vtx[v];
      else qvVtxFree(s.vtx[v]);
    }
    made.vtx = chainOf(reinterpret_cast<qvVtx**>(items), n);
    n = 0;
    for (int32_t e = ne - 1; e >= 0; --e)
      if (group[e] == e && kept[e] == 1) items[n++] = s.edg[e];
    for (int32_t e = 0; e < ne; ++e)
      if (group[e] == e && kept[e] == 2) items[n++] = s.edg[e];
    made.edg = chainOf(reinterpret_cast<qvEdg**>(items), n);
  }
  mesh->vtx = made.vtx;
  mesh->edg = made.edg;
  int32_t nHeld = 0;
  for (int32_t e = ne - 1; e >= 0; --e)
    if (group[e] == e && kept[e] > 2) {
      items[nHeld] = s.edg[e];
      order[nHeld++] = e;  // the vertex order is done with: it numbers the held edges now
    }
  mesh->edgHeld = s.records ? chainOf(reinterpret_cast<qvEdg**>(items), nHeld) : made.held;
  for (int32_t e = 0; s.records && e < ne; ++e)
    if (group[e] != e || kept[e] == 0) qvEdgFree(s.edg[e]);
  for (int32_t t = 0; t < nt; ++t)
    if (gone[t]) qvTriFree(s.tri[t]);
  // The triangles of held edges wait apart, in reverse order of their first
  // appearance there; they are then out of the triangle list like those gone.
  qvTri* held = nullptr;
  for (int32_t i = 0; i < nHeld; ++i)
    for (int32_t x = l.head[order[i]]; x >= 0; x = l.next[x]) {
      const int32_t t = s.owner[x] / 3;
      if (gone[t]) continue;
      gone[t] = true;
      if (!s.records) made.tri = listUnlink(made.tri, s.tri[t]);
      held = listPrepend(held, s.tri[t]);
    }
  mesh->triHeld = held;
  n = 0;
  for (int32_t t = 0; s.records && t < nt; ++t)
    if (!gone[t]) items[n++] = s.tri[t];
  mesh->tri = s.records ? chainOf(reinterpret_cast<qvTri**>(items), n) : made.tri;
  mesh->flags &= ~kMeshSortedSet;
  // A soup given as records keeps the steps that settle it on records: the
  // result is the same, and its assembly is the one the other is checked by.
  if (nHeld == 0 && !s.records) ok = settleManifold(st, s, order, group, kept, l, gone, adj, consistent);
  // Held edges carry the list of their triangles, in order.
  for (int32_t i = 0; ok && i < nHeld; ++i) {
    const int32_t e = order[i];
    n = 0;
    for (int32_t x = l.head[e]; x >= 0; x = l.next[x]) items[n++] = s.tri[s.owner[x] / 3];
    while (ok && n > 0) ok = st.refs.push(s.edg[e]->link, items[--n]);
  }
  std::free(order), std::free(rep), std::free(rank), std::free(group), std::free(kept);
  std::free(l.head), std::free(l.tail), std::free(l.count), std::free(l.next);
  std::free(gone), std::free(alive), std::free(items), std::free(adj);
  return ok;
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

// The sheets of the triangles of held edges: each the triangles reached from
// one across edges that have two triangles.
using Sheets = std::unordered_map<const qvTri*, int32_t>;

void sheetsOf(const qvMesh* mesh, Sheets* sheet) {
  std::vector<const qvTri*> stack;
  int32_t id = 0;
  for (const qvEdg* e = mesh->edgHeld; e; e = e->next)
    for (const qvLnk* l = lnkOf(e->link); l; l = l->next) {
      if (!sheet->emplace(triOf(l), id).second) continue;
      stack.push_back(triOf(l));
      while (!stack.empty()) {
        const qvTri* t = stack.back();
        stack.pop_back();
        for (const qvTri* n : t->adj)
          if (n && sheet->emplace(n, id).second) stack.push_back(n);
      }
      ++id;
    }
}

// Where e's triangles don't alternate, a sheet that meets e with exactly two
// of them, in opposite senses, goes on across e: they are paired, so that a
// fin or a loose layer the input laid on the sheet comes off it alone, where
// pulling every triangle apart would slit the sheet along e and part its
// fans at e's ends. False on failure.
bool pairSheets(Stitch& s, qvEdg* e, const Sheets& sheet) {
  std::vector<qvTri*> tris;
  for (const qvLnk* l = lnkOf(e->link); l; l = l->next) tris.push_back(triOf(l));
  bool paired = false;
  for (size_t i = 0; i < tris.size(); ++i) {
    const auto si = sheet.find(tris[i]);
    if (si == sheet.end()) continue;
    size_t other = tris.size(), same = 1;
    for (size_t j = 0; j < tris.size(); ++j) {
      if (j == i) continue;
      const auto sj = sheet.find(tris[j]);
      if (sj == sheet.end() || sj->second != si->second) continue;
      ++same;
      other = j;
    }
    if (same != 2 || other < i) continue;
    double* h[3];
    double* g[3];
    if (qvTriCorners(tris[i], 0, h) != 0 || qvTriCorners(tris[other], 0, g) != 0) return false;
    auto forward = [e](double* const* c) {
      for (int k = 0; k < 3; ++k)
        if (c[k] == e->ends[0]) return c[(k + 1) % 3] == e->ends[1];
      return false;
    };
    if (forward(h) == forward(g)) continue;
    if (!linkAcross(s, e, tris[i], tris[other]) || !dropAll(s.refs, e->link, tris[i]) ||
        !dropAll(s.refs, e->link, tris[other]))
      return false;
    paired = true;
  }
  if (paired) ++s.groups;
  return true;
}

// Each triangle of a held edge that was not paired gets a piece of its own: a
// copy for all but the last, which keeps the edge. Copies go to the head of
// edgHeld, in front of the walk. A piece's link is then its one triangle, not
// a list. An edge whose triangles all paired goes.
bool pullApart(Stitch& s) {
  qvMesh* mesh = s.mesh;
  Sheets sheet;
  sheetsOf(mesh, &sheet);
  for (qvEdg* e = mesh->edgHeld, *next = nullptr; e; e = next) {
    next = e->next;  // read before e may go
    // The sheets met along this edge: every edge made from it, and its ends
    // and their copies, are kept where they are.
    e->flags |= kEdgJoint;
    qvVtxOf(e->ends[0])->flags |= kVtxJoint;
    qvVtxOf(e->ends[1])->flags |= kVtxJoint;
    if (!pairBodies(s, e) || (e->link && !pairSheets(s, e, sheet))) return false;
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
    if (level > 0) v->flags |= kVtxJoint;  // sheets met here: v and its clones stay
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

// Vertices of one fan are left as they are, so where the vertices of more
// than one fan are known already, only those are split.
bool splitVertices(Stitch& s) {
  qvMesh* mesh = s.mesh;
  bool ok = true;
  if (s.nFans >= 0) {
    for (int32_t i = 0; i < s.nFans && ok; ++i) ok = splitFans(mesh, s.fans[i]);
    for (int32_t i = 0; i < s.nFans; ++i) s.fans[i]->link = nullptr;
    s.nFans = -1;
  } else {
    ok = vtxTriLists(s);
    for (qvVtx* v = mesh->vtx; v && ok; v = v->next) ok = splitFans(mesh, v);
  }
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

namespace {

// The stitch of a numbered soup (see qvMeshStitch).
int32_t stitchSoup(qvMesh* mesh, Soup& soup, const double* tol) {
  Stitch s{mesh, {}, {}};
  const bool ok = weldAndLink(s, soup, tol) && pullApart(s) && splitVertices(s) && unpairJoined(s) && rejoin(mesh);
  if (!ok) {
    stitchRelease(s);
    return FT_FAIL(-1);
  }
  // Step 7: this mesh's edges hold no list after step 3; those of meshes
  // chained behind it are their own.
  qvEdgListsFree(mesh->next, qvLnkListFree);
  if (!s.oriented && !orient(mesh)) return FT_FAIL(-1);
  mesh->flags |= kMeshStitched;
  return 0;
}

}  // namespace

int32_t qvMeshStitch(qvMesh* mesh, const double* tol) {
  if (!mesh || !stitchable(mesh)) return FT_FAIL(-1);
  Soup soup;
  if (!numberSoup(mesh, soup)) return FT_FAIL(-1);
  return stitchSoup(mesh, soup, tol);
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
// mesh of the new part of the chain through last; the count, or -1. The
// marks are cleared along a trail of the triangles passed, not by chasing
// the list again in its new order.
// With flooded, the list stands in that order already and nothing moves.
int32_t splitTriangles(qvMesh* mesh, qvMesh*& last, bool flooded) {
  int32_t shells = 0;
  qvMesh* c = mesh;
  ftmesh::Trail<qvTri> passed;
  for (qvTri* t = mesh->tri; t; t = t->next) {
    ftmesh::trailNote(passed, t);
    if (!(t->flags & kTriMarkVisit)) {
      t->flags |= kTriMarkVisit;
      if (shells > 0) {
        qvMesh* m = t->prev ? qvMeshNew(nullptr, nullptr, nullptr, mesh->flags) : nullptr;
        if (!m) {
          shells = -1;
          passed.lost = true;
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
      if (!flooded) moveBehind(c->tri, t, n);
    }
  }
  last = c;
  if (!ftmesh::trailAnd(passed, kMarkKeep)) {
    for (qvMesh* m = mesh;; m = m->next) {
      qvTriAndAll(m->tri, kMarkKeep);
      if (m == c) break;
    }
  }
  ftmesh::trailFree(passed);
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

namespace {

int32_t shellsOf(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*), bool flooded) {
  if (!mesh || !clone) return FT_FAIL(-1);
  qvMesh* last = mesh;
  int32_t shells = splitTriangles(mesh, last, flooded);
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

}  // namespace

int32_t qvMeshShells(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*)) { return shellsOf(mesh, clone, false); }

int32_t qvMeshShellsFlooded(qvMesh* mesh, qvVtx* (*clone)(const qvVtx*)) { return shellsOf(mesh, clone, true); }

int32_t qvMeshAssemble(qvMesh* mesh, const double* tol) {
  if (qvMeshStitch(mesh, tol) != 0) return FT_FAIL(-1);
  return qvMeshShells(mesh, qvVtxClone);
}

qvMesh* qvMeshAssembleCorners(const float* const* corners, int32_t n, const double* tol, int32_t* shells) {
  int32_t unused;
  int32_t& count = shells ? *shells : unused;
  count = -1;
  if (!corners || n < 0 || n > INT32_MAX / 3) return FT_FAIL(nullptr);
  qvMesh* mesh = qvMeshNew(nullptr, nullptr, nullptr, kMeshOwnsVtx);
  if (!mesh) return FT_FAIL(nullptr);
  Soup soup;
  if (!soupOfCorners(corners, n, soup) || stitchSoup(mesh, soup, tol) != 0) return FT_FAIL(mesh);
  // Shells flooded on the arrays have their lists in flood order already,
  // and their records, made in that order, mostly lie in it too; they are
  // split without moving a triangle. Shells split on the records are laid
  // out here. A list that already runs up through memory stays as it is.
  if (soup.flooded == 1) count = 1;
  else if (soup.flooded > 1) count = qvMeshShellsFlooded(mesh, qvVtxClone);
  else count = qvMeshShells(mesh, qvVtxClone);
  for (qvMesh* shell = count > 0 ? mesh : nullptr; shell; shell = shell->next) (void)qvMeshCompact(shell);
  return mesh;
}

int32_t qvFloodAll(const int32_t* adj, int32_t* next, int32_t* prev, int32_t* head, bool* reached) {
  int32_t pieces = 0;
  for (int32_t t = *head; t >= 0; t = next[t]) {
    if (!reached[t]) {
      ++pieces;
      reached[t] = true;
    }
    for (int k = 0; k < 3; ++k) {
      const int32_t u = adj[3 * t + k];
      if (u < 0 || reached[u]) continue;
      reached[u] = true;
      // u out of the list, then in behind t.
      if (prev[u] >= 0) next[prev[u]] = next[u];
      else *head = next[u];
      if (next[u] >= 0) prev[next[u]] = prev[u];
      prev[u] = t;
      next[u] = next[t];
      if (next[t] >= 0) prev[next[t]] = u;
      next[t] = u;
    }
  }
  return pieces;
}
