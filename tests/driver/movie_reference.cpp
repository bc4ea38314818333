#include "tests/driver/movie_reference.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tests/support/test_support.h"

extern "C" {
#include <libavformat/avformat.h>
}

namespace le::test {

namespace {

uint8_t clip255(int v) { return static_cast<uint8_t>(v < 0 ? 0 : v > 255 ? 255 : v); }

// The binary16 pattern of x through the compiler's own half type, which
// rounds to nearest, ties to even.
uint16_t halfBits(float x) {
  const auto h = static_cast<_Float16>(x);
  uint16_t bits;
  std::memcpy(&bits, &h, 2);
  return bits;
}

uint16_t priorLevel(int t) {
  // t as an unsigned 32-bit value: above 511 (every negative too) gives 0,
  // 255 to 511 give 255.
  const auto u = static_cast<uint32_t>(t);
  const uint32_t level = u > 511 ? 0 : u >= 255 ? 255 : u;
  return halfBits(static_cast<float>(level) / 255.0f);
}

}  // namespace

std::vector<std::vector<uint8_t>> referenceDriverFrames(const std::string& yuv, int w, int h) {
  const std::string raw = readFile(yuv);
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  const std::size_t frame = static_cast<std::size_t>(w * h + 2 * cw * ch);
  if (raw.size() % frame != 0) throw std::runtime_error("test: " + yuv + " is not whole frames");
  std::vector<std::vector<uint8_t>> out;
  for (std::size_t at = 0; at < raw.size(); at += frame) {
    const auto* Y = reinterpret_cast<const uint8_t*>(raw.data() + at);
    const uint8_t* U = Y + w * h;
    const uint8_t* V = U + cw * ch;
    std::vector<uint8_t> rgb(static_cast<std::size_t>(w * h * 3));
    for (int y = 0; y < h; ++y) {
      for (int x = 0; x < w; ++x) {
        const int c = 298 * Y[y * w + x] - 4640;
        const int d = U[(y / 2) * cw + x / 2] - 128;
        const int e = V[(y / 2) * cw + x / 2] - 128;
        uint8_t* p = &rgb[static_cast<std::size_t>((y * w + x) * 3)];
        p[0] = clip255((c + 409 * e) >> 8);
        p[1] = clip255((c - 100 * d - 208 * e) >> 8);
        p[2] = clip255((c + 516 * d) >> 8);
      }
    }
    out.push_back(std::move(rgb));
  }
  return out;
}

void referencePriorPixel(int y, int u, int v, uint16_t rgb[3]) {
  const int base = (y - 16) * 76312 + 32768;
  rgb[0] = priorLevel((base + (v - 128) * 104600) >> 16);
  rgb[1] = priorLevel((base - (u - 128) * 25672 - (v - 128) * 53280) >> 16);
  rgb[2] = priorLevel((base + (u - 128) * 132200) >> 16);
}

std::vector<std::vector<uint8_t>> referencePriorFrames(const std::string& yuv, int crop, int bits) {
  const std::string raw = readFile(yuv);
  const std::size_t n = static_cast<std::size_t>(crop) * static_cast<std::size_t>(crop);
  const std::size_t sample = bits > 8 ? 2 : 1;
  const std::size_t frame = 3 * n * sample;
  if (raw.size() % frame != 0) throw std::runtime_error("test: " + yuv + " is not whole frames");
  const auto at = [&](std::size_t f, int plane, std::size_t i) {
    const std::size_t o = f * frame + (static_cast<std::size_t>(plane) * n + i) * sample;
    if (sample == 1) return static_cast<int>(static_cast<uint8_t>(raw[o]));
    const int word = static_cast<uint8_t>(raw[o]) | static_cast<uint8_t>(raw[o + 1]) << 8;
    return word >> (bits - 8);
  };
  std::vector<std::vector<uint8_t>> out;
  for (std::size_t f = 0; f < raw.size() / frame; ++f) {
    std::vector<uint16_t> halves(3 * n);
    for (std::size_t i = 0; i < n; ++i) {
      uint16_t rgb[3];
      referencePriorPixel(at(f, 0, i), at(f, 1, i), at(f, 2, i), rgb);
      for (int c = 0; c < 3; ++c) halves[static_cast<std::size_t>(c) * n + i] = rgb[c];
    }
    std::vector<uint8_t> bytes(halves.size() * 2);
    std::memcpy(bytes.data(), halves.data(), bytes.size());
    out.push_back(std::move(bytes));
  }
  return out;
}

std::vector<int64_t> storedPresentationTimes(const std::string& movie) {
  AVFormatContext* f = nullptr;
  if (avformat_open_input(&f, movie.c_str(), nullptr, nullptr) < 0) throw std::runtime_error("test: open " + movie);
  std::vector<int64_t> pts;
  AVPacket* p = av_packet_alloc();
  const int stream = av_find_best_stream(f, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
  while (av_read_frame(f, p) >= 0) {
    if (p->stream_index == stream) pts.push_back(p->pts);
    av_packet_unref(p);
  }
  av_packet_free(&p);
  avformat_close_input(&f);
  return pts;
}

}  // namespace le::test
