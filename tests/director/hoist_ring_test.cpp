// The ring of the source-cone hoist with a prep of the test's own: the order
// of preps and the threads they run on, a source frame that changes
// mid-stream, the frame being computed asked for again, destruction while a
// prefetch runs, the sticky error, and the walk that predicts the next frame.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "director/source_cone_ring.h"
#if LE_COUNT_ALLOCS
#include "tests/driver/malloc_counter.h"
#endif

namespace {

using le::SourceConeRing;

constexpr size_t kElems = 64;

// A prep that writes si into every element, records what it did, and can be
// held at its start until the test lets it go.
class FakePrep {
 public:
  struct Run {
    int si;
    const SourceConeRing::Slot* slot;
    std::thread::id thread;
  };

  SourceConeRing::Prep fn() {
    return [this](int si, SourceConeRing::Slot& slot) {
      std::unique_lock<std::mutex> lock(m_);
      runs_.push_back({si, &slot, std::this_thread::get_id()});
      // The slot the current frame reads is never written.
      if (&slot == inUse_) overwroteInUse_ = true;
      started_ = true;
      cv_.notify_all();
      cv_.wait(lock, [this] { return !held_; });
      if (si == failOn_) throw std::runtime_error("the prep of frame " + std::to_string(si) + " failed");
      lock.unlock();
      for (float& v : slot.data) v = static_cast<float>(si);
    };
  }

  void hold() {
    std::lock_guard<std::mutex> lock(m_);
    held_ = true;
    started_ = false;
  }
  void release() {
    {
      std::lock_guard<std::mutex> lock(m_);
      held_ = false;
    }
    cv_.notify_all();
  }
  void waitStarted() {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait(lock, [this] { return started_; });
  }
  void failOn(int si) {
    std::lock_guard<std::mutex> lock(m_);
    failOn_ = si;
  }
  // What acquire returned last, for the check above.
  void inUse(const SourceConeRing::Slot* slot) {
    std::lock_guard<std::mutex> lock(m_);
    inUse_ = slot;
  }
  std::vector<Run> runs() {
    std::lock_guard<std::mutex> lock(m_);
    return runs_;
  }
  std::vector<int> order() {
    std::vector<int> sis;
    for (const Run& r : runs()) sis.push_back(r.si);
    return sis;
  }
  bool overwroteInUse() {
    std::lock_guard<std::mutex> lock(m_);
    return overwroteInUse_;
  }

