// Facet soups for assembly tests, shapes made in code for the topology tests,
// a binary STL reader of our own, and sums over an assembled chain.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "fixture.h"

using Corners = std::array<double, 9>;  // x y z of three corners

// A soup: one qvMeshAddFacet per facet, the triangles then in input order.
qvMesh* soupOf(const std::vector<Corners>& facets);
std::vector<Corners> cornersOf(const Shape& s);
// The facets of tests/data/<name>, as floats widened to double.
std::vector<Corners> readStl(const std::string& name);
// Each facet split in four at its edge midpoints: the same surface, four
// times the facets, welded exactly, since a midpoint doesn't depend on the
// order of its ends.
std::vector<Corners> refine(const std::vector<Corners>& facets);

// Shapes: a torus of n x m quads, a Moebius strip of n quads, an open
// frustum of n quads between radius r0 at z 0 and r1 at z 1.
Shape torusShape(int n, int m);
Shape moebiusShape(int n);
Shape tubeShape(int n, double r0, double r1);
// Triangle strip along x: faces (i, i+1, i+2), turned on odd i. Sorted by the
// low corner the faces stay in strip order, so every cut falls between them.
Shape stripShape(int n);
// Two shapes side by side in one.
Shape joined(const Shape& a, const Shape& b, double dx);

// Sums over a mesh chain, each shell analysed (qvMeshTopo) and validated.
struct ChainSum {
  long shells = 0, nVtx = 0, nEdg = 0, nTri = 0, nBnd = 0, bad = 0, invalid = 0;
};
ChainSum analyse(qvMesh* chain);
