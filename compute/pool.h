// Cutting a loop across cores. Every parallel loop of the engine goes through
// parallelRange, so that the slicing, and with it every result that depends on
// which slice computed what, is the same everywhere.
#pragma once

#include <cstddef>
#include <functional>
#include <type_traits>
#include <utility>

#include "compute/threads.h"

namespace le::pool {

// Always true: the pool needs nothing from the platform beyond std::thread.
bool available();

// The number of slices parallelRange(n, grain, ...) cuts: 1 with fewer than
// two threads or fewer than two grains of work, else min(n / grain, threads()).
int parts(std::size_t n, std::size_t grain);

// Runs fn(lo, hi) over equal, contiguous, ascending slices that cover [0, n)
// exactly once and returns when all are done. Slice 0 runs on the calling
// thread, slice i on worker i of the calling thread's own worker set. Runs
// inline, as one fn(0, n), when there is too little work, when threads() is
// 1, or when called from inside a slice that runs on this thread. fn must not
// throw on a worker: nothing there catches.
void parallelRange(std::size_t n, std::size_t grain,
                   const std::function<void(std::size_t, std::size_t)>& fn);

// The same for any callable, which is passed by reference: a std::function
// built from a reference_wrapper never allocates, so a parallel loop on the
// frame path costs no heap allocation.
template <class Fn>
  requires(!std::is_same_v<std::remove_cvref_t<Fn>, std::function<void(std::size_t, std::size_t)>>)
void parallelRange(std::size_t n, std::size_t grain, Fn&& fn) {
  parallelRange(n, grain, std::function<void(std::size_t, std::size_t)>(std::ref(fn)));
}

namespace detail {

// The slicing rule on its own, for any thread count, so that it can be
// checked for counts this machine cannot run.
struct Slice {
  std::size_t lo;
  std::size_t hi;  // hi <= lo means an empty slice
};
int partsFor(std::size_t n, std::size_t grain, int threads);
// Slice i of a job of n elements cut into `parts` slices; the last ones may be
// short or empty after rounding the chunk up.
Slice slice(std::size_t n, int parts, int i);

}  // namespace detail
}  // namespace le::pool
