// Files being written, and their removal when a signal ends the process.
//
// A run stopped from outside (Ctrl-C, a batch system's SIGTERM, a closed
// terminal) would otherwise leave a file that looks like a finished STL but
// holds a provisional count and part of the facets. Each file a writer creates
// is entered here from its open to its close; the handler removes every file
// entered whose name still refers to the file that was opened, then ends the
// process with the same signal, so the caller sees how it ended.
//
// The handler uses only async-signal-safe calls (stat, unlink, sigaction,
// raise). A slot becomes visible to it only once its fields are complete.
#include "stl/stl_internal.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>

namespace {

constexpr int kPendingMax = 4;       // files open for writing at once in a run
constexpr size_t kPendingName = 4096; // longest name kept, with its terminating zero

struct PendingFile {
  volatile sig_atomic_t used; // 1 while the slot describes an open file
  const FILE *file;
  dev_t device;
  ino_t inode;
  char name[kPendingName];
};

PendingFile gPending[kPendingMax];

constexpr int kCleanupSignals[] = {SIGHUP, SIGINT, SIGQUIT, SIGTERM};

extern "C" void removePendingAndDie(int signal) {
  for (PendingFile &slot : gPending) {
    struct stat named;
    if (slot.used && stat(slot.name, &named) == 0 && S_ISREG(named.st_mode) &&
        named.st_dev == slot.device && named.st_ino == slot.inode) {
      unlink(slot.name);
    }
  }
  struct sigaction action = {};
  action.sa_handler = SIG_DFL;
  sigemptyset(&action.sa_mask);
  sigaction(signal, &action, nullptr);
  raise(signal);
}

// Writers run on one thread; the handler may interrupt it anywhere, so a slot
// is filled first and marked used last, and cleared by its mark alone.
void pendingAdd(FILE *file, const char *name) {
  struct stat opened;
  const size_t length = std::strlen(name);
  if (length >= kPendingName || fstat(fileno(file), &opened) != 0 || !S_ISREG(opened.st_mode)) {
    return;
  }
  // A slot still naming this FILE was left by a file closed without
  // stlCloseOutput: the pointer has been reused, so the slot is free.
  for (PendingFile &slot : gPending) {
    if (!slot.used || slot.file == file) {
      slot.used = 0;
      std::atomic_signal_fence(std::memory_order_seq_cst);
      std::memcpy(slot.name, name, length + 1);
      slot.file = file;
      slot.device = opened.st_dev;
      slot.inode = opened.st_ino;
      std::atomic_signal_fence(std::memory_order_seq_cst);
      slot.used = 1;
      return;
    }
  }
}

} // namespace

FILE *stl_detail::openOutputFile(const char *name, const char *mode) {
  FILE *file = name ? std::fopen(name, mode) : nullptr;
  if (file) {
    pendingAdd(file, name);
  }
  return file;
}

void stl_detail::pendingDrop(const FILE *file) {
  for (PendingFile &slot : gPending) {
    if (slot.used && slot.file == file) {
      slot.used = 0;
      std::atomic_signal_fence(std::memory_order_seq_cst);
    }
  }
}

// A signal ignored when the process started (a job started with nohup, or in
// the background of a shell without job control) stays ignored.
int stlRemoveOutputOnSignal() {
  int installed = 0;
  for (const int signal : kCleanupSignals) {
    struct sigaction previous;
    if (sigaction(signal, nullptr, &previous) != 0 || previous.sa_handler == SIG_IGN) {
      continue;
    }
    struct sigaction action = {};
    action.sa_handler = removePendingAndDie;
    sigemptyset(&action.sa_mask);
    for (const int other : kCleanupSignals) {
      sigaddset(&action.sa_mask, other);
    }
    installed += sigaction(signal, &action, nullptr) == 0 ? 1 : 0;
  }
  return installed;
}
