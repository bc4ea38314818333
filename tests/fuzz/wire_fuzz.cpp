// The protobuf wire reader that every graph edit shares, and the graph
// readers built on it, over arbitrary bytes taken as a ModelProto.
#include <string>
#include <unordered_set>
#include <vector>

#include "director/rewrites/compose_v2_splice.h"
#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/head_cubic.h"
#include "director/rewrites/wire.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

namespace {

using namespace le;

void readTensor(GsSlice tensor) {
  std::vector<float> values;
  hcTensorFloats(tensor, values);
  hcTensorDims(tensor);
}

void readGraph(const GsBytes& model) {
  const GsSlice graph = gsGraphOf(model);
  std::vector<GsNodeInfo> nodes;
  std::unordered_set<std::string> initializers, inputs;
  gsReadGraph(graph, nodes, initializers, inputs);
  for (const GsNodeInfo& node : nodes) {
    FUZZ_CHECK(node.raw.data >= graph.data && node.raw.data + node.raw.size <= graph.data + graph.size);
    gsReadAttrs(node.body);
    if (const GsSlice value = hcConstValue(node); !value.empty()) readTensor(value);
    cv2ReadNode(GsField{1, kGsLength, 0, node.body, node.raw});
  }
  for (const GsInitializer& init : gsReadInitializers(graph)) {
    FUZZ_CHECK(initializers.count(init.name) == 1);
    readTensor(init.body);
  }
  int64_t first = 0, last = 0;
  int rank = 0;
  ldInputDims(graph, kLipInputName, first, last, rank);
  FUZZ_CHECK(rank >= 0 && (rank > 0 || (first == 0 && last == 0)));
  graphHasBakedGridSampleFast(model);

  // Putting the graph back in its place keeps every other field as it was.
  const GsBytes rebuilt = gsModelWithGraph(gsSliceOf(model), GsBytes(graph.data, graph.data + graph.size));
  FUZZ_CHECK(gsGraphOf(rebuilt).text() == graph.text());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const GsBytes model(data, data + size);
  try {
    le::fuzz::walkMessage(gsSliceOf(model));
  } catch (const GsWireError&) {
  }
  try {
    // Verbatim copying gives the message back byte for byte.
    GsBytes copy;
    gsCopyFieldsExcept(copy, gsSliceOf(model), {});
    FUZZ_CHECK(copy == model);
  } catch (const GsWireError&) {
  }
  try {
    readGraph(model);
  } catch (const GsWireError&) {
  }
  return 0;
}
