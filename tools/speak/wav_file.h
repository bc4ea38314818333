// Writes 16 kHz mono 16-bit samples as a plain WAV file (44-byte header).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::speak {

// Throws a sentence naming the file on failure.
void writeWav16k(const std::string& path, const std::vector<int16_t>& pcm);

}  // namespace le::speak
