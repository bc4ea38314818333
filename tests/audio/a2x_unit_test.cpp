// The pieces of the speech path that need no graph: the fp16 step of the
// features, standardising a window, the meta scanner, the frame accounting
// and the row walk.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <vector>

#include "audio/a2x_meta.h"
#include "audio/a2x_ort.h"
#include "audio/a2x_schedule.h"
#include "audio/half_round.h"
#include "audio/standardise.h"
#include "le/le_a2x.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

float fromBits(uint32_t b) {
  float x;
  std::memcpy(&x, &b, 4);
  return x;
}
uint32_t bitsOf(float x) {
  uint32_t b;
  std::memcpy(&b, &x, 4);
  return b;
}

// The half pattern of x by the compiler's own binary16 type (round to
// nearest even, subnormals kept), with the frontends' two departures made
// by magnitude: results below the smallest normal half are signed zeros,
// and everything from 65536 up, NaN included, is infinity of the sign.
uint16_t referenceHalf(float x) {
  const uint16_t sign = std::signbit(x) ? 0x8000 : 0;
  const float mag = std::fabs(x);
  if (!(mag < 65536.0f)) return sign | 0x7c00;  // also NaN
  if (mag < 0x1p-14f) return sign;
  const _Float16 h = static_cast<_Float16>(x);
  uint16_t v;
  std::memcpy(&v, &h, 2);
  return v;
}

TEST(HalfRound, MatchesAnIndependentReferenceOverManyFloats) {
  // Every 97th bit pattern (odd stride: all mantissa residues are reached)
  // plus the neighbourhood of every exponent boundary and rounding tie.
  uint64_t checked = 0;
  for (uint64_t b = 0; b <= 0xffffffffull; b += 97) {
    const float x = fromBits(static_cast<uint32_t>(b));
    ASSERT_EQ(roundHalf(x), referenceHalf(x)) << std::hex << b;
    ++checked;
  }
  for (uint32_t e = 100; e < 150; ++e)
    for (uint32_t m : {0u, 1u, 0xfffu, 0x1000u, 0x1001u, 0x2000u, 0x3000u, 0x3001u, 0x7fe000u, 0x7ff000u, 0x7fffffu})
      for (uint32_t s : {0u, 0x80000000u}) {
        const float x = fromBits(s | (e << 23) | m);
        ASSERT_EQ(roundHalf(x), referenceHalf(x)) << std::hex << bitsOf(x);
        ++checked;
      }
  EXPECT_GT(checked, 40000000u);
}

TEST(HalfRound, FlushesWhatTheProcessorsConversionKeeps) {
  EXPECT_EQ(roundHalf(0x1p-15f), 0x0000);   // a half subnormal: zero here
  EXPECT_EQ(roundHalf(-0x1p-15f), 0x8000);  // with its sign
  EXPECT_EQ(roundHalf(0x1p-14f), 0x0400);   // the smallest normal stays
  // Just below 2^-14: binary16 would round up to 2^-14; the exponent is
  // below 113, so it goes to zero.
  EXPECT_EQ(roundHalf(fromBits(0x387fffffu)), 0x0000);
  EXPECT_EQ(roundHalf(65504.0f), 0x7bff);
  EXPECT_EQ(roundHalf(65520.0f), 0x7c00);  // a tie that carries into infinity
  EXPECT_EQ(roundHalf(std::numeric_limits<float>::quiet_NaN()), 0x7c00);
  EXPECT_EQ(roundHalf(-std::numeric_limits<float>::infinity()), 0xfc00);
  EXPECT_EQ(roundHalf(1.0f + 0x1p-11f), 0x3c00);  // tie, even stays
  EXPECT_EQ(roundHalf(1.0f + 3 * 0x1p-11f), 0x3c02);  // tie, odd goes up
}

TEST(HalfRound, WidenIsExactForNormalsAndFlushesSubnormals) {
  for (uint32_t v = 0; v <= 0xffff; ++v) {
    const uint16_t h = static_cast<uint16_t>(v);
    const float w = widen(h);
    const uint32_t e5 = (v >> 10) & 31;
    if (e5 == 0) {
      ASSERT_EQ(bitsOf(w), (v & 0x8000u) << 16) << v;
    } else if (e5 == 31) {
      ASSERT_EQ(bitsOf(w), ((v & 0x8000u) << 16) | 0x7f800000u | ((v & 0x3ffu) << 13)) << v;
    } else {
      _Float16 f;
      std::memcpy(&f, &h, 2);
      ASSERT_EQ(bitsOf(w), bitsOf(static_cast<float>(f))) << v;
      ASSERT_EQ(roundHalf(w), h) << v;  // a normal half survives the round trip
    }
  }
}

