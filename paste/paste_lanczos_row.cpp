// The Lanczos row kernel of the paste. The mask weights of a whole vector of
// pixels are found at once; only the pixels under a nonzero weight go on to
// the 8x8 sample, which takes all three channels at once on the four lanes
// of a pixel (the fourth lane is padding). The sharpened crop sits inside a
// zero border wide enough for every tap, so no pixel needs a bounds test: a
// tap on the border adds a product of 0 to a sum that started at +0 and can
// never be -0, which leaves the sum's bits as they are, exactly as skipping
// the tap would.
//
// The per-lane order of operations is the same on every target:
// rowAcc += pixel * wx[i] for i ascending, then acc += rowAcc * wy[j] for j
// ascending, each product rounded before it is added.
#include <algorithm>
#include <cstddef>

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

// acc[0..3]: the 8x8 Lanczos sum of one pixel. p points at its first tap,
// pixel (syi - 3, sxi - 3) of the pair-row layout, in which a pixel of row y
// is followed by the same pixel of row y + 1; pair-rows are pairStep floats
// apart and a pixel takes 8 floats.
template <class D8>
HWY_INLINE void Lanczos8x8(HWY_MAYBE_UNUSED D8 d8, const float* HWY_RESTRICT p, size_t pairStep,
                           const float* HWY_RESTRICT wx, const float* HWY_RESTRICT wy, float* HWY_RESTRICT acc) {
#if HWY_TARGET != HWY_SCALAR
  if constexpr (hn::MaxLanes(d8) == 8) {
    // Rows 2q and 2q + 1 share a vector, one to each half; each lane still
    // sums its own row alone, over the taps in order, from 0. The pairs are
    // independent sums that the processor overlaps; one base pointer and
    // fixed offsets keep the addressing in registers.
    const hn::Half<D8> d4;
    const auto w0 = hn::Set(d8, wx[0]), w1 = hn::Set(d8, wx[1]), w2 = hn::Set(d8, wx[2]), w3 = hn::Set(d8, wx[3]);
    const auto w4 = hn::Set(d8, wx[4]), w5 = hn::Set(d8, wx[5]), w6 = hn::Set(d8, wx[6]), w7 = hn::Set(d8, wx[7]);
    auto sum = hn::Zero(d4);
#pragma GCC unroll 1
    for (int q = 0; q < 4; ++q, p += 2 * pairStep) {
      auto rows = hn::Add(hn::Zero(d8), hn::Mul(hn::LoadU(d8, p), w0));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 8), w1));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 16), w2));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 24), w3));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 32), w4));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 40), w5));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 48), w6));
      rows = hn::Add(rows, hn::Mul(hn::LoadU(d8, p + 56), w7));
      sum = hn::Add(sum, hn::Mul(hn::LowerHalf(d4, rows), hn::Set(d4, wy[2 * q])));
      sum = hn::Add(sum, hn::Mul(hn::UpperHalf(d4, rows), hn::Set(d4, wy[2 * q + 1])));
    }
    hn::StoreU(sum, d4, acc);
    return;
  }
#endif
  // Four lanes cover a pixel at once; a narrower target walks them in turn,
  // reading each row from the first half of its own pair-row.
  const hn::CappedTag<float, 4> d;
  const size_t N = hn::Lanes(d);
  for (size_t lane = 0; lane < 4; lane += N) {
    auto sum = hn::Zero(d);
    for (int j = 0; j < 8; ++j) {
      const float* row = p + j * pairStep + lane;
      auto rowAcc = hn::Zero(d);
      for (int i = 0; i < 8; ++i) rowAcc = hn::Add(rowAcc, hn::Mul(hn::LoadU(d, row + 8 * i), hn::Set(d, wx[i])));
      sum = hn::Add(sum, hn::Mul(rowAcc, hn::Set(d, wy[j])));
    }
    hn::StoreU(sum, d, acc + lane);
  }
}

}  // namespace

