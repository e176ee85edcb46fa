// The link condition of a spoke: collapsing v onto w keeps the surface a
// surface only when the rings of v and w share exactly the two corners
// opposite the spoke and no edge. A spoke of a tetrahedron fails it, as does
// any spoke whose ends have a third common neighbour.
#include "reduce/reduce_internal.h"

namespace {

inline bool bearsBoth(uint32_t flags, const uint32_t marks[2]) {
  return (flags & marks[0]) && (flags & marks[1]);
}

}  // namespace

int32_t qvLinkTest(qvMesh* mesh, qvTri* t, qvEdg* e, const uint32_t edgMarks[2],
                   const uint32_t vtxMarks[2]) {
  if (!mesh || !t || !e || !edgMarks || !vtxMarks) return -1;
  const int32_t i = qvTriEdgeSlot(t, e);
  if (i < 0) return -1;
  // The spoke's other triangle on the live surface.
  const qvTri* n = t->aux[i] ? t->aux[i] : t->adj[i];
  if (!n) return -1;
  const double* a = qvTriOpposite(t, e);
  const double* b = qvTriOpposite(n, e);
  if (!a || !b) return -1;
  if (!bearsBoth(qvVtxOf(a)->flags, vtxMarks) || !bearsBoth(qvVtxOf(b)->flags, vtxMarks)) return 0;

  // Both rings stand at the head of the edge list; a vertex common to both
  // bears both vertex marks.
  const uint32_t either = edgMarks[0] | edgMarks[1];
  const uint32_t anyVtx = vtxMarks[0] | vtxMarks[1];
  for (const qvEdg* r = mesh->edg; r && (r->flags & either); r = r->next) {
    if (bearsBoth(r->flags, edgMarks)) return 0;  // an edge in both rings
    for (const double* x : r->ends) {
      if (!x || !(qvVtxOf(x)->flags & anyVtx)) return -1;
      if (bearsBoth(qvVtxOf(x)->flags, vtxMarks) && x != a && x != b) return 0;
    }
  }
  return 1;
}
