// Seams of the medium and low methods on closed models, judged by
// FacetMeasure's library: the joined result keeps the input's closed shells
// (a crack along a cut would open one), uses only input vertices bit for bit,
// and holds the input within the tolerance. Through the recursion with an
// explicit maxDepth, so that every model is cut into pieces whatever the
// processor count.
#include <gtest/gtest.h>
#include <omp.h>

#include "kernels/predicates.h"
#include "measure/judge.h"
#include "mesh/soup.h"
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

// tests/data/<name>, or its refinement (four times the facets, the same
// surface) written as a binary STL of its own.
std::string modelFile(const char *name, bool refined) {
  if (!refined) return dataPath(name);
  std::vector<Facet> facets;
  for (const Corners &c : refine(readStl(name))) {
    Facet &f = facets.emplace_back();
    for (int k = 0; k < 9; ++k) f[k] = static_cast<float>(c[k]);
  }
  const std::string path = tempPath(std::string("refined-") + name);
  writeBytes(path, binaryStl(facets));
  return path;
}

// Samples per judged result: every vertex and a dense spread over the edges
// and faces; the bound itself is measured densely by the leaves' tests.
constexpr int64_t kSeamSamples = kThreadSanitizer ? 100000 : 300000;

// Shells under 5000 triangles are never cut, so the torus (4096) is refined
// to 16384: two pieces at depth 1, four at depth 2. The sphere (20480) gives
// eight at depth 3.
struct Cut {
  const char *name;
  bool refined;
  int maxDepth, leaves;  // leaves: the fewest the low method's cut must give
  double percent;        // the tolerance, in % of the diagonal
  bool medium;           // the medium method as well: it holds the bound on these cuts only
};

}  // namespace

// Under ThreadSanitizer the first case alone, whose four pieces run side by side.
TEST(ParallelSeams, PiecesCutToDepthsOneToThreeJoinWithoutACrack) {
  exactinit();
  const Cut cuts[] = {{"torus.stl", true, 2, 4, 0.1, true}, {"torus.stl", true, 1, 2, 2.0, false},
                      {"sphere.stl", false, 3, 8, 0.5, true}};
  for (const Cut &c : cuts) {
    const std::string in = modelFile(c.name, c.refined), out = tempPath("seams.stl");
    const Original original(in);
    ASSERT_EQ(original.topo.closedShells, 1) << c.name;
    const double tol = c.percent / 100.0 * original.diagonal;
    for (const bool low : {false, true}) {
      if (!low && !c.medium) continue;
      const std::string where = std::string(c.name) + (low ? " low" : " medium") + " at depth " +
                                std::to_string(c.maxDepth) + ", " + std::to_string(c.percent) + "%";
      const int leaves = reduceAtDepth(in, out, low ? reduceNodeLow : reduceNodeMedium, tol, c.maxDepth);
      ASSERT_GE(leaves, low ? c.leaves : 0) << where;
      expectKept(original, out, tol, {}, where, kSeamSamples);
    }
    if (kThreadSanitizer) break;
  }
}
