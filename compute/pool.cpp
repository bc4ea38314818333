#include "compute/pool.h"

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace le::pool {
namespace {

using Task = std::function<void(std::size_t, std::size_t)>;

// One calling thread's workers. Each engine thread that cuts loops gets its
// own set, so two threads never queue behind each other's jobs; the set lives
// as long as its thread, so no thread is started per job. Workers sleep on a
// condition variable between jobs: the frame path must not burn cores that
// ONNX Runtime and the host need.
class Pool {
 public:
  explicit Pool(int threadCount) {
    const int n = threadCount < 2 ? 0 : threadCount - 1;
    workers_.reserve(static_cast<std::size_t>(n));
    try {
      for (int i = 1; i <= n; ++i) workers_.emplace_back([this, i] { workerLoop(i); });
    } catch (...) {
      shutDown();
      throw;
    }
  }
  ~Pool() { shutDown(); }
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  // Posts the job, runs slice 0 here, and waits for every worker to report:
  // a full barrier, also when fewer slices than workers exist, so that the
  // next job never meets a worker still busy with this one.
  void run(std::size_t n, int parts, const Task& fn) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      task_ = &fn;
      n_ = n;
      parts_ = parts;
      pending_ = static_cast<int>(workers_.size());
      ++generation_;
    }
    go_.notify_all();
    // The workers hold a pointer to fn: whatever slice 0 does, this call may
    // not return before they have all reported.
    struct Barrier {
      Pool& pool;
      ~Barrier() {
        std::unique_lock<std::mutex> lock(pool.mutex_);
        pool.done_.wait(lock, [this] { return pool.pending_ == 0; });
        pool.task_ = nullptr;
      }
    } barrier{*this};
    const detail::Slice s = detail::slice(n, parts, 0);
    fn(s.lo, s.hi);
  }

 private:
  void workerLoop(int index) {
    std::uint64_t seen = 0;
    for (;;) {
      const Task* task;
      std::size_t n;
      int parts;
      {
        std::unique_lock<std::mutex> lock(mutex_);
        go_.wait(lock, [&] { return generation_ != seen; });
        seen = generation_;
        if (stop_) return;
        task = task_;
        n = n_;
        parts = parts_;
      }
      if (parts > index) {
        const detail::Slice s = detail::slice(n, parts, index);
        if (s.lo < n) (*task)(s.lo, s.hi);
      }
      {
        std::lock_guard<std::mutex> lock(mutex_);
        if (--pending_ == 0) done_.notify_all();
      }
    }
  }

  void shutDown() {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      stop_ = true;
      ++generation_;
    }
    go_.notify_all();
    for (std::thread& t : workers_) {
      if (t.joinable()) t.join();
    }
    workers_.clear();
  }

  std::vector<std::thread> workers_;
  std::mutex mutex_;
  std::condition_variable go_;
  std::condition_variable done_;
  const Task* task_ = nullptr;
  std::size_t n_ = 0;
  int parts_ = 0;
  int pending_ = 0;
  std::uint64_t generation_ = 0;
  bool stop_ = false;
};

thread_local std::unique_ptr<Pool> t_pool;
thread_local bool t_inParallel = false;

}  // namespace

namespace detail {

int partsFor(std::size_t n, std::size_t grain, int threads) {
  if (threads < 2) return 1;
  const std::size_t q = n / std::max<std::size_t>(grain, 1);
  if (q < 2) return 1;
  return static_cast<int>(std::min<std::size_t>(q, static_cast<std::size_t>(threads)));
}

Slice slice(std::size_t n, int parts, int i) {
  const std::size_t p = static_cast<std::size_t>(std::max(parts, 1));
  const std::size_t chunk = n / p + (n % p != 0 ? 1 : 0);
  const std::size_t lo = chunk * static_cast<std::size_t>(i);
  return {lo, std::min(chunk * (static_cast<std::size_t>(i) + 1), n)};
}

}  // namespace detail

bool available() { return true; }

int parts(std::size_t n, std::size_t grain) { return detail::partsFor(n, grain, threads()); }

void parallelRange(std::size_t n, std::size_t grain, const Task& fn) {
  const int p = t_inParallel ? 1 : parts(n, grain);
  if (p < 2) {
    fn(0, n);
    return;
  }
  if (!t_pool) t_pool = std::make_unique<Pool>(threads());
  struct InParallel {
    InParallel() { t_inParallel = true; }
    ~InParallel() { t_inParallel = false; }
  } guard;
  t_pool->run(n, p, fn);
}

}  // namespace le::pool
