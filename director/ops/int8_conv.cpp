#include "director/ops/int8_conv.h"

#include <cmath>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <string>

#include "compute/pool.h"
#include "director/ops/custom_ops.h"
#include "director/ops/op_support.h"

namespace le {

namespace {

constexpr std::size_t kRangeGrain = 4096;

// The weights as the kernel keeps them: a copy, and per output channel the
// sum of all weights and the sum per tap position.
struct Int8Weights {
  std::vector<int8_t> w;       // [M,C,kH,kW]
  std::vector<int32_t> total;  // [M]
  std::vector<int32_t> tap;    // [M,kH*kW]
};

Int8Weights prepare(const int8_t* w, int64_t M, int64_t C, int64_t taps) {
  Int8Weights p;
  p.w.assign(w, w + M * C * taps);
  p.total.assign(static_cast<size_t>(M), 0);
  p.tap.assign(static_cast<size_t>(M * taps), 0);
  for (int64_t m = 0; m < M; ++m)
    for (int64_t c = 0; c < C; ++c)
      for (int64_t t = 0; t < taps; ++t) {
        const int32_t v = w[(m * C + c) * taps + t];
        p.total[static_cast<size_t>(m)] += v;
        p.tap[static_cast<size_t>(m * taps + t)] += v;
      }
  return p;
}

void convolve(const float* x, const Int8Weights& p, const float* wscale, const float* bias, float* out,
              const Int8ConvShape& s, std::vector<uint8_t>& q) {
  const int64_t n = s.N * s.C * s.H * s.W;
  const Int8Quant qp = int8QuantOf(x, n);
  // Channel-last, channel stride padded to a multiple of 4 with the zero
  // point, so that a pixel's channels are one contiguous run.
  const int64_t Cp = (s.C + 3) / 4 * 4, pixels = s.N * s.H * s.W, plane = s.H * s.W;
  q.resize(static_cast<size_t>(pixels * Cp));
  uint8_t* qd = q.data();
  pool::parallelRange(static_cast<size_t>(pixels), kRangeGrain, [&](size_t lo, size_t hi) {
    for (size_t px = lo; px < hi; ++px) {
      const int64_t pi = static_cast<int64_t>(px), b = pi / plane, at = pi % plane;
      uint8_t* dst = qd + pi * Cp;
      for (int64_t c = 0; c < s.C; ++c) dst[c] = int8Quantise(x[(b * s.C + c) * plane + at], qp);
      for (int64_t c = s.C; c < Cp; ++c) dst[c] = static_cast<uint8_t>(qp.zero);
    }
  });
  const int64_t Ho = s.outH(), Wo = s.outW(), taps = s.kH * s.kW;
  pool::parallelRange(static_cast<size_t>(s.N * Ho), 1, [&](size_t lo, size_t hi) {
    for (size_t row = lo; row < hi; ++row) {
      const int64_t b = static_cast<int64_t>(row) / Ho, oy = static_cast<int64_t>(row) % Ho;
      for (int64_t ox = 0; ox < Wo; ++ox)
        for (int64_t m = 0; m < s.M; ++m) {
          int32_t acc = 0, inSum = 0;
          bool interior = true;
          for (int64_t ky = 0; ky < s.kH; ++ky) {
            const int64_t iy = oy * s.strideH - s.padT + ky * s.dilH;
            for (int64_t kx = 0; kx < s.kW; ++kx) {
              const int64_t ix = ox * s.strideW - s.padL + kx * s.dilW;
              if (iy < 0 || iy >= s.H || ix < 0 || ix >= s.W) {
                interior = false;
                continue;
              }
              const int64_t t = ky * s.kW + kx;
              inSum += p.tap[static_cast<size_t>(m * taps + t)];
              const uint8_t* qa = qd + ((b * s.H + iy) * s.W + ix) * Cp;
              const int8_t* wm = p.w.data() + m * s.C * taps + t;
              for (int64_t c = 0; c < s.C; ++c) acc += static_cast<int32_t>(qa[c]) * wm[c * taps];
            }
          }
          const int32_t corr = qp.zero * (interior ? p.total[static_cast<size_t>(m)] : inSum);
          out[((b * s.M + m) * Ho + oy) * Wo + ox] =
              bias[m] + (qp.scale * wscale[m]) * static_cast<float>(acc - corr);
        }
    }
  });
}

}  // namespace

Int8Quant int8QuantOf(const float* x, int64_t n) {
  float mn = 0.0f, mx = 0.0f;
  std::mutex m;
  pool::parallelRange(static_cast<size_t>(n), kRangeGrain, [&](size_t lo, size_t hi) {
    float a = 0.0f, b = 0.0f;
    for (size_t i = lo; i < hi; ++i) {
      a = x[i] < a ? x[i] : a;
      b = x[i] > b ? x[i] : b;
    }
    // min and max don't depend on the order the slices arrive in.
    std::lock_guard<std::mutex> lock(m);
    mn = a < mn ? a : mn;
    mx = b > mx ? b : mx;
  });
  Int8Quant q;
  q.scale = (mx - mn) / 255.0f;
  if (!(q.scale > 0.0f)) q.scale = 1.0f;
  const float z = std::rint(-mn / q.scale);
  q.zero = z <= 0.0f ? 0 : (z >= 255.0f ? 255 : static_cast<int32_t>(z));
  return q;
}

uint8_t int8Quantise(float v, const Int8Quant& q) {
  float r = std::rint(v / q.scale);
  // Kept in int range before the conversion; anything past +-512 clamps to
  // the same end of 0..255 anyway (NaN lands on 0).
  r = r >= -512.0f ? (r <= 512.0f ? r : 512.0f) : -512.0f;
  const int32_t v32 = q.zero + static_cast<int32_t>(r);
  return static_cast<uint8_t>(v32 < 0 ? 0 : (v32 > 255 ? 255 : v32));
}

void int8ConvVNNI(const float* x, const int8_t* w, const float* wscale, const float* bias, float* out,
                  const Int8ConvShape& s) {
  std::vector<uint8_t> q;
  convolve(x, prepare(w, s.M, s.C, s.kH * s.kW), wscale, bias, out, s, q);
}

namespace {

std::vector<int64_t> intsOr(const OrtKernelInfo* info, const char* name, size_t least, std::vector<int64_t> dflt) {
  try {
    std::vector<int64_t> v = Ort::ConstKernelInfo(info).GetAttributes<int64_t>(name);
    return v.size() >= least ? v : dflt;
  } catch (const Ort::Exception&) {
    return dflt;
  }
}

struct Int8ConvKernel {
  explicit Int8ConvKernel(const OrtKernelInfo* info)
      : strides_(intsOr(info, "strides", 2, {1, 1})),
        pads_(intsOr(info, "pads", 4, {0, 0, 0, 0})),
        dilations_(intsOr(info, "dilations", 2, {1, 1})),
        group_(opAttrIntOr0(info, "group")) {}

