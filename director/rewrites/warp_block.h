// The warp block rewrite. The director warps its source with a block of
// standard nodes: one GridSample over the plane bundle at the source cone's
// tip, then Slices, Muls, Subs and Adds that recombine the planes into three
// channels. rewriteWarpBlockToCustomOp replaces the GridSample, the
// recombination and, by a dead-node pass, the whole cone with one node
// com.kestrova::WarpDirector(P_rgb, grid), which computes the planes itself.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

struct WarpBlock {
  std::string boundary;  // the tensor at the cone's tip
  std::string grid;      // the GridSample's second input
  std::string exit;      // the one tensor through which the block is read
  size_t nodes = 0;      // nodes of the block
};

// A node as the warp rewrites read it: raw encoding, payload, op type,
// inputs and outputs (all of which GsNodeInfo keeps).
using WdNode = GsNodeInfo;
void wdReadNodes(GsSlice graph, std::vector<WdNode>& out);

// Proves the pattern and changes nothing; false with why on the first step
// that fails.
bool findWarpBlock(const GsBytes& bytes, WarpBlock* out, std::string& why);

// Returns the number of nodes removed (the block and every node that only it
// read, the cone with them); 0 leaves bytes untouched, with why.
size_t rewriteWarpBlockToCustomOp(GsBytes& bytes, std::string& why);

}  // namespace le
