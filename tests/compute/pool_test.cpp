// le::pool: the slicing rule, where slices run, inline cases, nesting, one
// worker set per calling thread, and workers that end with their thread.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <dirent.h>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <stdexcept>
#include <thread>
#include <vector>

#include "compute/pool.h"

namespace le::test {
namespace {

using le::pool::detail::partsFor;
using le::pool::detail::slice;

struct Call {
  std::size_t lo, hi;
  std::thread::id thread;
};

// Records every fn(lo, hi) of one parallelRange.
class Recorder {
 public:
  std::function<void(std::size_t, std::size_t)> fn() {
    return [this](std::size_t lo, std::size_t hi) {
      std::lock_guard<std::mutex> lock(m_);
      calls_.push_back({lo, hi, std::this_thread::get_id()});
    };
  }
  std::vector<Call> sorted() const {
    std::vector<Call> c = calls_;
    std::sort(c.begin(), c.end(), [](const Call& a, const Call& b) { return a.lo < b.lo; });
    return c;
  }

 private:
  std::mutex m_;
  std::vector<Call> calls_;
};

// Threads of this process, from /proc.
int processThreads() {
  int count = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (dirent* e = readdir(d)) {
      if (e->d_name[0] != '.') ++count;
    }
    closedir(d);
  }
  return count;
}

// The thread count once it has stopped changing for 50 ms. A thread is
// started and joined first, so that a runtime that starts a helper thread
// along with the process's first one (a sanitizer's) has done so.
int stableThreads() {
  std::thread([] {}).join();
  int last = processThreads();
  for (int i = 0; i < 40; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int now = processThreads();
    if (now == last) return now;
    last = now;
  }
  return last;
}

// Waits up to two seconds for the thread count to settle at `want`: a thread
// that has been joined may linger in /proc for a moment.
int settleThreads(int want) {
  int now = processThreads();
  for (int i = 0; i < 200 && now != want; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    now = processThreads();
  }
  return now;
}

TEST(PoolSlicing, PartsFollowTheRule) {
  EXPECT_EQ(partsFor(127, 64, 4), 1);  // one grain: inline
  EXPECT_EQ(partsFor(128, 64, 4), 2);
  EXPECT_EQ(partsFor(10, 1, 4), 4);
  EXPECT_EQ(partsFor(9, 1, 8), 8);
  EXPECT_EQ(partsFor(1000, 1, 1), 1);  // one thread: inline
  EXPECT_EQ(partsFor(0, 1, 4), 1);
  EXPECT_EQ(partsFor(5, 0, 4), 4);  // grain 0 counts as 1
  EXPECT_EQ(partsFor(3, 1, 16), 3);
}

TEST(PoolSlicing, SlicesAreEqualContiguousAndAscending) {
  const auto slices = [](std::size_t n, int parts) {
    std::vector<std::pair<std::size_t, std::size_t>> out;
    for (int i = 0; i < parts; ++i) out.emplace_back(slice(n, parts, i).lo, slice(n, parts, i).hi);
    return out;
  };
  using S = std::vector<std::pair<std::size_t, std::size_t>>;
  EXPECT_EQ(slices(128, 2), (S{{0, 64}, {64, 128}}));
  EXPECT_EQ(slices(10, 4), (S{{0, 3}, {3, 6}, {6, 9}, {9, 10}}));
  // Chunk 2 of 9 over 8 parts: slices 5 to 7 start at or past the end.
  const S nine = slices(9, 8);
  EXPECT_EQ(nine[4], (std::pair<std::size_t, std::size_t>{8, 9}));
  for (int i = 5; i < 8; ++i) EXPECT_GE(nine[i].first, 9u);

  // Any n, grain and thread count: the non-empty slices tile [0, n) in
  // order, all of one length but the last.
  std::mt19937 rng(3);
  for (int rep = 0; rep < 2000; ++rep) {
    const std::size_t n = rng() % 300;
    const std::size_t grain = rng() % 20;
    const int threads = 1 + static_cast<int>(rng() % 16);
    const int parts = partsFor(n, grain, threads);
    ASSERT_GE(parts, 1);
    ASSERT_LE(parts, threads);
    std::size_t next = 0;
    const std::size_t first = slice(n, parts, 0).hi - slice(n, parts, 0).lo;
    for (int i = 0; i < parts; ++i) {
      const auto s = slice(n, parts, i);
      if (s.lo >= n) continue;
      ASSERT_EQ(s.lo, next) << "n " << n << " parts " << parts << " slice " << i;
      ASSERT_GT(s.hi, s.lo);
      if (s.hi < n) {
        ASSERT_EQ(s.hi - s.lo, first);
      }
      next = s.hi;
    }
    ASSERT_EQ(next, n) << "n " << n << " parts " << parts;
  }
}

TEST(Pool, ReportsThreadsAndParts) {
  EXPECT_TRUE(le::pool::available());
  const int t = le::pool::threads();
  std::printf("le::pool::threads() is %d\n", t);
  ASSERT_GE(t, 1);
  const unsigned hw = std::thread::hardware_concurrency();
  if (hw != 0) {
    EXPECT_LE(static_cast<unsigned>(t), hw);
  }
  EXPECT_EQ(le::pool::parts(1000, 10), partsFor(1000, 10, t));
  EXPECT_EQ(le::pool::parts(127, 64), 1);
  EXPECT_EQ(le::pool::parts(128, 64), t < 2 ? 1 : 2);
}

TEST(Pool, SlicesCoverTheRangeOnTheirFixedThreads) {
  const int t = le::pool::threads();
  std::map<int, std::thread::id> workerOfSlice;
  std::set<std::thread::id> seen;
  for (int rep = 0; rep < 50; ++rep) {
    const std::size_t n = 1 + static_cast<std::size_t>(rep * 37 % 200);
    const std::size_t grain = 1 + static_cast<std::size_t>(rep % 7);
    Recorder rec;
    le::pool::parallelRange(n, grain, rec.fn());
    const std::vector<Call> calls = rec.sorted();
    const int parts = le::pool::parts(n, grain);
    std::vector<std::pair<std::size_t, std::size_t>> want;
    for (int i = 0; i < parts; ++i) {
      const auto s = slice(n, parts, i);
      if (i == 0 || s.lo < n) want.emplace_back(s.lo, s.hi);
    }
    ASSERT_EQ(calls.size(), want.size()) << "n " << n << " grain " << grain;
    for (std::size_t i = 0; i < calls.size(); ++i) {
      ASSERT_EQ(calls[i].lo, want[i].first);
      ASSERT_EQ(calls[i].hi, want[i].second);
      seen.insert(calls[i].thread);
      if (i == 0) {
        ASSERT_EQ(calls[i].thread, std::this_thread::get_id()) << "slice 0 runs on the caller";
      } else {
        ASSERT_NE(calls[i].thread, std::this_thread::get_id());
        // Slice i always goes to worker i: no stealing, no thread per job.
        const auto it = workerOfSlice.emplace(static_cast<int>(i), calls[i].thread).first;
        ASSERT_EQ(it->second, calls[i].thread) << "slice " << i << " moved to another thread";
      }
    }
  }
  EXPECT_LE(seen.size(), static_cast<std::size_t>(t));
  // Workers stay; repeated jobs start none.
  const int after = processThreads();
  for (int rep = 0; rep < 20; ++rep) le::pool::parallelRange(1000, 1, [](std::size_t, std::size_t) {});
  EXPECT_EQ(processThreads(), after);
}

TEST(Pool, InlineCases) {
  for (const auto& [n, grain] : std::vector<std::pair<std::size_t, std::size_t>>{
           {0, 1}, {1, 1}, {127, 64}, {63, 64}, {5, 100}}) {
    Recorder rec;
    le::pool::parallelRange(n, grain, rec.fn());
    const std::vector<Call> calls = rec.sorted();
    ASSERT_EQ(calls.size(), 1u) << "n " << n << " grain " << grain;
    EXPECT_EQ(calls[0].lo, 0u);
    EXPECT_EQ(calls[0].hi, n);
    EXPECT_EQ(calls[0].thread, std::this_thread::get_id());
  }
  if (le::pool::threads() == 1) {
    Recorder rec;
    le::pool::parallelRange(1000, 1, rec.fn());
    ASSERT_EQ(rec.sorted().size(), 1u);
    EXPECT_EQ(rec.sorted()[0].hi, 1000u);
  }
}

TEST(Pool, NestedCallOnTheCallingThreadRunsInline) {
  std::atomic<int> nestedCalls{0};
  std::atomic<bool> nestedWasWhole{false};
  le::pool::parallelRange(100, 1, [&](std::size_t lo, std::size_t) {
    if (lo != 0) return;  // slice 0: the calling thread
    Recorder inner;
    le::pool::parallelRange(500, 1, inner.fn());
    const std::vector<Call> calls = inner.sorted();
    nestedCalls = static_cast<int>(calls.size());
    nestedWasWhole = calls.size() == 1 && calls[0].lo == 0 && calls[0].hi == 500 &&
                     calls[0].thread == std::this_thread::get_id();
  });
  EXPECT_EQ(nestedCalls.load(), 1);
  EXPECT_TRUE(nestedWasWhole.load());
  // The guard is cleared afterwards: the next call cuts again.
  Recorder rec;
  le::pool::parallelRange(100, 1, rec.fn());
  EXPECT_EQ(static_cast<int>(rec.sorted().size()), le::pool::parts(100, 1));
}

TEST(Pool, NestedCallOnAWorkerUsesThatWorkersOwnPool) {
  if (le::pool::threads() < 2) GTEST_SKIP() << "needs workers";
  std::mutex m;
  std::set<std::thread::id> outer;
  std::vector<Call> inner;
  std::thread::id innerCaller;
  le::pool::parallelRange(2, 1, [&](std::size_t lo, std::size_t) {
    {
      std::lock_guard<std::mutex> lock(m);
      outer.insert(std::this_thread::get_id());
    }
    if (lo != 1) return;  // slice 1: worker 1
    Recorder rec;
    le::pool::parallelRange(300, 1, rec.fn());
    std::lock_guard<std::mutex> lock(m);
    inner = rec.sorted();
    innerCaller = std::this_thread::get_id();
  });
  ASSERT_EQ(static_cast<int>(inner.size()), le::pool::parts(300, 1));
  std::size_t next = 0;
  for (std::size_t i = 0; i < inner.size(); ++i) {
    EXPECT_EQ(inner[i].lo, next);
    next = inner[i].hi;
    if (i == 0) {
      EXPECT_EQ(inner[i].thread, innerCaller);
    } else {
      // The worker's own workers, none of the outer job's threads.
      EXPECT_EQ(outer.count(inner[i].thread), 0u);
    }
  }
  EXPECT_EQ(next, 300u);
}

TEST(Pool, EachCallingThreadHasItsOwnWorkers) {
  const int t = le::pool::threads();
  if (t < 2) GTEST_SKIP() << "needs workers";
  // Both jobs' slices must be running at the same moment: every slice waits
  // until all slices of both jobs have started. Shared workers could not
  // get there.
  const int parts = le::pool::parts(static_cast<std::size_t>(t), 1);
  const int all = 2 * parts;
  std::mutex m;
  std::condition_variable cv;
  int arrived = 0;
  bool allArrived = false;
  std::set<std::thread::id> threadsA, threadsB;
  const auto job = [&](std::set<std::thread::id>& ids) {
    le::pool::parallelRange(static_cast<std::size_t>(t), 1, [&](std::size_t, std::size_t) {
      std::unique_lock<std::mutex> lock(m);
      ids.insert(std::this_thread::get_id());
      if (++arrived == all) cv.notify_all();
      cv.wait_for(lock, std::chrono::seconds(5), [&] { return arrived == all; });
      if (arrived == all) allArrived = true;
    });
  };
  const int before = stableThreads();
  std::thread a([&] { job(threadsA); });
  std::thread b([&] { job(threadsB); });
  a.join();
  b.join();
  EXPECT_TRUE(allArrived);
  EXPECT_EQ(static_cast<int>(threadsA.size()), parts);
  EXPECT_EQ(static_cast<int>(threadsB.size()), parts);
  for (const auto& id : threadsA) EXPECT_EQ(threadsB.count(id), 0u);
  // Both calling threads have exited, and their workers with them.
  EXPECT_EQ(settleThreads(before), before);
}

TEST(Pool, WorkersEndWithTheirThread) {
  const int t = le::pool::threads();
  const int before = stableThreads();
  int during = 0;
  std::thread th([&] {
    le::pool::parallelRange(1000, 1, [&](std::size_t lo, std::size_t) {
      if (lo == 0) during = processThreads();
    });
    // Still alive between jobs.
    le::pool::parallelRange(1000, 1, [](std::size_t, std::size_t) {});
  });
  th.join();
  // The calling thread itself plus threads() - 1 workers.
  EXPECT_EQ(during, before + 1 + (t < 2 ? 0 : t - 1));
  EXPECT_EQ(settleThreads(before), before);
}

TEST(Pool, ExceptionOnTheCallingThreadWaitsForTheWorkers) {
  const int t = le::pool::threads();
  std::atomic<int> workerSlices{0};
  const std::size_t n = 64;
  const int parts = le::pool::parts(n, 1);
  EXPECT_THROW(le::pool::parallelRange(n, 1,
                                       [&](std::size_t lo, std::size_t) {
                                         if (lo == 0) throw std::runtime_error("slice 0 failed");
                                         std::this_thread::sleep_for(std::chrono::milliseconds(20));
                                         ++workerSlices;
                                       }),
               std::runtime_error);
  // Every worker had reported before the exception left the call.
  EXPECT_EQ(workerSlices.load(), parts - 1);
  // And the nesting guard was cleared: the next call is cut again.
  Recorder rec;
  le::pool::parallelRange(n, 1, rec.fn());
  EXPECT_EQ(static_cast<int>(rec.sorted().size()), t < 2 ? 1 : parts);
}

TEST(Pool, EmptyFunctionThrows) {
  const std::function<void(std::size_t, std::size_t)> empty;
  EXPECT_THROW(le::pool::parallelRange(1, 1, empty), std::bad_function_call);
}

TEST(PoolThreadCount, ParsesTheSetting) {
  using le::pool::threadsFrom;
  EXPECT_EQ(threadsFrom("0", nullptr, 8), 1);
  EXPECT_EQ(threadsFrom("abc", nullptr, 8), 1);
  EXPECT_EQ(threadsFrom("-3", nullptr, 8), 1);
  EXPECT_EQ(threadsFrom("1000", nullptr, 8), 8);
  EXPECT_EQ(threadsFrom("1000", nullptr, 0), 1000);  // core count unknown: no cap
  EXPECT_EQ(threadsFrom("3", nullptr, 8), 3);
  EXPECT_EQ(threadsFrom("", "2", 8), 2);
  EXPECT_EQ(threadsFrom(nullptr, "2", 8), 2);
  EXPECT_EQ(threadsFrom("1", "6", 8), 1);  // LE_CORE_THREADS wins when set
  EXPECT_EQ(threadsFrom(nullptr, nullptr, 8), 4);
  EXPECT_EQ(threadsFrom("", "", 8), 4);
  EXPECT_EQ(threadsFrom(nullptr, nullptr, 2), 2);
  EXPECT_EQ(threadsFrom(nullptr, nullptr, 0), 4);
  EXPECT_EQ(threadsFrom("", "abc", 8), 1);
}

}  // namespace
}  // namespace le::test
