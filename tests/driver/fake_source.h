// A Source for the cursor tests: frame i is frameBytes() bytes whose first
// four hold i and whose rest is a pattern of i. The test keeps a handle on
// the shared state to watch the decoder and to steer it: hold it inside
// next() at one frame, make the member short, or make a frame or a seek
// fail.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/source.h"

namespace le::test {

struct FakeState {
  std::mutex m;
  std::condition_variable cv;
  int gate = -1;        // next() for this frame waits until the gate is opened
  bool in_gate = false;  // the decoder is waiting at the gate
  int present = -1;     // frames the member really has; -1 = NT
  int fail_at = -1;     // next() for this frame throws "boom at <i>"
  bool seek_fails = false;
  std::vector<int> decoded;  // every frame next() produced, dropped ones too
  int rewinds = 0;
  std::vector<int> seeks;

  void openGate() {
    std::lock_guard<std::mutex> lk(m);
    gate = -1;
    cv.notify_all();
  }
  void waitInGate() {
    std::unique_lock<std::mutex> lk(m);
    cv.wait(lk, [&] { return in_gate; });
  }
};

inline void fillFrame(uint8_t* dst, std::size_t bytes, int i) {
  for (std::size_t k = 0; k < bytes; ++k) dst[k] = static_cast<uint8_t>(i * 31 + k * 7);
  const int32_t v = i;
  std::memcpy(dst, &v, sizeof v);
}

inline int frameId(const uint8_t* frame) {
  int32_t v;
  std::memcpy(&v, frame, sizeof v);
  return v;
}

// True if the frame is exactly what fillFrame writes for i.
inline bool frameIs(const uint8_t* frame, std::size_t bytes, int i) {
  std::vector<uint8_t> want(bytes);
  fillFrame(want.data(), bytes, i);
  return std::memcmp(frame, want.data(), bytes) == 0;
}

class FakeSource final : public driver::Source {
 public:
  FakeSource(int nt, int w, int h, std::shared_ptr<FakeState> state) : nt_(nt), w_(w), h_(h), s_(std::move(state)) {}
  int32_t NT() const override { return nt_; }
  int32_t W() const override { return w_; }
  int32_t H() const override { return h_; }
  bool next(uint8_t* dst) override {
    std::unique_lock<std::mutex> lk(s_->m);
    const int limit = s_->present < 0 ? nt_ : s_->present;
    if (pos_ >= limit) return false;
    if (s_->gate == pos_) {
      s_->in_gate = true;
      s_->cv.notify_all();
      s_->cv.wait(lk, [&] { return s_->gate != pos_; });
      s_->in_gate = false;
    }
    if (s_->fail_at == pos_) throw std::runtime_error("boom at " + std::to_string(pos_));
    s_->decoded.push_back(pos_);
    lk.unlock();
    fillFrame(dst, frameBytes(), pos_);
    ++pos_;
    return true;
  }
  void rewind() override {
    std::lock_guard<std::mutex> lk(s_->m);
    ++s_->rewinds;
    pos_ = 0;
  }
  void seek(int32_t i) override {
    std::lock_guard<std::mutex> lk(s_->m);
    if (s_->seek_fails) throw std::runtime_error("no seeking here");
    s_->seeks.push_back(i);
    pos_ = i;
  }
  std::string name() const override { return "fake"; }
  std::size_t residentBytes() const override { return 1000; }

 private:
  int nt_, w_, h_;
  int pos_ = 0;
  std::shared_ptr<FakeState> s_;
};

}  // namespace le::test
