#include "tools/speak/wav_file.h"

#include <cstdio>
#include <stdexcept>

namespace le::speak {

void writeWav16k(const std::string& path, const std::vector<int16_t>& pcm) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) throw std::runtime_error("cannot write " + path);
  auto put32 = [&](uint32_t v) { std::fwrite(&v, 4, 1, f); };
  auto put16 = [&](uint16_t v) { std::fwrite(&v, 2, 1, f); };
  const uint32_t bytes = static_cast<uint32_t>(pcm.size() * 2);
  std::fwrite("RIFF", 1, 4, f);
  put32(36 + bytes);
  std::fwrite("WAVEfmt ", 1, 8, f);
  put32(16);       // fmt chunk size
  put16(1);        // PCM
  put16(1);        // mono
  put32(16000);    // sample rate
  put32(32000);    // bytes per second
  put16(2);        // block align
  put16(16);       // bits per sample
  std::fwrite("data", 1, 4, f);
  put32(bytes);
  const size_t wrote = std::fwrite(pcm.data(), 2, pcm.size(), f);
  if (std::fclose(f) != 0 || wrote != pcm.size()) throw std::runtime_error("cannot write " + path);
}

}  // namespace le::speak
