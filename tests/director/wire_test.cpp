// The protobuf wire reader and writer on hand-made bytes.
#include <gtest/gtest.h>

#include <string>

#include "director/rewrites/node_writer.h"
#include "director/rewrites/wire.h"
#include "tests/director/graph_testing.h"

namespace {

using le::GsBytes;
using le::GsField;
using le::GsReader;
using le::gsSliceOf;

std::string errorOf(const GsBytes& bytes) {
  GsReader r(gsSliceOf(bytes));
  GsField f;
  try {
    while (r.next(f)) {
    }
  } catch (const le::GsWireError& e) {
    return e.what();
  }
  return "";
}

std::string str(const GsBytes& b) { return std::string(b.begin(), b.end()); }

TEST(WireReader, DecodesEveryWireTypeWithItsRawEncoding) {
  const GsBytes bytes = {0x08, 0x96, 0x01,                                     // 1: varint 150
                         0x11, 1, 2, 3, 4, 5, 6, 7, 8,                         // 2: fixed64
                         0x1A, 0x03, 'a', 'b', 'c',                            // 3: length 3
                         0x25, 0x00, 0x00, 0x80, 0x3F,                         // 4: fixed32 1.0f
                         0xA0, 0x01, 0x07};                                    // 20: varint 7
  GsReader r(gsSliceOf(bytes));
  GsField f;
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.number, 1u);
  EXPECT_EQ(f.wire, le::kGsVarint);
  EXPECT_EQ(f.value, 150u);
  EXPECT_EQ(f.raw.str(), std::string("\x08\x96\x01"));
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.number, 2u);
  EXPECT_EQ(f.wire, le::kGsFixed64);
  EXPECT_EQ(f.payload.size, 8u);
  EXPECT_EQ(f.raw.size, 9u);
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.number, 3u);
  EXPECT_EQ(f.payload.str(), "abc");
  EXPECT_EQ(f.raw.str(), std::string("\x1A\x03" "abc"));
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.number, 4u);
  EXPECT_EQ(f.wire, le::kGsFixed32);
  EXPECT_EQ(f.raw.size, 5u);
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.number, 20u);
  EXPECT_EQ(f.value, 7u);
  EXPECT_FALSE(r.next(f));
  EXPECT_FALSE(r.next(f));
}

TEST(WireReader, VarintsUpToTenBytes) {
  GsBytes max = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01};
  GsReader r(gsSliceOf(max));
  GsField f;
  ASSERT_TRUE(r.next(f));
  EXPECT_EQ(f.value, ~uint64_t{0});
  // Eleven bytes: the tenth still carries a continuation bit.
  GsBytes eleven = {0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x81, 0x01};
  EXPECT_EQ(errorOf(eleven), "onnx: bad varint");
  EXPECT_EQ(errorOf({0x08, 0x80}), "onnx: bad varint");
  EXPECT_EQ(errorOf({0x80}), "onnx: bad varint");
  GsBytes packed = {0x96, 0x01, 0x05};
  GsReader p(gsSliceOf(packed));
  EXPECT_EQ(p.varint(), 150u);
  EXPECT_EQ(p.varint(), 5u);
  EXPECT_TRUE(p.done());
  EXPECT_THROW(p.varint(), le::GsWireError);
}

TEST(WireReader, RefusesTruncationAndUnknownWireTypes) {
  EXPECT_EQ(errorOf({0x0A, 0x04, 'a', 'b', 'c'}), "onnx: truncated");
  EXPECT_EQ(errorOf({0x0A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}), "onnx: truncated");
  EXPECT_EQ(errorOf({0x11, 1, 2, 3}), "onnx: truncated");
  EXPECT_EQ(errorOf({0x15, 1, 2, 3}), "onnx: truncated");
  EXPECT_EQ(errorOf({0x0B}), "onnx: bad wire type");  // wire 3, a group start
  EXPECT_EQ(errorOf({0x0C}), "onnx: bad wire type");
  EXPECT_EQ(errorOf({0x0E}), "onnx: bad wire type");
  // A nested message is read by its own reader: a broken payload is not an
  // error of the outer message.
  EXPECT_EQ(errorOf({0x0A, 0x01, 0x0B}), "");
  EXPECT_EQ(errorOf({}), "");
}

TEST(WireWriter, WritesCanonicalVarintsAndFields) {
  GsBytes b;
  le::gsPutVarint(b, 0);
  le::gsPutVarint(b, 127);
  le::gsPutVarint(b, 128);
  le::gsPutVarint(b, 300);
  EXPECT_EQ(b, (GsBytes{0x00, 0x7F, 0x80, 0x01, 0xAC, 0x02}));
  b.clear();
  le::gsPutVarint(b, ~uint64_t{0});
  EXPECT_EQ(b, (GsBytes{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x01}));
  b.clear();
  le::gsPutStr(b, 7, "ab");
  le::gsPutInt(b, 20, 3);
  le::gsPutTag(b, 2, le::kGsFixed32);
  EXPECT_EQ(b, (GsBytes{0x3A, 0x02, 'a', 'b', 0xA0, 0x01, 0x03, 0x15}));
}

