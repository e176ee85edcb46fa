// Creation and release of the records, and the vertex data block.
#include <cstdlib>
#include <cstring>
#include <new>

#include "kernels/alloc.h"
#include "mesh/qvMesh.h"

namespace {

// One allocation for header and data: the doubles start right behind the
// header, whose size is a multiple of 8, so they are aligned.
qvVtx* vtxMake(uint32_t flags, int32_t ndat, const double* src) {
  flags &= ~kVtxOwnBlock;
  if (ndat <= 0 || ndat < qvVtxDataSize(flags)) return nullptr;
  const size_t bytes = sizeof(qvVtx) + static_cast<size_t>(ndat) * sizeof(double);
  void* mem = ftMalloc(bytes);
  if (!mem) return nullptr;
  qvVtx* v = new (mem) qvVtx{};
  v->flags = flags;
  v->ndat = ndat;
  v->dat = reinterpret_cast<double*>(static_cast<char*>(mem) + sizeof(qvVtx));
  // Cleared even when a source follows, so that no double is ever read
  // before it was written.
  for (int32_t i = 0; i < ndat; ++i) new (v->dat + i) double(0.0);
  if (src) std::memcpy(v->dat, src, static_cast<size_t>(ndat) * sizeof(double));
  return v;
}

// Edges, triangles and list nodes that a thread frees wait, up to kSpareMax
// of each kind, for the next one it makes: a pass makes and drops the copy of
// a star for every trial.
constexpr size_t kSpareMax = kFtSpares ? 4096 : 0;

template <class T>
ftSpares& sparesOf() {
  thread_local ftSpares spares;
  return spares;
}

template <class T>
T* recordMake() {
  void* mem = ftSparePop(&sparesOf<T>());
  if (!mem) mem = ftMalloc(sizeof(T));
  if (!mem) return nullptr;
  return new (mem) T{};
}

template <class T>
void recordFree(T* r) {
  static_assert(sizeof(T) >= sizeof(void*), "a spare holds a pointer");
  ftSpares& s = sparesOf<T>();
  if (s.n >= kSpareMax) std::free(r);
  else ftSparePush(&s, r);
}

}  // namespace

int32_t qvVtxDataSize(uint32_t flags) {
  return ((flags & kVtxDerived) ? 0 : 3) + ((flags & kVtxHasExtra) ? 1 : 0) +
         ((flags & kVtxHasNormal) ? 3 : 0) + ((flags & kVtxHasParam) ? 2 : 0);
}

double* qvVtxNrm(const qvVtx* v) {
  if (!v || !v->dat) return nullptr;
  if (v->flags & kVtxDerived) return v->dat;
  if (!(v->flags & kVtxHasNormal)) return nullptr;
  return v->dat + ((v->flags & kVtxHasParam) ? 2 : 0) + 3;
}

qvVtx* qvVtxNew(uint32_t flags, const double* srcDat) {
  if (!srcDat) return vtxMake(flags, qvVtxDataSize(flags), nullptr);
  return vtxMake(flags, qvVtxOf(srcDat)->ndat, srcDat);
}

qvVtx* qvVtxClone(const qvVtx* v) {
  if (!v) return nullptr;
  // ndat is taken from v itself: a block of its own (kVtxOwnBlock) has no
  // header in front of it.
  qvVtx* c = vtxMake(v->flags, v->ndat, v->dat);
  if (!c) return nullptr;
  c->tag = v->tag;
  return c;
}

void qvVtxFree(qvVtx* v) {
  if (!v) return;
  if (v->flags & kVtxOwnBlock) std::free(v->dat);
  std::free(v);
}

qvEdg* qvEdgNew(double* h0, double* h1, uint32_t flags, int32_t tag) {
  if (flags & kEdgExtField) return nullptr;
  qvEdg* e = recordMake<qvEdg>();
  if (!e) return nullptr;
  e->flags = (flags | kEdgPlain) & ~kEdgExtended;
  e->tag = tag;
  e->ends[0] = h0;
  e->ends[1] = h1;
  return e;
}

void qvEdgFree(qvEdg* e) {
  if (e) recordFree(e);
}

qvTri* qvTriNew(qvEdg* e0, qvEdg* e1, qvEdg* e2, uint32_t flags) {
  qvTri* t = recordMake<qvTri>();
  if (!t) return nullptr;
  t->flags = (flags & ~kTriLongSet) | kTriLinked;
  t->edg[0] = e0;
  t->edg[1] = e1;
  t->edg[2] = e2;
  return t;
}

void qvTriFree(qvTri* t) {
  if (!t) return;
  std::free(t->cache);
  recordFree(t);
}

qvMesh* qvMeshNew(qvTri* tri, qvEdg* edg, qvVtx* vtx, uint32_t flags) {
  qvMesh* m = recordMake<qvMesh>();
  if (!m) return nullptr;
  m->flags = flags;
  m->tri = tri;
  m->edg = edg;
  m->vtx = vtx;
  return m;
}

void qvMeshFree(qvMesh* m) {
  if (!m) return;
  std::free(m->topo);
  // The held lists are empty at rest; after a failed stitch they still own
  // their records.
  qvTriDeleteAll(m->tri);
  qvTriDeleteAll(m->triHeld);
  qvEdgDeleteAll(m->edg);
  qvEdgDeleteAll(m->edgHeld);
  if (m->flags & kMeshOwnsVtx) qvVtxDeleteAll(m->vtx);
  recordFree(m);
}

qvLnk* qvLnkNew(uint32_t flags, void* item) {
  qvLnk* l = recordMake<qvLnk>();
  if (!l) return nullptr;
  l->flags = flags;
  l->item = item;
  return l;
}

void qvLnkFree(qvLnk* l) {
  if (l) recordFree(l);
}

qvTopo* qvTopoNew() { return recordMake<qvTopo>(); }
