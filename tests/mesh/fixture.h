// Small meshes built in code, stitched the way assembly leaves them: one
// vertex per point, an edge shared by at most two faces (a third face on the
// same two points gets an edge of its own), adj joined across shared edges.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "mesh/qvMesh.h"

struct Shape {
  std::vector<std::array<double, 3>> pts;  // one vertex each
  std::vector<std::array<int, 3>> faces;   // corners in cycle order
};

extern const Shape kTetra;       // outward, volume 1/6
extern const Shape kOctahedron;  // outward, unit, volume 4/3
extern const Shape kOpenFan;     // hub 0, ring 1-4, three faces: open at the hub
extern const Shape kOpenCone;    // apex 0 over a square ring: closed at the apex
extern const Shape kBowTie;      // two faces that meet only at vertex 0
extern const Shape kThreeOnEdge; // faces 0, 1 and 2 all on points 0 and 1
extern const Shape kSquare;      // unit square 0-1-2-3 split along 0-2

struct Fixture {
  qvMesh* mesh = nullptr;
  std::vector<qvVtx*> v;  // vertices in the order of the points
  std::vector<qvTri*> t;  // triangles in the order of the faces

  explicit Fixture(const Shape& s);
  ~Fixture() { qvMeshFree(mesh); }
  Fixture(const Fixture&) = delete;
  Fixture& operator=(const Fixture&) = delete;

  double* h(int i) const { return v[i]->dat; }
  qvEdg* e(int a, int b) const { return qvEdgFind(mesh->edg, h(a), h(b)); }
};

// Length of the run of records at a list's head that bear bit.
template <class T>
int headRun(const T* head, uint32_t bit) {
  int n = 0;
  for (; head && (head->flags & bit); head = head->next) ++n;
  return n;
}

// The validator's messages, and its count through n.
std::string validateText(const qvMesh* mesh, int32_t* n = nullptr);
