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

// Samples per direction: the step a quarter of the tolerance where that fits;
// every vertex of the original is a sample either way.
constexpr int64_t kJudgeSamples = kThreadSanitizer ? 200000 : 2000000;

// What a judged result may show beyond the bound, where a known shortfall of
// the engine is recorded rather than hidden.
struct Allowed {
  double worst = 1.01;  // measured / tolerance accepted
  int64_t slivers = 0;  // degenerate facets beyond the original's
};

// Checks what every reduction keeps: the file reads, each of its vertices is
// bitwise a vertex of the original, no facet is added, the shells, closed
// shells and V - E + F of the original stand (a crack along a cut would open a
// shell), no degenerate facet (beyond allowed.slivers) or non-manifold edge is
// added, and the original lies within allowed.worst * tol of the result,
// measured on at most samples points.
inline void expectKept(const Original &original, const std::string &reduced, double tol,
                       const Allowed &allowed, const std::string &where, int64_t samples = kJudgeSamples) {
  MeasureMesh mesh = {};
  MeasureTopo topo = {};
  MeasureTree tree = {};
  MeasureDistance d = {};
  int64_t first = 0;
  const bool read = measureRead(reduced.c_str(), &mesh) >= 0 && measureTopology(&mesh, &topo) == 0 &&
                    measureTreeBuild(&mesh, &tree) == 0;
  EXPECT_TRUE(read) << where;
  if (read) {
    const MeasureSampling sampling = {tol / 4.0, samples, true, true};
    EXPECT_EQ(measureDistance(&original.mesh, &tree, &sampling, 2, &d), 0) << where;
    EXPECT_EQ(measureSubset(&original.mesh, &mesh, &first), 0) << where << ": a vertex is not an input vertex";
    EXPECT_LE(topo.facets, original.topo.facets) << where;
    const MeasureTopo &o = original.topo;
    EXPECT_EQ(topo.shells, o.shells) << where;
    EXPECT_EQ(topo.closedShells, o.closedShells) << where;
    EXPECT_EQ(topo.vertices - topo.edges + topo.facets, o.vertices - o.edges + o.facets) << where;
    EXPECT_LE(topo.degenerateFacets, o.degenerateFacets + allowed.slivers) << where;
    EXPECT_LE(topo.nonManifoldEdges, o.nonManifoldEdges) << where;
    EXPECT_LE(d.max, allowed.worst * tol) << where << ": " << d.max / tol << " of the tolerance";
  }
  measureTreeFree(&tree);
  measureMeshFree(&mesh);
}

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
