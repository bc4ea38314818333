// Times each vector kernel, as dispatched on this processor, against the
// same kernel forced to the baseline copy and against the plain scalar
// reference of the test suite, at the sizes the engine runs it, and checks
// that all of them give the same bits.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "compute/simd.h"
#include "hwy/targets.h"
#include "tests/compute/reference.h"

namespace {

namespace ref = le::test::ref;

// Best time of one call, in milliseconds: the first call (which also warms
// caches and the dispatch table) and repeats until `budget` seconds have
// passed.
double timeMs(const std::function<void()>& fn, double budget) {
  using Clock = std::chrono::steady_clock;
  double best = 1e300;
  const auto start = Clock::now();
  for (;;) {
    const auto t0 = Clock::now();
    fn();
    const auto t1 = Clock::now();
    best = std::min(best, std::chrono::duration<double, std::milli>(t1 - t0).count());
    if (std::chrono::duration<double>(t1 - start).count() > budget) break;
  }
  return best;
}

void forceTarget(std::int64_t bit) {
  hwy::SetSupportedTargetsForTest(bit);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
}

// kernel() writes the kernel's output, reference() the reference's, and
// check() tells whether the two hold the same bits.
// The worst compiled target: Highway's static baseline, where a processor
// without any of the better targets lands.
std::int64_t baselineTarget() {
  std::int64_t bits = le::simd::compiledTargets();
  while ((bits & (bits - 1)) != 0) bits &= bits - 1;
  return bits;
}

void measure(const char* name, const char* size, const std::function<void()>& kernel,
             const std::function<void()>& reference, const std::function<bool()>& check) {
  const double budget = 0.3;
  const double r = timeMs(reference, budget);
  forceTarget(baselineTarget());
  const double base = timeMs(kernel, budget);
  const bool sameBase = check();
  forceTarget(0);
  const double k = timeMs(kernel, budget);
  const bool same = check();
  std::printf("%-23s %-27s %9.3f %11.3f %10.3f %8.1fx %8.1fx  %s\n", name, size, k, base, r, r / k,
              base / k, same && sameBase ? "identical" : "DIFFERENT");
}

template <class T>
bool sameBytes(const std::vector<T>& a, const std::vector<T>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(T)) == 0;
}

}  // namespace

