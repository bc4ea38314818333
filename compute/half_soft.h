// The half conversions of the vector kernels, done with integer operations.
// They give the bits of the processor's conversion instructions, and stand in
// for them on targets that have none: there, Highway's own fallback truncates
// and loses infinities and NaNs.
#pragma once

#include <cstdint>
#include <cstring>

namespace le::simd::soft {

inline std::uint32_t floatBits(float x) {
  std::uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

inline float bitsFloat(std::uint32_t b) {
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

// Round to nearest, ties to even; overflow gives infinity; a NaN keeps its
// sign and the top ten bits of its mantissa and gets the quiet bit.
inline std::uint16_t f16(float x) {
  const std::uint32_t b = floatBits(x);
  const std::uint32_t sign = (b >> 16) & 0x8000u;
  const std::uint32_t e = (b >> 23) & 0xffu;
  const std::uint32_t m = b & 0x7fffffu;
  if (e == 0xffu && m != 0) return static_cast<std::uint16_t>(sign | 0x7e00u | (m >> 13));
  if (e >= 143) return static_cast<std::uint16_t>(sign | 0x7c00u);
  if (e < 102) return static_cast<std::uint16_t>(sign);
  if (e <= 112) {
    // The result is subnormal: shift the full significand down to units of
    // 2^-24 and round on the bits that fall off.
    const std::uint32_t mant = m | 0x800000u;
    const std::uint32_t shift = 126 - e;
    std::uint32_t v = mant >> shift;
    const std::uint32_t rest = mant & ((1u << shift) - 1);
    const std::uint32_t half = 1u << (shift - 1);
    if (rest > half || (rest == half && (v & 1u))) ++v;
    return static_cast<std::uint16_t>(sign | v);
  }
  // A carry out of the mantissa raises the exponent, up to infinity.
  std::uint32_t v = ((e - 112) << 10) | (m >> 13);
  const std::uint32_t rest = b & 0x1fffu;
  if (rest > 0x1000u || (rest == 0x1000u && (v & 1u))) ++v;
  return static_cast<std::uint16_t>(sign | v);
}

// Exact widening; a NaN gets the quiet bit.
inline float wide(std::uint16_t h) {
  const std::uint32_t sign = static_cast<std::uint32_t>(h & 0x8000u) << 16;
  const std::uint32_t e = (h >> 10) & 0x1fu;
  std::uint32_t m = h & 0x3ffu;
  if (e == 0x1fu) return bitsFloat(sign | 0x7f800000u | (m << 13) | (m != 0 ? 0x400000u : 0u));
  if (e != 0) return bitsFloat(sign | ((e + 112) << 23) | (m << 13));
  if (m == 0) return bitsFloat(sign);
  // Subnormal: normalise the mantissa into a float exponent.
  std::uint32_t exp = 113;
  while ((m & 0x400u) == 0) {
    m <<= 1;
    --exp;
  }
  return bitsFloat(sign | (exp << 23) | ((m & 0x3ffu) << 13));
}

}  // namespace le::simd::soft
