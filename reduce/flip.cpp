// The flip test: after a collapse the new fan is improved by Delaunay flips in
// the plane of the ring's projection. A diagonal is flipped only inside a
// strictly convex quad, when no vertex would fall below valence 3, and when
// the exact in-circle test says the far apex lies strictly within the circle
// of the other three corners; so a cocircular quad never flips.
#include <utility>

#include "kernels/predicates.h"
#include "reduce/reduce_internal.h"

namespace {

constexpr int32_t kFlipValenceMin = 4;  // a diagonal's end loses a triangle and must keep 3

// The diagonal of rec: both triangles given, and the same edge in both slots.
qvEdg* diagonal(const qvFlipRec* rec) {
  if (!rec || !rec->tri[0] || !rec->tri[1]) return nullptr;
  const int32_t s0 = rec->slot[0];
  const int32_t s1 = rec->slot[1];
  if (s0 < 0 || s0 > 2 || s1 < 0 || s1 > 2) return nullptr;
  qvEdg* e = rec->tri[0]->edg[s0];
  return e && e == rec->tri[1]->edg[s1] ? e : nullptr;
}

// 1 or -1 for a strict turn of a, b, c in (u, v), 0 for none.
int32_t strictTurn(const double* a, const double* b, const double* c) {
  double ab[3], ac[3];
  qvTurn res;
  const int32_t r = turn2d(a, b, c, 0, ab, ac, &res);
  return r == kTurnLeft ? 1 : (r == kTurnRight ? -1 : 0);
}

}  // namespace

int32_t qvFlipSafe(const qvFlipRec* rec) {
  const qvEdg* e = diagonal(rec);
  if (!e || !e->ends[0] || !e->ends[1]) return -1;
  for (const double* h : e->ends)
    if (qvVtxOf(h)->tag < kFlipValenceMin) return 0;
  // Two triangles with a common neighbour would, once flipped, lay two
  // triangles on one pair of edges.
  const qvTri* t0 = rec->tri[0];
  const qvTri* t1 = rec->tri[1];
  for (int i = 0; i < 3; ++i)
    for (int j = 0; j < 3; ++j) {
      if (t0->aux[i] && t0->aux[i] == t1->aux[j]) return 0;
      if (t0->adj[i] && t0->adj[i] == t1->adj[j]) return 0;
    }
  return 1;
}

int32_t qvQuadDelaunay(const qvFlipRec* rec) {
  double* p[4];
  if (!diagonal(rec) || qvEdgQuad(rec, 0, p) != 0) return -1;
  int32_t g = strictTurn(p[0], p[1], p[2]);
  if (g == 0) {
    // Read the quad from the other triangle's side.
    std::swap(p[0], p[2]);
    std::swap(p[1], p[3]);
    g = strictTurn(p[0], p[1], p[2]);
    if (g == 0) return 0;
  }
  // Both orders must find the far apex strictly inside: the second is asked
  // only when the first does.
  const int32_t in0 = incircleSign(p[0], p[1], p[2], p[3]);
  if (in0 * g <= 1) return 0;
  return incircleSign(p[2], p[3], p[0], p[1]) == in0 ? 1 : 0;
}

int32_t qvFlipTest(const qvFlipRec* rec) {
  const qvEdg* e = diagonal(rec);
  if (!e) return -1;
  if ((e->flags & kEdgNoFlipSet) || (rec->tri[0]->flags & kTriCap) || (rec->tri[1]->flags & kTriCap))
    return 0;
  int32_t r = qvQuadConvex(rec);
  if (r <= 0) return r;
  r = qvFlipSafe(rec);
  if (r <= 0) return r;
  return qvQuadDelaunay(rec);
}
