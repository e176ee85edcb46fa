// The recursion driven with test leaves whose results the tests choose, at
// depths this machine's processor count wouldn't reach: leaf counts on a strip
// whose cuts are known by hand, chains, the result tests of a fork, failures,
// seams on closed models, progress lines, and the nesting setting. The real
// leaves on pieces are judged in seams_test.cpp.
#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <set>
#include <sstream>
#include <utility>

#include "mesh/soup.h"
#include "parallel/parallel_internal.h"

namespace {

qvMesh* stripMesh(int n) {
  Fixture f(stripShape(n));
  return std::exchange(f.mesh, nullptr);
}

int32_t chainTris(const qvMesh* m) {
  int32_t n = 0;
  for (; m; m = m->next) n += qvTriCount(m->tri);
  return n;
}

// A chain of three closed shells: the torus and the bunny refined (16384 and
// 14696 triangles, so both are cut) and a tetrahedron, side by side.
qvMesh* models() {
  std::vector<Corners> all = refine(readStl("torus.stl"));
  const std::vector<Corners> more[2] = {refine(readStl("bunny.stl")), readStl("tetrahedron.stl")};
  for (int s = 0; s < 2; ++s)
    for (Corners f : more[s]) {
      for (int k = 0; k < 9; k += 3) f[k] += 100.0 * (s + 1);
      all.push_back(f);
    }
  qvMesh* m = soupOf(all);
  EXPECT_EQ(qvMeshAssemble(m, nullptr), 3);
  return m;
}

// What the test leaves saw, from the sections' threads. The settings are
// written before a run, on the main thread.
struct LeafLog {
  std::atomic<int> leaves{0}, tris{0}, pinned{0}, seamFaults{0}, level{0};
};
LeafLog gLog;
bool gClosed = false;        // the model is closed: every boundary of a piece is a seam
qvMesh* gRoot = nullptr;     // valueLeaf: the mesh that was cut keeps the upper half
int32_t gValue[2] = {0, 0};  // valueLeaf: results for the upper and the lower half

// Counts the piece; on a closed model checks that its pinned vertices are
// exactly the ends of its boundary edges; clears the seam mark as the engine
// does; reverses the triangles so that a join out of order would show.
// Counts 1 removed, so that a run returns its number of leaves.
int32_t recordLeaf(qvMesh* m, double, const double*, int32_t* removed) {
  *removed = 1;
  ++gLog.leaves;
  gLog.tris += qvTriCount(m->tri);
  for (int seen = gLog.level; omp_get_active_level() > seen;)
    gLog.level.compare_exchange_weak(seen, omp_get_active_level());
  std::set<const qvVtx*> pinned, rim;
  for (const qvVtx* v = m->vtx; v; v = v->next)
    if (v->flags & kVtxPinned) pinned.insert(v);
  for (const qvTri* t = m->tri; t; t = t->next)
    for (int i = 0; i < 3; ++i)
      if (!t->adj[i]) rim.insert({qvVtxOf(t->edg[i]->ends[0]), qvVtxOf(t->edg[i]->ends[1])});
  gLog.pinned += int(pinned.size());
  if (gClosed && pinned != rim) ++gLog.seamFaults;
  qvVtxAndAll(m->vtx, ~kVtxPinned);
  m->tri = qvTriReverse(m->tri);
  return 0;
}

// A negative value fails, any other is the count removed.
int32_t valueLeaf(qvMesh* m, double, const double*, int32_t* removed) {
  ++gLog.leaves;
  *removed = gValue[m == gRoot ? 0 : 1];
  return *removed < 0 ? -1 : 0;
}

const qvParMethod kRecord = {recordLeaf, 1};
const qvParMethod kSilent = {recordLeaf, 0};

void resetLog() { gLog.leaves = gLog.tris = gLog.pinned = gLog.seamFaults = gLog.level = 0; }

int32_t run(qvMesh* m, int maxDepth, const qvParMethod& method = kSilent) {
  resetLog();
  return reduceNodeWith(m, 0.1, nullptr, -1, maxDepth, &method);
}

std::vector<std::string> sortedLines(const std::string& text) {
  std::vector<std::string> lines;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::sort(lines.begin(), lines.end());
  return lines;
}

std::vector<Corners> cornerList(const qvMesh* m) {
  std::vector<Corners> out;
  for (const qvTri* t = m->tri; t; t = t->next) {
    double* p[3];
    EXPECT_EQ(qvTriCoords(t, 0, p), 0);
    out.push_back({p[0][0], p[0][1], p[0][2], p[1][0], p[1][1], p[1][2], p[2][0], p[2][1], p[2][2]});
  }
  return out;
}

}  // namespace