  OrtStatusPtr ComputeV2(OrtKernelContext* context) {
    return opGuarded([&] { compute(Ort::KernelContext(context)); });
  }

  void compute(const Ort::KernelContext ctx) {
    const Ort::ConstValue xv = ctx.GetInput(0), wv = ctx.GetInput(1), sv = ctx.GetInput(2), bv = ctx.GetInput(3);
    const std::vector<int64_t> xs = opShape(xv), ws = opShape(wv);
    Int8ConvShape s;
    s.strideH = strides_[0];
    s.strideW = strides_[1];
    s.padT = pads_[0];
    s.padL = pads_[1];
    s.padB = pads_[2];
    s.padR = pads_[3];
    s.dilH = dilations_[0];
    s.dilW = dilations_[1];
    const bool ranks = xs.size() == 4 && ws.size() == 4;
    if (ranks) {
      s.N = xs[0], s.C = xs[1], s.H = xs[2], s.W = xs[3];
      s.M = ws[0], s.kH = ws[2], s.kW = ws[3];
    }
    if (!ranks || ws[1] != s.C || opElements(opShape(sv)) != s.M || opElements(opShape(bv)) != s.M ||
        s.strideH < 1 || s.strideW < 1 || s.dilH < 1 || s.dilW < 1 || s.outH() < 1 || s.outW() < 1)
      throw std::runtime_error("com.kestrova.int8::Int8ConvVNNI: X " + opShapeText(xs) + " and weights " +
                               opShapeText(ws) + " with strides " + opShapeText(strides_) + ", pads " +
                               opShapeText(pads_) + " and dilations " + opShapeText(dilations_) +
                               " make no ungrouped convolution with one scale and one bias per output channel. "
                               "REFUSING.");
    std::call_once(prepared_, [&] {
      weightsShape_ = ws;
      weights_ = prepare(wv.GetTensorData<int8_t>(), s.M, s.C, s.kH * s.kW);
    });
    if (ws != weightsShape_)
      throw std::runtime_error("com.kestrova.int8::Int8ConvVNNI: the weights changed shape from " +
                               opShapeText(weightsShape_) + " to " + opShapeText(ws) +
                               " after they were prepared. REFUSING.");
    Ort::UnownedValue ov = ctx.GetOutput(0, {s.N, s.M, s.outH(), s.outW()});
    convolve(xv.GetTensorData<float>(), weights_, sv.GetTensorData<float>(), bv.GetTensorData<float>(),
             ov.GetTensorMutableData<float>(), s, q_);
  }

  const std::vector<int64_t> strides_, pads_, dilations_;
  const int64_t group_;  // read, not applied: the kernel computes an ungrouped convolution
  std::once_flag prepared_;
  std::vector<int64_t> weightsShape_;
  Int8Weights weights_;
  std::vector<uint8_t> q_;  // grows, reused across calls
};

struct Int8ConvOp : KestrovaOp<Int8ConvOp, Int8ConvKernel> {
  const char* GetName() const { return kInt8ConvVNNIOp; }
  size_t GetInputTypeCount() const { return 4; }
  ONNXTensorElementDataType GetInputType(size_t index) const {
    return index == 1 ? ONNX_TENSOR_ELEMENT_DATA_TYPE_INT8 : ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT;
  }
};

}  // namespace

const OrtCustomOp* int8ConvVNNIOp() {
  static const Int8ConvOp op;
  return &op;
}

}  // namespace le
