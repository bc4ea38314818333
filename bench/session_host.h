// A live session as the benchmarks host it: a context and a session on one
// bundle (its own motion directory), warm and ready to pull, with a frame
// buffer of its own.
#pragma once

#include <chrono>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_utt.h"

namespace le::bench {

struct SessionHost {
  le_ctx* ctx = nullptr;
  le_utt* utt = nullptr;
  std::vector<uint8_t> rgb;

  // steady: the chunk renderer's model, or null for the session's default.
  explicit SessionHost(const std::string& bundle, const char* steady = nullptr) {
    ctx = le_create(bundle.c_str(), "b1_fp32", 0, nullptr);
    if (!ctx) throw std::runtime_error(le_last_error());
    le_utt_opts o{};
    o.motion_dir = bundle.c_str();
    o.steady_model = steady;
    utt = le_utt_create(ctx, &o);
    if (!utt) {
      const std::string why = le_utt_last_error();
      le_destroy(ctx);
      throw std::runtime_error(why);
    }
    rgb.resize(static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3);
    int r;
    while ((r = le_utt_ready(utt)) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    if (r < 0) {
      const std::string why = le_utt_last_error();
      le_utt_destroy(utt);
      le_destroy(ctx);
      throw std::runtime_error(why);
    }
  }
  ~SessionHost() {
    le_utt_destroy(utt);
    le_destroy(ctx);
  }
  SessionHost(const SessionHost&) = delete;
  SessionHost& operator=(const SessionHost&) = delete;

  int pull(le_utt_frame_info* info) { return le_utt_pull_frame(utt, rgb.data(), rgb.size(), info); }
};

}  // namespace le::bench
