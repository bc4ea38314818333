// The student blend MatMul -> Gemm: the same product, so ONNX Runtime gives
// the same output bit for bit.
#include <gtest/gtest.h>

#include <string>

#include "director/rewrites/blend_gemm.h"
#include "tests/director/graph_testing.h"

namespace {

using le::GsBytes;
using le::test::graphFile;
using le::test::modelParts;

constexpr size_t kBlendNode = 2;

TEST(StudentBlend, MatMulBecomesGemmAndNothingElseMoves) {
  const GsBytes original = graphFile("model_b1.onnx");
  GsBytes bytes = original;
  std::string reason = "stale";
  ASSERT_EQ(le::normaliseStudentBlend(bytes, &reason), 1u);
  EXPECT_EQ(reason, "");
  const auto before = modelParts(original);
  const auto after = modelParts(bytes);
  auto top = before.top;
  top[before.graphAt] = after.top[after.graphAt];
  EXPECT_TRUE(le::test::sameFields(after.top, top));
  GsBytes gemm;
  le::gsPutStr(gemm, 1, "kp_flat");
  le::gsPutStr(gemm, 1, "blend_w");
  le::gsPutStr(gemm, 2, "blend_out");
  le::gsPutStr(gemm, 3, "/s2/blend");
  le::gsPutStr(gemm, 4, "Gemm");
  auto graph = before.graph;
  graph[le::test::nodeFieldIndex(graph, kBlendNode)] = le::test::lenField(1, gemm);
  EXPECT_TRUE(le::test::sameFields(after.graph, graph));
}

TEST(StudentBlend, OnnxRuntimeGivesTheSameOutputExactly) {
  const GsBytes original = graphFile("model_b1.onnx");
  GsBytes bytes = original;
  ASSERT_EQ(le::normaliseStudentBlend(bytes), 1u);
  for (uint32_t seed : {1u, 2u}) {
    const le::test::DirectorInputs in = le::test::sampleInputs(seed);
    const std::vector<float> want = le::test::runDirector(original, in);
    const std::vector<float> got = le::test::runDirector(bytes, in);
    ASSERT_EQ(got.size(), 3u * 32 * 32);
    EXPECT_EQ(got, want);
  }
}

TEST(StudentBlend, VariantsRewriteOrStayWithTheirReason) {
  le::test::expectRewriteCases("blend", le::normaliseStudentBlend,
                                {
                                    {"third_input", 0, "/s2/blend stays: it has 3 inputs"},
                                    {"attribute", 0, "/s2/blend stays: it carries 1 attribute(s)"},
                                    {"domain_other", 0, "/s2/blend stays: its domain is 'com.other'"},
                                    {"gemm", 0, "/s2/blend stays: its op_type is 'Gemm'"},
                                    {"renamed", 0, "the graph has no node named /s2/blend"},
                                    {"domain_ai_onnx", 1, ""},
                                });
  // The ai.onnx domain is dropped with the op type: Gemm lands in the
  // default domain like the plain member's.
  GsBytes fromAiOnnx = graphFile("blend/domain_ai_onnx.onnx");
  GsBytes plain = graphFile("model_b1.onnx");
  ASSERT_EQ(le::normaliseStudentBlend(fromAiOnnx), 1u);
  ASSERT_EQ(le::normaliseStudentBlend(plain), 1u);
  EXPECT_TRUE(le::test::sameBytes(fromAiOnnx, plain));
}

}  // namespace
