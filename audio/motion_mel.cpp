#include "audio/motion_mel.h"

#include <cmath>
#include <utility>
#include <vector>

#include "audio/motion.h"

namespace le::motion {

void fftTwiddles(float* re, float* im) {
  constexpr float kTwoPi = 6.28318530717958647692f;
  for (int k = 0; k < kFft / 2; ++k) {
    const float t = static_cast<float>(k) * -kTwoPi / static_cast<float>(kFft);
    re[k] = std::cos(t);
    im[k] = std::sin(t);
  }
}

void fft512(float* re, float* im, const float* twRe, const float* twIm) {
  for (int i = 0, j = 0; i < kFft; ++i) {
    if (i < j) {
      std::swap(re[i], re[j]);
      std::swap(im[i], im[j]);
    }
    int bit = kFft >> 1;
    for (; j & bit; bit >>= 1) j ^= bit;
    j |= bit;
  }
  for (int size = 2; size <= kFft; size <<= 1) {
    const int half = size >> 1;
    const int stride = kFft / size;
    for (int start = 0; start < kFft; start += size) {
      for (int k = 0; k < half; ++k) {
        const float wr = twRe[k * stride], wi = twIm[k * stride];
        const int a = start + k, b = a + half;
        const float tr = wr * re[b] - wi * im[b];
        const float ti = wr * im[b] + wi * re[b];
        re[b] = re[a] - tr;
        im[b] = im[a] - ti;
        re[a] = re[a] + tr;
        im[a] = im[a] + ti;
      }
    }
  }
}

void logMel(const float* slice, const float* window, const float* binmat, const float* twRe, const float* twIm,
            float* mel) {
  // Two pipelines on two threads never share these; each thread sizes them once.
  thread_local std::vector<float> padded(kSlice + 2 * kReflect), re(kFft), im(kFft), mag(kBins), fin(kFft);
  for (int i = 0; i < kReflect; ++i) padded[static_cast<size_t>(i)] = slice[kReflect - i];
  for (int i = 0; i < kSlice; ++i) padded[static_cast<size_t>(kReflect + i)] = slice[i];
  for (int i = 0; i < kReflect; ++i) padded[static_cast<size_t>(kReflect + kSlice + i)] = slice[kSlice - 2 - i];
  for (int t = 0; t < kSpectra; ++t) {
    const float* p = padded.data() + static_cast<size_t>(t) * kHop;
    for (int i = 0; i < kFft; ++i) fin[static_cast<size_t>(i)] = p[i] * window[i];
    for (int i = 0; i < kFft; ++i) {
      re[static_cast<size_t>(i)] = fin[static_cast<size_t>(i)];
      im[static_cast<size_t>(i)] = 0.0f;
    }
    fft512(re.data(), im.data(), twRe, twIm);
    for (int k = 0; k < kBins; ++k) {
      const float r = re[static_cast<size_t>(k)], m = im[static_cast<size_t>(k)];
      mag[static_cast<size_t>(k)] = std::sqrt(r * r + m * m);
    }
    for (int b = 0; b < kMel; ++b) {
      float sum = 0.0f;
      for (int k = 0; k < kBins; ++k) sum += binmat[k * kMel + b] * mag[static_cast<size_t>(k)];
      mel[b * kSpectra + t] = std::log(sum + 1e-8f);
    }
  }
}

}  // namespace le::motion
