// The proof that a graph is the fused m4b director this backend implements:
// 36 initializers under fixed names with fixed dimensions, and three whose
// exported names carry a counter that drifts from export to export and are
// found by shape instead.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "director/conv/onnx_model.h"

namespace le::conv {

struct M4bFixed {
  const char* name;
  std::vector<int64_t> dims;
};

// The 36 initializers that must exist under exactly these names and dimensions.
const std::vector<M4bFixed>& kM4bFixed();

// A drifting initializer: its usual name, and the dimensions that find it.
struct M4bDrifting {
  const char* name;
  std::vector<int64_t> dims;
};
const M4bDrifting& kM4bPreW();    // "onnx::Conv_313", (96,85,1,1)
const M4bDrifting& kM4bGrid32();  // "onnx::Sub_316", (1,1,32,32,2)
const M4bDrifting& kM4bBasis();   // "onnx::MatMul_338", (64,196608)

// The resolved names of the drifting initializers.
struct M4bNames {
  std::string preWeight, preBias, grid32, basis;
};

// The row's usual name if it has the row's dimensions; otherwise the only
// initializer with those dimensions; otherwise "".
std::string resolveByShape(const TensorShapes& shapes, const M4bDrifting& row);

// True when shapes are the m4b topology, with names filled; otherwise why
// (if not null) says what was missing first.
bool m4bResolve(const TensorShapes& shapes, M4bNames& names, std::string* why);

}  // namespace le::conv
