// List routines. They are written once over the record type and given a
// name per type; every record type chains itself through prev and next.
#include <algorithm>
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
  // Each record names in link the record its contents go to; a neighbour
  // without one is not among the records.
  for (int32_t i = 0; i < n; ++i) from[i]->link = to[i];
  bool ok = true;
  for (int32_t i = 0; i < n && ok; ++i) {
    qvTri& c = copy[i];
    c = *from[i];
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

int32_t qvMeshCompact(qvMesh* mesh) {
  if (!mesh || mesh->triHeld) return -1;
  // A list that already runs up through memory stays as it is.
  int32_t n = 0;
  bool rising = true;
  for (const qvTri* t = mesh->tri; t; t = t->next, ++n) {
    if (t->link || t->aux[0] || t->aux[1] || t->aux[2]) return -1;
    rising = rising && (!t->prev || t->prev < t);
  }
  if (rising) return 0;
  // from: the records in list order; to: the same records by address.
  const size_t size = static_cast<size_t>(n);
  qvTri** from = static_cast<qvTri**>(ftMalloc(sizeof(qvTri*) * size));
  qvTri** to = static_cast<qvTri**>(ftMalloc(sizeof(qvTri*) * size));
  bool ok = from && to;
  if (ok) {
    int32_t i = 0;
    for (qvTri* t = mesh->tri; t; t = t->next) from[i++] = t;
    std::copy(from, from + n, to);
    std::sort(to, to + n, std::less<qvTri*>());
    ok = qvTriPlace(from, to, n) == 0;
    if (ok) mesh->tri = to[0];
  }
  std::free(from);
  std::free(to);
  return ok ? 0 : -1;
}
