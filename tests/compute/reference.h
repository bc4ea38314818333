// Plain scalar versions of the compute kernels, written from their
// definitions with no knowledge of the vector code: the half rounding works
// in double with nearbyint rather than on bits. The tests hold every kernel
// and every target against these; the kernel benchmark times them.
#pragma once

#include <cstddef>
#include <cstdint>

namespace le::test::ref {

// binary16 rounding to nearest even; a NaN keeps sign and top mantissa bits
// and becomes quiet.
std::uint16_t f16(float x);
// The same, but a NaN becomes infinity of its sign.
std::uint16_t f16NoNaN(float x);
// Exact widening; a NaN becomes quiet.
float wide(std::uint16_t h);

void f32ToF16(const float* src, std::uint16_t* dst, std::size_t n);
void f16ToF32(const std::uint16_t* src, float* dst, std::size_t n);
void roundF16Mul(const float* a, const float* b, float* out, std::size_t n);
float retrieveTermPooled(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* w,
                         std::size_t n);
float retrieveTermExactRange(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                             std::size_t n, std::size_t i0, std::size_t i1);
void rgb8ToPlanarF16(const std::uint8_t* rgb, std::uint16_t* dst, std::size_t stride,
                     std::size_t n);
void quantU8Strided3(const float* src, std::uint8_t* dst, std::size_t n);
void conv3x3Range(const float* in, int cin, int H, int W, const float* weights, const float* bias,
                  int cout, float* out, int lo, int hi);
void yuv420RowToRgb24(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                      int width, int chromaStep, std::uint8_t* rgb);

}  // namespace le::test::ref
