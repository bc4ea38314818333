// The scalar half conversions le::halfToFloat and le::f32ToF16, and the
// test reference itself, against each other and, where the processor has
// F16C, against its conversion instructions.
#include <gtest/gtest.h>
#include <immintrin.h>

#include <cmath>
#include <cstdint>
#include <vector>

#include "compute/half.h"
#include "tests/compute/reference.h"
#include "tests/compute/samples.h"

namespace le::test {
namespace {

bool haveF16C() {
  __builtin_cpu_init();
  return __builtin_cpu_supports("f16c") != 0;
}

__attribute__((target("f16c"))) std::uint16_t hardwareF16(float x) {
  return static_cast<std::uint16_t>(_cvtss_sh(x, _MM_FROUND_TO_NEAREST_INT));
}

__attribute__((target("f16c"))) float hardwareWide(std::uint16_t h) { return _cvtsh_ss(h); }

// Every finite half, the floats one ulp either side of it, the exact
// midpoint to the next half above and the floats either side of that
// midpoint; both signs. About half a million values that include every
// rounding boundary of the half grid.
std::vector<float> halfGridFloats() {
  std::vector<float> out;
  for (std::uint32_t h = 0; h < 0x7c00; ++h) {
    const float v = ref::wide(static_cast<std::uint16_t>(h));
    const float next = ref::wide(static_cast<std::uint16_t>(h + 1));  // 0x7c00 is infinity
    const double mid = std::isinf(next) ? 65520.0 : (static_cast<double>(v) + next) / 2.0;
    const float m = static_cast<float>(mid);
    for (const float x : {v, std::nextafter(v, 0.0f), std::nextafter(v, INFINITY), m,
                          std::nextafter(m, 0.0f), std::nextafter(m, INFINITY)}) {
      out.push_back(x);
      out.push_back(-x);
    }
  }
  for (const float x : awkwardFloats()) out.push_back(x);
  for (const float x : mixedFloats(20000, 7)) out.push_back(x);
  return out;
}

TEST(HalfScalar, WideningEveryHalfMatchesReference) {
  std::vector<std::uint16_t> all(65536);
  for (std::uint32_t h = 0; h < 65536; ++h) all[h] = static_cast<std::uint16_t>(h);
  std::vector<float> got(all.size());
  le::halfToFloat(all.data(), got.data(), all.size());
  for (std::uint32_t h = 0; h < 65536; ++h) {
    ASSERT_TRUE(sameFloatBits(got[h], ref::wide(all[h])))
        << hexHalf(all[h]) << " gave " << hexBits(got[h]) << ", expected " << hexBits(ref::wide(all[h]));
  }
  le::halfToFloat(all.data(), got.data(), 0);  // n of 0 touches nothing
}

TEST(HalfScalar, NarrowingMatchesReferenceOnEveryRoundingBoundary) {
  for (const float x : halfGridFloats()) {
    ASSERT_EQ(le::f32ToF16(x), ref::f16NoNaN(x)) << hexBits(x);
  }
}

TEST(HalfScalar, NarrowingEdgeCases) {
  EXPECT_EQ(le::f32ToF16(65520.0f), 0x7c00);  // the tie above the largest half overflows
  EXPECT_EQ(le::f32ToF16(65504.0f), 0x7bff);
  EXPECT_EQ(le::f32ToF16(-65520.0f), 0xfc00);
  EXPECT_EQ(le::f32ToF16(std::nanf("")), 0x7c00);  // NaN becomes infinity of its sign
  EXPECT_EQ(le::f32ToF16(-std::nanf("")), 0xfc00);
  EXPECT_EQ(le::f32ToF16(floatFromBits(0x7f800001)), 0x7c00);
  EXPECT_EQ(le::f32ToF16(std::ldexp(1.0f, -25)), 0x0000);  // tie to even: down to zero
  EXPECT_EQ(le::f32ToF16(-std::ldexp(1.0f, -25)), 0x8000);
  EXPECT_EQ(le::f32ToF16(std::nextafter(std::ldexp(1.0f, -25), 1.0f)), 0x0001);
  EXPECT_EQ(le::f32ToF16(1.5f * std::ldexp(1.0f, -24)), 0x0002);  // tie to even: up
  EXPECT_EQ(le::f32ToF16(1.0f + std::ldexp(1.0f, -11)), 0x3c00);
  EXPECT_EQ(le::f32ToF16(1.0f + 3 * std::ldexp(1.0f, -11)), 0x3c02);
  EXPECT_EQ(le::f32ToF16(1e-7f), 0x0002);  // 1e-7 / 2^-24 is 1.68
  EXPECT_EQ(le::f32ToF16(-0.0f), 0x8000);
}

TEST(HalfScalar, ReferenceAgreesWithHardwareConversion) {
  if (!haveF16C()) GTEST_SKIP() << "processor has no F16C";
  for (std::uint32_t h = 0; h < 65536; ++h) {
    const auto hh = static_cast<std::uint16_t>(h);
    ASSERT_TRUE(sameFloatBits(ref::wide(hh), hardwareWide(hh))) << hexHalf(hh);
  }
  for (const float x : halfGridFloats()) {
    ASSERT_EQ(ref::f16(x), hardwareF16(x)) << hexBits(x);
  }
}

}  // namespace
}  // namespace le::test
