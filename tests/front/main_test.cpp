// The built tool as a user meets it: messages, exit statuses, the trace of a
// failure, and which report appears where. The test runs in a fresh folder
// holding a tetrahedron as part.stl and sub/part.stl, a broken file, and the
// folders res_MQ_0.10_sub and outdir. The low method may print progress lines,
// so only -qm and -qh runs check that success prints nothing.
#include "support.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <set>

namespace fs = std::filesystem;

namespace {

#define FT_USAGE                                                                          \
  "Usage: FacetTrim <input-file> [ -o<output-file> -s[<solid-file>] -t<tolerance> -a<angle> " \
  "-q<l|m|h> ]\n"
const char *const kSyntax = "WRONG SYNTAX. " FT_USAGE;
const char *const kMissing = "MISSING INPUT FILE. " FT_USAGE;
const char *const kMethod = "WRONG METHOD. " FT_USAGE;
const char *const kFailed = "ERROR: REDUCTION NOT POSSIBLE !\n";

struct Case {
  std::vector<std::string> args; // after the program name
  const char *out;               // expected standard output; null: not checked
  int status;
  std::set<std::string> reports; // files other than STL that the run leaves
};

class Tool : public ::testing::Test {
protected:
  void SetUp() override {
    dir_ = fs::temp_directory_path() /
           ("ft_front_" + std::string(::testing::UnitTest::GetInstance()->current_test_info()->name()) +
            "_" + std::to_string(getpid()));
    fs::remove_all(dir_);
    for (const char *folder : {"sub", "res_MQ_0.10_sub", "outdir"})
      fs::create_directories(dir_ / folder);
    fs::copy_file(FT_TEST_DATA "/tetrahedron.stl", dir_ / "part.stl");
    fs::copy_file(FT_TEST_DATA "/tetrahedron.stl", dir_ / "sub/part.stl");
    fs::copy_file(FT_TEST_DATA "/broken-count-field.stl", dir_ / "broken.stl");
  }
  void TearDown() override { fs::remove_all(dir_); }

  // The shell command that runs the tool in the test folder. No argument here
  // holds a single quote, so quoting each one is enough.
  std::string command(const std::vector<std::string> &args) const {
    std::string text = "cd '" + dir_.string() + "' && '" FT_BINARY_DIR "/FacetTrim'";
    for (const std::string &arg : args)
      text += " '" + arg + "'";
    return text;
  }

  // Files under the folder other than STL files, outputs named otherwise
  // included: the test folder starts with none.
  std::set<std::string> reports() const {
    std::set<std::string> found;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(dir_)) {
      const std::string name = fs::relative(entry.path(), dir_).string();
      if (entry.is_regular_file() && entry.path().extension() != ".stl")
        found.insert(name);
    }
    return found;
  }

  // Runs each case and removes its reports, so that the next case starts clean.
  void checkCases(const std::vector<Case> &cases) {
    for (const Case &c : cases) {
      const std::string where = command(c.args);
      std::string out, err;
      // Standard error joins the output: without FT_TRACE it stays empty.
      EXPECT_EQ(runCommand(where + " 2>&1", &out), c.status) << where;
      if (c.out) {
        EXPECT_EQ(out, c.out) << where;
      }
      // With FT_TRACE=1 a failed run names the place it first failed on standard error.
      if (c.out == kFailed) {
        EXPECT_EQ(runCommand("export FT_TRACE=1; " + where + " 2>&1 >/dev/null", &err), 255) << where;
        EXPECT_EQ(err.rfind("FacetTrim: first failure at ", 0), 0u) << where << ": " << err;
        EXPECT_NE(err.find(".cpp:"), std::string::npos) << where << ": " << err;
      }
      const std::set<std::string> made = reports();
      EXPECT_EQ(made, c.reports) << where;
      for (const std::string &name : made)
        fs::remove(dir_ / name);
    }
  }

  fs::path dir_;
};

TEST_F(Tool, MessagesStatusesAndReportsFollowTheCommandLine) {
  const std::string input = fileBytes(dir_ / "part.stl");
  checkCases({
      {{}, kSyntax, 255, {}},
      {{""}, kMissing, 255, {}},
      {{"part.stl", "-qx"}, kMethod, 255, {}},
      {{"part.stl", "-qhh"}, kMethod, 255, {}},
      {{"part.stl", "-qx", "word"}, kMethod, 255, {}},
      {{"part.stl", "word", "-qx"}, kSyntax, 255, {}},
      {{"part.stl", "-qm", "-"}, kSyntax, 255, {}},
      {{"", "-t1", "stray"}, kSyntax, 255, {}},
      {{"missing.stl", "-qm"}, kFailed, 255, {}},
      {{"broken.stl", "-qh", "-s"}, kFailed, 255, {}},
      {{"outdir", "-qm"}, kFailed, 255, {}},
      {{"part.stl", "-qm", "-onodir/out.stl"}, kFailed, 255, {}},
      // Success: the report goes where the names say, or is left out without
      // a word when it can't be opened.
      {{"part.stl", "-Q", "-x1", "-qm"}, "", 0, {"res_MQ_0.10_part.log"}},
      {{"part.stl", "-qh", "-s"}, "", 0, {"res_HQ_0.10_part.log"}},
      {{"part.stl", "-t0"}, nullptr, 0, {"res_LQ_0.00_part.log"}},
      {{"part.stl", "-qm", "-ooutdir/x.stl"}, "", 0, {"outdir/x.log"}},
      // The input goes into the default name with its folder.
      {{"sub/part.stl", "-qm"}, "", 0, {"res_MQ_0.10_sub/part.log"}},
      // A report that cannot be opened is left out without a word.
      {{"part.stl", "-qh", "-lnodir/run.txt"}, "", 0, {}},
      {{"part.stl", "-qh", "-l"}, "", 0, {}},
      // No report overwrites the input, the output or the solid file.
      {{"part.stl", "-qm", "-oresult.log"}, "", 0, {"result.log"}},
      {{"part.stl", "-qh", "-lpart.stl"}, "", 0, {}},
      {{"part.stl", "-qh", "-l./sub/../part.stl"}, "", 0, {}},
      // body.log is the solid file; the report would be the same file and stays out.
      {{"part.stl", "-qm", "-sbody.log", "-lbody.log"}, "", 0, {"body.log"}},
      {{"part.stl", "-qm", "-olog"}, "", 0, {"log"}},
  });
  EXPECT_EQ(fileBytes(dir_ / "part.stl"), input);
}

} // namespace
