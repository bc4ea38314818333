// Every vector kernel against the scalar reference, bit for bit, on every
// compiled target the processor can run, and cut across the pool's threads
// as the engine cuts them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include "compute/pool.h"
#include "compute/simd.h"
#include "tests/compute/reference.h"
#include "tests/compute/samples.h"
#include "tests/compute/targets.h"

namespace le::test {
namespace {

constexpr std::uint16_t kHalfGuard = 0xdead;
constexpr std::uint8_t kByteGuard = 0xa5;
const float kFloatGuard = floatFromBits(0x7fa5a5a5);

TEST(KernelTargets, DispatchReachesEachTargetAndNamesIt) {
  const std::vector<std::int64_t> targets = targetsToTest();
  ASSERT_FALSE(targets.empty());
  // Without a forced target, dispatch takes the best compiled target the
  // processor supports.
  hwy::SetSupportedTargetsForTest(0);
  const std::int64_t runnable = le::simd::compiledTargets() & hwy::SupportedTargets();
  EXPECT_EQ(le::simd::dispatchedTarget(), runnable & -runnable);
  const std::int64_t supported = hwy::SupportedTargets();
  EXPECT_STREQ(le::simd::target(), le::simd::targetName(supported & -supported));
  EXPECT_STREQ(le::simd::targetName(HWY_AVX2), "AVX2");
  EXPECT_STREQ(le::simd::targetName(HWY_SCALAR), "SCALAR");
  EXPECT_STREQ(le::simd::targetName(INT64_MIN), "Unknown");
  std::string names;
  for (const std::int64_t bit : targets) names += std::string(" ") + le::simd::targetName(bit);
  std::printf("kernel targets tested on this processor:%s\n", names.c_str());
  forEachTarget([] {});
}

TEST(Kernels, F32ToF16MatchesReference) {
  forEachTarget([] {
    for (const std::size_t n : testLengths()) {
      // Offset by one element so that no load is aligned.
      const std::vector<float> src = mixedFloats(n + 1, static_cast<std::uint32_t>(n));
      std::vector<std::uint16_t> got(n + 2, kHalfGuard);
      std::vector<std::uint16_t> want(n);
      le::simd::f32ToF16(src.data() + 1, got.data() + 1, n);
      ref::f32ToF16(src.data() + 1, want.data(), n);
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_EQ(got[i + 1], want[i]) << "n " << n << " i " << i << " x " << hexBits(src[i + 1]);
      }
      ASSERT_EQ(got[0], kHalfGuard);
      ASSERT_EQ(got[n + 1], kHalfGuard) << "wrote past the end, n " << n;
    }
  });
}

TEST(Kernels, F32ToF16EveryRoundingBoundary) {
  // Each finite half, its neighbours and the midpoints to the next half.
  std::vector<float> src;
  for (std::uint32_t h = 0; h < 0x7c00; ++h) {
    const float v = ref::wide(static_cast<std::uint16_t>(h));
    const float next = ref::wide(static_cast<std::uint16_t>(h + 1));
    const float m = static_cast<float>(std::isinf(next) ? 65520.0 : (double(v) + next) / 2.0);
    for (const float x : {v, m, std::nextafter(m, 0.0f), std::nextafter(m, INFINITY)}) {
      src.push_back(x);
      src.push_back(-x);
    }
  }
  std::vector<std::uint16_t> want(src.size());
  ref::f32ToF16(src.data(), want.data(), src.size());
  forEachTarget([&] {
    std::vector<std::uint16_t> got(src.size());
    le::simd::f32ToF16(src.data(), got.data(), src.size());
    for (std::size_t i = 0; i < src.size(); ++i) {
      ASSERT_EQ(got[i], want[i]) << hexBits(src[i]);
    }
  });
}

TEST(Kernels, F32ToF16EdgeCases) {
  forEachTarget([] {
    const float x[] = {65520.0f, std::ldexp(1.0f, -25), std::nanf(""), -std::nanf(""),
                       floatFromBits(0x7f800001), 1e-7f};
    std::uint16_t h[6];
    le::simd::f32ToF16(x, h, 6);
    EXPECT_EQ(h[0], 0x7c00);  // overflow to infinity
    EXPECT_EQ(h[1], 0x0000);  // tie to even: zero
    EXPECT_EQ(h[2] & 0x7e00, 0x7e00);  // a quiet NaN
    EXPECT_EQ(h[3] & 0xfe00, 0xfe00);  // a quiet NaN, sign kept
    EXPECT_EQ(h[4], 0x7e00);  // a signalling NaN comes out quiet
    EXPECT_EQ(h[5], 0x0002);  // 1e-7 stays a subnormal
  });
}

TEST(Kernels, F16ToF32EveryHalf) {
  std::vector<std::uint16_t> all(65536 + 5);
  for (std::size_t i = 0; i < all.size(); ++i) all[i] = static_cast<std::uint16_t>(i * 40503u);
  for (std::uint32_t h = 0; h < 65536; ++h) all[h] = static_cast<std::uint16_t>(h);
  forEachTarget([&] {
    for (const std::size_t n : testLengths()) {
      const std::vector<std::uint16_t> src = mixedHalves(n + 1, static_cast<std::uint32_t>(n));
      std::vector<float> got(n + 2, kFloatGuard);
      le::simd::f16ToF32(src.data() + 1, got.data() + 1, n);
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_TRUE(sameFloatBits(got[i + 1], ref::wide(src[i + 1]))) << "n " << n << " i " << i;
      }
      ASSERT_TRUE(sameFloatBits(got[n + 1], kFloatGuard));
    }
    std::vector<float> got(all.size());
    le::simd::f16ToF32(all.data(), got.data(), all.size());
    for (std::size_t i = 0; i < all.size(); ++i) {
      ASSERT_TRUE(sameFloatBits(got[i], ref::wide(all[i])))
          << hexHalf(all[i]) << " gave " << hexBits(got[i]);
    }
  });
}

