// The head's x2 cubic Resize becomes Pad(edge) + depthwise 5x5 Conv +
// DepthToSpace(CRD): the same filter to float round-off, from ordinary
// operators that every execution provider claims. ONNX Runtime's cubic Resize
// is the slowest node on every CPU-class provider, and no CoreML or NNAPI
// provider takes it at all.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

// The four taps of a cubic convolution sample at fraction s (distances s+1,
// s, 1-s, 2-s), a being cubic_coeff_a, computed in double and normalised to
// sum 1.
void hcTaps(double s, double a, double out[4]);

// The TensorProto payload of a Constant node's "value", or an empty slice if
// the node isn't a Constant with one output and a tensor value.
GsSlice hcConstValue(const GsNodeInfo& node);

// A FLOAT TensorProto's values, from raw_data (little-endian) or float_data
// (packed or not). False for another data type or a ragged raw_data.
bool hcTensorFloats(GsSlice tensor, std::vector<float>& out);

// A TensorProto's dims, unpacked or packed.
std::vector<int64_t> hcTensorDims(GsSlice tensor);

// The bytes of data a TensorProto stores itself, in raw_data or in its typed
// fields (a value held outside the file counts nothing).
uint64_t hcTensorDataBytes(GsSlice tensor);

// Rewrites the graph's one cubic x2 half-pixel Resize feeding a Conv. Returns
// 1, or 0 with bytes untouched and the cause in reason if given.
size_t rewriteHeadCubicResize(GsBytes& bytes, std::string* reason = nullptr);

}  // namespace le
