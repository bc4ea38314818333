// WarpDirector and WarpDirectorFused against a plain reference of the warp
// recipe; the fused node's grid, clip, VERIFY report and refusals.
#include <gtest/gtest.h>

#include <onnxruntime_cxx_api.h>

#include <cmath>
#include <limits>

#include "director/ops/warp_director.h"
#include "director/ops/warp_director_fused.h"
#include "director/ops/warp_flow.h"
#include "tests/director/ops_testing.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

// The warp recipe for one item x [3,H,W], grid [H,W,2], straight from the
// definitions: planes of second differences, bilinear on clamped
// coordinates, correction factors from the unclamped ones.
std::vector<float> referenceWarp(const std::vector<float>& x, const std::vector<float>& grid, int H, int W) {
  auto cl = [](long v, long hi) { return v < 0 ? 0 : (v > hi ? hi : v); };
  auto I = [&](int c, long y, long col) { return x[static_cast<size_t>((c * H + y) * W + col)]; };
  auto two = [](float v) { return v + v; };
  auto plane = [&](int c, long y, long col, int k) {
    const long xm = cl(col - 1, W - 1), xp = cl(col + 1, W - 1), ym = cl(y - 1, H - 1), yp = cl(y + 1, H - 1);
    auto V = [&](long u) { return (I(c, ym, u) - two(I(c, y, u))) + I(c, yp, u); };
    if (k == 0) return I(c, y, col);
    if (k == 1) return (I(c, y, xm) - two(I(c, y, col))) + I(c, y, xp);
    if (k == 2) return V(col);
    return (V(xm) - two(V(col))) + V(xp);
  };
  std::vector<float> out(x.size());
  for (int y = 0; y < H; ++y)
    for (int xo = 0; xo < W; ++xo) {
      const float gx = grid[static_cast<size_t>((y * W + xo) * 2)], gy = grid[static_cast<size_t>((y * W + xo) * 2 + 1)];
      const float ix = ((gx + 1) * static_cast<float>(W) - 1) * 0.5f, iy = ((gy + 1) * static_cast<float>(H) - 1) * 0.5f;
      const float fx = ix - std::floor(ix), fy = iy - std::floor(iy);
      const float ax = fx * (1 - fx) * 0.5f, ay = fy * (1 - fy) * 0.5f;
      const float cx = std::min(std::max(ix, 0.0f), static_cast<float>(W - 1));
      const float cy = std::min(std::max(iy, 0.0f), static_cast<float>(H - 1));
      const float wx = cx - std::floor(cx), wy = cy - std::floor(cy);
      const long x0 = cl(static_cast<long>(std::floor(cx)), W - 1), x1 = std::min(x0 + 1, static_cast<long>(W - 1));
      const long y0 = cl(static_cast<long>(std::floor(cy)), H - 1), y1 = std::min(y0 + 1, static_cast<long>(H - 1));
      const float w00 = (1 - wx) * (1 - wy), w10 = wx * (1 - wy), w01 = (1 - wx) * wy, w11 = wx * wy;
      for (int c = 0; c < 3; ++c) {
        float b[4];
        for (int k = 0; k < 4; ++k) {
          float s = w00 * plane(c, y0, x0, k) + 0.0f;
          s = s + w10 * plane(c, y0, x1, k);
          s = s + w01 * plane(c, y1, x0, k);
          b[k] = s + w11 * plane(c, y1, x1, k);
        }
        out[static_cast<size_t>((c * H + y) * W + xo)] = ((b[0] - ax * b[1]) - ay * b[2]) + (ax * ay) * b[3];
      }
    }
  return out;
}

std::vector<float> awkwardWarpGrid(int H, int W, uint32_t seed) {
  std::vector<float> g = seededFloats(static_cast<size_t>(H * W * 2), seed, -1.2f, 1.2f);
  const float special[] = {-1.0f, 1.0f, -0.0f, 0.0f, 5.0f, -7.5f, 1e5f, -1e5f, 0.999f, -1.0f / static_cast<float>(W)};
  for (size_t i = 0; i < g.size(); i += 4) g[i] = special[(i / 4) % (sizeof special / sizeof *special)];
  return g;
}

std::string refusalOf(const std::function<void()>& fn) {
  try {
    fn();
  } catch (const Ort::Exception& e) {
    return e.what();
  }
  return "(no refusal)";
}

