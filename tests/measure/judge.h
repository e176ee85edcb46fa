// A reduced file judged against its original by FacetMeasure's library,
// apart from the engine's own routines: the guarantees every method gives.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "measure/measure.h"

// The original, read, welded exactly and counted once.
struct Original {
  MeasureMesh mesh = {};
  MeasureTopo topo = {};
  double diagonal = 0.0;  // of the bounding box
  explicit Original(const std::string &name) {
    if (measureRead(name.c_str(), &mesh) < 0 || measureTopology(&mesh, &topo) != 0) return;
    const float *b = topo.box;
    diagonal = std::hypot(b[3] - b[0], b[4] - b[1], b[5] - b[2]);
  }
  ~Original() { measureMeshFree(&mesh); }
  Original(const Original &) = delete;
  Original &operator=(const Original &) = delete;
};

#if defined(__SANITIZE_THREAD__)
#define FT_THREAD_SANITIZER 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define FT_THREAD_SANITIZER 1
#endif
#endif
#ifdef FT_THREAD_SANITIZER
constexpr bool kThreadSanitizer = true;  // ten times slower: tests take fewer cases
#else
constexpr bool kThreadSanitizer = false;
#endif

// FacetMeasure's certificate of original -> reduced decided against tol: the
// verdict is kVerdictWithin when every point of the original is proven within
// tol of the result, kVerdictBeyond when some point is proven further.
inline MeasureBound certify(const Original &original, const std::string &reduced, double tol) {
  MeasureMesh mesh = {};
  MeasureTree tree = {};
  MeasureBound bound = {};
  bound.verdict = kVerdictUndecided;
  const bool read = measureRead(reduced.c_str(), &mesh) >= 0 && measureTreeBuild(&mesh, &tree) == 0;
  EXPECT_TRUE(read) << reduced;
  if (read) {
    EXPECT_EQ(measureBound(&original.mesh, &tree, true, tol, 2, &bound), 0) << reduced;
  }
  measureTreeFree(&tree);
  measureMeshFree(&mesh);
  return bound;
}

// Checks what every reduction keeps: the file reads, each of its vertices is
// bitwise a vertex of the original, no facet is added, the shells, closed
// shells and V - E + F of the original stand (a crack along a cut would open a
// shell), no degenerate facet or non-manifold edge is added, and FacetMeasure
// proves every point of the original within tol of the result, with no slack.
inline void expectKept(const Original &original, const std::string &reduced, double tol, const std::string &where) {
  MeasureMesh mesh = {};
  MeasureTopo topo = {};
  int64_t first = 0;
  const bool read = measureRead(reduced.c_str(), &mesh) >= 0 && measureTopology(&mesh, &topo) == 0;
  EXPECT_TRUE(read) << where;
  if (read) {
    EXPECT_EQ(measureSubset(&original.mesh, &mesh, &first), 0) << where << ": a vertex is not an input vertex";
    EXPECT_LE(topo.facets, original.topo.facets) << where;
    const MeasureTopo &o = original.topo;
    EXPECT_EQ(topo.shells, o.shells) << where;
    EXPECT_EQ(topo.closedShells, o.closedShells) << where;
    EXPECT_EQ(topo.vertices - topo.edges + topo.facets, o.vertices - o.edges + o.facets) << where;
    EXPECT_LE(topo.degenerateFacets, o.degenerateFacets) << where;
    EXPECT_LE(topo.nonManifoldEdges, o.nonManifoldEdges) << where;
    const MeasureBound bound = certify(original, reduced, tol);
    EXPECT_EQ(bound.verdict, kVerdictWithin) << where << ": proven between " << bound.lower / tol << " and "
                                             << bound.upper / tol << " of the tolerance";
  }
  measureMeshFree(&mesh);
}
