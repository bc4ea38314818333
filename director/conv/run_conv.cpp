// runConv: every convolution of the fused backend, with its half-precision
// fused multiply-adds emulated exactly in double lanes (f16_fma-inl.h). One
// copy per compiled target, the same operations in the same order on each.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "director/conv/run_conv.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "compute/f16_fma-inl.h"
#include "director/conv/conv_layer.h"
#include "hwy/highway.h"

#ifndef LE_DIRECTOR_CONV_RUN_CONV_ONCE_
#define LE_DIRECTOR_CONV_RUN_CONV_ONCE_
namespace le::conv::detail {

struct ConvArgs {
  const ConvLayer* layer;
  const uint16_t* in;
  size_t inStride;
  uint16_t* outHalf;
  float* outFloat;
  size_t outStride;
};

// This thread's input rows of the current output row, widened to double,
// and the largest magnitude of each input row. They grow to the largest
// layer and stay.
std::vector<double>& convRows();
std::vector<uint16_t>& convRowMax();

}  // namespace le::conv::detail
#endif

HWY_BEFORE_NAMESPACE();
namespace le::conv::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;
using simd::HWY_NAMESPACE::HalfFmaConsts;
using simd::HWY_NAMESPACE::HalfFmaNeedsGuard;
using simd::HWY_NAMESPACE::HalfFmaStep;
using simd::HWY_NAMESPACE::WideBits;
using simd::HWY_NAMESPACE::F16Bits;

