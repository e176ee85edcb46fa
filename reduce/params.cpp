// The numbers of a pass, the engine's form of the vertex data, and the
// valences that the flips of a removal keep up.
#include "reduce/reduce_internal.h"

namespace {


void clearEntries(qvMesh* mesh) {
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    v->link = nullptr;
    v->aux = nullptr;
  }
}

// Rewrites v's block as pair, x, y, z, score, reading x, y, z through
// whichever form it finds first: the copy matters, since the two forms overlap.
void toEngineForm(qvVtx* v) {
  const double* from = qvVtxXyz(v);
  const double xyz[3] = {from[0], from[1], from[2]};
  v->flags = (v->flags & ~(kVtxHasNormal | kVtxHasParam)) | kVtxHasParam;
  v->dat[kRedPairAt] = 0.0;
  v->dat[kRedPairAt + 1] = 0.0;
  for (int k = 0; k < 3; ++k) v->dat[kRedXyzAt + k] = xyz[k];
  v->dat[kRedScoreAt] = kRedScoreNone;
}

int32_t prepare(qvMesh* mesh, bool every) {
  if (!mesh) return -1;
  for (const qvTri* t = mesh->tri; t; t = t->next)
    if ((t->flags & kMarkMask) || !(t->flags & kTriLinked)) return -1;
  for (const qvVtx* v = mesh->vtx; v; v = v->next)
    if ((v->flags & kVtxDerived) || !v->dat || v->ndat < kRedDataSize) return -1;

  // Each vertex enters the pass at the last triangle of the list that touches it.
  clearEntries(mesh);
  for (qvTri* t = mesh->tri; t; t = t->next) {
    qvVtx* c[3];
    if (qvTriCornerVtx(t, 0, c) != 0) {
      clearEntries(mesh);
      return -1;
    }
    for (qvVtx* x : c) x->link = x->aux = t;
  }
  for (const qvVtx* v = mesh->vtx; v; v = v->next)
    if (!v->link) {
      clearEntries(mesh);
      return -1;
    }

  int32_t turned = 0;
  for (qvVtx* v = mesh->vtx; v; v = v->next)
    if (every || !(v->flags & kVtxHasParam)) {
      toEngineForm(v);
      ++turned;
    }
  return turned;
}

}  // namespace

int32_t qvRedParamsSet(double t, qvRedParams* params) {
  if (!params) return -1;
  params->tol = t;
  params->tol2 = t * t;
  params->eta = 0.0;
  params->lim2 = t * t;
  params->pool = nullptr;
  params->quick = false;
  params->rims = false;
  return 0;
}

int32_t qvRedPrepFirst(qvMesh* mesh) { return prepare(mesh, true); }

int32_t qvRedPrepPass(qvMesh* mesh) { return prepare(mesh, false); }

