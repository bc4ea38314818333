// Int8ConvVNNI and SubBcastKHWC against plain references of their recipes,
// with the refusal texts and the inferred output shape.
#include <gtest/gtest.h>

#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <numeric>

#include "director/ops/int8_conv.h"
#include "director/ops/sub_bcast.h"
#include "tests/director/ops_testing.h"

namespace le::test {
namespace {

struct ConvAttrs {
  int sh = 1, sw = 1, dh = 1, dw = 1, pt = 0, pl = 0, pb = 0, pr = 0;
};

// The recipe read as arithmetic: quantise every value over the range of
// the whole input (0 included), convolve (q - z) with the weights over the
// in-bounds taps in plain integers, scale, add the bias.
std::vector<float> referenceInt8Conv(const std::vector<float>& x, const std::vector<int8_t>& w,
                                     const std::vector<float>& ws, const std::vector<float>& bias, int N, int C,
                                     int H, int W, int M, int kH, int kW, const ConvAttrs& a, int* HoOut, int* WoOut) {
  float mn = 0, mx = 0;
  for (float v : x) {
    mn = std::min(mn, v);
    mx = std::max(mx, v);
  }
  float scale = (mx - mn) / 255.0f;
  if (scale <= 0) scale = 1;
  const long z = std::clamp(static_cast<long>(std::rint(-mn / scale)), 0L, 255L);
  std::vector<long> q(x.size());
  for (size_t i = 0; i < x.size(); ++i) q[i] = std::clamp(z + static_cast<long>(std::rint(x[i] / scale)), 0L, 255L);
  const int Ho = (H + a.pt + a.pb - a.dh * (kH - 1) - 1) / a.sh + 1, Wo = (W + a.pl + a.pr - a.dw * (kW - 1) - 1) / a.sw + 1;
  *HoOut = Ho;
  *WoOut = Wo;
  std::vector<float> out(static_cast<size_t>(N * M * Ho * Wo));
  for (int n = 0; n < N; ++n)
    for (int m = 0; m < M; ++m)
      for (int oy = 0; oy < Ho; ++oy)
        for (int ox = 0; ox < Wo; ++ox) {
          long sum = 0;
          for (int c = 0; c < C; ++c)
            for (int ky = 0; ky < kH; ++ky)
              for (int kx = 0; kx < kW; ++kx) {
                const int iy = oy * a.sh - a.pt + ky * a.dh, ix = ox * a.sw - a.pl + kx * a.dw;
                if (iy < 0 || iy >= H || ix < 0 || ix >= W) continue;
                sum += (q[static_cast<size_t>(((n * C + c) * H + iy) * W + ix)] - z) *
                       w[static_cast<size_t>(((m * C + c) * kH + ky) * kW + kx)];
              }
          out[static_cast<size_t>(((n * M + m) * Ho + oy) * Wo + ox)] =
              bias[static_cast<size_t>(m)] + (scale * ws[static_cast<size_t>(m)]) * static_cast<float>(sum);
        }
  return out;
}

std::vector<int8_t> seededWeights(size_t n, uint32_t seed) {
  std::vector<int8_t> w(n);
  const std::vector<float> f = seededFloats(n, seed, -128.0f, 127.99f);
  for (size_t i = 0; i < n; ++i) w[i] = static_cast<int8_t>(std::floor(f[i]));
  w[0] = -128;
  return w;
}

TEST(Int8ConvVNNI, OperatorEqualsThePlainRecipe) {
  struct Case {
    std::string graph;
    ConvAttrs attrs;
  };
  const std::vector<Case> cases{{"int8_conv_default", {}},
                                {"int8_conv_strided", {2, 2, 1, 1, 1, 1, 1, 1}},
                                {"int8_conv_dilated", {1, 2, 2, 1, 2, 1, 0, 2}},
                                {"int8_conv_short_attrs", {}}};  // too-short lists take the defaults
  const int N = 2, C = 5, H = 33, W = 29, M = 4, kH = 3, kW = 3;  // over two range grains
  std::vector<float> x = seededFloats(static_cast<size_t>(N * C * H * W), 31, -1.5f, 3.0f);
  x[3] = -1.5f;  // the range's ends and an exact half step
  const std::vector<int8_t> w = seededWeights(static_cast<size_t>(M * C * kH * kW), 32);
  const std::vector<float> ws = seededFloats(M, 33, 0.001f, 0.02f), bias = seededFloats(M, 34, -1, 1);
  for (const Case& c : cases) {
    int Ho = 0, Wo = 0;
    const std::vector<float> want = referenceInt8Conv(x, w, ws, bias, N, C, H, W, M, kH, kW, c.attrs, &Ho, &Wo);
    const OpOutput got =
        runOpGraph(c.graph,
                   {{"X", {N, C, H, W}, x}, {"Wq", {M, C, kH, kW}, {}, w}, {"scale", {M}, ws}, {"bias", {M}, bias}},
                   {"Y"})[0];
    EXPECT_EQ(got.shape, (std::vector<int64_t>{N, M, Ho, Wo})) << c.graph;
    EXPECT_TRUE(sameFloatBits(got.data, want)) << c.graph;
  }
}

TEST(Int8ConvVNNI, AllZeroInputGivesTheBias) {
  const Int8Quant q = int8QuantOf(std::vector<float>(8, 0.0f).data(), 8);
  EXPECT_EQ(q.scale, 1.0f);
  EXPECT_EQ(q.zero, 0);
  const std::vector<float> x(2 * 6 * 6, 0.0f), ws{0.5f, 2.0f}, bias{0.25f, -3.0f};
  const std::vector<int8_t> w = seededWeights(2 * 2 * 9, 4);
  const OpOutput got = runOpGraph(
      "int8_conv_strided", {{"X", {1, 2, 6, 6}, x}, {"Wq", {2, 2, 3, 3}, {}, w}, {"scale", {2}, ws}, {"bias", {2}, bias}},
      {"Y"})[0];
  for (size_t i = 0; i < got.data.size(); ++i) EXPECT_EQ(got.data[i], i < 9 ? 0.25f : -3.0f) << i;
}

TEST(Int8ConvVNNI, RefusesWeightsOfOtherChannels) {
  const std::vector<float> x(3 * 4 * 4), one{1.0f};
  const std::vector<int8_t> w(2 * 9, 1);
  try {
    runOpGraph("int8_conv_default", {{"X", {1, 3, 4, 4}, x}, {"Wq", {1, 2, 3, 3}, {}, w}, {"scale", {1}, one}, {"bias", {1}, one}}, {"Y"});
    FAIL() << "no refusal";
  } catch (const Ort::Exception& e) {
    EXPECT_NE(std::string(e.what()).find("com.kestrova.int8::Int8ConvVNNI: X [1,3,4,4] and weights [1,2,3,3] with strides "
                                         "[1,1], pads [0,0,0,0] and dilations [1,1] make no ungrouped convolution with "
                                         "one scale and one bias per output channel. REFUSING."),
              std::string::npos)
        << e.what();
  }
}

// a - b by flat index arithmetic over right-aligned rank-5 shapes.
std::vector<float> referenceSub(const std::vector<float>& a, std::vector<int64_t> as, const std::vector<float>& b,
                                std::vector<int64_t> bs, std::vector<int64_t>* shape) {
  const size_t rank = std::max(as.size(), bs.size());
  while (as.size() < 5) as.insert(as.begin(), 1);
  while (bs.size() < 5) bs.insert(bs.begin(), 1);
  std::vector<int64_t> os(5);
  for (int i = 0; i < 5; ++i) os[static_cast<size_t>(i)] = std::max(as[static_cast<size_t>(i)], bs[static_cast<size_t>(i)]);
  shape->assign(os.end() - static_cast<long>(rank), os.end());
  std::vector<float> out;
  std::vector<int64_t> i(5);
  for (i[0] = 0; i[0] < os[0]; ++i[0])
    for (i[1] = 0; i[1] < os[1]; ++i[1])
      for (i[2] = 0; i[2] < os[2]; ++i[2])
        for (i[3] = 0; i[3] < os[3]; ++i[3])
          for (i[4] = 0; i[4] < os[4]; ++i[4]) {
            int64_t ia = 0, ib = 0;
            for (size_t d = 0; d < 5; ++d) {
              ia = ia * as[d] + (as[d] == 1 ? 0 : i[d]);
              ib = ib * bs[d] + (bs[d] == 1 ? 0 : i[d]);
            }
            out.push_back(a[static_cast<size_t>(ia)] - b[static_cast<size_t>(ib)]);
          }
  return out;
}

TEST(SubBcastKHWC, KeypointCaseAndGeneralBroadcastEqualThePlainRecipe) {
  const std::vector<std::pair<std::vector<int64_t>, std::vector<int64_t>>> shapes{
      {{1, 1, 6, 5, 2}, {1, 21, 1, 1, 2}},  // the keypoint grids: the fast path
      {{1, 1, 4, 3, 3}, {1, 7, 1, 1, 3}},   // the same with D = 3
      {{2, 1, 4, 3, 2}, {1, 5, 1, 1, 2}},   // first axis 2: the general loop
      {{4, 3}, {3}},
      {{3, 1, 2}, {1, 4, 1}},
      {{1}, {2, 3}}};
  uint32_t seed = 40;
  for (const auto& [as, bs] : shapes) {
    const std::vector<float> a = seededFloats(static_cast<size_t>(std::accumulate(as.begin(), as.end(), 1L, std::multiplies<>())), seed++, -2, 2);
    const std::vector<float> b = seededFloats(static_cast<size_t>(std::accumulate(bs.begin(), bs.end(), 1L, std::multiplies<>())), seed++, -2, 2);
    std::vector<int64_t> shape;
    const std::vector<float> want = referenceSub(a, as, b, bs, &shape);
    for (int threads : {1, 2}) {
      const OpOutput got = runOpGraph("sub_bcast", {{"a", as, a}, {"b", bs, b}}, {"Y"}, threads)[0];
      EXPECT_EQ(got.shape, shape);
      EXPECT_TRUE(sameFloatBits(got.data, want));
    }
  }
}

TEST(SubBcastKHWC, InfersTheKeypointShapeAndRefuses) {
  const std::vector<float> a(1 * 1 * 3 * 4 * 2, 1.0f), b(1 * 5 * 2, 0.5f);
  const OpOutput got = runOpGraph("sub_bcast_typed", {{"a", {1, 1, 3, 4, 2}, a}, {"b", {1, 5, 1, 1, 2}, b}}, {"Y"})[0];
  EXPECT_EQ(got.shape, (std::vector<int64_t>{1, 5, 3, 4, 2}));
  auto refusal = [](std::vector<int64_t> as, std::vector<int64_t> bs) {
    try {
      runOpGraph("sub_bcast", {{"a", as, std::vector<float>(64)}, {"b", bs, std::vector<float>(64)}}, {"Y"});
    } catch (const Ort::Exception& e) {
      return std::string(e.what());
    }
    return std::string("(no refusal)");
  };
  EXPECT_NE(refusal({1, 1, 1, 1, 2, 2}, {2}).find("com.kestrova::SubBcastKHWC: rank > 5"), std::string::npos);
  EXPECT_NE(refusal({3, 2}, {4, 2}).find("com.kestrova::SubBcastKHWC: shapes do not broadcast"), std::string::npos);
  EXPECT_THROW(subBcastShape({2, 3}, {3, 3}), std::runtime_error);
}

}  // namespace
}  // namespace le::test