TEST(Kernels, RoundF16MulMatchesReference) {
  forEachTarget([] {
    for (const std::size_t n : testLengths()) {
      const std::vector<float> a = mixedFloats(n, 100 + static_cast<std::uint32_t>(n));
      const std::vector<float> b = mixedFloats(n, 200 + static_cast<std::uint32_t>(n));
      std::vector<float> got(n + 1, kFloatGuard);
      std::vector<float> want(n);
      le::simd::roundF16Mul(a.data(), b.data(), got.data(), n);
      ref::roundF16Mul(a.data(), b.data(), want.data(), n);
      for (std::size_t i = 0; i < n; ++i) {
        ASSERT_TRUE(sameFloatValue(got[i], want[i]))
            << "n " << n << " i " << i << " a " << hexBits(a[i]) << " b " << hexBits(b[i])
            << " got " << hexBits(got[i]) << " want " << hexBits(want[i]);
      }
      ASSERT_TRUE(sameFloatBits(got[n], kFloatGuard));
    }
    // 1e-7 survives as a subnormal half rather than flushing to zero.
    const float a = 1e-7f, b = 1.0f;
    float out = 0.0f;
    le::simd::roundF16Mul(&a, &b, &out, 1);
    EXPECT_EQ(out, std::ldexp(2.0f, -24));
  });
}

// Three planes of n halves for a and b and one plane of weights: mostly
// ordinary values, with some swapped for awkward ones when `awkward` is set.
struct RetrievalInput {
  std::vector<std::uint16_t> a, b, wh;
  std::vector<float> wf;
};

