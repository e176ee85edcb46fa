// Triangle queries, searches and measures. A triangle stores no corners:
// each query reads them from edg[0] and edg[1] in a few pointer steps.
#include <cmath>
#include <utility>

#include "kernels/kernels.h"
#include "kernels/predicates.h"
#include "mesh/mesh_internal.h"

using ftmesh::handleXyz;

namespace {

bool validSlot(int32_t i) { return i >= 0 && i < 3; }

// The triangle's own turning sense in the plane of the handles' first two
// doubles: its sign bits if set, else orient2dClass of the corners.
int32_t planarSign(const qvTri* t, double* const c[3]) {
  if (t->flags & kTriSignPos) return 1;
  if (t->flags & kTriSignNeg) return -1;
  double ab[3];
  double ac[3];
  qvTurn res;
  // Collinear corners, wherever the third lies, have no turning sense.
  const int32_t cls = orient2dClass(c[0], c[1], c[2], 0, ab, ac, &res);
  return cls == kTurnLeft ? 1 : cls == kTurnRight ? -1 : 0;
}

// a, b, c = corners of t (or e's ends and the corner opposite e), and
// n = (b - a) x (c - a).
int32_t normalOf(const qvTri* t, const qvEdg* e, int32_t sign, double* corner[3], const double* p[3],
                 double n[3]) {
  if (!t) return 1;
  if (e) {
    if (qvTriEdgeSlot(t, e) < 0) return 1;
    corner[0] = e->ends[0];
    corner[1] = e->ends[1];
    corner[2] = qvTriOpposite(t, e);
  } else if (qvTriCorners(t, sign, corner) != 0) {
    return 1;
  }
  for (int k = 0; k < 3; ++k) {
    p[k] = handleXyz(corner[k]);
    if (!p[k]) return 1;
  }
  const double u[3] = {p[1][0] - p[0][0], p[1][1] - p[0][1], p[1][2] - p[0][2]};
  const double v[3] = {p[2][0] - p[0][0], p[2][1] - p[0][1], p[2][2] - p[0][2]};
  vecCross(u, v, n);
  return 0;
}

}  // namespace

// ---------------------------------------------------------------------------
// Triangle queries

int32_t qvTriCorners(const qvTri* t, int32_t sign, double* out[3]) {
  if (!t || !out) return 1;
  double* c[3];
  if (!ftmesh::cycleCorners(t, c)) return 1;
  if (sign != 0) {
    const int32_t own = planarSign(t, c);
    if (own == 0) return 1;
    if ((sign < 0) != (own < 0)) std::swap(c[0], c[1]);
  }
  for (int k = 0; k < 3; ++k) out[k] = c[k];
  return 0;
}

int32_t qvTriCornerVtx(const qvTri* t, int32_t sign, qvVtx* out[3]) {
  double* c[3];
  if (!out || qvTriCorners(t, sign, c) != 0) return 1;
  for (int k = 0; k < 3; ++k) out[k] = qvVtxOf(c[k]);
  return 0;
}

int32_t qvTriCoords(const qvTri* t, int32_t sign, double* out[3]) {
  double* c[3];
  if (!out || qvTriCorners(t, sign, c) != 0) return 1;
  double* p[3];
  for (int k = 0; k < 3; ++k) {
    p[k] = qvVtxXyz(qvVtxOf(c[k]));
    if (!p[k]) return 1;
  }
  for (int k = 0; k < 3; ++k) out[k] = p[k];
  return 0;
}

int32_t qvTriEdgeSlot(const qvTri* t, const qvEdg* e) {
  if (!t || !e) return -1;
  return ftmesh::edgeSlot(t, e);
}

qvTri* qvTriAdjAt(const qvTri* t, const qvEdg* e, int32_t* slot) {
  const int32_t i = qvTriEdgeSlot(t, e);
  if (slot) *slot = i;
  return i < 0 ? nullptr : t->adj[i];
}

double* qvTriOpposite(const qvTri* t, const qvEdg* e) {
  double* c[3];
  if (!e || qvTriCorners(t, 0, c) != 0) return nullptr;
  for (double* h : c)
    if (h != e->ends[0] && h != e->ends[1]) return h;
  return nullptr;
}

double* qvTriOppositeAt(const qvTri* t, int32_t i) {
  double* c[3];
  if (!validSlot(i) || qvTriCorners(t, 0, c) != 0) return nullptr;
  return c[(i + 2) % 3];
}

qvEdg* qvTriFarEdge(const qvTri* t, const double* h) {
  if (!t) return nullptr;
  for (qvEdg* e : t->edg)
    if (e && e->ends[0] != h && e->ends[1] != h) return e;
  return nullptr;
}

int32_t qvTriEdgesAt(const qvTri* t, const double* h, qvEdg* pair[2], int32_t slots[2]) {
  if (!t || !h) return -1;
  qvEdg* found[2] = {nullptr, nullptr};
  int32_t at[2] = {-1, -1};
  int32_t n = 0;
  for (int32_t i = 0; i < 3; ++i) {
    qvEdg* e = t->edg[i];
    if (!e || (e->ends[0] != h && e->ends[1] != h)) continue;
    if (n == 2) return -1;
    found[n] = e;
    at[n] = i;
    ++n;
  }
  // Slots 0 and 2 are consecutive the other way round: 2 precedes 0.
  if (n == 2 && at[0] == 0 && at[1] == 2) {
    std::swap(found[0], found[1]);
    std::swap(at[0], at[1]);
  }
  for (int k = 0; k < 2; ++k) {
    if (pair) pair[k] = found[k];
    if (slots) slots[k] = at[k];
  }
  return n;
}

