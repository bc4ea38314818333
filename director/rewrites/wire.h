// The protobuf wire reader and the few writing primitives that every graph
// edit shares. There is no protobuf library and no generated ONNX class here:
// an edit walks the bytes, copies every field it leaves alone verbatim (its
// raw encoding, tag and length included) and writes by hand only what it
// changes. So an edit can't lose a field it doesn't know or reorder a file,
// and a model of any size goes through in one linear pass without a tree.
//
// Field numbers are those of the published onnx.proto.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace le {

using GsBytes = std::vector<uint8_t>;

// A byte range inside a buffer that outlives it. Owns nothing.
struct GsSlice {
  const uint8_t* data = nullptr;
  size_t size = 0;

  bool empty() const { return size == 0; }
  std::string_view text() const {
    return size ? std::string_view(reinterpret_cast<const char*>(data), size) : std::string_view();
  }
  std::string str() const { return std::string(text()); }
};

inline GsSlice gsSliceOf(const GsBytes& bytes) { return {bytes.data(), bytes.size()}; }

// One decoded field. payload is the content of a length-delimited field, or
// the 4 or 8 bytes of a fixed one; raw is the whole encoding as it stands in
// the buffer, which is what verbatim copying uses.
struct GsField {
  uint32_t number = 0;
  uint32_t wire = 0;
  uint64_t value = 0;
  GsSlice payload;
  GsSlice raw;
};

// Protobuf wire types.
inline constexpr uint32_t kGsVarint = 0;
inline constexpr uint32_t kGsFixed64 = 1;
inline constexpr uint32_t kGsLength = 2;
inline constexpr uint32_t kGsFixed32 = 5;

// A malformed wire: "onnx: bad wire type", "onnx: truncated" or
// "onnx: bad varint". Its own type so that a caller can tell bad bytes from
// other failures.
class GsWireError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A cursor over one message. It never follows a group and never recurses:
// a nested message gets a reader of its own over the payload. Malformed input
// throws GsWireError.
class GsReader {
 public:
  explicit GsReader(GsSlice message) : cur_(message.data), end_(message.data + message.size) {}

  // Fills f with the next field; false at the end of the message.
  bool next(GsField& f);
  // Reads one varint at the cursor (packed repeated fields).
  uint64_t varint();
  bool done() const { return cur_ >= end_; }

 private:
  const uint8_t* cur_;
  const uint8_t* end_;
};

// A node as the edits see it. Empty optional inputs stay as empty names so
// that positions hold. Scalar fields follow protobuf: the last one wins.
struct GsNodeInfo {
  GsSlice raw;   // the node field of the graph, tag and length included
  GsSlice body;  // the NodeProto payload
  std::string name;
  std::string opType;
  std::string domain;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
};

// Writing primitives. Lengths are varints, tags are (number << 3) | wire.
void gsPutVarint(GsBytes& bytes, uint64_t value);
void gsPutTag(GsBytes& bytes, uint32_t number, uint32_t wire);
void gsPutRaw(GsBytes& bytes, GsSlice raw);
void gsPutRaw(GsBytes& bytes, const GsBytes& raw);
// A length-delimited field: tag, varint length, payload.
void gsPutLen(GsBytes& bytes, uint32_t number, const uint8_t* data, size_t size);
void gsPutLen(GsBytes& bytes, uint32_t number, const GsBytes& payload);
void gsPutStr(GsBytes& bytes, uint32_t number, std::string_view text);
void gsPutInt(GsBytes& bytes, uint32_t number, uint64_t value);

// The payload of the first graph field (ModelProto field 7); empty if none.
GsSlice gsGraphOf(GsSlice model);
inline GsSlice gsGraphOf(const GsBytes& model) { return gsGraphOf(gsSliceOf(model)); }

// Appends the text of every length-delimited field numbered fieldNumber.
void gsAllStr(GsSlice message, uint32_t fieldNumber, std::vector<std::string>& out);

// The first length-delimited field numbered fieldNumber as text, or "".
std::string gsFirstStr(GsSlice message, uint32_t fieldNumber);

GsNodeInfo gsReadNode(const GsField& nodeField);

// Calls visit for each node of the graph, in order.
void gsForEachNode(GsSlice graph, const std::function<void(const GsNodeInfo&)>& visit);

// The graph's nodes in order, its initializer names (TensorProto field 8) and
// its input names (ValueInfoProto field 1). A field without a name
// contributes an empty text.
void gsReadGraph(GsSlice graph, std::vector<GsNodeInfo>& nodes,
                 std::unordered_set<std::string>& initializers,
                 std::unordered_set<std::string>& inputs);

// One AttributeProto of a node, as far as the edits read it.
struct GsAttr {
  std::string name;
  bool hasS = false, hasI = false, hasF = false, hasT = false;
  std::string s;   // field 4
  int64_t i = 0;   // field 3
  float f = 0.0f;  // field 2
  GsSlice t;       // field 5, a TensorProto payload
};

// The attributes (field 5) of a NodeProto payload, in order.
std::vector<GsAttr> gsReadAttrs(GsSlice nodeBody);

// The last attribute of that name, or null: protobuf lets the last one win.
const GsAttr* gsFindAttr(const std::vector<GsAttr>& attrs, std::string_view name);
// The result points into attrs, which must outlive it.
const GsAttr* gsFindAttr(std::vector<GsAttr>&& attrs, std::string_view name) = delete;

// Appends every field of message except those numbered in drop, raw, in order.
void gsCopyFieldsExcept(GsBytes& out, GsSlice message, std::initializer_list<uint32_t> drop);

// Copies a graph field by field. Each node field goes to edit with its index
// in the node list; edit appends what replaces it and returns true, or
// returns false to have the node copied raw. extra is reserved on top of the
// graph's size for what the edit adds.
using GsNodeEdit = std::function<bool(const GsField& node, size_t index, GsBytes& out)>;
GsBytes gsEditNodes(GsSlice graph, size_t extra, const GsNodeEdit& edit);

// An initializer of a graph: its name (TensorProto field 8), the raw
// encoding of the graph field, and the TensorProto payload.
struct GsInitializer {
  std::string name;
  GsSlice raw;
  GsSlice body;
};

// The graph's initializers (field 5) in order.
std::vector<GsInitializer> gsReadInitializers(GsSlice graph);

// The model with its first graph field replaced by tag 3A, length, graph, and
// then tail appended as its last bytes; every other top-level field raw, in
// order. The result is reserved up front so that the model is copied once.
GsBytes gsModelWithGraph(GsSlice model, const GsBytes& graph, const GsBytes& tail = {});

}  // namespace le
