#include "director/conv/conv_pool.h"

#include <system_error>

namespace le::conv {

Pool::Pool(int threads) {
  try {
    for (int i = 1; i < threads; ++i) workers_.emplace_back([this, i] { work(static_cast<size_t>(i)); });
  } catch (const std::system_error& e) {
    stopAll();  // the ones that did start
    throw std::system_error(e.code(), "thread constructor failed");
  }
}

Pool::~Pool() { stopAll(); }

void Pool::stopAll() {
  {
    std::lock_guard<std::mutex> lock(m_);
    stop_ = true;
    ++generation_;
  }
  wake_.notify_all();
  for (std::thread& t : workers_)
    if (t.joinable()) t.join();
  workers_.clear();
}

void Pool::take(size_t worker) {
  const std::function<void(size_t, size_t)>& fn = *job_;
  for (size_t i = next_.fetch_add(1, std::memory_order_relaxed); i < count_;
       i = next_.fetch_add(1, std::memory_order_relaxed)) {
    try {
      fn(i, worker);
    } catch (...) {
      std::lock_guard<std::mutex> lock(m_);
      if (!failure_) failure_ = std::current_exception();
    }
  }
}

void Pool::work(size_t worker) {
  uint64_t seen = 0;
  for (;;) {
    {
      std::unique_lock<std::mutex> lock(m_);
      wake_.wait(lock, [&] { return generation_ != seen; });
      seen = generation_;
      if (stop_) return;
    }
    take(worker);
    std::lock_guard<std::mutex> lock(m_);
    if (--active_ == 0) done_.notify_all();
  }
}

void Pool::run(size_t count, const std::function<void(size_t, size_t)>& fn) {
  {
    std::lock_guard<std::mutex> lock(m_);
    job_ = &fn;
    next_.store(0, std::memory_order_relaxed);
    count_ = count;
    active_ = static_cast<int>(workers_.size());
    failure_ = nullptr;
    ++generation_;
  }
  wake_.notify_all();
  take(0);
  std::exception_ptr failure;
  {
    std::unique_lock<std::mutex> lock(m_);
    done_.wait(lock, [&] { return active_ == 0; });
    job_ = nullptr;
    failure = failure_;
    failure_ = nullptr;
  }
  if (failure) std::rethrow_exception(failure);
}

}  // namespace le::conv