void PasteLanczos8Row(const WarpSource& src, const int* HWY_RESTRICT adelta, const int* HWY_RESTRICT bdelta, int X0,
                      int Y0, int x0, int x1, uint8_t* HWY_RESTRICT dstRow) {
  const hn::ScalableTag<int32_t> di;
  const hn::Rebind<float, decltype(di)> df;
  constexpr size_t kMax = hn::MaxLanes(di);
  const int N = static_cast<int>(hn::Lanes(di));
  const int side = src.side;
  const int maskStride = side + 2;
  // Whole 32-bit words from byte offsets: the low byte is the mask at sxi,
  // the next one at sxi + 1.
  const int32_t* mask32 = reinterpret_cast<const int32_t*>(src.mask);
  const size_t pairStep = static_cast<size_t>(src.stride) * 8;

  const auto vX0 = hn::Set(di, X0), vY0 = hn::Set(di, Y0);
  const auto lowest = hn::Set(di, -2), vSide = hn::Set(di, side), phase = hn::Set(di, 31), byte = hn::Set(di, 255);
  const auto vStride = hn::Set(di, maskStride), one = hn::Set(di, 1);
  // Adding and taking away 2^23 rounds a weight in [0, 255] to an integer,
  // halves to even, with plain arithmetic on every target.
  const auto magic = hn::Set(df, 8388608.0f);
  const auto v255 = hn::Set(df, 255.0f);
  const auto step = hn::Set(df, 1.0f / 32.0f), unit = hn::Set(df, 1.0f);

  const hn::Rebind<uint8_t, decltype(df)> du8;
  const auto zero = hn::Zero(df);

  alignas(64) int32_t sxs[kMax], sys[kMax], fxs[kMax], fys[kMax];
  alignas(64) float alphas[kMax];
  // Per pixel of the block, three floats each: its Lanczos samples and its
  // weight, repeated for the three channels as the frame's bytes lie. One
  // float to spare, since a pixel's samples are stored four at a time.
  alignas(64) float samples[3 * kMax + 1], weights[3 * kMax];
  const hn::CappedTag<float, 8> d8;
  for (int x = x0; x <= x1; x += N) {
    const int k = x - x0;
    const auto X = hn::Add(vX0, hn::LoadU(di, adelta + k));
    const auto Y = hn::Add(vY0, hn::LoadU(di, bdelta + k));
    const auto sxi = hn::ShiftRight<10>(X), syi = hn::ShiftRight<10>(Y);
    const auto fx = hn::And(hn::ShiftRight<5>(X), phase), fy = hn::And(hn::ShiftRight<5>(Y), phase);
    const auto inside = hn::And(hn::And(hn::Gt(sxi, lowest), hn::Lt(sxi, vSide)),
                                hn::And(hn::Gt(syi, lowest), hn::Lt(syi, vSide)));
    const int count = std::min(N, x1 - x + 1);
    const auto valid = hn::And(inside, hn::FirstN(di, static_cast<size_t>(count)));
    const auto off = hn::IfThenElseZero(valid, hn::Add(hn::Mul(hn::Add(syi, one), vStride), hn::Add(sxi, one)));
    const auto top = hn::GatherOffset(di, mask32, off);
    const auto bottom = hn::GatherOffset(di, mask32, hn::Add(off, vStride));
    const auto m00 = hn::ConvertTo(df, hn::And(top, byte));
    const auto m01 = hn::ConvertTo(df, hn::And(hn::ShiftRight<8>(top), byte));
    const auto m10 = hn::ConvertTo(df, hn::And(bottom, byte));
    const auto m11 = hn::ConvertTo(df, hn::And(hn::ShiftRight<8>(bottom), byte));
    // The bilinear weights of phase f, f/32 and 1 - f/32, are exact in
    // float: worked out here they are the table's bits without a lookup.
    const auto wx1 = hn::Mul(hn::ConvertTo(df, fx), step), wy1 = hn::Mul(hn::ConvertTo(df, fy), step);
    const auto wx0 = hn::Sub(unit, wx1), wy0 = hn::Sub(unit, wy1);
    const auto m = hn::Add(hn::Mul(wy0, hn::Add(hn::Mul(wx0, m00), hn::Mul(wx1, m01))),
                           hn::Mul(wy1, hn::Add(hn::Mul(wx0, m10), hn::Mul(wx1, m11))));
    const auto alpha = hn::Div(hn::Sub(hn::Add(m, magic), magic), v255);
    const auto hit = hn::And(hn::RebindMask(df, valid), hn::Gt(alpha, zero));
    if (hn::AllFalse(df, hit)) continue;
    hn::Store(hn::IfThenElseZero(hit, alpha), df, alphas);
    hn::Store(sxi, di, sxs);
    hn::Store(syi, di, sys);
    hn::Store(fx, di, fxs);
    hn::Store(fy, di, fys);
    for (int v = 0; v < 3; ++v) hn::Store(zero, df, samples + v * N);
    for (int l = 0; l < N; ++l) {
      const float a = alphas[l];
      weights[3 * l] = weights[3 * l + 1] = weights[3 * l + 2] = a;
      if (!(a > 0.0f)) continue;
      const float* p = src.rgbx + (static_cast<ptrdiff_t>(sys[l] - 3) * src.stride + (sxs[l] - 3)) * 8;
      Lanczos8x8(d8, p, pairStep, src.lanc + 8 * fxs[l], src.lanc + 8 * fys[l], samples + 3 * l);
    }
    uint8_t* px = dstRow + 3 * static_cast<size_t>(x);
    if (count < N) {
      for (int i = 0; i < 3 * count; ++i)
        if (weights[i] > 0.0f) px[i] = paste::blendByte(weights[i], samples[i], px[i]);
      continue;
    }
    // A whole block blends as vectors. Where the weight is 0 (and the sample
    // 0), alpha*v + (1 - alpha)*dst is dst exactly, so the byte stays as it
    // was.
    for (int v = 0; v < 3; ++v) {
      uint8_t* q = px + v * N;
      const auto a = hn::Load(df, weights + v * N);
      const auto dst = hn::ConvertTo(df, hn::PromoteTo(di, hn::LoadU(du8, q)));
      const auto out = hn::Add(hn::Mul(a, hn::Load(df, samples + v * N)), hn::Mul(hn::Sub(unit, a), dst));
      const auto clipped = hn::IfThenElseZero(hn::Gt(out, zero), hn::IfThenElse(hn::Lt(out, v255), out, v255));
      hn::StoreU(hn::DemoteTo(du8, hn::ConvertTo(di, clipped)), du8, q);
    }
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(PasteLanczos8Row);

void pasteLanczos8Row(const WarpSource& src, const int* adelta, const int* bdelta, int X0, int Y0, int x0, int x1,
                      uint8_t* dstRow) {
  HWY_DYNAMIC_DISPATCH(PasteLanczos8Row)(src, adelta, bdelta, X0, Y0, x0, x1, dstRow);
}

}  // namespace le::simd
#endif
