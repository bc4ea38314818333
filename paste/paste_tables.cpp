#include "paste/paste_tables.h"

#include <cmath>

namespace le::paste {

namespace {
constexpr int kPhases = 32;
constexpr double kPi = 3.141592653589793;
}  // namespace

std::vector<float> gaussTaps(int ksize, float sigma) {
  const double centre = (ksize - 1) * 0.5;
  const double s = sigma;
  const double denom = (s + s) * s;
  std::vector<double> g(static_cast<size_t>(ksize));
  double sum = 0.0;
  for (int i = 0; i < ksize; ++i) {
    g[i] = std::exp(-((i - centre) * (i - centre)) / denom);
    sum += g[i];
  }
  std::vector<float> out(g.size());
  for (size_t i = 0; i < g.size(); ++i) out[i] = static_cast<float>(g[i] / sum);
  return out;
}

std::vector<float> lanczosTable() {
  // sin((u - t) * -pi/4) and cos of the same, for tap t, written through the
  // angle of tap 0: every tap is tap 0 turned by a multiple of pi/4.
  constexpr double r = 0.7071067811865476;
  constexpr double cs[8][2] = {{1, 0}, {-r, -r}, {0, 1}, {r, -r}, {-1, 0}, {r, r}, {0, -1}, {-r, r}};
  std::vector<float> out(kPhases * 8, 0.0f);
  for (int i = 0; i < kPhases; ++i) {
    const double f = i / 32.0;
    float* row = &out[8 * i];
    if (f < 1e-7) {
      row[3] = 1.0f;
      continue;
    }
    const double u = f + 3;
    const double y0 = u * -kPi * 0.25;
    const double s0 = std::sin(y0), c0 = std::cos(y0);
    double w[8];
    double sum = 0.0;
    for (int t = 0; t < 8; ++t) {
      const double y = (u - t) * -kPi * 0.25;
      w[t] = (cs[t][0] * s0 + cs[t][1] * c0) / (y * y);
    }
    for (int t = 0; t < 8; ++t) sum += w[t];
    for (int t = 0; t < 8; ++t) row[t] = static_cast<float>(w[t] / sum);
  }
  return out;
}

std::vector<float> bilinearTable() {
  std::vector<float> out(kPhases * 2);
  for (int i = 0; i < kPhases; ++i) {
    const double f = i / 32.0;
    out[2 * i] = static_cast<float>(1 - f);
    out[2 * i + 1] = static_cast<float>(f);
  }
  return out;
}

std::vector<float> cubicTable() {
  std::vector<float> out(kPhases * 4);
  for (int i = 0; i < kPhases; ++i) {
    const double f = i / 32.0;
    const double v = f + 1;
    const double g = 1 - f;
    const float c0 = static_cast<float>(v * (v * (v * -0.75 + 3.75) - 6.0) + 3.0);
    const float c1 = static_cast<float>(f * (f * (f * 1.25 - 2.25)) + 1);
    const float c2 = static_cast<float>(g * (g * (g * 1.25 - 2.25)) + 1);
    out[4 * i] = c0;
    out[4 * i + 1] = c1;
    out[4 * i + 2] = c2;
    out[4 * i + 3] = static_cast<float>(1.0 - static_cast<double>(c0) - c1 - c2);
  }
  return out;
}

}  // namespace le::paste
