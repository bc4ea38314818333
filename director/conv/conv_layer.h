// One convolution of the fused m4b network, its weights packed for the loop
// that runs it, and that loop: runConv, the arithmetic of every convolution
// of the backend.
//
// Activations are channel-last halves, so that one tap of a kernel is a
// contiguous run of channels, and the padded buffers carry a zero border
// that no one writes: that is the convolutions' zero padding.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::conv {

struct ConvLayer {
  std::string name;
  int H = 0, W = 0;          // output size
  int Cin = 0, CinP = 0;     // input channels, and as stored in the input buffer
  int Cout = 0, CoutP = 0;   // output channels, and the sum of the tile widths
  int kH = 0, kW = 0;
  bool relu = false;
  bool drainPerTap = false;  // Cin > 63: the half accumulators restart every tap
  std::vector<int> tiles;    // output-channel tile widths, 8, 16, 24 or 32
  // By tile, then ky, kx, stored channel c, then output o within the tile:
  // element (oc, c, ky, kx) of the ONNX weight rounded to half, 0 past Cin or
  // Cout.
  std::vector<uint16_t> weights;
  std::vector<float> bias;   // CoutP, zero past Cout
  // The weights again, widened to double in the same order: the processor
  // runs the half arithmetic in double lanes (compute/half_arith.h).
  std::vector<double> wide;
  // The largest sum of |weight| that one run of half accumulation takes (one
  // tap, or one kernel row, of one output channel): with the inputs' largest
  // magnitude it bounds every partial sum of the run.
  double runWeightSum = 0.0;
};

// Fills the layer's tiles, CoutP, drainPerTap and packed weights from an
// ONNX [Cout, Cin, kH, kW] weight and a [Cout] bias; name, sizes and relu
// must be set. Throws when the graph supplies fewer values than the layer
// needs.
void packConv(ConvLayer& layer, const float* weights, size_t weightCount, const float* bias, size_t biasCount);

// Runs the layer. in points to row 0, column 0 of the (padded) input, whose
// element (y + ky, x + kx, c) is at (y + ky) * inStride + (x + kx) * CinP + c.
// Output (y, x, o) goes to y * outStride + x * CoutP + o of outHalf, or of
// outFloat when outHalf is null. Strides are in elements.
//
// Per output pixel and channel: a float accumulator starts at the bias;
// half accumulators start at +0 for every tap (drainPerTap) or every kernel
// row, take acc = fma(w, x, acc) in half for each stored channel in order,
// one rounding each, and are then widened and added to the float one. Then
// relu (x > 0 ? x : +0) if set, and the value rounds to half. Any NaN
// result is stored as the quiet NaN (0x7e00 or 0x7fc00000).
void runConv(const ConvLayer& layer, const uint16_t* in, size_t inStride, uint16_t* outHalf, float* outFloat,
             size_t outStride);

}  // namespace le::conv
