#include "director/rewrites/node_writer.h"

namespace le {

namespace {

// AttributeProto.type is field 20 (tag A0 01).
constexpr uint32_t kAttrType = 20;

void putAttribute(GsBytes& attrs, const GsBytes& attribute) { gsPutLen(attrs, 5, attribute); }

void putNode(GsBytes& graph, std::string_view opType, const std::string_view* domain,
             const std::vector<std::string>& inputs, std::string_view output, std::string_view name,
             const GsBytes& attributes) {
  GsBytes node;
  size_t need = opType.size() + output.size() + name.size() + attributes.size() + 24;
  for (const auto& in : inputs) need += in.size() + 4;
  if (domain) need += domain->size();
  node.reserve(need);
  for (const auto& in : inputs) gsPutStr(node, 1, in);
  gsPutStr(node, 2, output);
  gsPutStr(node, 3, name);
  gsPutStr(node, 4, opType);
  gsPutRaw(node, attributes);
  if (domain) gsPutStr(node, 7, *domain);
  gsPutLen(graph, 1, node);
}

}  // namespace

void hcAttrS(GsBytes& attrs, std::string_view name, std::string_view value) {
  GsBytes a;
  a.reserve(name.size() + value.size() + 8);
  gsPutStr(a, 1, name);
  gsPutStr(a, 4, value);
  gsPutInt(a, kAttrType, 3);
  putAttribute(attrs, a);
}

void hcAttrI(GsBytes& attrs, std::string_view name, int64_t value) {
  GsBytes a;
  a.reserve(name.size() + 16);
  gsPutStr(a, 1, name);
  gsPutInt(a, 3, static_cast<uint64_t>(value));
  gsPutInt(a, kAttrType, 2);
  putAttribute(attrs, a);
}

void hcAttrIs(GsBytes& attrs, std::string_view name, const std::vector<int64_t>& values) {
  GsBytes a;
  a.reserve(name.size() + values.size() * 11 + 8);
  gsPutStr(a, 1, name);
  for (int64_t v : values) gsPutInt(a, 8, static_cast<uint64_t>(v));
  gsPutInt(a, kAttrType, 7);
  putAttribute(attrs, a);
}

void hcNode(GsBytes& graph, std::string_view opType, const std::vector<std::string>& inputs,
            std::string_view output, std::string_view name, const GsBytes& attributes) {
  putNode(graph, opType, nullptr, inputs, output, name, attributes);
}

void fzNode(GsBytes& graph, std::string_view opType, std::string_view domain,
            const std::vector<std::string>& inputs, std::string_view output, std::string_view name,
            const GsBytes& attributes) {
  putNode(graph, opType, &domain, inputs, output, name, attributes);
}

bool gsImportsDomain(const GsBytes& model, std::string_view domain) {
  GsReader r(gsSliceOf(model));
  GsField f;
  while (r.next(f))
    if (f.number == 8 && f.wire == kGsLength && gsFirstStr(f.payload, 1) == domain) return true;
  return false;
}

GsBytes gsOpsetImportIfMissing(const GsBytes& model, std::string_view domain) {
  GsBytes opset;
  if (gsImportsDomain(model, domain)) return opset;
  GsBytes id;
  gsPutStr(id, 1, domain);
  gsPutInt(id, 2, 1);
  gsPutLen(opset, 8, id);
  return opset;
}

void hcInit(GsBytes& graph, std::string_view name, int32_t dataType, const std::vector<int64_t>& dims,
            const void* data, size_t size) {
  GsBytes t;
  t.reserve(dims.size() * 11 + name.size() + size + 24);
  for (int64_t d : dims) gsPutInt(t, 1, static_cast<uint64_t>(d));
  gsPutInt(t, 2, static_cast<uint64_t>(dataType));
  gsPutStr(t, 8, name);
  gsPutLen(t, 9, static_cast<const uint8_t*>(data), size);
  gsPutLen(graph, 5, t);
}

}  // namespace le
