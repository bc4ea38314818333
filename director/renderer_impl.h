// The state behind Renderer, shared by the constructor (renderer.cpp) and the
// session builder (renderer_session.cpp). Private to the director.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "director/conv/conv_backend.h"
#include "director/renderer.h"
#include "director/rewrites/wire.h"
#include "director/source_cone_ring.h"
#include "tessera/lip_contour.h"

namespace le {

struct Renderer::Impl {
  std::string ep;  // the execution provider finally in use

  Ort::Env env{nullptr};
  Ort::SessionOptions options{nullptr};
  Ort::Session session{nullptr};
  Ort::IoBinding binding{nullptr};
  Ort::RunOptions runOptions;

  bool profiling = false;  // LE_ORT_PROFILE was honoured
  double runMs = 0.0;      // summed over Session::Run
  int64_t runFrames = 0;

  const Manifest* manifest = nullptr;
  Identity* identity = nullptr;  // not owned
  std::string name;              // the graph key
  int threads = 1;

  int batch = 0;
  int crop = 0;
  int64_t pooledElems = 65536;
  int64_t rgbElems = 0;
  int64_t fsElems = 262144;
  bool featSynth = false;

  // The graph's inputs and output live here; the tensors alias them, bound
  // once at construction, so a frame only refills them.
  std::vector<float> pooledBuf, priorBuf, fsBuf, kpDrivingBuf, kpSourceBuf, rgbBuf;
  std::vector<Ort::Value> tensors;

  std::optional<tessera::LipContour> lipContour;
  std::vector<float> lipBuf;
  bool composeV2 = false;

  // The fused convolution backend, when it runs the frames instead of the
  // session; the pointer lists it takes, and a copy of each prior row when
  // the prior is a movie (its frame buffer moves on with the next pull).
  std::unique_ptr<ConvBackend> conv;
  std::vector<const uint16_t*> convPooledPtrs, convPriorPtrs;
  std::vector<uint16_t> convPriorCopy;
  bool convPriorMapped = false;

  std::string note;  // why the native CoreML director was not used

  // The source-cone hoist: the prep session that computes the boundary from
  // P_rgb (over priorBuf), the boundary's name, size and shape, the ring the
  // worker fills, the walk that predicts the next source frame, and the slot
  // whose tensor the per-frame binding holds.
  Ort::Session prepSession{nullptr};
  Ort::IoBinding prepBinding{nullptr};
  Ort::Value prepInput{nullptr};
  std::string boundaryName;
  int64_t boundaryElems = 0;
  std::vector<int64_t> boundaryDims;
  SourceWalk walk;
  const SourceConeRing::Slot* boundSlot = nullptr;

  // Builds the session over the edited graph for this ep ("" is the CPU
  // provider, "coreml..." the CoreML provider); can run twice.
  void createSession(const std::string& workingEp);

  // The hoist on the edited bytes: on success both sessions exist and the
  // per-frame one lacks the cone; on failure neither is created and reason
  // says why.
  bool hoistSourceCone(const GsBytes& bytes, std::string& reason);
  // The ring over the prep session, its worker started.
  void startSourceConeRing();
  // Binds the boundary of si, fills the other inputs and asks for the
  // predicted next frame.
  void prepareHoisted(int si, const float* kpSource, const float* kpDriving);

  // Last, so that it goes first: the worker uses the prep session and
  // priorBuf until it is joined.
  std::unique_ptr<SourceConeRing> ring;
};

}  // namespace le