TEST(WarpDirector, PlanesThenGatherAndOnePassEqualTheRecipe) {
  for (const auto& [H, W] : std::vector<std::array<int, 2>>{{20, 17}, {1, 1}, {2, 3}, {33, 16}}) {
    const std::vector<float> x = seededFloats(static_cast<size_t>(3 * H * W), static_cast<uint32_t>(H), -1, 2);
    const std::vector<float> grid = awkwardWarpGrid(H, W, static_cast<uint32_t>(W));
    const std::vector<float> want = referenceWarp(x, grid, H, W);
    std::vector<float> planes(static_cast<size_t>(H * W * kWarpPlaneFloats)), out(x.size()), one(x.size());
    warpDirectorPlanesBand(x.data(), planes.data(), W, H, 0, H);
    warpDirectorGatherBand(planes.data(), grid.data(), out.data(), W, H, 0, H);
    warpDirector(x.data(), grid.data(), one.data(), W, H);
    EXPECT_TRUE(sameFloatBits(out, want)) << H << "x" << W;
    EXPECT_TRUE(sameFloatBits(one, want)) << H << "x" << W;
  }
  EXPECT_STREQ(warpBody(), "scalar");
}

TEST(WarpDirector, OperatorEqualsTheRecipeAtEveryThreadCount) {
  const int H = 40, W = 24;
  const std::vector<float> x = seededFloats(static_cast<size_t>(3 * H * W), 1, 0, 1);
  const std::vector<float> grid = awkwardWarpGrid(H, W, 2);
  const std::vector<float> want = referenceWarp(x, grid, H, W);
  for (int threads : {1, 2, 4}) {
    const OpOutput got = runOpGraph("warp_director", {{"X", {1, 3, H, W}, x}, {"grid", {1, H, W, 2}, grid}}, {"Y"},
                                    threads)[0];
    EXPECT_TRUE(sameFloatBits(got.data, want)) << threads << " threads";
  }
}

TEST(WarpDirector, RefusesFourChannels) {
  const std::vector<float> x(4 * 4 * 4), grid(4 * 4 * 2);
  EXPECT_NE(refusalOf([&] { runOpGraph("warp_director", {{"X", {1, 4, 4, 4}, x}, {"grid", {1, 4, 4, 2}, grid}}, {"Y"}); })
                .find("com.kestrova::WarpDirector: this node warps the director's 3-channel source and the graph "
                      "handed it C=4. REFUSING rather than writing a frame nobody asked for."),
            std::string::npos);
}

TEST(WarpFlow, TablesAtScaleOneAndTheLastIndex) {
  WarpFlowTables t;
  warpFlowTables(4, 3, 4, 3, 1.0f, 1.0f, t);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(t.x0[static_cast<size_t>(i)], i);
    EXPECT_EQ(t.dx1[static_cast<size_t>(i)], 0.0f);
    EXPECT_EQ(t.dx2[static_cast<size_t>(i)], 1.0f);
  }
  EXPECT_EQ(t.x0[3], 3);
  EXPECT_EQ(t.x1[3], 3);
  EXPECT_EQ(t.dx1[3], 0.5f);
  EXPECT_EQ(t.dx2[3], 0.5f);
  warpFlowTables(2, 2, 8, 8, 4.0f, 4.0f, t);
  // i = 3: s = 3.5/4 - 0.5 = 0.375 between 0 and 1.
  EXPECT_EQ(t.x0[3], 0);
  EXPECT_EQ(t.x1[3], 1);
  EXPECT_EQ(t.dx1[3], 0.375f);
  EXPECT_EQ(t.dx2[3], 0.625f);
  EXPECT_EQ(t.x0[0], 0);  // s = -0.375 clamps to 0
  EXPECT_EQ(t.dx1[0], 0.0f);
}

TEST(WarpFlow, ClipMakesPlusZeroAndLeavesNaN) {
  const float nan = std::numeric_limits<float>::quiet_NaN();
  std::vector<float> buf{-0.0f, -3.0f, 0.25f, 1.0f, 7.0f, nan};  // 3 planes of 1x2
  warpClip01Rows(buf.data(), 2, 1, 0, 1);
  EXPECT_FALSE(std::signbit(buf[0]));
  EXPECT_EQ(buf[0], 0.0f);
  EXPECT_EQ(buf[1], 0.0f);
  EXPECT_EQ(buf[2], 0.25f);
  EXPECT_EQ(buf[3], 1.0f);
  EXPECT_EQ(buf[4], 1.0f);
  EXPECT_TRUE(std::isnan(buf[5]));
}

TEST(WarpDirectorFused, VerifyReportsAtFramesOneThirtyAndEveryThreeHundredth) {
  for (uint64_t f : {1u, 30u, 300u, 600u}) EXPECT_TRUE(warpVerifyDue(f)) << f;
  for (uint64_t f : {0u, 2u, 29u, 31u, 299u, 301u}) EXPECT_FALSE(warpVerifyDue(f)) << f;
  EXPECT_EQ(warpVerifyLine(30, 1920, false, 0, 12),
            "[le] warp fuse VERIFY: 30 frames, 1920 grid floats; the served form (plain) differs from ORT's grid on 0, "
            "the other form (fma) on 12\n");
  EXPECT_EQ(warpVerifyLine(1, 64, true, 3, 0),
            "[le] warp fuse VERIFY: 1 frames, 64 grid floats; the served form (fma) differs from ORT's grid on 3, the "
            "other form (plain) on 0 — ★THE FUSED GRID IS NOT ORT'S: do not serve LE_WARP_FUSE=1 here\n");
}

