// runConv against a reference written from the definition with the integer
// half arithmetic of tests/compute/exact_half, on every compiled target:
// every tile width, both drain branches, relu or not, half or float output,
// 1x1 and 3x3 kernels, overflow, non-finite inputs and signed zeros. And
// the packing and the tables the layers are built from.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "compute/half.h"
#include "director/conv/conv_layer.h"
#include "director/conv/lin_tab.h"
#include "tests/compute/exact_half.h"
#include "tests/compute/targets.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

using conv::ConvLayer;

constexpr uint16_t kGuard = 0xdead;

struct Case {
  const char* what;
  int H, W, Cin, CinP, Cout, k;
  bool relu, floatOut;
  // Input values: 0 normal (runs proved in range); 1 large (overflow, and
  // the guarded road); 2 with infinities and NaNs; 3 zeros of both signs
  // against zero weights; 4 medium (no proof of range, but no overflow:
  // the checked road).
  int values;
};

struct Data {
  std::vector<float> weights, bias;  // ONNX layout
  std::vector<uint16_t> in;          // padded, channel-last
};

uint16_t half(float x) { return exact::fromFloat(x); }

float widen(uint16_t h) {
  if ((h & 0x7c00) != 0x7c00) return static_cast<float>(exact::value(h));
  if (h & 0x3ff) return std::numeric_limits<float>::quiet_NaN();
  return (h & 0x8000) ? -INFINITY : INFINITY;
}

