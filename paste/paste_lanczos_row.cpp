// The Lanczos row kernel of the paste. An interior pixel takes all three
// channels at once on the four lanes of rgbx (the fourth lane is padding);
// a border pixel skips the taps outside the crop one by one. The per-lane
// order of operations is the same on both roads and on every target:
// rowAcc += pixel * wx[i] for i ascending, then acc += rowAcc * wy[j] for j
// ascending, each product rounded before it is added.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "paste/paste_lanczos_row.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include "hwy/highway.h"
#include "paste/paste_kernel.h"
#include "paste/paste_sample.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

// acc[0..3] for a pixel whose 8x8 taps all lie inside the crop.
HWY_INLINE void LanczosInterior(const float* HWY_RESTRICT rgbx, int side, const float* wx, const float* wy,
                                const paste::Sample& s, float* HWY_RESTRICT acc) {
  const hn::CappedTag<float, 4> d;
  const size_t N = hn::Lanes(d);
  // Four lanes cover a pixel at once; a narrower target walks them in turn.
  for (size_t lane = 0; lane < 4; lane += N) {
    auto sum = hn::Zero(d);
    for (int j = 0; j < 8; ++j) {
      const float* row = rgbx + (static_cast<size_t>(s.syi - 3 + j) * side + (s.sxi - 3)) * 4 + lane;
      auto rowAcc = hn::Zero(d);
      for (int i = 0; i < 8; ++i) rowAcc = hn::Add(rowAcc, hn::Mul(hn::LoadU(d, row + 4 * i), hn::Set(d, wx[i])));
      sum = hn::Add(sum, hn::Mul(rowAcc, hn::Set(d, wy[j])));
    }
    hn::StoreU(sum, d, acc + lane);
  }
}

// The same sums with the taps outside the crop skipped: nothing is added
// for them, not even a zero.
HWY_INLINE void LanczosBorder(const float* HWY_RESTRICT rgbx, int side, const float* wx, const float* wy,
                              const paste::Sample& s, float* HWY_RESTRICT acc) {
  for (int c = 0; c < 3; ++c) {
    float sum = 0.0f;
    for (int j = 0; j < 8; ++j) {
      const int yy = s.syi - 3 + j;
      if (yy < 0 || yy >= side) continue;
      float rowAcc = 0.0f;
      for (int i = 0; i < 8; ++i) {
        const int xx = s.sxi - 3 + i;
        if (xx < 0 || xx >= side) continue;
        rowAcc += rgbx[(static_cast<size_t>(yy) * side + xx) * 4 + c] * wx[i];
      }
      sum += rowAcc * wy[j];
    }
    acc[c] = sum;
  }
}

}  // namespace

void PasteLanczos8Row(const float* HWY_RESTRICT rgbx, int side, const uint8_t* HWY_RESTRICT mask,
                      const float* HWY_RESTRICT lanc, const float* HWY_RESTRICT bil, const int* HWY_RESTRICT adelta,
                      const int* HWY_RESTRICT bdelta, int X0, int Y0, int x0, int x1, uint8_t* HWY_RESTRICT dstRow) {
  for (int x = x0; x <= x1; ++x) {
    paste::Sample s;
    if (!paste::locate(paste::add32(X0, adelta[x - x0]), paste::add32(Y0, bdelta[x - x0]), side, s)) continue;
    const float alpha = paste::maskAlpha(mask, side, bil, s);
    if (alpha <= 0.0f) continue;
    const float* wx = lanc + 8 * s.fx;
    const float* wy = lanc + 8 * s.fy;
    alignas(16) float acc[4];
    if (s.sxi >= 3 && s.sxi + 4 < side && s.syi >= 3 && s.syi + 4 < side)
      LanczosInterior(rgbx, side, wx, wy, s, acc);
    else
      LanczosBorder(rgbx, side, wx, wy, s, acc);
    uint8_t* px = dstRow + 3 * static_cast<size_t>(x);
    for (int c = 0; c < 3; ++c) px[c] = paste::blendByte(alpha, acc[c], px[c]);
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);

void pasteLanczos8Row(const float* rgbx, int side, const uint8_t* mask, const float* lanc, const float* bil,
                      const int* adelta, const int* bdelta, int X0, int Y0, int x0, int x1, uint8_t* dstRow) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(rgbx, side, mask, lanc, bil, adelta, bdelta, X0, Y0, x0, x1, dstRow);
}

}  // namespace le::simd
#endif
