// The renderer against the unedited composed graph in a plain ONNX Runtime
// session, for one row and for a chunk; its refusals word for word; the
// custom operator switches; what it tells an operator on this platform.
#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <string>
#include <vector>

#include "director/ort_thread_hook.h"
#include "director/renderer.h"
#include "tests/director/renderer_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::captureStderr;
using le::test::DirectorBundle;
using le::test::ScopedEnv;

// The edits replace GridSample by the engine's kernel and the head's cubic
// Resize by Pad, Conv and DepthToSpace: the same arithmetic up to float
// round-off in a different order.
constexpr float kRewriteRoundOff = 1e-6f;

// The text a renderer's constructor throws, or "no refusal". The exception
// is caught inside the capture, which must end before anything else prints.
std::string refusal(const std::string& rel, const std::string& key, const std::string& ep = "") {
  DirectorBundle b(rel);
  std::string what = "no refusal";
  captureStderr([&] {
    try {
      le::Renderer(b.manifest, *b.identity, key, 1, ep);
    } catch (const std::exception& e) {
      what = e.what();
    }
  });
  return what;
}

// Renders drive rows one at a time and holds each against the plain run.
void expectRowsMatch(const DirectorBundle& b, le::Renderer& r, const std::string& reference) {
  const size_t elems = static_cast<size_t>(3 * b.manifest.crop * b.manifest.crop);
  for (int row = 0; row < b.drive.frames; ++row) {
    const std::vector<float> want = le::test::plainRender(b, reference, {row});
    const auto at = static_cast<size_t>(row) * 63;
    const float* got = r.render(&b.drive.si[static_cast<size_t>(row)], b.drive.xs.data() + at, b.drive.xd.data() + at, 1);
    EXPECT_LE(le::test::maxAbsDiff(got, want.data(), elems), kRewriteRoundOff) << "row " << row;
  }
}

TEST(RendererOutput, OneRowMatchesThePlainSessionOnEveryIdleRow) {
  DirectorBundle b("sample");
  std::string log;
  std::unique_ptr<le::Renderer> r;
  log = captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ""); });
  EXPECT_EQ(r->batch(), 1);
  EXPECT_EQ(r->crop(), 32);
  EXPECT_EQ(r->backend(), "ort");
  EXPECT_NE(log.find("[le] std GridSample -> com.kestrova::GridSampleFast load-time rewrite: 1 node(s) (b1_fp32)\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("[le] head cubic x2 -> Pad(edge,2)+Conv5x5(dw)+DepthToSpace(2,CRD) load-time rewrite: 1 node(s) "
                     "(b1_fp32)"),
            std::string::npos);
  expectRowsMatch(b, *r, "render/composed_b1.onnx");
  // The crops differ from row to row: the keypoints and the prior reach it.
  const int si0 = 0, si1 = 1;
  std::vector<float> first(r->render(&si0, b.drive.xs.data(), b.drive.xd.data(), 1),
                           r->render(&si0, b.drive.xs.data(), b.drive.xd.data(), 1) + 3 * 32 * 32);
  const float* second = r->render(&si1, b.drive.xs.data() + 63, b.drive.xd.data() + 63, 1);
  EXPECT_GT(le::test::maxAbsDiff(first.data(), second, first.size()), 0.01f);
}

