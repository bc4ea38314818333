#include "director/rewrites/wire.h"

#include <algorithm>
#include <cstring>

namespace le {

namespace {

// A varint is at most 10 bytes; the tenth may carry no continuation bit.
uint64_t readVarint(const uint8_t*& cur, const uint8_t* end) {
  uint64_t value = 0;
  for (unsigned shift = 0;; shift += 7) {
    if (cur >= end) throw GsWireError("onnx: bad varint");
    const uint8_t b = *cur++;
    value |= static_cast<uint64_t>(b & 0x7F) << shift;
    if (!(b & 0x80)) return value;
    if (shift == 63) throw GsWireError("onnx: bad varint");
  }
}

size_t varintSize(uint64_t value) {
  size_t n = 1;
  while (value >= 0x80) {
    value >>= 7;
    ++n;
  }
  return n;
}

}  // namespace

bool GsReader::next(GsField& f) {
  if (cur_ >= end_) return false;
  const uint8_t* start = cur_;
  const uint64_t tag = readVarint(cur_, end_);
  f.number = static_cast<uint32_t>(tag >> 3);
  f.wire = static_cast<uint32_t>(tag & 7);
  f.value = 0;
  f.payload = {};
  size_t fixed = 0;
  switch (f.wire) {
    case kGsVarint:
      f.value = readVarint(cur_, end_);
      break;
    case kGsFixed64:
      fixed = 8;
      break;
    case kGsLength: {
      const uint64_t len = readVarint(cur_, end_);
      if (len > static_cast<uint64_t>(end_ - cur_)) throw GsWireError("onnx: truncated");
      fixed = static_cast<size_t>(len);  // fits: it is within the buffer
      break;
    }
    case kGsFixed32:
      fixed = 4;
      break;
    default:
      throw GsWireError("onnx: bad wire type");
  }
  if (f.wire != kGsVarint) {
    if (fixed > static_cast<size_t>(end_ - cur_)) throw GsWireError("onnx: truncated");
    f.payload = {cur_, fixed};
    cur_ += fixed;
  }
  f.raw = {start, static_cast<size_t>(cur_ - start)};
  return true;
}

uint64_t GsReader::varint() { return readVarint(cur_, end_); }

void gsPutVarint(GsBytes& bytes, uint64_t value) {
  while (value >= 0x80) {
    bytes.push_back(static_cast<uint8_t>(value | 0x80));
    value >>= 7;
  }
  bytes.push_back(static_cast<uint8_t>(value));
}

void gsPutTag(GsBytes& bytes, uint32_t number, uint32_t wire) {
  gsPutVarint(bytes, (static_cast<uint64_t>(number) << 3) | wire);
}

void gsPutRaw(GsBytes& bytes, GsSlice raw) { bytes.insert(bytes.end(), raw.data, raw.data + raw.size); }

void gsPutRaw(GsBytes& bytes, const GsBytes& raw) { bytes.insert(bytes.end(), raw.begin(), raw.end()); }

void gsPutLen(GsBytes& bytes, uint32_t number, const uint8_t* data, size_t size) {
  gsPutTag(bytes, number, kGsLength);
  gsPutVarint(bytes, size);
  bytes.insert(bytes.end(), data, data + size);
}

void gsPutLen(GsBytes& bytes, uint32_t number, const GsBytes& payload) {
  gsPutLen(bytes, number, payload.data(), payload.size());
}

void gsPutStr(GsBytes& bytes, uint32_t number, std::string_view text) {
  gsPutLen(bytes, number, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}

void gsPutInt(GsBytes& bytes, uint32_t number, uint64_t value) {
  gsPutTag(bytes, number, kGsVarint);
  gsPutVarint(bytes, value);
}

GsSlice gsGraphOf(GsSlice model) {
  GsReader r(model);
  GsField f;
  while (r.next(f))
    if (f.number == 7 && f.wire == kGsLength) return f.payload;
  return {};
}

void gsAllStr(GsSlice message, uint32_t fieldNumber, std::vector<std::string>& out) {
  GsReader r(message);
  GsField f;
  while (r.next(f))
    if (f.number == fieldNumber && f.wire == kGsLength) out.push_back(f.payload.str());
}

std::string gsFirstStr(GsSlice message, uint32_t fieldNumber) {
  GsReader r(message);
  GsField f;
  while (r.next(f))
    if (f.number == fieldNumber && f.wire == kGsLength) return f.payload.str();
  return {};
}

GsNodeInfo gsReadNode(const GsField& nodeField) {
  GsNodeInfo node;
  node.raw = nodeField.raw;
  node.body = nodeField.payload;
  GsReader r(nodeField.payload);
  GsField f;
  while (r.next(f)) {
    if (f.wire != kGsLength) continue;
    switch (f.number) {
      case 1: node.inputs.push_back(f.payload.str()); break;
      case 2: node.outputs.push_back(f.payload.str()); break;
      case 3: node.name = f.payload.str(); break;
      case 4: node.opType = f.payload.str(); break;
      case 7: node.domain = f.payload.str(); break;
      default: break;
    }
  }
  return node;
}

void gsForEachNode(GsSlice graph, const std::function<void(const GsNodeInfo&)>& visit) {
  GsReader r(graph);
  GsField f;
  while (r.next(f))
    if (f.number == 1 && f.wire == kGsLength) visit(gsReadNode(f));
}

void gsReadGraph(GsSlice graph, std::vector<GsNodeInfo>& nodes,
                 std::unordered_set<std::string>& initializers,
                 std::unordered_set<std::string>& inputs) {
  GsReader r(graph);
  GsField f;
  while (r.next(f)) {
    if (f.wire != kGsLength) continue;
    if (f.number == 1) nodes.push_back(gsReadNode(f));
    else if (f.number == 5) initializers.insert(gsFirstStr(f.payload, 8));
    else if (f.number == 11) inputs.insert(gsFirstStr(f.payload, 1));
  }
}

std::vector<GsAttr> gsReadAttrs(GsSlice nodeBody) {
  std::vector<GsAttr> attrs;
  GsReader node(nodeBody);
  GsField f;
  while (node.next(f)) {
    if (f.number != 5 || f.wire != kGsLength) continue;
    GsAttr a;
    GsReader r(f.payload);
    GsField g;
    while (r.next(g)) {
      if (g.number == 1 && g.wire == kGsLength) {
        a.name = g.payload.str();
      } else if (g.number == 2 && g.wire == kGsFixed32) {
        std::memcpy(&a.f, g.payload.data, 4);
        a.hasF = true;
      } else if (g.number == 3 && g.wire == kGsVarint) {
        a.i = static_cast<int64_t>(g.value);
        a.hasI = true;
      } else if (g.number == 4 && g.wire == kGsLength) {
        a.s = g.payload.str();
        a.hasS = true;
      } else if (g.number == 5 && g.wire == kGsLength) {
        a.t = g.payload;
        a.hasT = true;
      }
    }
    attrs.push_back(std::move(a));
  }
  return attrs;
}

const GsAttr* gsFindAttr(const std::vector<GsAttr>& attrs, std::string_view name) {
  const auto it = std::find_if(attrs.rbegin(), attrs.rend(), [&](const GsAttr& a) { return a.name == name; });
  return it == attrs.rend() ? nullptr : &*it;
}

void gsCopyFieldsExcept(GsBytes& out, GsSlice message, std::initializer_list<uint32_t> drop) {
  GsReader r(message);
  GsField f;
  while (r.next(f))
    if (std::find(drop.begin(), drop.end(), f.number) == drop.end()) gsPutRaw(out, f.raw);
}

GsBytes gsEditNodes(GsSlice graph, size_t extra, const GsNodeEdit& edit) {
  GsBytes out;
  out.reserve(graph.size + extra);
  GsReader r(graph);
  GsField f;
  size_t index = 0;
  while (r.next(f)) {
    if (f.number == 1 && f.wire == kGsLength) {
      if (!edit(f, index++, out)) gsPutRaw(out, f.raw);
    } else {
      gsPutRaw(out, f.raw);
    }
  }
  return out;
}

std::vector<GsInitializer> gsReadInitializers(GsSlice graph) {
  std::vector<GsInitializer> out;
  GsReader r(graph);
  GsField f;
  while (r.next(f))
    if (f.number == 5 && f.wire == kGsLength) out.push_back({gsFirstStr(f.payload, 8), f.raw, f.payload});
  return out;
}

GsBytes gsModelWithGraph(GsSlice model, const GsBytes& graph, const GsBytes& tail) {
  const GsSlice old = gsGraphOf(model);
  GsBytes out;
  out.reserve(model.size - old.size + graph.size() + varintSize(graph.size()) + tail.size() + 16);
  GsReader r(model);
  GsField f;
  bool replaced = false;
  while (r.next(f)) {
    if (!replaced && f.number == 7 && f.wire == kGsLength) {
      gsPutLen(out, 7, graph);
      replaced = true;
    } else {
      gsPutRaw(out, f.raw);
    }
  }
  gsPutRaw(out, tail);
  return out;
}

}  // namespace le
