// Independent expectations for the movie sources: ffmpeg's own decode of a
// generated movie (raw planes, written by tools/gen/movie_data.py), turned
// into frames by plain scalar code written from the conversions' definitions.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::test {

// The frames of a raw yuv420p file of w x h, converted to RGB24 with the
// limited-range BT.601 integer formula: c = 298 Y - 4640,
// R = (c + 409 E) >> 8, G = (c - 100 D - 208 E) >> 8, B = (c + 516 D) >> 8,
// clipped to 0..255, with D, E the chroma of the pixel's 2x2 block minus 128.
std::vector<std::vector<uint8_t>> referenceDriverFrames(const std::string& yuv, int w, int h);

// The frames of a raw yuv444p (bits 8) or yuv444p10le (bits 10, the top 8
// bits taken) file of crop x crop, converted to three planes of halves R, G,
// B with the prior's integer formula and a table of i / 255 rounded to half.
std::vector<std::vector<uint8_t>> referencePriorFrames(const std::string& yuv, int crop, int bits);

// The prior's conversion of one pixel, as three half patterns.
void referencePriorPixel(int y, int u, int v, uint16_t rgb[3]);

// The decoder thread counts the sources are checked at: 1 and 2, or only 1
// in a ThreadSanitizer build, which can't see FFmpeg's frame threads hand
// frames over (through atomics inside the uninstrumented libavcodec).
inline std::vector<int> decoderThreadCounts() {
#if defined(__SANITIZE_THREAD__)
  return {1};
#else
  return {1, 2};
#endif
}

// Presentation times of a movie's first video stream in stored order, read
// with libavformat.
std::vector<int64_t> storedPresentationTimes(const std::string& movie);

}  // namespace le::test