TEST(Standardise, ZeroPaddingCountsAndSilenceStaysZero) {
  std::vector<float> silent(32000, 0.0f);
  standardise(silent.data(), silent.size());
  for (float x : silent) ASSERT_EQ(bitsOf(x), 0u);

  // Half the window a constant 1, half padding: mean 0.5, variance 0.25,
  // so the samples become +-1 scaled by 0.5 / sqrt(0.25 + 1e-7).
  std::vector<float> w(1000, 0.0f);
  std::fill(w.begin(), w.begin() + 500, 1.0f);
  standardise(w.data(), w.size());
  const float inv = 1.0f / std::sqrt(0.25f + 1e-7f);
  EXPECT_EQ(w[0], static_cast<float>(0.5 * static_cast<double>(inv)));
  EXPECT_EQ(w[999], static_cast<float>(-0.5 * static_cast<double>(inv)));
}

TEST(Standardise, StatisticsInDoubleScaleInFloat) {
  // A large offset makes float sums lose the small part; the double sums
  // keep it, so the result is exactly centred.
  std::vector<float> w = {1000.25f, 1000.75f, 1000.25f, 1000.75f};
  standardise(w.data(), w.size());
  const float inv = 1.0f / std::sqrt(0.0625f + 1e-7f);
  EXPECT_EQ(w[0], static_cast<float>(-0.25 * static_cast<double>(inv)));
  EXPECT_EQ(w[1], static_cast<float>(0.25 * static_cast<double>(inv)));
}

TEST(A2xMeta, KeysAreSearchedNotParsed) {
  const std::string t = R"({"h": 64, "window":	2, "left":"7", "layers" 3, "width": true, "n": {"h": 9}})";
  EXPECT_EQ(a2xMetaInt(t, "h", 256), 64);          // first occurrence
  EXPECT_EQ(a2xMetaInt(t, "window", -1), 2);       // whitespace skipped by atoi
  EXPECT_EQ(a2xMetaInt(t, "left", -1), 0);         // a quoted value is not a number
  EXPECT_EQ(a2xMetaInt(t, "layers", 6), 0);        // the next colon is the width's: atoi(" true")
  EXPECT_EQ(a2xMetaInt(t, "silence_prime", 0), 0);  // absent
  EXPECT_TRUE(a2xMetaBool(t, "width", false));
  EXPECT_FALSE(a2xMetaBool(R"({"width":	 false})", "width", true));
  EXPECT_TRUE(a2xMetaBool(R"({"width": 2})", "width", false));
  EXPECT_FALSE(a2xMetaBool(R"({"width": 0})", "width", true));
  EXPECT_FALSE(a2xMetaBool(R"({"width": "true"})", "width", true));  // not after spaces and tabs alone
  EXPECT_TRUE(a2xMetaBool(R"({"other": 1})", "width", true));         // absent: the fallback
  EXPECT_EQ(a2xMetaInt(R"({"h"})", "h", 256), 256);                   // no colon behind the key
}

TEST(A2xSchedule, AudioCountsInWholeBlocksNeverBeyondWhatExists) {
  using namespace le::a2x;
  EXPECT_EQ(usableSamples(5000, false), 5000);  // reached by rounding, only 5000 exist
  EXPECT_EQ(usableSamples(4000, false), 0);     // 1120 short of the block
  EXPECT_EQ(usableSamples(4480, false), 0);
  EXPECT_EQ(usableSamples(4481, false), 4481);
  EXPECT_EQ(usableSamples(5120, false), 5120);
  EXPECT_EQ(usableSamples(10239, false), 10239);
  EXPECT_EQ(usableSamples(9600, false), 5120);
  EXPECT_EQ(usableSamples(4000, true), 4000);  // the end makes all of it usable
  EXPECT_EQ(audioFramesOf(0), 0);
  EXPECT_EQ(audioFramesOf(1), 1);
  EXPECT_EQ(audioFramesOf(640), 1);
  EXPECT_EQ(audioFramesOf(641), 2);
  // Held back by the larger of the encoder's reach and the frontend's lag.
  EXPECT_EQ(readyFrames(24, false, 0, 20), 4);
  EXPECT_EQ(readyFrames(24, false, 30, 20), 0);
  EXPECT_EQ(readyFrames(40, false, 30, 20), 10);
  EXPECT_EQ(readyFrames(8, false, 0, 20), 0);
  EXPECT_EQ(readyFrames(8, true, 0, 20), 8);
}