 private:
  std::mutex m_;
  std::condition_variable cv_;
  std::vector<Run> runs_;
  const SourceConeRing::Slot* inUse_ = nullptr;
  bool held_ = false, started_ = false, overwroteInUse_ = false;
  int failOn_ = -1;
};

std::unique_ptr<SourceConeRing> makeRing(FakePrep& prep) {
  return std::make_unique<SourceConeRing>(kElems, std::vector<int64_t>{1, 1, 8, 8}, prep.fn());
}

// acquire, checked: the slot holds si in full. The frame before is over by
// then, and its slot free again.
const SourceConeRing::Slot& take(SourceConeRing& ring, FakePrep& prep, int si) {
  prep.inUse(nullptr);
  const SourceConeRing::Slot& slot = ring.acquire(si);
  prep.inUse(&slot);
  EXPECT_EQ(slot.si, si);
  EXPECT_EQ(slot.data, std::vector<float>(kElems, static_cast<float>(si)));
  EXPECT_EQ(slot.value.GetTensorData<float>(), slot.data.data());
  return slot;
}

TEST(HoistRing, TheFirstFrameIsPreparedInlineAndTheNextOnesAhead) {
  FakePrep prep;
  auto ring = makeRing(prep);
  const auto caller = std::this_thread::get_id();
  const SourceConeRing::Slot* a = &take(*ring, prep, 0);
  ring->hint(1);
  const SourceConeRing::Slot* b = &take(*ring, prep, 1);
  EXPECT_NE(a, b);
  ring->hint(2);
  EXPECT_EQ(&take(*ring, prep, 2), a);  // the slot frame 1 was not read from
  // Frame 1 is still held: asked for again, or hinted, nothing runs.
  ring->hint(1);
  EXPECT_EQ(&take(*ring, prep, 1), b);
  EXPECT_EQ(&take(*ring, prep, 1), b);
  EXPECT_EQ(prep.order(), (std::vector<int>{0, 1, 2}));
  EXPECT_EQ(ring->prepRuns(), 3u);
  const std::vector<FakePrep::Run> runs = prep.runs();
  EXPECT_EQ(runs[0].thread, caller);
  EXPECT_NE(runs[1].thread, caller);
  EXPECT_EQ(runs[2].thread, runs[1].thread);
  EXPECT_FALSE(prep.overwroteInUse());
}

TEST(HoistRing, AFrameBeingPreparedIsWaitedForNotPreparedTwice) {
  FakePrep prep;
  auto ring = makeRing(prep);
  take(*ring, prep, 0);
  prep.hold();
  ring->hint(3);
  prep.waitStarted();
  // A second hint while one is pending is dropped.
  ring->hint(4);
  std::thread letGo([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    prep.release();
  });
  take(*ring, prep, 3);
  letGo.join();
  EXPECT_EQ(prep.order(), (std::vector<int>{0, 3}));
}

TEST(HoistRing, ASourceFrameThatChangesMidStream) {
  FakePrep prep;
  auto ring = makeRing(prep);
  take(*ring, prep, 0);
  ring->hint(1);
  // The stream jumps elsewhere while frame 1 is prefetched: the prefetch
  // finishes into its own slot, and 7 is prepared inline in the other.
  take(*ring, prep, 7);
  EXPECT_EQ(prep.order(), (std::vector<int>{0, 1, 7}));
  // 1 was kept; going back to it costs nothing.
  take(*ring, prep, 1);
  EXPECT_EQ(ring->prepRuns(), 3u);
  // A hint that comes true and one that doesn't.
  ring->hint(2);
  take(*ring, prep, 2);
  ring->hint(3);
  take(*ring, prep, 5);
  EXPECT_EQ(prep.order(), (std::vector<int>{0, 1, 7, 2, 3, 5}));
  EXPECT_FALSE(prep.overwroteInUse());
}

TEST(HoistRing, DestructionWaitsForThePrefetchItInterrupts) {
  FakePrep prep;
  auto ring = makeRing(prep);
  take(*ring, prep, 0);
  prep.hold();
  ring->hint(1);
  prep.waitStarted();
  std::atomic<bool> destroyed{false};
  std::thread destroyer([&] {
    ring.reset();
    destroyed = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(30));
  EXPECT_FALSE(destroyed.load());
  prep.release();
  destroyer.join();
  EXPECT_TRUE(destroyed.load());
  // With a prefetch asked for and not begun, and with none at all.
  for (const bool hinted : {true, false}) {
    FakePrep quick;
    auto r = makeRing(quick);
    take(*r, quick, 4);
    if (hinted) r->hint(5);
    r.reset();
  }
}

TEST(HoistRing, AFailedPrepIsStickyAndStopsTheHints) {
  const std::string error = "Renderer: the hoisted source cone failed in ORT — the prep of frame 2 failed";
  FakePrep prep;
  auto ring = makeRing(prep);
  take(*ring, prep, 0);
  prep.failOn(2);
  ring->hint(2);
  for (const int si : {2, 0, 1}) {
    try {
      ring->acquire(si);
      ADD_FAILURE() << "frame " << si << " was served";
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(e.what(), error);
    }
  }
  ring->hint(3);
  EXPECT_EQ(prep.order(), (std::vector<int>{0, 2}));
  // Inline, on the caller's thread, the same.
  FakePrep inlinePrep;
  inlinePrep.failOn(6);
  auto other = makeRing(inlinePrep);
  EXPECT_THROW(other->acquire(6), std::runtime_error);
  EXPECT_THROW(other->acquire(0), std::runtime_error);
}

#if LE_COUNT_ALLOCS
// A frame of a hoisting renderer asks the ring for its slot and hints the
// next: neither allocates, on the caller's thread or on the worker.
TEST(HoistRing, TheFramePathAllocatesNothing) {
  SourceConeRing ring(kElems, {1, 1, 8, 8}, [](int si, SourceConeRing::Slot& slot) {
    for (float& v : slot.data) v = static_cast<float>(si);
  });
  le::SourceWalk walk;
  auto frame = [&](int si) {
    const SourceConeRing::Slot& slot = ring.acquire(si);
    EXPECT_EQ(slot.data[0], static_cast<float>(si));
    ring.hint(walk.next(si, 5));
  };
  frame(0);
  const uint64_t before = le::test::allocationCount();
  // Walks both ways, turns and jumps: prefetches that come true, and misses
  // prepared inline.
  const int sis[] = {1, 2, 3, 4, 3, 2, 1, 0, 2, 4, 1, 3, 0};
  for (int round = 0; round < 5; ++round)
    for (const int si : sis) frame(si);
  EXPECT_EQ(le::test::allocationCount() - before, 0u);
  EXPECT_GT(ring.prepRuns(), 40u);
}
#endif

TEST(HoistWalk, PredictsTheNextSourceFrame) {
  auto walk = [](std::initializer_list<int> sis, int n) {
    le::SourceWalk w;
    int next = -1;
    for (int si : sis) next = w.next(si, n);
    return next;
  };
  EXPECT_EQ(walk({0}, 4), 1);
  EXPECT_EQ(walk({0, 1, 2}, 3), 1);     // the walk turns back at the end
  EXPECT_EQ(walk({2, 1, 0}, 3), 1);     // and at the start
  EXPECT_EQ(walk({3, 2}, 5), 1);        // it goes on backwards
  EXPECT_EQ(walk({0, 1, 7}, 9), 8);     // a jump keeps the direction
  EXPECT_EQ(walk({4, 3, 7}, 9), 6);
  EXPECT_EQ(walk({2, 3, 0}, 4), 1);     // having wrapped, it wraps
  EXPECT_EQ(walk({2, 3, 0, 1, 2, 3}, 4), 0);
  EXPECT_EQ(walk({3, 0, 3}, 4), 0);     // looped is sticky; the jump kept +1
  EXPECT_EQ(walk({0, 0}, 4), 1);
  EXPECT_EQ(walk({0}, 1), 0);           // a single frame predicts itself
  EXPECT_EQ(walk({1, 0}, 2), 1);
}

}  // namespace
