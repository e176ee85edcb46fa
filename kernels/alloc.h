// Allocation of the records and arrays of every subsystem. In the product
// these are the C library's routines. Test builds (FT_ALLOC_FAULTS, set for
// Debug builds) count every allocation and can make one fail on purpose, so
// that a test can walk a run through a failure at each allocation in turn.
#pragma once

#include <cstddef>
#include <cstdlib>

#ifdef FT_ALLOC_FAULTS

void *ftMalloc(size_t bytes);
void *ftCalloc(size_t count, size_t bytes);
// Like realloc: on failure block stays allocated and unchanged.
void *ftRealloc(void *block, size_t bytes);
// From now on, allocation number n (counting from 0) and every one after it
// fail; n < 0 lets all succeed. Resets the count.
void ftAllocFailFrom(long n);
// The allocations asked for since the last ftAllocFailFrom, failed ones included.
long ftAllocCount();

#else

inline void *ftMalloc(size_t bytes) { return std::malloc(bytes); }
inline void *ftCalloc(size_t count, size_t bytes) { return std::calloc(count, bytes); }
inline void *ftRealloc(void *block, size_t bytes) { return std::realloc(block, bytes); }

#endif

// Blocks of one size that a thread freed, waiting for the next it makes:
// each holds the next in its first bytes, and they go back to the allocator
// when the list ends with its thread. For records and buffers that a hot
// loop frees and makes again, which the allocator would merge and split
// over and over. Builds that count allocations or check them keep no
// spares (kFtSpares is false), so that every block comes from the
// allocator and goes back to it.
#if defined(FT_ALLOC_FAULTS) || defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kFtSpares = false;
#else
constexpr bool kFtSpares = true;
#endif

struct ftSpares {
  void *head = nullptr;
  size_t n = 0;  // blocks held
  ftSpares() = default;
  ftSpares(const ftSpares &) = delete;
  ftSpares &operator=(const ftSpares &) = delete;
  ~ftSpares() {
    while (head) {
      void *next = *static_cast<void **>(head);
      std::free(head);
      head = next;
    }
  }
};

// Keeps block, which holds at least a pointer, as the next spare.
inline void ftSparePush(ftSpares *s, void *block) {
  *static_cast<void **>(block) = s->head;
  s->head = block;
  ++s->n;
}

// The last spare kept, or null when there is none.
inline void *ftSparePop(ftSpares *s) {
  void *block = s->head;
  if (block) {
    s->head = *static_cast<void **>(block);
    --s->n;
  }
  return block;
}
