// Helpers of the session tests: the generated speech encoder, clips, and a
// host that pulls frames with a deadline.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_utt.h"

namespace le::test {

// Points W2V_ONNX at the generated speech encoder (with its short-window
// pair beside it) unless the environment already names one.
void useGeneratedSpeechEncoder();

// Samples of a generated 16 kHz mono 16-bit WAV clip under data/audio/clips.
std::vector<int16_t> clip(const std::string& name);

struct Frame {
  le_utt_frame_info info;
  std::vector<uint8_t> rgb;
};

// Pulls frames until `done` says so (given every frame so far) or the
// deadline passes; sleeps a millisecond between empty pulls.
std::vector<Frame> pullUntil(le_utt* utt, size_t frame_bytes, double deadline_ms,
                             const std::function<bool(const std::vector<Frame>&)>& done, bool keep_rgb = false);

// Waits for le_utt_ready to leave 0; returns its last answer.
int waitReady(le_utt* utt, double deadline_ms = 60000.0);

// Milliseconds of the steady clock.
double nowMs();

// The frames (640 samples each at 16 kHz and 25 fps) that `samples` cover.
int framesOf(size_t samples);

// True once a ramp frame has been followed by an idle one: an utterance and
// its end have been delivered.
bool backToIdleAfterRamp(const std::vector<Frame>& f);

// A context and a live session on one bundle (the generated speech encoder,
// motion_dir the bundle unless opts name one), with the frame size at hand.
// A failure to open either is a test failure, and leaves the handle null.
struct LiveSession {
  le_ctx* ctx = nullptr;
  le_utt* utt = nullptr;
  size_t bytes = 0;
  int nt = 0, W = 0, H = 0;

  explicit LiveSession(const std::string& bundle, le_utt_opts opts = {}, const char* model = "b1_fp32");
  ~LiveSession();
  LiveSession(const LiveSession&) = delete;
  LiveSession& operator=(const LiveSession&) = delete;

  void push(const std::vector<int16_t>& pcm);
};

}  // namespace le::test
