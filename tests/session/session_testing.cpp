#include "tests/session/session_testing.h"

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <thread>

#include "tests/support/test_support.h"

namespace le::test {

void useGeneratedSpeechEncoder() {
  if (!std::getenv("W2V_ONNX")) setenv("W2V_ONNX", dataPath("audio/w2v/w2v.onnx").c_str(), 1);
}

std::vector<int16_t> clip(const std::string& name) {
  const std::string b = readFile(dataPath("audio/clips/" + name));
  // The generator writes a plain 44-byte header: RIFF, fmt of 16 bytes, data.
  if (b.size() < 44 || b.compare(0, 4, "RIFF") != 0 || b.compare(36, 4, "data") != 0)
    throw std::runtime_error("not a plain WAV file: " + name);
  std::vector<int16_t> pcm((b.size() - 44) / 2);
  std::memcpy(pcm.data(), b.data() + 44, pcm.size() * 2);
  return pcm;
}

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

}  // namespace le::test
