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

// Four tetrahedra: 16 facets that no method thins, 884 bytes as binary.
std::vector<Facet> fourTetrahedra() {
  std::vector<Facet> facets;
  for (int i = 0; i < 4; ++i)
    for (const Facet &facet : tetrahedron(2.0f * i)) facets.push_back(facet);
  return facets;
}

// A finished output holding all sixteen facets.
bool complete16(const std::string &path) {
  return countField(path) == 16 && fileBytes(path).size() == 84 + 50 * 16;
}

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
    input_ = binaryStl(fourTetrahedra());
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
// and six records, not sixteen; the same runs without the limit succeed (see
// the missing-folder test).
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

// A missing folder for the output fails before anything is written; one for
// the solid file fails the extraction after the reduction, which leaves the
// reduced file complete.
TEST_F(Fault, MissingFolderFailsAndTheSolidCaseKeepsTheReducedFile) {
  for (const char *method : kMethods) {
    expectFailure({"part.stl", method, "-onodir/out.stl"}, {}, method);
    EXPECT_FALSE(fs::exists(path("nodir"))) << method;
    expectFailure({"part.stl", method, "-oout.stl", "-snodir/solid.stl"}, {}, std::string(method) + " -s");
    EXPECT_TRUE(complete16(path("out.stl"))) << method;
    fs::remove(path("out.stl"));
  }
}

