// Cutting one shell into two meshes that share no record, so that two threads
// can reduce them without locks. The triangles are sorted along the longest
// axis of the shell's box and the lower half goes to a new mesh; the vertices
// on the cut carry kVtxPinned, which keeps the engine from removing them and
// so keeps the two halves matching along the cut without later repair.
//
// The file reads in run order: the twelve triangle orderings and the sort,
// choosing the sides, splitting by a triangle flag, splitting vertices where
// a half's boundary touches itself, gathering a half into its pieces, and
// last the cut that strings them up.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include "parallel/parallel_internal.h"
#include "kernels/alloc.h"
#include "kernels/failure.h"

namespace {

// Marks of a split. The side bit is the caller's mask; qvMeshCut passes
// kCutSide. A vertex learns which sides use it from the edges at its ends.
constexpr uint32_t kCutSide = kTriMarkVisit;  // triangle goes to the new mesh
constexpr uint32_t kUsedOld = kVtxMarkVisit;  // an edge left in the old mesh uses the vertex
constexpr uint32_t kUsedNew = kVtxMarkBnd;    // an edge of the new mesh uses the vertex
constexpr uint32_t kEdgMoved = kEdgMarkVisit; // edge dealt with: moved or copied to the new mesh

// A pinched vertex has its boundary edges marked with this while its fans are
// given clones, and loses it edge by edge as each fan is closed.
constexpr uint32_t kEdgOpenFan = kEdgMarkVisit;

// Largest list the sort takes: its pointer array's size in bytes must be a
// positive signed 32-bit number.
constexpr int32_t kSortMax = 268435455;

// A list built at its tail, so that records keep their relative order.
template <class T>
struct Chain {
  T *head = nullptr;
  T *tail = nullptr;
};

template <class T>
void chainAppend(Chain<T> &c, T *r) {
  r->prev = c.tail;
  r->next = nullptr;
  if (c.tail) c.tail->next = r;
  else c.head = r;
  c.tail = r;
}

// The new side's edges in chain order, noted as they are appended, so that
// the passes over them run through an array with the records asked for
// ahead instead of chasing the chain through memory. at is null when no
// memory could be had, and the passes then walk the chain.
struct MovedEdges {
  qvEdg **at;  // the edges in chain order, or null
  int32_t n;   // how many were noted
};

constexpr int32_t kAheadEdge = 16;  // edges between a prefetch and the read
constexpr int32_t kAheadEnds = 8;   // edges between a prefetch of their ends and the read

// Calls fn on each new edge in chain order until it returns false; whether
// every call returned true.
template <class Fn>
bool eachMoved(const MovedEdges &moved, const Chain<qvEdg> &edg, Fn fn) {
  if (!moved.at) {
    for (qvEdg *e = edg.head; e; e = e->next)
      if (!fn(e)) return false;
    return true;
  }
  for (int32_t i = 0; i < moved.n; ++i) {
    if (i + kAheadEdge < moved.n) __builtin_prefetch(moved.at[i + kAheadEdge], 1);
    if (i + kAheadEnds < moved.n)
      for (const double *h : moved.at[i + kAheadEnds]->ends)
        if (h) __builtin_prefetch(qvVtxOf(h), 1);
    if (!fn(moved.at[i])) return false;
  }
  return true;
}

// ---------------------------------------------------------------------------
// The twelve orderings

// An ordering compares the low (corner 0) or high (corner 1) corners of two
// triangles' boxes on axis, then on the next axes cyclically; ascending for
// direction 1, descending for 0. A triangle whose corners can't be read sorts
// after every other (before, descending). Equal triangles keep their list
// order. Each triangle's box is read once, into a key of integers that order
// as the coordinates do: 0.0 and -0.0 alike, NaN after every number, so that
// a hostile value can't make the order inconsistent. The key's last word is
// the place in the list, so the order is total: the same for the same list
// whatever the sort algorithm, and two threads may sort at once.
struct TriKey {
  uint64_t k[4];  // unreadable, then the three coordinates; complemented descending
  int32_t pos;    // place in the list
};

bool keyBefore(const TriKey &a, const TriKey &b) {
  for (int i = 0; i < 4; ++i)
    if (a.k[i] != b.k[i]) return a.k[i] < b.k[i];
  return a.pos < b.pos;
}

TriKey triKey(const qvTri *t, int32_t pos, int32_t direction, int32_t axis, int32_t corner) {
  TriKey key{{0, 0, 0, 0}, pos};
  qvBox box;
  if (qvTriBox(t, &box) < 0) key.k[0] = 1;
  else
    for (int k = 0; k < 3; ++k) key.k[1 + k] = qvCoordKey(*box[corner * 3 + (axis + k) % 3]);
  if (direction == 0)
    for (uint64_t &w : key.k) w = ~w;
  return key;
}

constexpr int32_t kAhead = 8;  // triangles between a corner prefetch and the read

// The same order in 16 bytes a triangle when every coordinate it compares is
// a float widened, as from a file: the three keys of the box corner fit in
// 96 bits (qvFloatKey), and a stable radix sort of them, from keys made in
// list order, gives the order of keyBefore. False, with keys to be made the
// general way, for a triangle whose corners can't be read or a coordinate
// that is no float.
bool floatKeys(qvTri *const *order, int32_t n, int32_t direction, int32_t axis, int32_t corner,
               qvFloatKeys *keys) {
  const uint32_t flip = direction == 0 ? UINT32_MAX : 0;
  for (int32_t i = 0; i < n; ++i) {
    if (i + 2 * kAhead < n) qvTriPrefetchEdges(order[i + 2 * kAhead]);
    if (i + kAhead < n) qvTriPrefetchCorners(order[i + kAhead]);
    qvBox box;
    if (qvTriBox(order[i], &box) < 0) return false;
    uint32_t k[3];
    for (int a = 0; a < 3; ++a) {
      const double d = *box[corner * 3 + (axis + a) % 3];
      const float f = static_cast<float>(d);
      if (!std::isnan(d) && static_cast<double>(f) != d) return false;
      k[a] = qvFloatKey(f) ^ flip;
    }
    keys[i] = {uint64_t{k[0]} << 32 | k[1], k[2], i};
  }
  return true;
}

// ---------------------------------------------------------------------------
// Splitting by a triangle flag

void clearSplitMarks(Chain<qvTri> &tri, Chain<qvEdg> &edg, const MovedEdges &moved,
                     Chain<qvVtx> &vtx, qvMesh *mesh, uint32_t mask) {
  for (qvTri *t = tri.head; t; t = t->next) t->flags &= ~mask;
  (void)eachMoved(moved, edg, [](qvEdg *e) {
    e->flags &= ~kEdgMoved;
    return true;
  });
  for (qvVtx *v = vtx.head; v; v = v->next) v->flags &= ~(kUsedOld | kUsedNew);
  for (qvVtx *v = mesh->vtx; v; v = v->next) v->flags &= ~(kUsedOld | kUsedNew);
}

// Gives the new mesh's records back to the old mesh after a failed split.
// What was done stays done: cleared adjacencies, seam edge copies, vertex
// clones and the links to them. The mesh is good only for being freed.
int32_t splitAbandon(qvMesh *mesh, qvMesh *split, Chain<qvTri> &tri, Chain<qvEdg> &edg,
                     const MovedEdges &moved, Chain<qvVtx> &vtx, uint32_t mask,
                     qvMeshPair *pair) {
  clearSplitMarks(tri, edg, moved, vtx, mesh, mask);
  mesh->tri = qvTriConcat(mesh->tri, tri.head);
  mesh->edg = qvEdgConcat(mesh->edg, edg.head);
  mesh->vtx = qvVtxConcat(mesh->vtx, vtx.head);
  if (split) {
    split->tri = nullptr;
    qvMeshFree(split);
  }
  pair->first = mesh;
  pair->second = nullptr;
  return 1;
}

// Sets bit on the records of both ends of an edge; false for a missing end.
bool markEnds(qvEdg *e, uint32_t bit) {
  if (!e->ends[0] || !e->ends[1]) return false;
  qvVtxOf(e->ends[0])->flags |= bit;
  qvVtxOf(e->ends[1])->flags |= bit;
  return true;
}

// The same for every edge of a list; false at the first edge with a missing end.
bool markListEnds(qvEdg *head, uint32_t bit) {
  for (qvEdg *e = head; e; e = e->next)
    if (!markEnds(e, bit)) return false;
  return true;
}

// Once the moved triangles stand in their own list, their edges follow: every
// edge of a moved triangle goes to the new mesh. An edge shared with a triangle
// that stays is a seam edge: the neighbour keeps it, and the moved triangle
// gets a copy, so each side has its own boundary.
bool splitEdges(qvMesh *mesh, qvTri *movedTri, uint32_t mask, Chain<qvEdg> &edg,
                MovedEdges &moved) {
  auto append = [&edg, &moved](qvEdg *e) {
    chainAppend(edg, e);
    if (moved.at) moved.at[moved.n++] = e;
  };
  for (qvTri *t = movedTri; t; t = t->next) {
    for (int32_t i = 0; i < 3; ++i) {
      qvEdg *e = t->edg[i];
      qvTri *n = t->adj[i];
      if (!e) return false;
      if (n && !(n->flags & mask)) {
        if (qvTriLink(n, nullptr, e) != 0) return false;
        t->adj[i] = nullptr;
        qvEdg *copy = qvEdgNew(e->ends[0], e->ends[1], e->flags, e->tag);
        if (!copy) return false;
        copy->tag2 = e->tag2;
        copy->flags |= kEdgMoved;
        t->edg[i] = copy;
        append(copy);
      } else if (!(e->flags & kEdgMoved)) {
        e->flags |= kEdgMoved;
        mesh->edg = qvEdgUnlink(mesh->edg, e);
        append(e);
      }
    }
  }
  // A triangle that stays must not hold a moved edge: that happens only when
  // two triangles share an edge without adj across it, and the halves would
  // then share a record.
  for (const qvTri *t = mesh->tri; t; t = t->next)
    for (const qvEdg *e : t->edg)
      if (!e || (e->flags & kEdgMoved)) return false;
  return true;
}

// Last the vertices, once every edge has its side and both ends of each edge
// are marked with the sides that use them: vertices used only by the new side
// move to it; a vertex used by both sides is cloned (with all its flags, the
// seam mark included), the clone joins the new side and the new side's edge
// ends are turned to it.
bool splitVertices(qvMesh *mesh, qvVtx *(*clone)(const qvVtx *), Chain<qvEdg> &edg,
                   const MovedEdges &moved, Chain<qvVtx> &vtx) {
  qvVtx *next = nullptr;
  for (qvVtx *v = mesh->vtx; v; v = next) {
    next = v->next;
    const uint32_t used = v->flags & (kUsedOld | kUsedNew);
    if (v->link || used == 0) return false;
    if (used == kUsedNew) {
      mesh->vtx = qvVtxUnlink(mesh->vtx, v);
      chainAppend(vtx, v);
    } else if (used == (kUsedOld | kUsedNew)) {
      qvVtx *c = clone(v);
      if (!c) return false;
      v->link = c;
      chainAppend(vtx, c);
    }
  }
  (void)eachMoved(moved, edg, [](qvEdg *e) {
    for (double *&h : e->ends)
      if (const qvVtx *v = qvVtxOf(h); v->link) h = static_cast<qvVtx *>(v->link)->dat;
    return true;
  });
  for (qvVtx *v = mesh->vtx; v; v = v->next) v->link = nullptr;
  return true;
}

// ---------------------------------------------------------------------------
// Splitting pinched boundary vertices

// Whether the marked vertices and edges have link free for the lists below.
// An edge can't end at a derived vertex, whose link is its owner.
bool walkFieldsFree(const qvMesh *mesh) {
  for (const qvVtx *v = mesh->vtx; v && (v->flags & kWalkVtxBit); v = v->next)
    if (v->link || (v->flags & kVtxDerived)) return false;
  for (const qvEdg *e = mesh->edg; e && (e->flags & kWalkEdgBit); e = e->next)
    if (e->link) return false;
  return true;
}

// Hangs on each marked vertex a list of its marked edges, and on each marked
// edge a list of its triangles; false when a node can't be had.
bool hangWalkLists(qvMesh *mesh) {
  for (qvEdg *e = mesh->edg; e && (e->flags & kWalkEdgBit); e = e->next) {
    for (double *h : e->ends) {
      qvVtx *v = qvVtxOf(h);
      qvLnk *node = qvLnkNew(0, e);
      if (!node) return false;
      v->link = qvLnkConcat(node, static_cast<qvLnk *>(v->link));
    }
  }
  for (qvTri *t = mesh->tri; t; t = t->next) {
    for (qvEdg *e : t->edg) {
      if (!e || !(e->flags & kWalkEdgBit)) continue;
      qvLnk *node = qvLnkNew(0, t);
      if (!node) return false;
      e->link = qvLnkConcat(node, static_cast<qvLnk *>(e->link));
    }
  }
  return true;
}

// Frees the lists of hangWalkLists. Clones made meanwhile stand at the head
// of the vertex list, marked, with link null.
void freeWalkLists(qvMesh *mesh) {
  for (qvVtx *v = mesh->vtx; v && (v->flags & kWalkVtxBit); v = v->next) {
    qvLnkDeleteAll(static_cast<qvLnk *>(v->link));
    v->link = nullptr;
  }
  for (qvEdg *e = mesh->edg; e && (e->flags & kWalkEdgBit); e = e->next) {
    qvLnkDeleteAll(static_cast<qvLnk *>(e->link));
    e->link = nullptr;
  }
}

void replaceEnd(qvEdg *e, const double *from, double *to) {
  for (double *&h : e->ends)
    if (h == from) h = to;
}

// Walks the fan of v from the boundary edge start, on its one triangle, to the
// boundary edge that closes it, turning v's handle into c's in every edge on
// the way. Each step turns one end that still is v's, so the walk ends even on
// a broken fan. The closing edge, or null when it isn't one of v's marked
// boundary edges or the walk fails.
qvEdg *fanToClone(qvEdg *start, const qvVtx *v, qvVtx *c) {
  const qvLnk *tris = static_cast<const qvLnk *>(start->link);
  if (!tris || tris->next) return nullptr;
  qvTri *t = static_cast<qvTri *>(tris->item);
  if (qvTriEdgeSlot(t, start) < 0) return nullptr;
  replaceEnd(start, v->dat, c->dat);
  for (;;) {
    qvEdg *at[2];
    int32_t slots[2];
    if (qvTriEdgesAt(t, v->dat, at, slots) != 1) return nullptr;
    qvEdg *out = at[0];
    replaceEnd(out, v->dat, c->dat);
    qvTri *n = t->adj[slots[0]];
    if (!n) return (out->flags & kEdgOpenFan) ? out : nullptr;
    if (qvTriEdgeSlot(n, out) < 0) return nullptr;
    t = n;
  }
}

// Gives each extra pair of boundary edges at v a clone of v of its own,
// until v keeps one pair.
bool unpinchVertex(qvMesh *mesh, qvVtx *v, qvVtx *(*clone)(const qvVtx *)) {
  qvLnk *edges = static_cast<qvLnk *>(v->link);
  for (qvLnk *l = edges; l; l = l->next) {
    qvEdg *e = static_cast<qvEdg *>(l->item);
    if (!(e->flags & kWalkEdgBit) || (e->ends[0] != v->dat && e->ends[1] != v->dat)) return false;
    e->flags |= kEdgOpenFan;
  }
  for (qvLnk *l = edges; l && v->tag >= 4; l = l->next) {
    qvEdg *e = static_cast<qvEdg *>(l->item);
    if (!(e->flags & kEdgOpenFan)) continue;
    qvVtx *c = clone(v);
    if (!c) return false;
    c->tag = 2;
    mesh->vtx = qvVtxConcat(c, mesh->vtx);
    mesh->flags &= ~kMeshSortedSet;
    qvEdg *closing = fanToClone(e, v, c);
    if (!closing) return false;
    e->flags &= ~kEdgOpenFan;
    closing->flags &= ~kEdgOpenFan;
    v->tag -= 2;
  }
  return true;
}

// Lays the triangles, at rest, out in memory in sorted order, sorted naming
// their places in order: the i-th of the new order takes the i-th record by
// address (qvTriPlace). order holds the records in their former list order,
// which after assembly or an earlier cut already runs up through memory. The head of the list, or null with
// nothing changed when a triangle names a neighbour outside the list or
// memory runs out.
qvTri *placeSorted(qvTri **order, const int32_t *sorted, int32_t n) {
  qvTri **from = static_cast<qvTri **>(ftMalloc(sizeof(qvTri *) * static_cast<size_t>(n)));
  if (!from) return nullptr;
  for (int32_t i = 0; i < n; ++i) from[i] = order[sorted[i]];
  qvTri *head = nullptr;
  if (std::is_sorted(order, order + n, [](const qvTri *a, const qvTri *b) { return a < b; }))
    head = qvTriPlace(from, order, n) == 0 ? order[0] : nullptr;
  else
    head = qvTriPlaceInOrder(from, n);
  std::free(from);
  return head;
}

// qvTriSort; with place, the sorted list also runs up through memory when
// its triangles are at rest (link and aux clear) and placeSorted can lay it
// out so, and is relinked as it lies otherwise.
qvTri *sortTriangles(qvTri *head, int32_t direction, int32_t axis, int32_t corner, bool place,
                     int32_t *count) {
  if (!head || head->prev || direction < 0 || direction > 1 || axis < 0 || axis > 2 ||
      corner < 0 || corner > 1)
    return nullptr;
  // One walk gathers the list; the count also bounds it, should the list run
  // in a cycle. It also sees whether the triangles are at rest (link and aux
  // clear) and whether any has a tag to be cleared.
  int32_t n = 0;
  int32_t capacity = 0;
  qvTri **order = nullptr;
  bool atRest = true;
  bool tagged = false;
  for (qvTri *t = head; t; t = t->next) {
    atRest = atRest && !t->link && !t->aux[0] && !t->aux[1] && !t->aux[2];
    tagged = tagged || t->tag != 0;
    qvTri **grown = order;
    if (n == capacity && n < kSortMax) {
      capacity = capacity == 0 ? 4096 : std::min(2 * capacity, kSortMax);
      grown = static_cast<qvTri **>(ftRealloc(order, sizeof(qvTri *) * static_cast<size_t>(capacity)));
    }
    if (n == kSortMax || !grown) {
      std::free(order);
      return nullptr;
    }
    order = grown;
    order[n++] = t;
  }
  // The sorted places; pos of each key names the triangle's place in order.
  int32_t *sorted = static_cast<int32_t *>(ftMalloc(static_cast<size_t>(n) * sizeof(int32_t)));
  qvFloatKeys *fast = static_cast<qvFloatKeys *>(ftMalloc(static_cast<size_t>(n) * sizeof(qvFloatKeys)));
  bool done = sorted && fast && floatKeys(order, n, direction, axis, corner, fast) &&
              qvFloatKeysSort(fast, n) == 0;
  for (int32_t i = 0; done && i < n; ++i) sorted[i] = fast[i].pos;
  std::free(fast);
  TriKey *keys = done || !sorted ? nullptr : static_cast<TriKey *>(ftMalloc(static_cast<size_t>(n) * sizeof(TriKey)));
  if (!done && !keys) {
    std::free(sorted);
    std::free(order);
    return nullptr;
  }
  // From here on nothing fails: tags are cleared, in the pass that reads the
  // general keys or in one of their own.
  for (int32_t i = 0; i < n && (tagged || !done); ++i) {
    if (!done) {
      if (i + 2 * kAhead < n) qvTriPrefetchEdges(order[i + 2 * kAhead]);
      if (i + kAhead < n) qvTriPrefetchCorners(order[i + kAhead]);
      keys[i] = triKey(order[i], i, direction, axis, corner);
    }
    order[i]->tag = 0;
  }
  if (!done) {
    std::sort(keys, keys + n, [](const TriKey &a, const TriKey &b) { return keyBefore(a, b); });
    for (int32_t i = 0; i < n; ++i) sorted[i] = keys[i].pos;
    std::free(keys);
  }
  head = place && atRest ? placeSorted(order, sorted, n) : nullptr;
  if (!head) {
    for (int32_t i = 0; i < n; ++i) {
      qvTri *t = order[sorted[i]];
      t->prev = i > 0 ? order[sorted[i - 1]] : nullptr;
      t->next = i + 1 < n ? order[sorted[i + 1]] : nullptr;
    }
    head = order[sorted[0]];
  }
  std::free(sorted);
  std::free(order);
  if (count) *count = n;
  return head;
}

// qvMeshHalve; with place, the sorted triangles are also laid out in memory
// in their new order (sortTriangles).
int32_t halve(qvMesh *mesh, int32_t count, uint32_t mask, bool place) {
  if (mask == 0) return FT_FAIL(-1);
  qvBox box;
  if (qvMeshBox(mesh, &box) < 0) return FT_FAIL(-1);
  for (const double *p : box)
    if (!p) return FT_FAIL(-1);  // no vertex with coordinates

  // On equal extents x beats y and y beats z.
  double extent[3];
  for (int k = 0; k < 3; ++k) extent[k] = *box[k + 3] - *box[k];
  int32_t axis = extent[1] > extent[0] ? 1 : 0;
  if (extent[2] > extent[axis]) axis = 2;

  int32_t listed = 0;
  qvTri *sorted = sortTriangles(mesh->tri, 1, axis, 0, place, &listed);
  if (!sorted) return FT_FAIL(-1);
  mesh->tri = sorted;
  if (count < 0) count = listed;

  // An odd triangle stays on the unmarked side.
  const int32_t half = count >> 1;
  int32_t i = 0;
  for (qvTri *t = mesh->tri; t; t = t->next, ++i) {
    if (i < half) t->flags |= mask;
    else t->flags &= ~mask;
  }

  // The marked triangles are a head run. A marked triangle with unmarked
  // neighbours only changes sides; one with both kinds has its seam edges'
  // ends pinned. Only the marked side is examined: a lone unmarked triangle
  // among marked ones stays, and becomes a piece of its own after the split.
  // A triangle that changes sides has no marked neighbour, so clearing it
  // here hides no seam from the triangles after it.
  qvTri *next = nullptr;
  for (qvTri *t = mesh->tri; t && (t->flags & mask); t = next) {
    next = t->next;
    int32_t kinds = 0;
    for (const qvTri *n : t->adj)
      if (n) kinds |= (n->flags & mask) ? 1 : 2;
    if (kinds == 0) {
      qvTriAndAll(mesh->tri, ~mask);
      return FT_FAIL(-1);
    }
    if (kinds == 2) {
      t->flags &= ~mask;
    } else if (kinds == 3) {
      for (int32_t s = 0; s < 3; ++s) {
        const qvTri *n = t->adj[s];
        if (!n || (n->flags & mask)) continue;
        const qvEdg *e = t->edg[s];
        if (!e || !e->ends[0] || !e->ends[1]) {
          qvTriAndAll(mesh->tri, ~mask);
          return FT_FAIL(-1);
        }
        qvVtxOf(e->ends[0])->flags |= kVtxPinned;
        qvVtxOf(e->ends[1])->flags |= kVtxPinned;
      }
    }
  }
  return 0;
}

// qvMeshSplit; with kept, the new mesh's edges in list order are handed over
// there after a split (at null when there are none or no memory was had).
int32_t split(qvMesh *mesh, uint32_t mask, qvVtx *(*clone)(const qvVtx *), qvMeshPair *pair,
              MovedEdges *kept) {
  if (!pair) return 1;
  pair->first = mesh;
  pair->second = nullptr;
  if (!mesh || !mesh->tri || mask == 0) return 0;
  if (!clone) return 1;

  Chain<qvTri> tri;
  qvTri *next = nullptr;
  size_t count = 0;
  for (qvTri *t = mesh->tri; t; t = next) {
    next = t->next;
    if (!(t->flags & mask)) continue;
    mesh->tri = qvTriUnlinkList(mesh->tri, t);
    chainAppend(tri, t);
    ++count;
  }
  if (!tri.head) return 0;
  if (!mesh->tri) {
    mesh->tri = tri.head;
    qvTriAndAll(mesh->tri, ~mask);
    pair->first = nullptr;
    pair->second = mesh;
    return 0;
  }

  // The analysis of the whole mesh describes neither half.
  std::free(mesh->topo);
  mesh->topo = nullptr;
  mesh->flags &= ~kMeshSortedSet;
  Chain<qvEdg> edg;
  Chain<qvVtx> vtx;
  // A moved triangle brings at most its three edges.
  MovedEdges moved = {static_cast<qvEdg **>(ftMalloc(sizeof(qvEdg *) * 3 * count)), 0};
  qvMesh *split = qvMeshNew(tri.head, nullptr, nullptr, mesh->flags);
  const bool ok = split && splitEdges(mesh, tri.head, mask, edg, moved) &&
                  markListEnds(mesh->edg, kUsedOld) &&
                  eachMoved(moved, edg, [](qvEdg *e) { return markEnds(e, kUsedNew); }) &&
                  splitVertices(mesh, clone, edg, moved, vtx);
  const int32_t result = ok ? 0 : splitAbandon(mesh, split, tri, edg, moved, vtx, mask, pair);
  if (ok) {
    clearSplitMarks(tri, edg, moved, vtx, mesh, mask);
    split->edg = edg.head;
    split->vtx = vtx.head;
    pair->second = split;
  }
  if (ok && kept) *kept = moved;
  else std::free(moved.at);
  return result;
}

// ---------------------------------------------------------------------------
// Gathering a half into its pieces

// The flood of qvMeshShells run on arrays over a half at rest: each
// triangle's neighbours not yet reached are moved directly behind it, so each
// piece stands in an unbroken run of the list. The triangles are laid out in
// memory in that order (qvTriPlace), where the flood on the records would
// relink them as they lie, and each leaf then walks through memory in order
// without laying them out again. The records the list names, which after the
// cut's sort run up through memory, take the flood's triangles in turn. The
// pieces when that was done; 0, with nothing changed, when the half isn't at
// rest or memory runs out.
int32_t placePieces(qvMesh *half) {
  // The place in order, in tag, names each triangle for its neighbours.
  qvTri **order = nullptr;
  int32_t n = 0;
  int32_t capacity = 0;
  bool ok = true;
  for (qvTri *t = half->tri; t && ok; t = t->next) {
    ok = !t->link && !t->aux[0] && !t->aux[1] && !t->aux[2] && t->tag == 0 && !(t->flags & kMarkMask) &&
         n < kSortMax;
    if (ok && n == capacity) {
      capacity = capacity == 0 ? 4096 : std::min(2 * capacity, kSortMax);
      qvTri **grown = static_cast<qvTri **>(ftRealloc(order, sizeof(qvTri *) * static_cast<size_t>(capacity)));
      ok = grown != nullptr;
      if (ok) order = grown;
    }
    if (ok) {
      t->tag = n;
      order[n++] = t;
    }
  }
  ok = ok && n > 0;
  const size_t size = static_cast<size_t>(n);
  int32_t *adj = ok ? static_cast<int32_t *>(ftMalloc(sizeof(int32_t) * 3 * size)) : nullptr;
  ok = adj != nullptr;
  for (int32_t i = 0; ok && i < n; ++i) {
    for (int k = 0; k < 3; ++k) {
      const qvTri *a = order[i]->adj[k];
      const int32_t at = a ? a->tag : -1;
      ok = ok && (!a || (at >= 0 && at < n && order[at] == a));
      adj[3 * i + k] = a ? at : -1;
    }
  }
  for (int32_t i = 0; i < n; ++i) order[i]->tag = 0;

  int32_t *next = ok ? static_cast<int32_t *>(ftMalloc(sizeof(int32_t) * size)) : nullptr;
  int32_t *prev = next ? static_cast<int32_t *>(ftMalloc(sizeof(int32_t) * size)) : nullptr;
  bool *reached = prev ? static_cast<bool *>(ftCalloc(size, sizeof(bool))) : nullptr;
  ok = reached != nullptr;
  for (int32_t i = 0; ok && i < n; ++i) {
    prev[i] = i - 1;
    next[i] = i + 1 < n ? i + 1 : -1;
  }
  int32_t head = 0;
  const int32_t pieces = ok ? qvFloodAll(adj, next, prev, &head, reached) : 0;
  ok = pieces > 0;
  std::free(adj);
  std::free(prev);
  std::free(reached);

  // The records by address, and the flood's triangles to go into them.
  qvTri **to = ok ? static_cast<qvTri **>(ftMalloc(sizeof(qvTri *) * size)) : nullptr;
  qvTri **from = to ? static_cast<qvTri **>(ftMalloc(sizeof(qvTri *) * size)) : nullptr;
  ok = from != nullptr;
  if (ok) {
    const auto lower = [](const qvTri *a, const qvTri *b) { return std::less<const qvTri *>()(a, b); };
    std::copy(order, order + n, to);
    if (!std::is_sorted(to, to + n, lower)) std::sort(to, to + n, lower);
    int32_t i = 0;
    for (int32_t t = head; t >= 0; t = next[t]) from[i++] = order[t];
    ok = qvTriPlace(from, to, n) == 0;
  }
  if (ok) half->tri = to[0];
  std::free(next);
  std::free(to);
  std::free(from);
  std::free(order);
  return ok ? pieces : 0;
}

// qvMeshShells for a half of a cut, with the half laid out in the order of
// its pieces' lists (placePieces).
int32_t piecesOfHalf(qvMesh *half) {
  const int32_t pieces = placePieces(half);
  if (pieces == 0) return qvMeshShells(half, qvVtxClone);
  return pieces == 1 ? 1 : qvMeshShellsFlooded(half, qvVtxClone);
}

}  // namespace

