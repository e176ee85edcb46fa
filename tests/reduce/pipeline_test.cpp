// The leaves on real models, judged by FacetMeasure's library rather than by
// the engine's own routines: surviving vertices are input vertices bit for
// bit, the input lies within the tolerance of the output, closed shells stay
// closed, and a rerun writes the same bytes. Also the budget of a stepped
// run, the tolerances that run no pass, and the built tool.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include "measure/measure.h"
#include "reduce/reduce_internal.h"
#include "stl/stl.h"

namespace {

const std::string kData = FT_TEST_DATA;
const std::string kBin = FT_BINARY_DIR;
// Samples per measured direction: enough for a step of a quarter of the
// tolerance or less on these models at 0.5 % and 2 %, and for every vertex.
constexpr int64_t kSampleCap = 2000000;

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

std::string bytesOf(const std::string& name) {
  std::ifstream f(name, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

struct Judged {
  int64_t facets, closed, notInput;
  double distance;  // original -> reduced, over samples
};

Judged judge(const MeasureMesh& original, const std::string& reducedName, double step) {
  MeasureMesh reduced{};
  MeasureTopo topo{};
  MeasureTree tree{};
  MeasureDistance d{};
  Judged j{-1, -1, -1, -1.0};
  int64_t first = 0;
  if (measureRead(reducedName.c_str(), &reduced) >= 0 && measureTopology(&reduced, &topo) == 0 &&
      measureTreeBuild(&reduced, &tree) == 0) {
    const MeasureSampling sampling = {step, kSampleCap, true, true};
    if (measureDistance(&original, &tree, &sampling, 2, &d) == 0)
      j = {topo.facets, topo.closedShells, measureSubset(&original, &reduced, &first), d.max};
  }
  measureTreeFree(&tree);
  measureMeshFree(&reduced);
  return j;
}

struct Model {
  const char* name;
  double worst;  // largest measured / tolerance accepted; 1.01 but where the design falls short
};

// Each model at 0.1 %, 0.5 % and 2 % of its diagonal, with both leaves.
void checkGuarantees(const Model& model) {
  MeasureMesh original{};
  MeasureTopo topo{};
  ASSERT_GT(measureRead((kData + "/" + model.name).c_str(), &original), 0);
  ASSERT_EQ(measureTopology(&original, &topo), 0);
  const double diagonal = std::hypot(topo.box[3] - topo.box[0], topo.box[4] - topo.box[1], topo.box[5] - topo.box[2]);
  const std::string out = kBin + "/reduce_test_" + model.name;
  struct {
    const char* name;
    Leaf leaf;
  } leaves[] = {{"one pass", reduceOnePass}, {"stepped", reduceStepped}};
  for (const auto& leaf : leaves)
    for (double percent : {0.1, 0.5, 2.0}) {
      const double tol = percent / 100.0 * diagonal;
      const std::string where = std::string(model.name) + " " + leaf.name + " " + std::to_string(percent) + "%";
      ASSERT_GE(reduceFile(kData + "/" + model.name, out, leaf.leaf, tol), 0) << where;
      const Judged j = judge(original, out, tol / 4.0);
      EXPECT_EQ(j.notInput, 0) << where;
      EXPECT_EQ(j.closed, topo.closedShells) << where;
      EXPECT_LE(j.distance, model.worst * tol) << where << ": " << j.distance / tol << " of the tolerance";
      EXPECT_LE(j.facets, topo.facets) << where;
      if (percent == 0.5) {
        const std::string first = bytesOf(out);
        ASSERT_GE(reduceFile(kData + "/" + model.name, out, leaf.leaf, tol), 0);
        EXPECT_EQ(bytesOf(out), first) << where << ": a rerun wrote other bytes";
      }
    }
  std::remove(out.c_str());
  measureMeshFree(&original);
}

int32_t runTool(const std::string& args) { return std::system((kBin + "/FacetTrim " + args + " > /dev/null").c_str()); }

int64_t facetsOf(const std::string& name) {
  MeasureMesh m{};
  const int64_t n = measureRead(name.c_str(), &m);
  measureMeshFree(&m);
  return n;
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
  checkGuarantees({"cube.stl", 1.01});
  checkGuarantees({"torus.stl", 1.01});
  checkGuarantees({"gearwheel.stl", 1.01});
  checkGuarantees({"plate-hole.stl", 1.01});
}

TEST(Guarantees, ScannedBunny) {
  // Known shortfall of the design: the old surface under a replacement
  // triangle to which no removed vertex was given is not measured by a later
  // trial (see the report of the measured excess).
  checkGuarantees({"bunny.stl", 2.0});
}

TEST(Guarantees, OpenModels) {
  checkGuarantees({"terrain.stl", 1.01});
  checkGuarantees({"flat-square.stl", 1.01});
}

TEST(Tool, FlatSquareGoesToAHandfulAndToleranceZeroKeepsTheSphere) {
  const std::string out = kBin + "/reduce_tool_out.stl";
  ASSERT_EQ(runTool(kData + "/flat-square.stl -o" + out + " -t3 -qh"), 0);
  EXPECT_LE(facetsOf(out), 8);
  ASSERT_EQ(runTool(kData + "/sphere.stl -o" + out + " -t0 -qh"), 0);
  EXPECT_EQ(facetsOf(out), 20480);
  std::remove(out.c_str());
  std::remove((kBin + "/reduce_tool_out.log").c_str());
}
