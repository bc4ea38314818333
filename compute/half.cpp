#include "compute/half.h"

#include <cstring>

#include "compute/half_soft.h"

namespace le {

void halfToFloat(const std::uint16_t* src, float* dst, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = simd::soft::wide(src[i]);
}

std::uint16_t f32ToF16(float x) {
  std::uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  const std::uint32_t sign = (b >> 16) & 0x8000u;
  const std::uint32_t e = (b >> 23) & 0xffu;
  const std::uint32_t m = b & 0x7fffffu;
  // NaN joins overflow: the tensors written through here feed arithmetic
  // that must stay finite-or-infinite, never NaN.
  if (e >= 143) return static_cast<std::uint16_t>(sign | 0x7c00u);
  if (e < 102) return static_cast<std::uint16_t>(sign);
  if (e <= 112) {
    const std::uint32_t mant = m | 0x800000u;
    const std::uint32_t shift = 126 - e;
    std::uint32_t v = mant >> shift;
    const std::uint32_t rest = mant & ((1u << shift) - 1);
    const std::uint32_t half = 1u << (125 - e);
    if (rest > half || (rest == half && (v & 1u))) ++v;
    return static_cast<std::uint16_t>(sign | v);
  }
  std::uint32_t v = ((e - 112) << 10) | (m >> 13);
  if ((b & 0x1fffu) > 0x1000u || (b & 0x3fffu) == 0x3000u) ++v;
  return static_cast<std::uint16_t>((sign | v) & 0xffffu);
}

}  // namespace le
