// Faults around the files of a run: a full disk, a missing folder, a file that
// can't be written, an input that vanishes or changes between the scan and the
// load. The built tool must print the one failure message and end with 255 (the
// method entries return -1), leave no output and no report, and never change its
// input; a failed solid write leaves the reduced file complete.
//
// The tool is run in a child of its own so that a file size limit or another
// user applies to it alone. A full disk is a file size limit (RLIMIT_FSIZE)
// with SIGXFSZ ignored, which makes every write past it fail with EFBIG; root
// writes any file, so the unwritable cases run the child as nobody (uid 65534)
// when the tests run as root. The tool is copied into the test folder, which
// every user can read, so that it runs whatever user the child is.
#include "front/front.h"
#include "support.h"

#include <gtest/gtest.h>

#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <csignal>
#include <set>

namespace fs = std::filesystem;

namespace {

const char *const kFailed = "ERROR: REDUCTION NOT POSSIBLE !\n";
constexpr uid_t kNobody = 65534;
constexpr int kCannotBecomeNobody = 126; // exit status of a child that can't change user
constexpr int kCannotRun = 127;          // exit status of a child whose exec failed

struct Limits {
  rlim_t fileSize = RLIM_INFINITY; // RLIMIT_FSIZE of the child
  bool nobody = false;             // run as uid 65534 when running as root
};

// A folder every user can enter, with the tool copied in and the input as
// part.stl, removed at the end.
class Fault : public ::testing::Test {
protected:
  void SetUp() override {
    char pattern[] = "/tmp/ft_fault_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
    fs::permissions(dir_, fs::perms::owner_all | fs::perms::group_read | fs::perms::group_exec |
                              fs::perms::others_read | fs::perms::others_exec);
    fs::copy_file(FT_BINARY_DIR "/FacetTrim", dir_ / "FacetTrim");
    input_ = binaryStl(tetrahedra(16)); // four tetrahedra, which no method thins
    writeBytes(path("part.stl"), input_);
  }
  void TearDown() override {
    std::error_code ignored;
    for (const auto &entry : fs::recursive_directory_iterator(dir_, ignored))
      fs::permissions(entry.path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    fs::remove_all(dir_, ignored);
  }

  std::string path(const std::string &leaf) const { return (dir_ / leaf).string(); }

  // Runs the tool in the folder under limits: its exit status (-1 for a
  // signal) and standard output, read through a pipe that no size limit reaches.
  int run(const std::vector<std::string> &args, const Limits &limits, std::string *out) const {
    int pipeEnds[2];
    if (pipe(pipeEnds) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
      close(pipeEnds[0]);
      dup2(pipeEnds[1], STDOUT_FILENO);
      close(pipeEnds[1]);
      if (chdir(dir_.c_str()) != 0) _exit(kCannotRun);
      if (limits.fileSize != RLIM_INFINITY) {
        // Ignored stays ignored across exec.
        std::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit = {limits.fileSize, limits.fileSize};
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(kCannotRun);
      }
      if (limits.nobody && geteuid() == 0 && (setgid(kNobody) != 0 || setuid(kNobody) != 0))
        _exit(kCannotBecomeNobody);
      std::vector<char *> argv = {const_cast<char *>("./FacetTrim")};
      for (const std::string &arg : args) argv.push_back(const_cast<char *>(arg.c_str()));
      argv.push_back(nullptr);
      execv("./FacetTrim", argv.data());
      _exit(kCannotRun);
    }
    close(pipeEnds[1]);
    std::string text;
    char buffer[4096];
    for (ssize_t got; (got = read(pipeEnds[0], buffer, sizeof buffer)) > 0;) text.append(buffer, got);
    close(pipeEnds[0]);
    int status = 0;
    waitpid(child, &status, 0);
    if (out) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // Expects the one failure message and 255, no report and the input as it was.
  void expectFailure(const std::vector<std::string> &args, const Limits &limits,
                     const std::string &where) const {
    std::string out;
    const int status = run(args, limits, &out);
    if (status == kCannotBecomeNobody) GTEST_SKIP() << "cannot run a child as uid 65534";
    EXPECT_EQ(status, 255) << where;
    // The low method may print progress lines before the message, which
    // comes once, at the very end.
    EXPECT_EQ(out.find(kFailed), out.size() - std::strlen(kFailed)) << where << ": " << out;
    for (const auto &entry : fs::recursive_directory_iterator(dir_))
      EXPECT_NE(entry.path().extension(), ".log") << where << ": " << entry.path();
    EXPECT_EQ(fileBytes(path("part.stl")), input_) << where;
  }

  // Expects exactly these files in the folder: no sibling, no solid file left.
  void expectOnly(std::set<std::string> names, const std::string &where) const {
    std::set<std::string> found;
    for (const auto &entry : fs::directory_iterator(dir_)) found.insert(entry.path().filename().string());
    for (auto it = names.begin(); it != names.end();) it = found.count(*it) ? std::next(it) : names.erase(it);
    EXPECT_EQ(found, names) << where;
  }

  fs::path dir_;
  std::string input_;
};

const char *const kMethods[] = {"-ql", "-qm", "-qh"};

// A full disk: no method leaves an output, and an output that is the input
// leaves the input whole and no sibling beside it. 400 bytes hold the header
// and six records, not sixteen.
TEST_F(Fault, FullDiskFailsWithoutPartialOutput) {
  const Limits full{400, false};
  for (const char *method : kMethods) {
    for (const bool solid : {false, true}) {
      std::vector<std::string> args = {"part.stl", method, "-oout.stl"};
      if (solid) args.push_back("-ssolid.stl");
      const std::string where = std::string(method) + (solid ? " -s" : "");
      expectFailure(args, full, where);
      EXPECT_FALSE(fs::exists(path("solid.stl")) || fs::exists(path("out.stl"))) << where;
    }
    expectFailure({"part.stl", method, "-opart.stl"}, full, std::string(method) + " over the input");
    expectOnly({"FacetTrim", "part.stl"}, method);
  }
}

// Four open tetrahedra, each a tall spike without its base: 12 facets that no
// method thins at -t0.05, whose caps (a fan of three over each base, well
// within the hole limit) make the solid file 24 facets. A limit of 1,000 bytes
// lets the reduced file (684 bytes) be written and fails the solid write
// (1,284 bytes): the reduced file stays complete, the input stays as it was,
// and no solid file or sibling is left, whichever name the solid file has.
TEST_F(Fault, FullDiskDuringTheSolidWriteKeepsTheReducedFileAndTheInput) {
  std::vector<Facet> spikes;
  for (float x = 0; x < 8; x += 2) {
    const float ax = x, bx = x + 0.2f, tx = x + 0.07f; // base corners (ax,0) (bx,0) (ax,0.2), tip (tx,0.07,1)
    spikes.push_back({ax, 0, 0, bx, 0, 0, tx, 0.07f, 1});
    spikes.push_back({bx, 0, 0, ax, 0.2f, 0, tx, 0.07f, 1});
    spikes.push_back({ax, 0.2f, 0, ax, 0, 0, tx, 0.07f, 1});
  }
  const std::string open = binaryStl(spikes);
  const struct {
    const char *output; // -o
    const char *solid;  // -s
    const char *what;
  } cases[] = {
      {"-oout.stl", "-s", "plain -s over the reduced file"},
      {"-oout.stl", "-ssolid.stl", "a named solid file"},
      {"-oout.stl", "-sopen.stl", "the solid file naming the input"},
      {"-oopen.stl", "-s", "plain -s over an output that is the input"},
  };
  for (const char *method : kMethods) {
    for (const auto &c : cases) {
      const std::string where = std::string(method) + " " + c.what;
      writeBytes(path("open.stl"), open);
      expectFailure({"open.stl", method, "-t0.05", c.output, c.solid}, {1000, false}, where);
      const std::string reduced = path(c.output + 2);
      EXPECT_EQ(countField(reduced), 12) << where;
      EXPECT_EQ(fileBytes(reduced).size(), 84u + 50 * 12) << where;
      if (std::strcmp(c.output, "-oout.stl") == 0) {
        EXPECT_TRUE(fileBytes(path("open.stl")) == open) << where;
      }
      expectOnly({"FacetTrim", "part.stl", "open.stl", "out.stl"}, where);
      fs::remove(path("out.stl"));
    }
    // Without the limit every one of these runs writes the 24 facets.
    writeBytes(path("open.stl"), open);
    std::string out;
    ASSERT_EQ(run({"open.stl", method, "-t0.05", "-oopen.stl", "-s"}, {}, &out), 0) << method;
    EXPECT_EQ(countField(path("open.stl")), 24) << method;
    fs::remove(path("open.log"));
  }
}

// A file or folder the user can't write: an existing read-only output stays as
// it was, and an output over the input in a read-only folder (no sibling can
// be made) leaves the input whole.
TEST_F(Fault, UnwritableOutputFailsAndLeavesEveryFileAsItWas) {
  const Limits nobody{RLIM_INFINITY, true};
  const std::string old = "an older file that must stay";
  writeBytes(path("old.stl"), old);
  fs::permissions(path("old.stl"), fs::perms(0444));
  fs::create_directory(path("locked"));
  writeBytes(path("locked/part.stl"), input_);
  fs::permissions(path("locked"), fs::perms(0555));
  for (const char *method : kMethods) {
    expectFailure({"part.stl", method, "-oold.stl"}, nobody, method);
    EXPECT_EQ(fileBytes(path("old.stl")), old) << method;
    expectFailure({"locked/part.stl", method, "-olocked/part.stl"}, nobody,
                  std::string(method) + " over the input");
    EXPECT_EQ(fileBytes(path("locked/part.stl")), input_) << method;
    EXPECT_EQ(std::distance(fs::directory_iterator(path("locked")), fs::directory_iterator()), 1) << method;
  }
}

// A wavy height field of 2 * n * n facets on a unit grid: slow enough to reduce
// at a small tolerance that a run can be stopped in the middle.
std::vector<Facet> wavyField(int n) {
  auto z = [](int x, int y) { return static_cast<float>(std::sin(0.3 * x) * std::cos(0.2 * y)); };
  std::vector<Facet> facets;
  for (int y = 0; y < n; ++y)
    for (int x = 0; x < n; ++x) {
      const float ax = x, ay = y, bx = x + 1.0f, by = y + 1.0f;
      facets.push_back({ax, ay, z(x, y), bx, ay, z(x + 1, y), bx, by, z(x + 1, y + 1)});
      facets.push_back({ax, ay, z(x, y), bx, by, z(x + 1, y + 1), ax, by, z(x, y + 1)});
    }
  return facets;
}

// Ctrl-C or a batch system's SIGTERM in the middle of a run: the tool ends by
// that signal and leaves neither its output nor a report. The signal is sent
// once the output has its header, while the engine works.
TEST_F(Fault, StoppedRunLeavesNoOutput) {
  writeBytes(path("wavy.stl"), binaryStl(wavyField(150)));
  for (const char *method : kMethods) {
    const pid_t child = fork();
    if (child == 0) {
      if (chdir(dir_.c_str()) != 0) _exit(kCannotRun);
      std::freopen("/dev/null", "w", stdout);
      execl("./FacetTrim", "./FacetTrim", "wavy.stl", method, "-t0.0005", "-oout.stl", "-s", nullptr);
      _exit(kCannotRun);
    }
    for (int wait = 0; wait < 20000 && !(fs::exists(path("out.stl")) && fs::file_size(path("out.stl")) >= 84);
         ++wait)
      usleep(1000);
    usleep(50000);
    kill(child, SIGTERM);
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status)) << method << ": the run ended before it could be stopped";
    EXPECT_EQ(WTERMSIG(status), SIGTERM) << method;
    EXPECT_FALSE(fs::exists(path("out.stl"))) << method;
    EXPECT_FALSE(fs::exists(path("out.log"))) << method;
  }
}

// ---- The window between the scan and the load -----------------------------------

// The input as the hook leaves it between the scan and the load; kGone removes it.
const char *const kGone = "(gone)";
std::string gChangedBytes;

void changeInput(const char *name) {
  if (gChangedBytes == kGone) std::remove(name);
  else writeBytes(name, gChangedBytes);
}

// An input that vanishes, shrinks, is cut, grows or turns into the other
// format between the scan and the load fails both block methods without an
// output; the changed input is left as the change made it.
TEST(FaultWindow, InputChangedBetweenScanAndLoadFailsTheBlockMethods) {
  const std::vector<Facet> facets = tetrahedra(16);
  const std::string binary = binaryStl(facets), ascii = asciiStl(facets);
  const std::pair<std::string, std::string> cases[] = {
      // the input as scanned, and as loaded
      {ascii, kGone},
      {binary, binaryStl({facets.begin(), facets.begin() + 8})},
      {binary, binary.substr(0, 84 + 50 * 8 + 17)},
      {ascii, asciiStl(tetrahedra(20))},
      {binary, asciiStl({facets.begin(), facets.begin() + 15})},
  };
  const std::string input = tempPath("window.stl"), output = tempPath("window-out.stl");
  gAfterScanHook = changeInput;
  for (const auto &[before, after] : cases) {
    for (auto method : {reduceLow, reduceMedium}) {
      SCOPED_TRACE(std::to_string(before.size()) + " bytes changed to " + std::to_string(after.size()));
      writeBytes(input, before);
      gChangedBytes = after;
      int32_t old = -1;
      EXPECT_EQ(method(input.c_str(), output.c_str(), 0.1, nullptr, &old), -1);
      EXPECT_FALSE(fs::exists(output));
      EXPECT_EQ(fs::exists(input) ? fileBytes(input) : kGone, after);
    }
  }
  gAfterScanHook = nullptr;
}

} // namespace
