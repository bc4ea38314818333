// The wire reader on ONNX files nobody here wrote: Debian's libonnx-testdata,
// about a thousand models serialised by the ONNX project's own tools.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <unordered_set>
#include <vector>

#include "director/rewrites/blend_gemm.h"
#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/head_cubic.h"
#include "director/rewrites/wire.h"
#include "tests/director/graph_testing.h"
#include "tests/support/test_support.h"

namespace {

namespace fs = std::filesystem;
using le::GsBytes;
using le::GsField;
using le::GsReader;
using le::GsSlice;

constexpr const char* kTestdata = "/usr/share/libonnx-testdata/data";

// The message kinds that the re-encoder descends into; anything else is
// written back from its decoded parts as a leaf.
enum class Kind { Leaf, Model, Graph, Node, Attribute, ValueInfo, Type, TensorType, Shape, Function };

Kind childOf(Kind parent, uint32_t number) {
  switch (parent) {
    case Kind::Model: return number == 7 ? Kind::Graph : number == 25 ? Kind::Function : Kind::Leaf;
    case Kind::Graph:
      return number == 1 ? Kind::Node : (number == 11 || number == 12 || number == 13) ? Kind::ValueInfo : Kind::Leaf;
    case Kind::Node: return number == 5 ? Kind::Attribute : Kind::Leaf;
    case Kind::Attribute: return number == 6 || number == 11 ? Kind::Graph : Kind::Leaf;
    case Kind::ValueInfo: return number == 2 ? Kind::Type : Kind::Leaf;
    case Kind::Type: return number == 1 ? Kind::TensorType : Kind::Leaf;
    case Kind::TensorType: return number == 2 ? Kind::Shape : Kind::Leaf;
    case Kind::Function: return number == 7 ? Kind::Node : Kind::Leaf;
    default: return Kind::Leaf;
  }
}

// Writes a message back from what the reader decoded, field by field, nested
// messages rebuilt the same way: tag, value or length and payload.
GsBytes reencode(GsSlice message, Kind kind) {
  GsBytes out;
  GsReader r(message);
  GsField f;
  while (r.next(f)) {
    le::gsPutTag(out, f.number, f.wire);
    if (f.wire == le::kGsVarint) {
      le::gsPutVarint(out, f.value);
    } else if (f.wire == le::kGsLength) {
      const Kind child = childOf(kind, f.number);
      if (child == Kind::Leaf) {
        le::gsPutVarint(out, f.payload.size);
        le::gsPutRaw(out, f.payload);
      } else {
        const GsBytes inner = reencode(f.payload, child);
        le::gsPutVarint(out, inner.size());
        le::gsPutRaw(out, inner);
      }
    } else {
      le::gsPutRaw(out, f.payload);
    }
  }
  return out;
}

std::vector<std::string> testdataModels() {
  std::vector<std::string> files;
  for (const auto& e : fs::recursive_directory_iterator(kTestdata))
    if (e.is_regular_file() && e.path().extension() == ".onnx") files.push_back(e.path().string());
  std::sort(files.begin(), files.end());
  return files;
}

TEST(OnnxTestdata, EveryModelReadsAndWritesBackByteForByte) {
  if (!fs::is_directory(kTestdata))
    GTEST_SKIP() << "libonnx-testdata is not installed (" << kTestdata << " is missing); scripts/setup.sh installs it";
  const std::vector<std::string> files = testdataModels();
  ASSERT_GE(files.size(), 900u) << "the package should hold about a thousand models";
  size_t nodesSeen = 0;
  for (const std::string& path : files) {
    SCOPED_TRACE(path);
    const GsBytes bytes = le::test::toBytes(le::test::readFile(path));
    ASSERT_TRUE(le::test::sameBytes(reencode(le::gsSliceOf(bytes), Kind::Model), bytes));

    // The identity edit, through the same road every rewrite takes.
    const GsSlice graph = le::gsGraphOf(bytes);
    ASSERT_FALSE(graph.empty());
    const GsBytes copy =
        le::gsModelWithGraph(le::gsSliceOf(bytes), le::gsEditNodes(graph, 0, [](const GsField&, size_t, GsBytes&) {
                               return false;
                             }));
    ASSERT_TRUE(le::test::sameBytes(copy, bytes));

    // Every name a node reads is a graph input, an initializer or the output
    // of an earlier node: the reader found them all, in order.
    std::vector<le::GsNodeInfo> nodes;
    std::unordered_set<std::string> known, inputs;
    le::gsReadGraph(graph, nodes, known, inputs);
    known.insert(inputs.begin(), inputs.end());
    ASSERT_FALSE(nodes.empty());
    for (const le::GsNodeInfo& n : nodes) {
      EXPECT_FALSE(n.opType.empty());
      for (const std::string& in : n.inputs)
        EXPECT_TRUE(in.empty() || known.count(in)) << n.opType << " reads '" << in << "' before anything makes it";
      known.insert(n.outputs.begin(), n.outputs.end());
    }
    nodesSeen += nodes.size();
  }
  EXPECT_GE(nodesSeen, files.size());
}

TEST(OnnxTestdata, NoRewriteFiresWithoutItsPattern) {
  if (!fs::is_directory(kTestdata))
    GTEST_SKIP() << "libonnx-testdata is not installed (" << kTestdata << " is missing); scripts/setup.sh installs it";
  size_t gridSamples = 0, cubicResizes = 0;
  for (const std::string& path : testdataModels()) {
    SCOPED_TRACE(path);
    const GsBytes original = le::test::toBytes(le::test::readFile(path));
    GsBytes bytes = original;
    EXPECT_FALSE(le::graphHasBakedGridSampleFast(bytes));
    EXPECT_EQ(le::rewriteGridSampleToFast(bytes), 0u);
    EXPECT_EQ(le::normaliseStudentBlend(bytes), 0u);
    EXPECT_EQ(le::rewriteHeadCubicResize(bytes), 0u);
    ASSERT_TRUE(le::test::sameBytes(bytes, original));
    le::gsForEachNode(le::gsGraphOf(bytes), [&](const le::GsNodeInfo& n) {
      gridSamples += n.opType == "GridSample";
      cubicResizes += n.opType == "Resize" && path.find("cubic") != std::string::npos;
    });
  }
  // The package does hold near misses: GridSamples without border padding or
  // without a mode, cubic Resizes that feed no Conv.
  EXPECT_GE(gridSamples, 5u);
  EXPECT_GE(cubicResizes, 5u);
}

}  // namespace
