// The angle rule of runReduction, the run report's text, and runs whose
// allocations fail.
#include "front/front.h"
#include "kernels/alloc.h"
#include "support.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(MethodAngle, SmallMagnitudesSwitchTheFeatureStepOffStrictlyBelowOneE5) {
  const std::pair<const char *, double> cases[] = {
      // as it follows -a (null: -a not given), and the angle handed on
      {nullptr, 0.0},       {"45", 45.0},          {"0", -1.0},       {"0.000001", -1.0},
      {"-0.000001", -1.0},  {"word", -1.0},        {"0.00001", 0.00001}, {"-0.00001", -0.00001},
      {"-30", -30.0},
  };
  for (const auto &[text, handed] : cases) {
    ReduceOptions options;
    fillDefaultOptions(&options);
    std::string arg = text ? std::string("-a") + text : std::string("-t0.1");
    const char *args[] = {"FacetTrim", "part.stl", arg.c_str()};
    ASSERT_EQ(parseCommandLine(&options, 3, args), 0);
    double copy = 123.0;
    const double *angle = methodAngle(&options, &copy);
    const char *where = text ? text : "(none)";
    ASSERT_EQ(angle != nullptr, text != nullptr) << where;
    if (text) {
      EXPECT_EQ(angle, &copy) << where;
      EXPECT_EQ(*angle, handed) << where;
    }
  }
}

TEST(RunReport, LinesAndNumberFormatsAreExact) {
  struct Case {
    int32_t method;
    double tolerance;
    int32_t oldCount, removedCount, solidCount;
    double seconds;
    const char *text;
  };
  const Case cases[] = {
      {kMethodHigh, 0.00005, 2000000, 1999999, 0, 1234567.4,
       "--> FacetTrim from in/part.stl to in/part.stl\n"
       "    method          :    high quality \n"
       "    old tri count   :    2000000          \n"
       "    new tri count   :    1          \n"
       "    tolerance       :    0.0001        \n"
       "    reduction       :    100.00 %     \n"
       "    number of solids:    0 \n"
       "    elapsed time    :    1234567 sec   \n"},
      // No triangles in means none removed: 0.00 %, where a division gives NaN.
      {kMethodLow, -2.0, 0, 0, 4, 0.0,
       "--> FacetTrim from in/part.stl to in/part.stl\n"
       "    method          :    low quality \n"
       "    old tri count   :    0          \n"
       "    new tri count   :    0          \n"
       "    tolerance       :    -2.0000        \n"
       "    reduction       :    0.00 %     \n"
       "    number of solids:    4 \n"
       "    elapsed time    :         0 sec   \n"},
  };
  for (const Case &c : cases) {
    ReduceOptions options;
    fillDefaultOptions(&options);
    options.inputName = "in/part.stl";
    options.outputName = "out.stl";
    options.method = c.method;
    options.tolerance = c.tolerance;
    EXPECT_EQ(formatRunReport(&options, c.oldCount, c.removedCount, c.solidCount, c.seconds),
              c.text);
  }
}

#ifdef FT_ALLOC_FAULTS
// Each allocation of a run in turn fails, and every one after it: the run
// then fails with no output and no solid file, or fails only the solid
// extraction and keeps the reduced file, or writes the very files of a run
// without faults. Leaks show under LeakSanitizer at exit. Both models are far
// below the size at which the parallel methods fork, so each run has one
// thread and its allocations come in one order.
TEST(AllocationFaults, EveryFailedAllocationFailsTheRunCleanlyOrChangesNothing) {
  const std::string input = tempPath("in.stl"), output = tempPath("out.stl"), solid = tempPath("solid.stl");
  for (const char *model : {"tetrahedron.stl", "cube.stl"}) {
    writeBytes(input, fileBytes(dataPath(model)));
    for (const int32_t method : {kMethodLow, kMethodMedium, kMethodHigh}) {
      const ReduceOptions options = {input, output, solid, "", 0.1, 0.0, false, true, method};
      int32_t old = 0, removed = 0, solids = 0;
      ftAllocFailFrom(-1);
      ASSERT_EQ(runReduction(&options, &old, &removed, &solids), 0);
      ASSERT_TRUE(removed >= 0 && solids >= 0) << model << " " << method;
      const long allocations = ftAllocCount();
      const std::string reduced = fileBytes(output), solidBytes = fileBytes(solid);
      for (long n = 0; n < allocations; ++n) {
        std::remove(output.c_str());
        std::remove(solid.c_str());
        ftAllocFailFrom(n);
        ASSERT_EQ(runReduction(&options, &old, &removed, &solids), 0);
        ftAllocFailFrom(-1);
        SCOPED_TRACE(std::string(model) + " method " + std::to_string(method) + ", allocation " +
                     std::to_string(n) + " of " + std::to_string(allocations));
        EXPECT_TRUE(removed >= 0 || solids == -1);
        EXPECT_EQ(std::filesystem::exists(output), removed >= 0);
        EXPECT_EQ(fileBytes(output), removed < 0 ? "" : reduced);
        EXPECT_EQ(fileBytes(solid), solids < 0 ? "" : solidBytes);
        EXPECT_EQ(std::filesystem::exists(solid), solids >= 0);
      }
    }
  }
}
#endif

} // namespace
