// The cut of the source-cone hoist on the generated cone director and its
// one-change variants: the boundary, the proof that the cone is closed, the
// two models on the wire, and that the two together compute the whole
// graph's bits.
#include <gtest/gtest.h>

#include <onnxruntime_cxx_api.h>

#include <string>
#include <unordered_set>
#include <vector>

#include "director/rewrites/source_cone.h"
#include "tests/director/graph_testing.h"
#include "tests/director/float_bits.h"

namespace {

using le::GsBytes;
using le::test::graphFile;

// Nodes of the cone, by name: every "/cone/" node but the Constant.
size_t coneNodes(const GsBytes& model) {
  size_t n = 0;
  le::gsForEachNode(le::gsGraphOf(model), [&](const le::GsNodeInfo& node) {
    n += node.name.rfind("/cone/", 0) == 0 && node.opType != "Constant" ? 1 : 0;
  });
  return n;
}

std::vector<le::GsNodeInfo> nodesOf(const GsBytes& model) {
  std::vector<le::GsNodeInfo> nodes;
  le::gsForEachNode(le::gsGraphOf(model), [&](const le::GsNodeInfo& n) { nodes.push_back(n); });
  return nodes;
}

// Names of a graph's fields numbered field (inputs 11, outputs 12).
std::vector<std::string> declared(const GsBytes& model, uint32_t field) {
  std::vector<std::string> names;
  le::GsReader r(le::gsGraphOf(model));
  le::GsField f;
  while (r.next(f))
    if (f.number == field) names.push_back(le::gsFirstStr(f.payload, 1));
  return names;
}

std::string prepWhy(const std::string& file) {
  const GsBytes bytes = graphFile("cone/" + file + ".onnx");
  std::string boundary, why;
  GsBytes out;
  le::findSourceConeBoundary(bytes, boundary);
  EXPECT_FALSE(le::buildSourceConePrep(bytes, boundary, out, why)) << file;
  std::string perFrameWhy;
  const int64_t dims[4] = {1, 12, 32, 32};
  EXPECT_FALSE(le::buildSourceConePerFrame(bytes, boundary, dims, 4, out, perFrameWhy)) << file;
  EXPECT_EQ(perFrameWhy, why) << file;
  return why;
}

TEST(SourceCone, TheBoundaryIsTheOneConcatOfThePrior) {
  std::string boundary = "stale";
  EXPECT_EQ(le::findSourceConeBoundary(graphFile("cone/member.onnx"), boundary), 1);
  EXPECT_EQ(boundary, "cone_planes");
  EXPECT_EQ(le::findSourceConeBoundary(graphFile("cone/two_concats.onnx"), boundary), 2);
  EXPECT_EQ(boundary, "");
  boundary = "stale";
  // The director without a cone samples P_rgb itself.
  EXPECT_EQ(le::findSourceConeBoundary(graphFile("model_b1.onnx"), boundary), 0);
  EXPECT_EQ(boundary, "");
  EXPECT_EQ(le::findSourceConeBoundary(GsBytes{}, boundary), 0);
}

TEST(SourceCone, TheConeMustBeClosed) {
  EXPECT_EQ(prepWhy("prgb_outside"), "P_rgb is also read outside the cone by ReduceMean");
  EXPECT_EQ(prepWhy("cone_value_escapes"), "cone value 'cone_dxx' escapes to Identity");
  EXPECT_EQ(prepWhy("reads_input"), "cone reads graph input 'prior_gain'");
  EXPECT_EQ(prepWhy("ghost_leaf"), "cone leaf 'ghost' has no producer");
  EXPECT_EQ(prepWhy("prgb_renamed"), "no P_rgb input");
  std::string why;
  GsBytes out;
  EXPECT_FALSE(le::buildSourceConePrep(GsBytes{}, "cone_planes", out, why));
  EXPECT_EQ(why, "no graph");
  // The boundary itself may have many readers: the per-frame side takes it
  // as an input.
  EXPECT_TRUE(le::buildSourceConePrep(graphFile("cone/boundary_read_twice.onnx"), "cone_planes", out, why)) << why;
}

TEST(SourceCone, ThePrepModelIsTheConeWithThePriorInAndTheBoundaryOut) {
  const GsBytes member = graphFile("cone/member.onnx");
  GsBytes prep;
  std::string why;
  ASSERT_TRUE(le::buildSourceConePrep(member, "cone_planes", prep, why)) << why;
  EXPECT_EQ(declared(prep, 11), std::vector<std::string>{"P_rgb"});
  EXPECT_EQ(declared(prep, 12), std::vector<std::string>{"cone_planes"});
  const std::vector<le::GsNodeInfo> nodes = nodesOf(prep);
  EXPECT_EQ(nodes.size(), coneNodes(member) + 1);  // and the Constant
  EXPECT_EQ(nodes.front().opType, "Constant");
  for (const le::GsNodeInfo& n : nodes) EXPECT_EQ(n.name.rfind("/cone/", 0), 0u) << n.name;
  // Every initializer stays, whichever side reads it.
  EXPECT_EQ(le::gsReadInitializers(le::gsGraphOf(prep)).size(),
            le::gsReadInitializers(le::gsGraphOf(member)).size());
  // The boundary is declared last, with four symbolic axes.
  const le::test::ModelParts parts = le::test::modelParts(prep);
  GsBytes dims;
  for (int axis = 0; axis < 4; ++axis) {
    GsBytes dim;
    le::gsPutStr(dim, 2, "le_hoist_d" + std::to_string(axis));
    le::gsPutLen(dims, 1, dim);
  }
  GsBytes tensor, type, info;
  le::gsPutInt(tensor, 1, 1);
  le::gsPutLen(tensor, 2, dims);
  le::gsPutLen(type, 1, tensor);
  le::gsPutStr(info, 1, "cone_planes");
  le::gsPutLen(info, 2, type);
  EXPECT_EQ(parts.graph.back(), le::test::lenField(12, info));
  // ONNX Runtime infers what the declaration leaves open.
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "source_cone_test");
  Ort::Session session(env, prep.data(), prep.size(), Ort::SessionOptions{});
  EXPECT_EQ(session.GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape(),
            (std::vector<int64_t>{1, 12, 32, 32}));
}

