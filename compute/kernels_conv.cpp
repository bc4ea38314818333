// The 3x3 convolution kernel: conv3x3Range.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/kernels_conv.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

#include "hwy/highway.h"

#ifndef LE_COMPUTE_KERNELS_CONV_ONCE_
#define LE_COMPUTE_KERNELS_CONV_ONCE_
namespace le::simd::detail {
// This thread's padded copy of the image being convolved. One buffer serves
// every target; it grows and never shrinks, so the frame path allocates only
// until the largest image has been seen.
std::vector<float>& convImage();
}  // namespace le::simd::detail
#endif

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

// Columns per block: four accumulators of four floats per output channel,
// whatever the vector width.
constexpr size_t kCols = 16;

struct ConvShape {
  size_t cin;
  size_t H;
  size_t W;
  size_t stride;  // row stride of the padded copy
  size_t plane;   // floats per channel of the padded copy
};

// Copies one image into the padded layout: column x of a row sits at x + 1,
// with zeros at 0 and from W + 1 to the end of the row, so that a block of
// columns can read its left and right neighbours without bounds tests.
void LoadImage(const ConvShape& s, const float* HWY_RESTRICT src, float* HWY_RESTRICT dst) {
  for (size_t ic = 0; ic < s.cin; ++ic) {
    for (size_t y = 0; y < s.H; ++y) {
      float* row = dst + ic * s.plane + y * s.stride;
      row[0] = 0.0f;
      std::memcpy(row + 1, src + (ic * s.H + y) * s.W, s.W * sizeof(float));
      for (size_t x = s.W + 1; x < s.stride; ++x) row[x] = 0.0f;
    }
  }
}

// One pixel with the taps outside the image skipped, as the definition has
// it. The padded blocks read zeros there instead; for finite weights the
// product is a zero that leaves the sum unchanged (the sum starts at +0 and
// never becomes -0), but a zero times an infinite or NaN weight is NaN.
float EdgePixel(const ConvShape& s, const float* HWY_RESTRICT img, const float* HWY_RESTRICT w,
                float bias, size_t y, size_t x) {
  float acc = 0.0f;
  for (size_t ky = 0; ky < 3; ++ky) {
    if (y + ky < 1 || y + ky - 1 >= s.H) continue;
    const size_t iy = y + ky - 1;
    for (size_t kx = 0; kx < 3; ++kx) {
      if (x + kx < 1 || x + kx - 1 >= s.W) continue;
      const size_t col = x + kx;  // padded column of x + kx - 1
      for (size_t ic = 0; ic < s.cin; ++ic) {
        const float prod = img[ic * s.plane + iy * s.stride + col] * w[ic * 9 + ky * 3 + kx];
        acc = acc + prod;
      }
    }
  }
  return acc + bias;
}

bool AllFinite(const float* w, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    if (!std::isfinite(w[i])) return false;
  }
  return true;
}