TEST(ParallelRecursion, ForksOnSizeBelowMaxDepthAndOnChainsAlways) {
  // strip > 0: a strip of that many triangles; 0: the chain of models(); -1: null.
  struct Case {
    int strip, maxDepth, leaves;
    std::vector<std::string> lines;  // sorted; not checked when empty
  };
  const std::string c = "Current Recursion Depth ", f = "Final Recursion Depth ";
  const std::vector<Case> cases = {
      {40000, 0, 1, {c + "0", f + "0"}},
      {40000, 3, 8, {}},  // depth 1 is the 5000 row's; 3 passes through 2
      {5000, 1, 2, {c + "0", c + "1", c + "1", f + "1", f + "1"}},
      {4999, 1, 1, {c + "0", "Stop Recursion at 0"}},
      {0, 0, 3, {c + "0", c + "1", c + "1", c + "2", c + "2", f + "1", f + "2", f + "2"}},
      {-1, 2, 0, {c + "0"}},
  };
  for (const Case& k : cases) {
    qvMesh* m = k.strip > 0 ? stripMesh(k.strip) : k.strip == 0 ? models() : nullptr;
    const int32_t tris = chainTris(m);
    testing::internal::CaptureStdout();
    const int32_t result = run(m, k.maxDepth, kRecord);
    const std::string out = testing::internal::GetCapturedStdout();
    SCOPED_TRACE(std::to_string(k.strip) + " @" + std::to_string(k.maxDepth));
    EXPECT_EQ(result, m ? k.leaves : -1);
    EXPECT_EQ(gLog.leaves, k.leaves);
    if (!k.lines.empty()) {
      EXPECT_EQ(sortedLines(out), k.lines);
    }
    if (!m) continue;
    EXPECT_EQ(m->next, nullptr);
    EXPECT_EQ(qvTriCount(m->tri), tris);
    EXPECT_EQ(gLog.tris, tris);
    EXPECT_EQ(validateText(m), "");
    qvMeshFree(m);
  }
}

TEST(ParallelRecursion, EitherHalfFailingFailsTheRunAndCountsAddUp) {
  // maxDepth 0 runs one leaf, the root itself, with the first value.
  for (const auto& [maxDepth, first, second, want] : std::vector<std::array<int, 4>>{
           {1, 0, 5, 5}, {1, 5, 0, 5}, {1, 2, 3, 5}, {1, 3, -4, -1}, {1, -3, 4, -1}, {0, -7, 9, -1}}) {
    qvMesh* m = stripMesh(5000);
    gRoot = m;
    gValue[0] = first;
    gValue[1] = second;
    EXPECT_EQ(run(m, maxDepth, {valueLeaf, 0}), want) << first << " " << second;
    // A failing branch is joined like any other.
    EXPECT_EQ(gLog.leaves, maxDepth ? 2 : 1);
    EXPECT_EQ(m->next, nullptr);
    EXPECT_EQ(qvTriCount(m->tri), 5000);
    qvMeshFree(m);
  }
}

TEST(ParallelRecursion, FailedCutGivesUpBeforeAnyForkAndKeepsEveryRecord) {
  // Not one shell: the bow tie's faces sort first, and a marked triangle
  // without a neighbour fails the cut after it has chained the pieces.
  Fixture f(joined(stripShape(5000), kBowTie, -5));
  EXPECT_EQ(run(f.mesh, 1), -1);
  EXPECT_EQ(gLog.leaves, 0);
  EXPECT_EQ(f.mesh->next, nullptr);
  EXPECT_EQ(qvTriCount(f.mesh->tri), 5002);
  EXPECT_EQ(validateText(f.mesh), "");  // the side mark is cleared
}

TEST(ParallelRecursion, SeamsArePinnedInEveryLeafThenClearedAndRunsRepeatExactly) {
  gClosed = true;
  std::vector<Corners> lists[2];
  for (auto& list : lists) {
    qvMesh* m = models();
    EXPECT_EQ(run(m, 3), gLog.leaves);
    EXPECT_GT(gLog.leaves, 4);
    EXPECT_GT(gLog.pinned, 0);
    EXPECT_EQ(gLog.seamFaults, 0);
    for (const qvVtx* v = m->vtx; v; v = v->next) ASSERT_FALSE(v->flags & kVtxPinned);
    EXPECT_EQ(validateText(m), "");
    list = cornerList(m);
    qvMeshFree(m);
  }
  gClosed = false;
  EXPECT_EQ(lists[0].size(), 16384u + 14696u + 4u);
  EXPECT_EQ(lists[0], lists[1]);
}

