// Byte image kernels: quantU8Strided3, yuv420RowToRgb24.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/kernels_image.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

// Bytes for the lanes of src: clamp to [0, 1] with NaN as 0, scale by 255,
// round to nearest even. Adding and taking away 2^23 rounds a value in
// [0, 255] to an integer in the current (nearest-even) mode with plain
// arithmetic, so every target rounds the same way.
template <class DF>
HWY_INLINE void QuantBlock(DF df, const float* HWY_RESTRICT src, int32_t* HWY_RESTRICT q) {
  const hn::Rebind<int32_t, DF> di32;
  const auto zero = hn::Zero(df);
  const auto one = hn::Set(df, 1.0f);
  const auto magic = hn::Set(df, 8388608.0f);
  auto v = hn::LoadU(df, src);
  v = hn::IfThenElseZero(hn::Gt(v, zero), v);  // negative, -0 and NaN fail the test
  v = hn::IfThenElse(hn::Gt(v, one), one, v);
  const auto r = hn::Mul(v, hn::Set(df, 255.0f));
  hn::StoreU(hn::ConvertTo(di32, hn::Sub(hn::Add(r, magic), magic)), di32, q);
}

}  // namespace

void QuantU8Strided3(const float* HWY_RESTRICT src, uint8_t* HWY_RESTRICT dst, size_t n) {
  const hn::ScalableTag<float> df;
  constexpr size_t kN = hn::MaxLanes(df);
  int32_t q[kN];
  size_t i = 0;
  // The bytes go out one by one: a wider store would rewrite the bytes in
  // between, which other channels' calls may be writing at the same time.
  for (; i + kN <= n; i += kN) {
    QuantBlock(df, src + i, q);
    for (size_t j = 0; j < kN; ++j) dst[3 * (i + j)] = static_cast<uint8_t>(q[j]);
  }
  if (i < n) {
    const size_t rest = n - i;
    float in[kN] = {};
    for (size_t j = 0; j < rest; ++j) in[j] = src[i + j];
    QuantBlock(df, in, q);
    for (size_t j = 0; j < rest; ++j) dst[3 * (i + j)] = static_cast<uint8_t>(q[j]);
  }
}

namespace {

// Pixels [x, x + lanes) of a row from their luma and their chroma terms
// rT = 409*E, gT = -100*D - 208*E, bT = 516*D; out receives 3 bytes per pixel.
template <class DI>
HWY_INLINE void YuvPixels(DI di32, const uint8_t* HWY_RESTRICT yRow, hn::Vec<DI> rT,
                          hn::Vec<DI> gT, hn::Vec<DI> bT, uint8_t* HWY_RESTRICT out) {
  constexpr size_t kN = hn::MaxLanes(DI());
  const hn::FixedTag<uint8_t, kN> du8;
  const auto luma = hn::PromoteTo(di32, hn::LoadU(du8, yRow));
  const auto c = hn::Sub(hn::Mul(luma, hn::Set(di32, 298)), hn::Set(di32, 4640));
  const auto lo = hn::Zero(di32);
  const auto hi = hn::Set(di32, 255);
  const auto clip = [&](hn::Vec<DI> v) {
    return hn::DemoteTo(du8, hn::Min(hn::Max(hn::ShiftRight<8>(v), lo), hi));
  };
  hn::StoreInterleaved3(clip(hn::Add(c, rT)), clip(hn::Add(c, gT)), clip(hn::Add(c, bT)), du8, out);
}

// The chroma terms from D and E (chroma minus 128). The integer sums are
// exact, so grouping -100*D - 208*E apart from c changes nothing.
template <class DI>
HWY_INLINE void ChromaTerms(DI di32, hn::Vec<DI> d, hn::Vec<DI> e, hn::Vec<DI>& rT,
                            hn::Vec<DI>& gT, hn::Vec<DI>& bT) {
  rT = hn::Mul(e, hn::Set(di32, 409));
  gT = hn::Neg(hn::Add(hn::Mul(d, hn::Set(di32, 100)), hn::Mul(e, hn::Set(di32, 208))));
  bT = hn::Mul(d, hn::Set(di32, 516));
}

}  // namespace

