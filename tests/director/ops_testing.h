// Helpers of the custom operator tests: one-node graphs of the generated
// ops/ folder run on ONNX Runtime's CPU provider with both custom domains
// registered, at a chosen intra-op thread count; seeded tensors with the
// awkward values mixed in; bitwise comparison of float buffers.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "tests/director/float_bits.h"

namespace le::test {

// A named input: float data, or int8 data when i8 is not empty.
struct OpInput {
  std::string name;
  std::vector<int64_t> shape;
  std::vector<float> f;
  std::vector<int8_t> i8 = {};
};

struct OpOutput {
  std::vector<int64_t> shape;
  std::vector<float> data;
};

// Runs graphs/ops/<graph>.onnx; returns the named outputs. Throws
// Ort::Exception with the kernel's text when a kernel refuses.
std::vector<OpOutput> runOpGraph(const std::string& graph, const std::vector<OpInput>& inputs,
                                 const std::vector<std::string>& outputs, int threads = 1);

// n floats uniform in lo..hi from a fixed seed.
std::vector<float> seededFloats(size_t n, uint32_t seed, float lo, float hi);

}  // namespace le::test
