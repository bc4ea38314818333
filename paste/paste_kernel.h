// The paste's row kernels, dispatched at run time like every vector kernel.
// Each computes its elements with the same operations in the same order on
// every target: products rounded before they are added, sums in ascending
// tap order starting from 0.
#pragma once

#include <cstdint>

namespace le::simd {

// The most lanes of any compiled target's float vector (AVX2: 8). Row
// buffers that a kernel may write or read whole vectors past the end of
// carry this many spare floats.
constexpr int kPasteSlack = 16;

// Horizontal Gaussian of one plane row, reflect-101 at the crop's edges:
// out[t] = sum over i ascending of g[i] * (src[reflect101(xa + t - ksize/2 + i)] * scale)
// for t in [0, n). src is one row of `side` floats; ksize/2 < side. out
// receives n floats rounded up to whole vectors (kPasteSlack spare);
// scratch holds n + ksize - 1 + kPasteSlack floats.
void unsharpRowH(const float* src, int side, float scale, const float* g, int ksize, int xa, int n,
                 float* scratch, float* out);

// Vertical Gaussian and unsharp of one row: acc = sum over i ascending of
// g[i] * rows[i][t], then out[t] = clip((src[t] * scale) * keep - acc * amount)
// to [0, 255], NaN as 0, for t in [0, n). rows[i] may be read to n rounded up
// to whole vectors; src and out exactly to n.
void unsharpRowV(const float* const* rows, const float* g, int ksize, const float* src, float scale, float keep,
                 float amount, int n, float* out);

// The warp's pixels of 4 floats (R, G, B, 0) for t in [0, n), each written
// twice: to first + 8t and to second + 8t (the two halves of pair-rows, see
// WarpSource).
void interleaveRgbx(const float* r, const float* g, const float* b, int n, float* first, float* second);

// What the warp reads, laid out so that no tap needs a bounds test.
struct WarpSource {
  // The sharpened crop in pair-rows: pair-row y holds, pixel by pixel, the
  // 4 floats (R, G, B, 0) of row y and then those of row y + 1, so that one
  // vector of 8 carries two rows of a tap. rgbx points at pixel (0, 0) of a
  // buffer with a zero border of 4 pixels on every side; pair-rows are
  // `stride` pixels of 8 floats apart.
  const float* rgbx;
  int stride;
  int side;
  // The mask, pointing at pixel (-1, -1) of a copy with a zero border of
  // one pixel; rows side + 2 bytes apart, 4 spare bytes at the end.
  const std::uint8_t* mask;
  const float* lanc;  // 32 phases x 8 taps
};

// One frame row of the reference paste: for x in [x0, x1], the source
// position X = X0 + adelta[x - x0], Y = Y0 + bdelta[x - x0] (1/1024 pixel,
// 32-bit wrapping sums), the mask weight rounded to 8 bits (with the bilinear
// weights f/32 and 1 - f/32 of phase f, exact in float, as the table holds
// them), the 8x8 Lanczos sample (row sums then column sum in ascending tap
// order; taps on the zero border add exactly nothing) and the truncating
// blend into dstRow[3x .. 3x+2]. Pixels out of reach or under a zero weight
// keep their bytes. adelta and bdelta hold kPasteSlack readable entries past
// x1 - x0.
void pasteLanczos8Row(const WarpSource& src, const int* adelta, const int* bdelta, int X0, int Y0, int x0, int x1,
                      std::uint8_t* dstRow);

}  // namespace le::simd