TEST(RendererOutput, ChunkMatchesThePlainSessionAndPadsWithTheLastRow) {
  DirectorBundle b("render/bundles/chunk");
  std::unique_ptr<le::Renderer> r;
  captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b4_fp32", 2, ""); });
  ASSERT_EQ(r->batch(), 4);
  const size_t elems = 3 * 32 * 32;
  const std::vector<int> rows = {5, 1, 2, 4};
  std::vector<int> si;
  std::vector<float> xs, xd;
  for (const int row : rows) {
    si.push_back(b.drive.si[static_cast<size_t>(row)]);
    xs.insert(xs.end(), b.drive.xs.begin() + row * 63, b.drive.xs.begin() + row * 63 + 63);
    xd.insert(xd.end(), b.drive.xd.begin() + row * 63, b.drive.xd.begin() + row * 63 + 63);
  }
  const std::vector<float> want = le::test::plainRender(b, "render/composed_b4.onnx", rows);
  const float* got = r->render(si.data(), xs.data(), xd.data(), 4);
  EXPECT_LE(le::test::maxAbsDiff(got, want.data(), 4 * elems), kRewriteRoundOff);

  // Two rows: slots 2 and 3 repeat slot 1 exactly.
  got = r->render(si.data(), xs.data(), xd.data(), 2);
  EXPECT_LE(le::test::maxAbsDiff(got, want.data(), 2 * elems), kRewriteRoundOff);
  for (int b2 = 2; b2 < 4; ++b2)
    EXPECT_EQ(std::vector<float>(got + b2 * elems, got + (b2 + 1) * elems),
              std::vector<float>(got + elems, got + 2 * elems));

  // The batch-1 graph of the same bundle renders the same frames alone.
  std::unique_ptr<le::Renderer> one;
  captureStderr([&] { one = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ""); });
  expectRowsMatch(b, *one, "render/composed_b1.onnx");
}

TEST(RendererOutput, RenderRefusesACountOutsideTheBatch) {
  DirectorBundle b("sample");
  std::unique_ptr<le::Renderer> r;
  captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ""); });
  const int si[2] = {0, 1};
  for (const int n : {0, 2, -1}) {
    try {
      r->render(si, b.drive.xs.data(), b.drive.xd.data(), n);
      ADD_FAILURE() << "n " << n << " rendered";
    } catch (const std::runtime_error& e) {
      EXPECT_STREQ(e.what(), "render: bad n");
    }
  }
}

TEST(RendererRefusals, KeypointContract) {
  const std::string path = le::test::dataPath("render/bundles/kp22") + "/model_b1_fp32.onnx";
  EXPECT_EQ(refusal("render/bundles/kp22", "b1_fp32"),
            "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + path +
                " — the graph declares kp_driving with 22 keypoint rows, and this renderer feeds 21 "
                "(le::kHostKpRows, le/le). That is the recipe_v4 / kd_v4 shape: row 21 is the WIDTH ROW (wn, seal, "
                "0), fed from the a2x encoder's second output. This engine has no width feed (see le_a2x_width / "
                "le_a2x_pull_wn in le/le_a2x, which nothing on this path calls yet), so it cannot drive this "
                "director. REFUSING AT LOAD rather than dying inside ORT at the first Run. This build must not have "
                "been published to a host that links this renderer: training/recipe/host_kp_contract is the publish "
                "gate that exists to prevent it.");
  const std::string path23 = le::test::dataPath("render/bundles/kp23") + "/model_b1_fp32.onnx";
  EXPECT_EQ(refusal("render/bundles/kp23", "b1_fp32"),
            "Renderer: HOST KEYPOINT CONTRACT MISMATCH on " + path23 +
                " — the graph declares kp_driving with 23 keypoint rows, and this renderer feeds 21 "
                "(le::kHostKpRows, le/le). REFUSING AT LOAD rather than dying inside ORT at the first Run. This "
                "build must not have been published to a host that links this renderer: "
                "training/recipe/host_kp_contract is the publish gate that exists to prevent it.");
  // A symbolic row count passes; a symbolic batch leaves no batch to size by.
  EXPECT_EQ(refusal("render/bundles/kp_dynamic", "b1_fp32"), "no refusal");
  EXPECT_EQ(refusal("render/bundles/batch_dynamic", "b1_fp32"), "pooled64 input not found / bad shape");
}

