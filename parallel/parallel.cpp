// The parallel entries of the medium and low methods. A shell is halved
// recursively, the pieces are reduced at the same time, and their lists are
// put together again. Each level is one OpenMP region of two threads with two
// sections, one per half; there is no work queue and no pool of our own.
//
// The seam between two pieces is neither reduced later nor repaired: its
// vertices carry kVtxPinned, so the engine keeps them on both sides, and
// after the join the two sides' triangles meet at identical coordinates.
//
// The result depends on the processor count (through maxDepth) and on
// nothing else: each piece is reduced from its own lists, pieces are joined
// first before second, and the sum doesn't care which section ended first.
// Only the order of the progress lines depends on timing.
//
// The file reads in run order: the join, one level of the recursion, then
// the entries.
#include <omp.h>

#include <cassert>
#include <cstdint>
#include <cstdio>

#include "kernels/predicates.h"
#include "kernels/failure.h"
#include "kernels/progress.h"
#include "parallel/parallel_internal.h"
#include "reduce/reduce.h"

namespace {

// The progress lines of the low method. Written without a lock of our own,
// so lines of different threads may come in any order.
constexpr const char *kLineProcessors = "Number of processors %d\n";
constexpr const char *kLineMaxDepth = "Max Recursion Depth %d\n";
constexpr const char *kLineCurrent = "Current Recursion Depth %d\n";
constexpr const char *kLineFinal = "Final Recursion Depth %d\n";
constexpr const char *kLineStop = "Stop Recursion at %d\n";

// Threads of the team of one fork: one per section.
constexpr int kForkThreads = 2;

// Nesting is on when more than one level of parallel regions may be active.
// It is read and switched through max-active-levels: omp_get_nested and
// omp_set_nested are deprecated since OpenMP 5.0 and mean exactly "above 1"
// and "1 or the supported maximum".
constexpr int kNestedLevels = 2;

constexpr qvParMethod kMedium = {reduceOnePass, 0};
constexpr qvParMethod kLow = {reduceQuick, 1};

// A failed cut can leave records outside mesh: the lower half in
// pair->second and pieces chained behind either half. They go back into
// mesh's lists, so that the caller, which frees the one mesh it gave, loses
// nothing. The mesh is then good only for being freed.
void gatherPieces(qvMesh *mesh, qvMeshPair *pair) {
  qvMesh *rest = mesh->next;
  mesh->next = nullptr;
  if (rest) rest->prev = nullptr;
  if (pair->second && pair->second != mesh) rest = qvMeshConcat(rest, pair->second);
  while (rest) {
    qvMeshPair back = {mesh, rest};
    rest = rest->next;
    back.second->prev = nullptr;
    back.second->next = nullptr;
    // A join refuses only before it moves anything: the piece is then freed here.
    if (qvMeshJoin(&back) != 0) qvMeshFree(back.second);
  }
  pair->first = mesh;
  pair->second = nullptr;
}

// The leaf's progress notes let the front end tell the time a leaf spends
// outside its passes (features, caps) from the passes themselves.
// A leaf walks its triangle and edge lists many times. After a cut the
// triangles of each piece lie in list order already; the edges, which run in
// the order of the split, are laid out in list order first (a list that runs
// up through memory stays as it is). A mesh that can't be compacted is
// reduced as it is.
int32_t reduceLeaf(qvMesh *mesh, double tolerance, const double *angleRef,
                   const qvParMethod *method) {
  (void)qvMeshCompact(mesh);
  (void)qvMeshCompactEdges(mesh);
  ftProgress(kProgressLeaf, 0);
  int32_t removed = 0;
  const int32_t status = method->leaf(mesh, tolerance, angleRef, &removed);
  ftProgress(kProgressLeafEnd, 0);
  return status < 0 ? -1 : removed;
}

// Reduces the two meshes of pair side by side at depth d, each as a node of
// the next level, and joins them into pair->first. Each section owns its
// mesh until the barrier at the end of the region; the parent touches pair
// only before and after. A failing branch doesn't stop its sibling: both are
// joined before either result is looked at.
int32_t reduceFork(qvMeshPair *pair, double tolerance, const double *angleRef, int32_t d,
                   int32_t maxDepth, const qvParMethod *method) {
  int32_t results[2] = {0, 0};
#pragma omp parallel sections num_threads(kForkThreads)
  {
#pragma omp section
    results[0] = reduceNodeWith(pair->first, tolerance, angleRef, d, maxDepth, method);
#pragma omp section
    results[1] = reduceNodeWith(pair->second, tolerance, angleRef, d, maxDepth, method);
  }
  if (qvMeshJoin(pair) != 0) return FT_FAIL(-1);

  if (results[0] < 0 || results[1] < 0) return FT_FAIL(-1);
  const int64_t sum = static_cast<int64_t>(results[0]) + results[1];
  return sum > INT32_MAX ? -1 : static_cast<int32_t>(sum);
}

// Whether the recursion cuts a single mesh at depth d rather than reducing it
// as a leaf: below maxDepth, and kForkMin triangles or more. Only whether the
// list reaches kForkMin is counted; the cut counts the list as it sorts it.
bool cutsAt(const qvMesh *mesh, int32_t d, int32_t maxDepth) {
  if (d >= maxDepth) return false;
  int32_t count = 0;
  for (const qvTri *t = mesh->tri; t && count < kForkMin; t = t->next) ++count;
  return count >= kForkMin;
}

}  // namespace

