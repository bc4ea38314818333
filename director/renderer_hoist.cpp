// The source-cone hoist of a renderer: the cut into a prep session and a
// per-frame session, the ring its worker fills, and the hoisted frame.
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "compute/half.h"
#include "director/renderer_impl.h"
#include "director/rewrites/source_cone.h"

namespace le {

namespace {

// The prep session runs on the worker's own thread, on one core: one
// intra-op thread, no spinning, no thread hook and no custom domain. The
// prep model carries every initializer of the graph and reads few, so ONNX
// Runtime's warning for each unread one is all it would have to say below
// an error.
Ort::SessionOptions prepOptions() {
  Ort::SessionOptions o;
  o.SetLogSeverityLevel(ORT_LOGGING_LEVEL_ERROR);
  o.SetIntraOpNumThreads(1);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  o.AddConfigEntry("session.intra_op.allow_spinning", "0");
  o.AddConfigEntry("mlas.disable_kleidiai", "1");
  return o;
}

}  // namespace

bool Renderer::Impl::hoistSourceCone(const GsBytes& bytes, std::string& reason) {
  std::string boundary;
  const int count = findSourceConeBoundary(bytes, boundary);
  if (count != 1) {
    reason = "expected exactly one Concat consuming P_rgb, found " + std::to_string(count);
    return false;
  }
  GsBytes prep;
  if (!buildSourceConePrep(bytes, boundary, prep, reason)) return false;
  try {
    prepSession = Ort::Session(env, prep.data(), prep.size(), prepOptions());
    const std::vector<int64_t> in = prepSession.GetInputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    std::vector<int64_t> out = prepSession.GetOutputTypeInfo(0).GetTensorTypeAndShapeInfo().GetShape();
    int64_t elems = 1;
    for (int64_t& d : out) {
      if (d < 0) d = 0;  // still dynamic
      elems *= d;
    }
    if (in.size() != 4 || in[0] != 1) {
      reason = "batch-1 lever; this graph declares batch " + std::to_string(in.empty() ? 0 : in[0]);
    } else if (out.size() != 4 || elems <= 0) {
      reason = "boundary shape is not static";
    } else {
      GsBytes perFrame;
      if (buildSourceConePerFrame(bytes, boundary, out.data(), 4, perFrame, reason)) {
        session = Ort::Session(env, perFrame.data(), perFrame.size(), options);
        boundaryName = boundary;
        boundaryElems = elems;
        boundaryDims = out;
        return true;
      }
    }
  } catch (const std::exception& e) {
    reason = e.what();
  }
  prepSession = Ort::Session(nullptr);
  return false;
}

void Renderer::Impl::startSourceConeRing() {
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  prepBinding = Ort::IoBinding(prepSession);
  const int64_t c = crop;
  const std::vector<int64_t> priorShape{batch, 3, c, c};
  prepInput = Ort::Value::CreateTensor<float>(mem, priorBuf.data(), priorBuf.size(), priorShape.data(), 4);
  prepBinding.BindInput(kPriorInput, prepInput);
  // The slot tensor's channel count follows from its size at crop x crop.
  const std::vector<int64_t> slotShape{batch, boundaryElems / (batch * c * c), c, c};
  const size_t priorElems = static_cast<size_t>(rgbElems);
  ring = std::make_unique<SourceConeRing>(
      static_cast<size_t>(boundaryElems), slotShape, [this, priorElems](int si, SourceConeRing::Slot& slot) {
        halfToFloat(identity->P(si), priorBuf.data(), priorElems);
        prepBinding.BindOutput(boundaryName.c_str(), slot.value);
        prepSession.Run(Ort::RunOptions{nullptr}, prepBinding);
      });
}

void Renderer::Impl::prepareHoisted(int si, const float* kpSource, const float* kpDriving) {
  const SourceConeRing::Slot& slot = ring->acquire(si);
  // The binding keeps the slot's tensor; it changes only with the slot.
  if (&slot != boundSlot) {
    binding.BindInput(boundaryName.c_str(), slot.value);
    boundSlot = &slot;
  }
  halfToFloat(identity->pooled64(si), pooledBuf.data(), static_cast<size_t>(pooledElems));
  std::memcpy(kpSourceBuf.data(), kpSource, 63 * sizeof(float));
  std::memcpy(kpDrivingBuf.data(), kpDriving, 63 * sizeof(float));
  if (composeV2) lipContour->contourF32Canvas(kpDriving, lipBuf.data());
  // The prefetch of the next frame runs beside this frame's Session::Run.
  ring->hint(walk.next(si, identity->nt()));
}

}  // namespace le
