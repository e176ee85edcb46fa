// List routines. They are written once over the record type and given a
// name per type; every record type chains itself through prev and next.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include "kernels/alloc.h"
#include "mesh/mesh_internal.h"

namespace {

using ftmesh::freeRecord;
using ftmesh::listConcat;
using ftmesh::listTail;
using ftmesh::listUnlink;

template <class T>
T* listDelete(T* head, T* r) {
  if (!r) return head;
  head = listUnlink(head, r);
  freeRecord(r);
  return head;
}

template <class T>
int32_t listDeleteAll(T* head) {
  while (head) {
    T* next = head->next;  // read before the record is freed
    freeRecord(head);
    head = next;
  }
  return 0;
}

template <class T>
T* listDeleteFlagged(T* head, uint32_t mask, int32_t* count) {
  int32_t n = 0;
  for (T* r = head; r;) {
    T* next = r->next;  // read before r is freed
    if (r->flags & mask) {
      head = listUnlink(head, r);
      freeRecord(r);
      ++n;
    }
    r = next;
  }
  if (count) *count = n;
  return head;
}

template <class T>
int32_t listAndAll(T* head, uint32_t mask) {
  for (T* r = head; r; r = r->next) r->flags &= mask;
  return 0;
}

template <class T>
int32_t listOrAll(T* head, uint32_t bits) {
  for (T* r = head; r; r = r->next) r->flags |= bits;
  return 0;
}

template <class T>
int32_t listCount(const T* head) {
  int32_t n = 0;
  for (const T* r = head; r; r = r->next) ++n;
  return n;
}

}  // namespace

qvVtx* qvVtxConcat(qvVtx* a, qvVtx* b) { return listConcat(a, b); }
qvVtx* qvVtxUnlink(qvVtx* head, qvVtx* r) { return listUnlink(head, r); }
qvVtx* qvVtxDelete(qvVtx* head, qvVtx* r) { return listDelete(head, r); }
int32_t qvVtxDeleteAll(qvVtx* head) { return listDeleteAll(head); }
qvVtx* qvVtxDeleteFlagged(qvVtx* head, uint32_t mask, int32_t* count) {
  return listDeleteFlagged(head, mask, count);
}
int32_t qvVtxAndAll(qvVtx* head, uint32_t mask) { return listAndAll(head, mask); }
int32_t qvVtxCount(const qvVtx* head) { return listCount(head); }
qvVtx* qvVtxTail(qvVtx* head) { return listTail(head); }

int32_t qvVtxSetTag(qvVtx* head, int32_t value) {
  for (qvVtx* v = head; v; v = v->next) v->tag = value;
  return 0;
}

qvEdg* qvEdgConcat(qvEdg* a, qvEdg* b) { return listConcat(a, b); }
qvEdg* qvEdgUnlink(qvEdg* head, qvEdg* r) { return listUnlink(head, r); }
qvEdg* qvEdgDelete(qvEdg* head, qvEdg* r) { return listDelete(head, r); }
int32_t qvEdgDeleteAll(qvEdg* head) { return listDeleteAll(head); }
qvEdg* qvEdgDeleteFlagged(qvEdg* head, uint32_t mask, int32_t* count) {
  return listDeleteFlagged(head, mask, count);
}
int32_t qvEdgAndAll(qvEdg* head, uint32_t mask) { return listAndAll(head, mask); }
int32_t qvEdgOrAll(qvEdg* head, uint32_t bits) { return listOrAll(head, bits); }
int32_t qvEdgCount(const qvEdg* head) { return listCount(head); }
qvEdg* qvEdgTail(qvEdg* head) { return listTail(head); }

qvTri* qvTriConcat(qvTri* a, qvTri* b) { return listConcat(a, b); }

void qvMeshPrependLists(qvMesh* mesh, qvMesh* from) {
  mesh->tri = listConcat(from->tri, mesh->tri);
  mesh->edg = listConcat(from->edg, mesh->edg);
  mesh->vtx = listConcat(from->vtx, mesh->vtx);
  from->tri = nullptr;
  from->edg = nullptr;
  from->vtx = nullptr;
}
qvTri* qvTriUnlinkList(qvTri* head, qvTri* r) { return listUnlink(head, r); }
qvTri* qvTriDelete(qvTri* head, qvTri* r) { return listDelete(head, r); }
int32_t qvTriDeleteAll(qvTri* head) { return listDeleteAll(head); }
qvTri* qvTriDeleteFlagged(qvTri* head, uint32_t mask, int32_t* count) {
  return listDeleteFlagged(head, mask, count);
}
int32_t qvTriAndAll(qvTri* head, uint32_t mask) { return listAndAll(head, mask); }
int32_t qvTriOrAll(qvTri* head, uint32_t bits) { return listOrAll(head, bits); }
int32_t qvTriCount(const qvTri* head) { return listCount(head); }
qvTri* qvTriTail(qvTri* head) { return listTail(head); }

qvTri* qvTriReverse(qvTri* head) {
  qvTri* last = nullptr;
  for (qvTri* t = head; t;) {
    qvTri* next = t->next;  // the old next, before the exchange
    t->next = t->prev;
    t->prev = next;
    last = t;
    t = next;
  }
  return last;
}

