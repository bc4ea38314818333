#include "director/rewrites/gridsample_fast.h"

#include "director/rewrites/node_writer.h"

namespace le {

namespace {

bool isStandardDomain(const std::string& domain) { return domain.empty() || domain == "ai.onnx"; }

std::string quotedOrAbsent(const GsAttr* a) { return a && a->hasS ? "'" + a->s + "'" : "absent"; }

}  // namespace

bool graphHasBakedGridSampleFast(const GsBytes& bytes) {
  bool baked = false;
  gsForEachNode(gsGraphOf(bytes), [&](const GsNodeInfo& node) {
    baked = baked || (node.opType == "GridSampleFast" && node.domain == kKestrovaDomain);
  });
  return baked;
}

bool gsIsRewritableGridSample(const GsNodeInfo& node, std::string* why) {
  std::string cause;
  if (node.opType != "GridSample") {
    cause = "it is not a GridSample";
  } else {
    const std::vector<GsAttr> attrs = gsReadAttrs(node.body);
    const GsAttr* mode = gsFindAttr(attrs, "mode");
    const GsAttr* padding = gsFindAttr(attrs, "padding_mode");
    const GsAttr* align = gsFindAttr(attrs, "align_corners");
    // The standard's defaults are not assumed: a graph that leaves mode or
    // padding_mode out doesn't say which sampling it wants.
    if (!isStandardDomain(node.domain))
      cause = "its domain is '" + node.domain + "'";
    else if (!mode || !mode->hasS || (mode->s != "bilinear" && mode->s != "linear"))
      cause = "its mode is " + quotedOrAbsent(mode);
    else if (!padding || !padding->hasS || padding->s != "border")
      cause = "its padding_mode is " + quotedOrAbsent(padding);
    else if (align && align->hasI && align->i != 0)
      cause = "its align_corners is " + std::to_string(align->i);
  }
  if (why) *why = cause;
  return cause.empty();
}

size_t rewriteGridSampleToFast(GsBytes& bytes, std::string* reason) {
  const GsSlice graph = gsGraphOf(bytes);
  size_t count = 0;
  std::string firstRefusal;
  gsForEachNode(graph, [&](const GsNodeInfo& node) {
    std::string why;
    if (gsIsRewritableGridSample(node, &why))
      ++count;
    else if (firstRefusal.empty() && node.opType == "GridSample")
      firstRefusal = "GridSample '" + node.name + "' stays standard: " + why;
  });
  if (count == 0) {
    if (reason) *reason = !firstRefusal.empty() ? firstRefusal : "the graph has no GridSample node";
    return 0;
  }

  const GsBytes newGraph = gsEditNodes(graph, count * 32, [](const GsField& f, size_t, GsBytes& out) {
    if (!gsIsRewritableGridSample(gsReadNode(f))) return false;
    // Inputs, outputs, name and doc_string stay in order; op type, domain and
    // every attribute go, since the custom op takes none.
    GsBytes node;
    node.reserve(f.payload.size + 32);
    gsCopyFieldsExcept(node, f.payload, {4, 5, 7});
    gsPutStr(node, 4, "GridSampleFast");
    gsPutStr(node, 7, kKestrovaDomain);
    gsPutLen(out, 1, node);
    return true;
  });
  bytes = gsModelWithGraph(gsSliceOf(bytes), newGraph, gsOpsetImportIfMissing(bytes, kKestrovaDomain));
  if (reason) reason->clear();
  return count;
}

}  // namespace le
