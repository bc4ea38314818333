// The unsharp mask of the paste as row kernels: a horizontal Gaussian of one
// plane row over its reflected border, a vertical Gaussian of such rows with
// the unsharp step, and the interleave into the warp's 4-float pixels. Every
// lane of every target computes its element as a scalar loop would: products
// rounded before they are added, taps in ascending order from a sum of 0.
#include <algorithm>

#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "paste/paste_unsharp.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include "hwy/highway.h"
#include "paste/paste_kernel.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

int reflect101(int i, int n) {
  if (i < 0) i = -i;
  if (i >= n) i = 2 * n - 2 - i;
  return i;
}

// kBlocks vectors of Gaussian sums, side by side: acc[k] = sum over i
// ascending of g[i] * tap(i)[k*N ..], from 0. The blocks share each tap's
// weight, and their independent sums keep the processor busy.
template <int kBlocks, class D, class Tap>
HWY_INLINE void TapSums(D d, const float* HWY_RESTRICT g, int ksize, const Tap& tap, hn::Vec<D>* acc) {
  const size_t N = hn::Lanes(d);
#pragma GCC unroll 4
  for (int k = 0; k < kBlocks; ++k) acc[k] = hn::Zero(d);
  for (int i = 0; i < ksize; ++i) {
    const auto w = hn::Set(d, g[i]);
    const float* in = tap(i);
#pragma GCC unroll 4
    for (int k = 0; k < kBlocks; ++k) acc[k] = hn::Add(acc[k], hn::Mul(w, hn::LoadU(d, in + k * N)));
  }
}

// The unsharp step of lanes whose vertical sum is acc; plane holds the
// scaled crop values.
template <class D>
HWY_INLINE hn::Vec<D> UnsharpStep(D d, hn::Vec<D> acc, hn::Vec<D> plane, float keep, float amount) {
  const auto v = hn::Sub(hn::Mul(plane, hn::Set(d, keep)), hn::Mul(acc, hn::Set(d, amount)));
  // Below 0 and NaN give 0, above 255 gives 255: the comparisons fail on NaN.
  const auto hi = hn::Set(d, 255.0f);
  return hn::IfThenElseZero(hn::Gt(v, hn::Zero(d)), hn::IfThenElse(hn::Lt(v, hi), v, hi));
}

}  // namespace

void UnsharpRowH(const float* HWY_RESTRICT src, int side, float scale, const float* HWY_RESTRICT g, int ksize,
                 int xa, int n, float* HWY_RESTRICT scratch, float* HWY_RESTRICT out) {
  const hn::ScalableTag<float> d;
  const int N = static_cast<int>(hn::Lanes(d));
  const int pad = ksize / 2;
  const int m = n + ksize - 1;
  // The padded, scaled row: scratch[t] is column xa - pad + t. Columns inside
  // the crop form one run; only the few on either side are reflected.
  const int first = xa - pad;
  const int inLo = std::min(m, std::max(0, -first));
  const int inHi = std::max(inLo, std::min(m, side - first));
  int t = 0;
  for (; t < inLo; ++t) scratch[t] = src[reflect101(first + t, side)] * scale;
  const auto vs = hn::Set(d, scale);
  for (; t + N <= inHi; t += N) hn::StoreU(hn::Mul(hn::LoadU(d, src + first + t), vs), d, scratch + t);
  for (; t < inHi; ++t) scratch[t] = src[first + t] * scale;
  for (; t < m; ++t) scratch[t] = src[reflect101(first + t, side)] * scale;
  for (int k = 0; k < N; ++k) scratch[m + k] = 0.0f;  // the last vector's spare lanes read defined values

  int x = 0;
  for (; x + 4 * N <= n; x += 4 * N) {
    hn::Vec<decltype(d)> acc[4];
    TapSums<4>(d, g, ksize, [&](int i) { return scratch + x + i; }, acc);
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k) hn::StoreU(acc[k], d, out + x + k * N);
  }
  for (; x < n; x += N) {
    hn::Vec<decltype(d)> acc[1];
    TapSums<1>(d, g, ksize, [&](int i) { return scratch + x + i; }, acc);
    hn::StoreU(acc[0], d, out + x);
  }
}

