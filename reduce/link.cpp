// The link condition of a spoke: collapsing v onto w keeps the surface a
// surface only when the rings of v and w share exactly the two corners
// opposite the spoke and no edge. A spoke of a tetrahedron fails it, as does
// any spoke whose ends have a third common neighbour.
#include "reduce/reduce_internal.h"

namespace {

struct LinkWalk {
  const double* v;     // the end whose ring bears the mark
  const double* w;     // the end whose fan is walked
  const double* a;     // the corners opposite the spoke
  const double* b;
  uint32_t ringMark;
  int32_t valence;     // triangles round w
};

// Stops the walk with 2 at a neighbour of w, other than v, a and b, that is
// in v's ring too.
int32_t seeNeighbours(qvTri* t, void* ctx) {
  auto& c = *static_cast<LinkWalk*>(ctx);
  const qvEdg* far = qvTriFarEdge(t, c.w);
  if (!far) return 3;
  ++c.valence;
  for (const double* x : far->ends)
    if (x != c.v && x != c.a && x != c.b && (qvVtxOf(x)->flags & c.ringMark)) return 2;
  return 0;
}

}  // namespace

int32_t qvLinkTest(qvTri* t, qvEdg* e, const double* v, uint32_t ringMark, int32_t valence, int32_t* farValence) {
  if (!t || !e || !v) return -1;
  const int32_t i = qvTriEdgeSlot(t, e);
  const double* w = e->ends[0] == v ? e->ends[1] : e->ends[0];
  if (i < 0 || (e->ends[0] != v && e->ends[1] != v)) return -1;
  // The spoke's other triangle on the live surface.
  const qvTri* n = t->aux[i] ? t->aux[i] : t->adj[i];
  if (!n) return -1;
  LinkWalk walk{v, w, qvTriOpposite(t, e), qvTriOpposite(n, e), ringMark, 0};
  if (!walk.a || !walk.b) return -1;
  if (!(qvVtxOf(walk.a)->flags & ringMark) || !(qvVtxOf(walk.b)->flags & ringMark)) return -1;
  const int32_t r = qvFanWalk(t, w, seeNeighbours, &walk);
  if (r == 2) return 0;
  if (r != 0) return -1;
  if (farValence) *farValence = walk.valence;
  // Both ends of valence 3: the two rings share the edge a-b, and the four
  // triangles close a tetrahedron.
  return valence == kValenceMin && walk.valence == kValenceMin ? 0 : 1;
}
