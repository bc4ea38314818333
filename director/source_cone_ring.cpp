#include "director/source_cone_ring.h"

#include <stdexcept>
#include <system_error>

namespace le {

SourceConeRing::SourceConeRing(size_t elems, const std::vector<int64_t>& shape, Prep prep) : prep_(std::move(prep)) {
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  ring_.reserve(2);
  for (int i = 0; i < 2; ++i) {
    auto slot = std::make_unique<Slot>();
    slot->data.assign(elems, 0.0f);
    slot->value = Ort::Value::CreateTensor<float>(mem, slot->data.data(), elems, shape.data(), shape.size());
    ring_.push_back(std::move(slot));
  }
  try {
    thread_ = std::thread([this] { worker(); });
  } catch (const std::system_error& e) {
    throw std::system_error(e.code(), "thread constructor failed");
  }
}

SourceConeRing::~SourceConeRing() {
  {
    std::lock_guard<std::mutex> lock(m_);
    stop_ = true;
  }
  cv_.notify_all();
  if (thread_.joinable()) thread_.join();
}

SourceConeRing::Slot& SourceConeRing::acquire(int si) {
  std::unique_lock<std::mutex> lock(m_);
  slotInUse_ = -1;
  for (;;) {
    if (!prepError_.empty())
      throw std::runtime_error("Renderer: the hoisted source cone failed in ORT — " + prepError_);
    for (size_t i = 0; i < ring_.size(); ++i)
      if (ring_[i]->si == si) {
        slotInUse_ = static_cast<int>(i);
        return *ring_[i];
      }
    if (pendingSi_ < 0) {
      int free = -1;
      for (size_t i = 0; i < ring_.size() && free < 0; ++i)
        if (static_cast<int>(i) != slotInUse_) free = static_cast<int>(i);
      if (free < 0) throw std::runtime_error("Renderer: source-cone ring exhausted");
      ring_[static_cast<size_t>(free)]->si = -1;
      runPrepL(si, free, lock);
    } else {
      // The worker may be computing this very frame: wait rather than
      // compute it twice.
      cv_.wait(lock);
    }
  }
}

void SourceConeRing::hint(int si) {
  {
    std::lock_guard<std::mutex> lock(m_);
    if (pendingSi_ >= 0 || !prepError_.empty()) return;
    int free = -1;
    for (size_t i = 0; i < ring_.size(); ++i) {
      if (ring_[i]->si == si) return;
      if (free < 0 && static_cast<int>(i) != slotInUse_) free = static_cast<int>(i);
    }
    if (free < 0) return;
    // Never the slot the current frame reads.
    ring_[static_cast<size_t>(free)]->si = -1;
    pendingSi_ = si;
    pendingSlot_ = free;
  }
  cv_.notify_all();
}

uint64_t SourceConeRing::prepRuns() const {
  std::lock_guard<std::mutex> lock(m_);
  return prepRuns_;
}

void SourceConeRing::worker() {
  std::unique_lock<std::mutex> lock(m_);
  for (;;) {
    cv_.wait(lock, [this] { return pendingSi_ >= 0 || stop_; });
    if (stop_) return;
    runPrepL(pendingSi_, pendingSlot_, lock);
    pendingSi_ = -1;
    pendingSlot_ = -1;
    cv_.notify_all();
  }
}

void SourceConeRing::runPrepL(int si, int slot, std::unique_lock<std::mutex>& lock) {
  Slot& s = *ring_[static_cast<size_t>(slot)];
  ++prepRuns_;
  lock.unlock();
  std::string error;
  try {
    prep_(si, s);
  } catch (const std::exception& e) {
    error = e.what();
    if (error.empty()) error = "no reason given";
  }
  lock.lock();
  if (error.empty())
    s.si = si;
  else if (prepError_.empty())
    prepError_ = error;
}

int SourceWalk::next(int si, int n) {
  const int last = lastSi;
  lastSi = si;
  if (n < 2) return si;
  if (si == 0 && last == n - 1) looped = true;
  if (last >= 0 && (si - last == 1 || si - last == -1)) walkDir = si - last;
  int next = si + walkDir;
  if (looped) return ((next % n) + n) % n;
  if (next >= n) next = n - 2;
  if (next < 0) next = 1;
  if (next >= n) next = n - 1;
  return next;
}

}  // namespace le
