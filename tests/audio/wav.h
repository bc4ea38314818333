// Reading the generated speech clips: 16 kHz mono 16-bit PCM WAV. Shared by
// the speech and session tests and the benchmarks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::test {

// The samples as floats in [-1, 1); throws for anything but 16 kHz mono
// 16-bit PCM.
std::vector<float> readWav(const std::string& path);

// The same samples as they are stored.
std::vector<int16_t> readWav16(const std::string& path);

}  // namespace le::test
