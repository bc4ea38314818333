#include "tests/audio/wav.h"

#include <cstdint>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace le::test {

namespace {

uint32_t u32(const std::string& s, size_t at) {
  uint32_t v;
  std::memcpy(&v, s.data() + at, 4);
  return v;
}

uint16_t u16(const std::string& s, size_t at) {
  uint16_t v;
  std::memcpy(&v, s.data() + at, 2);
  return v;
}

}  // namespace

std::vector<int16_t> readWav16(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  std::ostringstream ss;
  ss << in.rdbuf();
  const std::string b = ss.str();
  if (b.size() < 12 || b.compare(0, 4, "RIFF") != 0 || b.compare(8, 4, "WAVE") != 0)
    throw std::runtime_error("not a WAV file: " + path);
  bool format = false;
  for (size_t at = 12; at + 8 <= b.size();) {
    const std::string id = b.substr(at, 4);
    const size_t size = u32(b, at + 4), body = at + 8;
    if (body + size > b.size()) break;
    if (id == "fmt ") {
      if (u16(b, body) != 1 || u16(b, body + 2) != 1 || u32(b, body + 4) != 16000 || u16(b, body + 14) != 16)
        throw std::runtime_error("not 16 kHz mono 16-bit PCM: " + path);
      format = true;
    } else if (id == "data" && format) {
      std::vector<int16_t> pcm(size / 2);
      if (!pcm.empty()) std::memcpy(pcm.data(), b.data() + body, pcm.size() * 2);
      return pcm;
    }
    at = body + size + (size & 1);
  }
  throw std::runtime_error("no PCM data in " + path);
}

std::vector<float> readWav(const std::string& path) {
  const std::vector<int16_t> samples = readWav16(path);
  std::vector<float> pcm(samples.size());
  for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<float>(samples[i]) / 32768.0f;
  return pcm;
}

}  // namespace le::test