qvMesh* qvMeshConcat(qvMesh* a, qvMesh* b) { return listConcat(a, b); }
int32_t qvMeshDeleteAll(qvMesh* head) { return listDeleteAll(head); }
int32_t qvMeshCount(const qvMesh* head) { return listCount(head); }

qvMesh* qvMeshUnchain(qvMesh* head, qvMesh* m) { return listUnlink(head, m); }
qvMesh* qvMeshDropChained(qvMesh* head, qvMesh* m) { return listDelete(head, m); }

qvLnk* qvLnkConcat(qvLnk* a, qvLnk* b) { return listConcat(a, b); }
qvLnk* qvLnkUnlink(qvLnk* head, qvLnk* r) { return listUnlink(head, r); }
qvLnk* qvLnkDelete(qvLnk* head, qvLnk* r) { return listDelete(head, r); }
int32_t qvLnkDeleteAll(qvLnk* head) { return listDeleteAll(head); }
int32_t qvLnkCount(const qvLnk* head) { return listCount(head); }
qvLnk* qvLnkTail(qvLnk* head) { return listTail(head); }

void qvLnkListFree(void* list) { qvLnkDeleteAll(static_cast<qvLnk*>(list)); }

int32_t qvTriPlace(qvTri* const* from, qvTri* const* to, int32_t n) {
  if (n <= 0) return 0;
  qvTri* copy = static_cast<qvTri*>(ftMalloc(sizeof(qvTri) * static_cast<size_t>(n)));
  if (!copy) return -1;
  // Each record is read once for its contents and then names in link the
  // record its contents go to; a neighbour without one is not among the
  // records.
  for (int32_t i = 0; i < n; ++i) {
    copy[i] = *from[i];
    from[i]->link = to[i];
  }
  bool ok = true;
  for (int32_t i = 0; i < n && ok; ++i) {
    qvTri& c = copy[i];
    for (qvTri*& a : c.adj)
      if (a) ok = ok && (a = static_cast<qvTri*>(a->link)) != nullptr;
    c.link = nullptr;
    c.prev = i > 0 ? to[i - 1] : nullptr;
    c.next = i + 1 < n ? to[i + 1] : nullptr;
  }
  for (int32_t i = 0; i < n; ++i) {
    if (ok) *to[i] = copy[i];
    else from[i]->link = nullptr;
  }
  std::free(copy);
  return ok ? 0 : -1;
}

namespace {

// Sorts n different records by address. Large arrays go by digits of 11 bits
// of the offset from the lowest address, least significant first, so that
// records spread over a few gigabytes take three or four linear passes where
// a comparison sort would chase its pivots through the whole array. false
// when memory runs out, with the array as it was.
template <class T>
bool sortByAddress(T** a, int32_t n) {
  constexpr int32_t kDigitBits = 11;
  constexpr size_t kDigits = size_t{1} << kDigitBits;
  constexpr int32_t kRadixFrom = 4096;  // below this, a comparison sort is as quick
  if (std::is_sorted(a, a + n, std::less<T*>())) return true;
  if (n < kRadixFrom) {
    std::sort(a, a + n, std::less<T*>());
    return true;
  }
  uintptr_t lo = UINTPTR_MAX;
  uintptr_t hi = 0;
  for (int32_t i = 0; i < n; ++i) {
    const uintptr_t p = reinterpret_cast<uintptr_t>(a[i]);
    lo = std::min(lo, p);
    hi = std::max(hi, p);
  }
  const size_t size = static_cast<size_t>(n);
  T** spare = static_cast<T**>(ftMalloc(sizeof(T*) * size));
  size_t* count = static_cast<size_t*>(ftMalloc(sizeof(size_t) * kDigits));
  if (!spare || !count) {
    std::free(spare);
    std::free(count);
    return false;
  }
  T** in = a;
  T** out = spare;
  for (int32_t shift = 0; shift < 64 && ((hi - lo) >> shift) != 0; shift += kDigitBits) {
    std::fill(count, count + kDigits, size_t{0});
    for (size_t i = 0; i < size; ++i) ++count[((reinterpret_cast<uintptr_t>(in[i]) - lo) >> shift) & (kDigits - 1)];
    size_t sum = 0;
    for (size_t d = 0; d < kDigits; ++d) {
      const size_t c = count[d];
      count[d] = sum;
      sum += c;
    }
    for (size_t i = 0; i < size; ++i)
      out[count[((reinterpret_cast<uintptr_t>(in[i]) - lo) >> shift) & (kDigits - 1)]++] = in[i];
    std::swap(in, out);
  }
  if (in != a) std::copy(in, in + n, a);
  std::free(spare);
  std::free(count);
  return true;
}

}  // namespace

qvTri* qvTriPlaceInOrder(qvTri* const* order, int32_t n) {
  if (n <= 0) return nullptr;
  const size_t size = static_cast<size_t>(n);
  qvTri** to = static_cast<qvTri**>(ftMalloc(sizeof(qvTri*) * size));
  bool ok = to != nullptr;
  if (ok) {
    std::copy(order, order + n, to);
    ok = sortByAddress(to, n) && qvTriPlace(order, to, n) == 0;
  }
  qvTri* head = ok ? to[0] : nullptr;
  std::free(to);
  return head;
}

