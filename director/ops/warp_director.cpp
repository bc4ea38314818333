#include "director/ops/warp_director.h"

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

#include "director/ops/custom_ops.h"
#include "director/ops/gridsample_fast.h"
#include "director/ops/op_support.h"

namespace le {

namespace {

// The four planes of channel plane I at (y, x): the value, the second
// difference along x, along y, and the mixed one. 2*v is v + v.
void planesAt(const float* I, int64_t W, int64_t H, int64_t y, int64_t x, float* p) {
  const int64_t xm = x > 0 ? x - 1 : 0, xp = x < W - 1 ? x + 1 : W - 1;
  const int64_t ym = y > 0 ? y - 1 : 0, yp = y < H - 1 ? y + 1 : H - 1;
  auto at = [&](int64_t r, int64_t c) { return I[r * W + c]; };
  auto second = [](float a, float b, float c) { return (a - (b + b)) + c; };
  auto v = [&](int64_t u) { return second(at(ym, u), at(y, u), at(yp, u)); };
  p[0] = at(y, x);
  p[1] = second(at(y, xm), at(y, x), at(y, xp));
  p[2] = v(x);
  p[3] = second(v(xm), v(x), v(xp));
}

// Where pixel (y, x) samples: the four neighbours, their weights and the
// correction factors ax, ay, which come from the unclamped coordinate.
struct WarpTap {
  int64_t a00, a10, a01, a11;
  float w00, w10, w01, w11, ax, ay;
};

WarpTap warpTap(const float* grid, int64_t W, int64_t H, int64_t y, int64_t x) {
  const float gx = grid[(y * W + x) * 2], gy = grid[(y * W + x) * 2 + 1];
  const float ix = ((gx + 1.0f) * static_cast<float>(W) - 1.0f) * 0.5f;
  const float iy = ((gy + 1.0f) * static_cast<float>(H) - 1.0f) * 0.5f;
  const float fx = ix - std::floor(ix), fy = iy - std::floor(iy);
  WarpTap t;
  t.ax = (fx * (1.0f - fx)) * 0.5f;
  t.ay = (fy * (1.0f - fy)) * 0.5f;
  const float maxX = static_cast<float>(W - 1), maxY = static_cast<float>(H - 1);
  const float cx = ix < 0.0f ? 0.0f : (ix > maxX ? maxX : ix);
  const float cy = iy < 0.0f ? 0.0f : (iy > maxY ? maxY : iy);
  const float flx = std::floor(cx), fly = std::floor(cy);
  const float wx = cx - flx, wy = cy - fly;
  const int64_t x0 = opIndexClamped(flx, 0, W - 1), y0 = opIndexClamped(fly, 0, H - 1);
  const int64_t x1 = x0 + 1 < W - 1 ? x0 + 1 : W - 1, y1 = y0 + 1 < H - 1 ? y0 + 1 : H - 1;
  t.w00 = (1.0f - wx) * (1.0f - wy);
  t.w10 = wx * (1.0f - wy);
  t.w01 = (1.0f - wx) * wy;
  t.w11 = wx * wy;
  t.a00 = y0 * W + x0;
  t.a10 = y0 * W + x1;
  t.a01 = y1 * W + x0;
  t.a11 = y1 * W + x1;
  return t;
}

// One output value from the four neighbours' planes of one channel.
float warpCombine(const WarpTap& t, const float* p00, const float* p10, const float* p01, const float* p11) {
  float b[4];
  for (int k = 0; k < 4; ++k) b[k] = (((t.w00 * p00[k] + 0.0f) + t.w10 * p10[k]) + t.w01 * p01[k]) + t.w11 * p11[k];
  return ((b[0] - t.ax * b[1]) - t.ay * b[2]) + (t.ax * t.ay) * b[3];
}

}  // namespace

void warpDirectorPlanesBand(const float* x, float* planes, int64_t W, int64_t H, int64_t rowBegin, int64_t rowEnd) {
  for (int64_t y = rowBegin; y < rowEnd; ++y)
    for (int64_t xc = 0; xc < W; ++xc)
      for (int64_t c = 0; c < 3; ++c)
        planesAt(x + c * H * W, W, H, y, xc, planes + (y * W + xc) * kWarpPlaneFloats + c * 4);
}

void warpDirectorGatherBand(const float* planes, const float* grid, float* out, int64_t W, int64_t H,
                            int64_t rowBegin, int64_t rowEnd) {
  for (int64_t y = rowBegin; y < rowEnd; ++y)
    for (int64_t xc = 0; xc < W; ++xc) {
      const WarpTap t = warpTap(grid, W, H, y, xc);
      for (int64_t c = 0; c < 3; ++c) {
        const float* p = planes + c * 4;
        out[c * H * W + y * W + xc] =
            warpCombine(t, p + t.a00 * kWarpPlaneFloats, p + t.a10 * kWarpPlaneFloats, p + t.a01 * kWarpPlaneFloats,
                        p + t.a11 * kWarpPlaneFloats);
      }
    }
}

void warpDirectorBand(const float* x, const float* grid, float* out, int64_t W, int64_t H, int64_t rowBegin,
                      int64_t rowEnd) {
  for (int64_t y = rowBegin; y < rowEnd; ++y)
    for (int64_t xc = 0; xc < W; ++xc) {
      const WarpTap t = warpTap(grid, W, H, y, xc);
      for (int64_t c = 0; c < 3; ++c) {
        const float* I = x + c * H * W;
        float p[4][4];
        const int64_t taps[4] = {t.a00, t.a10, t.a01, t.a11};
        for (int k = 0; k < 4; ++k) planesAt(I, W, H, taps[k] / W, taps[k] % W, p[k]);
        out[c * H * W + y * W + xc] = warpCombine(t, p[0], p[1], p[2], p[3]);
      }
    }
}

void warpDirector(const float* x, const float* grid, float* out, int64_t W, int64_t H) {
  warpDirectorBand(x, grid, out, W, H, 0, H);
}

const char* warpBody() { return "scalar"; }

namespace {

struct WarpKernel {
  explicit WarpKernel(const OrtKernelInfo* /*info*/) {}

