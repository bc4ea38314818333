// The warp fuse on graphs that the warp block rewrite left: the three
// fusions, each refusal in its census, VERIFY, the cases that change nothing,
// and that the fused node warps the warp node's bits.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "director/rewrites/warp_block.h"
#include "director/rewrites/warp_fuse.h"
#include "tests/director/float_bits.h"
#include "tests/director/graph_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::GsBytes;

// The cone graph of that name, its warp block rewritten.
GsBytes warpNodeGraph(const std::string& file) {
  GsBytes bytes = le::test::graphFile("cone/" + file + ".onnx");
  std::string why;
  EXPECT_GT(le::rewriteWarpBlockToCustomOp(bytes, why), 0u) << file << ": " << why;
  return bytes;
}

std::vector<le::GsNodeInfo> nodesOf(const GsBytes& model) {
  std::vector<le::GsNodeInfo> nodes;
  le::wdReadNodes(le::gsGraphOf(model), nodes);
  return nodes;
}

const le::GsNodeInfo* findOp(const std::vector<le::GsNodeInfo>& nodes, const std::string& op) {
  for (const auto& n : nodes)
    if (n.opType == op) return &n;
  return nullptr;
}

int64_t attrInt(const le::GsNodeInfo& n, const char* name) {
  const std::vector<le::GsAttr> attrs = le::gsReadAttrs(n.body);
  const le::GsAttr* a = le::gsFindAttr(attrs, name);
  return a && a->hasI ? a->i : -1;
}

TEST(WarpFuse, FoldsTheGridTheExitAndTheKeypointSubsIntoTheWarp) {
  GsBytes bytes = warpNodeGraph("member");
  le::WarpFuseCensus census;
  std::string why = "not cleared";
  // Resize, Transpose and Add; Slice and Clip; two Subs.
  EXPECT_EQ(le::rewriteWarpFuse(bytes, false, &census, why), 7u);
  EXPECT_EQ(why, "");
  EXPECT_EQ(census.grid, 1);
  EXPECT_EQ(census.exit, 1);
  EXPECT_EQ(census.subs, 2);
  EXPECT_EQ(census.nodes, 5u);
  EXPECT_EQ(census.gridReason + census.exitReason + census.subsReason, "");
  const std::vector<le::GsNodeInfo> nodes = nodesOf(bytes);
  EXPECT_EQ(findOp(nodes, "WarpDirector"), nullptr);
  for (const char* op : {"Resize", "Transpose", "Clip"})
    for (const auto& n : nodes) EXPECT_FALSE(n.opType == op && n.name.rfind("/warp/", 0) == 0) << n.name;
  const le::GsNodeInfo* fused = findOp(nodes, "WarpDirectorFused");
  ASSERT_NE(fused, nullptr);
  EXPECT_EQ(fused->domain, "com.kestrova");
  EXPECT_EQ(fused->name, "le_warp_director_fused");
  EXPECT_EQ(fused->inputs, (std::vector<std::string>{"P_rgb", "flow", "base_grid"}));
  EXPECT_EQ(fused->outputs, std::vector<std::string>{"warped"});
  EXPECT_EQ(attrInt(*fused, "up_h"), 8);
  EXPECT_EQ(attrInt(*fused, "up_w"), 8);
  EXPECT_EQ(attrInt(*fused, "clip"), 1);
  EXPECT_EQ(attrInt(*fused, "verify"), 0);
  std::vector<std::string> subs;
  for (const auto& n : nodes)
    if (n.opType == "SubBcastKHWC") {
      EXPECT_EQ(n.domain, "com.kestrova");
      EXPECT_EQ(n.inputs[0], "id_grid");
      subs.push_back(n.name);
    }
  EXPECT_EQ(subs, (std::vector<std::string>{"/motion/Sub_d_khwc", "/motion/Sub_s_khwc"}));
}

TEST(WarpFuse, VerifyKeepsOrtsGridBesideTheNodes) {
  for (const char* file : {"member", "grid_read_twice"}) {
    SCOPED_TRACE(file);
    GsBytes bytes = warpNodeGraph(file);
    le::WarpFuseCensus census;
    std::string why;
    EXPECT_EQ(le::rewriteWarpFuse(bytes, true, &census, why), 4u) << why;
    EXPECT_EQ(census.grid, 1);
    EXPECT_EQ(census.nodes, 2u);
    const std::vector<le::GsNodeInfo> nodes = nodesOf(bytes);
    const le::GsNodeInfo* fused = findOp(nodes, "WarpDirectorFused");
    ASSERT_NE(fused, nullptr);
    EXPECT_EQ(fused->inputs, (std::vector<std::string>{"P_rgb", "flow", "base_grid", "grid"}));
    EXPECT_EQ(attrInt(*fused, "verify"), 1);
    for (const char* op : {"Resize", "Transpose"}) EXPECT_NE(findOp(nodes, op), nullptr) << op;
  }
}