// A file or folder the user can't write: an existing read-only output stays as
// it was, nothing appears in a read-only folder, and an output over the input
// in a read-only folder (no sibling can be made) leaves the input whole.
TEST_F(Fault, UnwritableOutputFailsAndLeavesEveryFileAsItWas) {
  const Limits nobody{RLIM_INFINITY, true};
  const std::string old = "an older file that must stay";
  writeBytes(path("old.stl"), old);
  fs::permissions(path("old.stl"), fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
  fs::create_directory(path("locked"));
  writeBytes(path("locked/part.stl"), input_);
  fs::permissions(path("locked"), fs::perms::owner_read | fs::perms::owner_exec | fs::perms::group_read |
                                      fs::perms::group_exec | fs::perms::others_read |
                                      fs::perms::others_exec);
  for (const char *method : kMethods) {
    expectFailure({"part.stl", method, "-oold.stl"}, nobody, method);
    EXPECT_EQ(fileBytes(path("old.stl")), old) << method;
    expectFailure({"part.stl", method, "-olocked/out.stl"}, nobody, std::string(method) + " locked");
    EXPECT_FALSE(fs::exists(path("locked/out.stl"))) << method;
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

// What the hook does to the input, once, between the scan and the load.
std::string gChangedBytes;
bool gRemoveInput = false;
int gHookCalls = 0;

void changeInput(const char *name) {
  ++gHookCalls;
  if (gRemoveInput) {
    std::remove(name);
  } else {
    writeBytes(name, gChangedBytes);
  }
}

struct HookGuard {
  HookGuard() { gAfterScanHook = changeInput; }
  ~HookGuard() { gAfterScanHook = nullptr; }
};

using Method = int (*)(const char *, const char *, double, const double *, int32_t *);

// An input that vanishes, shrinks, is cut, grows or turns into the other
// format between the scan and the load fails both block methods (and
// runReduction) without an output; the changed input is left as the change
// made it.
TEST(FaultWindow, InputChangedBetweenScanAndLoadFailsTheBlockMethods) {
  const std::vector<Facet> facets = fourTetrahedra();
  const std::string binary = binaryStl(facets), ascii = asciiStl(facets);
  std::vector<Facet> more = facets;
  for (const Facet &facet : tetrahedron(20)) more.push_back(facet);
  const struct {
    std::string before; // the input as scanned
    bool remove;        // the input vanishes
    std::string after;  // else the input as loaded
    const char *what;
  } cases[] = {
      {binary, true, "", "binary vanishes"},
      {ascii, true, "", "ASCII vanishes"},
      {binary, false, binaryStl({facets.begin(), facets.begin() + 8}), "binary shrinks"},
      {binary, false, binary.substr(0, 84 + 50 * 8 + 17), "binary is cut"},
      {binary, false, binaryStl(more), "binary grows"},
      {ascii, false, asciiStl({facets.begin(), facets.end() - 1}), "ASCII loses a facet"},
      {ascii, false, ascii.substr(0, ascii.size() / 2), "ASCII is cut"},
      {ascii, false, asciiStl(more), "ASCII grows"},
      {binary, false, asciiStl({facets.begin(), facets.begin() + 15}), "binary turns ASCII"},
      {binary, false, "", "binary is emptied"},
  };
  const std::string input = tempPath("window.stl"), output = tempPath("window-out.stl");
  HookGuard hook;
  for (const auto &c : cases) {
    for (Method method : {reduceLow, reduceMedium}) {
      writeBytes(input, c.before);
      std::remove(output.c_str());
      gRemoveInput = c.remove;
      gChangedBytes = c.after;
      gHookCalls = 0;
      int32_t old = -1;
      EXPECT_EQ(method(input.c_str(), output.c_str(), 0.1, nullptr, &old), -1) << c.what;
      EXPECT_EQ(gHookCalls, 1) << c.what;
      EXPECT_FALSE(fs::exists(output)) << c.what;
      EXPECT_EQ(fs::exists(input), !c.remove) << c.what;
      if (!c.remove) {
        EXPECT_EQ(fileBytes(input), c.after) << c.what;
      }
    }
    // The same through the run entry of the command line, with -s.
    writeBytes(input, c.before);
    ReduceOptions options;
    fillDefaultOptions(&options);
    options.inputName = input;
    options.outputName = output;
    options.solidWanted = true;
    options.solidName = tempPath("window-solid.stl");
    options.method = kMethodMedium;
    int32_t old = 0, removed = 0, solids = 0;
    EXPECT_EQ(runReduction(&options, &old, &removed, &solids), 0) << c.what;
    EXPECT_LT(removed, 0) << c.what;
    EXPECT_EQ(solids, -1) << c.what;
    EXPECT_FALSE(fs::exists(output) || fs::exists(options.solidName)) << c.what;
  }
  // An output that is the input: no sibling is made, nothing is left.
  writeBytes(input, binary);
  gRemoveInput = false;
  gChangedBytes = binaryStl({facets.begin(), facets.begin() + 4});
  int32_t old;
  EXPECT_EQ(reduceMedium(input.c_str(), input.c_str(), 0.1, nullptr, &old), -1);
  EXPECT_EQ(fileBytes(input), gChangedBytes);
  for (const auto &entry : fs::directory_iterator(fs::path(input).parent_path()))
    EXPECT_EQ(entry.path().filename().string().rfind("window.stl.", 0), std::string::npos) << entry.path();
  // With the file as it was scanned, the same runs succeed and the hook is
  // called once per block method and never by -qh, which reads its input once.
  gChangedBytes = binary;
  gHookCalls = 0;
  writeBytes(input, binary);
  EXPECT_EQ(reduceLow(input.c_str(), output.c_str(), 0.1, nullptr, &old), 0);
  EXPECT_EQ(reduceMedium(input.c_str(), output.c_str(), 0.1, nullptr, &old), 0);
  EXPECT_EQ(reduceHigh(input.c_str(), output.c_str(), 0.1, nullptr, &old), 0);
  EXPECT_EQ(gHookCalls, 2);
}

// The streamed route reads its keys and then its facets from the file, for
// the count of the scan. A file that holds fewer or more facets than that
// count fails without an output; an ASCII file with more facets used to be
// read in part, its first `count` facets reduced as if they were all.
TEST(FaultWindow, StreamedRouteRefusesAFileWhoseCountChanged) {
  const std::vector<Facet> facets = fourTetrahedra();
  const std::string input = tempPath("streamed.stl"), output = tempPath("streamed-out.stl");
  for (const std::string &bytes : {binaryStl(facets), asciiStl(facets)}) {
    writeBytes(input, bytes);
    for (int count : {15, 17, 4, 100}) {
      std::remove(output.c_str());
      EXPECT_EQ(reduceStreamed(input.c_str(), output.c_str(), kMethodMedium, nullptr, 0.1, nullptr, count), -1)
          << count << (bytes[0] == 's' ? " ASCII" : " binary");
      EXPECT_FALSE(fs::exists(output)) << count;
      EXPECT_EQ(fileBytes(input), bytes);
    }
    EXPECT_EQ(reduceStreamed(input.c_str(), output.c_str(), kMethodMedium, nullptr, 0.1, nullptr, 16), 0);
    EXPECT_EQ(countField(output), 16);
  }
}

// -qh reads its input in one pass: a missing or unreadable input fails before
// the output is created, so none is left.
TEST_F(Fault, HighMethodLeavesNoOutputWhenTheInputCannotBeRead) {
  expectFailure({"missing.stl", "-qh", "-oout.stl"}, {}, "missing");
  EXPECT_FALSE(fs::exists(path("out.stl")));
  const Limits nobody{RLIM_INFINITY, true};
  writeBytes(path("secret.stl"), input_);
  fs::permissions(path("secret.stl"), fs::perms::owner_read | fs::perms::owner_write);
  for (const char *method : kMethods) {
    if (geteuid() != 0 && access(path("secret.stl").c_str(), R_OK) == 0) break;
    expectFailure({"secret.stl", method, "-oout.stl"}, nobody, std::string(method) + " unreadable");
    EXPECT_FALSE(fs::exists(path("out.stl"))) << method;
  }
}

} // namespace
