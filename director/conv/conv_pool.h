// The fused backend's own workers. A render is three barriers of item- or
// block-sized tasks handed out one index at a time, and the engine's
// scratch is indexed by worker, so it keeps a pool of its own rather than
// le::pool's slices.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <exception>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

namespace le::conv {

class Pool {
 public:
  // threads - 1 workers with indices 1 and up; the caller is index 0. A
  // worker that can't start throws std::system_error "thread constructor
  // failed" and no worker is left running.
  explicit Pool(int threads);
  ~Pool();
  Pool(const Pool&) = delete;
  Pool& operator=(const Pool&) = delete;

  int threads() const { return static_cast<int>(workers_.size()) + 1; }

  // fn(taskIndex, workerIndex) for every task index below count, handed out
  // one at a time to the caller and the workers; returns when all are done.
  // An exception of a task is rethrown here once the others have finished.
  // One caller at a time.
  void run(size_t count, const std::function<void(size_t, size_t)>& fn);

 private:
  void stopAll();
  void work(size_t worker);
  void take(size_t worker);

  std::vector<std::thread> workers_;
  std::mutex m_;
  std::condition_variable wake_, done_;
  const std::function<void(size_t, size_t)>* job_ = nullptr;
  std::atomic<size_t> next_{0};
  size_t count_ = 0;
  int active_ = 0;  // workers still in the job
  uint64_t generation_ = 0;
  bool stop_ = false;
  std::exception_ptr failure_;
};

}  // namespace le::conv
