#include "director/ops/gridsample_fast.h"

#include <cmath>
#include <stdexcept>

#include "director/ops/custom_ops.h"
#include "director/ops/op_support.h"

namespace le {

void gridsample_fast_band(const float* x, const float* grid, float* out, int64_t C, int64_t H, int64_t W,
                          int64_t rowBegin, int64_t rowEnd) {
  const float fw = static_cast<float>(W), fh = static_cast<float>(H);
  const int64_t plane = H * W;
  for (int64_t y = rowBegin; y < rowEnd; ++y) {
    for (int64_t xo = 0; xo < W; ++xo) {
      const int64_t at = y * W + xo;
      const float gx = grid[at * 2], gy = grid[at * 2 + 1];
      const float ix = ((gx + 1.0f) * 0.5f) * fw - 0.5f;
      const float iy = ((gy + 1.0f) * 0.5f) * fh - 0.5f;
      const float fx = std::floor(ix), fy = std::floor(iy);
      const float wx = ix - fx, wy = iy - fy;
      // Border handling on the indices: x0 and x0+1 clamp each on their own,
      // so at the right edge both neighbours may be the same last pixel.
      const int64_t x0 = opIndexClamped(fx, 0, W - 1), x1 = opIndexClamped(fx + 1.0f, 0, W - 1);
      const int64_t y0 = opIndexClamped(fy, 0, H - 1), y1 = opIndexClamped(fy + 1.0f, 0, H - 1);
      const float w00 = (1.0f - wx) * (1.0f - wy), w10 = wx * (1.0f - wy);
      const float w01 = (1.0f - wx) * wy, w11 = wx * wy;
      const int64_t a00 = y0 * W + x0, a10 = y0 * W + x1, a01 = y1 * W + x0, a11 = y1 * W + x1;
      for (int64_t c = 0; c < C; ++c) {
        const float* p = x + c * plane;
        out[c * plane + at] = ((w00 * p[a00] + w10 * p[a10]) + w01 * p[a01]) + w11 * p[a11];
      }
    }
  }
}

void gridsample_fast(const float* x, const float* grid, float* out, int64_t C, int64_t H, int64_t W) {
  gridsample_fast_band(x, grid, out, C, H, W, 0, H);
}

namespace {

struct GSFKernel {
  explicit GSFKernel(const OrtKernelInfo* /*info*/) {}

  OrtStatusPtr ComputeV2(OrtKernelContext* context) {
    return opGuarded([&] { compute(Ort::KernelContext(context)); });
  }

  void compute(const Ort::KernelContext ctx) {
    const Ort::ConstValue xv = ctx.GetInput(0), gv = ctx.GetInput(1);
    const std::vector<int64_t> xs = opShape(xv), gs = opShape(gv);
    // The output takes its size from X and the grid is read with that size,
    // so a grid of any other shape would be read past its end.
    if (xs.size() != 4 || gs.size() != 4 || gs[0] != xs[0] || gs[1] != xs[2] || gs[2] != xs[3] || gs[3] != 2)
      throw std::runtime_error("com.kestrova::GridSampleFast: X is " + opShapeText(xs) + " and the grid " +
                               opShapeText(gs) +
                               "; this kernel samples a grid [N,H,W,2] of the image's own size. REFUSING.");
    const int64_t N = xs[0], C = xs[1], H = xs[2], W = xs[3];
    Ort::UnownedValue ov = ctx.GetOutput(0, xs);
    const float* x = xv.GetTensorData<float>();
    const float* grid = gv.GetTensorData<float>();
    float* out = ov.GetTensorMutableData<float>();
    for (int64_t n = 0; n < N; ++n) {
      const float* xn = x + n * C * H * W;
      const float* gn = grid + n * H * W * 2;
      float* on = out + n * C * H * W;
      auto band = [&](int64_t r0, int64_t r1) { gridsample_fast_band(xn, gn, on, C, H, W, r0, r1); };
      opForBands(ctx, H, band);
    }
  }
};

struct GSFOp : KestrovaOp<GSFOp, GSFKernel> {
  const char* GetName() const { return kGridSampleFastOp; }
  size_t GetInputTypeCount() const { return 2; }
  ONNXTensorElementDataType GetInputType(size_t /*index*/) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
};

}  // namespace

const OrtCustomOp* gridSampleFastOp() {
  static const GSFOp op;
  return &op;
}

}  // namespace le
