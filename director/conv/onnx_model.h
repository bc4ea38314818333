// What the fused convolution backend reads of an ONNX file: the
// initializers (names, dimensions, float data) and the batch that the input
// pooled64 declares. The nodes are never looked at; the network is known as
// code and the initializers are proved to be its weights by name and shape.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "director/rewrites/wire.h"

namespace le::conv {

// A whole file into bytes. kShortRead also for what isn't a regular file.
enum class ReadResult { kOk, kCannotOpen, kShortRead };
ReadResult readWholeFile(const std::string& path, std::vector<uint8_t>& bytes);

// The names and dimensions of all initializers, in file order.
struct TensorShapes {
  std::vector<std::string> names;
  std::vector<std::vector<int64_t>> dims;
};

// Throws GsWireError on malformed bytes.
TensorShapes readTensorShapes(GsSlice model);

struct OnnxInitializer {
  std::string name;
  std::vector<int64_t> dims;
  int32_t dataType = 0;
  std::vector<float> data;
};

struct OnnxModel {
  std::vector<OnnxInitializer> initializers;
  int batch = 0;  // pooled64's first dimension, 0 when absent or not >= 1

  // Linear search; throws "onnx: missing initializer <name>".
  const OnnxInitializer& get(const std::string& name) const;
  TensorShapes shapes() const;
};

// Every initializer with its float data copied out, and the batch. Throws
// "onnx: non-fp32 initializer <name>", "onnx: raw size mismatch <name>",
// "onnx: no data for <name>", or GsWireError.
OnnxModel readOnnxModel(GsSlice model);

}  // namespace le::conv
