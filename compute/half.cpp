#include "compute/half.h"

#include <cmath>

#include "compute/half_soft.h"

namespace le {

void halfToFloat(const std::uint16_t* src, float* dst, std::size_t n) {
  for (std::size_t i = 0; i < n; ++i) dst[i] = simd::soft::wide(src[i]);
}

// Every value rounds as the kernels' conversion does, to nearest with ties
// to even, but a NaN joins overflow and becomes an infinity of its sign: the
// tensors written through here feed arithmetic that must stay
// finite-or-infinite, never NaN.
std::uint16_t f32ToF16(float x) {
  const std::uint16_t h = simd::soft::f16(x);
  return std::isnan(x) ? static_cast<std::uint16_t>((h & 0x8000u) | 0x7c00u) : h;
}

}  // namespace le
