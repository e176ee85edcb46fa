// The installed progress sink. The pointer is atomic so that the worker
// threads' loads and the front end's stores, which never overlap in time,
// are also race-free in the memory model's terms.
#include "kernels/progress.h"

#include <atomic>

namespace {

std::atomic<ftProgressSink> gSink{nullptr};

}  // namespace

void ftProgressInstall(ftProgressSink sink) { gSink.store(sink, std::memory_order_release); }

void ftProgress(int32_t kind, int64_t count) {
  const ftProgressSink sink = gSink.load(std::memory_order_acquire);
  if (!sink) return;
  const ftProgressNote note = {kind, count};
  sink(&note);
}