// ---------------------------------------------------------------------------
// Joining

int32_t qvMeshJoin(qvMeshPair *pair) {
  if (!pair || !pair->first || !pair->second || pair->first == pair->second ||
      pair->second->next)
    return FT_FAIL(-1);
  qvMesh *first = pair->first;
  qvMesh *second = pair->second;
  first->tri = qvTriConcat(first->tri, second->tri);
  first->edg = qvEdgConcat(first->edg, second->edg);
  // Two sorted vertex lists one behind the other aren't sorted.
  if (second->vtx) first->flags &= ~kMeshSortedSet;
  first->vtx = qvVtxConcat(first->vtx, second->vtx);
  second->tri = nullptr;
  second->edg = nullptr;
  second->vtx = nullptr;
  qvMeshFree(second);
  pair->second = nullptr;
  return 0;
}

// ---------------------------------------------------------------------------
// One level

int32_t reduceMaxDepth(int32_t procs) {
  int32_t maxDepth = 0;
  for (int32_t n = procs; n > 1; n >>= 1) ++maxDepth;
  return maxDepth;
}

int32_t reduceNodeWith(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                       int32_t maxDepth, const qvParMethod *method) {
  assert(method && method->leaf);
  const int32_t d = depth + 1;
  // Before any test, so that a null mesh prints it too.
  if (method->progress) std::printf(kLineCurrent, d);
  if (!mesh) return FT_FAIL(-1);

  qvMeshPair pair = {nullptr, nullptr};
  if (mesh->next) {
    // A chain of pieces left by a cut always forks, whatever the depth and
    // size: its first mesh against the rest.
    pair.first = mesh;
    pair.second = mesh->next;
    mesh->next = nullptr;
    pair.second->prev = nullptr;
  } else {
    if (d >= maxDepth) {
      if (method->progress) std::printf(kLineFinal, d);
      return reduceLeaf(mesh, tolerance, angleRef, method);
    }
    if (!cutsAt(mesh, d, maxDepth)) {
      if (method->progress) std::printf(kLineStop, d);
      return reduceLeaf(mesh, tolerance, angleRef, method);
    }
    if (qvMeshCut(mesh, -1, &pair) != 0) {
      gatherPieces(mesh, &pair);
      return FT_FAIL(-1);
    }
  }

  return reduceFork(&pair, tolerance, angleRef, d, maxDepth, method);
}

