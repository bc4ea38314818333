#include "director/ops/warp_director_fused.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "director/diag.h"
#include "director/ops/custom_ops.h"
#include "director/ops/op_support.h"
#include "director/ops/warp_director.h"
#include "director/ops/warp_flow.h"

namespace le {

bool warpVerifyDue(uint64_t frames) { return frames == 1 || frames == 30 || (frames != 0 && frames % 300 == 0); }

std::string warpVerifyLine(uint64_t frames, uint64_t floats, bool servedFma, uint64_t servedDiffs,
                           uint64_t otherDiffs) {
  char line[512];
  std::snprintf(line, sizeof line,
                "[le] warp fuse VERIFY: %llu frames, %llu grid floats; the served form (%s) differs from ORT's grid "
                "on %llu, the other form (%s) on %llu%s\n",
                static_cast<unsigned long long>(frames), static_cast<unsigned long long>(floats),
                servedFma ? "fma" : "plain", static_cast<unsigned long long>(servedDiffs),
                servedFma ? "plain" : "fma", static_cast<unsigned long long>(otherDiffs),
                servedDiffs != 0 ? " — ★THE FUSED GRID IS NOT ORT'S: do not serve LE_WARP_FUSE=1 here" : "");
  return line;
}

namespace {

constexpr const char* kShapesRefusal =
    "com.kestrova::WarpDirectorFused: the flow/base shapes do not upsample to the warp's own size. REFUSING rather "
    "than warping on a grid nobody computed.";

bool present(const Ort::KernelContext& ctx, size_t i) { return i < ctx.GetInputCount() && ctx.GetInput(i) != nullptr; }

// Floats of a band whose bit patterns differ.
uint64_t bitDiffs(const float* a, const float* b, size_t n) {
  uint64_t d = 0;
  for (size_t i = 0; i < n; ++i) d += std::memcmp(a + i, b + i, sizeof(float)) != 0 ? 1 : 0;
  return d;
}

struct FusedWarpKernel {
  explicit FusedWarpKernel(const OrtKernelInfo* info)
      : upH_(opAttrIntOr0(info, "up_h")),
        upW_(opAttrIntOr0(info, "up_w")),
        clip_(opAttrIntOr0(info, "clip")),
        verify_(opAttrIntOr0(info, "verify")) {}

  OrtStatusPtr ComputeV2(OrtKernelContext* context) {
    return opGuarded([&] { compute(Ort::KernelContext(context)); });
  }

