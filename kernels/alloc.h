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
