#include "driver/prior_convert.h"

#include "compute/half.h"

namespace le::driver {

std::array<uint16_t, 256> priorHalfTable() {
  std::array<uint16_t, 256> lut{};
  for (int i = 0; i < 256; ++i) lut[static_cast<std::size_t>(i)] = le::f32ToF16(static_cast<float>(i) / 255.0f);
  return lut;
}

namespace {

inline uint32_t clip(int32_t t) {
  const auto u = static_cast<uint32_t>(t);
  return u > 511u ? 0u : u > 255u ? 255u : u;
}

}  // namespace

void yuv444RowToHalf(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, const uint16_t* lut, uint16_t* r,
                     uint16_t* g, uint16_t* b) {
  for (int x = 0; x < w; ++x) {
    const int32_t base = static_cast<int32_t>(y[x]) * 76312 - 1188224;
    const int32_t d = static_cast<int32_t>(u[x]) - 128;
    const int32_t e = static_cast<int32_t>(v[x]) - 128;
    r[x] = lut[clip((base + e * 104600) >> 16)];
    g[x] = lut[clip((base - d * 25672 - e * 53280) >> 16)];
    b[x] = lut[clip((base + d * 132200) >> 16)];
  }
}

}  // namespace le::driver
