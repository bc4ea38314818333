// One batch run: the deltas of the whole clip, the row tables, then two
// threads through a ring of 4 crops. The render thread renders row after
// row and copies each crop into the ring (the renderer reuses its output
// buffer); the calling thread pastes each crop into its driver frame and
// hands the frame to the callback. A failure on either side ends both, and
// neither ever waits for the other after it.
#include <array>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_fca.h"
#include "session/stream.h"

namespace {

constexpr int kKp = 63;
constexpr int kRing = 4;

struct Ring {
  std::array<std::vector<float>, kRing> slots;
  int produced = 0, consumed = 0;
  bool done = false;
  bool failed = false;  // under mu, so that no wait misses it
  std::mutex mu;
  std::condition_variable data, space;

  void fail() {
    {
      std::lock_guard<std::mutex> lock(mu);
      failed = true;
    }
    data.notify_all();
    space.notify_all();
  }
};

// Leaving the run by an exception stops the render thread and joins it; the
// normal way out has joined it already.
struct Joiner {
  std::thread& t;
  Ring& ring;
  ~Joiner() {
    if (!t.joinable()) return;
    ring.fail();
    t.join();
  }
};

}  // namespace

int le_stream::run(const float* pcm, int n, le_stream_frame_cb callback, void* user, std::string* refusal) {
  const int frames = static_cast<int>((static_cast<int64_t>(n) + 639) / 640);
  std::vector<float> deltas(static_cast<size_t>(frames) * kKp);
  if (le_fca_deltas(fca, pcm, n, deltas.data(), frames) != frames) {
    *refusal = std::string("le_fca_deltas: ") + le_fca_last_error();
    return -1;
  }
  const int outFrames = frames - lag;
  if (outFrames < 1) return 0;

  // Rows: the source frames walk on through the lag.
  std::vector<int> rowSi(static_cast<size_t>(outFrames));
  std::vector<float> rowKd(static_cast<size_t>(outFrames) * kKp);
  for (int j = 0, si = 0; j < frames; ++j) {
    if (j >= lag) {
      const size_t k = static_cast<size_t>(j - lag);
      rowSi[k] = si;
      const float* ks = xs_target.data() + static_cast<size_t>(si) * kKp;
      const float* d = deltas.data() + static_cast<size_t>(j) * kKp;
      for (int i = 0; i < kKp; ++i) {
        const float moved = gain * d[i];
        rowKd[k * kKp + static_cast<size_t>(i)] = ks[i] + moved;
      }
    }
    si = nt < 2 ? 0 : (si + 1) % nt;
  }

  Ring ring;
  const size_t cropFloats = static_cast<size_t>(crop) * static_cast<size_t>(crop) * 3;
  for (auto& s : ring.slots) s.resize(cropFloats);
  std::vector<uint8_t> frame(static_cast<size_t>(w) * static_cast<size_t>(h) * 3);

  std::thread render([&] {
    for (int k = 0; k < outFrames; ++k) {
      const int si = rowSi[static_cast<size_t>(k)];
      const float* out = le_render_kp_crop(ctx, si, xs_target.data() + static_cast<size_t>(si) * kKp,
                                           rowKd.data() + static_cast<size_t>(k) * kKp);
      if (!out) {
        ring.fail();
        break;
      }
      int slot;
      {
        std::unique_lock<std::mutex> lock(ring.mu);
        ring.space.wait(lock, [&] { return ring.produced - ring.consumed < kRing || ring.failed; });
        if (ring.failed) break;
        slot = ring.produced % kRing;
      }
      // The consumer is reading another slot, or none: this one is free.
      std::memcpy(ring.slots[static_cast<size_t>(slot)].data(), out, cropFloats * sizeof(float));
      {
        std::lock_guard<std::mutex> lock(ring.mu);
        ++ring.produced;
      }
      ring.data.notify_one();
    }
    {
      std::lock_guard<std::mutex> lock(ring.mu);
      ring.done = true;
    }
    ring.data.notify_all();
  });
  Joiner joiner{render, ring};

  int count = 0;
  for (int i = 0; i < outFrames; ++i) {
    int slot;
    {
      std::unique_lock<std::mutex> lock(ring.mu);
      ring.data.wait(lock, [&] { return ring.produced > ring.consumed || ring.done || ring.failed; });
      if (ring.failed || (ring.consumed == ring.produced && ring.done)) break;
      slot = ring.consumed % kRing;
    }
    if (!le_paste_crop(ctx, rowSi[static_cast<size_t>(i)], ring.slots[static_cast<size_t>(slot)].data(), frame.data(),
                       frame.size())) {
      ring.fail();
      break;
    }
    {
      std::lock_guard<std::mutex> lock(ring.mu);
      ++ring.consumed;
    }
    ring.space.notify_one();
    if (callback) callback(user, i, frame.data(), w, h);
    ++count;
  }
  render.join();
  if (ring.failed) {
    *refusal = "le_stream_run: render/paste failed";
    return -1;
  }
  return count;
}