int main() {
  std::printf("processor's best target %s; kernels dispatched to %s; baseline copy %s; one thread\n",
              le::simd::target(), le::simd::targetName(le::simd::dispatchedTarget()),
              le::simd::targetName(baselineTarget()));
  std::printf("%-23s %-27s %9s %11s %10s %9s %9s\n", "kernel", "size", "kernel ms", "baseline ms",
              "scalar ms", "scalar/k", "base/k");
  std::mt19937 rng(1);
  const auto uniform = [&](float lo, float hi) { return std::uniform_real_distribution<float>(lo, hi)(rng); };

  // Half conversions of a 512x512x3 image.
  const std::size_t px = 512 * 512;
  const std::size_t img = px * 3;
  std::vector<float> f(img), g(img), outK(img), outR(img);
  for (auto& x : f) x = uniform(-2.0f, 2.0f);
  for (auto& x : g) x = uniform(-0.05f, 1.05f);
  std::vector<std::uint16_t> hK(img), hR(img);
  measure(
      "f32ToF16", "512x512x3", [&] { le::simd::f32ToF16(f.data(), hK.data(), img); },
      [&] { ref::f32ToF16(f.data(), hR.data(), img); }, [&] { return sameBytes(hK, hR); });
  measure(
      "f16ToF32", "512x512x3", [&] { le::simd::f16ToF32(hR.data(), outK.data(), img); },
      [&] { ref::f16ToF32(hR.data(), outR.data(), img); }, [&] { return sameBytes(outK, outR); });
  measure(
      "roundF16Mul", "512x512x3", [&] { le::simd::roundF16Mul(f.data(), g.data(), outK.data(), img); },
      [&] { ref::roundF16Mul(f.data(), g.data(), outR.data(), img); },
      [&] { return sameBytes(outK, outR); });

  std::vector<std::uint8_t> rgb(img);
  for (auto& b : rgb) b = static_cast<std::uint8_t>(rng());
  measure(
      "rgb8ToPlanarF16", "512x512 pixels", [&] { le::simd::rgb8ToPlanarF16(rgb.data(), hK.data(), px, px); },
      [&] { ref::rgb8ToPlanarF16(rgb.data(), hR.data(), px, px); }, [&] { return sameBytes(hK, hR); });

  std::vector<std::uint8_t> bK(img), bR(img);
  measure(
      "quantU8Strided3", "3 planes of 512x512",
      [&] {
        for (std::size_t c = 0; c < 3; ++c) le::simd::quantU8Strided3(g.data() + c * px, bK.data() + c, px);
      },
      [&] {
        for (std::size_t c = 0; c < 3; ++c) ref::quantU8Strided3(g.data() + c * px, bR.data() + c, px);
      },
      [&] { return sameBytes(bK, bR); });

  {
    const int w = 512, h = 512;
    std::vector<std::uint8_t> y(px), u(px / 4), v(px / 4);
    for (auto& b : y) b = static_cast<std::uint8_t>(rng());
    for (auto& b : u) b = static_cast<std::uint8_t>(rng());
    for (auto& b : v) b = static_cast<std::uint8_t>(rng());
    const auto frame = [&](auto row, std::vector<std::uint8_t>& out) {
      for (int r = 0; r < h; ++r) {
        const std::size_t c = static_cast<std::size_t>(r / 2) * (w / 2);
        row(y.data() + static_cast<std::size_t>(r) * w, u.data() + c, v.data() + c, w, 1,
            out.data() + static_cast<std::size_t>(r) * w * 3);
      }
    };
    measure(
        "yuv420RowToRgb24", "512 rows of 512", [&] { frame(le::simd::yuv420RowToRgb24, bK); },
        [&] { frame(ref::yuv420RowToRgb24, bR); }, [&] { return sameBytes(bK, bR); });
  }

  {
    const int cin = 64, cout = 64, H = 48, W = 64;
    std::vector<float> in(static_cast<std::size_t>(cin) * H * W);
    std::vector<float> wts(static_cast<std::size_t>(cout) * cin * 9), bias(cout);
    for (auto& x : in) x = uniform(-1.0f, 1.0f);
    for (auto& x : wts) x = uniform(-0.1f, 0.1f);
    for (auto& x : bias) x = uniform(-0.1f, 0.1f);
    std::vector<float> oK(static_cast<std::size_t>(cout) * H * W), oR(oK.size());
    measure(
        "conv3x3Range", "64 channels of 64x48 -> 64",
        [&] { le::simd::conv3x3Range(in.data(), 1, cin, H, W, wts.data(), bias.data(), cout, oK.data(), 0, cout); },
        [&] { ref::conv3x3Range(in.data(), cin, H, W, wts.data(), bias.data(), cout, oR.data(), 0, cout); },
        [&] { return sameBytes(oK, oR); });
  }

  {
    const std::size_t donors = 1024, n = 128 * 96;
    std::vector<std::uint16_t> query(3 * n), bank(donors * 3 * n), wh(n);
    std::vector<float> wf(n);
    for (auto& x : query) x = static_cast<std::uint16_t>(0x2000 + rng() % 0x1c00);
    for (auto& x : bank) x = static_cast<std::uint16_t>(0x2000 + rng() % 0x1c00);
    for (std::size_t i = 0; i < n; ++i) {
      wh[i] = static_cast<std::uint16_t>(0x3000 + rng() % 0x0c00);
      wf[i] = (i % 7 == 0) ? 0.0f : uniform(0.0f, 1.0f);
    }
    std::vector<float> tK(donors), tR(donors);
    measure(
        "retrieveTermPooled", "1024 donors of 128x96",
        [&] {
          for (std::size_t d = 0; d < donors; ++d) {
            tK[d] = le::simd::retrieveTermPooled(query.data(), bank.data() + d * 3 * n, wh.data(), n);
          }
        },
        [&] {
          for (std::size_t d = 0; d < donors; ++d) {
            tR[d] = ref::retrieveTermPooled(query.data(), bank.data() + d * 3 * n, wh.data(), n);
          }
        },
        [&] { return sameBytes(tK, tR); });
    measure(
        "retrieveTermExactRange", "1024 donors of 128x96",
        [&] {
          for (std::size_t d = 0; d < donors; ++d) {
            tK[d] = le::simd::retrieveTermExactRange(query.data(), bank.data() + d * 3 * n, wf.data(), n, 0, n);
          }
        },
        [&] {
          for (std::size_t d = 0; d < donors; ++d) {
            tR[d] = ref::retrieveTermExactRange(query.data(), bank.data() + d * 3 * n, wf.data(), n, 0, n);
          }
        },
        [&] { return sameBytes(tK, tR); });
  }
  return 0;
}
