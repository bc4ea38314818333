// The student blend MatMul to Gemm normalisation: its matcher over every
// node of an arbitrary graph, and the edit when it matches.
#include "director/rewrites/blend_gemm.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  const size_t count = fuzz::checkRewrite(
      data, size, [](GsBytes& bytes, std::string* reason) { return normaliseStudentBlend(bytes, reason); }, 0);
  if (count > 0) {
    GsBytes bytes(data, data + size);
    const auto gemm = [](const GsNodeInfo& n) { return n.name == kStudentBlendName && n.opType == "Gemm"; };
    const size_t before = fuzz::countNodes(bytes, gemm);
    normaliseStudentBlend(bytes);
    FUZZ_CHECK(fuzz::countNodes(bytes, gemm) == before + count);
  }
  return 0;
}