void Yuv420RowToRgb24(const uint8_t* HWY_RESTRICT y, const uint8_t* HWY_RESTRICT u,
                      const uint8_t* HWY_RESTRICT v, int width, int chromaStep,
                      uint8_t* HWY_RESTRICT rgb) {
  const hn::ScalableTag<int32_t> di32;
  const hn::FixedTag<uint8_t, hn::MaxLanes(di32)> du8;
  constexpr size_t kN = hn::MaxLanes(di32);
  using VI = hn::Vec<decltype(di32)>;
  const size_t n = width > 0 ? static_cast<size_t>(width) : 0;
  const size_t step = static_cast<size_t>(chromaStep);
  const auto k128 = hn::Set(di32, 128);
  // Two pixels share a chroma sample. Each step takes kN chroma pairs and
  // spreads their terms over 2 * kN pixels: lane i of the first pixel
  // vector takes pair i / 2, of the second pair (kN + i) / 2.
  const auto spreadLo = hn::IndicesFromVec(di32, hn::ShiftRight<1>(hn::Iota(di32, 0)));
  const auto spreadHi = hn::IndicesFromVec(di32, hn::ShiftRight<1>(hn::Iota(di32, kN)));
  uint8_t uc[kN];
  uint8_t vc[kN];
  size_t x = 0;
  for (; x + 2 * kN <= n; x += 2 * kN) {
    const size_t pair = x >> 1;
    hn::Vec<decltype(du8)> u8, v8;
    if (step == 1) {
      u8 = hn::LoadU(du8, u + pair);
      v8 = hn::LoadU(du8, v + pair);
    } else {
      for (size_t j = 0; j < kN; ++j) {
        uc[j] = u[(pair + j) * step];
        vc[j] = v[(pair + j) * step];
      }
      u8 = hn::LoadU(du8, uc);
      v8 = hn::LoadU(du8, vc);
    }
    VI rT, gT, bT;
    ChromaTerms(di32, hn::Sub(hn::PromoteTo(di32, u8), k128), hn::Sub(hn::PromoteTo(di32, v8), k128),
                rT, gT, bT);
    YuvPixels(di32, y + x, hn::TableLookupLanes(rT, spreadLo), hn::TableLookupLanes(gT, spreadLo),
              hn::TableLookupLanes(bT, spreadLo), rgb + 3 * x);
    YuvPixels(di32, y + x + kN, hn::TableLookupLanes(rT, spreadHi),
              hn::TableLookupLanes(gT, spreadHi), hn::TableLookupLanes(bT, spreadHi),
              rgb + 3 * (x + kN));
  }
  // The rest, fewer than 2 * kN pixels, a vector of pixels at a time from
  // zero-padded copies with each pixel's chroma looked up on its own.
  for (; x < n; x += kN) {
    const size_t count = n - x < kN ? n - x : kN;
    uint8_t yt[kN] = {};
    int32_t d[kN] = {};
    int32_t e[kN] = {};
    uint8_t out[3 * kN];
    for (size_t j = 0; j < count; ++j) {
      const size_t at = ((x + j) >> 1) * step;
      yt[j] = y[x + j];
      d[j] = static_cast<int32_t>(u[at]) - 128;
      e[j] = static_cast<int32_t>(v[at]) - 128;
    }
    VI rT, gT, bT;
    ChromaTerms(di32, hn::LoadU(di32, d), hn::LoadU(di32, e), rT, gT, bT);
    YuvPixels(di32, yt, rT, gT, bT, out);
    for (size_t j = 0; j < 3 * count; ++j) rgb[3 * x + j] = out[j];
  }
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"

namespace le::simd {

HWY_EXPORT(QuantU8Strided3);
HWY_EXPORT(Yuv420RowToRgb24);

void quantU8Strided3(const float* src, std::uint8_t* dst, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(QuantU8Strided3)(src, dst, n);
}

void yuv420RowToRgb24(const std::uint8_t* y, const std::uint8_t* u, const std::uint8_t* v,
                      int width, int chromaStep, std::uint8_t* rgb) {
  HWY_DYNAMIC_DISPATCH(Yuv420RowToRgb24)(y, u, v, width, chromaStep, rgb);
}

}  // namespace le::simd
#endif  // HWY_ONCE