uint32_t bitsOf(float x) {
  uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

Data makeData(const Case& c, uint32_t seed) {
  std::mt19937 rng(seed);
  std::normal_distribution<float> nd(0.0f, 1.0f);
  Data d;
  const int taps = c.k * c.k;
  const float wScale = c.values == 1 ? 40.0f : c.values == 4 ? 3.0f : 1.0f / std::sqrt(static_cast<float>(c.Cin * taps));
  d.weights.resize(static_cast<size_t>(c.Cout * c.Cin * taps));
  for (float& w : d.weights) w = c.values == 3 ? (nd(rng) < 0 ? -0.0f : 0.0f) : nd(rng) * wScale;
  d.bias.resize(static_cast<size_t>(c.Cout));
  for (float& b : d.bias) b = c.values == 3 ? (nd(rng) < 0 ? -0.0f : 0.0f) : nd(rng) * 0.1f;
  const int rows = c.H + c.k - 1, cols = c.W + c.k - 1, pad = (c.k - 1) / 2;
  d.in.assign(static_cast<size_t>(rows * cols * c.CinP), 0);
  for (int y = pad; y < rows - pad; ++y)
    for (int x = pad; x < cols - pad; ++x)
      for (int ch = 0; ch < c.Cin; ++ch) {
        float v = nd(rng);
        if (c.values == 1) v *= 60.0f;
        if (c.values == 4) v *= 30.0f;
        if (c.values == 2 && (rng() % 97) == 0) v = (rng() % 3) == 0 ? std::numeric_limits<float>::quiet_NaN()
                                                  : (rng() & 1) ? INFINITY : -INFINITY;
        if (c.values == 3) v = (rng() & 1) ? -v : v;
        if ((rng() % 13) == 0) v = (rng() & 1) ? -0.0f : 0.0f;
        if ((rng() % 17) == 0) v *= 1e-6f;  // a subnormal half
        d.in[static_cast<size_t>((y * cols + x) * c.CinP + ch)] = half(v);
      }
  return d;
}

// Output channel o, pixel (y, x): float from the bias, half runs per tap or
// per kernel row, relu, then the half (or the float).
void reference(const Case& c, const Data& d, int coutP, std::vector<uint16_t>& outHalf, std::vector<float>& outFloat) {
  const int cols = c.W + c.k - 1;
  const bool drainPerTap = c.Cin > 63;
  const auto w16 = [&](int o, int ch, int ky, int kx) -> uint16_t {
    if (o >= c.Cout || ch >= c.Cin) return 0;
    return half(d.weights[static_cast<size_t>(((o * c.Cin + ch) * c.k + ky) * c.k + kx)]);
  };
  outHalf.assign(static_cast<size_t>(c.H * c.W * coutP), 0);
  outFloat.assign(outHalf.size(), 0.0f);
  for (int y = 0; y < c.H; ++y)
    for (int x = 0; x < c.W; ++x)
      for (int o = 0; o < coutP; ++o) {
        float acc = o < c.Cout ? d.bias[static_cast<size_t>(o)] : 0.0f;
        for (int ky = 0; ky < c.k; ++ky) {
          uint16_t h = 0;
          for (int kx = 0; kx < c.k; ++kx) {
            for (int ch = 0; ch < c.CinP; ++ch) {
              const uint16_t v = d.in[static_cast<size_t>(((y + ky) * cols + x + kx) * c.CinP + ch)];
              h = exact::fma(w16(o, ch, ky, kx), v, h);
            }
            if (drainPerTap) {
              acc = acc + widen(h);
              h = 0;
            }
          }
          if (!drainPerTap) acc = acc + widen(h);
        }
        if (c.relu) acc = acc > 0.0f ? acc : 0.0f;
        const size_t at = static_cast<size_t>((y * c.W + x) * coutP + o);
        outHalf[at] = half(acc);
        outFloat[at] = std::isnan(acc) ? std::numeric_limits<float>::quiet_NaN() : acc;
      }
}

std::string show(const Case& c, int y, int x, int o) {
  return std::string(c.what) + " at y " + std::to_string(y) + " x " + std::to_string(x) + " o " + std::to_string(o);
}

void runCase(const Case& c, uint32_t seed) {
  SCOPED_TRACE(c.what);
  const Data d = makeData(c, seed);
  ConvLayer L;
  L.name = c.what;
  L.H = c.H;
  L.W = c.W;
  L.Cin = c.Cin;
  L.CinP = c.CinP;
  L.Cout = c.Cout;
  L.kH = L.kW = c.k;
  L.relu = c.relu;
  conv::packConv(L, d.weights.data(), d.weights.size(), d.bias.data(), d.bias.size());
  std::vector<uint16_t> wantHalf;
  std::vector<float> wantFloat;
  reference(c, d, L.CoutP, wantHalf, wantFloat);
  const size_t inStride = static_cast<size_t>((c.W + c.k - 1) * c.CinP);
  // The output sits at pixel (1, 1) of a padded buffer that starts out as
  // guard values: the border must stay untouched.
  const size_t outCols = static_cast<size_t>(c.W + 2), coutP = static_cast<size_t>(L.CoutP);
  const size_t outStride = outCols * coutP, first = outStride + coutP;
  forEachTarget([&] {
    std::vector<uint16_t> outHalf(static_cast<size_t>(c.H + 2) * outStride, kGuard);
    std::vector<float> outFloat(outHalf.size(), -7.0f);
    if (c.floatOut)
      conv::runConv(L, d.in.data(), inStride, nullptr, outFloat.data() + first, outStride);
    else
      conv::runConv(L, d.in.data(), inStride, outHalf.data() + first, nullptr, outStride);
    for (int y = -1; y <= c.H; ++y)
      for (int x = -1; x <= c.W; ++x)
        for (size_t o = 0; o < coutP; ++o) {
          const size_t at = first + static_cast<size_t>(y * static_cast<long>(outStride) + x * static_cast<long>(coutP)) + o;
          const bool inside = y >= 0 && y < c.H && x >= 0 && x < c.W;
          const size_t want = static_cast<size_t>((y * c.W + x) * static_cast<int>(coutP)) + o;
          if (c.floatOut) {
            const uint32_t gotBits = bitsOf(outFloat[at]);
            const uint32_t wantBits = inside ? bitsOf(wantFloat[want]) : bitsOf(-7.0f);
            ASSERT_EQ(gotBits, wantBits) << show(c, y, x, static_cast<int>(o));
          } else {
            ASSERT_EQ(outHalf[at], inside ? wantHalf[want] : kGuard) << show(c, y, x, static_cast<int>(o));
          }
        }
  });
}

TEST(RunConv, EveryTileWidthDrainAndActivationOnEveryTarget) {
  const Case cases[] = {
      {"tile 8 (3 channels), narrow", 4, 8, 7, 8, 3, 3, false, false, 0},
      {"tile 16 (12 channels), relu", 4, 8, 7, 8, 12, 3, true, false, 0},
      {"tile 24 (23 channels), float out", 3, 4, 48, 48, 23, 3, false, true, 0},
      {"tiles 32 x 4 + 16, drain per tap", 2, 8, 96, 96, 144, 3, true, false, 0},
      {"1x1 with padding channels, drain per tap", 4, 4, 85, 88, 96, 1, true, false, 0},
      {"63 channels: one run per kernel row", 2, 4, 63, 64, 32, 3, false, false, 0},
      {"64 channels: one run per tap", 2, 4, 64, 64, 32, 3, false, false, 0},
  };
  uint32_t seed = 1;
  for (const Case& c : cases) runCase(c, seed++);
}

TEST(RunConv, UncheckedCheckedAndGuardedRoadsOnEveryTarget) {
  const Case cases[] = {
      {"medium: checked, in range", 3, 8, 24, 24, 24, 3, false, false, 4},
      {"medium, drain per tap", 2, 8, 96, 96, 16, 3, true, false, 4},
      {"large: overflow, and chains that pass 2^15 and come back", 3, 8, 24, 24, 24, 3, false, false, 1},
      {"large, relu, drain per tap", 2, 4, 96, 96, 32, 3, true, false, 1},
      {"infinities and NaNs in the input", 3, 8, 24, 24, 16, 3, false, false, 2},
      {"infinities and NaNs, float out", 3, 8, 24, 24, 16, 3, false, true, 2},
      {"signed zeros against zero weights", 3, 8, 24, 24, 8, 3, false, false, 3},
      {"signed zeros, float out", 3, 8, 96, 96, 8, 3, false, true, 3},
  };
  uint32_t seed = 100;
  for (const Case& c : cases) runCase(c, seed++);
}

TEST(PackConv, TilesPaddingOrderAndRefusal) {
  const auto tilesOf = [](int cout) {
    ConvLayer L;
    L.name = "t";
    L.Cin = L.CinP = 2;
    L.Cout = cout;
    L.kH = L.kW = 1;
    std::vector<float> w(static_cast<size_t>(2 * cout), 1.0f), b(static_cast<size_t>(cout), 0.0f);
    conv::packConv(L, w.data(), w.size(), b.data(), b.size());
    EXPECT_EQ(L.drainPerTap, false);
    int sum = 0;
    for (int t : L.tiles) sum += t;
    EXPECT_EQ(L.CoutP, sum);
    return L.tiles;
  };
  EXPECT_EQ(tilesOf(144), (std::vector<int>{32, 32, 32, 32, 16}));
  EXPECT_EQ(tilesOf(23), (std::vector<int>{24}));
  EXPECT_EQ(tilesOf(12), (std::vector<int>{16}));
  EXPECT_EQ(tilesOf(3), (std::vector<int>{8}));
  EXPECT_EQ(tilesOf(96), (std::vector<int>{32, 32, 32}));

  // Order: by tile, then ky, kx, stored channel, then output in the tile.
  ConvLayer L;
  L.name = "order";
  L.Cin = 3;
  L.CinP = 4;
  L.Cout = 40;
  L.kH = L.kW = 3;
  std::vector<float> w(static_cast<size_t>(40 * 3 * 9)), b(40);
  for (size_t i = 0; i < w.size(); ++i) w[i] = static_cast<float>(i % 1000);  // exact in half
  for (size_t i = 0; i < b.size(); ++i) b[i] = static_cast<float>(i) + 0.5f;
  conv::packConv(L, w.data(), w.size(), b.data(), b.size());
  ASSERT_EQ(L.tiles, (std::vector<int>{32, 8}));
  EXPECT_TRUE(L.drainPerTap == false);
  ASSERT_EQ(L.weights.size(), static_cast<size_t>(40 * 9 * 4));
  ASSERT_EQ(L.wide.size(), L.weights.size());
  size_t at = 0;
  int oc0 = 0;
  for (const int t : L.tiles) {
    for (int tap = 0; tap < 9; ++tap)
      for (int c = 0; c < 4; ++c)
        for (int o = 0; o < t; ++o, ++at) {
          const int oc = oc0 + o;
          const float want = (c < 3 && oc < 40) ? w[static_cast<size_t>((oc * 3 + c) * 9 + tap)] : 0.0f;
          ASSERT_EQ(L.weights[at], f32ToF16(want)) << "tile at " << oc0 << " tap " << tap << " c " << c << " o " << o;
          ASSERT_EQ(L.wide[at], static_cast<double>(want));
        }
    oc0 += t;
  }
  EXPECT_EQ(L.bias.size(), 40u);
  EXPECT_EQ(L.bias[39], 39.5f);

  ConvLayer wide;
  wide.Cin = wide.CinP = 64;
  wide.Cout = 8;
  wide.kH = wide.kW = 3;
  std::vector<float> ww(64 * 8 * 9), wb(8);
  conv::packConv(wide, ww.data(), ww.size(), wb.data(), wb.size());
  EXPECT_TRUE(wide.drainPerTap);

  ConvLayer shortLayer;
  shortLayer.name = "e1";
  shortLayer.Cin = shortLayer.CinP = 96;
  shortLayer.Cout = 144;
  shortLayer.kH = shortLayer.kW = 3;
  EXPECT_EQ(errorOf([&] { conv::packConv(shortLayer, ww.data(), 124415, wb.data(), 144); }),
            "le_conv: layer e1 needs 124416 weights / 144 bias but the graph supplies 124415 / 144 — refusing to pack "
            "(graph is not the m4b this kernel implements)");
  shortLayer.name.clear();
  EXPECT_EQ(errorOf([&] { conv::packConv(shortLayer, ww.data(), 124416, wb.data(), 143); }),
            "le_conv: layer ? needs 124416 weights / 144 bias but the graph supplies 124416 / 143 — refusing to pack "
            "(graph is not the m4b this kernel implements)");
}

TEST(LinTab, HalfPixelCentresWithEdgeClamping) {
  conv::LinTab t;
  t.init(512, 64);
  EXPECT_EQ(t.i0[0], 0);
  EXPECT_EQ(t.i1[0], 0);
  EXPECT_EQ(t.frac[0], 0.5625f);  // s = -0.4375, f = -1
  EXPECT_EQ(t.i0[511], 63);
  EXPECT_EQ(t.i1[511], 63);
  EXPECT_EQ(t.i0[4], 0);  // s = 0.0625
  EXPECT_EQ(t.i1[4], 1);
  EXPECT_EQ(t.frac[4], 0.0625f);
  t.init(64, 32);
  EXPECT_EQ(t.frac[0], 0.75f);  // s = -0.25
  EXPECT_EQ(t.i0[63], 31);
  EXPECT_EQ(t.i1[63], 31);
  EXPECT_EQ(t.frac[63], 0.25f);  // s = 31.25
  t.init(512, 256);
  for (int i = 1; i < 511; ++i) {
    const double s = 0.5 * (i + 0.5) - 0.5;
    ASSERT_EQ(t.i0[static_cast<size_t>(i)], static_cast<int>(std::floor(s)));
    ASSERT_EQ(t.frac[static_cast<size_t>(i)], static_cast<float>(s - std::floor(s)));
  }
}

}  // namespace
}  // namespace le::test
