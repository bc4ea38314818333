// Counts heap allocations of the whole process: the program that links
// malloc_counter.cpp replaces malloc and its family with versions that count
// and then forward to glibc's own allocator. operator new goes through
// malloc, so it is counted too. Not for sanitizer builds, which bring their
// own malloc.
#pragma once

#include <cstdint>

namespace le::test {

// Allocations (malloc, calloc, realloc, memalign and kin) since the process
// started, on every thread.
uint64_t allocationCount();

}  // namespace le::test