TEST(RendererRefusals, LegacyComposeAndTheSplice) {
  const std::string head = "Renderer: LEGACY COMPOSE REFUSED for identity 'sample' (b1_fp32): ";
  const std::string tail =
      ". This avatar file was published before compose v2 (the mouth-corner fix) and this engine renders compose v2 "
      "only. Get the avatar's current file: an SDK that downloads by agent code refreshes it by itself; a file you "
      "keep must be downloaded again (`kestrova pull sample --force`, or the \"Download model\" command on the "
      "agent's page in the Kestrova web studio).";
  EXPECT_EQ(refusal("render/bundles/no_template", "b1_fp32"),
            head + "this bundle carries no lip_template.v1.json (its director would compose the graph's own ELLIPSE)" +
                tail);
  EXPECT_EQ(refusal("render/bundles/plate_template", "b1_fp32"),
            head + "its lip_template.v1.json is the closed-mouth plate template with no lip_map (compose v2 is built "
                   "only from the mediapipe lip map)" + tail);
  EXPECT_EQ(refusal("render/bundles/no_compose", "b1_fp32"),
            head + "its lip_template.v1.json carries no compose_v2 structure for model_b1_fp32.onnx (a bundle "
                   "published before compose v2)" + tail);
  // The chunk bundle's template names b1_fp32 and b4_fp32, nothing for b8.
  EXPECT_EQ(refusal("render/bundles/chunk", "b8"),
            "Renderer: LEGACY COMPOSE REFUSED for identity 'sample' (b8): its lip_template.v1.json carries no "
            "compose_v2 structure for model_b8.onnx (a bundle published before compose v2)" + tail);
  const std::string stale = refusal("render/bundles/stale_structure", "b1_fp32");
  EXPECT_EQ(stale.rfind(head + "compose v2 did not splice: compose v2 splice: the template says the structure is for "
                               "member ", 0), 0u) << stale;
  EXPECT_NE(stale.find(" — refusing a structure whose two bindings disagree" + tail), std::string::npos) << stale;
  EXPECT_EQ(refusal("render/bundles/canvas_64", "b1_fp32"),
            "Renderer: the compose v2 graph's lip_delivery canvas is 64 and this bundle's manifest declares crop 32 — "
            "refusing to feed a lip contour rasterised on the wrong canvas");
  // The refusal is also printed, whatever the quiet switch says.
  ScopedEnv quiet("KESTROVA_ENGINE_QUIET", "1");
  DirectorBundle b("render/bundles/no_compose");
  bool threw = false;
  const std::string log = captureStderr([&] {
    try {
      le::Renderer(b.manifest, *b.identity, "b1_fp32", 1, "");
    } catch (const std::runtime_error&) {
      threw = true;
    }
  });
  EXPECT_TRUE(threw);
  EXPECT_NE(log.find("[le] ERROR: LEGACY COMPOSE REFUSED for identity 'sample' (b1_fp32): "), std::string::npos);
}

TEST(RendererRefusals, ExecutionProviders) {
  EXPECT_EQ(refusal("sample", "b1_fp32", "cpu"), "Renderer: unknown ep 'cpu'");
  EXPECT_EQ(refusal("sample", "b1_fp32", "cuda"), "Renderer: unknown ep 'cuda'");
  const std::string x = refusal("sample", "b1_fp32", "xnnpack");
  EXPECT_EQ(x.rfind("Renderer: ep 'xnnpack' is REFUSED. This renderer rewrites its graph to Kestrova custom-domain "
                    "nodes (com.kestrova::GridSampleFast, and com.kestrova::WarpDirector wherever LE_WARP_NODE is on), "
                    "and ORT's XNNPACK execution provider SEGFAULTS", 0), 0u) << x;
  EXPECT_NE(x.find("Use the default ep (\"\", the ORT CPU EP), which opens the same bundle on the same bytes."),
            std::string::npos);
}

