// The fused warp's grid against ONNX Runtime's own: Resize (linear,
// half_pixel), Transpose, Add, run by ONNX Runtime on this machine.
#include <gtest/gtest.h>

#include <cmath>

#include "director/ops/warp_flow.h"
#include "tests/director/ops_testing.h"

namespace le::test {
namespace {

// ORT's grid and both of our forms for one flow size and integral scale.
struct GridForms {
  std::vector<float> ort, fma, plain;
};

GridForms gridForms(int h, int w, int sh, int sw, uint32_t seed) {
  const int H = h * sh, W = w * sw;
  const std::vector<float> flow = seededFloats(static_cast<size_t>(2 * h * w), seed, -0.3f, 0.3f);
  const std::vector<float> base = seededFloats(static_cast<size_t>(H * W * 2), seed + 1, -1.0f, 1.0f);
  const std::vector<float> scales{1.0f, 1.0f, static_cast<float>(sh), static_cast<float>(sw)};
  GridForms g;
  g.ort = runOpGraph("ort_grid",
                     {{"flow", {1, 2, h, w}, flow}, {"scales", {4}, scales}, {"base", {1, H, W, 2}, base}},
                     {"grid"})[0]
              .data;
  WarpFlowTables t;
  warpFlowTables(w, h, W, H, static_cast<float>(sw), static_cast<float>(sh), t);
  g.fma.resize(g.ort.size());
  g.plain.resize(g.ort.size());
  warpFlowGridRows(flow.data(), base.data(), g.fma.data(), t, 0, H, true);
  warpFlowGridRows(flow.data(), base.data(), g.plain.data(), t, 0, H, false);
  return g;
}

TEST(WarpFlow, TheServedFormIsOrtsGridOnThisMachine) {
  size_t otherDiffs = 0;
  for (const auto& [h, w, sh, sw] : std::vector<std::array<int, 4>>{{8, 8, 4, 4}, {5, 7, 2, 3}, {16, 16, 2, 2},
                                                                     {6, 4, 1, 5}, {4, 4, 8, 8}}) {
    const GridForms g = gridForms(h, w, sh, sw, static_cast<uint32_t>(h * 100 + w));
    const std::vector<float>& served = warpFlowOrtFmaForm() ? g.fma : g.plain;
    const std::vector<float>& other = warpFlowOrtFmaForm() ? g.plain : g.fma;
    EXPECT_TRUE(sameFloatBits(served, g.ort)) << h << "x" << w << " up " << sh << "x" << sw;
    otherDiffs += bitDifferences(other, g.ort);
  }
  // The two forms must be told apart by this data, or the check above would
  // hold for either answer.
  EXPECT_GT(otherDiffs, 0u);
}

}  // namespace
}  // namespace le::test