RetrievalInput retrievalInput(std::size_t n, std::uint32_t seed, bool awkward) {
  std::mt19937 rng(seed);
  RetrievalInput in;
  in.a.resize(3 * n);
  in.b.resize(3 * n);
  in.wh.resize(n);
  in.wf.resize(n);
  const auto ordinary = [&] { return static_cast<std::uint16_t>(0x2000 + rng() % 0x2000); };
  for (auto& h : in.a) h = ordinary();
  for (auto& h : in.b) h = ordinary();
  for (std::size_t i = 0; i < n; ++i) {
    in.wh[i] = static_cast<std::uint16_t>(0x3000 + rng() % 0x1000);
    in.wf[i] = std::uniform_real_distribution<float>(0.0f, 2.0f)(rng);
    if (rng() % 5 == 0) in.wf[i] = 0.0f;
  }
  if (awkward) {
    const std::vector<std::uint16_t> odd = mixedHalves(8 * n + 8, seed ^ 0x5555u);
    const std::vector<float> oddF = mixedFloats(n + 1, seed ^ 0xaaaau);
    for (std::size_t i = 0; i < 3 * n; ++i) {
      if (rng() % 3 == 0) in.a[i] = odd[i];
      if (rng() % 3 == 0) in.b[i] = odd[3 * n + i];
    }
    for (std::size_t i = 0; i < n; ++i) {
      if (rng() % 3 == 0) in.wh[i] = odd[6 * n + i];
      if (rng() % 4 == 0) in.wf[i] = oddF[i];
    }
  }
  return in;
}

TEST(Kernels, RetrieveTermPooledMatchesReference) {
  forEachTarget([] {
    for (const bool awkward : {false, true}) {
      for (const std::size_t n : testLengths()) {
        const RetrievalInput in = retrievalInput(n, 300 + static_cast<std::uint32_t>(n), awkward);
        const float got = le::simd::retrieveTermPooled(in.a.data(), in.b.data(), in.wh.data(), n);
        const float want = ref::retrieveTermPooled(in.a.data(), in.b.data(), in.wh.data(), n);
        if (awkward) {
          ASSERT_TRUE(sameFloatValue(got, want)) << "n " << n << " got " << hexBits(got) << " want " << hexBits(want);
        } else {
          ASSERT_TRUE(sameFloatBits(got, want)) << "n " << n << " got " << got << " want " << want;
        }
      }
    }
  });
}

TEST(Kernels, RetrievalSumsInElementOrder) {
  // Terms over a wide range of magnitudes, so that the float sum rounds at
  // almost every step: summing lanes in any other order than element by
  // element changes the result.
  const std::size_t n = 128 * 96 + 5;
  RetrievalInput in = retrievalInput(n, 42, false);
  std::mt19937 rng(43);
  for (std::size_t i = 0; i < n; ++i) {
    in.wh[i] = static_cast<std::uint16_t>(0x0800 + rng() % 0x4800);
    in.wf[i] = std::ldexp(std::uniform_real_distribution<float>(1.0f, 2.0f)(rng),
                          static_cast<int>(rng() % 24) - 16);
  }
  const float wantPooled = ref::retrieveTermPooled(in.a.data(), in.b.data(), in.wh.data(), n);
  const float wantExact = ref::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, 0, n);
  forEachTarget([&] {
    const float pooled = le::simd::retrieveTermPooled(in.a.data(), in.b.data(), in.wh.data(), n);
    const float exact = le::simd::retrieveTermExact(in.a.data(), in.b.data(), in.wf.data(), n);
    EXPECT_TRUE(sameFloatBits(pooled, wantPooled)) << pooled << " vs " << wantPooled;
    EXPECT_TRUE(sameFloatBits(exact, wantExact)) << exact << " vs " << wantExact;
  });
}

TEST(Kernels, RetrieveTermExactMatchesReferenceOverRanges) {
  forEachTarget([] {
    for (const bool awkward : {false, true}) {
      for (const std::size_t n : testLengths()) {
        const RetrievalInput in = retrievalInput(n, 400 + static_cast<std::uint32_t>(n), awkward);
        const auto check = [&](std::size_t i0, std::size_t i1) {
          const float got =
              le::simd::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, i0, i1);
          const float want =
              ref::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, i0, i1);
          ASSERT_TRUE(awkward ? sameFloatValue(got, want) : sameFloatBits(got, want))
              << "n " << n << " [" << i0 << ", " << i1 << ") got " << hexBits(got) << " want "
              << hexBits(want);
        };
        check(0, n);
        check(n / 3, n);
        check(n / 5, n - n / 4);
        check(n / 2, n / 2);
        const float whole = le::simd::retrieveTermExact(in.a.data(), in.b.data(), in.wf.data(), n);
        const float want = ref::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, 0, n);
        ASSERT_TRUE(awkward ? sameFloatValue(whole, want) : sameFloatBits(whole, want));
      }
    }
  });
}

