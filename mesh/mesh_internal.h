// Helpers shared by the files of mesh/ and used nowhere else: the list
// operations written once for every record type, and the per-neighbourhood
// checks that debug builds run after an editing primitive.
#pragma once

#include <cstdlib>

#include "kernels/alloc.h"
#include "mesh/qvMesh.h"

namespace ftmesh {

// Release of one record, by type, for the generic list routines.
inline void freeRecord(qvVtx* r) { qvVtxFree(r); }
inline void freeRecord(qvEdg* r) { qvEdgFree(r); }
inline void freeRecord(qvTri* r) { qvTriFree(r); }
inline void freeRecord(qvMesh* r) { qvMeshFree(r); }
inline void freeRecord(qvLnk* r) { qvLnkFree(r); }

template <class T>
T* listTail(T* head) {
  if (!head) return nullptr;
  while (head->next) head = head->next;
  return head;
}

template <class T>
T* listConcat(T* a, T* b) {
  if (!a) return b;
  if (!b) return a;
  T* tail = listTail(a);
  tail->next = b;
  b->prev = tail;
  return a;
}

// Takes r out of the list that starts at head. A record whose prev is null is
// taken to be the head of its list, so head changes only when r is head.
template <class T>
T* listUnlink(T* head, T* r) {
  if (!r) return head;
  if (r->prev) r->prev->next = r->next;
  else if (r == head) head = r->next;
  if (r->next) r->next->prev = r->prev;
  r->prev = nullptr;
  r->next = nullptr;
  return head;
}

// Puts a record that is in no list in front of head: one step.
template <class T>
T* listPrepend(T* head, T* r) {
  r->prev = nullptr;
  r->next = head;
  if (head) head->prev = r;
  return r;
}

// Moves r, a record of the list at head, to its head.
template <class T>
T* listMoveToHead(T* head, T* r) {
  if (r == head) return head;
  return listPrepend(listUnlink(head, r), r);
}

// Records noted along a walk, so that a later pass over the same records runs
// through an array, asking for them ahead, instead of chasing a list again
// through memory. When the array can't grow the trail is lost: it notes no
// more, and the caller walks its lists as it would without one.
template <class T>
struct Trail {
  T** at = nullptr;     // the records in the order noted
  size_t n = 0;         // how many
  size_t capacity = 0;  // room in at
  bool lost = false;    // memory ran out; at is incomplete
};

template <class T>
void trailNote(Trail<T>& trail, T* r) {
  if (trail.lost) return;
  if (trail.n == trail.capacity) {
    const size_t grown = trail.capacity ? 2 * trail.capacity : 4096;
    T** at = static_cast<T**>(ftRealloc(trail.at, sizeof(T*) * grown));
    if (!at) {
      trail.lost = true;
      return;
    }
    trail.at = at;
    trail.capacity = grown;
  }
  trail.at[trail.n++] = r;
}

// flags &= keep on every noted record; false, with nothing done, for a lost trail.
template <class T>
bool trailAnd(const Trail<T>& trail, uint32_t keep) {
  constexpr size_t kAhead = 16;  // records between a prefetch and the write
  if (trail.lost) return false;
  for (size_t i = 0; i < trail.n; ++i) {
    if (i + kAhead < trail.n) __builtin_prefetch(trail.at[i + kAhead], 1);
    trail.at[i]->flags &= keep;
  }
  return true;
}

template <class T>
void trailFree(Trail<T>& trail) {
  std::free(trail.at);
  trail = Trail<T>{};
}

// Asks for what a walk along a triangle list reads when it compares each
// triangle's edges with its neighbours' (orientation checks, the marking
// pass): the edges and neighbours of the triangle kFar places ahead, and the
// first two edges of each neighbour, where the corners are read, of the one
// kNear places ahead, whose neighbours have arrived by then. The walk must
// not reorder the triangle list; step() once per triangle read.
class TriLookahead {
 public:
  explicit TriLookahead(const qvTri* head) : far_(head), near_(head) {
    for (int i = 0; i < kFar - kNear && far_; ++i) far_ = askFar(far_);
    for (int i = 0; i < kNear; ++i) step();
  }
  void step() {
    if (far_) far_ = askFar(far_);
    if (near_) near_ = askNear(near_);
  }

 private:
  static constexpr int kFar = 16;
  static constexpr int kNear = 8;
  static const qvTri* askFar(const qvTri* t) {
    for (int i = 0; i < 3; ++i) {
      __builtin_prefetch(t->edg[i]);
      __builtin_prefetch(t->adj[i]);
    }
    return t->next;
  }
  static const qvTri* askNear(const qvTri* t) {
    for (const qvTri* n : t->adj)
      if (n) {
        __builtin_prefetch(n->edg[0]);
        __builtin_prefetch(n->edg[1]);
      }
    return t->next;
  }
  const qvTri* far_;
  const qvTri* near_;
};

// The corners of t in cycle order, as qvTriCorners(t, 0, out) gives them,
// here where the walks that read them for every triangle of a mesh can
// have them inline: the shared end of edg[0] and edg[1] is looked for in
// the same order. false for a missing edge, no shared end or a null corner.
inline bool cycleCorners(const qvTri* t, double* out[3]) {
  const qvEdg* a = t->edg[0];
  const qvEdg* b = t->edg[1];
  if (!a || !b) return false;
  double* const a0 = a->ends[0];
  double* const a1 = a->ends[1];
  double* const b0 = b->ends[0];
  double* const b1 = b->ends[1];
  if (a0 && a0 == b1) {
    out[0] = a1, out[1] = a0, out[2] = b0;
  } else if (a1 && a1 == b0) {
    out[0] = a0, out[1] = a1, out[2] = b1;
  } else if (a0 && a0 == b0) {
    out[0] = a1, out[1] = a0, out[2] = b1;
  } else if (a1 && a1 == b1) {
    out[0] = a0, out[1] = a1, out[2] = b0;
  } else {
    return false;
  }
  return out[0] && out[2];
}

// qvTriEdgeSlot and qvTriEdgeRev for a triangle that isn't null and a slot
// in range, inline as cycleCorners is.
inline int32_t edgeSlot(const qvTri* t, const qvEdg* e) {
  return t->edg[0] == e ? 0 : t->edg[1] == e ? 1 : t->edg[2] == e ? 2 : -1;
}
inline int32_t edgeRev(const qvTri* t, int32_t i) {
  double* c[3];
  if (!cycleCorners(t, c) || !t->edg[i]) return -1;
  return t->edg[i]->ends[0] != c[i] ? 1 : 0;
}

// Coordinates behind a handle, or null.
inline const double* handleXyz(const double* h) { return h ? qvVtxXyz(qvVtxOf(h)) : nullptr; }

#ifndef NDEBUG
// Debug checks of the neighbourhood an editing primitive has just changed.
// They assert program invariants, never properties of input.
void debugCheckFlip(const qvTri* t, double* const before[3], bool hadCorners);
void debugCheckUnlinked(const qvTri* t, qvTri* const former[3]);
// After a fan marking with moves: the head runs bearing the bits are at least
// as long as the number of records that newly gained them.
void debugCheckHeadRun(const qvMesh* mesh, uint32_t opts, uint32_t triBit, int32_t nTri,
                       uint32_t edgBit, int32_t nEdg, uint32_t vtxBit, int32_t nVtx);
#endif

}  // namespace ftmesh
