// parseCommandLine's effect on ReduceOptions and the file-name rules. Messages
// and exit statuses of the same faults are checked against the built tool.
#include "front/front.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

struct ParseCase {
  std::vector<const char *> args; // after the program name
  int result;
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
      {{"part.stl"}, 0, "res_LQ_0.10_part.stl", "res_LQ_0.10_part.log", "", 0.1, 0},
      // The input is taken as given, also when it looks like an option.
      {{"-qx"}, 0, "res_LQ_0.10_-qx", "res_LQ_0.10_log", "", 0.1, 0},
      {{"part.stl", "-t0.05", "-qm", "-s"}, 0, "res_MQ_0.05_part.stl", "res_MQ_0.05_part.log",
       "res_MQ_0.05_part.stl", 0.05, 1},
      // The default name uses the final tolerance and method, wherever they stood.
      {{"part.stl", "-qh", "-t2", "-ql", "-t0.125"}, 0, "res_LQ_0.12_part.stl",
       "res_LQ_0.12_part.log", "", 0.125, 0},
      {{"part.stl", "-tword", "-qh"}, 0, "res_HQ_0.00_part.stl", "res_HQ_0.00_part.log", "", 0.0,
       2},
      {{"part.stl", "-t-0.004"}, 0, "res_LQ_-0.00_part.stl", "res_LQ_-0.00_part.log", "", -0.004,
       0},
      // A bare -s takes the final output name, even one given after it.
      {{"part.stl", "-s", "-oa.stl", "-ob.stl"}, 0, "b.stl", "b.log", "b.stl", 0.1, 0},
      // A bare -s after -s<name> keeps the name.
      {{"part.stl", "-ssolid.stl", "-s"}, 0, "res_LQ_0.10_part.stl", "res_LQ_0.10_part.log",
       "solid.stl", 0.1, 0},
      {{"part.stl", "-lreport.txt", "-oout.stl"}, 0, "out.stl", "report.txt", "", 0.1, 0},
      {{"part.stl", "-l"}, 0, "res_LQ_0.10_part.stl", "", "", 0.1, 0},
      {{"dir/part.STL", "-oout/x.stl"}, 0, "out/x.stl", "out/x.log", "", 0.1, 0},
      {{"part.stl", "-o"}, 0, "", ".log", "", 0.1, 0},
      // Parsing stops at the first fault and leaves the names unfinished.
      {{"part.stl", "-t3", "word", "-qm"}, -1, "part_RED.stl", "", "", 3.0, 0},
      {{"", "-t3"}, -2, "_RED.stl", "", "", 3.0, 0},
      {{"", "-qh", "-qmm"}, -3, "_RED.stl", "", "", 0.1, 2},
  };
  for (const ParseCase &c : cases) {
    int result = 0;
    const ReduceOptions options = parse(c.args, &result);
    std::string where = "FacetTrim";
    for (const char *arg : c.args)
      where += std::string(" '") + arg + "'";
    EXPECT_EQ(result, c.result) << where;
    EXPECT_EQ(options.inputName, c.args[0]) << where;
    EXPECT_EQ(options.outputName, c.output) << where;
    EXPECT_EQ(options.logName, c.log) << where;
    EXPECT_EQ(options.solidWanted ? options.solidName : "", c.solid) << where;
    EXPECT_EQ(options.tolerance, c.tolerance) << where;
    EXPECT_EQ(options.method, c.method) << where;
  }
}

TEST(FileNames, ProvisionalNameDropsOnlyAnExactStlExtension) {
  // "part.stl" and "" are covered by the parse table above.
  const std::pair<const char *, const char *> cases[] = {
      {"part.STL", "part_RED.stl"},         {"part.Stl", "part.Stl_RED.stl"},
      {"part.sTL", "part.sTL_RED.stl"},     {"dir/part.stl", "dir/part_RED.stl"},
      {".stl", "_RED.stl"},                 {"stl", "stl_RED.stl"},
      {"part.stl.gz", "part.stl.gz_RED.stl"}, {"%s%d.stl", "%s%d_RED.stl"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(provisionalOutputName(c.first), c.second) << c.first;
}

TEST(FileNames, DefaultNameShowsTagAndTwoDecimalsAsPrintfRoundsThem) {
  struct Case {
    int32_t method;
    double tolerance;
    const char *input;
    const char *expected;
  };
  const Case cases[] = {
      // Each tag and 0.00 are also met in the parse table above.
      {1, 0.05, "dir/part.stl", "res_MQ_0.05_dir/part.stl"},
      {0, -1.0, "part.stl", "res_LQ_-1.00_part.stl"},
      // 0.125 is exact in binary and rounds to even; 0.005 lies just above 0.005.
      {0, 0.125, "a", "res_LQ_0.12_a"},
      {0, 0.005, "a", "res_LQ_0.01_a"},
      {0, 1e20, "a", "res_LQ_100000000000000000000.00_a"},
      {1, 2.5, "%d", "res_MQ_2.50_%d"},
  };
  for (const Case &c : cases)
    EXPECT_EQ(defaultOutputName(c.method, c.tolerance, c.input), c.expected) << c.expected;
  const std::string longName(3000, 'p');
  EXPECT_EQ(defaultOutputName(2, 0.5, longName), "res_HQ_0.50_" + longName);
}

TEST(FileNames, ReportNameReplacesTheLastThreeCharacters) {
  // Plain names with .stl are covered by the parse table above.
  const std::pair<std::string, std::string> cases[] = {
      {"result", "reslog"}, {"abc", "log"}, {"ab", "ab.log"}, {"a", "a.log"}, {"", ".log"},
      {std::string(1500, 'n') + "stl", std::string(1500, 'n') + "log"},
  };
  for (const auto &c : cases)
    EXPECT_EQ(reportNameOf(c.first), c.second) << c.first;
}

} // namespace
