// The session of a renderer: options, the execution provider, the custom
// operators, and the director graph read into memory and edited on the wire
// in a fixed order before ONNX Runtime sees it.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "director/diag.h"
#include "director/legacy_compose.h"
#include "director/ops/custom_ops.h"
#include "director/ops/warp_flow.h"
#include "director/ort_thread_hook.h"
#include "director/renderer_impl.h"
#include "director/rewrites/blend_gemm.h"
#include "director/rewrites/compose_v2_splice.h"
#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/head_cubic.h"
#include "director/rewrites/warp_block.h"
#include "director/rewrites/warp_fuse.h"
#include "tessera/compose_v2_structure.h"

namespace le {

namespace {

const char* envText(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}
bool envStartsWith0(const char* name) { return envText(name)[0] == '0'; }
bool envOn(const char* name) { return envText(name)[0] != '\0' && envText(name)[0] != '0'; }

bool startsWith(const std::string& s, const char* prefix) { return s.rfind(prefix, 0) == 0; }

// The whole file, or a refusal naming it. An unreadable file yields nothing
// when quiet is set (the caller reports it later).
std::vector<uint8_t> readModel(const std::string& path, bool quiet) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) {
    if (quiet) return {};
    throw std::runtime_error("Renderer: cannot open " + path);
  }
  std::vector<uint8_t> bytes;
  long size = -1;
  if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
  bool ok = size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
  if (ok) {
    bytes.resize(static_cast<size_t>(size));
    ok = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
  }
  std::fclose(f);
  if (!ok) {
    if (quiet) return {};
    throw std::runtime_error("Renderer: short read on " + path);
  }
  return bytes;
}

const char* computeUnits(const std::string& unitSet) {
  if (unitSet == "cpu") return "CPUOnly";
  if (unitSet == "gpu") return "CPUAndGPU";
  if (unitSet == "ane") return "CPUAndNeuralEngine";
  return "ALL";
}

std::string xnnpackRefusal(const std::string& ep) {
  return "Renderer: ep '" + ep +
         "' is REFUSED. This renderer rewrites its graph to Kestrova custom-domain nodes "
         "(com.kestrova::GridSampleFast, and com.kestrova::WarpDirector wherever LE_WARP_NODE is on), and ORT's "
         "XNNPACK execution provider SEGFAULTS while partitioning a graph that carries them — measured 2026-09-15 on "
         "a published vespera2-android AAR, null deref inside libonnxruntime.so at session create, on both a "
         "door-served and a hand-staged copy of the same identity. It is a signal, not an exception, so it cannot be "
         "caught and reported. Use the default ep (\"\", the ORT CPU EP), which opens the same bundle on the same "
         "bytes.";
}

std::string bakedRefusal(const std::string& path) {
  return "Renderer: LE_GS_FAST=0 (or KESTROVA_VESPERA2_GRIDSAMPLE_FAST=0, which sets it) was asked for, but " + path +
         " has com.kestrova::GridSampleFast BAKED INTO THE GRAPH. That flag disables the custom-op registration, so "
         "there would be no kernel to bind and this session would die inside ORT with 'GridSampleFast(-1) is not a "
         "registered function/op'. There is no standard-GridSample arm on this bundle to measure: the artifact "
         "itself is non-standard. Run the A/B on a STANDARD-ONNX bundle (the shipping format since "
         "INFERENCE_STANDARDIZATION.md #1), or unset the flag to load this one.";
}

}  // namespace

std::string coremlCacheDir(const std::string& dir) {
  const OrtApiBase* base = OrtGetApiBase();
  const char* v = base ? base->GetVersionString() : nullptr;
  return dir + "/.coreml_cache/ort" + (v && *v ? v : "unknown");
}