TEST(SourceCone, ThePerFrameModelTakesTheBoundaryInPlaceOfThePrior) {
  const GsBytes member = graphFile("cone/member.onnx");
  const int64_t dims[4] = {1, 12, 32, 32};
  GsBytes perFrame;
  std::string why;
  ASSERT_TRUE(le::buildSourceConePerFrame(member, "cone_planes", dims, 4, perFrame, why)) << why;
  EXPECT_EQ(declared(perFrame, 11), (std::vector<std::string>{"pooled64", "kp_driving", "kp_source", "cone_planes"}));
  EXPECT_EQ(declared(perFrame, 12), std::vector<std::string>{"rgb"});
  EXPECT_EQ(nodesOf(perFrame).size(), nodesOf(member).size() - coneNodes(member));
  // Only the graph changed; the other fields of the model go through raw.
  const le::test::ModelParts a = le::test::modelParts(member), b = le::test::modelParts(perFrame);
  ASSERT_EQ(a.top.size(), b.top.size());
  for (size_t i = 0; i < a.top.size(); ++i) {
    if (i != a.graphAt) {
      EXPECT_EQ(a.top[i], b.top[i]) << "top-level field " << i;
    }
  }
  GsBytes dimsBytes;
  for (int64_t d : dims) {
    GsBytes dim;
    le::gsPutInt(dim, 1, static_cast<uint64_t>(d));
    le::gsPutLen(dimsBytes, 1, dim);
  }
  GsBytes tensor, type, info;
  le::gsPutInt(tensor, 1, 1);
  le::gsPutLen(tensor, 2, dimsBytes);
  le::gsPutLen(type, 1, tensor);
  le::gsPutStr(info, 1, "cone_planes");
  le::gsPutLen(info, 2, type);
  EXPECT_EQ(b.graph.back(), le::test::lenField(11, info));
}

// The prep model's boundary fed to the per-frame model gives the whole
// graph's output, bit for bit: the same nodes compute the same values on
// either side of the cut. The cone's Constant also stays in the per-frame
// model, unread, and ONNX Runtime loads it.
TEST(SourceCone, TheTwoModelsComputeTheWholeGraphsBits) {
  const GsBytes member = graphFile("cone/member.onnx");
  GsBytes prep, perFrame;
  std::string why;
  ASSERT_TRUE(le::buildSourceConePrep(member, "cone_planes", prep, why));
  const int64_t dims[4] = {1, 12, 32, 32};
  ASSERT_TRUE(le::buildSourceConePerFrame(member, "cone_planes", dims, 4, perFrame, why));
  for (const uint32_t seed : {1u, 2u, 3u})
    for (const int threads : {1, 2}) {
      const le::test::DirectorInputs in = le::test::sampleInputs(seed);
      const std::vector<float> whole = le::test::runGraph(member, le::test::directorTensors(in), "rgb", threads);
      const std::vector<float> boundary =
          le::test::runGraph(prep, {{"P_rgb", {1, 3, 32, 32}, &in.prior}}, "cone_planes", threads);
      ASSERT_EQ(boundary.size(), 12u * 32 * 32);
      std::vector<le::test::NamedTensor> t = le::test::directorTensors(in, false);
      t.push_back({"cone_planes", {1, 12, 32, 32}, &boundary});
      EXPECT_TRUE(le::test::sameFloatBits(le::test::runGraph(perFrame, t, "rgb", threads), whole))
          << "seed " << seed << ", " << threads << " threads";
    }
}

}  // namespace