TEST(Kernels, RetrieveTermExactEdgeCases) {
  forEachTarget([] {
    const std::size_t n = 21;
    RetrievalInput in = retrievalInput(n, 11, false);
    EXPECT_EQ(le::simd::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, 7, 7), 0.0f);
    // Infinite differences under zero weights add nothing; the sum stays
    // finite.
    for (const std::size_t i : {0u, 5u, 13u, 20u}) {
      in.a[i] = 0x7c00;      // +inf in plane 0
      in.b[n + i] = 0xfc00;  // -inf in plane 1
      in.a[2 * n + i] = 0x7e00;  // NaN in plane 2
      in.wf[i] = (i == 5) ? -0.0f : 0.0f;
    }
    const float got = le::simd::retrieveTermExact(in.a.data(), in.b.data(), in.wf.data(), n);
    EXPECT_TRUE(std::isfinite(got));
    EXPECT_TRUE(sameFloatBits(got, ref::retrieveTermExactRange(in.a.data(), in.b.data(), in.wf.data(), n, 0, n)));
  });
}

TEST(Kernels, Rgb8ToPlanarF16MatchesReference) {
  forEachTarget([] {
    for (const std::size_t n : testLengths()) {
      std::vector<std::uint8_t> rgb(3 * n + 3);
      for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>(i * 7 + n);
      const std::size_t stride = n + 3;  // room for guards between the planes
      std::vector<std::uint16_t> got(3 * stride, kHalfGuard);
      std::vector<std::uint16_t> want(3 * stride, kHalfGuard);
      le::simd::rgb8ToPlanarF16(rgb.data() + 3, got.data(), stride, n);
      ref::rgb8ToPlanarF16(rgb.data() + 3, want.data(), stride, n);
      ASSERT_EQ(got, want) << "n " << n;
    }
    // Every byte value in every channel position.
    std::vector<std::uint8_t> rgb(3 * 256);
    for (std::size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<std::uint8_t>((i * 85) % 256 + i / 3);
    for (std::size_t i = 0; i < 256; ++i) rgb[3 * i] = static_cast<std::uint8_t>(i);
    std::vector<std::uint16_t> got(3 * 256), want(3 * 256);
    le::simd::rgb8ToPlanarF16(rgb.data(), got.data(), 256, 256);
    ref::rgb8ToPlanarF16(rgb.data(), want.data(), 256, 256);
    ASSERT_EQ(got, want);
  });
}

// The float v nearest to target / 255 whose product v * 255.0f is exactly
// target, or NaN if no float has that product.
float productExactly(float target) {
  float v = target / 255.0f;
  for (int step = 0; step < 8; ++step) {
    if (v * 255.0f == target) return v;
    v = (v * 255.0f < target) ? std::nextafter(v, INFINITY) : std::nextafter(v, 0.0f);
  }
  return std::nanf("");
}

TEST(Kernels, QuantU8Strided3MatchesReference) {
  forEachTarget([] {
    for (const std::size_t n : testLengths()) {
      std::vector<float> src = mixedFloats(n, 500 + static_cast<std::uint32_t>(n));
      std::mt19937 rng(static_cast<std::uint32_t>(n));
      for (auto& x : src) {
        if (rng() % 2) x = std::uniform_real_distribution<float>(-0.1f, 1.1f)(rng);
      }
      std::vector<std::uint8_t> got(3 * n + 3, kByteGuard);
      std::vector<std::uint8_t> want(3 * n + 3, kByteGuard);
      le::simd::quantU8Strided3(src.data(), got.data(), n);
      ref::quantU8Strided3(src.data(), want.data(), n);
      ASSERT_EQ(got, want) << "n " << n;  // includes the untouched bytes between
    }
    // Products of exactly k + 0.5 round to even.
    std::vector<float> ties;
    for (int k = 0; k < 255; ++k) {
      const float v = productExactly(static_cast<float>(k) + 0.5f);
      if (!std::isnan(v)) ties.push_back(v);
    }
    ASSERT_GT(ties.size(), 100u);
    std::vector<std::uint8_t> got(3 * ties.size(), kByteGuard), want(3 * ties.size(), kByteGuard);
    le::simd::quantU8Strided3(ties.data(), got.data(), ties.size());
    ref::quantU8Strided3(ties.data(), want.data(), ties.size());
    ASSERT_EQ(got, want);
    const float edge[] = {productExactly(0.5f), productExactly(1.5f), 2.0f, -0.25f, std::nanf(""),
                          -0.0f, 1.0f};
    std::uint8_t out[21];
    std::fill(out, out + 21, kByteGuard);
    le::simd::quantU8Strided3(edge, out, 7);
    EXPECT_EQ(out[0], 0);    // 0.5 to even
    EXPECT_EQ(out[3], 2);    // 1.5 to even
    EXPECT_EQ(out[6], 255);  // above 1 clamps
    EXPECT_EQ(out[9], 0);    // negative
    EXPECT_EQ(out[12], 0);   // NaN
    EXPECT_EQ(out[15], 0);
    EXPECT_EQ(out[18], 255);
    EXPECT_EQ(out[1], kByteGuard);
    EXPECT_EQ(out[20], kByteGuard);
  });
}

struct ConvCase {
  int batch, cin, H, W, cout;
};

struct ConvData {
  std::vector<float> in, weights, bias;
};

ConvData convData(const ConvCase& c, std::uint32_t seed, bool awkward) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  ConvData d;
  d.in.resize(static_cast<std::size_t>(c.batch) * c.cin * c.H * c.W);
  d.weights.resize(static_cast<std::size_t>(c.cout) * c.cin * 9);
  d.bias.resize(static_cast<std::size_t>(c.cout));
  for (auto& x : d.in) x = dist(rng);
  for (auto& x : d.weights) x = dist(rng);
  for (auto& x : d.bias) x = dist(rng);
  if (awkward) {
    const std::vector<float> odd = awkwardFloats();
    for (auto& x : d.in) {
      if (rng() % 16 == 0) x = odd[rng() % odd.size()];
    }
    // A non-finite weight in some output channels meets the zero padding at
    // the left and right edges.
    for (std::size_t i = 0; i < d.weights.size(); i += 1 + rng() % 40) {
      d.weights[i] = odd[rng() % odd.size()];
    }
  }
  return d;
}

