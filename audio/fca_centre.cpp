#include "audio/fca_centre.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace le::fca {

void averageLayers(const float* audioEmb, int i, float* row) {
  const size_t layer = static_cast<size_t>(kWindowFrames) * kFeat;
  const float* at = audioEmb + static_cast<size_t>(i) * kFeat;
  for (int c = 0; c < kFeat; ++c) {
    float sum = 0.0f;
    for (int l = kFirstLayer; l <= kLastLayer; ++l) sum += at[static_cast<size_t>(l) * layer + static_cast<size_t>(c)];
    row[c] = sum / 6.0f;
  }
}

void energies(const float* emb, int frames, float* energy) {
  for (int t = 0; t < frames; ++t) {
    const float* e = emb + static_cast<size_t>(t) * kFeat;
    double sum = 0.0;
    for (int c = 0; c < kFeat; ++c) sum += static_cast<double>(e[c]) * static_cast<double>(e[c]);
    energy[t] = static_cast<float>(std::sqrt(sum));
  }
}

float gateThreshold(const std::vector<float>& s, int t) {
  if (t < 7) return 0.0f;
  const double p = static_cast<double>(t) * 0.2;
  const size_t lo = static_cast<size_t>(std::floor(p)), hi = static_cast<size_t>(std::ceil(p));
  return s[lo] + (s[hi] - s[lo]) * static_cast<float>(p - static_cast<double>(lo));
}

void centre(const float* emb, const float* energy, int frames, float* cen) {
  std::vector<float> sum(kFeat, 0.0f);
  std::vector<float> sorted;  // energy[0 .. t], kept in order as t grows
  sorted.reserve(static_cast<size_t>(frames));
  int count = 0;
  for (int t = 0; t < frames; ++t) {
    sorted.insert(std::upper_bound(sorted.begin(), sorted.end(), energy[t]), energy[t]);
    const float* e = emb + static_cast<size_t>(t) * kFeat;
    if (energy[t] > gateThreshold(sorted, t)) {
      for (int c = 0; c < kFeat; ++c) sum[static_cast<size_t>(c)] += e[c];
      ++count;
    }
    const float scale = 1.0f / static_cast<float>(std::max(count, 1));
    float* out = cen + static_cast<size_t>(t) * kFeat;
    for (int c = 0; c < kFeat; ++c) {
      const float mean = sum[static_cast<size_t>(c)] * scale;
      out[c] = e[c] - mean;
    }
  }
}

void conditions(const float* cen, int frames, float* cond) {
  for (int t = 0; t < frames; ++t)
    for (int k = 0; k < kCondRows; ++k) {
      const int src = std::clamp(t - 1 + k, 0, frames - 1);
      std::memcpy(cond + (static_cast<size_t>(t) * kCondRows + static_cast<size_t>(k)) * kFeat,
                  cen + static_cast<size_t>(src) * kFeat, kFeat * sizeof(float));
    }
}

}  // namespace le::fca
