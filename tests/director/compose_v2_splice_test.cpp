// The compose v2 splice on the generated member and structure: the exact
// model it must give, where the member's weights land, every refusal, and
// ONNX Runtime on the spliced graph.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "director/rewrites/blend_gemm.h"
#include "director/rewrites/compose_v2_splice.h"
#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/head_cubic.h"
#include "director/rewrites/sha256.h"
#include "tests/director/graph_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::GsBytes;
using le::test::graphFile;

std::string shaOf(const GsBytes& b) { return le::sha256Hex(b.data(), b.size()); }
std::string first12(const GsBytes& b) { return shaOf(b).substr(0, 12); }

struct Result {
  bool ok = false;
  std::string err;
  int canvas = -1, batch = -1;
  GsBytes model;
};

Result splice(const GsBytes& member, const GsBytes& structure, const std::string& sourceSha = "",
              const std::string& structureSha = "") {
  Result r;
  r.model = member;
  r.ok = le::spliceComposeV2(r.model, structure, r.err, sourceSha, &r.canvas, &r.batch, structureSha);
  return r;
}

std::vector<std::string> initializerNames(const GsBytes& model) {
  std::vector<std::string> names;
  for (const auto& init : le::gsReadInitializers(le::gsGraphOf(model))) names.push_back(init.name);
  return names;
}

TEST(ComposeV2Splice, GivesTheComposedModelByteForByte) {
  const GsBytes member = graphFile("model_b1.onnx");
  const GsBytes structure = graphFile("structure.onnx");
  const Result r = splice(member, structure, shaOf(member), shaOf(structure));
  ASSERT_TRUE(r.ok) << r.err;
  EXPECT_EQ(r.err, "");
  EXPECT_EQ(r.canvas, 32);
  EXPECT_EQ(r.batch, 1);
  EXPECT_TRUE(le::test::sameBytes(r.model, graphFile("composed.onnx")));
  // The ellipse end lost its weights; the structure's own come first.
  EXPECT_EQ(initializerNames(r.model),
            (std::vector<std::string>{"cv2_one", "kp_shape", "blend_w", "split_sizes", "flow_shape", "base_grid",
                                      "head_w0", "head_bias", "head_scales", "head_w1"}));

  // The out-parameters are optional.
  GsBytes model = member;
  std::string err;
  EXPECT_TRUE(le::spliceComposeV2(model, structure, err, "", nullptr, nullptr, ""));
  EXPECT_TRUE(le::test::sameBytes(model, r.model));
}

TEST(ComposeV2Splice, TheLipTemplateBindsTheStructureToTheMember) {
  const std::string text = le::test::readFile(le::test::dataPath("graphs/lip_template.v1.json"));
  EXPECT_NE(text.find("\"compose-v2-structure-v1\""), std::string::npos);
  EXPECT_NE(text.find("\"model_b1.onnx\": {\"source_sha256\": \"" + shaOf(graphFile("model_b1.onnx")) + "\""),
            std::string::npos);
  EXPECT_NE(text.find("\"structure_sha256\": \"" + shaOf(graphFile("structure.onnx")) + "\""), std::string::npos);
}

TEST(ComposeV2Splice, MemberWeightsGoBehindTheStructuresOwnOrBeforeItsLaterFields) {
  const GsBytes member = graphFile("model_b1.onnx");
  for (const char* name : {"no_own_init", "shadow"}) {
    SCOPED_TRACE(name);
    const Result r = splice(member, graphFile(std::string("splice/") + name + ".onnx"));
    ASSERT_TRUE(r.ok) << r.err;
    EXPECT_TRUE(le::test::sameBytes(r.model, graphFile(std::string("splice/") + name + ".expected.onnx")));
  }
  // A structure's own initializer wins over the member's of the same name.
  const Result shadow = splice(member, graphFile("splice/shadow.onnx"));
  EXPECT_EQ(le::test::initializerFloats(shadow.model, "head_bias"), std::vector<float>(4, 0.0f));
  const auto names = initializerNames(shadow.model);
  EXPECT_EQ(std::count(names.begin(), names.end(), "head_bias"), 1);
}

TEST(ComposeV2Splice, RefusesEveryBrokenVariantWithItsSentence) {
  const GsBytes member = graphFile("model_b1.onnx");
  const GsBytes stale = graphFile("splice/member_stale.onnx");
  const std::string cv2 = "compose v2 splice: ";
  const std::string notMember = " does not name member node ";
  const std::string selfCheck =
      "compose v2 splice self-check: the spliced graph declares no rank-4 lip_delivery input — not a compose v2 graph";
  const struct {
    const char* member;
    const char* structure;
    std::string err;
  } cases[] = {
      {"model_b1.onnx", "splice/two_graphs.onnx", cv2 + "the structure carries 2 graph fields (one expected)"},
      {"model_b1.onnx", "splice/no_binding.onnx",
       cv2 + "the structure names no source member (compose_v2.source_sha256)"},
      {"model_b1.onnx", "splice/truncated.onnx", cv2 + "unreadable protobuf (onnx: truncated)"},
      {"model_b1.onnx", "splice/no_k.onnx", cv2 + "a MemberNode placeholder carries no `k`"},
      {"model_b1.onnx", "splice/k_past_end.onnx", cv2 + "placeholder 16" + notMember + "16"},
      {"model_b1.onnx", "splice/outputs_swapped.onnx", cv2 + "placeholder 3" + notMember + "3"},
      {"model_b1.onnx", "splice/output_renamed.onnx", cv2 + "placeholder 3" + notMember + "3"},
      {"model_b1.onnx", "splice/missing_four.onnx",
       cv2 + "'aa_ghost', 'bb_ghost', 'mm_ghost' are read but neither member nor structure carries them"},
      {"model_b1.onnx", "splice/missing_one.onnx",
       cv2 + "'ghost' are read but neither member nor structure carries them"},
      {"model_b1.onnx", "splice/lip_rank3.onnx", selfCheck},
      {"model_b1.onnx", "splice/lip_renamed.onnx", selfCheck},
      {"splice/member_stale.onnx", "structure.onnx",
       "compose v2 structure was built for member " + first12(member) + ", not " + first12(stale) +
           " — refusing to splice a stale structure"},
      {"splice/member_graphless.onnx", "splice/for_graphless.onnx", cv2 + "the member carries no graph"},
      {"splice/member_with_placeholder.onnx", "splice/for_placeholder_member.onnx",
       "compose v2 splice self-check: 17 nodes (17 expected), 1 placeholder(s) left"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.structure);
    const GsBytes target = graphFile(c.member);
    const Result r = splice(target, graphFile(c.structure));
    EXPECT_FALSE(r.ok);
    EXPECT_EQ(r.err, c.err);
    EXPECT_TRUE(le::test::sameBytes(r.model, target));
    EXPECT_EQ(r.canvas, 0);
    EXPECT_EQ(r.batch, 0);
  }
}

