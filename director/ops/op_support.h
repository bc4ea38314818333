// What every operator of the custom domains shares: turning a thrown refusal
// into an ONNX Runtime status, the 16-row bands on the session's intra-op
// pool, and the accessors of the process-wide op objects.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <cstdint>
#include <exception>
#include <string>
#include <utility>
#include <vector>

namespace le {

// Rows per band of a ParallelFor pass. Bands write disjoint rows, so the
// result doesn't depend on how many threads take them.
inline constexpr int64_t kOpBandRows = 16;

// Runs f; an exception becomes a runtime-exception status with its text, so
// that Session::Run reports the kernel's sentence instead of unwinding
// through ONNX Runtime's C frames.
template <class F>
OrtStatusPtr opGuarded(F&& f) noexcept {
  try {
    f();
    return nullptr;
  } catch (const std::exception& e) {
    return Ort::GetApi().CreateStatus(ORT_RUNTIME_EXCEPTION, e.what());
  } catch (...) {
    return Ort::GetApi().CreateStatus(ORT_RUNTIME_EXCEPTION, "com.kestrova: a kernel failed without a message.");
  }
}

// Runs body(rowBegin, rowEnd) over ceil(rows / 16) bands on the kernel
// context's intra-op pool and returns when all are done. body must not throw.
template <class Body>
void opForBands(const Ort::KernelContext& ctx, int64_t rows, Body& body) {
  const int64_t bands = (rows + kOpBandRows - 1) / kOpBandRows;
  if (bands <= 0) return;
  auto run = [](void* user, size_t band) {
    const auto& [b, n] = *static_cast<std::pair<Body*, int64_t>*>(user);
    const int64_t begin = static_cast<int64_t>(band) * kOpBandRows;
    (*b)(begin, std::min(begin + kOpBandRows, n));
  };
  std::pair<Body*, int64_t> user{&body, rows};
  ctx.ParallelFor(run, static_cast<size_t>(bands), 0, &user);
}

// The part every op object shares: CPU provider, one float output, the
// kernel built from the node's info, failures returned as statuses.
template <class TOp, class TKernel>
struct KestrovaOp : Ort::CustomOpBase<TOp, TKernel, true> {
  OrtStatusPtr CreateKernelV2(const OrtApi& /*api*/, const OrtKernelInfo* info, void** kernel) const {
    return opGuarded([&] { *kernel = new TKernel(info); });
  }
  const char* GetExecutionProviderType() const { return "CPUExecutionProvider"; }
  size_t GetOutputTypeCount() const { return 1; }
  ONNXTensorElementDataType GetOutputType(size_t /*index*/) const { return ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT; }
};

// A tensor's shape, and the element count of a shape.
std::vector<int64_t> opShape(const Ort::ConstValue& v);
int64_t opElements(const std::vector<int64_t>& shape);
std::string opShapeText(const std::vector<int64_t>& shape);

// An int attribute, 0 when the node doesn't carry it.
int64_t opAttrIntOr0(const OrtKernelInfo* info, const char* name);

// The op objects, each a process-wide static.
const OrtCustomOp* gridSampleFastOp();
const OrtCustomOp* warpDirectorOp();
const OrtCustomOp* warpDirectorFusedOp();
const OrtCustomOp* subBcastKHWCOp();
const OrtCustomOp* int8ConvVNNIOp();

}  // namespace le
