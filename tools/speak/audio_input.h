// The speech le-speak sends: a sound file of any rate and channel count, or
// a text spoken by espeak-ng, as 16 kHz mono 16-bit samples.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::speak {

// Decodes any audio file FFmpeg can read and resamples it to 16 kHz mono
// with libswresample. Throws a sentence naming the file on failure.
std::vector<int16_t> readAudio16k(const std::string& path);

// Speaks text with espeak-ng into a temporary WAV and reads it back as
// above. Throws if espeak-ng is absent or fails.
std::vector<int16_t> speakText(const std::string& text, const std::string& voice);

}  // namespace le::speak
