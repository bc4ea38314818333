// Per-pixel steps of the inverse warp that every interpolation of the paste
// shares: where a frame pixel lands in the crop, the 8-bit mask weight there,
// and the truncating blend into the frame byte.
#pragma once

#include <cmath>
#include <cstdint>

namespace le::paste {

// 32-bit sums of the fixed-point mapping wrap as the integer arithmetic of
// the mapping does, rather than being undefined.
inline int32_t add32(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

struct Sample {
  int sxi, syi;  // integer source position (column, row)
  int fx, fy;    // sub-pixel phase, 0 to 31
};

// X, Y: source position in 1/1024 pixel, with half a phase step added.
// False when the pixel lies outside the reach of the crop.
inline bool locate(int32_t X, int32_t Y, int side, Sample& s) {
  s.sxi = X >> 10;
  s.syi = Y >> 10;
  s.fx = (X >> 5) & 31;
  s.fy = (Y >> 5) & 31;
  return s.sxi >= -1 && s.sxi < side && s.syi >= -1 && s.syi < side;
}

// The mask warped bilinearly and rounded to 8 bits, as a weight 0 to 1.
inline float maskAlpha(const uint8_t* mask, int side, const float* bil, const Sample& s) {
  const auto at = [&](int y, int x) -> float {
    return (x >= 0 && x < side && y >= 0 && y < side) ? static_cast<float>(mask[y * side + x]) : 0.0f;
  };
  const float wx0 = bil[2 * s.fx], wx1 = bil[2 * s.fx + 1];
  const float wy0 = bil[2 * s.fy], wy1 = bil[2 * s.fy + 1];
  const float m = wy0 * (wx0 * at(s.syi, s.sxi) + wx1 * at(s.syi, s.sxi + 1)) +
                  wy1 * (wx0 * at(s.syi + 1, s.sxi) + wx1 * at(s.syi + 1, s.sxi + 1));
  return std::nearbyint(m) / 255.0f;
}

// alpha*v + (1 - alpha)*dst, clipped to 0..255 (NaN as 0) and truncated.
inline uint8_t blendByte(float alpha, float v, uint8_t dst) {
  const float out = alpha * v + (1.0f - alpha) * static_cast<float>(dst);
  return static_cast<uint8_t>(out > 0.0f ? (out < 255.0f ? out : 255.0f) : 0.0f);
}

// Plane sample of bilinear mode: 0 outside the square.
inline float bilinearSample(const float* plane, int side, const float* bil, const Sample& s) {
  const auto at = [&](int y, int x) -> float {
    return (x >= 0 && x < side && y >= 0 && y < side) ? plane[y * side + x] : 0.0f;
  };
  const float wx0 = bil[2 * s.fx], wx1 = bil[2 * s.fx + 1];
  const float wy0 = bil[2 * s.fy], wy1 = bil[2 * s.fy + 1];
  return wy0 * (wx0 * at(s.syi, s.sxi) + wx1 * at(s.syi, s.sxi + 1)) +
         wy1 * (wx0 * at(s.syi + 1, s.sxi) + wx1 * at(s.syi + 1, s.sxi + 1));
}

// Plane sample of bicubic mode: taps outside the square are skipped.
inline float cubicSample(const float* plane, int side, const float* cubic, const Sample& s) {
  const float* wx = cubic + 4 * s.fx;
  const float* wy = cubic + 4 * s.fy;
  float acc = 0.0f;
  for (int j = 0; j < 4; ++j) {
    const int yy = s.syi - 1 + j;
    if (yy < 0 || yy >= side) continue;
    float rowAcc = 0.0f;
    for (int i = 0; i < 4; ++i) {
      const int xx = s.sxi - 1 + i;
      if (xx < 0 || xx >= side) continue;
      rowAcc += plane[yy * side + xx] * wx[i];
    }
    acc += rowAcc * wy[j];
  }
  return acc;
}

}  // namespace le::paste
