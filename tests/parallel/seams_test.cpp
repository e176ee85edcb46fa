// Seams of the medium and low methods on a closed model, judged by
// FacetMeasure's library: the joined result keeps the input's closed shell
// (a crack along a cut would open it), uses only input vertices bit for bit,
// and holds the input within the tolerance. Through the recursion with an
// explicit maxDepth, so that the model is cut into pieces whatever the
// processor count.
#include <gtest/gtest.h>
#include <omp.h>

#include "kernels/predicates.h"
#include "measure/judge.h"
#include "mesh/qvMesh.h"
#include "parallel/parallel.h"
#include "stl/stl.h"
#include "support.h"

namespace {

using Node = int32_t (*)(qvMesh *, double, const double *, int32_t, int32_t);

// How often word stands in text.
int countOf(const std::string &text, const std::string &word) {
  int n = 0;
  for (size_t at = text.find(word); at != std::string::npos; at = text.find(word, at + 1)) ++n;
  return n;
}

// Reads the one shell of in, reduces it with node cut down to maxDepth, with
// nesting on so that the pieces of every level run side by side, and writes
// the joined result to out. The leaves named by the low method's progress
// lines (0 for the silent medium method), or -1.
int reduceAtDepth(const std::string &in, const std::string &out, Node node, double tol, int maxDepth) {
  int64_t status = 0;
  qvMesh *m = stlReadMesh(in.c_str(), &status);
  if (!m || qvMeshAssemble(m, nullptr) != 1) {
    qvMeshDeleteAll(m);
    return -1;
  }
  const int levels = omp_get_max_active_levels();
  omp_set_max_active_levels(maxDepth + 1);
  testing::internal::CaptureStdout();
  const int32_t removed = node(m, tol, nullptr, -1, maxDepth);
  const std::string lines = testing::internal::GetCapturedStdout();
  omp_set_max_active_levels(levels);
  const bool written = removed >= 0 && m->next == nullptr && stlWriteMeshChain(m, 0, out.c_str()) >= 0;
  qvMeshDeleteAll(m);
  return written ? countOf(lines, "Final Recursion Depth") + countOf(lines, "Stop Recursion at") : -1;
}


}  // namespace

// The sphere (20480 triangles) is cut to depth three: eight pieces, whose
// seams pass through every depth of the recursion.
TEST(ParallelSeams, PiecesCutToDepthThreeJoinWithoutACrack) {
  exactinit();
  const std::string in = dataPath("sphere.stl"), out = tempPath("seams.stl");
  const Original original(in);
  ASSERT_EQ(original.topo.closedShells, 1);
  const double tol = 0.5 / 100.0 * original.diagonal;
  for (const bool low : {false, true}) {
    const std::string where = low ? "low" : "medium";
    const int leaves = reduceAtDepth(in, out, low ? reduceNodeLow : reduceNodeMedium, tol, 3);
    ASSERT_GE(leaves, low ? 8 : 0) << where;
    expectKept(original, out, tol, where);
  }
}