void checkConv(const ConvCase& c, const ConvData& d, int lo, int hi, bool awkward) {
  const std::size_t plane = static_cast<std::size_t>(c.H) * c.W;
  const std::size_t total = static_cast<std::size_t>(c.batch) * c.cout * plane;
  std::vector<float> got(total, kFloatGuard);
  std::vector<float> want(total, kFloatGuard);
  le::simd::conv3x3Range(d.in.data(), c.batch, c.cin, c.H, c.W, d.weights.data(), d.bias.data(),
                         c.cout, got.data(), lo, hi);
  ref::conv3x3Range(d.in.data(), c.cin, c.H, c.W, d.weights.data(), d.bias.data(), c.cout,
                    want.data(), lo, hi);
  for (std::size_t i = 0; i < total; ++i) {
    const bool same = awkward ? sameFloatValue(got[i], want[i]) : sameFloatBits(got[i], want[i]);
    ASSERT_TRUE(same) << "shape " << c.batch << "x" << c.cin << "x" << c.H << "x" << c.W << " cout "
                      << c.cout << " range [" << lo << ", " << hi << ") plane " << i / plane
                      << " pixel " << i % plane << " got " << hexBits(got[i]) << " want "
                      << hexBits(want[i]);
  }
}

const std::vector<ConvCase>& convCases() {
  static const std::vector<ConvCase> cases = {
      {2, 3, 5, 7, 6},  {1, 1, 1, 1, 1}, {1, 4, 1, 9, 5},  {1, 4, 9, 1, 5}, {2, 5, 6, 17, 9},
      {1, 2, 3, 16, 4}, {1, 8, 4, 33, 8}, {3, 2, 2, 2, 3}, {1, 0, 3, 3, 2},
  };
  return cases;
}

