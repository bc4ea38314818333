#include "director/renderer.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "compute/half.h"
#include "compute/threads.h"
#include "director/coreml/coreml_director.h"
#include "director/diag.h"
#include "director/legacy_compose.h"
#include "director/renderer_impl.h"
#include "tessera/compose_v2_structure.h"

namespace le {

namespace {

const char* envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

std::string keypointRefusal(const std::string& path, const std::string& input, int64_t rows) {
  std::string text = "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + path + " — the graph declares " + input +
                     " with " + std::to_string(rows) + " keypoint rows, and this renderer feeds " +
                     std::to_string(kHostKpRows) + " (le::kHostKpRows, le/le). ";
  if (rows == 22)
    text += "That is the recipe_v4 / kd_v4 shape: row " + std::to_string(kHostKpRows) +
            " is the WIDTH ROW (wn, seal, 0), fed from the a2x encoder's second output. This engine has no width "
            "feed (see le_a2x_width / le_a2x_pull_wn in le/le_a2x, which nothing on this path calls yet), so it "
            "cannot drive this director. ";
  return text +
         "REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not have been published to "
         "a host that links this renderer: training/recipe/host_kp_contract is the publish gate that exists to "
         "prevent it.";
}

// The compose v2 gate: the first reason this bundle can't be composed v2.
void composeGate(const Manifest& m, const std::string& name, const std::optional<tessera::LipContour>& lip) {
  if (!lip)
    refuseLegacyCompose(m, name,
                        std::string("this bundle carries no ") + "lip_template.v1.json" +
                            " (its director would compose the graph's own ELLIPSE)");
  if (lip->W.empty())
    refuseLegacyCompose(m, name,
                        std::string("its ") + "lip_template.v1.json" +
                            " is the closed-mouth plate template with no lip_map (compose v2 is built only from the "
                            "mediapipe lip map)");
  std::vector<uint8_t> structure;
  std::string sourceSha, error;
  const int found =
      tessera::composeV2StructureFromTemplate(m.lip_template_json, "model_" + name + ".onnx", structure, sourceSha,
                                              error, nullptr);
  if (found == 0)
    refuseLegacyCompose(m, name,
                        "its lip_template.v1.json carries no compose_v2 structure for model_" + name +
                            ".onnx (a bundle published before compose v2)");
  if (found < 0)
    refuseLegacyCompose(m, name,
                        "its compose_v2 structure is unreadable: " + (error.empty() ? "no reason given" : error));
}

// The inputs of n rows, unhoisted; slots from n on repeat row n - 1.
void fillBatch(Renderer::Impl& im, const int* si, const float* kpSource, const float* kpDriving, int n) {
  const size_t crop2 = static_cast<size_t>(im.crop) * static_cast<size_t>(im.crop);
  const size_t priorElems = static_cast<size_t>(im.featSynth ? im.fsElems : im.rgbElems);
  std::vector<float>& priorBuf = im.featSynth ? im.fsBuf : im.priorBuf;
  const size_t pooledElems = static_cast<size_t>(im.pooledElems);
  for (int b = 0; b < im.batch; ++b) {
    const int i = b < n ? b : n - 1;
    const auto ub = static_cast<size_t>(b), ui = static_cast<size_t>(i);
    if (b < n) {
      halfToFloat(im.identity->pooled64(si[i]), im.pooledBuf.data() + ub * pooledElems, pooledElems);
      const uint16_t* prior = im.featSynth ? im.identity->fsRed(si[i]) : im.identity->P(si[i]);
      halfToFloat(prior, priorBuf.data() + ub * priorElems, priorElems);
      if (im.composeV2) im.lipContour->contourF32Canvas(kpDriving + ui * 63, im.lipBuf.data() + ub * crop2);
    } else {
      // Padding slots repeat the last real row rather than decode it again.
      const size_t last = static_cast<size_t>(n - 1);
      std::memcpy(im.pooledBuf.data() + ub * pooledElems, im.pooledBuf.data() + last * pooledElems,
                  pooledElems * sizeof(float));
      std::memcpy(priorBuf.data() + ub * priorElems, priorBuf.data() + last * priorElems, priorElems * sizeof(float));
      if (im.composeV2)
        std::memcpy(im.lipBuf.data() + ub * crop2, im.lipBuf.data() + last * crop2, crop2 * sizeof(float));
    }
    std::memcpy(im.kpSourceBuf.data() + ub * 63, kpSource + ui * 63, 63 * sizeof(float));
    std::memcpy(im.kpDrivingBuf.data() + ub * 63, kpDriving + ui * 63, 63 * sizeof(float));
  }
}

}  // namespace

Renderer::Renderer(const Manifest& manifest, Identity& identity, const std::string& name, int threads,
                   const std::string& epIn)
    : impl_(std::make_unique<Impl>()) {
  Impl& im = *impl_;
  im.env = Ort::Env(engineQuiet() ? ORT_LOGGING_LEVEL_ERROR : ORT_LOGGING_LEVEL_WARNING, "le");
  im.manifest = &manifest;
  im.identity = &identity;
  im.name = name;
  im.crop = manifest.crop;
  im.threads = threads > 0 ? threads : pool::threads();

  std::string ep = epIn;
  if (ep == "neon" || (ep.empty() && std::strcmp(envText("LE_CONV_BACKEND"), "neon") == 0)) {
    const std::string path = manifest.modelPath(name);
    if (!ConvBackend::available()) {
      std::fprintf(stderr, "[le] fp16 NEON backend requested but unavailable on this build/CPU; using ORT\n");
      ep.clear();
    } else if (!ConvBackend::graphSupported(path)) {
      std::fprintf(stderr,
                   "[le] NEON backend refused: %s is not the fused m4b graph (golden/unified director?); using ORT\n",
                   name.c_str());
      ep.clear();
    } else if (manifest.crop != 512) {
      throw std::runtime_error("le_conv: only crop=512 m4b bundles");
    } else {
      // The fused backend: no compose v2, no lip contour, no keypoint check.
      im.conv = ConvBackend::create(path, im.threads);
      im.ep = "neon";
      im.batch = im.conv->batch();
      im.rgbElems = static_cast<int64_t>(im.crop) * im.crop * 3;
      im.rgbBuf.assign(static_cast<size_t>(im.batch) * static_cast<size_t>(im.rgbElems), 0.0f);
      im.convPooledPtrs.assign(static_cast<size_t>(im.batch), nullptr);
      im.convPriorPtrs.assign(static_cast<size_t>(im.batch), nullptr);
      im.convPriorMapped = identity.priorBackend() == "mmap P.f16";
      return;
    }
  }
  im.runOptions.AddConfigEntry("memory.enable_memory_arena_shrinkage", "cpu:0");
  // Where CoreML exists the default is its provider on the CPU unit; this
  // runtime has no CoreML provider, so the default here is ONNX Runtime's
  // CPU provider and nothing about CoreML is tried or logged. A host that
  // names a coreml ep still gets the checks of the native director and the
  // fallback below, and is told why.
#if defined(__APPLE__)
  if (ep.empty()) ep = "coreml:cpu";
#endif
  if (ep.rfind("coreml", 0) == 0) {
    if (envText("LE_NATIVE_COREML")[0] == '0') {
      im.note = "native CoreML director disabled by LE_NATIVE_COREML=0; this session runs the graph through "
                "onnxruntime";
    } else {
      std::string reason;
      // This build has no CoreML, so open never yields a director: it makes
      // the bundle's checks and says where it stopped.
      if (!CoreMLDirector::open(manifest.bundle_dir, name, manifest.lip_template_json, &reason)) {
        im.note = "native CoreML director NOT used (falling back to onnxruntime): " + reason;
        std::fprintf(stderr, "[le] %s\n", im.note.c_str());
      }
    }
  }
  if (!manifest.lip_template_json.empty())
    im.lipContour.emplace(tessera::LipContour::fromTemplateJson(manifest.lip_template_json, im.crop));
  composeGate(manifest, name, im.lipContour);

  try {
    im.createSession(ep);
  } catch (const std::exception& e) {
    if (ep.rfind("coreml", 0) != 0) throw;
    std::fprintf(stderr, "[le] CoreML EP session refused: %s — falling back to the ORT CPU EP\n", e.what());
    im.session = Ort::Session(nullptr);
    im.createSession("");
  }

  const std::string path = manifest.modelPath(name);
  const size_t inputs = im.session.GetInputCount();
  Ort::AllocatorWithDefaultOptions alloc;
  std::vector<std::string> names;
  std::vector<std::vector<int64_t>> shapes;
  for (size_t i = 0; i < inputs; ++i) {
    names.push_back(im.session.GetInputNameAllocated(i, alloc).get());
    shapes.push_back(im.session.GetInputTypeInfo(i).GetTensorTypeAndShapeInfo().GetShape());
    if (names.back() == "fs_red") im.featSynth = true;
  }
  const char* pooledName = im.featSynth ? "pooled" : "pooled64";
  for (size_t i = 0; i < inputs; ++i)
    if (names[i] == pooledName && shapes[i].size() == 4 && shapes[i][0] >= 1) im.batch = static_cast<int>(shapes[i][0]);
  if (im.batch < 1) throw std::runtime_error(std::string(pooledName) + " input not found / bad shape");
  for (size_t i = 0; i < inputs; ++i) {
    const bool kp = im.featSynth ? (names[i] == "kd" || names[i] == "ks")
                                 : (names[i] == "kp_driving" || names[i] == "kp_source");
    if (kp && shapes[i].size() == 3 && shapes[i][1] >= 1 && shapes[i][1] != kHostKpRows)
      throw std::runtime_error(keypointRefusal(path, names[i], shapes[i][1]));
  }

  const auto B = static_cast<size_t>(im.batch);
  im.rgbElems = static_cast<int64_t>(im.crop) * im.crop * 3;
  im.pooledBuf.assign(B * static_cast<size_t>(im.pooledElems), 0.0f);
  if (im.featSynth) {
    if (!identity.fsRed(0)) throw std::runtime_error("FeatSynth graph but bundle lacks fs_red.f16");
    im.fsBuf.assign(B * static_cast<size_t>(im.fsElems), 0.0f);
  } else {
    if (identity.priorMember().empty() && identity.priorBackend() != "mmap P.f16")
      throw std::runtime_error(
          "m4b graph (P_rgb input) but this bundle carries no warp prior: neither P.f16, nor fs_red.f16, nor a "
          "P_hevc.mov to play in place is present, so le::Identity mapped NOTHING and Identity::P(si) would be an "
          "offset from a null pointer — a SEGFAULT on the first frame, not a refusal. REFUSING to create a session.");
    im.priorBuf.assign(B * static_cast<size_t>(im.rgbElems), 0.0f);
  }
  im.kpDrivingBuf.assign(B * 63, 0.0f);
  im.kpSourceBuf.assign(B * 63, 0.0f);
  im.rgbBuf.assign(B * static_cast<size_t>(im.rgbElems), 0.0f);

  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  im.binding = Ort::IoBinding(im.session);
  if (im.prepSession) im.startSourceConeRing();
  const int64_t b = im.batch, c = im.crop;
  auto bind = [&](const char* input, std::vector<float>& buf, std::vector<int64_t> shape, bool output = false) {
    im.tensors.push_back(Ort::Value::CreateTensor<float>(mem, buf.data(), buf.size(), shape.data(), shape.size()));
    if (output)
      im.binding.BindOutput(input, im.tensors.back());
    else
      im.binding.BindInput(input, im.tensors.back());
  };
  im.tensors.reserve(6);
  if (im.featSynth) {
    bind("fs_red", im.fsBuf, {b, 64, 64, 64});
    bind("pooled", im.pooledBuf, {b, 64, 32, 32});
    bind("kd", im.kpDrivingBuf, {b, kHostKpRows, 3});
    bind("ks", im.kpSourceBuf, {b, kHostKpRows, 3});
  } else {
    bind("pooled64", im.pooledBuf, {b, 64, 32, 32});
    // Hoisted, the boundary takes P_rgb's place, bound per frame to a slot.
    if (!im.prepSession) bind("P_rgb", im.priorBuf, {b, 3, c, c});
    bind("kp_driving", im.kpDrivingBuf, {b, kHostKpRows, 3});
    bind("kp_source", im.kpSourceBuf, {b, kHostKpRows, 3});
    if (im.composeV2) {
      im.lipBuf.assign(B * static_cast<size_t>(c * c), 1.0f);
      bind("lip_delivery", im.lipBuf, {b, 1, c, c});
    }
  }
  bind("rgb", im.rgbBuf, {b, 3, c, c}, true);
}

Renderer::~Renderer() {
  Impl& im = *impl_;
  if (!im.profiling || !im.session) return;
  if (im.runFrames >= 1)
    std::fprintf(stderr, "[le_ort_profile] %ld frames: %.2f ms/frame in Session::Run\n",
                 static_cast<long>(im.runFrames), im.runMs / static_cast<double>(im.runFrames));
  try {
    Ort::AllocatorWithDefaultOptions alloc;
    std::fprintf(stderr, "[le_ort_profile] %s\n", im.session.EndProfilingAllocated(alloc).get());
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[le_ort_profile] FAILED: %s\n", e.what());
  }
}

const float* Renderer::render(const int* si, const float* kpSource, const float* kpDriving, int n) {
  Impl& im = *impl_;
  if (n < 1 || n > im.batch) throw std::runtime_error("render: bad n");
  if (im.conv) {
    const auto rgbElems = static_cast<size_t>(im.rgbElems);
    if (!im.convPriorMapped && im.convPriorCopy.size() < static_cast<size_t>(n) * rgbElems)
      im.convPriorCopy.resize(static_cast<size_t>(n) * rgbElems);
    for (int b = 0; b < n; ++b) {
      const auto ub = static_cast<size_t>(b);
      im.convPooledPtrs[ub] = im.identity->pooled64(si[b]);
      const uint16_t* prior = im.identity->P(si[b]);
      if (!im.convPriorMapped) {
        std::memcpy(im.convPriorCopy.data() + ub * rgbElems, prior, rgbElems * sizeof(uint16_t));
        prior = im.convPriorCopy.data() + ub * rgbElems;
      }
      im.convPriorPtrs[ub] = prior;
    }
    im.conv->render(im.convPooledPtrs.data(), im.convPriorPtrs.data(), kpSource, kpDriving, n, im.rgbBuf.data());
    return im.rgbBuf.data();
  }
  if (im.ring)
    im.prepareHoisted(si[0], kpSource, kpDriving);  // batch 1
  else
    fillBatch(im, si, kpSource, kpDriving, n);
  const auto t0 = std::chrono::steady_clock::now();
  im.session.Run(im.runOptions, im.binding);
  im.runMs += std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
  ++im.runFrames;
  return im.rgbBuf.data();
}

int Renderer::batch() const { return impl_->batch; }
int Renderer::crop() const { return impl_->crop; }
const std::string& Renderer::ep() const { return impl_->ep; }
const std::string& Renderer::directorNote() const { return impl_->note; }
std::string Renderer::backend() const { return impl_->conv ? "neon" : "ort"; }

}  // namespace le
