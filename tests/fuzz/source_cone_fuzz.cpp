// The source-cone cut over an arbitrary graph: the boundary's search, the
// proof that the cone is closed, and the two models written when it is.
#include <unordered_set>

#include "director/rewrites/source_cone.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

namespace {

// Names of the graph inputs (field 11) or outputs (field 12) of a model.
std::unordered_set<std::string> declared(const le::GsBytes& model, uint32_t field) {
  std::unordered_set<std::string> names;
  le::GsReader r(le::gsGraphOf(model));
  le::GsField f;
  while (r.next(f))
    if (f.number == field && f.wire == le::kGsLength) names.insert(le::gsFirstStr(f.payload, 1));
  return names;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  const GsBytes input(data, data + size);
  try {
    std::string boundary;
    if (findSourceConeBoundary(input, boundary) != 1) {
      FUZZ_CHECK(boundary.empty());
      return 0;
    }
    GsBytes prep, perFrame;
    std::string why;
    const bool prepMade = buildSourceConePrep(input, boundary, prep, why);
    // The prep output's static shape, as the load takes it from the prep
    // session; a rank-4 shape of 1x2x3x4 stands in for it.
    const int64_t dims[4] = {1, 2, 3, 4};
    std::string perFrameWhy;
    const bool perFrameMade = buildSourceConePerFrame(input, boundary, dims, 4, perFrame, perFrameWhy);
    // Both cuts make the same proof; the prep alone may still find nothing
    // to keep ("empty cone", a boundary that no node computes).
    FUZZ_CHECK(perFrameMade == (prepMade || why == "empty cone"));
    if (!prepMade) {
      FUZZ_CHECK(!why.empty());
      FUZZ_CHECK(perFrameMade || perFrameWhy == why);
      return 0;
    }
    fuzz::walkMessage(gsSliceOf(prep));
    fuzz::walkMessage(gsSliceOf(perFrame));
    FUZZ_CHECK(declared(prep, 11) == std::unordered_set<std::string>{kPriorInput});
    FUZZ_CHECK(declared(prep, 12) == std::unordered_set<std::string>{boundary});
    const std::unordered_set<std::string> inputs = declared(perFrame, 11);
    FUZZ_CHECK(inputs.count(boundary) == 1 && inputs.count(kPriorInput) == 0);
    // The cone goes to the prep and the rest to the per-frame model; every
    // Constant goes to both.
    const auto all = [](const GsNodeInfo&) { return true; };
    const auto constant = [](const GsNodeInfo& n) { return n.opType == "Constant"; };
    FUZZ_CHECK(fuzz::countNodes(prep, all) + fuzz::countNodes(perFrame, all) ==
               fuzz::countNodes(input, all) + fuzz::countNodes(input, constant));
  } catch (const GsWireError&) {
  }
  return 0;
}