// This runtime has no CoreML provider, this build no CoreML for the native
// director, and the sample's graph is not the one the fused backend runs:
// every road ends on the CPU provider, and the log says why rather than
// claiming anything was engaged.
TEST(RendererFallbacks, EveryProviderRoadEndsOnTheCpuProvider) {
  DirectorBundle b("sample");
  for (const std::string ep : {"", "coreml", "coreml:ane", "neon"}) {
    SCOPED_TRACE(ep);
    std::unique_ptr<le::Renderer> r;
    const std::string log =
        captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ep); });
    EXPECT_EQ(r->ep(), "cpu");
    // Only a host that names a CoreML provider hears about CoreML: this
    // runtime has none, and the default is the CPU provider.
    const bool asked = ep.rfind("coreml", 0) == 0;
    EXPECT_EQ(log.find("[le] CoreML EP session refused: ") != std::string::npos, asked) << log;
    EXPECT_EQ(log.find(" — falling back to the ORT CPU EP\n") != std::string::npos, asked);
    EXPECT_EQ(log.find("native CoreML director") != std::string::npos, asked) << log;
    EXPECT_NE(log.find("[le] director ep=cpu (ORT CPU EP)\n"), std::string::npos);
    EXPECT_EQ(log.find("ORT CoreML EP;"), std::string::npos);
    EXPECT_EQ(log.find("[le] NEON backend refused: b1_fp32 is not the fused m4b graph (golden/unified director?); "
                       "using ORT\n") != std::string::npos,
              ep == "neon");
    EXPECT_EQ(r->directorNote(),
              asked ? "native CoreML director NOT used (falling back to onnxruntime): the bundle manifest carries no "
                      "unified.graphs.b1.coreml_director block — this bundle was distributed before 2026-09-11 or by a "
                      "producer that does not install the member"
                    : "");
  }
  ScopedEnv native("LE_NATIVE_COREML", "0");
  std::unique_ptr<le::Renderer> r;
  const std::string log =
      captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, "coreml"); });
  EXPECT_EQ(r->directorNote(),
            "native CoreML director disabled by LE_NATIVE_COREML=0; this session runs the graph through onnxruntime");
  EXPECT_EQ(log.find("native CoreML director"), std::string::npos);
  EXPECT_EQ(le::coremlCacheDir("/b").rfind("/b/.coreml_cache/ort1.", 0), 0u) << le::coremlCacheDir("/b");
}

TEST(RendererFallbacks, QuietSilencesDiagnosticsButNotTheDirectorLine) {
  DirectorBundle b("sample");
  ScopedEnv quiet("KESTROVA_ENGINE_QUIET", "1");
  std::string log = captureStderr([&] { le::Renderer(b.manifest, *b.identity, "b1_fp32", 1, ""); });
  EXPECT_EQ(log.find("[le] compose: COMPOSE V2"), std::string::npos) << log;
  EXPECT_EQ(log.find("load-time rewrite"), std::string::npos);
  EXPECT_NE(log.find("[le] director ep=cpu (ORT CPU EP)\n"), std::string::npos);
  ScopedEnv debug("KESTROVA_DEBUG", "1");
  log = captureStderr([&] { le::Renderer(b.manifest, *b.identity, "b1_fp32", 1, ""); });
  EXPECT_NE(log.find("[le] compose: COMPOSE V2 (b1_fp32) — lip contour + mouth-window compose + seam match, spliced "
                     "at load from the structure lip_template.v1.json carries (sha-bound to this member); "
                     "lip_delivery fed from the lip-map-v1 contour, 8 verts, feather 2.5 px\n"),
            std::string::npos)
      << log;
}

TEST(RendererSwitches, GridSampleFastOffAndRewriteOff) {
  DirectorBundle b("sample");
  {
    ScopedEnv off("LE_GS_FAST", "0");
    std::unique_ptr<le::Renderer> r;
    const std::string log =
        captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ""); });
    EXPECT_EQ(log.find("GridSampleFast"), std::string::npos) << log;
    expectRowsMatch(b, *r, "render/composed_b1.onnx");
  }
  {
    ScopedEnv off("LE_GS_REWRITE", "0");
    std::unique_ptr<le::Renderer> r;
    const std::string log =
        captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 1, ""); });
    EXPECT_NE(log.find("[le] LE_GS_REWRITE=0: load-time std GridSample -> com.kestrova::GridSampleFast rewrite "
                       "DISABLED (b1_fp32); the custom op is still registered, so a baked bundle loads and runs its "
                       "baked kernel. A standard bundle now runs ORT's own GridSample.\n"),
              std::string::npos)
        << log;
    EXPECT_EQ(log.find("load-time rewrite: 1 node(s) (b1_fp32)\n[le] L3"), std::string::npos);
    expectRowsMatch(b, *r, "render/composed_b1.onnx");
  }
}

