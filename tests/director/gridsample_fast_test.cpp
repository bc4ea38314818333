// GridSample -> com.kestrova::GridSampleFast on the generated director graph
// and its one-change variants. The custom op isn't registered with ONNX
// Runtime here, so the rewrite is checked on the bytes alone.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "director/rewrites/gridsample_fast.h"
#include "tests/director/graph_testing.h"

namespace {

using le::GsBytes;
using le::test::graphFile;
using le::test::modelParts;

constexpr size_t kGridSampleNode = 7;
// opset_import { domain: "com.kestrova" version: 1 }
const std::string kKestrovaImport("\x42\x10\x0A\x0C" "com.kestrova\x10\x01", 18);

// The member's GridSample as the rewrite must leave it.
GsBytes fastNode() {
  GsBytes node;
  le::gsPutStr(node, 1, "P_rgb");
  le::gsPutStr(node, 1, "grid");
  le::gsPutStr(node, 2, "warped");
  le::gsPutStr(node, 3, "/warp/GridSample");
  le::gsPutStr(node, 6, "samples the warp prior");
  le::gsPutStr(node, 4, "GridSampleFast");
  le::gsPutStr(node, 7, "com.kestrova");
  return node;
}

TEST(GridSampleFast, RewritesTheMemberNodeAndImportsTheDomain) {
  const GsBytes original = graphFile("model_b1.onnx");
  GsBytes bytes = original;
  EXPECT_FALSE(le::graphHasBakedGridSampleFast(bytes));
  std::string reason = "stale";
  ASSERT_EQ(le::rewriteGridSampleToFast(bytes, &reason), 1u);
  EXPECT_EQ(reason, "");
  EXPECT_TRUE(le::graphHasBakedGridSampleFast(bytes));

  const auto before = modelParts(original);
  const auto after = modelParts(bytes);
  // Top level: every field where it was, the import appended last.
  auto top = before.top;
  top[before.graphAt] = after.top[after.graphAt];
  top.push_back(kKestrovaImport);
  EXPECT_TRUE(le::test::sameFields(after.top, top));
  // Graph: only the GridSample node changes; attributes, op type and domain
  // go, name and doc_string stay in their order.
  auto graph = before.graph;
  graph[le::test::nodeFieldIndex(graph, kGridSampleNode)] = le::test::lenField(1, fastNode());
  EXPECT_TRUE(le::test::sameFields(after.graph, graph));

  // A second run finds nothing left to do.
  const GsBytes once = bytes;
  EXPECT_EQ(le::rewriteGridSampleToFast(bytes, &reason), 0u);
  EXPECT_EQ(reason, "the graph has no GridSample node");
  EXPECT_TRUE(le::test::sameBytes(bytes, once));
}

TEST(GridSampleFast, VariantsRewriteOrStayWithTheirReason) {
  const std::string stays = "GridSample '/warp/GridSample' stays standard: ";
  le::test::expectRewriteCases("gridsample", le::rewriteGridSampleToFast,
                               {
                                   {"padding_zeros", 0, stays + "its padding_mode is 'zeros'"},
                                   {"padding_reflection", 0, stays + "its padding_mode is 'reflection'"},
                                   {"padding_absent", 0, stays + "its padding_mode is absent"},
                                   {"mode_absent", 0, stays + "its mode is absent"},
                                   {"mode_nearest", 0, stays + "its mode is 'nearest'"},
                                   {"align_1", 0, stays + "its align_corners is 1"},
                                   {"domain_other", 0, stays + "its domain is 'com.other'"},
                                   {"fast_elsewhere", 0, "the graph has no GridSample node"},
                                   {"mode_linear", 1, ""},
                                   {"align_0", 1, ""},
                                   {"align_without_i", 1, ""},
                                   {"domain_ai_onnx", 1, ""},
                                   {"imported", 1, ""},
                                   {"two", 2, ""},
                               });
}

TEST(GridSampleFast, RewrittenVariantsChangeOnlyTheirNodesAndImportOnce) {
  for (const char* file : {"mode_linear", "align_0", "align_without_i", "domain_ai_onnx", "imported", "two"}) {
    SCOPED_TRACE(file);
    const GsBytes original = graphFile(std::string("gridsample/") + file + ".onnx");
    GsBytes bytes = original;
    const size_t count = le::rewriteGridSampleToFast(bytes);
    const auto before = modelParts(original);
    const auto after = modelParts(bytes);
    // Each rewritten node is a bare GridSampleFast with its own inputs;
    // every other graph field is untouched.
    ASSERT_EQ(after.graph.size(), before.graph.size());
    size_t changed = 0;
    for (size_t i = 0; i < before.graph.size(); ++i) {
      if (after.graph[i] == before.graph[i]) continue;
      ++changed;
      le::GsReader r({reinterpret_cast<const uint8_t*>(after.graph[i].data()), after.graph[i].size()});
      le::GsField f;
      ASSERT_TRUE(r.next(f));
      const le::GsNodeInfo node = le::gsReadNode(f);
      EXPECT_EQ(node.opType, "GridSampleFast");
      EXPECT_EQ(node.domain, "com.kestrova");
      EXPECT_TRUE(le::gsReadAttrs(node.body).empty());
      EXPECT_EQ(node.inputs, (std::vector<std::string>{"P_rgb", "grid"}));
    }
    EXPECT_EQ(changed, count);
    // The domain is imported once, whether or not the model had it.
    EXPECT_EQ(std::count(after.top.begin(), after.top.end(), kKestrovaImport), 1);
    EXPECT_EQ(after.top.size(), before.top.size() + (std::string(file) == "imported" ? 0 : 1));
  }
}

TEST(GridSampleFast, BakedOnlyInTheKestrovaDomain) {
  EXPECT_FALSE(le::graphHasBakedGridSampleFast(graphFile("gridsample/fast_elsewhere.onnx")));
  GsBytes bytes = graphFile("gridsample/two.onnx");
  ASSERT_EQ(le::rewriteGridSampleToFast(bytes), 2u);
  EXPECT_TRUE(le::graphHasBakedGridSampleFast(bytes));
}

TEST(GridSampleFast, BrokenBytesThrowAndStayAsTheyWere) {
  GsBytes bytes = graphFile("model_b1.onnx");
  bytes.resize(bytes.size() - 7);
  const GsBytes cut = bytes;
  try {
    le::rewriteGridSampleToFast(bytes);
    ADD_FAILURE() << "a truncated model was rewritten";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "onnx: truncated");
  }
  EXPECT_TRUE(le::test::sameBytes(bytes, cut));
}

}  // namespace
