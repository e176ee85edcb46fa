// parseCommandLine's effect on ReduceOptions and the file-name rules. Messages
// and exit statuses of faults are checked against the built tool.
#include "front/front.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct ParseCase {
  std::vector<const char *> args; // after the program name
  std::string output;
  std::string log;
  std::string solid; // expected solidName when solidWanted, else ""
  double tolerance;
  int32_t method;
};

ReduceOptions parse(const std::vector<const char *> &tail, int *result) {
  std::vector<const char *> args = {"FacetTrim"};
  args.insert(args.end(), tail.begin(), tail.end());
  ReduceOptions options;
  fillDefaultOptions(&options);
  *result = parseCommandLine(&options, static_cast<int>(args.size()), args.data());
  return options;
}

TEST(ParseCommandLine, NamesFlagsAndOverridesFollowTheArgumentsInOrder) {
  const ParseCase cases[] = {
      {{"part.stl"}, "res_LQ_0.10_part.stl", "res_LQ_0.10_part.log", "", 0.1, 0},
      // The input is taken as given, also when it looks like an option.
      {{"-qx"}, "res_LQ_0.10_-qx", "res_LQ_0.10_log", "", 0.1, 0},
      {{"part.stl", "-t0.05", "-qm", "-s"}, "res_MQ_0.05_part.stl", "res_MQ_0.05_part.log",
       "res_MQ_0.05_part.stl", 0.05, 1},
      // The default name uses the final tolerance and method, wherever they stood.
      {{"part.stl", "-qh", "-t2", "-ql", "-t0.125"}, "res_LQ_0.12_part.stl",
       "res_LQ_0.12_part.log", "", 0.125, 0},
      // 0.005 lies just above 0.005 in binary and rounds up.
      {{"part.stl", "-t0.005"}, "res_LQ_0.01_part.stl", "res_LQ_0.01_part.log", "", 0.005, 0},
      {{"part.stl", "-tword", "-qh"}, "res_HQ_0.00_part.stl", "res_HQ_0.00_part.log", "", 0.0, 2},
      {{"part.stl", "-t-0.004"}, "res_LQ_-0.00_part.stl", "res_LQ_-0.00_part.log", "", -0.004, 0},
      // A bare -s takes the final output name, even one given after it.
      {{"part.stl", "-s", "-oa.stl", "-ob.stl"}, "b.stl", "b.log", "b.stl", 0.1, 0},
      // A bare -s after -s<name> keeps the name.
      {{"part.stl", "-ssolid.stl", "-s"}, "res_LQ_0.10_part.stl", "res_LQ_0.10_part.log",
       "solid.stl", 0.1, 0},
      {{"part.stl", "-lreport.txt", "-oout.stl"}, "out.stl", "report.txt", "", 0.1, 0},
      {{"part.stl", "-l"}, "res_LQ_0.10_part.stl", "", "", 0.1, 0},
      {{"dir/part.STL", "-oout/x.stl"}, "out/x.stl", "out/x.log", "", 0.1, 0},
      {{"part.stl", "-o"}, "", ".log", "", 0.1, 0},
  };
  for (const ParseCase &c : cases) {
    int result = 0;
    const ReduceOptions options = parse(c.args, &result);
    std::string where = "FacetTrim";
    for (const char *arg : c.args)
      where += std::string(" '") + arg + "'";
    EXPECT_EQ(result, 0) << where;
    EXPECT_EQ(options.inputName, c.args[0]) << where;
    EXPECT_EQ(options.outputName, c.output) << where;
    EXPECT_EQ(options.logName, c.log) << where;
    EXPECT_EQ(options.solidWanted ? options.solidName : "", c.solid) << where;
    EXPECT_EQ(options.tolerance, c.tolerance) << where;
    EXPECT_EQ(options.method, c.method) << where;
  }
}

} // namespace