TEST(Kernels, Conv3x3RangeMatchesReference) {
  forEachTarget([] {
    std::uint32_t seed = 1;
    for (const ConvCase& c : convCases()) {
      for (const bool awkward : {false, true}) {
        const ConvData d = convData(c, seed++, awkward);
        const int total = c.batch * c.cout;
        checkConv(c, d, 0, total, awkward);
        if (::testing::Test::HasFatalFailure()) return;
        // Ranges that start and end inside an image, cross into the next, or
        // leave fewer than four channels.
        checkConv(c, d, std::max(0, c.cout - 2), std::min(total, c.cout + 3), awkward);
        checkConv(c, d, total / 2, total, awkward);
        checkConv(c, d, std::min(1, total), std::min(2, total), awkward);
        checkConv(c, d, std::min(3, total), std::min(3, total), awkward);  // empty: nothing written
        checkConv(c, d, std::min(3, total), 0, awkward);
        if (::testing::Test::HasFatalFailure()) return;
      }
    }
  });
}

TEST(Kernels, Conv3x3RangeRoundsEveryProduct) {
  // Two taps on a 1x1 image (only the centre tap exists): with the product
  // rounded, (1 + 2^-12)^2 rounds to 1 + 2^-11 and cancels the first tap to
  // 0; fused into one rounding it would leave 2^-24.
  forEachTarget([] {
    const float in[2] = {-(1.0f + std::ldexp(1.0f, -11)), 1.0f + std::ldexp(1.0f, -12)};
    float weights[18] = {};
    weights[4] = 1.0f;
    weights[9 + 4] = 1.0f + std::ldexp(1.0f, -12);
    const float bias = 0.0f;
    float out = kFloatGuard;
    le::simd::conv3x3Range(in, 1, 2, 1, 1, weights, &bias, 1, &out, 0, 1);
    EXPECT_TRUE(sameFloatBits(out, 0.0f)) << hexBits(out);
  });
}

TEST(Kernels, Conv3x3RangeScratchFollowsTheImage) {
  // The thread's padded copy is reused: a large image, then a small one in a
  // buffer that still holds the large one, then the large one again.
  forEachTarget([] {
    const ConvCase big{2, 6, 9, 35, 5};
    const ConvCase small{1, 3, 4, 6, 4};
    const ConvData db = convData(big, 77, false);
    const ConvData ds = convData(small, 78, false);
    checkConv(big, db, 0, big.batch * big.cout, false);
    checkConv(small, ds, 0, small.cout, false);
    checkConv(big, db, 3, big.batch * big.cout, false);
  });
}