TEST(WireReader, FindsTheFirstGraphAndStrings) {
  GsBytes model;
  le::gsPutInt(model, 1, 8);
  le::gsPutStr(model, 7, "first");
  le::gsPutStr(model, 7, "second");
  EXPECT_EQ(le::gsGraphOf(model).str(), "first");
  EXPECT_TRUE(le::gsGraphOf(GsBytes{0x08, 0x01}).empty());
  std::vector<std::string> all = {"kept"};
  le::gsAllStr(gsSliceOf(model), 7, all);
  EXPECT_EQ(all, (std::vector<std::string>{"kept", "first", "second"}));

  // The graph is replaced where it stands, every other field raw, the tail last.
  const GsBytes graph = {'g'};
  const GsBytes tail = {0x42, 0x00};
  EXPECT_EQ(str(le::gsModelWithGraph(gsSliceOf(model), graph, tail)),
            std::string("\x08\x08\x3A\x01g\x3A\x06second\x42\x00", 15));
}

TEST(WireReader, ReadsNodesInitializersAndInputsOfAGraph) {
  GsBytes node;
  le::gsPutStr(node, 1, "x");
  le::gsPutStr(node, 1, "");
  le::gsPutStr(node, 1, "s");
  le::gsPutStr(node, 2, "y");
  le::gsPutStr(node, 3, "/r");
  le::gsPutStr(node, 4, "Resize");
  le::gsPutStr(node, 7, "ai.onnx");
  GsBytes graph, tensor, input;
  le::gsPutLen(graph, 1, node);
  le::gsPutStr(tensor, 8, "s");
  le::gsPutLen(graph, 5, tensor);
  le::gsPutLen(graph, 5, GsBytes{});  // a nameless initializer
  le::gsPutStr(input, 1, "x");
  le::gsPutLen(graph, 11, input);
  std::vector<le::GsNodeInfo> nodes;
  std::unordered_set<std::string> inits, inputs;
  le::gsReadGraph(gsSliceOf(graph), nodes, inits, inputs);
  ASSERT_EQ(nodes.size(), 1u);
  EXPECT_EQ(nodes[0].opType, "Resize");
  EXPECT_EQ(nodes[0].name, "/r");
  EXPECT_EQ(nodes[0].domain, "ai.onnx");
  EXPECT_EQ(nodes[0].inputs, (std::vector<std::string>{"x", "", "s"}));
  EXPECT_EQ(nodes[0].outputs, (std::vector<std::string>{"y"}));
  EXPECT_EQ(nodes[0].raw.str(), le::test::lenField(1, node));
  EXPECT_EQ(inits, (std::unordered_set<std::string>{"s", ""}));
  EXPECT_EQ(inputs, (std::unordered_set<std::string>{"x"}));
}

TEST(NodeWriter, WritesAttributesNodesAndInitializersByteForByte) {
  GsBytes attrs;
  le::hcAttrS(attrs, "mode", "edge");
  EXPECT_EQ(str(attrs), std::string("\x2A\x0F\x0A\x04mode\x22\x04" "edge\xA0\x01\x03", 17));
  attrs.clear();
  le::hcAttrI(attrs, "group", 300);
  EXPECT_EQ(str(attrs), std::string("\x2A\x0D\x0A\x05group\x18\xAC\x02\xA0\x01\x02", 15));
  attrs.clear();
  le::hcAttrIs(attrs, "pads", {0, 2});
  EXPECT_EQ(str(attrs), std::string("\x2A\x0D\x0A\x04pads\x40\x00\x40\x02\xA0\x01\x07", 15));

  GsBytes graph;
  le::hcNode(graph, "Pad", {"x", "p"}, "y", "/n", attrs);
  EXPECT_EQ(str(graph), std::string("\x0A\x21\x0A\x01x\x0A\x01p\x12\x01y\x1A\x02/n\x22\x03Pad", 20) + str(attrs));

  graph.clear();
  const int64_t data[2] = {1, -1};
  le::hcInit(graph, "t", le::kOnnxInt64, {2, 1}, data, sizeof data);
  EXPECT_EQ(str(graph), std::string("\x2A\x1B\x08\x02\x08\x01\x10\x07\x42\x01t\x4A\x10"
                                    "\x01\0\0\0\0\0\0\0\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFF", 29));
}

}  // namespace