// With the exit and the Subs refused, the grid is all that verify fuses and
// no node goes; the graph is still rewritten, and the count says so.
TEST(WarpFuse, VerifyFusingOnlyTheGridCountsTheRewrite) {
  const GsBytes original = warpNodeGraph("grid_alone");
  for (const bool verify : {false, true}) {
    SCOPED_TRACE(verify);
    GsBytes bytes = original;
    le::WarpFuseCensus census;
    std::string why;
    EXPECT_EQ(le::rewriteWarpFuse(bytes, verify, &census, why), verify ? 1u : 3u) << why;
    EXPECT_EQ(census.grid, 1);
    EXPECT_EQ(census.exit, 0);
    EXPECT_EQ(census.subs, 0);
    EXPECT_EQ(census.nodes, verify ? 0u : 3u);
    const std::vector<le::GsNodeInfo> nodes = nodesOf(bytes);
    ASSERT_NE(findOp(nodes, "WarpDirectorFused"), nullptr);
    EXPECT_EQ(findOp(nodes, "WarpDirector"), nullptr);
  }
}

struct FuseCase {
  std::string file;
  size_t count;
  std::string grid, exit, subs;
};

TEST(WarpFuse, EachFusionRecordsWhyItStayedOut) {
  const std::string ok;
  const std::vector<FuseCase> cases = {
      {"grid_copied", 4, "the grid is not an Add", ok, ok},
      {"base_computed", 4, "the grid Add does not take exactly one constant", ok, ok},
      {"base_double", 4, "the base grid is not FLOAT", ok, ok},
      {"base_rank5", 4, "the base grid is not [H,W,2]", ok, ok},
      {"not_transpose", 4, "the grid Add does not read a Transpose", ok, ok},
      {"perm", 4, "the Transpose is not NCHW->NHWC", ok, ok},
      {"transpose_of_relu", 4, "the Transpose does not read a Resize", ok, ok},
      {"resize_nearest", 4, "the Resize is not linear", ok, ok},
      {"resize_align_corners", 4, "the Resize is not half_pixel", ok, ok},
      {"resize_antialias", 4, "the Resize antialiases", ok, ok},
      {"scales_computed", 4, "the Resize does not take constant scales (and no sizes)", ok, ok},
      {"roi", 4, "the Resize takes an roi", ok, ok},
      {"scales_65", 4, "the Resize scales are not [1,1,integral,integral]", ok, ok},
      {"scales_2_5", 4, "the Resize scales are not [1,1,integral,integral]", ok, ok},
      {"scales_64", 7, ok, ok, ok},
      {"resize_read_twice", 4, "the Resize output has another reader", ok, ok},
      {"transpose_read_twice", 4, "the Transpose output has another reader", ok, ok},
      {"grid_read_twice", 4, "the grid has another reader", ok, ok},
      {"slice_int64_data", 7, ok, ok, ok},
      {"warp_read_twice", 5, ok, "the warp output is not read by one Slice", ok},
      {"slice_bounds_computed", 5, ok, "the Slice bounds are not constant", ok},
      {"slice_three_inputs", 5, ok, "the Slice is not on axis 1", ok},
      {"slice_axis_2", 5, ok, "the Slice is not on axis 1", ok},
      {"slice_steps_2", 5, ok, "the Slice steps are not 1", ok},
      {"slice_ends_2", 5, ok, "the Slice is not [0, >=3) on the 3-channel output (not an identity)", ok},
      {"slice_read_twice", 5, ok, "the Slice is not read by one Clip", ok},
      {"clip_min_negative_zero", 5, ok, "the Clip is not (0, 1)", ok},
      {"clip_max_0_9", 5, ok, "the Clip is not (0, 1)", ok},
      {"clip_no_min", 5, ok, "the Clip is not (0, 1)", ok},
      {"subs_rank4", 5, ok, ok, "no Sub(const [1,1,H,W,C], tensor)"},
  };
  for (const FuseCase& c : cases) {
    SCOPED_TRACE(c.file);
    GsBytes bytes = warpNodeGraph(c.file);
    le::WarpFuseCensus census;
    std::string why = "not cleared";
    EXPECT_EQ(le::rewriteWarpFuse(bytes, false, &census, why), c.count);
    EXPECT_EQ(why, "");
    EXPECT_EQ(census.gridReason, c.grid);
    EXPECT_EQ(census.exitReason, c.exit);
    EXPECT_EQ(census.subsReason, c.subs);
    EXPECT_EQ(census.grid, c.grid.empty() ? 1 : 0);
    EXPECT_EQ(census.exit, c.exit.empty() ? 1 : 0);
    // A grid that stays out leaves the fused node reading the grid itself.
    const std::vector<le::GsNodeInfo> nodes = nodesOf(bytes);
    const le::GsNodeInfo* fused = findOp(nodes, "WarpDirectorFused");
    ASSERT_NE(fused, nullptr);
    if (!c.grid.empty()) {
      EXPECT_EQ(fused->inputs, (std::vector<std::string>{"P_rgb", "grid"}));
      EXPECT_EQ(attrInt(*fused, "up_h"), -1);
      EXPECT_EQ(attrInt(*fused, "clip"), 1);
    }
  }
}

