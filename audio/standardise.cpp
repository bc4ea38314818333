#include "audio/standardise.h"

#include <cmath>

namespace le {

void standardise(float* x, std::size_t n) {
  if (n == 0) return;
  double sum = 0.0;
  for (std::size_t i = 0; i < n; ++i) sum += static_cast<double>(x[i]);
  const double mean = sum / static_cast<double>(n);
  double sq = 0.0;
  for (std::size_t i = 0; i < n; ++i) {
    const double d = static_cast<double>(x[i]) - mean;
    sq += d * d;
  }
  const double var = sq / static_cast<double>(n);
  const float inv = 1.0f / std::sqrt(static_cast<float>(var) + 1e-7f);
  const double scale = static_cast<double>(inv);
  for (std::size_t i = 0; i < n; ++i) x[i] = static_cast<float>((static_cast<double>(x[i]) - mean) * scale);
}

}  // namespace le