TEST(ComposeV2Splice, TheTemplatesHashesMustAgreeWithTheBytes) {
  const GsBytes member = graphFile("model_b1.onnx");
  const GsBytes structure = graphFile("structure.onnx");
  // The structure's own bytes moved.
  Result r = splice(member, structure, shaOf(member), shaOf(member));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.err, "compose v2 structure bytes hash to " + first12(structure) + ", not the " + first12(member) +
                       " the template names — refusing a structure whose own bytes moved");
  EXPECT_TRUE(le::test::sameBytes(r.model, member));
  // The template and the structure name different members.
  r = splice(member, structure, shaOf(structure), shaOf(structure));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.err, "compose v2 splice: the template says the structure is for member " + first12(structure) +
                       " and the structure itself says " + first12(member) +
                       " — refusing a structure whose two bindings disagree");
  // With neither binding given the member's own hash still binds.
  const GsBytes stale = graphFile("splice/member_stale.onnx");
  ASSERT_EQ(stale.size(), member.size());
  r = splice(stale, structure);
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.err, "compose v2 structure was built for member " + first12(member) + ", not " + first12(stale) +
                       " — refusing to splice a stale structure");
}

TEST(ComposeV2Splice, LipInputDimensions) {
  const GsBytes composed = graphFile("composed.onnx");
  int64_t first = -1, last = -1;
  int rank = -1;
  le::ldInputDims(le::gsGraphOf(composed), "lip_delivery", first, last, rank);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(last, 32);
  EXPECT_EQ(rank, 4);
  le::ldInputDims(le::gsGraphOf(composed), "kp_source", first, last, rank);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(last, 3);
  EXPECT_EQ(rank, 3);
  le::ldInputDims(le::gsGraphOf(composed), "absent", first, last, rank);
  EXPECT_EQ(first, 0);
  EXPECT_EQ(last, 0);
  EXPECT_EQ(rank, 0);
}

TEST(ComposeV2Splice, OnnxRuntimeRunsTheSplicedGraph) {
  const GsBytes member = graphFile("model_b1.onnx");
  const Result r = splice(member, graphFile("structure.onnx"));
  ASSERT_TRUE(r.ok) << r.err;
  // fed the member's own ellipse as the lip contour, compose v2 is the
  // member's ellipse compose, bit for bit.
  le::test::DirectorInputs in = le::test::sampleInputs(5);
  const std::vector<float> ellipseOut = le::test::runDirector(member, in);
  in.lip = le::test::initializerFloats(member, "ellipse");
  EXPECT_EQ(le::test::runDirector(r.model, in), ellipseOut);
  // Another contour gives another picture.
  in.lip.assign(in.lip.size(), 1.0f);
  EXPECT_NE(le::test::runDirector(r.model, in), ellipseOut);
}

TEST(ComposeV2Splice, AllLoadTimeEditsInTheirOrder) {
  const GsBytes composed = graphFile("composed.onnx");
  Result r = splice(graphFile("model_b1.onnx"), graphFile("structure.onnx"));
  ASSERT_TRUE(r.ok) << r.err;
  GsBytes withoutGs = r.model;
  // The spliced graph keeps every pattern of the member's shared part.
  EXPECT_EQ(le::rewriteGridSampleToFast(r.model), 1u);
  EXPECT_EQ(le::normaliseStudentBlend(r.model), 1u);
  EXPECT_EQ(le::rewriteHeadCubicResize(r.model), 1u);
  EXPECT_TRUE(le::graphHasBakedGridSampleFast(r.model));
  // Without the custom op, ONNX Runtime runs the rest against the composed
  // model: the blend is exact, the head within round-off.
  ASSERT_EQ(le::normaliseStudentBlend(withoutGs), 1u);
  ASSERT_EQ(le::rewriteHeadCubicResize(withoutGs), 1u);
  le::test::DirectorInputs in = le::test::sampleInputs(6);
  in.lip = le::test::sampleInputs(7).prior;
  in.lip.resize(32 * 32);
  EXPECT_LE(le::test::maxAbsDiff(le::test::runDirector(withoutGs, in), le::test::runDirector(composed, in)), 1e-5f);
}

}  // namespace
