// The recursion behind the parallel entries, with the leaf routine as a
// parameter, so that the tests can drive it with leaves whose results they
// choose and with any depth, whatever the machine's processor count.
#pragma once

#include "parallel/parallel.h"

// What a method does with one piece, and whether it prints progress lines.
struct qvParMethod {
  // Reduces one piece: 0 or -1, the triangles removed in *removed.
  int32_t (*leaf)(qvMesh *mesh, double tolerance, const double *angleRef, int32_t *removed);
  int32_t progress;  // 1: print the progress lines (low method), 0: silent (medium)
};

// A piece below this many triangles isn't worth a fork.
constexpr int32_t kForkMin = 5000;

// The whole part of the base-2 logarithm of the processor count: the number
// of levels that fork on size. 0 for a count below 2.
[[nodiscard]] int32_t reduceMaxDepth(int32_t procs);

// One level of the recursion at depth + 1 (the root is called with -1). A
// chain forks whatever the depth; a single mesh is cut while the level is
// below maxDepth and it holds kForkMin triangles or more, and reduced by
// method->leaf otherwise. Afterwards mesh holds every record of its subtree
// and its next is null. The triangles taken out, or -1.
[[nodiscard]] int32_t reduceNodeWith(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                       int32_t maxDepth, const qvParMethod *method);

// An entry: maxDepth from the processor count, nesting on for the time of
// the recursion and put back on every path. The result of the recursion.
[[nodiscard]] int32_t reduceParallelWith(qvMesh *mesh, double tolerance, const double *angleRef,
                           const qvParMethod *method);

// qvMeshCut with the two halves settled by threads threads (1 or 2) side by
// side, with the same result.
[[nodiscard]] int32_t qvMeshCutWith(qvMesh *mesh, int32_t count, qvMeshPair *pair, int32_t threads);