TEST(Kernels, Yuv420RowToRgb24MatchesReference) {
  forEachTarget([] {
    for (const int step : {1, 2}) {
      for (const std::size_t len : testLengths()) {
        const int width = static_cast<int>(len);
        std::mt19937 rng(static_cast<std::uint32_t>(len * 3 + step));
        std::vector<std::uint8_t> y(len), u(len * 2 + 2), v(len * 2 + 2);
        for (auto& b : y) b = static_cast<std::uint8_t>(rng());
        for (auto& b : u) b = static_cast<std::uint8_t>(rng());
        for (auto& b : v) b = static_cast<std::uint8_t>(rng());
        std::vector<std::uint8_t> got(3 * len + 1, kByteGuard), want(3 * len + 1, kByteGuard);
        le::simd::yuv420RowToRgb24(y.data(), u.data(), v.data(), width, step, got.data());
        ref::yuv420RowToRgb24(y.data(), u.data(), v.data(), width, step, want.data());
        ASSERT_EQ(got, want) << "width " << width << " step " << step;
      }
    }
    // Interleaved chroma as it comes from a decoder: u and v in one buffer.
    std::vector<std::uint8_t> y(37), uv(40);
    for (std::size_t i = 0; i < y.size(); ++i) y[i] = static_cast<std::uint8_t>(i * 37);
    for (std::size_t i = 0; i < uv.size(); ++i) uv[i] = static_cast<std::uint8_t>(255 - i * 13);
    std::vector<std::uint8_t> got(3 * 37), want(3 * 37);
    le::simd::yuv420RowToRgb24(y.data(), uv.data(), uv.data() + 1, 37, 2, got.data());
    ref::yuv420RowToRgb24(y.data(), uv.data(), uv.data() + 1, 37, 2, want.data());
    ASSERT_EQ(got, want);
  });
}

TEST(Kernels, Yuv420RowToRgb24EdgeCases) {
  forEachTarget([] {
    const std::uint8_t y[4] = {16, 235, 16, 235};
    const std::uint8_t neutral[2] = {128, 128};
    std::uint8_t rgb[12];
    le::simd::yuv420RowToRgb24(y, neutral, neutral, 4, 1, rgb);
    for (int i = 0; i < 3; ++i) EXPECT_EQ(rgb[i], 0);
    for (int i = 3; i < 6; ++i) EXPECT_EQ(rgb[i], 255);
    // Saturated chroma drives every channel past both ends.
    const std::uint8_t y2[4] = {0, 255, 0, 255};
    const std::uint8_t lo[2] = {0, 255}, hi[2] = {255, 0};
    std::uint8_t got[12], want[12];
    le::simd::yuv420RowToRgb24(y2, lo, hi, 4, 1, got);
    ref::yuv420RowToRgb24(y2, lo, hi, 4, 1, want);
    EXPECT_TRUE(std::equal(got, got + 12, want));
  });
}

