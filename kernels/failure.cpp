// The note of the first failure: a claim word that one thread wins, then the
// place, published once complete.
#include "kernels/failure.h"

#include <atomic>
#include <cstdio>
#include <cstring>

namespace {

constexpr int kFree = 0;     // nothing noted
constexpr int kWriting = 1;  // a thread has claimed the note and is filling it
constexpr int kNoted = 2;    // file and line are complete

std::atomic<int> gState{kFree};
const char *gFile = nullptr;
int gLine = 0;

// The last two parts of a path: the folder and the file.
const char *shortPath(const char *path) {
  const char *last = std::strrchr(path, '/');
  if (!last) return path;
  for (const char *p = last - 1; p >= path; --p)
    if (*p == '/') return p + 1;
  return path;
}

}  // namespace

void ftFailAt(const char *file, int line) {
  int expected = kFree;
  if (!gState.compare_exchange_strong(expected, kWriting, std::memory_order_acq_rel)) return;
  gFile = file;
  gLine = line;
  gState.store(kNoted, std::memory_order_release);
}

const char *ftFailPlace(char *buffer, int size) {
  if (gState.load(std::memory_order_acquire) != kNoted || !buffer || size < 1) return nullptr;
  std::snprintf(buffer, static_cast<size_t>(size), "%s:%d", shortPath(gFile), gLine);
  return buffer;
}

void ftFailReset() { gState.store(kFree, std::memory_order_release); }
