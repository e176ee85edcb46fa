// Hand-built stars for the engine's tests: a hub over a ring, optionally
// closed below by the fan that removing the hub would leave; the marks of a
// star as the engine sets them; and the way from the engine's data form back
// to a mesh at rest, so that the validator can check what a routine left.
#pragma once

#include <array>
#include <cmath>
#include <cstdlib>
#include <vector>

#include "mesh/fixture.h"
#include "reduce/reduce_internal.h"

using Pt = std::array<double, 3>;

// Hub 0 at hub, ring vertices 1..n, faces (0, i, i + 1). With fan, the faces
// (1, i + 1, i) too: the ring filled from vertex 1, as a collapse of the hub
// onto vertex 1 leaves it. Star faces come first, then fan faces.
inline Shape starShape(const Pt& hub, const std::vector<Pt>& ring, bool fan) {
  Shape s;
  s.pts.push_back(hub);
  s.pts.insert(s.pts.end(), ring.begin(), ring.end());
  const int n = static_cast<int>(ring.size());
  for (int i = 1; i <= n; ++i) s.faces.push_back({0, i, i % n + 1});
  if (fan)
    for (int i = 2; i < n; ++i) s.faces.push_back({1, i + 1, i});
  return s;
}

// n points on the circle of radius r round the z axis at height z, at angles
// step * k * 360 / n degrees (step 2 gives a star polygon that winds twice).
inline std::vector<Pt> circle(int n, double r, double z, int step = 1) {
  std::vector<Pt> pts;
  for (int k = 0; k < n; ++k) {
    const double a = 2.0 * M_PI * step * k / n;
    pts.push_back({r * std::cos(a), r * std::sin(a), z});
  }
  return pts;
}

// Marks the star of vertex hub with kMarkSet as the engine does (triangles
// and ring edges moved to the heads); returns the ring length.
inline int32_t markStar(Fixture& f, int hub) {
  for (qvTri* t : f.t)
    if (qvTriEdgesAt(t, f.h(hub), nullptr, nullptr) == 2)
      return qvFanMark(f.mesh, t, f.h(hub), kMarkSet.tri, kMarkSet.edg, kMarkSet.vtx,
                       kFanMoveEdg | kFanMoveTri);
  return -1;
}

inline void unmarkStar(qvMesh* mesh) {
  const uint32_t edgBits[2] = {kMarkSet.edg, kMarkSet.edg};
  qvHeadUnmark(mesh, kMarkSet.tri, edgBits, kMarkSet.vtx);
}

// Back to rest: each vertex in the file form (x, y, z, a cleared normal slot)
// with link, aux and tag clear, and every triangle's cache released.
inline void backToRest(qvMesh* mesh) {
  for (qvVtx* v = mesh->vtx; v; v = v->next) {
    const double* p = qvVtxXyz(v);
    const double xyz[3] = {p[0], p[1], p[2]};
    v->flags = (v->flags & ~kVtxHasParam) | kVtxHasNormal;
    for (int k = 0; k < 6; ++k) v->dat[k] = k < 3 ? xyz[k] : 0.0;
    v->link = v->aux = nullptr;
    v->tag = 0;
  }
  for (qvTri* t = mesh->tri; t; t = t->next) {
    std::free(t->cache);
    t->cache = nullptr;
  }
}

// The qvLnk list of the given triangles, in their order; free with qvLnkDeleteAll.
inline qvLnk* lnkList(const std::vector<qvTri*>& tris) {
  qvLnk* head = nullptr;
  for (auto it = tris.rbegin(); it != tris.rend(); ++it) head = qvLnkConcat(qvLnkNew(0, *it), head);
  return head;
}
