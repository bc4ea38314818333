// Helpers of the graph edit tests: the generated graphs, their fields as raw
// byte strings for byte-for-byte comparison, and a one-thread ONNX Runtime
// run of a director graph from memory.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "director/rewrites/wire.h"

namespace le::test {

// A file under the generated graphs/ folder.
GsBytes graphFile(const std::string& rel);
GsBytes toBytes(const std::string& s);

// The raw encodings of a message's fields, in order.
std::vector<std::string> rawFields(GsSlice message);

// Equality of byte buffers and of field lists that, on failure, names the
// first difference instead of printing megabytes of weights.
::testing::AssertionResult sameBytes(const GsBytes& got, const GsBytes& want);
::testing::AssertionResult sameFields(const std::vector<std::string>& got, const std::vector<std::string>& want);

// A model split into its top-level fields and its first graph's fields.
struct ModelParts {
  std::vector<std::string> top;
  size_t graphAt = 0;  // index of the graph field in top
  std::vector<std::string> graph;
};
ModelParts modelParts(const GsBytes& model);

// The field index in graph of node number k.
size_t nodeFieldIndex(const std::vector<std::string>& graph, size_t k);

// A length-delimited field as a raw byte string.
std::string lenField(uint32_t number, const GsBytes& payload);

// The float values of an initializer of the model's graph.
std::vector<float> initializerFloats(const GsBytes& model, const std::string& name);

// One variant of a rewrite's table: the file under graphs/<dir>/ without
// ".onnx", the count the rewrite must return, and its reason when 0.
struct RewriteCase {
  std::string file;
  size_t count;
  std::string reason;
};
using Rewrite = size_t (*)(GsBytes&, std::string*);

// Runs rewrite on every case: the count, the reason (empty when it applied),
// and the bytes untouched when it did not apply.
void expectRewriteCases(const std::string& dir, Rewrite rewrite, const std::vector<RewriteCase>& cases);

// Inputs of the generated director graph (crop 32, batch 1).
struct DirectorInputs {
  std::vector<float> pooled64, prior, kpDriving, kpSource, lip;  // lip empty: not fed
};
DirectorInputs sampleInputs(uint32_t seed);

// Output "rgb" of the graph on ONNX Runtime's CPU provider with one thread.
std::vector<float> runDirector(const GsBytes& model, const DirectorInputs& in);

// A named float input of a graph run.
struct NamedTensor {
  std::string name;
  std::vector<int64_t> shape;
  const std::vector<float>* data;
};

// The named output of the model on ONNX Runtime's CPU provider at the given
// intra-op thread count, with the engine's custom domains registered.
std::vector<float> runGraph(const GsBytes& model, const std::vector<NamedTensor>& inputs, const std::string& output,
                            int threads = 1);

// The director inputs of DirectorInputs (no lip) as named tensors; P_rgb
// left out when withPrior is false.
std::vector<NamedTensor> directorTensors(const DirectorInputs& in, bool withPrior = true);

float maxAbsDiff(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace le::test
