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

}  // namespace le::test
