// Exact binary16 arithmetic on a processor that can only convert halves:
// each operation gives the bits an IEEE half-precision unit gives, rounded
// once to nearest, ties to even, subnormals kept, overflow to infinity.
//
// Why double carries it: every half is exact in double, a product of two
// halves (22 significant bits) is exact in double, and a*b + c rounded once
// to double and then to half equals a*b + c rounded once to half. Either the
// double sum is exact (the operands' bits span at most 53), or the product is
// so far below c that both roundings give c itself; a product large enough
// to leave c far behind overflows half in both. Float would not do: a float
// fused multiply-add rounded to half rounds twice and misses ties.
//
// The last step, double to half, must itself round only once. Going through
// float, the double is first rounded to odd at float precision (the lost bits
// fold into the last kept bit), which keeps every tie and every near-tie
// intact for the second rounding to half.
//
// A NaN result, whatever its inputs, is the one quiet NaN 0x7e00, so that no
// result depends on how a compiler orders the operands of an operation.
#pragma once

#include <cstdint>
#include <cstring>

#include "compute/half_soft.h"

namespace le::simd::soft {

inline constexpr std::uint16_t kHalfNaN = 0x7e00;

// The half nearest to d, ties to even, with one rounding.
inline std::uint16_t f16FromDouble(double d) {
  if (d != d) return kHalfNaN;
  std::uint64_t b;
  std::memcpy(&b, &d, sizeof b);
  // Round to odd at float's 24 bits: drop the 29 lower mantissa bits and set
  // the lowest kept one if any of them was set. The float conversion after it
  // is exact for every value in float's normal range; below it lie only
  // values that become a signed zero in half either way.
  constexpr std::uint64_t kLow = (std::uint64_t{1} << 29) - 1;
  if (b & kLow) b = (b & ~kLow) | (kLow + 1);
  double odd;
  std::memcpy(&odd, &b, sizeof odd);
  return f16(static_cast<float>(odd));
}

inline double wideD(std::uint16_t h) { return static_cast<double>(wide(h)); }

// Fused: a * b + c with one rounding.
inline std::uint16_t fmaF16(std::uint16_t a, std::uint16_t b, std::uint16_t c) {
  const double p = wideD(a) * wideD(b);  // exact
  return f16FromDouble(p + wideD(c));
}

inline std::uint16_t addF16(std::uint16_t a, std::uint16_t b) { return f16FromDouble(wideD(a) + wideD(b)); }

inline std::uint16_t mulF16(std::uint16_t a, std::uint16_t b) { return f16FromDouble(wideD(a) * wideD(b)); }

// The half of a float, with the same NaN as the operations above.
inline std::uint16_t f16Canonical(float x) { return x != x ? kHalfNaN : f16(x); }

}  // namespace le::simd::soft
