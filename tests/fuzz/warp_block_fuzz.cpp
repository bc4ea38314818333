// The warp block rewrite: the proof of the GridSample block at the source
// cone's tip over an arbitrary graph, and the edit (one WarpDirector node in
// place of the block, the nodes left dead dropped) when the proof holds.
#include <string>
#include <vector>

#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/source_cone.h"
#include "director/rewrites/warp_block.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  GsBytes rewritten;
  const size_t removed = fuzz::checkRewrite(
      data, size, [](GsBytes& bytes, std::string* reason) { return rewriteWarpBlockToCustomOp(bytes, *reason); },
      [](size_t n) { return 1 - static_cast<long>(n); }, &rewritten);
  if (removed > 0) {
    // The block was proved first, and went whole; the graph now computes
    // the block's exit with the warp node of the engine's domain, from P_rgb
    // and the grid. (Nodes that were dead already go with the block.)
    WarpBlock block;
    std::string why;
    FUZZ_CHECK(findWarpBlock(GsBytes(data, data + size), &block, why));
    FUZZ_CHECK(removed >= block.nodes);
    const auto warp = [&](const GsNodeInfo& n) {
      return n.opType == "WarpDirector" && n.domain == kKestrovaDomain &&
             n.inputs == std::vector<std::string>{kPriorInput, block.grid} &&
             n.outputs == std::vector<std::string>{block.exit};
    };
    FUZZ_CHECK(fuzz::countNodes(rewritten, warp) >= 1);
  }
  return 0;
}
