// The head's cubic x2 Resize -> Pad + depthwise Conv + DepthToSpace, on the
// generated director graph and its one-change variants.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "director/rewrites/head_cubic.h"
#include "tests/director/graph_testing.h"

namespace {

using le::GsBytes;
using le::test::graphFile;
using le::test::modelParts;

constexpr size_t kResizeNode = 11;
constexpr int kChannels = 4;
// The taps of Keys' cubic at fraction 0.25 (distances 1.25, 0.25, 0.75,
// 1.75); those at 0.75 are the same reversed. All are exact in binary.
constexpr double kTaps075[4] = {-0.10546875, 0.87890625, 0.26171875, -0.03515625};
constexpr double kTaps050[4] = {-0.0703125, 0.8671875, 0.2265625, -0.0234375};
// ONNX Runtime's cubic Resize and the three nodes sum in other orders.
constexpr float kRoundOff = 1e-5f;

std::string nodeField(const std::vector<std::string>& inputs, const std::string& output, const std::string& name,
                      const std::string& op, const GsBytes& attrs) {
  GsBytes node;
  for (const auto& in : inputs) le::gsPutStr(node, 1, in);
  le::gsPutStr(node, 2, output);
  le::gsPutStr(node, 3, name);
  le::gsPutStr(node, 4, op);
  le::gsPutRaw(node, attrs);
  return le::test::lenField(1, node);
}

GsBytes attribute(const std::string& name, const GsBytes& value, int type) {
  GsBytes a;
  le::gsPutStr(a, 1, name);
  le::gsPutRaw(a, value);
  le::gsPutInt(a, 20, static_cast<uint64_t>(type));
  GsBytes wrapped;
  le::gsPutLen(wrapped, 5, a);
  return wrapped;
}

GsBytes attrS(const std::string& name, const std::string& s) {
  GsBytes v;
  le::gsPutStr(v, 4, s);
  return attribute(name, v, 3);
}

GsBytes attrI(const std::string& name, int64_t i) {
  GsBytes v;
  le::gsPutInt(v, 3, static_cast<uint64_t>(i));
  return attribute(name, v, 2);
}

GsBytes attrInts(const std::string& name, std::initializer_list<int64_t> ints) {
  GsBytes v;
  for (int64_t i : ints) le::gsPutInt(v, 8, static_cast<uint64_t>(i));
  return attribute(name, v, 7);
}

GsBytes cat(std::initializer_list<GsBytes> parts) {
  GsBytes out;
  for (const auto& p : parts) le::gsPutRaw(out, p);
  return out;
}

// Expected [4C,1,5,5] weight from the taps at fraction 0.25.
std::vector<float> depthwise(const double taps025[4], int channels) {
  double win[2][5] = {{taps025[3], taps025[2], taps025[1], taps025[0], 0.0},
                      {0.0, taps025[0], taps025[1], taps025[2], taps025[3]}};
  std::vector<float> w;
  for (int c = 0; c < channels; ++c)
    for (int p = 0; p < 2; ++p)
      for (int q = 0; q < 2; ++q)
        for (int r = 0; r < 5; ++r)
          for (int k = 0; k < 5; ++k) w.push_back(static_cast<float>(win[p][r] * win[q][k]));
  return w;
}

std::string initField(const std::string& name, int dataType, std::initializer_list<int64_t> dims, const void* data,
                      size_t size) {
  GsBytes t;
  for (int64_t d : dims) le::gsPutInt(t, 1, static_cast<uint64_t>(d));
  le::gsPutInt(t, 2, static_cast<uint64_t>(dataType));
  le::gsPutStr(t, 8, name);
  le::gsPutLen(t, 9, static_cast<const uint8_t*>(data), size);
  return le::test::lenField(5, t);
}

// The graph the rewrite must write: the Resize's field replaced by three
// nodes, the two initializers appended, everything else as it was.
std::vector<std::string> expectedGraph(const GsBytes& original, size_t resizeNode, const std::string& base,
                                       const double taps025[4], int channels) {
  const std::string tag = "rz" + std::to_string(resizeNode);
  auto graph = modelParts(original).graph;
  const size_t at = le::test::nodeFieldIndex(graph, resizeNode);
  graph[at] = nodeField({"head_x", tag + "_pads"}, tag + "_padout", base + "/pad", "Pad", attrS("mode", "edge"));
  graph.insert(graph.begin() + static_cast<long>(at) + 1,
               {nodeField({tag + "_padout", tag + "_dw_w"}, tag + "_convout", base + "/dwconv", "Conv",
                          cat({attrInts("dilations", {1, 1}), attrI("group", channels), attrInts("kernel_shape", {5, 5}),
                               attrInts("pads", {0, 0, 0, 0}), attrInts("strides", {1, 1})})),
                nodeField({tag + "_convout"}, "head_up", base + "/d2s", "DepthToSpace",
                          cat({attrI("blocksize", 2), attrS("mode", "CRD")}))});
  const int64_t pads[8] = {0, 0, 2, 2, 0, 0, 2, 2};
  graph.push_back(initField(tag + "_pads", 7, {8}, pads, sizeof pads));
  const std::vector<float> w = depthwise(taps025, channels);
  graph.push_back(initField(tag + "_dw_w", 1, {4 * channels, 1, 5, 5}, w.data(), w.size() * 4));
  return graph;
}

TEST(HeadCubic, TapsAreKeysCubicNormalised) {
  double t[4];
  le::hcTaps(0.25, -0.75, t);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(t[i], kTaps075[i]);
  le::hcTaps(0.75, -0.75, t);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(t[i], kTaps075[3 - i]);
  le::hcTaps(0.25, -0.5, t);
  for (int i = 0; i < 4; ++i) EXPECT_EQ(t[i], kTaps050[i]);
}

TEST(HeadCubic, ReplacesTheResizeInPlaceByteForByte) {
  const GsBytes original = graphFile("model_b1.onnx");
  GsBytes bytes = original;
  std::string reason = "stale";
  ASSERT_EQ(le::rewriteHeadCubicResize(bytes, &reason), 1u);
  EXPECT_EQ(reason, "");
  const auto before = modelParts(original);
  const auto after = modelParts(bytes);
  auto top = before.top;
  top[before.graphAt] = after.top[after.graphAt];
  EXPECT_TRUE(le::test::sameFields(after.top, top));  // opset imports and everything else untouched
  EXPECT_TRUE(
      le::test::sameFields(after.graph, expectedGraph(original, kResizeNode, "/head/Resize", kTaps075, kChannels)));
}

TEST(HeadCubic, AcceptedVariantsWriteTheirOwnTapsAndNames) {
  GsBytes bytes = graphFile("cubic/coeff_a_half.onnx");
  ASSERT_EQ(le::rewriteHeadCubicResize(bytes), 1u);
  EXPECT_TRUE(le::test::sameFields(modelParts(bytes).graph, expectedGraph(graphFile("cubic/coeff_a_half.onnx"),
                                                                         kResizeNode, "/head/Resize", kTaps050, kChannels)));

  bytes = graphFile("cubic/unnamed.onnx");
  ASSERT_EQ(le::rewriteHeadCubicResize(bytes), 1u);
  EXPECT_TRUE(le::test::sameFields(
      modelParts(bytes).graph, expectedGraph(graphFile("cubic/unnamed.onnx"), kResizeNode, "/Resize", kTaps075, kChannels)));

  // Three Identity nodes before the Resize move it to index 14, and put the
  // mismatched bias out of the walk's reach.
  bytes = graphFile("cubic/bias_mismatch_5_back.onnx");
  ASSERT_EQ(le::rewriteHeadCubicResize(bytes), 1u);
  EXPECT_EQ(le::test::initializerFloats(bytes, "rz14_dw_w"), depthwise(kTaps075, kChannels));
}

TEST(HeadCubic, VariantsRewriteOrStayWithTheirReason) {
  const std::string notCubic = "Resize '/head/Resize' is not the head's cubic x2: ";
  const std::string bias = "the channel constant 'head_bias' upstream is ";
  le::test::expectRewriteCases("cubic", le::rewriteHeadCubicResize, {
      {"two_resize", 0, "2 Resize nodes are cubic x2 (exactly one head Resize expected)"},
      {"scales_1123", 0, notCubic + "its scales are not 1, 1, 2, 2"},
      {"scales_computed", 0, notCubic + "its scales are not a FLOAT constant"},
      {"domain_ai_onnx", 0, notCubic + "its domain is 'ai.onnx'"},
      {"mode_linear", 0, notCubic + "its mode is not cubic"},
      {"ctm_absent", 0, notCubic + "its coordinate_transformation_mode is not half_pixel"},
      {"ctm_align_corners", 0, notCubic + "its coordinate_transformation_mode is not half_pixel"},
      {"exclude_outside", 0, notCubic + "it excludes outside samples"},
      {"antialias", 0, notCubic + "it antialiases"},
      {"axes", 0, notCubic + "it carries an axes attribute"},
      {"keep_aspect_not_larger", 0, notCubic + "its keep_aspect_ratio_policy is not stretch"},
      {"roi", 0, notCubic + "it reads a roi"},
      {"consumer_relu", 0, "the Resize feeds a Relu, not a Conv with a weight"},
      {"second_consumer", 0, "the Resize output has 2 consumers (one Conv expected)"},
      {"weight_computed", 0, "the Conv after the Resize has no constant rank-4 weight"},
      {"conv_group2", 0, bias + "[4,1,1], and the Conv after the Resize reads 8 channels"},
      {"bias_mismatch", 0, bias + "[1,1,1], and the Conv after the Resize reads 4 channels"},
      {"bias_mismatch_4_back", 0, bias + "[1,1,1], and the Conv after the Resize reads 4 channels"},
      {"taken_name", 0, "the name rz11_padout is already taken"},
      {"bias_mismatch_5_back", 1, ""},
      {"scales_constant_node", 1, ""},
      {"scales_float_data", 1, ""},
      {"keep_aspect_stretch", 1, ""},
      {"coeff_a_half", 1, ""},
      {"unnamed", 1, ""},
  });
  GsBytes noGraph = {0x08, 0x08};
  std::string reason;
  EXPECT_EQ(le::rewriteHeadCubicResize(noGraph, &reason), 0u);
  EXPECT_EQ(reason, "the model carries no graph");
}

TEST(HeadCubic, OnnxRuntimeAgreesToRoundOff) {
  for (const char* file : {"model_b1.onnx", "cubic/coeff_a_half.onnx", "cubic/scales_constant_node.onnx"}) {
    SCOPED_TRACE(file);
    const GsBytes original = graphFile(file);
    GsBytes bytes = original;
    ASSERT_EQ(le::rewriteHeadCubicResize(bytes), 1u);
    for (uint32_t seed : {3u, 4u}) {
      const le::test::DirectorInputs in = le::test::sampleInputs(seed);
      const std::vector<float> want = le::test::runDirector(original, in);
      const std::vector<float> got = le::test::runDirector(bytes, in);
      ASSERT_EQ(got.size(), want.size());
      EXPECT_LE(le::test::maxAbsDiff(got, want), kRoundOff);
    }
  }
  // The head reaches the output: another cubic_coeff_a moves it far beyond
  // the round-off, so the agreement above is not vacuous.
  const le::test::DirectorInputs in = le::test::sampleInputs(3);
  EXPECT_GT(le::test::maxAbsDiff(le::test::runDirector(graphFile("model_b1.onnx"), in),
                                 le::test::runDirector(graphFile("cubic/coeff_a_half.onnx"), in)),
            100 * kRoundOff);
}

}  // namespace
