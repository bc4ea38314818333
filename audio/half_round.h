// The half-precision step that speech features and trunk values pass
// through. The speech encoder was exported in fp16 with subnormals flushed,
// so its values are rounded to binary16 to nearest, ties to even, with every
// result below the smallest normal half going to a signed zero; this is not
// le::f32ToF16, which keeps subnormals.
#pragma once

#include <cstdint>
#include <cstring>

namespace le {

// The binary16 pattern of x, subnormal results flushed, overflow and NaN
// taken to infinity of the sign.
inline uint16_t roundHalf(float x) {
  uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  const uint32_t sign = (b >> 16) & 0x8000u;
  const uint32_t e = (b >> 23) & 255u;
  if (e < 113) return static_cast<uint16_t>(sign);
  if (e >= 143) return static_cast<uint16_t>(sign | 0x7c00u);
  uint32_t v = sign | ((e - 112) << 10) | ((b >> 13) & 0x3ffu);
  if ((b & 0x1fffu) > 0x1000u || (b & 0x3fffu) == 0x3000u) v += 1;
  return static_cast<uint16_t>(v);
}

// The binary32 value of a half, subnormal halves read as a signed zero. A
// NaN keeps its payload as it stands (no quiet bit is added).
inline float widen(uint16_t v) {
  const uint32_t sign = static_cast<uint32_t>(v & 0x8000u) << 16;
  const uint32_t e5 = (v >> 10) & 31u;
  const uint32_t m = v & 0x3ffu;
  uint32_t b;
  if (e5 == 0)
    b = sign;
  else if (e5 == 31)
    b = sign | (m << 13) | 0x7f800000u;
  else
    b = sign | ((e5 + 112) << 23) | (m << 13);
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

// widen(roundHalf(x)): what a value looks like after the fp16 step.
inline float throughHalf(float x) { return widen(roundHalf(x)); }

}  // namespace le
