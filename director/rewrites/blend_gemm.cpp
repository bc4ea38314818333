#include "director/rewrites/blend_gemm.h"

namespace le {

bool gsIsStudentBlendMatMul(const GsNodeInfo& node, std::string* why) {
  std::string cause;
  if (node.name != kStudentBlendName) {
    cause = "it is not named " + std::string(kStudentBlendName);
  } else if (node.opType != "MatMul") {
    cause = "its op_type is '" + node.opType + "'";
  } else if (!node.domain.empty() && node.domain != "ai.onnx") {
    cause = "its domain is '" + node.domain + "'";
  } else if (const size_t n = gsReadAttrs(node.body).size(); n != 0) {
    cause = "it carries " + std::to_string(n) + " attribute(s)";
  } else if (node.inputs.size() != 2) {
    cause = "it has " + std::to_string(node.inputs.size()) + " inputs";
  }
  if (why) *why = cause;
  return cause.empty();
}

size_t normaliseStudentBlend(GsBytes& bytes, std::string* reason) {
  const GsSlice graph = gsGraphOf(bytes);
  size_t count = 0;
  std::string firstRefusal;
  gsForEachNode(graph, [&](const GsNodeInfo& node) {
    std::string why;
    if (gsIsStudentBlendMatMul(node, &why))
      ++count;
    else if (firstRefusal.empty() && node.name == kStudentBlendName)
      firstRefusal = std::string(kStudentBlendName) + " stays: " + why;
  });
  if (count == 0) {
    if (reason)
      *reason = !firstRefusal.empty() ? firstRefusal
                                      : "the graph has no node named " + std::string(kStudentBlendName);
    return 0;
  }
  const GsBytes newGraph = gsEditNodes(graph, count * 8, [](const GsField& f, size_t, GsBytes& out) {
    if (!gsIsStudentBlendMatMul(gsReadNode(f))) return false;
    GsBytes node;
    node.reserve(f.payload.size + 8);
    gsCopyFieldsExcept(node, f.payload, {4, 7});
    gsPutStr(node, 4, "Gemm");
    gsPutLen(out, 1, node);
    return true;
  });
  bytes = gsModelWithGraph(gsSliceOf(bytes), newGraph);
  if (reason) reason->clear();
  return count;
}

}  // namespace le