  void compute(const Ort::KernelContext ctx) {
    const Ort::ConstValue xv = ctx.GetInput(0);
    const std::vector<int64_t> xs = opShape(xv);
    if (xs.size() != 4)
      throw std::runtime_error("com.kestrova::WarpDirectorFused: X is " + opShapeText(xs) +
                               ", not [N,3,H,W]. REFUSING.");
    if (xs[1] != 3)
      throw std::runtime_error("com.kestrova::WarpDirectorFused: C=" + std::to_string(xs[1]) +
                               ", this node warps the 3-channel source. REFUSING.");
    const int64_t N = xs[0], H = xs[2], W = xs[3];
    const std::vector<int64_t> gridShape{N, H, W, 2};
    const float* flow = nullptr;
    const float* base = nullptr;
    const float* given = nullptr;  // a ready grid: the graph's own, or ORT's under VERIFY
    int64_t h = 0, w = 0;
    if (upH_ >= 1) {
      if (!present(ctx, 2)) throw std::runtime_error(kShapesRefusal);
      const Ort::ConstValue fv = ctx.GetInput(1), bv = ctx.GetInput(2);
      const std::vector<int64_t> fs = opShape(fv);
      if (fs.size() != 4 || fs[0] != N || fs[1] != 2 || upH_ * fs[2] != H || upW_ * fs[3] != W ||
          opElements(opShape(bv)) != H * W * 2)
        throw std::runtime_error(kShapesRefusal);
      h = fs[2];
      w = fs[3];
      flow = fv.GetTensorData<float>();
      base = bv.GetTensorData<float>();
      if (verify_ != 0 && present(ctx, 3)) given = checkedGrid(ctx.GetInput(3), gridShape, "ONNX Runtime's grid");
    } else {
      given = checkedGrid(ctx.GetInput(1), gridShape, "the grid");
    }
    Ort::UnownedValue ov = ctx.GetOutput(0, xs);
    const float* x = xv.GetTensorData<float>();
    float* out = ov.GetTensorMutableData<float>();
    const size_t gridFloats = static_cast<size_t>(H * W * 2);
    if (flow != nullptr) {
      if (tables_.outW != W || tables_.outH != H || tables_.inW != w || tables_.inH != h)
        warpFlowTables(static_cast<int>(w), static_cast<int>(h), static_cast<int>(W), static_cast<int>(H),
                       static_cast<float>(upW_), static_cast<float>(upH_), tables_);
      if (grid_.size() < gridFloats) grid_.resize(gridFloats);
      if (given != nullptr && other_.size() < gridFloats) other_.resize(gridFloats);
    }
    const size_t need = static_cast<size_t>(H * W * kWarpPlaneFloats);
    if (planes_.size() < need) planes_.resize(need);
    const bool servedFma = warpFlowOrtFmaForm();
    const bool comparing = flow != nullptr && given != nullptr;
    for (int64_t n = 0; n < N; ++n) {
      const float* xn = x + n * 3 * H * W;
      float* on = out + n * 3 * H * W;
      const float* flowN = flow != nullptr ? flow + n * 2 * h * w : nullptr;
      const float* givenN = given != nullptr ? given + n * H * W * 2 : nullptr;
      float* planes = planes_.data();
      auto planesBand = [&](int64_t r0, int64_t r1) { warpDirectorPlanesBand(xn, planes, W, H, r0, r1); };
      opForBands(ctx, H, planesBand);
      auto gatherBand = [&](int64_t r0, int64_t r1) {
        const float* read = givenN;
        if (flowN != nullptr) {
          const int b0 = static_cast<int>(r0), b1 = static_cast<int>(r1);
          warpFlowGridRows(flowN, base, grid_.data(), tables_, b0, b1, servedFma);
          if (comparing) {
            warpFlowGridRows(flowN, base, other_.data(), tables_, b0, b1, !servedFma);
            const size_t at = static_cast<size_t>(r0 * W * 2), n2 = static_cast<size_t>((r1 - r0) * W * 2);
            served_.fetch_add(bitDiffs(grid_.data() + at, givenN + at, n2), std::memory_order_relaxed);
            other_diffs_.fetch_add(bitDiffs(other_.data() + at, givenN + at, n2), std::memory_order_relaxed);
          } else {
            read = grid_.data();
          }
        }
        warpDirectorGatherBand(planes, read, on, W, H, r0, r1);
        if (clip_ != 0) warpClip01Rows(on, W, H, r0, r1);
      };
      opForBands(ctx, H, gatherBand);
    }
    if (comparing) {
      ++frames_;
      floats_ += static_cast<uint64_t>(N) * gridFloats;
      if (warpVerifyDue(frames_)) {
        const std::string line = warpVerifyLine(frames_, floats_, servedFma, served_.load(), other_diffs_.load());
        std::fputs(line.c_str(), diag_stream());
      }
    }
  }

  static const float* checkedGrid(const Ort::ConstValue& v, const std::vector<int64_t>& want, const char* what) {
    const std::vector<int64_t> s = opShape(v);
    if (s != want)
      throw std::runtime_error(std::string("com.kestrova::WarpDirectorFused: ") + what + " is " + opShapeText(s) +
                               ", not " + opShapeText(want) + " of the warp's own size. REFUSING.");
    return v.GetTensorData<float>();
  }

  const int64_t upH_, upW_, clip_, verify_;
  std::vector<float> planes_, grid_, other_;  // grow, reused across calls
  WarpFlowTables tables_;
  std::atomic<uint64_t> served_{0}, other_diffs_{0};
  uint64_t frames_ = 0, floats_ = 0;
};

struct FusedWarpOp : KestrovaOp<FusedWarpOp, FusedWarpKernel> {
  const char* GetName() const { return kWarpDirectorFusedOp; }
  size_t GetInputTypeCount() const { return 4; }
  ONNXTensorElementDataType GetInputType(size_t /*index*/) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
  OrtCustomOpInputOutputCharacteristic GetInputCharacteristic(size_t index) const {
    return index < 2 ? INPUT_OUTPUT_REQUIRED : INPUT_OUTPUT_OPTIONAL;
  }
};

}  // namespace

const OrtCustomOp* warpDirectorFusedOp() {
  static const FusedWarpOp op;
  return &op;
}

}  // namespace le
