// The engine's hand-written vector kernels, each behind one function that
// dispatches at run time to the copy compiled for the best target the
// processor supports. Every kernel has one defined result, bit for bit, on
// every target: products are rounded before they are added (never fused),
// sums run over ascending elements on one accumulator, and half precision is
// IEEE binary16 rounded to nearest, ties to even.
//
// Below, f16(x) rounds a float to binary16 (subnormals kept, overflow to
// infinity, a NaN stays a quiet NaN with its sign and top mantissa bits) and
// wide(h) widens one exactly.
#pragma once

#include <cstddef>
#include <cstdint>

namespace le::simd {

// Highway's name of the best target the processor supports (the lowest bit
// of hwy::SupportedTargets()), e.g. "AVX2"; "Unknown" for a bit without one.
const char* target();

// The Highway target bits this build has kernel copies for, and the bit of
// the copy that a call dispatches to now. For tests and benchmarks.
std::int64_t compiledTargets();
std::int64_t dispatchedTarget();
// Highway's name of one target bit, as target() spells it.
const char* targetName(std::int64_t bit);

// dst[i] = f16(src[i]).
void f32ToF16(const float* src, std::uint16_t* dst, std::size_t n);

// dst[i] = wide(src[i]).
void f16ToF32(const std::uint16_t* src, float* dst, std::size_t n);

// out[i] = wide(f16(a[i])) * b[i].
void roundF16Mul(const float* a, const float* b, float* out, std::size_t n);

// a and b hold three planes of n halves, w one plane. For ascending i:
// d[c] = |wide(f16(wide(a[c*n+i]) - wide(b[c*n+i])))|, s = (d[0] + d[1]) + d[2],
// m = wide(f16(s / 3)), acc += wide(f16(m * wide(w[i]))). Returns acc.
float retrieveTermPooled(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* w,
                         std::size_t n);

// As retrieveTermPooled over i in [i0, i1), with float weights and the term
// t = w[i] * m unrounded, or exactly 0 where w[i] is 0 whatever m holds.
float retrieveTermExactRange(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                             std::size_t n, std::size_t i0, std::size_t i1);
float retrieveTermExact(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                        std::size_t n);

// dst[c*stride + i] = f16(rgb[3*i + c] / 255.0f), plane after plane.
void rgb8ToPlanarF16(const std::uint8_t* rgb, std::uint16_t* dst, std::size_t stride,
                     std::size_t n);

// dst[3*i] = src[i] clamped to [0, 1] (NaN as 0), times 255, rounded to
// nearest, ties to even. The bytes between are not written.
void quantU8Strided3(const float* src, std::uint8_t* dst, std::size_t n);

// 3x3 convolution, stride 1, zero padding 1, of the output planes k in
// [lo, hi) with image k / cout and output channel k % cout. in is
// (batch, cin, H, W), weights (cout, cin, 3, 3), out (batch, cout, H, W).
// Each pixel sums, for ky, then kx, then ic ascending, over the taps inside
// the image only, and adds the bias last. Keeps a thread-local copy of the
// current image that grows and never shrinks.
void conv3x3Range(const float* in, int batch, int cin, int H, int W, const float* weights,
                  const float* bias, int cout, float* out, int lo, int hi);

// out[i] = a[i] * b[i] + c[i] on halves, fused: rounded once to binary16,
// to nearest with ties to even, subnormals kept, overflow to infinity, any
// NaN result the quiet NaN 0x7e00 (see half_arith.h for the arithmetic).
void fmaF16(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* c, std::uint16_t* out,
            std::size_t n);

// One row of limited-range BT.601 in integers: with Y = y[x],
// D = u[(x >> 1) * chromaStep] - 128, E = v[...] - 128, c = 298*Y - 4640,
// R = (c + 409*E) >> 8, G = (c - 100*D - 208*E) >> 8, B = (c + 516*D) >> 8,
// each clipped to [0, 255] and written as rgb[3x], rgb[3x+1], rgb[3x+2].
void yuv420RowToRgb24(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                      int width, int chromaStep, std::uint8_t* rgb);

}  // namespace le::simd
