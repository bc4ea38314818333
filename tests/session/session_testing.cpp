#include "tests/session/session_testing.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include "tests/audio/wav.h"
#include "tests/support/test_support.h"

namespace le::test {

void useGeneratedSpeechEncoder() {
  if (!std::getenv("W2V_ONNX")) setenv("W2V_ONNX", dataPath("audio/w2v/w2v.onnx").c_str(), 1);
}

std::vector<int16_t> clip(const std::string& name) { return readWav16(dataPath("audio/clips/" + name)); }

std::vector<Frame> pullUntil(le_utt* utt, size_t frame_bytes, double deadline_ms,
                             const std::function<bool(const std::vector<Frame>&)>& done, bool keep_rgb) {
  std::vector<Frame> got;
  std::vector<uint8_t> rgb(frame_bytes);
  const auto t0 = std::chrono::steady_clock::now();
  while (!done(got)) {
    if (std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() > deadline_ms) break;
    Frame f{};
    if (le_utt_pull_frame(utt, rgb.data(), rgb.size(), &f.info) == 1) {
      if (keep_rgb) f.rgb = rgb;
      got.push_back(std::move(f));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  return got;
}

int waitReady(le_utt* utt, double deadline_ms) {
  const auto t0 = std::chrono::steady_clock::now();
  int r;
  while ((r = le_utt_ready(utt)) == 0 &&
         std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count() < deadline_ms)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  return r;
}

double nowMs() {
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int framesOf(size_t samples) { return static_cast<int>((samples + 639) / 640); }

bool backToIdleAfterRamp(const std::vector<Frame>& f) {
  bool ramp = false;
  for (const Frame& x : f) {
    if (x.info.type == 2) ramp = true;
    if (ramp && x.info.type == 0) return true;
  }
  return false;
}

LiveSession::LiveSession(const std::string& bundle, le_utt_opts opts, const char* model) {
  useGeneratedSpeechEncoder();
  ctx = le_create(bundle.c_str(), model, 0, nullptr);
  if (!ctx) {
    ADD_FAILURE() << le_last_error();
    return;
  }
  const std::string dir = opts.motion_dir ? opts.motion_dir : bundle;
  opts.motion_dir = dir.c_str();
  utt = le_utt_create(ctx, &opts);
  if (!utt) ADD_FAILURE() << le_utt_last_error();
  W = le_width(ctx);
  H = le_height(ctx);
  bytes = static_cast<size_t>(W) * H * 3;
  nt = le_nt(ctx);
}

LiveSession::~LiveSession() {
  le_utt_destroy(utt);
  le_destroy(ctx);
}

void LiveSession::push(const std::vector<int16_t>& pcm) {
  ASSERT_EQ(le_utt_push_audio(utt, pcm.data(), static_cast<int>(pcm.size())), 1);
}

}  // namespace le::test
