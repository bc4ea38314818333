// The head cubic Resize rewrite: finding the one candidate, proving its
// surroundings (consumer, weight, upstream channel constant, free names),
// and the edit when all of that holds.
#include "director/rewrites/head_cubic.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  const size_t count = fuzz::checkRewrite(
      data, size, [](GsBytes& bytes, std::string* reason) { return rewriteHeadCubicResize(bytes, reason); }, 2);
  FUZZ_CHECK(count <= 1);
  if (count == 1) {
    // The Resize is gone, its place taken by Pad, Conv and DepthToSpace.
    GsBytes bytes(data, data + size);
    const auto resize = [](const GsNodeInfo& n) { return n.opType == "Resize"; };
    const size_t before = fuzz::countNodes(bytes, resize);
    rewriteHeadCubicResize(bytes);
    FUZZ_CHECK(fuzz::countNodes(bytes, resize) + 1 == before);
    // The depthwise weight is 400 bytes a channel, and the Conv's own weight
    // stores at least half a byte a channel: the graph grows in proportion.
    FUZZ_CHECK(bytes.size() <= 801 * size + 4096);
  }
  return 0;
}
