// File-level writing: the exact header, the provisional count and its patch,
// the ASCII first line, and the refusals.
#include "stl_files.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <fstream>

TEST(StlWrite, ExactHeadersPatchedCountAndFailures) {
  const std::string path = tempPath("written.stl");
  std::string header = " ---   QUAY VANE Fabrications SE   ---              <binary stl-data>          ";
  header.push_back('\0');
  std::string expected = header;
  appendWord(&expected, 0xDEADBEEF);
  std::fclose(stlCreateBinary(path.c_str(), 0xDEADBEEF));
  EXPECT_EQ(fileBytes(path), expected);

  FILE *file = stlCreateBinary(path.c_str(), 7);
  const std::string records = binaryStl(rampFacets(2)).substr(84);
  std::fwrite(records.data(), 1, records.size(), file);
  EXPECT_EQ(stlPatchCount(2, file), 0);
  std::fclose(file);
  EXPECT_EQ(fileBytes(path).substr(0, 80), header);
  EXPECT_EQ(readBinaryFacets(path), rampFacets(2));
  EXPECT_EQ(stlScan(path.c_str(), nullptr, nullptr), 2);
  const std::string ascii = tempPath("written-ascii.stl");
  std::fclose(stlCreateAscii(ascii.c_str()));
  EXPECT_EQ(fileBytes(ascii), "solid ascii\n");
  EXPECT_EQ(stlCreateBinary(tempPath("no/such/dir.stl").c_str(), 0), nullptr);
  EXPECT_EQ(stlCreateAscii(tempPath("no/such/dir.stl").c_str()), nullptr);
  EXPECT_EQ(stlPatchCount(1, nullptr), -1);
}

namespace {

// Runs body in a child that first installs the signal cleanup; how the child
// ended: the signal that ended it, or 0 for a normal exit.
int endingSignal(void (*body)(const std::string &), const std::string &path) {
  const pid_t child = fork();
  if (child == 0) {
    stlRemoveOutputOnSignal();
    body(path);
    _exit(0);
  }
  int status = 0;
  waitpid(child, &status, 0);
  return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
}

void killedWhileWriting(const std::string &path) {
  FILE *file = stlCreateBinary(path.c_str(), 3);
  std::fputs("part of a record", file);
  std::fflush(file);
  raise(SIGTERM);
}

void killedAfterKeeping(const std::string &path) {
  EXPECT_EQ(stlCloseOutput(stlCreateBinary(path.c_str(), 0), path.c_str(), kOutputKeep), 0);
  raise(SIGINT);
}

// The open file moves away and another takes its name: neither is removed.
void killedAfterNameTaken(const std::string &path) {
  FILE *file = stlCreateAscii(path.c_str());
  std::rename(path.c_str(), (path + ".moved").c_str());
  std::fclose(std::fopen(path.c_str(), "w"));
  raise(SIGHUP);
  std::fclose(file);
}

} // namespace

TEST(StlWrite, SignalRemovesOnlyTheFilesStillBeingWritten) {
  const std::string path = tempPath("signalled.stl");
  std::remove(path.c_str());
  EXPECT_EQ(endingSignal(killedWhileWriting, path), SIGTERM);
  EXPECT_FALSE(std::ifstream(path).good());

  EXPECT_EQ(endingSignal(killedAfterKeeping, path), SIGINT);
  EXPECT_EQ(countField(path), 0);

  std::remove(path.c_str());
  EXPECT_EQ(endingSignal(killedAfterNameTaken, path), SIGHUP);
  EXPECT_EQ(fileBytes(path), "");
  EXPECT_EQ(fileBytes(path + ".moved"), "solid ascii\n");
  std::remove((path + ".moved").c_str());

}