namespace {

using DD = hn::ScalableTag<double>;
using VD = hn::Vec<DD>;
constexpr size_t kPixels = 4;    // output pixels of a block, sharing each weight load
constexpr size_t kChannels = 8;  // output channels of a block
constexpr size_t kN = hn::MaxLanes(DD()) < kChannels ? hn::MaxLanes(DD()) : kChannels;
constexpr size_t kV = kChannels / kN;

struct Geometry {
  size_t cinP, kW, coutP, inCols, rowElems;
};

// One run of half accumulators over the taps kx0..kx1-1 of kernel row ky:
// acc[j][o] for pixel j and channel o starts at +0 and takes every stored
// channel of every tap in order. w points to the tile's weights of (ky, 0),
// 8 channels in from the tile's start; x to the widened input row ky at the
// block's first pixel. The result lands in out[j * 8 + o]. The unguarded
// forms are for runs proved to stay in range (kTrack false) or that check
// it (kTrack true, false when a value left the range).
template <bool kGuard, bool kTrack>
HWY_INLINE bool HalfRun(const Geometry& g, size_t tileWidth, const double* HWY_RESTRICT w,
                        const double* HWY_RESTRICT x, size_t kx0, size_t kx1, double* HWY_RESTRICT out) {
  const DD dd;
  const HalfFmaConsts<DD> k(dd);
  VD acc[kPixels][kV];
  VD seen[kV];
  for (size_t v = 0; v < kV; ++v) seen[v] = hn::Zero(dd);
  for (size_t j = 0; j < kPixels; ++j)
    for (size_t v = 0; v < kV; ++v) acc[j][v] = hn::Zero(dd);
  for (size_t kx = kx0; kx < kx1; ++kx) {
    const double* wt = w + kx * g.cinP * tileWidth;
    const double* xt = x + kx * g.cinP;
    for (size_t c = 0; c < g.cinP; ++c, wt += tileWidth, ++xt) {
      // Unrolled whole, so that the accumulators stay in registers.
      VD wv[kV];
#pragma GCC unroll 8
      for (size_t v = 0; v < kV; ++v) wv[v] = hn::LoadU(dd, wt + v * kN);
#pragma GCC unroll 4
      for (size_t j = 0; j < kPixels; ++j) {
        const VD xv = hn::Set(dd, xt[j * g.cinP]);
#pragma GCC unroll 8
        for (size_t v = 0; v < kV; ++v)
          acc[j][v] = HalfFmaStep<kGuard, kTrack>(dd, k, wv[v], xv, acc[j][v], seen[v]);
      }
    }
  }
  if (kTrack) {
    for (size_t v = 0; v < kV; ++v)
      if (HalfFmaNeedsGuard(dd, k, seen[v])) return false;
  }
  for (size_t j = 0; j < kPixels; ++j)
    for (size_t v = 0; v < kV; ++v) hn::StoreU(acc[j][v], dd, out + j * kChannels + v * kN);
  return true;
}

// A block of 4 pixels by 8 channels: float accumulators from the bias, the
// half runs drained into them, relu, and the store.
void Block(const ConvLayer& L, const Geometry& g, const double* rows, size_t tileOffset, size_t tileWidth,
           size_t sub, size_t x0, const detail::ConvArgs& a, size_t y, bool bounded) {
  float facc[kPixels * kChannels];
  for (size_t j = 0; j < kPixels; ++j)
    for (size_t o = 0; o < kChannels; ++o) facc[j * kChannels + o] = L.bias[tileOffset + sub * kChannels + o];
  double halves[kPixels * kChannels];
  const size_t taps = static_cast<size_t>(L.kH) * g.kW;
  const double* tileW = L.wide.data() + tileOffset * taps * g.cinP + sub * kChannels;
  const size_t runs = L.drainPerTap ? g.kW : 1;
  for (size_t ky = 0; ky < static_cast<size_t>(L.kH); ++ky) {
    const double* w = tileW + ky * g.kW * g.cinP * tileWidth;
    const double* x = rows + ky * g.rowElems + x0 * g.cinP;
    for (size_t r = 0; r < runs; ++r) {
      const size_t kx0 = L.drainPerTap ? r : 0, kx1 = L.drainPerTap ? r + 1 : g.kW;
      if (bounded)
        HalfRun<false, false>(g, tileWidth, w, x, kx0, kx1, halves);
      else if (!HalfRun<false, true>(g, tileWidth, w, x, kx0, kx1, halves))
        HalfRun<true, false>(g, tileWidth, w, x, kx0, kx1, halves);
      for (size_t i = 0; i < kPixels * kChannels; ++i) facc[i] = facc[i] + static_cast<float>(halves[i]);
    }
  }
  const hn::ScalableTag<float> df;
  constexpr size_t kF = hn::MaxLanes(df) < kChannels ? hn::MaxLanes(df) : kChannels;
  const hn::CappedTag<float, kF> dc;
  const hn::Rebind<uint16_t, decltype(dc)> du16;
  const auto zero = hn::Zero(dc);
  const auto nan = hn::BitCast(dc, hn::Set(hn::RebindToUnsigned<decltype(dc)>(), 0x7fc00000u));
  for (size_t j = 0; j < kPixels; ++j) {
    const size_t at = y * a.outStride + (x0 + j) * g.coutP + tileOffset + sub * kChannels;
    for (size_t o = 0; o < kChannels; o += kF) {
      auto v = hn::LoadU(dc, facc + j * kChannels + o);
      if (L.relu) v = hn::IfThenElse(hn::Gt(v, zero), v, zero);
      v = hn::IfThenElse(hn::IsNaN(v), nan, v);
      if (a.outHalf)
        hn::StoreU(F16Bits(dc, v), du16, a.outHalf + at + o);
      else
        hn::StoreU(v, dc, a.outFloat + at + o);
    }
  }
}

}  // namespace

