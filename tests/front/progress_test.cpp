// The progress line as a user meets it: the built tool run once with standard
// error on a pseudo-terminal and once on a pipe, the line's delay set to 0.
#include "support.h"

#include <gtest/gtest.h>

#include <pty.h>
#include <unistd.h>

#include <string>

namespace {

const std::string kErase = "\r\033[K";

// Runs the tool on a new pseudo-terminal (its standard input, output and
// error); everything it wrote there goes to text. The exit status.
int runOnTerminal(const std::string &input, const std::string &output, const char *method,
                  std::string *text) {
  int master = -1;
  const pid_t child = forkpty(&master, nullptr, nullptr, nullptr);
  if (child == 0) {
    const std::string out = "-o" + output;
    execl(FT_BINARY_DIR "/FacetTrim", "FacetTrim", input.c_str(), "-t0.05", method, out.c_str(),
          static_cast<char *>(nullptr));
    _exit(127);
  }
  if (child < 0) return -1;
  char buffer[4096];
  // Reading ends with an error once the child has closed the terminal.
  for (ssize_t n; (n = read(master, buffer, sizeof buffer)) > 0;) text->append(buffer, static_cast<size_t>(n));
  close(master);
  int status = 0;
  waitpid(child, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(ProgressLine, ShowsOnATerminalOnlyErasesItselfAndChangesNoResult) {
  setenv("FT_PROGRESS_DELAY", "0", 1);
  // An open height field of 8,192 facets: -qm cuts it into two pieces that
  // are reduced side by side, so the notes come from two threads.
  const std::string input = dataPath("terrain.stl");
  const struct {
    const char *method;
    const char *unit;  // text the line must hold besides the vertices, or null: no line at all
  } cases[] = {{"-qh", "FacetTrim: reading"}, {"-qm", "FacetTrim: block 1/1, "}, {"-ql", nullptr}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.method);
    const std::string piped = tempPath(std::string("piped") + c.method + ".stl");
    const std::string shown = tempPath(std::string("shown") + c.method + ".stl");
    std::string pipeText;
    ASSERT_EQ(runCommand("'" FT_BINARY_DIR "/FacetTrim' '" + input + "' -t0.05 " + c.method + " '-o" +
                             piped + "' 2>&1",
                         &pipeText),
              0);
    std::string terminal;
    ASSERT_EQ(runOnTerminal(input, shown, c.method, &terminal), 0);
    // Batch use sees nothing new, and the files are the same either way.
    EXPECT_EQ(pipeText.find("\033[K"), std::string::npos) << pipeText;
    EXPECT_EQ(fileBytes(shown), fileBytes(piped));
    if (!c.unit) {
      // The low method's own lines, and no line rewritten in place.
      EXPECT_EQ(terminal.find(kErase), std::string::npos);
      continue;
    }
    EXPECT_EQ(pipeText, "");
    // Nothing but lines rewritten in place, the engine's count among them,
    // and the last thing written erases the line.
    EXPECT_EQ(terminal.find('\n'), std::string::npos) << terminal;
    EXPECT_NE(terminal.find(kErase + "FacetTrim: "), std::string::npos) << terminal;
    EXPECT_NE(terminal.find(c.unit), std::string::npos) << terminal;
    EXPECT_NE(terminal.find(" vertices, "), std::string::npos) << terminal;
    EXPECT_NE(terminal.find(" facets/s, "), std::string::npos) << terminal;
    ASSERT_GE(terminal.size(), kErase.size());
    EXPECT_EQ(terminal.substr(terminal.size() - kErase.size()), kErase);
  }
}

}  // namespace