// The engine cuts its kernels across the pool: the conv by output plane at
// grain 1, the retrieval by donor, images by row. Whatever the thread count,
// the results are the reference's.
TEST(KernelsParallel, ResultsDoNotDependOnThreadCount) {
  const ConvCase c{2, 6, 7, 19, 7};
  const ConvData d = convData(c, 99, false);
  const std::size_t plane = static_cast<std::size_t>(c.H) * c.W;
  const int planes = c.batch * c.cout;
  std::vector<float> want(planes * plane);
  ref::conv3x3Range(d.in.data(), c.cin, c.H, c.W, d.weights.data(), d.bias.data(), c.cout,
                    want.data(), 0, planes);

  const std::size_t donors = 37, n = 61;
  std::vector<RetrievalInput> bank;
  for (std::size_t i = 0; i < donors; ++i) bank.push_back(retrievalInput(n, 600 + static_cast<std::uint32_t>(i), false));
  const RetrievalInput query = retrievalInput(n, 700, false);
  std::vector<float> wantTerms(donors);
  for (std::size_t i = 0; i < donors; ++i) {
    wantTerms[i] = ref::retrieveTermPooled(query.a.data(), bank[i].b.data(), query.wh.data(), n);
  }

  const std::size_t rows = 29, width = 45;
  std::vector<std::uint8_t> image(rows * width * 3);
  for (std::size_t i = 0; i < image.size(); ++i) image[i] = static_cast<std::uint8_t>(i * 31 + 7);
  std::vector<std::uint16_t> wantHalves(3 * rows * width);
  for (std::size_t r = 0; r < rows; ++r) {
    for (std::size_t ch = 0; ch < 3; ++ch) {
      for (std::size_t x = 0; x < width; ++x) {
        wantHalves[ch * rows * width + r * width + x] =
            ref::f16(static_cast<float>(image[(r * width + x) * 3 + ch]) / 255.0f);
      }
    }
  }

  forEachTarget([&] {
    std::vector<float> got(want.size(), kFloatGuard);
    le::pool::parallelRange(static_cast<std::size_t>(planes), 1, [&](std::size_t lo, std::size_t hi) {
      le::simd::conv3x3Range(d.in.data(), c.batch, c.cin, c.H, c.W, d.weights.data(), d.bias.data(),
                             c.cout, got.data(), static_cast<int>(lo), static_cast<int>(hi));
    });
    for (std::size_t i = 0; i < want.size(); ++i) {
      ASSERT_TRUE(sameFloatBits(got[i], want[i])) << "conv element " << i;
    }
    std::vector<float> terms(donors, kFloatGuard);
    le::pool::parallelRange(donors, 4, [&](std::size_t lo, std::size_t hi) {
      for (std::size_t i = lo; i < hi; ++i) {
        terms[i] = le::simd::retrieveTermPooled(query.a.data(), bank[i].b.data(), query.wh.data(), n);
      }
    });
    for (std::size_t i = 0; i < donors; ++i) ASSERT_TRUE(sameFloatBits(terms[i], wantTerms[i])) << i;
    // Row r of the image into row r of each of the three planes; rows at
    // grain 2 make slices of uneven length.
    std::vector<std::uint16_t> halves(wantHalves.size(), kHalfGuard);
    le::pool::parallelRange(rows, 2, [&](std::size_t lo, std::size_t hi) {
      std::vector<std::uint16_t> local(3 * width);
      for (std::size_t r = lo; r < hi; ++r) {
        le::simd::rgb8ToPlanarF16(image.data() + r * width * 3, local.data(), width, width);
        for (std::size_t ch = 0; ch < 3; ++ch) {
          std::copy_n(local.data() + ch * width, width, halves.data() + ch * rows * width + r * width);
        }
      }
    });
    ASSERT_EQ(halves, wantHalves);
  });
}

TEST(KernelsParallel, ConcurrentConvolutionsKeepTheirOwnScratch) {
  // Two threads convolve different images at once, each through its own
  // thread-local copy.
  const ConvCase a{2, 4, 11, 23, 5};
  const ConvCase b{3, 3, 6, 9, 6};
  const ConvData da = convData(a, 5, false);
  const ConvData db = convData(b, 6, false);
  const auto run = [](const ConvCase& c, const ConvData& d, std::vector<float>& out) {
    for (int rep = 0; rep < 20; ++rep) {
      le::simd::conv3x3Range(d.in.data(), c.batch, c.cin, c.H, c.W, d.weights.data(),
                             d.bias.data(), c.cout, out.data(), 0, c.batch * c.cout);
    }
  };
  std::vector<float> ga(static_cast<std::size_t>(a.batch) * a.cout * a.H * a.W);
  std::vector<float> gb(static_cast<std::size_t>(b.batch) * b.cout * b.H * b.W);
  std::thread ta([&] { run(a, da, ga); });
  std::thread tb([&] { run(b, db, gb); });
  ta.join();
  tb.join();
  std::vector<float> wa(ga.size()), wb(gb.size());
  ref::conv3x3Range(da.in.data(), a.cin, a.H, a.W, da.weights.data(), da.bias.data(), a.cout,
                    wa.data(), 0, a.batch * a.cout);
  ref::conv3x3Range(db.in.data(), b.cin, b.H, b.W, db.weights.data(), db.bias.data(), b.cout,
                    wb.data(), 0, b.batch * b.cout);
  for (std::size_t i = 0; i < ga.size(); ++i) ASSERT_TRUE(sameFloatBits(ga[i], wa[i])) << i;
  for (std::size_t i = 0; i < gb.size(); ++i) ASSERT_TRUE(sameFloatBits(gb[i], wb[i])) << i;
}

}  // namespace
}  // namespace le::test