void Renderer::Impl::createSession(const std::string& workingEp) {
  const bool isCoreML = startsWith(workingEp, "coreml");
  session = Ort::Session(nullptr);
  prepSession = Ort::Session(nullptr);
  boundaryName.clear();
  boundaryElems = 0;
  boundaryDims.clear();
  options = Ort::SessionOptions();
  options.SetIntraOpNumThreads(threads);
  applyOrtThreadHook(options);
  options.SetInterOpNumThreads(1);
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  // Idle intra-op threads give their cores back to the other stages.
  if (envText("LE_ORT_SPIN")[0] != '1') options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  options.AddConfigEntry("mlas.disable_kleidiai", "1");
  if (const char* prefix = envText("LE_ORT_PROFILE"); *prefix) {
    options.EnableProfiling(prefix);
    profiling = true;
  }

  std::string unitSet;
  if (!workingEp.empty()) {
    if (startsWith(workingEp, "xnnpack")) throw std::runtime_error(xnnpackRefusal(workingEp));
    if (!isCoreML) throw std::runtime_error("Renderer: unknown ep '" + workingEp + "'");
    unitSet = workingEp.size() >= 8 ? workingEp.substr(7) : "all";
    // Throws where this runtime was built without the provider; the caller
    // then falls back to the CPU provider.
    options.AppendExecutionProvider("CoreML", {{"ModelFormat", "MLProgram"},
                                               {"MLComputeUnits", computeUnits(unitSet)},
                                               {"ModelCacheDirectory", coremlCacheDir(manifest->bundle_dir)}});
  }

  const std::string path = manifest->modelPath(name);
  const bool gsOff = envStartsWith0("LE_GS_FAST");
  const bool gsRewriteOff = envStartsWith0("LE_GS_REWRITE");
  if (gsOff) {
    // Without the custom domain a baked graph has no kernel to bind.
    const std::vector<uint8_t> peek = readModel(path, true);
    if (!peek.empty() && graphHasBakedGridSampleFast(peek)) throw std::runtime_error(bakedRefusal(path));
  } else {
    registerGridSampleFast(options);
    if (gsRewriteOff && !isCoreML)
      std::fprintf(diag_stream(),
                   "[le] LE_GS_REWRITE=0: load-time std GridSample -> com.kestrova::GridSampleFast rewrite DISABLED "
                   "(%s); the custom op is still registered, so a baked bundle loads and runs its baked kernel. A "
                   "standard bundle now runs ORT's own GridSample.\n",
                   name.c_str());
  }
  registerInt8ConvVNNI(options);

  composeV2 = false;
  std::vector<uint8_t> bytes = readModel(path, false);

  // 1. Compose v2: always, and a failure refuses the load.
  if (!lipContour || bytes.empty()) refuseLegacyCompose(*manifest, name, "the director graph could not be read for the compose v2 splice");
  {
    std::vector<uint8_t> structure;
    std::string sourceSha, structureSha, error;
    const int found = tessera::composeV2StructureFromTemplate(manifest->lip_template_json, "model_" + name + ".onnx",
                                                              structure, sourceSha, error, &structureSha);
    if (found == 0)
      refuseLegacyCompose(*manifest, name,
                          "its lip_template.v1.json carries no compose_v2 structure for model_" + name +
                              ".onnx (a bundle published before compose v2)");
    int canvas = 0;
    if (found < 0 || !spliceComposeV2(bytes, structure, error, sourceSha, &canvas, nullptr, structureSha))
      refuseLegacyCompose(*manifest, name, "compose v2 did not splice: " + (error.empty() ? "no reason given" : error));
    if (canvas != crop)
      throw std::runtime_error("Renderer: the compose v2 graph's lip_delivery canvas is " + std::to_string(canvas) +
                               " and this bundle's manifest declares crop " + std::to_string(crop) +
                               " — refusing to feed a lip contour rasterised on the wrong canvas");
  }

  // 2, 3. The warp block and the warp fuse, only when asked for.
  bool warpReplaced = false;
  if (envOn("LE_WARP_NODE") && !isCoreML) {
    std::string why;
    const size_t removed = rewriteWarpBlockToCustomOp(bytes, why);
    warpReplaced = removed > 0;
    if (warpReplaced)
      std::fprintf(diag_stream(),
                   "[le] director warp -> com.kestrova::WarpDirector (%zu nodes removed, the source cone with them)\n",
                   removed);
    else
      std::fprintf(stderr,
                   "[le] director warp NOT moved to one node (%s) — the graph loads exactly as it did before\n",
                   why.empty() ? "no reason given" : why.c_str());
  }
  if (warpReplaced && envOn("LE_WARP_FUSE")) {
    const bool verify = std::strcmp(envText("LE_WARP_FUSE"), "verify") == 0;
    WarpFuseCensus census;
    std::string why;
    if (rewriteWarpFuse(bytes, verify, &census, why) > 0) {
      const std::string grid = census.grid ? (verify ? "computed beside ORT's" : "in the warp")
                                           : "NOT fused: " + census.gridReason;
      const std::string exit = census.exit ? "in the warp" : "NOT fused: " + census.exitReason;
      std::fprintf(diag_stream(),
                   "[le] warp fuse%s: grid %s, exit %s, %d keypoint Sub(s) -> SubBcastKHWC (%zu nodes removed; "
                   "multiply-add form %s)\n",
                   verify ? " VERIFY" : "", grid.c_str(), exit.c_str(), census.subs, census.nodes,
                   warpFlowOrtFmaForm() ? "fma" : "plain");
    } else {
      std::fprintf(stderr, "[le] warp fuse NOT applied (%s) — the warp node loads as before\n",
                   why.empty() ? "no reason given" : why.c_str());
    }
  }

  // 4 to 6.
  std::string gsReason, blendReason, cubicReason;
  const size_t gsCount = (!isCoreML && !gsOff && !gsRewriteOff) ? rewriteGridSampleToFast(bytes, &gsReason) : 0;
  const size_t blendCount = normaliseStudentBlend(bytes, &blendReason);
  const size_t cubicCount = rewriteHeadCubicResize(bytes, &cubicReason);

  // 7. The source-cone hoist: the part of the graph that depends on the
  // source frame alone leaves the per-frame graph.
  std::FILE* diag = diag_stream();
  const bool hasPrior = !identity->priorMember().empty() || identity->priorBackend() == "mmap P.f16";
  if (warpReplaced) {
    std::fprintf(diag,
                 "[le] source-cone hoist SKIPPED (%s): the warp node subsumes the cone — there is nothing left to "
                 "hoist\n",
                 name.c_str());
  } else if (isCoreML && (unitSet == "all" || unitSet == "gpu")) {
    std::fprintf(diag,
                 "[le] source-cone hoist NOT applied (%s): CoreML unit set '%s' can place the director on the GPU and "
                 "the 12.58 MB boundary input would cross that partition every frame (measured 0.61x on an M4) — the "
                 "cone stays in the graph\n",
                 name.c_str(), unitSet.c_str());
  } else if (hasPrior && !bytes.empty()) {
    std::string reason;
    if (hoistSourceCone(bytes, reason)) {
      const std::vector<int64_t>& d = boundaryDims;
      std::fprintf(diag,
                   "[le] source-cone hoist: '%s' [%lld,%lld,%lld,%lld] leaves the per-frame graph and is prefetched "
                   "per SOURCE FRAME on one spare core (%s)\n",
                   boundaryName.c_str(), static_cast<long long>(d[0]), static_cast<long long>(d[1]),
                   static_cast<long long>(d[2]), static_cast<long long>(d[3]), name.c_str());
    } else {
      std::fprintf(diag, "[le] source-cone hoist NOT applied (%s): %s\n", name.c_str(), reason.c_str());
    }
  }

  if (gsCount)
    std::fprintf(diag, "[le] std GridSample -> com.kestrova::GridSampleFast load-time rewrite: %zu node(s) (%s)\n",
                 gsCount, name.c_str());
  if (blendCount)
    std::fprintf(diag,
                 "[le] L3 student blend MatMul -> Gemm load-time normalisation: %zu node(s) (%s) — a pre-2026-09-11 "
                 "student; as MatMul this graph aborts Apple's MPSGraph compiler on every CoreML unit that includes "
                 "the GPU\n",
                 blendCount, name.c_str());
  if (cubicCount)
    std::fprintf(diag,
                 "[le] head cubic x2 -> Pad(edge,2)+Conv5x5(dw)+DepthToSpace(2,CRD) load-time rewrite: %zu node(s) "
                 "(%s) — the same filter to fp32 round-off; ORT's cubic Resize kernel is the pole on every CPU-class "
                 "EP and no CoreML/NNAPI EP can claim it\n",
                 cubicCount, name.c_str());
  std::fprintf(diag,
               "[le] compose: COMPOSE V2 (%s) — lip contour + mouth-window compose + seam match, spliced at load from "
               "the structure %s carries (sha-bound to this member); lip_delivery fed from the %s contour, %d verts, "
               "feather %.1f px\n",
               name.c_str(), "lip_template.v1.json", lipContour->W.empty() ? "plate-template-v1" : "lip-map-v1",
               lipContour->nv, static_cast<double>(lipContour->feather));

  // 8, 9. The hoist made the session from its per-frame graph.
  composeV2 = true;
  if (!prepSession) session = Ort::Session(env, bytes.data(), bytes.size(), options);
  ep = workingEp.empty() ? "cpu" : workingEp;
  std::fprintf(stderr, "[le] director ep=%s (%s)\n", ep.c_str(),
               isCoreML ? "ORT CoreML EP; unclaimed nodes on the CPU EP; std GridSample kept in the graph"
                        : "ORT CPU EP");
}

}  // namespace le
