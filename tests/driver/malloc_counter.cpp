#include "tests/driver/malloc_counter.h"

#include <atomic>
#include <cerrno>
#include <cstddef>

namespace {
std::atomic<uint64_t> g_allocations{0};
inline void counted() { g_allocations.fetch_add(1, std::memory_order_relaxed); }
}  // namespace

uint64_t le::test::allocationCount() { return g_allocations.load(std::memory_order_relaxed); }

extern "C" {

void* __libc_malloc(size_t n);
void __libc_free(void* p);
void* __libc_calloc(size_t count, size_t n);
void* __libc_realloc(void* p, size_t n);
void* __libc_memalign(size_t align, size_t n);

void* malloc(size_t n) {
  counted();
  return __libc_malloc(n);
}
void free(void* p) { __libc_free(p); }
void* calloc(size_t count, size_t n) {
  counted();
  return __libc_calloc(count, n);
}
void* realloc(void* p, size_t n) {
  counted();
  return __libc_realloc(p, n);
}
void* memalign(size_t align, size_t n) {
  counted();
  return __libc_memalign(align, n);
}
void* aligned_alloc(size_t align, size_t n) {
  counted();
  return __libc_memalign(align, n);
}
int posix_memalign(void** out, size_t align, size_t n) {
  counted();
  void* p = __libc_memalign(align, n);
  if (!p) return ENOMEM;
  *out = p;
  return 0;
}

}  // extern "C"
