// Half conversion kernels: f32ToF16, f16ToF32, roundF16Mul, rgb8ToPlanarF16.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/kernels_half.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include <array>

#include "compute/f16_ops-inl.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

template <size_t kN, class T>
HWY_INLINE std::array<T, kN> PaddedCopy(const T* src, size_t i, size_t rest) {
  std::array<T, kN> p{};
  for (size_t j = 0; j < rest; ++j) p[j] = src[i + j];
  return p;
}

// Runs block(out, in...) on whole vectors of kN elements, then once more on
// a zero-padded copy of the remainder, so that a tail element meets exactly
// the operations of a main-loop element.
template <size_t kN, class Out, class Block, class... In>
HWY_INLINE void ByBlocks(size_t n, Out* HWY_RESTRICT dst, Block block, const In*... src) {
  size_t i = 0;
  for (; i + kN <= n; i += kN) block(dst + i, (src + i)...);
  if (i < n) {
    const size_t rest = n - i;
    Out out[kN];
    [&](const auto&... padded) { block(out, padded.data()...); }(PaddedCopy<kN>(src, i, rest)...);
    for (size_t j = 0; j < rest; ++j) dst[i + j] = out[j];
  }
}

}  // namespace

void F32ToF16(const float* HWY_RESTRICT src, uint16_t* HWY_RESTRICT dst, size_t n) {
  const hn::ScalableTag<float> df;
  const hn::Rebind<uint16_t, decltype(df)> du16;
  ByBlocks<hn::MaxLanes(df)>(
      n, dst, [&](uint16_t* o, const float* s) { hn::StoreU(F16Bits(df, hn::LoadU(df, s)), du16, o); }, src);
}

void F16ToF32(const uint16_t* HWY_RESTRICT src, float* HWY_RESTRICT dst, size_t n) {
  const hn::ScalableTag<float> df;
  const hn::Rebind<uint16_t, decltype(df)> du16;
  ByBlocks<hn::MaxLanes(df)>(
      n, dst, [&](float* o, const uint16_t* s) { hn::StoreU(WideBits(df, hn::LoadU(du16, s)), df, o); }, src);
}

void RoundF16Mul(const float* a, const float* b, float* out, size_t n) {
  const hn::ScalableTag<float> df;
  ByBlocks<hn::MaxLanes(df)>(
      n, out,
      [&](float* o, const float* x, const float* y) {
        hn::StoreU(hn::Mul(RoundToHalf(df, hn::LoadU(df, x)), hn::LoadU(df, y)), df, o);
      },
      a, b);
}

namespace {

// Pixels [i, i + lanes) of rgb (3 bytes each), as halves into the planes.
template <class DF>
HWY_INLINE void RgbBlock(DF df, const uint8_t* HWY_RESTRICT rgb, uint16_t* HWY_RESTRICT r16,
                         uint16_t* HWY_RESTRICT g16, uint16_t* HWY_RESTRICT b16) {
  constexpr size_t kN = hn::MaxLanes(DF());
  const hn::FixedTag<uint8_t, kN> du8;
  const hn::Rebind<int32_t, DF> di32;
  const hn::Rebind<uint16_t, DF> du16;
  hn::Vec<decltype(du8)> r, g, b;
  hn::LoadInterleaved3(du8, rgb, r, g, b);
  const auto k255 = hn::Set(df, 255.0f);
  const auto toHalf = [&](hn::Vec<decltype(du8)> c) {
    const auto f = hn::ConvertTo(df, hn::PromoteTo(di32, c));
    return F16Bits(df, hn::Div(f, k255));
  };
  hn::StoreU(toHalf(r), du16, r16);
  hn::StoreU(toHalf(g), du16, g16);
  hn::StoreU(toHalf(b), du16, b16);
}

}  // namespace

void Rgb8ToPlanarF16(const uint8_t* HWY_RESTRICT rgb, uint16_t* HWY_RESTRICT dst, size_t stride,
                     size_t n) {
  const hn::ScalableTag<float> df;
  constexpr size_t kN = hn::MaxLanes(df);
  uint16_t* r16 = dst;
  uint16_t* g16 = dst + stride;
  uint16_t* b16 = dst + 2 * stride;
  size_t i = 0;
  for (; i + kN <= n; i += kN) RgbBlock(df, rgb + 3 * i, r16 + i, g16 + i, b16 + i);
  if (i < n) {
    const size_t rest = n - i;
    uint8_t in[3 * kN] = {};
    uint16_t tr[kN], tg[kN], tb[kN];
    for (size_t j = 0; j < 3 * rest; ++j) in[j] = rgb[3 * i + j];
    RgbBlock(df, in, tr, tg, tb);
    for (size_t j = 0; j < rest; ++j) {
      r16[i + j] = tr[j];
      g16[i + j] = tg[j];
      b16[i + j] = tb[j];
    }
  }
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"

namespace le::simd {

HWY_EXPORT(F32ToF16);
HWY_EXPORT(F16ToF32);
HWY_EXPORT(RoundF16Mul);
HWY_EXPORT(Rgb8ToPlanarF16);

void f32ToF16(const float* src, std::uint16_t* dst, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(F32ToF16)(src, dst, n);
}

void f16ToF32(const std::uint16_t* src, float* dst, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(F16ToF32)(src, dst, n);
}

void roundF16Mul(const float* a, const float* b, float* out, std::size_t n) {
  HWY_DYNAMIC_DISPATCH(RoundF16Mul)(a, b, out, n);
}

void rgb8ToPlanarF16(const std::uint8_t* rgb, std::uint16_t* dst, std::size_t stride,
                     std::size_t n) {
  HWY_DYNAMIC_DISPATCH(Rgb8ToPlanarF16)(rgb, dst, stride, n);
}

}  // namespace le::simd
#endif  // HWY_ONCE
