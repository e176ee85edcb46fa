// The angle rule of runReduction and the run report's text.
#include "front/front.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(MethodAngle, SmallMagnitudesSwitchTheFeatureStepOffStrictlyBelowOneE5) {
  struct Case {
    const char *text; // as it follows -a; null: -a not given
    bool present;
    double handed;
  };
  const Case cases[] = {
      {nullptr, false, 0.0},     {"45", true, 45.0},
      {"0", true, -1.0},         {"0.000001", true, -1.0},
      {"-0.000001", true, -1.0}, {"word", true, -1.0},
      {"0.00001", true, 0.00001}, {"-0.00001", true, -0.00001},
      {"-30", true, -30.0},      {"-1", true, -1.0},
  };
  for (const Case &c : cases) {
    ReduceOptions options;
    fillDefaultOptions(&options);
    std::string arg = c.text ? std::string("-a") + c.text : std::string("-t0.1");
    const char *args[] = {"FacetTrim", "part.stl", arg.c_str()};
    ASSERT_EQ(parseCommandLine(&options, 3, args), 0);
    double copy = 123.0;
    const double *angle = methodAngle(&options, &copy);
    const char *where = c.text ? c.text : "(none)";
    ASSERT_EQ(angle != nullptr, c.present) << where;
    if (c.present) {
      EXPECT_EQ(angle, &copy) << where;
      EXPECT_EQ(*angle, c.handed) << where;
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
      {kMethodMedium, 0.05, 3, 1, -1, 7.0,
       "--> FacetTrim from in/part.stl to in/part.stl\n"
       "    method          :    medium quality \n"
       "    old tri count   :    3          \n"
       "    new tri count   :    2          \n"
       "    tolerance       :    0.0500        \n"
       "    reduction       :    33.33 %     \n"
       "    elapsed time    :         7 sec   \n"},
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

} // namespace