// ---------------------------------------------------------------------------
// Entry points

qvTri *qvTriSort(qvTri *head, int32_t direction, int32_t axis, int32_t corner) {
  return sortTriangles(head, direction, axis, corner, false, nullptr);
}

int32_t qvMeshHalve(qvMesh *mesh, int32_t count, uint32_t mask) {
  return halve(mesh, count, mask, false);
}

int32_t qvMeshSplit(qvMesh *mesh, uint32_t mask, qvVtx *(*clone)(const qvVtx *), qvMeshPair *pair) {
  return split(mesh, mask, clone, pair, nullptr);
}

int32_t qvMeshUnpinch(qvMesh *mesh, qvVtx *(*clone)(const qvVtx *)) {
  if (!mesh || !clone) return FT_FAIL(-1);
  // Where no vertex has more than two boundary edges there is nothing to do
  // but what the marking pass leaves.
  if (qvTopoMarkPlain(mesh) == 1) return 0;
  if (qvTopoMark(mesh, kWalkVtxBit, kWalkEdgBit, 0, kWalkSwapBit, nullptr) < 0) return FT_FAIL(-1);

  // Every marked vertex must have an even number of boundary edges; each pair
  // beyond the first is one more passage of a loop, and one more record.
  int32_t extra = 0;
  for (const qvVtx *v = mesh->vtx; v && (v->flags & kWalkVtxBit) && extra >= 0; v = v->next) {
    if (v->tag & 1) extra = -1;
    else if (v->tag > 2) extra += (v->tag - 2) / 2;
  }

  if (extra > 0 && !walkFieldsFree(mesh)) extra = -1;
  if (extra > 0) {
    // Clones are prepended, ahead of the walk, which so meets originals only.
    bool ok = hangWalkLists(mesh);
    for (qvVtx *v = mesh->vtx; ok && v && (v->flags & kWalkVtxBit); v = v->next)
      if (v->tag >= 4) ok = unpinchVertex(mesh, v, clone);
    freeWalkLists(mesh);
    if (!ok) extra = -1;
  }
  qvTopoUnmark(mesh, kWalkVtxBit, kWalkEdgBit | kEdgOpenFan, kWalkSwapBit);
  return extra;
}