void RunConv(const detail::ConvArgs& a) {
  const ConvLayer& L = *a.layer;
  Geometry g;
  g.cinP = static_cast<size_t>(L.CinP);
  g.kW = static_cast<size_t>(L.kW);
  g.coutP = static_cast<size_t>(L.CoutP);
  g.inCols = static_cast<size_t>(L.W) + g.kW - 1;
  g.rowElems = g.inCols * g.cinP;
  const size_t kH = static_cast<size_t>(L.kH);
  std::vector<double>& rows = detail::convRows();
  if (rows.size() < kH * g.rowElems) rows.resize(kH * g.rowElems);

  // The largest magnitude in each input row, as half bits without the sign
  // (which order like the magnitudes, infinities and NaNs above all finite).
  const size_t inRows = static_cast<size_t>(L.H) + kH - 1;
  std::vector<uint16_t>& rowMax = detail::convRowMax();
  if (rowMax.size() < inRows) rowMax.resize(inRows);
  const hn::ScalableTag<uint16_t> d16;
  constexpr size_t k16 = hn::MaxLanes(d16);
  for (size_t r = 0; r < inRows; ++r) {
    const uint16_t* src = a.in + r * a.inStride;
    auto m = hn::Zero(d16);
    const auto magnitude = hn::Set(d16, uint16_t{0x7fff});
    size_t i = 0;
    for (; i + k16 <= g.rowElems; i += k16) m = hn::Max(m, hn::And(hn::LoadU(d16, src + i), magnitude));
    uint16_t lanes[k16];
    hn::StoreU(m, d16, lanes);
    uint16_t best = 0;
    for (size_t j = 0; j < k16; ++j) best = lanes[j] > best ? lanes[j] : best;
    for (; i < g.rowElems; ++i) best = std::max<uint16_t>(best, src[i] & 0x7fff);
    rowMax[r] = best;
  }

  // Every partial sum of a run is at most the sum of |w x| over the run,
  // grown by at most (1 + 2^-11) per rounding and by 2^-25 per subnormal
  // one: a bound below 2^14 after that growth keeps every value of the run
  // under 2^15 with room to spare, where the fast steps are exact unchecked.
  const double steps = static_cast<double>(L.drainPerTap ? g.cinP : g.kW * g.cinP);
  const double growth = std::pow(1.0 + 0x1p-11, steps);

  const DD dd;
  const hn::Rebind<uint16_t, DD> du16;
  constexpr size_t kWide = hn::MaxLanes(dd);
  for (size_t y = 0; y < static_cast<size_t>(L.H); ++y) {
    // The kernel rows this output row reads, widened once for every tile.
    uint16_t largest = 0;
    for (size_t ky = 0; ky < kH; ++ky) {
      largest = std::max(largest, rowMax[y + ky]);
      const uint16_t* src = a.in + (y + ky) * a.inStride;
      double* dst = rows.data() + ky * g.rowElems;
      size_t i = 0;
      for (; i + kWide <= g.rowElems; i += kWide)
        hn::StoreU(simd::HWY_NAMESPACE::HalfToDouble(dd, hn::LoadU(du16, src + i)), dd, dst + i);
      for (; i < g.rowElems; ++i) dst[i] = static_cast<double>(simd::soft::wide(src[i]));
    }
    const bool bounded =
        largest < 0x7c00 && static_cast<double>(simd::soft::wide(largest)) * L.runWeightSum * growth < 0x1p14;
    size_t tileOffset = 0;
    for (const int t : L.tiles) {
      const size_t width = static_cast<size_t>(t);
      for (size_t x0 = 0; x0 < static_cast<size_t>(L.W); x0 += kPixels)
        for (size_t sub = 0; sub < width / kChannels; ++sub)
          Block(L, g, rows.data(), tileOffset, width, sub, x0, a, y, bounded);
      tileOffset += width;
    }
  }
}

}  // namespace le::conv::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::conv {

namespace detail {
std::vector<double>& convRows() {
  thread_local std::vector<double> rows;
  return rows;
}
std::vector<uint16_t>& convRowMax() {
  thread_local std::vector<uint16_t> rowMax;
  return rowMax;
}
}  // namespace detail

HWY_EXPORT(RunConv);

void runConv(const ConvLayer& layer, const uint16_t* in, size_t inStride, uint16_t* outHalf, float* outFloat,
             size_t outStride) {
  const detail::ConvArgs args{&layer, in, inStride, outHalf, outFloat, outStride};
  HWY_DYNAMIC_DISPATCH(RunConv)(args);
}

}  // namespace le::conv
#endif  // HWY_ONCE
