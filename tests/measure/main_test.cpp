// The built FacetMeasure as a script meets it: exit statuses for usage, bad
// input and the tolerance's decision, and the JSON line. That the figures are the
// same for any thread count is tested on the library.
#include "fixtures.h"

#include <gtest/gtest.h>

#include <cmath>

namespace {

int run(const std::string &args, std::string *out = nullptr) {
  return runCommand(std::string(FT_BINARY_DIR) + "/FacetMeasure " + args + " 2>/dev/null", out);
}

// The soup written as binary STL to the temporary file leaf; its path.
std::string written(const char *leaf, const fixture::Soup &soup) {
  const std::string path = tempPath(leaf);
  fixture::writeStl(path, soup);
  return path;
}

class Program : public testing::Test {
protected:
  const std::string bump_ = written("bump.stl", fixture::square(0.5f));
  const std::string flat_ = written("flat.stl", fixture::square(0));
  const std::string empty_ = written("empty.stl", {});
  // The flat square with its corner (1, 1, 0) one float step further in x.
  const std::string moved_ = written("moved.stl", [] {
    fixture::Soup s = fixture::square(0);
    s[6] = s[12] = std::nextafter(1.0f, 2.0f);
    return s;
  }());
};

} // namespace

TEST_F(Program, ExitStatusForUsageBadInputAndTolerance) {
  const std::string broken = dataPath("broken-count-field.stl");
  const struct {
    std::string args;
    int status;
  } table[] = {
      {"", 2},
      {bump_, 2},
      {bump_ + " " + flat_ + " " + flat_, 2},
      {bump_ + " " + flat_ + " --bogus", 2},
      {bump_ + " " + flat_ + " --step 0", 2},
      {bump_ + " " + flat_ + " --tolerance", 2},
      {bump_ + " " + flat_ + " --threads 0", 2},
      {tempPath("missing.stl") + " " + flat_, 2},
      {bump_ + " " + broken, 2},
      {bump_ + " " + flat_, 0},
      {bump_ + " " + flat_ + " --tolerance inf", 2},
      {bump_ + " " + flat_ + " --tolerance 0.501", 0},
      {bump_ + " " + flat_ + " --tolerance=0.49", 1},
      {bump_ + " " + flat_ + " --tolerance -1", 1},
      // The apex is exactly 0.5 away: no bound with an allowance can settle it.
      {bump_ + " " + flat_ + " --tolerance 0.5", 3},
      {flat_ + " " + flat_ + " --tolerance 0", 0},
      {flat_ + " " + moved_ + " --tolerance 0", 1},
      {flat_ + " " + moved_ + " --tolerance 1", 1},
      {flat_ + " " + empty_ + " --tolerance 1", 1},
      {empty_ + " " + empty_, 0},
  };
  for (const auto &c : table) {
    EXPECT_EQ(run(c.args), c.status) << c.args;
  }
}

TEST_F(Program, JsonLineCarriesTheFiguresAndNullForInfinity) {
  std::string out;
  ASSERT_EQ(run(bump_ + " " + flat_ + " --json --step 0.25 --tolerance 0.501", &out), 0);
  EXPECT_EQ(out.find('\n'), out.size() - 1);
  EXPECT_NE(out.find("\"original_to_reduced\":{\"max\":0.5,"), std::string::npos) << out;
  EXPECT_NE(out.find(",\"upper\":0.50000000000000"), std::string::npos) << out;
  EXPECT_NE(out.find("\"subset_violations\":0,"), std::string::npos);
  EXPECT_NE(out.find("\"verdict\":\"within\",\"pass\":true}"), std::string::npos);
  ASSERT_EQ(run(bump_ + " " + flat_ + " --json --tolerance 0.5", &out), 3);
  EXPECT_NE(out.find("\"limited\":true},"), std::string::npos) << out;
  EXPECT_NE(out.find("\"verdict\":\"undecided\",\"pass\":null}"), std::string::npos);
  ASSERT_EQ(run(flat_ + " " + empty_ + " --json --tolerance 1", &out), 1);
  EXPECT_NE(out.find("\"original_to_reduced\":{\"max\":null,"), std::string::npos) << out;
  EXPECT_NE(out.find("\"reduced\":{\"file\":"), std::string::npos);
  EXPECT_NE(out.find("\"facets\":0,"), std::string::npos);
}
