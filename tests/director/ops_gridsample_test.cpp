// GridSampleFast: the kernel and the registered operator against a plain
// reference written from the recipe, and against ONNX Runtime's GridSample.
#include <gtest/gtest.h>

#include <onnxruntime_cxx_api.h>

#include <cmath>
#include <limits>

#include "director/ops/gridsample_fast.h"
#include "tests/director/ops_testing.h"

namespace le::test {
namespace {

// The recipe, one pixel at a time, with nothing shared with the kernel.
std::vector<float> referenceGridSample(const std::vector<float>& x, const std::vector<float>& grid, int C, int H,
                                       int W) {
  std::vector<float> out(x.size());
  auto clampI = [](long v, long hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
  for (int y = 0; y < H; ++y)
    for (int xo = 0; xo < W; ++xo) {
      const float gx = grid[static_cast<size_t>((y * W + xo) * 2)];
      const float gy = grid[static_cast<size_t>((y * W + xo) * 2 + 1)];
      float ix = gx + 1.0f;
      ix = ix * 0.5f;
      ix = ix * static_cast<float>(W);
      ix = ix - 0.5f;
      float iy = gy + 1.0f;
      iy = iy * 0.5f;
      iy = iy * static_cast<float>(H);
      iy = iy - 0.5f;
      const long x0 = static_cast<long>(std::floor(ix)), y0 = static_cast<long>(std::floor(iy));
      const float wx = ix - static_cast<float>(x0), wy = iy - static_cast<float>(y0);
      const long xa = clampI(x0, W - 1), xb = clampI(x0 + 1, W - 1);
      const long ya = clampI(y0, H - 1), yb = clampI(y0 + 1, H - 1);
      const float w00 = (1 - wx) * (1 - wy), w10 = wx * (1 - wy), w01 = (1 - wx) * wy, w11 = wx * wy;
      for (int c = 0; c < C; ++c) {
        auto px = [&](long r, long col) { return x[static_cast<size_t>((c * H + r) * W + col)]; };
        float s = w00 * px(ya, xa);
        s = s + w10 * px(ya, xb);
        s = s + w01 * px(yb, xa);
        s = s + w11 * px(yb, xb);
        out[static_cast<size_t>((c * H + y) * W + xo)] = s;
      }
    }
  return out;
}

// A grid of random points with the awkward values mixed in: the edges -1
// and 1, pixel centres, -0, points just inside and outside the image, and
// with far set, points very far outside.
std::vector<float> awkwardGrid(int H, int W, uint32_t seed, bool far = true) {
  std::vector<float> g = seededFloats(static_cast<size_t>(H * W * 2), seed, -1.3f, 1.3f);
  const std::vector<float> near{-1.0f, 1.0f, 0.0f, -0.0f, 1.0f / static_cast<float>(W), 0.9999999f, -0.9999999f,
                                1.0000001f, 3.0f, -3.0f};
  std::vector<float> special = near;
  if (far) special.insert(special.end(), {37.0f, -1e6f, 1e6f, -3e9f});
  for (size_t i = 0; i < g.size(); i += 3) g[i] = special[(i / 3) % special.size()];
  return g;
}

TEST(GridSampleFast, KernelEqualsThePlainRecipeOnAwkwardGrids) {
  for (const auto& [C, H, W] : std::vector<std::array<int, 3>>{{3, 16, 16}, {2, 5, 7}, {1, 1, 1}, {4, 33, 20}}) {
    const std::vector<float> x = seededFloats(static_cast<size_t>(C * H * W), 7u + static_cast<uint32_t>(H), -2, 2);
    const std::vector<float> grid = awkwardGrid(H, W, 11u + static_cast<uint32_t>(W));
    std::vector<float> out(x.size());
    gridsample_fast(x.data(), grid.data(), out.data(), C, H, W);
    EXPECT_TRUE(sameFloatBits(out, referenceGridSample(x, grid, C, H, W))) << C << "x" << H << "x" << W;
  }
}

TEST(GridSampleFast, GridValueOneSamplesTheLastPixelTwice) {
  // gx = 1 gives ix = W - 0.5: x0 = W-1 and x0+1 clamps onto it, so the
  // result is that pixel's value (weights 0.5 and 0.5 on the same pixel).
  const int H = 1, W = 4;
  const std::vector<float> x{0.1f, 0.2f, 0.3f, 0.7f};
  const std::vector<float> grid{1.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f, 1.0f, 0.0f};
  std::vector<float> out(4);
  gridsample_fast(x.data(), grid.data(), out.data(), 1, H, W);
  for (float v : out) EXPECT_EQ(v, 0.7f);
}

TEST(GridSampleFast, OperatorEqualsTheKernelAtEveryThreadCount) {
  const int N = 2, C = 3, H = 37, W = 29;
  const std::vector<float> x = seededFloats(static_cast<size_t>(N * C * H * W), 3, -1, 1);
  std::vector<float> grid = awkwardGrid(H, W, 4);
  const std::vector<float> grid2 = awkwardGrid(H, W, 5);
  grid.insert(grid.end(), grid2.begin(), grid2.end());
  std::vector<float> want;
  for (int n = 0; n < N; ++n) {
    const std::vector<float> xn(x.begin() + n * C * H * W, x.begin() + (n + 1) * C * H * W);
    const std::vector<float> gn(grid.begin() + n * H * W * 2, grid.begin() + (n + 1) * H * W * 2);
    const std::vector<float> r = referenceGridSample(xn, gn, C, H, W);
    want.insert(want.end(), r.begin(), r.end());
  }
  for (int threads : {1, 2, 3, 4}) {
    const OpOutput got = runOpGraph("gridsample_fast", {{"X", {N, C, H, W}, x}, {"grid", {N, H, W, 2}, grid}},
                                    {"Y"}, threads)[0];
    EXPECT_EQ(got.shape, (std::vector<int64_t>{N, C, H, W}));
    EXPECT_TRUE(sameFloatBits(got.data, want)) << threads << " threads";
  }
}

TEST(GridSampleFast, AgreesWithOnnxRuntimesGridSample) {
  // Same sampling, another order of operations: equal to float round-off.
  // (Far outside the image, around 1e6, ONNX Runtime's kernel gives 0
  // rather than the border pixel; the director's grids never go there.)
  const int N = 1, C = 3, H = 48, W = 40;
  const std::vector<float> x = seededFloats(static_cast<size_t>(N * C * H * W), 21, 0, 1);
  const std::vector<float> grid = awkwardGrid(H, W, 22, false);
  const std::vector<OpInput> in{{"X", {N, C, H, W}, x}, {"grid", {N, H, W, 2}, grid}};
  const std::vector<float> fast = runOpGraph("gridsample_fast", in, {"Y"})[0].data;
  const std::vector<float> ort = runOpGraph("gridsample_std", in, {"Y"})[0].data;
  ASSERT_EQ(fast.size(), ort.size());
  float worst = 0;
  for (size_t i = 0; i < fast.size(); ++i) worst = std::max(worst, std::fabs(fast[i] - ort[i]));
  EXPECT_LT(worst, 2e-6f);
}

TEST(GridSampleFast, RefusesAGridOfAnotherSize) {
  const std::vector<float> x(2 * 4 * 4), grid(4 * 5 * 2);
  try {
    runOpGraph("gridsample_fast", {{"X", {1, 2, 4, 4}, x}, {"grid", {1, 4, 5, 2}, grid}}, {"Y"});
    FAIL() << "no refusal";
  } catch (const Ort::Exception& e) {
    EXPECT_NE(std::string(e.what()).find(
                  "com.kestrova::GridSampleFast: X is [1,2,4,4] and the grid [1,4,5,2]; this kernel samples a grid "
                  "[N,H,W,2] of the image's own size. REFUSING."),
              std::string::npos)
        << e.what();
  }
}

}  // namespace
}  // namespace le::test
