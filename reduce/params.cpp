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
  // Two walks over the vertices and one over the triangles: the vertices are
  // checked and their entries cleared, each vertex enters the pass at the
  // last triangle of the list that touches it, and a vertex that touches one
  // is turned into the engine's form.
  bool ok = true;
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    ok = ok && !(v->flags & kVtxDerived) && v->dat && v->ndat >= kRedDataSize;
    v->link = v->aux = nullptr;
  }
  for (qvTri* t = mesh->tri; t && ok; t = t->next) {
    qvVtx* c[3];
    ok = !(t->flags & kMarkMask) && (t->flags & kTriLinked) && qvTriCornerVtx(t, 0, c) == 0;
    for (int k = 0; k < 3 && ok; ++k) c[k]->link = c[k]->aux = t;
  }
  int32_t turned = 0;
  for (qvVtx* v = mesh->vtx; v && ok; v = v->next) {
    ok = v->link != nullptr;
    if (ok && (every || !(v->flags & kVtxHasParam))) {
      toEngineForm(v);
      ++turned;
    }
  }
  if (!ok) clearEntries(mesh);
  return ok ? turned : -1;
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