TEST(RendererSwitches, BakedGridSampleFast) {
  // The baked graph holds the same weights as the sample's, with the warp
  // baked as GridSampleFast: it runs the engine's kernel either way.
  DirectorBundle baked("render/bundles/baked");
  std::unique_ptr<le::Renderer> r;
  captureStderr([&] { r = std::make_unique<le::Renderer>(baked.manifest, *baked.identity, "b1_fp32", 1, ""); });
  expectRowsMatch(baked, *r, "render/composed_b1.onnx");
  ScopedEnv rewriteOff("LE_GS_REWRITE", "0");
  captureStderr([&] { r = std::make_unique<le::Renderer>(baked.manifest, *baked.identity, "b1_fp32", 1, ""); });
  expectRowsMatch(baked, *r, "render/composed_b1.onnx");
  ScopedEnv off("LE_GS_FAST", "0");
  const std::string path = le::test::dataPath("render/bundles/baked") + "/model_b1_fp32.onnx";
  EXPECT_EQ(refusal("render/bundles/baked", "b1_fp32"),
            "Renderer: LE_GS_FAST=0 (or KESTROVA_VESPERA2_GRIDSAMPLE_FAST=0, which sets it) was asked for, but " +
                path +
                " has com.kestrova::GridSampleFast BAKED INTO THE GRAPH. That flag disables the custom-op "
                "registration, so there would be no kernel to bind and this session would die inside ORT with "
                "'GridSampleFast(-1) is not a registered function/op'. There is no standard-GridSample arm on this "
                "bundle to measure: the artifact itself is non-standard. Run the A/B on a STANDARD-ONNX bundle (the "
                "shipping format since INFERENCE_STANDARDIZATION.md #1), or unset the flag to load this one.");
}

std::atomic<int> g_hookRuns{0};

TEST(RendererThreads, IntraOpThreadsRunTheCreatingThreadsHook) {
  DirectorBundle b("sample");
  le::OrtThreadHook hook{[](void*) { g_hookRuns.fetch_add(1); }, nullptr};
  le::setOrtThreadHookForThisThread(&hook);
  {
    std::unique_ptr<le::Renderer> r;
    captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, "b1_fp32", 3, ""); });
    expectRowsMatch(b, *r, "render/composed_b1.onnx");
  }
  le::setOrtThreadHookForThisThread(nullptr);
  // Three intra-op threads: the caller and two that ONNX Runtime starts.
  EXPECT_EQ(g_hookRuns.load(), 2);
  captureStderr([&] { le::Renderer(b.manifest, *b.identity, "b1_fp32", 3, ""); });
  EXPECT_EQ(g_hookRuns.load(), 2);
  // A hoisting renderer's prep session starts no thread and takes no hook:
  // it runs on the source-cone worker alone.
  DirectorBundle cone("render/cone/bundle");
  le::setOrtThreadHookForThisThread(&hook);
  {
    std::unique_ptr<le::Renderer> r;
    const std::string log =
        captureStderr([&] { r = std::make_unique<le::Renderer>(cone.manifest, *cone.identity, "b1_fp32", 3, ""); });
    EXPECT_NE(log.find("[le] source-cone hoist: "), std::string::npos) << log;
    const int si[2] = {0, 1};
    for (const int s : si) r->render(&s, cone.drive.xs.data(), cone.drive.xd.data(), 1);
  }
  le::setOrtThreadHookForThisThread(nullptr);
  EXPECT_EQ(g_hookRuns.load(), 4);
}

}  // namespace