// Inputs of the fused node's flow form: X, flow [1,2,h,w], base [1,H,W,2].
struct FlowCase {
  int h, w, sh, sw;
  std::vector<float> x, flow, base;
};
FlowCase flowCase(int h, int w, int sh, int sw) {
  const int H = h * sh, W = w * sw;
  return {h, w, sh, sw, seededFloats(static_cast<size_t>(3 * H * W), 5, -0.2f, 1.2f),
          seededFloats(static_cast<size_t>(2 * h * w), 6, -0.2f, 0.2f),
          seededFloats(static_cast<size_t>(H * W * 2), 7, -1.0f, 1.0f)};
}

TEST(WarpDirectorFused, FlowFormWarpsOnTheComputedGrid) {
  for (const auto& [h, w, sh, sw] : std::vector<std::array<int, 4>>{{8, 8, 2, 2}, {5, 4, 4, 4}, {6, 5, 2, 3}}) {
    const FlowCase c = flowCase(h, w, sh, sw);
    const int H = h * sh, W = w * sw;
    WarpFlowTables t;
    warpFlowTables(w, h, W, H, static_cast<float>(sw), static_cast<float>(sh), t);
    std::vector<float> grid(static_cast<size_t>(H * W * 2));
    warpFlowGridRows(c.flow.data(), c.base.data(), grid.data(), t, 0, H, warpFlowOrtFmaForm());
    const std::vector<float> want = referenceWarp(c.x, grid, H, W);
    const std::string name = "fused_flow_" + std::to_string(sh) + "x" + std::to_string(sw);
    for (int threads : {1, 3}) {
      const OpOutput got = runOpGraph(
          name, {{"X", {1, 3, H, W}, c.x}, {"flow", {1, 2, h, w}, c.flow}, {"base", {1, H, W, 2}, c.base}}, {"Y"},
          threads)[0];
      EXPECT_TRUE(sameFloatBits(got.data, want)) << name << ", " << threads << " threads";
    }
  }
}

TEST(WarpDirectorFused, VerifyServesOrtsGridAndFindsTheServedFormEqual) {
  const FlowCase c = flowCase(8, 8, 4, 4);
  const int H = 32, W = 32;
  const std::vector<OpInput> in{{"X", {1, 3, H, W}, c.x}, {"flow", {1, 2, 8, 8}, c.flow}, {"base", {1, H, W, 2}, c.base}};
  std::vector<OpOutput> got;
  const std::string log = captureStderr([&] { got = runOpGraph("fused_verify_4x4", in, {"Y", "grid"}); });
  EXPECT_TRUE(sameFloatBits(got[0].data, referenceWarp(c.x, got[1].data, H, W)));
  EXPECT_NE(log.find("[le] warp fuse VERIFY: 1 frames, 2048 grid floats; the served form (plain) differs from ORT's "
                     "grid on 0, the other form (fma) on "),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("★"), std::string::npos) << log;
}

TEST(WarpDirectorFused, GridFormClipsTheWarp) {
  const int H = 18, W = 20;
  const std::vector<float> x = seededFloats(static_cast<size_t>(3 * H * W), 8, -0.5f, 1.5f);
  const std::vector<float> grid = awkwardWarpGrid(H, W, 9);
  std::vector<float> want = referenceWarp(x, grid, H, W);
  for (float& v : want) v = v <= 0 ? 0.0f : (v >= 1 ? 1.0f : v);
  const OpOutput got =
      runOpGraph("fused_grid_clip", {{"X", {1, 3, H, W}, x}, {"grid", {1, H, W, 2}, grid}}, {"Y"}, 2)[0];
  EXPECT_TRUE(sameFloatBits(got.data, want));
}

TEST(WarpDirectorFused, Refusals) {
  const FlowCase c = flowCase(4, 4, 2, 2);
  const std::vector<float> x4(4 * 8 * 8);
  EXPECT_NE(refusalOf([&] {
              runOpGraph("fused_flow_2x2", {{"X", {1, 4, 8, 8}, x4}, {"flow", {1, 2, 4, 4}, c.flow}, {"base", {1, 8, 8, 2}, c.base}}, {"Y"});
            }).find("com.kestrova::WarpDirectorFused: C=4, this node warps the 3-channel source. REFUSING."),
            std::string::npos);
  const std::vector<float> flow5(2 * 5 * 4);
  EXPECT_NE(refusalOf([&] {
              runOpGraph("fused_flow_2x2", {{"X", {1, 3, 8, 8}, c.x}, {"flow", {1, 2, 5, 4}, flow5}, {"base", {1, 8, 8, 2}, c.base}}, {"Y"});
            }).find("com.kestrova::WarpDirectorFused: the flow/base shapes do not upsample to the warp's own size. "
                    "REFUSING rather than warping on a grid nobody computed."),
            std::string::npos);
}

}  // namespace
}  // namespace le::test