int32_t reduceNodeMedium(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                         int32_t maxDepth) {
  return reduceNodeWith(mesh, tolerance, angleRef, depth, maxDepth, &kMedium);
}

int32_t reduceNodeLow(qvMesh *mesh, double tolerance, const double *angleRef, int32_t depth,
                      int32_t maxDepth) {
  return reduceNodeWith(mesh, tolerance, angleRef, depth, maxDepth, &kLow);
}

// ---------------------------------------------------------------------------
// Entries

namespace {

// Sets up the recursion and runs it: on mesh from the root, or, with cut
// given, from the fork of the halves of mesh's first cut, printing the lines
// the root prints before it forks.
int32_t runEntry(qvMesh *mesh, qvMeshPair *cut, double tolerance, const double *angleRef,
                 const qvParMethod *method) {
  assert(method && method->leaf);
  const int32_t procs = omp_get_num_procs();
  const int levels = omp_get_max_active_levels();
  const bool nestingWasOff = levels < kNestedLevels;
  if (nestingWasOff) omp_set_max_active_levels(omp_get_supported_active_levels());
  if (method->progress) std::printf(kLineProcessors, procs);
  const int32_t maxDepth = reduceMaxDepth(procs);
  if (method->progress) std::printf(kLineMaxDepth, maxDepth);

  // The predicates' constants are written once; doing it before the first
  // fork keeps every leaf from racing on that set-up.
  exactinit();
  int32_t result;
  if (cut) {
    if (method->progress) std::printf(kLineCurrent, 0);
    result = reduceFork(cut, tolerance, angleRef, 0, maxDepth, method);
  } else {
    result = reduceNodeWith(mesh, tolerance, angleRef, -1, maxDepth, method);
  }

  if (nestingWasOff) omp_set_max_active_levels(levels);
  return result;
}

bool madeCut(const qvMeshPair *cut) { return cut && cut->first && cut->second && !cut->first->prev; }

}  // namespace

int32_t reduceParallelWith(qvMesh *mesh, double tolerance, const double *angleRef,
                           const qvParMethod *method) {
  return runEntry(mesh, nullptr, tolerance, angleRef, method);
}

int32_t reduceParallelMedium(qvMesh *mesh, double tolerance, const double *angleRef) {
  return runEntry(mesh, nullptr, tolerance, angleRef, &kMedium);
}

int32_t reduceParallelLow(qvMesh *mesh, double tolerance, const double *angleRef) {
  return runEntry(mesh, nullptr, tolerance, angleRef, &kLow);
}

int32_t reduceParallelFirstCut(qvMesh *shell, qvMeshPair *pair) {
  if (!pair) return FT_FAIL(-1);
  *pair = {shell, nullptr};
  if (!shell || shell->next || shell->prev) return FT_FAIL(-1);
  // The root is depth 0 and cuts where reduceNodeWith would.
  if (!cutsAt(shell, 0, reduceMaxDepth(omp_get_num_procs()))) return 0;
  // One thread: the cores are the reduction's. A team of its own would also
  // bring new threads, and with them new allocator arenas, for every run.
  if (qvMeshCutWith(shell, -1, pair, 1) != 0) {
    gatherPieces(shell, pair);
    return FT_FAIL(-1);
  }
  return 1;
}

int32_t reduceParallelMediumCut(qvMeshPair *cut, double tolerance, const double *angleRef) {
  if (!madeCut(cut)) return FT_FAIL(-1);
  return runEntry(nullptr, cut, tolerance, angleRef, &kMedium);
}

int32_t reduceParallelLowCut(qvMeshPair *cut, double tolerance, const double *angleRef) {
  if (!madeCut(cut)) return FT_FAIL(-1);
  return runEntry(nullptr, cut, tolerance, angleRef, &kLow);
}
