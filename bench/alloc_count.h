// Heap allocations of a benchmark process, where the tests' malloc counter is
// linked in (le_bench(... COUNT_ALLOCS)); 0 where it isn't.
#pragma once

#include <cstdint>

#if LE_BENCH_COUNT_ALLOCS
#include "tests/driver/malloc_counter.h"
#endif

namespace le::bench {

inline uint64_t allocations() {
#if LE_BENCH_COUNT_ALLOCS
  return le::test::allocationCount();
#else
  return 0;
#endif
}

}  // namespace le::bench