void UnsharpRowV(const float* const* HWY_RESTRICT rows, const float* HWY_RESTRICT g, int ksize,
                 const float* HWY_RESTRICT src, float scale, float keep, float amount, int n,
                 float* HWY_RESTRICT out) {
  const hn::ScalableTag<float> d;
  constexpr int kMax = static_cast<int>(hn::MaxLanes(d));
  const int N = static_cast<int>(hn::Lanes(d));
  const auto vs = hn::Set(d, scale);
  hn::Vec<decltype(d)> acc[4];
  int t = 0;
  for (; t + 4 * N <= n; t += 4 * N) {
    TapSums<4>(d, g, ksize, [&](int i) { return rows[i] + t; }, acc);
#pragma GCC unroll 4
    for (int k = 0; k < 4; ++k)
      hn::StoreU(UnsharpStep(d, acc[k], hn::Mul(hn::LoadU(d, src + t + k * N), vs), keep, amount), d, out + t + k * N);
  }
  for (; t + N <= n; t += N) {
    TapSums<1>(d, g, ksize, [&](int i) { return rows[i] + t; }, acc);
    hn::StoreU(UnsharpStep(d, acc[0], hn::Mul(hn::LoadU(d, src + t), vs), keep, amount), d, out + t);
  }
  if (t < n) {
    // The rows have whole vectors to spare; src and out are staged.
    float in[kMax] = {}, res[kMax];
    for (int k = t; k < n; ++k) in[k - t] = src[k];
    TapSums<1>(d, g, ksize, [&](int i) { return rows[i] + t; }, acc);
    hn::StoreU(UnsharpStep(d, acc[0], hn::Mul(hn::LoadU(d, in), vs), keep, amount), d, res);
    for (int k = t; k < n; ++k) out[k] = res[k - t];
  }
}

void InterleaveRgbx(const float* HWY_RESTRICT r, const float* HWY_RESTRICT g, const float* HWY_RESTRICT b, int n,
                    float* HWY_RESTRICT first, float* HWY_RESTRICT second) {
  const hn::ScalableTag<float> d;
  constexpr int kMax = static_cast<int>(hn::MaxLanes(d));
  const int N = static_cast<int>(hn::Lanes(d));
  const hn::CappedTag<float, 4> d4;
  const int N4 = static_cast<int>(hn::Lanes(d4));
  const auto zero = hn::Zero(d);
  alignas(64) float px[4 * kMax];
  int t = 0;
  for (; t + N <= n; t += N) {
    hn::StoreInterleaved4(hn::LoadU(d, r + t), hn::LoadU(d, g + t), hn::LoadU(d, b + t), zero, d, px);
    for (int k = 0; k < 4 * N; k += N4) {
      const auto v = hn::Load(d4, px + k);
      const int at = 8 * t + 2 * (k - k % 4) + k % 4;
      hn::StoreU(v, d4, first + at);
      hn::StoreU(v, d4, second + at);
    }
  }
  for (; t < n; ++t) {
    const float v[4] = {r[t], g[t], b[t], 0.0f};
    for (int c = 0; c < 4; ++c) first[8 * t + c] = second[8 * t + c] = v[c];
  }
}

// NOLINTNEXTLINE(google-readability-namespace-comments)
}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
namespace le::simd {

HWY_EXPORT(UnsharpRowH);
HWY_EXPORT(UnsharpRowV);
HWY_EXPORT(InterleaveRgbx);

void unsharpRowH(const float* src, int side, float scale, const float* g, int ksize, int xa, int n, float* scratch,
                 float* out) {
  HWY_DYNAMIC_DISPATCH(UnsharpRowH)(src, side, scale, g, ksize, xa, n, scratch, out);
}

void unsharpRowV(const float* const* rows, const float* g, int ksize, const float* src, float scale, float keep,
                 float amount, int n, float* out) {
  HWY_DYNAMIC_DISPATCH(UnsharpRowV)(rows, g, ksize, src, scale, keep, amount, n, out);
}

void interleaveRgbx(const float* r, const float* g, const float* b, int n, float* first, float* second) {
  HWY_DYNAMIC_DISPATCH(InterleaveRgbx)(r, g, b, n, first, second);
}

}  // namespace le::simd
#endif