// kOc output channels (1 or 4) of one image, all rows, all columns. Every
// accumulator lane is one pixel of one channel and takes its taps in the
// defined order (ky, then kx, then ic), so the blocking shows in no result.
template <size_t kOc>
void ConvPlanes(const ConvShape& s, const float* HWY_RESTRICT img, const float* HWY_RESTRICT w,
                const float* HWY_RESTRICT bias, float* HWY_RESTRICT out) {
  const hn::ScalableTag<float> df;
  using V = hn::Vec<decltype(df)>;
  constexpr size_t kN = hn::MaxLanes(df) < kCols ? hn::MaxLanes(df) : kCols;
  constexpr size_t kV = kCols / kN;
  const size_t wPerOc = s.cin * 9;
  const size_t hw = s.H * s.W;
  for (size_t y = 0; y < s.H; ++y) {
    for (size_t x0 = 0; x0 < s.W; x0 += kCols) {
      // The block loops are unrolled so that the accumulators live in
      // registers over the whole ic loop.
      V acc[kOc][kV];
#pragma GCC unroll 4
      for (size_t o = 0; o < kOc; ++o) {
#pragma GCC unroll 16
        for (size_t v = 0; v < kV; ++v) acc[o][v] = hn::Zero(df);
      }
      for (size_t ky = 0; ky < 3; ++ky) {
        if (y + ky < 1 || y + ky - 1 >= s.H) continue;
        const float* row = img + (y + ky - 1) * s.stride + x0;
        for (size_t kx = 0; kx < 3; ++kx) {
          const float* tap = row + kx;
          const float* wt = w + ky * 3 + kx;
          for (size_t ic = 0; ic < s.cin; ++ic) {
            const float* src = tap + ic * s.plane;
            V x[kV];
#pragma GCC unroll 16
            for (size_t v = 0; v < kV; ++v) x[v] = hn::LoadU(df, src + v * kN);
#pragma GCC unroll 4
            for (size_t o = 0; o < kOc; ++o) {
              const V wv = hn::Set(df, wt[o * wPerOc + ic * 9]);
#pragma GCC unroll 16
              for (size_t v = 0; v < kV; ++v) acc[o][v] = hn::Add(acc[o][v], hn::Mul(x[v], wv));
            }
          }
        }
      }
      const size_t cols = s.W - x0 < kCols ? s.W - x0 : kCols;
#pragma GCC unroll 4
      for (size_t o = 0; o < kOc; ++o) {
        const V b = hn::Set(df, bias[o]);
        float* dst = out + o * hw + y * s.W + x0;
        if (cols == kCols) {
          for (size_t v = 0; v < kV; ++v) hn::StoreU(hn::Add(acc[o][v], b), df, dst + v * kN);
        } else {
          float tmp[kCols];
          for (size_t v = 0; v < kV; ++v) hn::StoreU(hn::Add(acc[o][v], b), df, tmp + v * kN);
          for (size_t j = 0; j < cols; ++j) dst[j] = tmp[j];
        }
      }
    }
  }
  for (size_t o = 0; o < kOc; ++o) {
    const float* wo = w + o * wPerOc;
    if (AllFinite(wo, wPerOc)) continue;
    float* dst = out + o * hw;
    for (size_t y = 0; y < s.H; ++y) {
      dst[y * s.W] = EdgePixel(s, img, wo, bias[o], y, 0);
      dst[y * s.W + s.W - 1] = EdgePixel(s, img, wo, bias[o], y, s.W - 1);
    }
  }
}

}  // namespace

void Conv3x3Range(const float* HWY_RESTRICT in, int batch, int cin, int H, int W,
                  const float* HWY_RESTRICT weights, const float* HWY_RESTRICT bias, int cout,
                  float* HWY_RESTRICT out, int lo, int hi) {
  (void)batch;  // the range already says which images to read
  if (lo >= hi || cin < 0 || H <= 0 || W <= 0 || cout <= 0) return;
  ConvShape s;
  s.cin = static_cast<size_t>(cin);
  s.H = static_cast<size_t>(H);
  s.W = static_cast<size_t>(W);
  s.stride = ((s.W + 15) & ~static_cast<size_t>(15)) + 2;
  s.plane = s.H * s.stride;
  std::vector<float>& image = detail::convImage();
  if (image.size() < s.cin * s.plane) image.resize(s.cin * s.plane);
  const size_t hw = s.H * s.W;
  const size_t nOut = static_cast<size_t>(cout);
  size_t current = SIZE_MAX;
  for (size_t k = static_cast<size_t>(lo); k < static_cast<size_t>(hi);) {
    const size_t n = k / nOut;
    const size_t oc = k % nOut;
    if (n != current) {
      LoadImage(s, in + n * s.cin * hw, image.data());
      current = n;
    }
    const size_t left = std::min(static_cast<size_t>(hi) - k, nOut - oc);
    const float* w = weights + oc * s.cin * 9;
    if (left >= 4) {
      ConvPlanes<4>(s, image.data(), w, bias + oc, out + k * hw);
      k += 4;
    } else {
      ConvPlanes<1>(s, image.data(), w, bias + oc, out + k * hw);
      k += 1;
    }
  }
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"

namespace le::simd {

namespace detail {
std::vector<float>& convImage() {
  thread_local std::vector<float> image;
  return image;
}
}  // namespace detail

HWY_EXPORT(Conv3x3Range);

void conv3x3Range(const float* in, int batch, int cin, int H, int W, const float* weights,
                  const float* bias, int cout, float* out, int lo, int hi) {
  HWY_DYNAMIC_DISPATCH(Conv3x3Range)(in, batch, cin, H, W, weights, bias, cout, out, lo, hi);
}

}  // namespace le::simd
#endif  // HWY_ONCE