int32_t qvMeshCompact(qvMesh* mesh) {
  if (!mesh || mesh->triHeld) return -1;
  // One walk gathers the list in order and sees whether it already runs up
  // through memory but for a few steps back (at most one in kFewBack), as
  // records made one after another in list order do where the heap hands
  // out pieces of a few free regions; such a list stays as it is.
  constexpr size_t kFewBack = 32;
  ftmesh::Trail<qvTri> order;
  size_t back = 0;
  for (qvTri* t = mesh->tri; t; t = t->next) {
    // A list in the order of a flood goes on mostly at a neighbour of a
    // triangle just passed: they are asked for while this one is read.
    for (const qvTri* n : t->adj) __builtin_prefetch(n);
    if (t->link || t->aux[0] || t->aux[1] || t->aux[2]) {
      ftmesh::trailFree(order);
      return -1;
    }
    if (t->prev && t->prev > t) ++back;
    ftmesh::trailNote(order, t);
  }
  const bool rising = back == 0 || back * kFewBack <= order.n;
  const bool placeable = !rising && !order.lost && order.n <= static_cast<size_t>(INT32_MAX);
  qvTri* head = placeable ? qvTriPlaceInOrder(order.at, static_cast<int32_t>(order.n)) : nullptr;
  ftmesh::trailFree(order);
  if (rising) return 0;
  if (!head) return -1;
  mesh->tri = head;
  return 0;
}

int32_t qvMeshPlaceEdges(qvMesh* mesh, qvEdg* const* order, int32_t n) {
  if (!mesh || !order || n <= 0 || order[0] != mesh->edg) return -1;
  const size_t size = static_cast<size_t>(n);
  size_t triangles = 0;
  for (const qvTri* t = mesh->tri; t; t = t->next) ++triangles;
  qvEdg** to = static_cast<qvEdg**>(ftMalloc(sizeof(qvEdg*) * size));
  qvEdg* copy = static_cast<qvEdg*>(ftMalloc(sizeof(qvEdg) * size));
  qvEdg** renamed = static_cast<qvEdg**>(ftMalloc(sizeof(qvEdg*) * 3 * (triangles ? triangles : 1)));
  bool ok = to && copy && renamed;
  if (ok) {
    std::copy(order, order + n, to);
    ok = sortByAddress(to, n);
  }
  int32_t linked = 0;
  if (ok) {
    // Each record is read once for its contents and then names in link the
    // record its contents go to; an edge of a triangle without one is not in
    // the list, and then nothing changes.
    for (; linked < n && ok; ++linked) {
      qvEdg* e = order[linked];
      ok = !e->link && !e->own;
      if (!ok) break;
      copy[linked] = *e;
      e->link = to[linked];
    }
    size_t k = 0;
    for (const qvTri* t = mesh->tri; t && ok; t = t->next)
      for (const qvEdg* e : t->edg) {
        qvEdg* r = e ? static_cast<qvEdg*>(e->link) : nullptr;
        ok = ok && (!e || r);
        renamed[k++] = r;
      }
  }
  if (ok) {
    size_t k = 0;
    for (qvTri* t = mesh->tri; t; t = t->next)
      for (qvEdg*& e : t->edg) e = renamed[k++];
    for (int32_t i = 0; i < n; ++i) {
      qvEdg& c = copy[i];
      c.link = nullptr;
      c.prev = i > 0 ? to[i - 1] : nullptr;
      c.next = i + 1 < n ? to[i + 1] : nullptr;
    }
    for (int32_t i = 0; i < n; ++i) *to[i] = copy[i];
    mesh->edg = to[0];
  } else {
    for (int32_t i = 0; i < linked; ++i) order[i]->link = nullptr;
  }
  std::free(to);
  std::free(copy);
  std::free(renamed);
  return ok ? 0 : -1;
}

int32_t qvMeshCompactEdges(qvMesh* mesh) {
  if (!mesh || mesh->edgHeld) return -1;
  // A list that runs up through memory but for a few steps back (at most
  // one in kFewBack) stays as it is: walks along it still run through
  // memory nearly in order.
  constexpr size_t kFewBack = 32;
  ftmesh::Trail<qvEdg> order;
  size_t back = 0;
  for (qvEdg* e = mesh->edg; e; e = e->next) {
    if (e->link || e->own) {
      ftmesh::trailFree(order);
      return -1;
    }
    if (e->prev && e->prev > e) ++back;
    ftmesh::trailNote(order, e);
  }
  const bool rising = back == 0 || back * kFewBack <= order.n;
  const bool placed = !rising && !order.lost && order.n <= static_cast<size_t>(INT32_MAX) &&
                      qvMeshPlaceEdges(mesh, order.at, static_cast<int32_t>(order.n)) == 0;
  ftmesh::trailFree(order);
  return rising || placed ? 0 : -1;
}