  OrtStatusPtr ComputeV2(OrtKernelContext* context) {
    return opGuarded([&] { compute(Ort::KernelContext(context)); });
  }

  void compute(const Ort::KernelContext ctx) {
    const Ort::ConstValue xv = ctx.GetInput(0), gv = ctx.GetInput(1);
    const std::vector<int64_t> xs = opShape(xv), gs = opShape(gv);
    if (xs.size() == 4 && xs[1] != 3)
      throw std::runtime_error(
          "com.kestrova::WarpDirector: this node warps the director's 3-channel source and the graph handed it C=" +
          std::to_string(xs[1]) + ". REFUSING rather than writing a frame nobody asked for.");
    if (xs.size() != 4 || gs.size() != 4 || gs[0] != xs[0] || gs[1] != xs[2] || gs[2] != xs[3] || gs[3] != 2)
      throw std::runtime_error("com.kestrova::WarpDirector: X is " + opShapeText(xs) + " and the grid " +
                               opShapeText(gs) +
                               "; this kernel warps on a grid [N,H,W,2] of the image's own size. REFUSING.");
    const int64_t N = xs[0], H = xs[2], W = xs[3];
    Ort::UnownedValue ov = ctx.GetOutput(0, xs);
    const float* x = xv.GetTensorData<float>();
    const float* grid = gv.GetTensorData<float>();
    float* out = ov.GetTensorMutableData<float>();
    const size_t need = static_cast<size_t>(H * W * kWarpPlaneFloats);
    if (planes_.size() < need) planes_.resize(need);
    float* planes = planes_.data();
    for (int64_t n = 0; n < N; ++n) {
      const float* xn = x + n * 3 * H * W;
      const float* gn = grid + n * H * W * 2;
      float* on = out + n * 3 * H * W;
      auto planesBand = [&](int64_t r0, int64_t r1) { warpDirectorPlanesBand(xn, planes, W, H, r0, r1); };
      opForBands(ctx, H, planesBand);
      auto gatherBand = [&](int64_t r0, int64_t r1) { warpDirectorGatherBand(planes, gn, on, W, H, r0, r1); };
      opForBands(ctx, H, gatherBand);
    }
  }

  std::vector<float> planes_;  // grows, reused across calls
};

struct WarpOp : KestrovaOp<WarpOp, WarpKernel> {
  const char* GetName() const { return kWarpDirectorOp; }
  size_t GetInputTypeCount() const { return 2; }
  ONNXTensorElementDataType GetInputType(size_t /*index*/) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
};

}  // namespace

const OrtCustomOp* warpDirectorOp() {
  static const WarpOp op;
  return &op;
}

}  // namespace le