TEST(A2xSchedule, TheRowWalk) {
  using le::a2x::rowOf;
  // Ping-pong over 4 rows.
  const int pingPong[] = {0, 1, 2, 3, 2, 1, 0, 1, 2, 3};
  for (int f = 0; f < 10; ++f) EXPECT_EQ(rowOf(f, 0, 1, 0, 4), pingPong[f]) << f;
  // Looping forwards, and backwards from row 1 wrapping to NT - 1.
  for (int f = 0; f < 10; ++f) EXPECT_EQ(rowOf(f, 2, 1, 1, 5), (2 + f) % 5);
  const int backwards[] = {1, 0, 4, 3, 2, 1, 0, 4};
  for (int f = 0; f < 8; ++f) EXPECT_EQ(rowOf(f, 1, -1, 1, 5), backwards[f]) << f;
  // Backwards in ping-pong: from 1 down to 0, then up again.
  const int backPong[] = {1, 0, 1, 2, 3, 2};
  for (int f = 0; f < 6; ++f) EXPECT_EQ(rowOf(f, 1, -1, 0, 4), backPong[f]) << f;
  // One row (or none) is always row 0.
  for (int f = 0; f < 5; ++f) EXPECT_EQ(rowOf(f, 3, -1, 0, 1), 0);
  EXPECT_EQ(rowOf(7, 3, 1, 1, 5), 0);  // (3 + 7) % 5
  EXPECT_EQ(rowOf(3000000000LL, 0, 1, 1, 7), static_cast<int>(3000000000LL % 7));
}

TEST(A2xOrt, LogLevelAndTheGeluRefusal) {
  {
    ScopedEnv quiet("KESTROVA_ENGINE_QUIET", "1"), debug("KESTROVA_DEBUG", nullptr);
    EXPECT_EQ(a2xOrtLogLevel(), ORT_LOGGING_LEVEL_ERROR);
    ScopedEnv debugOn("KESTROVA_DEBUG", "1");
    EXPECT_EQ(a2xOrtLogLevel(), ORT_LOGGING_LEVEL_WARNING);
  }
  {
    ScopedEnv quiet("KESTROVA_ENGINE_QUIET", "1 "), debug("KESTROVA_DEBUG", nullptr);  // not exactly "1"
    EXPECT_EQ(a2xOrtLogLevel(), ORT_LOGGING_LEVEL_WARNING);
  }
  EXPECT_TRUE(le_a2x_is_fp16_fusion_refusal("Could not find an implementation for Gelu(1) of type tensor(float16)"));
  EXPECT_FALSE(le_a2x_is_fp16_fusion_refusal("Could not find an implementation for Gelu(1)"));
  EXPECT_FALSE(le_a2x_is_fp16_fusion_refusal("tensor(float16) not supported"));
  EXPECT_FALSE(le_a2x_is_fp16_fusion_refusal(nullptr));
  EXPECT_EQ(oneLine("first\nsecond\n"), "first second");
}

TEST(A2xC, NullHandles) {
  EXPECT_EQ(le_a2x_create(nullptr, 1), nullptr);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: NULL bundle");
  EXPECT_EQ(le_a2x_nt(nullptr), 0);
  EXPECT_EQ(le_a2x_width(nullptr), 0);
  EXPECT_EQ(le_a2x_total(nullptr), -1);
  EXPECT_EQ(le_a2x_avail(nullptr), 0);
  int row = 0;
  float xs[63], xd[63];
  EXPECT_EQ(le_a2x_pull(nullptr, &row, xs, xd, 1), 0);
  EXPECT_EQ(le_a2x_push(nullptr, xs, 1), 0);
  EXPECT_EQ(le_a2x_deltas(nullptr, xs, 1, xd, 1), -1);
  le_a2x_reset(nullptr, 0, 1, 1);
  le_a2x_finish(nullptr);
  le_a2x_set_eager(nullptr, 1);
  le_a2x_destroy(nullptr);
  EXPECT_EQ(le_a2x_w2v8_lazy(), 1);
}

}  // namespace
}  // namespace le::test
