// The warp fuse: on a graph that the warp block rewrite left, fold into the
// warp node what still lies around it. The grid's Resize, Transpose and Add
// on the way in (the node then computes the grid itself), the Slice and Clip
// on the way out, and the keypoint Subs become SubBcastKHWC. Three fusions
// are tried independently; each that can't apply records why.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

struct WarpFuseCensus {
  int grid = 0;      // the grid computation went into the node
  int exit = 0;      // the exit went into the node
  int subs = 0;      // Subs turned into SubBcastKHWC
  size_t nodes = 0;  // nodes removed
  std::string gridReason, exitReason, subsReason;
};

// The known constants of one graph (initializers and Constant nodes, name to
// TensorProto payload) and its graph outputs.
struct FzConsts {
  std::unordered_map<std::string, GsSlice> consts;
  std::unordered_set<std::string> outputs;
};

// The ints of the node's attribute name, field 8 varint or packed; false if
// the node has no such attribute.
bool fzAttrInts(const GsNodeInfo& node, const char* name, std::vector<int64_t>& out);

// verify keeps the grid's three nodes computing ONNX Runtime's own grid
// beside the node's. Returns nodes removed plus Subs rewritten, at least 1
// when anything was fused (under verify the grid alone removes nothing); 0
// leaves bytes untouched, with why. census may be null.
size_t rewriteWarpFuse(GsBytes& bytes, bool verify, WarpFuseCensus* census, std::string& why);

}  // namespace le
