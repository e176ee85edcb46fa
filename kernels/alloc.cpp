// The counting allocator of test builds; empty in the product.
#include "kernels/alloc.h"

#ifdef FT_ALLOC_FAULTS

#include <atomic>

namespace {

std::atomic<long> gCount{0};    // allocations asked for
std::atomic<long> gFailFrom{-1}; // first allocation to fail, or -1

// True when this allocation is to fail.
bool failNow() {
  const long index = gCount.fetch_add(1, std::memory_order_relaxed);
  const long from = gFailFrom.load(std::memory_order_relaxed);
  return from >= 0 && index >= from;
}

} // namespace

void *ftMalloc(size_t bytes) { return failNow() ? nullptr : std::malloc(bytes); }

void *ftCalloc(size_t count, size_t bytes) { return failNow() ? nullptr : std::calloc(count, bytes); }

void *ftRealloc(void *block, size_t bytes) { return failNow() ? nullptr : std::realloc(block, bytes); }

void ftAllocFailFrom(long n) {
  gCount.store(0, std::memory_order_relaxed);
  gFailFrom.store(n, std::memory_order_relaxed);
}

long ftAllocCount() { return gCount.load(std::memory_order_relaxed); }

#endif
