// What the driver benchmarks share: synthetic 1280x720 frames that encode
// like camera footage, and per-call timing with allocation counts.
#pragma once

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "bench/alloc_count.h"

namespace le::bench {

constexpr int kW = 1280, kH = 720;

// A frame that encodes like camera footage: smooth light, a few shapes with
// edges, and grain, which is what keeps a JPEG's coefficients busy.
inline std::vector<uint8_t> syntheticFrame(int index) {
  std::vector<uint8_t> rgb(static_cast<size_t>(kW) * kH * 3);
  std::mt19937 rng(1234u + static_cast<unsigned>(index));
  std::normal_distribution<float> grain(0.0f, 4.0f);
  const float cx = 640.0f + 12.0f * index, cy = 330.0f;
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      float r = 70.0f + 90.0f * x / kW + 20.0f * std::sin(y * 0.01f);
      float g = 60.0f + 70.0f * y / kH;
      float b = 90.0f + 40.0f * std::cos(x * 0.004f + index * 0.1f);
      const float dx = (x - cx) / 190.0f, dy = (y - cy) / 240.0f;
      if (dx * dx + dy * dy < 1.0f) {  // a face-sized oval with texture
        r = 200.0f - 40.0f * dy + 10.0f * std::sin(x * 0.2f) * std::sin(y * 0.15f);
        g = 150.0f - 30.0f * dy;
        b = 120.0f;
      }
      if (y > 560 && std::abs(x - cx) < 420.0f - (y - 560) * 0.2f) {  // shoulders, striped cloth
        r = 40.0f + ((x / 6 + y / 9) % 2) * 30.0f;
        g = 50.0f;
        b = 90.0f + ((x / 6) % 3) * 10.0f;
      }
      uint8_t* p = &rgb[(static_cast<size_t>(y) * kW + x) * 3];
      const float c[3] = {r, g, b};
      for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(std::clamp(c[k] + grain(rng), 0.0f, 255.0f));
    }
  }
  return rgb;
}

struct Stats {
  double median, p99, mean;
};

inline Stats statsOf(std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  const auto at = [&](double q) {
    const size_t i = static_cast<size_t>(std::ceil(q * ms.size())) - 1;
    return ms[std::min(i, ms.size() - 1)];
  };
  double sum = 0;
  for (double v : ms) sum += v;
  return {at(0.5), at(0.99), sum / ms.size()};
}

// Runs fn `n` times after `warm` untimed calls; per-call milliseconds, and
// allocations per timed call.
inline std::vector<double> timeCalls(int warm, int n, const std::function<void(int)>& fn, double* allocsPerCall) {
  using Clock = std::chrono::steady_clock;
  for (int i = 0; i < warm; ++i) fn(i);
  std::vector<double> ms;
  ms.reserve(static_cast<size_t>(n));
  const uint64_t a0 = allocations();
  for (int i = 0; i < n; ++i) {
    const auto t0 = Clock::now();
    fn(warm + i);
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  *allocsPerCall = static_cast<double>(allocations() - a0) / n;
  return ms;
}

}  // namespace le::bench