TEST(WarpFuse, WhatCantBeFusedIsLeftAsItWas) {
  auto expectUntouched = [](const GsBytes& original, bool verify, const std::string& reason) {
    GsBytes bytes = original;
    std::string why;
    EXPECT_EQ(le::rewriteWarpFuse(bytes, verify, nullptr, why), 0u);
    EXPECT_EQ(why, reason);
    EXPECT_TRUE(le::test::sameBytes(bytes, original));
  };
  expectUntouched(warpNodeGraph("plain"), false,
                  "nothing to fuse: grid (the grid Add does not read a Transpose), exit (the warp output is not read "
                  "by one Slice), subs (no Sub(const [1,1,H,W,C], tensor))");
  // Without the warp node nothing is touched, the matching Subs neither.
  const std::string notFired =
      "no com.kestrova::WarpDirector(P_rgb, grid) in this graph (the warp node did not fire)";
  expectUntouched(le::test::graphFile("cone/member.onnx"), false, notFired);
  expectUntouched(le::test::graphFile("cone/member.onnx"), true, notFired);
  expectUntouched(warpNodeGraph("second_warp_node"), false, "more than one WarpDirector");
  expectUntouched(GsBytes{}, false, "no graph");
}

TEST(WarpFuse, OnlySubsToChangeLeaveTheWarpNodeRaw) {
  const GsBytes original = warpNodeGraph("nothing_but_subs");
  GsBytes bytes = original;
  le::WarpFuseCensus census;
  std::string why;
  EXPECT_EQ(le::rewriteWarpFuse(bytes, false, &census, why), 2u);
  EXPECT_EQ(census.nodes, 0u);
  const std::vector<le::GsNodeInfo> before = nodesOf(original), after = nodesOf(bytes);
  const le::GsNodeInfo* warp = findOp(after, "WarpDirector");
  ASSERT_NE(warp, nullptr);
  EXPECT_EQ(warp->raw.str(), findOp(before, "WarpDirector")->raw.str());
  EXPECT_EQ(findOp(after, "WarpDirectorFused"), nullptr);
}

TEST(WarpFuse, AttributeIntsPackedOrNot) {
  GsBytes attr;
  le::gsPutStr(attr, 1, "perm");
  GsBytes packed;
  for (uint64_t v : {0u, 2u, 3u, 1u}) le::gsPutVarint(packed, v);
  le::gsPutLen(attr, 8, packed);
  le::gsPutInt(attr, 8, 7);  // and one more, unpacked
  GsBytes body;
  le::gsPutStr(body, 4, "Transpose");
  le::gsPutLen(body, 5, attr);
  le::GsNodeInfo node;
  node.body = le::gsSliceOf(body);
  std::vector<int64_t> ints;
  EXPECT_TRUE(le::fzAttrInts(node, "perm", ints));
  EXPECT_EQ(ints, (std::vector<int64_t>{0, 2, 3, 1, 7}));
  EXPECT_FALSE(le::fzAttrInts(node, "axes", ints));
}

// The fused node computes ONNX Runtime's grid bit for bit (the plain form on
// this machine) and clips as Clip did, so a fused graph gives the warp
// node's output exactly; VERIFY serves ONNX Runtime's own grid.
TEST(WarpFuse, TheFusedNodeGivesTheWarpNodesBits) {
  const GsBytes node = warpNodeGraph("member");
  for (const bool verify : {false, true}) {
    GsBytes fused = node;
    std::string why;
    ASSERT_GT(le::rewriteWarpFuse(fused, verify, nullptr, why), 0u) << why;
    for (const uint32_t seed : {1u, 2u, 3u})
      for (const int threads : {1, 2}) {
        const le::test::DirectorInputs in = le::test::sampleInputs(seed);
        std::vector<float> got;
        const std::string log = le::test::captureStderr(
            [&] { got = le::test::runGraph(fused, le::test::directorTensors(in), "rgb", threads); });
        EXPECT_TRUE(le::test::sameFloatBits(got, le::test::runGraph(node, le::test::directorTensors(in), "rgb", threads)))
            << (verify ? "verify" : "served") << ", seed " << seed << ", " << threads << " threads";
        // Each session's kernel reports its first frame.
        EXPECT_EQ(log.find("the served form (plain) differs from ORT's grid on 0, the other form (fma) on ") !=
                      std::string::npos,
                  verify)
            << log;
      }
  }
}

}  // namespace
