// The warp fuse over an arbitrary graph, as the load runs it: after the warp
// block rewrite when that applies (the seeds are the block's own test
// graphs), on the bytes as they are otherwise, since a graph may carry a
// WarpDirector node of its own. Both the plain and the verifying fuse.
#include <algorithm>

#include "director/rewrites/warp_block.h"
#include "director/rewrites/warp_fuse.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

namespace {

void fuse(const le::GsBytes& graph, bool verify) {
  using namespace le;
  WarpFuseCensus census;
  const size_t count = fuzz::checkRewrite(
      graph.data(), graph.size(),
      [&](GsBytes& bytes, std::string* reason) {
        // The census of the run that fused; the check's second run finds
        // nothing and has its own.
        WarpFuseCensus c;
        const size_t n = rewriteWarpFuse(bytes, verify, &c, *reason);
        if (n > 0) census = c;
        return n;
      },
      [&](size_t) { return -static_cast<long>(census.nodes); });
  if (count > 0) {
    // What the census reports is what was returned (at least 1: under
    // verify the grid alone removes nothing), and each fusion that did not
    // happen says why.
    FUZZ_CHECK(count == std::max<size_t>(census.nodes + static_cast<size_t>(census.subs), 1));
    FUZZ_CHECK(census.grid == census.gridReason.empty() && census.exit == census.exitReason.empty());
    FUZZ_CHECK((census.subs > 0) == census.subsReason.empty());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  GsBytes bytes(data, data + size);
  try {
    std::string why;
    rewriteWarpBlockToCustomOp(bytes, why);
  } catch (const GsWireError&) {
  }
  fuse(bytes, false);
  fuse(bytes, true);
  return 0;
}
