// Int8ConvVNNI: a convolution on dynamically quantised input. The input is
// quantised per call to u8 over its whole value range (0 always inside it),
// multiplied with int8 weights in 32-bit integers, and the zero point is
// taken back out through precomputed weight sums.
#pragma once

#include <cstdint>
#include <vector>

namespace le {

// The per-call quantisation: scale and zero point from the input's range.
struct Int8Quant {
  float scale = 1.0f;
  int32_t zero = 0;
};
Int8Quant int8QuantOf(const float* x, int64_t n);

// One input value quantised with q.
uint8_t int8Quantise(float v, const Int8Quant& q);

// Geometry of one convolution.
struct Int8ConvShape {
  int64_t N = 0, C = 0, H = 0, W = 0, M = 0, kH = 0, kW = 0;
  int64_t strideH = 1, strideW = 1, dilH = 1, dilW = 1;
  int64_t padT = 0, padL = 0, padB = 0, padR = 0;
  int64_t outH() const { return (H + padT + padB - dilH * (kH - 1) - 1) / strideH + 1; }
  int64_t outW() const { return (W + padL + padR - dilW * (kW - 1) - 1) / strideW + 1; }
};

// The whole kernel on plain buffers: x [N,C,H,W], w [M,C,kH,kW], wscale and
// bias [M], out [N,M,outH,outW].
void int8ConvVNNI(const float* x, const int8_t* w, const float* wscale, const float* bias, float* out,
                  const Int8ConvShape& s);

}  // namespace le