int32_t qvMeshCut(qvMesh *mesh, int32_t count, qvMeshPair *pair) {
  return qvMeshCutWith(mesh, count, pair, 2);
}

int32_t qvMeshCutWith(qvMesh *mesh, int32_t count, qvMeshPair *pair, int32_t threads) {
  if (!pair) return FT_FAIL(-1);
  pair->first = nullptr;
  pair->second = nullptr;
  if (!mesh) return FT_FAIL(-1);
  qvTopo topo{};
  if (qvMeshTopo(mesh, &topo) != 0) return FT_FAIL(-1);
  // The triangles are laid out in memory in the order of the cut's sort, along
  // which every later step and both halves walk them.
  if (halve(mesh, count, kCutSide, true) != 0) return FT_FAIL(-1);
  MovedEdges moved = {nullptr, 0};
  if (split(mesh, kCutSide, qvVtxClone, pair, &moved) != 0) return FT_FAIL(-1);
  if (pair->first != mesh || !pair->second) {
    std::free(moved.at);
    return FT_FAIL(-1);
  }

  // A straight cut can leave a boundary that touches itself at a vertex, and
  // a half in several pieces: each half gets one record per pair of boundary
  // edges at a vertex, then becomes a chain of its pieces. Whether it fell
  // into pieces doesn't matter here, only whether the cut into pieces worked:
  // pieces that still shared records could go to two threads. The halves
  // share no record, so they are settled side by side, each by itself, and
  // the outcome is the same whichever ends first. The new half's edges,
  // which the split strung up in the order of the sort, are first laid out
  // in memory in that order, as the leaf would otherwise do after chasing
  // them through memory; each half has its triangles laid out in the order
  // of its pieces' lists (piecesOfHalf).
  qvMesh *const halves[2] = {pair->first, pair->second};
  int32_t settled[2] = {0, 0};
#pragma omp parallel for num_threads(2) schedule(static, 1) if (threads > 1)
  for (int32_t i = 0; i < 2; ++i) {
    if (i == 1 && moved.at) (void)qvMeshPlaceEdges(halves[i], moved.at, moved.n);
    settled[i] = qvMeshUnpinch(halves[i], qvVtxClone) < 0 || piecesOfHalf(halves[i]) < 0
                     ? -1
                     : 0;
  }
  std::free(moved.at);
  return settled[0] < 0 || settled[1] < 0 ? FT_FAIL(-1) : 0;
}