int32_t qvTriEdgeRev(const qvTri* t, int32_t i) {
  if (!t || !validSlot(i)) return -1;
  return ftmesh::edgeRev(t, i);
}

int32_t qvTriDisagree(const qvTri* t, int32_t i) {
  if (!t || !validSlot(i)) return -1;
  const qvTri* n = t->adj[i];
  if (!n) return 0;
  const int32_t j = qvTriEdgeSlot(n, t->edg[i]);
  if (j < 0) return -1;
  const int32_t mine = qvTriEdgeRev(t, i);
  const int32_t theirs = qvTriEdgeRev(n, j);
  if (mine < 0 || theirs < 0) return -1;
  return mine == theirs ? 1 : 0;
}

// ---------------------------------------------------------------------------
// Searches

qvEdg* qvEdgFind(qvEdg* head, const double* h0, const double* h1) {
  for (qvEdg* e = head; e; e = e->next)
    if ((e->ends[0] == h0 && e->ends[1] == h1) || (e->ends[0] == h1 && e->ends[1] == h0)) return e;
  return nullptr;
}

qvEdg* qvEdgFrom(qvEdg* head, uint32_t bits, const double* h) {
  for (qvEdg* e = head; e; e = e->next)
    if ((e->flags & bits) && e->ends[0] == h) return e;
  return nullptr;
}

// ---------------------------------------------------------------------------
// Measures

int32_t qvTriNormal(const qvTri* t, const qvEdg* e, int32_t sign, double* out[3], double n[3]) {
  double* corner[3];
  const double* p[3];
  double m[3];
  if (normalOf(t, e, sign, corner, p, m) != 0) return 1;
  for (int k = 0; k < 3; ++k) {
    if (out) out[k] = corner[k];
    if (n) n[k] = m[k];
  }
  return 0;
}

int32_t qvTriGeometry(const qvTri* t, const qvEdg* e, int32_t sign, double* out[3], double n[3]) {
  double* corner[3];
  const double* p[3];
  double m[3];
  if (normalOf(t, e, sign, corner, p, m) != 0) return 1;
  for (int k = 0; k < 3; ++k) {
    if (out) out[k] = const_cast<double*>(p[k]);
    if (n) n[k] = m[k];
  }
  return 0;
}

double qvTriArea(const qvTri* t) {
  double n[3];
  if (qvTriNormal(t, nullptr, 0, nullptr, n) != 0) return -1.0;
  return 0.5 * std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
}

double qvMeshArea(const qvMesh* mesh) {
  if (!mesh) return -1.0;
  double sum = 0.0;
  for (const qvTri* t = mesh->tri; t; t = t->next) {
    const double a = qvTriArea(t);
    if (a < 0.0) return -1.0;
    sum += a;
  }
  return sum;
}

double qvTriVolume(const qvTri* t, const double* apex, int32_t* err) {
  double* p[3];
  if (qvTriCoords(t, 0, p) != 0) {
    if (err) *err = -1;
    return 0.0;
  }
  return apex ? tetVolume(apex, p[0], p[1], p[2]) : tetVolumeOrigin(p[0], p[1], p[2]);
}

double qvMeshVolume(const qvMesh* mesh, const double* apex, int32_t* err) {
  int32_t status = 0;
  double sum = 0.0;
  if (!mesh) {
    status = -1;
  } else {
    for (const qvTri* t = mesh->tri; t && status == 0; t = t->next) sum += qvTriVolume(t, apex, &status);
  }
  if (err) *err = status;
  return status == 0 ? sum : 0.0;
}

double qvEdgLen2(const qvEdg* e) {
  if (!e) return -1.0;
  const double* a = handleXyz(e->ends[0]);
  const double* b = handleXyz(e->ends[1]);
  if (!a || !b) return -1.0;
  const double dx = b[0] - a[0];
  const double dy = b[1] - a[1];
  const double dz = b[2] - a[2];
  return dy * dy + dx * dx + dz * dz;
}

// ---------------------------------------------------------------------------
// The pair of triangles round an edge

int32_t qvEdgQuad(const qvQuad* q, int32_t sign, double* out[4]) {
  if (!q || !out) return -1;
  out[3] = nullptr;
  const int32_t s = q->slot[0];
  double* c[3];
  if (!validSlot(s) || qvTriCorners(q->tri[0], sign, c) != 0) return -1;
  out[0] = c[(s + 1) % 3];
  out[1] = c[(s + 2) % 3];
  out[2] = c[s];
  if (!q->tri[1]) return 1;
  const int32_t ns = q->slot[1];
  double* d[3];
  if (!validSlot(ns) || qvTriCorners(q->tri[1], sign, d) != 0) return -1;
  out[3] = d[(ns + 2) % 3];
  return 0;
}

int32_t qvQuadConvex(const qvQuad* q) {
  double* p[4];
  if (qvEdgQuad(q, 0, p) != 0) return -1;
  int32_t first = 0;
  for (int i = 0; i < 4; ++i) {
    double ab[3];
    double ac[3];
    qvTurn res;
    const int32_t turn = turn2d(p[i], p[(i + 1) % 4], p[(i + 2) % 4], 0, ab, ac, &res);
    if (turn != kTurnLeft && turn != kTurnRight) return 0;  // no strict turn
    if (i == 0) first = turn;
    else if (turn != first) return 0;
  }
  return 1;
}
