#include "director/ops/sub_bcast.h"

#include <array>
#include <stdexcept>

#include "director/ops/custom_ops.h"
#include "director/ops/op_support.h"

namespace le {

namespace {

constexpr size_t kRank = 5;
using Dims5 = std::array<int64_t, kRank>;

void checkRank(const std::vector<int64_t>& s) {
  if (s.size() > kRank) throw std::runtime_error("com.kestrova::SubBcastKHWC: rank > 5");
}

Dims5 aligned(const std::vector<int64_t>& s) {
  Dims5 d;
  d.fill(1);
  for (size_t i = 0; i < s.size(); ++i) d[kRank - s.size() + i] = s[i];
  return d;
}

}  // namespace

void subBcastKHWC(const float* a, const float* b, float* out, int64_t K, int64_t HW, int64_t D) {
  const int64_t n = HW * D;
  for (int64_t k = 0; k < K; ++k) {
    const float* bk = b + k * D;
    float* ok = out + k * n;
    if (D == 2) {
      // The keypoint grids' case, in pairs so the compiler can keep both
      // values of b in registers; the same subtraction per element.
      const float b0 = bk[0], b1 = bk[1];
      for (int64_t i = 0; i < n; i += 2) {
        ok[i] = a[i] - b0;
        ok[i + 1] = a[i + 1] - b1;
      }
    } else {
      for (int64_t i = 0; i < n; ++i) ok[i] = a[i] - bk[i % D];
    }
  }
}

std::vector<int64_t> subBcastShape(const std::vector<int64_t>& a, const std::vector<int64_t>& b) {
  checkRank(a);
  checkRank(b);
  const Dims5 da = aligned(a), db = aligned(b);
  const size_t rank = a.size() > b.size() ? a.size() : b.size();
  std::vector<int64_t> out(rank);
  for (size_t i = 0; i < rank; ++i) {
    const int64_t x = da[kRank - rank + i], y = db[kRank - rank + i];
    if (x != y && x != 1 && y != 1) throw std::runtime_error("com.kestrova::SubBcastKHWC: shapes do not broadcast");
    // The size that isn't the broadcast 1 (a 0 beside a 1 stays 0: nothing to read).
    out[i] = x == 1 ? y : x;
  }
  return out;
}

void subBcastGeneral(const float* a, const std::vector<int64_t>& as, const float* b, const std::vector<int64_t>& bs,
                     float* out) {
  const Dims5 da = aligned(as), db = aligned(bs), dout = aligned(subBcastShape(as, bs));
  Dims5 sa{}, sb{};  // element strides, 0 along a broadcast axis
  int64_t ra = 1, rb = 1;
  for (size_t i = kRank; i-- > 0;) {
    sa[i] = da[i] == 1 ? 0 : ra;
    sb[i] = db[i] == 1 ? 0 : rb;
    ra *= da[i];
    rb *= db[i];
  }
  int64_t o = 0;
  for (int64_t i0 = 0; i0 < dout[0]; ++i0)
    for (int64_t i1 = 0; i1 < dout[1]; ++i1)
      for (int64_t i2 = 0; i2 < dout[2]; ++i2)
        for (int64_t i3 = 0; i3 < dout[3]; ++i3)
          for (int64_t i4 = 0; i4 < dout[4]; ++i4) {
            const int64_t ia = i0 * sa[0] + i1 * sa[1] + i2 * sa[2] + i3 * sa[3] + i4 * sa[4];
            const int64_t ib = i0 * sb[0] + i1 * sb[1] + i2 * sb[2] + i3 * sb[3] + i4 * sb[4];
            out[o++] = a[ia] - b[ib];
          }
}

namespace {

struct SubBcastKernel {
  explicit SubBcastKernel(const OrtKernelInfo* /*info*/) {}

  OrtStatusPtr ComputeV2(OrtKernelContext* context) {
    return opGuarded([&] { compute(Ort::KernelContext(context)); });
  }

  static void compute(const Ort::KernelContext ctx) {
    const Ort::ConstValue av = ctx.GetInput(0), bv = ctx.GetInput(1);
    const std::vector<int64_t> as = opShape(av), bs = opShape(bv);
    const std::vector<int64_t> os = subBcastShape(as, bs);
    Ort::UnownedValue ov = ctx.GetOutput(0, os);
    const float* a = av.GetTensorData<float>();
    const float* b = bv.GetTensorData<float>();
    float* out = ov.GetTensorMutableData<float>();
    const Dims5 da = aligned(as), db = aligned(bs), dout = aligned(os);
    if (da[0] == 1 && da[1] == 1 && db[0] == 1 && db[2] == 1 && db[3] == 1 && da[4] == db[4] && dout[0] == 1)
      subBcastKHWC(a, b, out, db[1], da[2] * da[3], da[4]);
    else
      subBcastGeneral(a, as, b, bs, out);
  }
};

struct SubBcastOp : KestrovaOp<SubBcastOp, SubBcastKernel> {
  const char* GetName() const { return kSubBcastKHWCOp; }
  size_t GetInputTypeCount() const { return 2; }
  ONNXTensorElementDataType GetInputType(size_t /*index*/) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }

  // The same right-aligned merge on symbolic dimensions: an integer 1 yields
  // to the other side. An unknown input shape sets nothing.
  static OrtStatusPtr InferOutputShape(Ort::ShapeInferContext& ctx) {
    return opGuarded([&] {
      if (ctx.GetInputCount() < 2) return;
      const Ort::ShapeInferContext::Shape& a = ctx.GetInputShape(0);
      const Ort::ShapeInferContext::Shape& b = ctx.GetInputShape(1);
      if (a.empty() || b.empty()) return;
      const size_t rank = a.size() > b.size() ? a.size() : b.size();
      const Ort::ShapeInferContext::SymbolicInteger one(int64_t{1});
      Ort::ShapeInferContext::Shape out;
      for (size_t i = 0; i < rank; ++i) {
        const bool hasA = i + a.size() >= rank, hasB = i + b.size() >= rank;
        const auto& x = hasA ? a[i + a.size() - rank] : one;
        const auto& y = hasB ? b[i + b.size() - rank] : one;
        out.push_back(x.IsInt() && x.AsInt() == 1 ? y : x);
      }
      Ort::ThrowOnError(ctx.SetOutputShape(0, out).release());
    });
  }
};

}  // namespace

const OrtCustomOp* subBcastKHWCOp() {
  static const SubBcastOp op;
  return &op;
}

}  // namespace le