TEST(ParallelEntry, LowPrintsItsLinesMediumNoneAndNestingIsPutBack) {
  const int procs = omp_get_num_procs();
  const int maxDepth = procs > 1 ? std::ilogb(double(procs)) : 0;
  for (const bool low : {false, true}) {
    omp_set_max_active_levels(3);
    qvMesh* m = soupOf(readStl("tetrahedron.stl"));
    ASSERT_EQ(qvMeshAssemble(m, nullptr), 1);
    testing::internal::CaptureStdout();
    EXPECT_GE(low ? reduceParallelLow(m, 0.1, nullptr) : reduceParallelMedium(m, 0.1, nullptr), 0);
    const std::string want = "Number of processors " + std::to_string(procs) + "\nMax Recursion Depth " +
                             std::to_string(maxDepth) + "\nCurrent Recursion Depth 0\n" +
                             (maxDepth ? "Stop Recursion at 0\n" : "Final Recursion Depth 0\n");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), low ? want : "");
    EXPECT_EQ(omp_get_max_active_levels(), 3);
    qvMeshFree(m);
  }
  testing::internal::CaptureStdout();
  EXPECT_EQ(reduceParallelLow(nullptr, 0.1, nullptr), -1);
  testing::internal::GetCapturedStdout();
}

TEST(ParallelEntry, ForksInsideForksRunNested) {
  omp_set_max_active_levels(1);
  qvMesh* m = models();  // whatever the depth, the chain's second fork opens inside the first
  resetLog();
  EXPECT_GE(reduceParallelWith(m, 0.1, nullptr, &kSilent), 3);
  EXPECT_GE(gLog.level, 2);
  EXPECT_EQ(omp_get_max_active_levels(), 1);
  qvMeshFree(m);
}

// The first cut made ahead, as the block loop makes it on its producer
// thread, changes nothing: the same triangles in the same order, the same
// count and the same lines. A shell still in a chain is refused whole.
TEST(ParallelEntry, FirstCutMadeAheadReducesAsTheShellItself) {
  const std::vector<Corners> torus = refine(readStl("torus.stl"));
  for (const bool low : {false, true}) {
    std::vector<Corners> out[2];
    std::string lines[2];
    int32_t removed[2] = {0, 0};
    for (int ahead = 0; ahead < 2; ++ahead) {
      qvMesh* m = soupOf(torus);
      ASSERT_EQ(qvMeshAssemble(m, nullptr), 1);
      qvMeshPair cut = {nullptr, nullptr};
      const int32_t made = ahead ? reduceParallelFirstCut(m, &cut) : 0;
      ASSERT_EQ(made, omp_get_num_procs() > 1 ? ahead : 0);
      testing::internal::CaptureStdout();
      if (made == 1)
        removed[ahead] =
            low ? reduceParallelLowCut(&cut, 0.01, nullptr) : reduceParallelMediumCut(&cut, 0.01, nullptr);
      else
        removed[ahead] = low ? reduceParallelLow(m, 0.01, nullptr) : reduceParallelMedium(m, 0.01, nullptr);
      lines[ahead] = testing::internal::GetCapturedStdout();
      EXPECT_EQ(made == 1 ? cut.first : m, m);
      EXPECT_EQ(cut.second, nullptr);
      EXPECT_EQ(m->next, nullptr);
      EXPECT_EQ(validateText(m), "");
      out[ahead] = cornerList(m);
      qvMeshFree(m);
    }
    EXPECT_GT(removed[0], 0);
    EXPECT_EQ(removed[0], removed[1]);
    // The threads' lines come in any order.
    EXPECT_EQ(sortedLines(lines[0]), sortedLines(lines[1]));
    EXPECT_EQ(out[0], out[1]);
  }
  qvMesh* chain = models();
  qvMeshPair cut = {nullptr, nullptr};
  EXPECT_EQ(reduceParallelFirstCut(chain, &cut), -1);
  EXPECT_EQ(cut.first, chain);
  EXPECT_EQ(cut.second, nullptr);
  EXPECT_EQ(reduceParallelLowCut(&cut, 0.01, nullptr), -1);
  EXPECT_EQ(chainTris(chain), 16384 + 14696 + 4);
  qvMeshDeleteAll(chain);
}
