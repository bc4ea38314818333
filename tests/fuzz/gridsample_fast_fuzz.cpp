// The GridSample to GridSampleFast rewrite: its matcher over every node of
// an arbitrary graph, and the edit when it matches.
#include "director/rewrites/gridsample_fast.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  const size_t count = fuzz::checkRewrite(
      data, size, [](GsBytes& bytes, std::string* reason) { return rewriteGridSampleToFast(bytes, reason); }, 0);
  if (count > 0) {
    // Every rewritten node runs the custom op, which the model now imports.
    GsBytes bytes(data, data + size);
    const auto fast = [](const GsNodeInfo& n) { return n.opType == "GridSampleFast" && n.domain == kKestrovaDomain; };
    const size_t before = fuzz::countNodes(bytes, fast);
    rewriteGridSampleToFast(bytes);
    FUZZ_CHECK(fuzz::countNodes(bytes, fast) == before + count);
    FUZZ_CHECK(graphHasBakedGridSampleFast(bytes));
  }
  return 0;
}
