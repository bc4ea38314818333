// The warp block rewrite on the generated cone director and its one-change
// variants: what findWarpBlock proves, each refusal with the bytes left as
// they were, the graph the rewrite writes, and that the one node warps as the
// block did.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "director/rewrites/warp_block.h"
#include "tests/director/graph_testing.h"

namespace {

using le::GsBytes;
using le::test::graphFile;

// The node samples in its own order of operations (its coordinate is
// ((g + 1) * W - 1) * 0.5 and its weights come from the clamped coordinate,
// GridSample's and GridSampleFast's otherwise), so the two differ by float
// round-off of the sampling weights: 1.8e-7 at most on these inputs.
constexpr float kWarpRoundOff = 1e-6f;

std::vector<le::GsNodeInfo> nodesOf(const GsBytes& model) {
  std::vector<le::GsNodeInfo> nodes;
  le::wdReadNodes(le::gsGraphOf(model), nodes);
  return nodes;
}

bool hasNode(const std::vector<le::GsNodeInfo>& nodes, const std::string& name) {
  for (const auto& n : nodes)
    if (n.name == name) return true;
  return false;
}

TEST(WarpBlock, FindsTheSamplerItsRecombinationAndItsOneExit) {
  le::WarpBlock block;
  std::string why;
  ASSERT_TRUE(le::findWarpBlock(graphFile("cone/member.onnx"), &block, why)) << why;
  EXPECT_EQ(block.boundary, "cone_planes");
  EXPECT_EQ(block.grid, "grid");
  EXPECT_EQ(block.exit, "warp_raw");
  // The GridSample, 4 Slices of its output, 3 Muls, 2 Subs and the Add; the
  // correction factors are computed beside the block from the grid alone.
  EXPECT_EQ(block.nodes, 11u);
  // An Add that reads the recombination's output inside the block joins it.
  ASSERT_TRUE(le::findWarpBlock(graphFile("cone/inner_add.onnx"), &block, why)) << why;
  EXPECT_EQ(block.exit, "warp_raw2");
  EXPECT_EQ(block.nodes, 12u);
  // GridSampleFast at the tip is accepted without a look at attributes.
  EXPECT_TRUE(le::findWarpBlock(graphFile("cone/baked.onnx"), &block, why)) << why;
  EXPECT_FALSE(le::findWarpBlock(graphFile("cone/member.onnx"), nullptr, why));
  EXPECT_EQ(why, "no out param");
}

TEST(WarpBlock, RefusalsLeaveTheBytesAsTheyWere) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"cone/two_concats", "not one Concat consuming P_rgb"},
      {"model_b1", "not one Concat consuming P_rgb"},
      {"cone/tip_copied", "no GridSample consuming 'cone_planes'"},
      {"cone/second_gridsample", "two GridSamples on the cone's tip"},
      {"cone/padding_zeros", "the fused GridSample is not bilinear/border/align_corners=0"},
      {"cone/no_output", "the fused GridSample has no output"},
      {"cone/two_exits", "the recombination has 2 exits, not 1"},
      {"cone/grid_input", "the grid has no producer"},
  };
  for (const auto& [file, reason] : cases) {
    SCOPED_TRACE(file);
    const GsBytes original = graphFile(file + ".onnx");
    GsBytes bytes = original;
    std::string why;
    EXPECT_EQ(le::rewriteWarpBlockToCustomOp(bytes, why), 0u);
    EXPECT_EQ(why, reason);
    EXPECT_TRUE(le::test::sameBytes(bytes, original));
  }
  GsBytes empty;
  std::string why;
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(empty, why), 0u);
  EXPECT_EQ(why, "no graph");
}

TEST(WarpBlock, OneNodeTakesThePlaceOfTheBlockAndTheConeGoesWithIt) {
  const GsBytes original = graphFile("cone/member.onnx");
  const std::vector<le::GsNodeInfo> before = nodesOf(original);
  GsBytes bytes = original;
  std::string why = "not cleared";
  // The block (11), the cone with its Constant (21) and the correction
  // factors that only the block read (2 x 11 and their product).
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(bytes, why), 55u);
  EXPECT_EQ(why, "");
  const std::vector<le::GsNodeInfo> after = nodesOf(bytes);
  EXPECT_EQ(after.size(), before.size() - 55 + 1);
  for (const auto& n : after) {
    EXPECT_NE(n.name.rfind("/cone/", 0), 0u) << n.name;
    EXPECT_NE(n.name.rfind("/warp/Slice_b", 0), 0u) << n.name;
    EXPECT_NE(n.name.rfind("/warp/Floor", 0), 0u) << n.name;
  }
  for (const char* kept : {"/warp/Resize", "/warp/Transpose", "/warp/Add", "/warp/Slice_out", "/warp/Clip",
                           "/motion/Sub_d", "/s2/blend", "/head/Resize", "/compose/Add"})
    EXPECT_TRUE(hasNode(after, kept)) << kept;

  // The node stands where the GridSample stood among the nodes that stay.
  size_t at = 0, keptBefore = 0;
  for (const auto& n : before) {
    if (n.name == "/warp/GridSample") break;
    keptBefore += hasNode(after, n.name) ? 1 : 0;
  }
  for (; at < after.size() && after[at].opType != "WarpDirector"; ++at) {
  }
  ASSERT_LT(at, after.size());
  EXPECT_EQ(at, keptBefore);
  const le::GsNodeInfo& warp = after[at];
  EXPECT_EQ(warp.domain, "com.kestrova");
  EXPECT_EQ(warp.name, "le_warp_director");
  EXPECT_EQ(warp.inputs, (std::vector<std::string>{"P_rgb", "grid"}));
  EXPECT_EQ(warp.outputs, std::vector<std::string>{"warp_raw"});

  // Every initializer goes through; the custom domain is imported last.
  const le::test::ModelParts a = le::test::modelParts(original), b = le::test::modelParts(bytes);
  ASSERT_EQ(b.top.size(), a.top.size() + 1);
  GsBytes id;
  le::gsPutStr(id, 1, "com.kestrova");
  le::gsPutInt(id, 2, 1);
  EXPECT_EQ(b.top.back(), le::test::lenField(8, id));
  EXPECT_EQ(le::gsReadInitializers(le::gsGraphOf(bytes)).size(),
            le::gsReadInitializers(le::gsGraphOf(original)).size());
  // A model that imports the domain already gets no second import.
  GsBytes baked = graphFile("cone/baked.onnx");
  const size_t fields = le::test::modelParts(baked).top.size();
  EXPECT_EQ(le::rewriteWarpBlockToCustomOp(baked, why), 55u) << why;
  EXPECT_EQ(le::test::modelParts(baked).top.size(), fields);
}

TEST(WarpBlock, TheNodeWarpsAsTheBlockDid) {
  for (const char* file : {"cone/member.onnx", "cone/baked.onnx"}) {
    const GsBytes original = graphFile(file);
    GsBytes bytes = original;
    std::string why;
    ASSERT_GT(le::rewriteWarpBlockToCustomOp(bytes, why), 0u) << why;
    for (const uint32_t seed : {1u, 2u})
      for (const int threads : {1, 2}) {
        const le::test::DirectorInputs in = le::test::sampleInputs(seed);
        const std::vector<float> want = le::test::runGraph(original, le::test::directorTensors(in), "rgb", threads);
        const std::vector<float> got = le::test::runGraph(bytes, le::test::directorTensors(in), "rgb", threads);
        EXPECT_LE(le::test::maxAbsDiff(got, want), kWarpRoundOff) << file << ", seed " << seed << ", " << threads;
      }
  }
}

}  // namespace
