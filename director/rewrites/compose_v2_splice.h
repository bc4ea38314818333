// The compose v2 splice: a bundle's director graph as published composes the
// face with an ellipse; the lip template carries a small structure graph that
// replaces that end with a lip contour compose and adds the input
// lip_delivery. The structure holds no weights: wherever it needs a node of
// the member it holds a MemberNode placeholder naming that node by index. The
// splice makes one model of the two, on the wire, at every load, and only for
// the member whose file bytes hash to the structure's binding.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

inline constexpr const char* kLipInputName = "lip_delivery";
inline constexpr const char* kMemberNodeOp = "MemberNode";
inline constexpr const char* kMemberNodeDomain = "ai.kestrova.compose_v2";
inline constexpr const char* kSourceShaKey = "compose_v2.source_sha256";

// A structure node as the splice reads it.
struct Cv2Node {
  GsSlice raw;
  bool isPlaceholder = false;  // op_type MemberNode in the compose v2 domain
  bool hasK = false;           // an attribute "k" with an int
  int64_t k = -1;
  std::vector<std::string> inputs;
  std::vector<std::string> outputs;
  std::string opType;
  std::string domain;
};

Cv2Node cv2ReadNode(const GsField& field);

// First and last dimension and rank of the graph input called name; a
// dimension without dim_value reads 0, and no such input leaves all three 0.
void ldInputDims(GsSlice graph, const std::string& name, int64_t& first, int64_t& last, int& rank);

// Splices structure onto model. sourceSha and structureSha are the bindings
// the template states (either may be empty); canvas and batch (either may be
// null) get the lip_delivery input's last and first dimension. On false the
// model is unchanged and err holds the sentence; bad data never throws.
bool spliceComposeV2(GsBytes& model, const GsBytes& structure, std::string& err, const std::string& sourceSha,
                     int* canvas, int* batch, const std::string& structureSha);

}  // namespace le
