// The fused convolution backend on the generated m4b graph: against the
// float64 reference of the network, stage by stage through its dumps; the
// same bits at every thread count, batch split and target; its topology
// proof and load refusals word for word; and the renderer's choice of it.
#include <gtest/gtest.h>
#include <onnxruntime_cxx_api.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "bundle/drive.h"
#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "compute/half.h"
#include "director/conv/conv_pool.h"
#include "director/conv/engine.h"
#include "director/conv/m4b_topology.h"
#include "director/renderer.h"
#include "tests/compute/targets.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

constexpr size_t kItem = 3 * 512 * 512;

// Under the sanitizers every load of the convolution loops is checked and a
// frame takes minutes: those builds render one item, once, for what they
// look for (memory and undefined behaviour), and leave the bit-for-bit
// comparisons to the release build.
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

std::string convData(const std::string& rel) { return std::string(LE_CONV_DATA) + "/" + rel; }

template <class T>
std::vector<T> readAs(const std::string& path) {
  const std::string bytes = readFile(path);
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

// The bundle's two frames and keypoints, as the backend takes them.
struct Inputs {
  std::vector<uint16_t> pooled = readAs<uint16_t>(convData("bundle/pooled64.f16"));
  std::vector<uint16_t> prior = readAs<uint16_t>(convData("bundle/P.f16"));
  std::vector<float> ks = readAs<float>(convData("bundle/drive/xs.f32"));
  std::vector<float> kd = readAs<float>(convData("bundle/drive/xd.f32"));

  // Renders items [first, first + n) of the two.
  std::vector<float> render(ConvBackend& e, int first, int n) const {
    std::vector<const uint16_t*> p, q;
    for (int i = first; i < first + n; ++i) {
      p.push_back(pooled.data() + static_cast<size_t>(i) * 65536);
      q.push_back(prior.data() + static_cast<size_t>(i) * kItem);
    }
    std::vector<float> out(static_cast<size_t>(n) * kItem);
    const size_t kp = static_cast<size_t>(first) * 63;
    e.render(p.data(), q.data(), ks.data() + kp, kd.data() + kp, n, out.data());
    return out;
  }
};

std::string graphPath() { return convData("bundle/model_m4b.onnx"); }

bool sameBits(const float* a, const float* b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

// The network in float64 against the engine's half arithmetic: every stored
// activation is a half (11 bits), so each stage carries a few half ulps of
// its own magnitude.
void expectNearReference(const std::vector<float>& out) {
  const std::vector<float> want = readAs<float>(convData("reference.f32"));
  const size_t items = out.size() / kItem;
  ASSERT_LE(out.size(), want.size());
  for (size_t item = 0; item < items; ++item) {
    double worst = 0.0, squares = 0.0;
    for (size_t i = item * kItem; i < (item + 1) * kItem; ++i) {
      const double d = static_cast<double>(out[i]) - want[i];
      worst = std::max(worst, std::fabs(d));
      squares += d * d;
    }
    const double psnr = 10.0 * std::log10(1.0 / (squares / kItem));
    EXPECT_LE(worst, 0.004) << "item " << item;
    EXPECT_GE(psnr, 66.0) << "item " << item;
  }
  if (items < 2) return;
  // The items differ: each reads its own frame and keypoints.
  double apart = 0.0;
  for (size_t i = 0; i < kItem; ++i) apart = std::max(apart, std::fabs(double(out[i]) - out[kItem + i]));
  EXPECT_GT(apart, 0.1);
}

void expectStagesNearReference(const TempDir& dumps, const std::vector<float>& out) {
  const char* const stages[] = {"pre_relu", "e0_relu", "e1_relu", "e2_relu", "d1_relu", "d0_relu", "ref_relu",
                                "mask_conv", "occ_sig", "grid_add", "w64", "basisimg", "occ512", "warped",
                                "corr0_relu", "corr1_relu", "corr2_conv", "refined", "tile2_relu", "tile3_conv",
                                "rgb"};
  for (const char* name : stages) {
    SCOPED_TRACE(name);
    const std::vector<float> want = readAs<float>(convData(std::string("stages/") + name + ".f32"));
    const std::vector<float> got = readAs<float>(dumps / (std::string(name) + ".f32"));
    ASSERT_EQ(got.size(), want.size());
    double peak = 0.0, worst = 0.0;
    for (size_t i = 0; i < want.size(); ++i) {
      peak = std::max(peak, std::fabs(double(want[i])));
      worst = std::max(worst, std::fabs(double(got[i]) - want[i]));
    }
    EXPECT_GT(peak, 0.0);
    EXPECT_LE(worst, 0.015 * peak) << "peak " << peak;
  }
  // The last stage is item 0 of the frame itself, bit for bit.
  EXPECT_TRUE(sameBits(readAs<float>(dumps / "rgb.f32").data(), out.data(), kItem));
}

// One render of both items at 2 threads, with every stage of item 0 dumped,
// against the reference; then the same bits at 1 thread, and for item 1
// alone with dispatch forced to the baseline target (the scalar copy of
// every kernel against the best one). Every output element is computed by
// one task in a fixed order, so neither the thread count, nor which items
// share a render, nor the target may show.
TEST(ConvEngine, MatchesTheReferenceStageByStageWithTheSameBitsEverywhere) {
  const Inputs in;
  TempDir dumps;
  std::vector<float> out;
  {
    ScopedEnv dump("LE_CONV_DUMP", dumps.path().c_str());
    std::unique_ptr<ConvBackend> two = ConvBackend::create(graphPath(), 2);
    EXPECT_EQ(static_cast<conv::Engine&>(*two).threads(), 2);
    out = in.render(*two, 0, kSanitized ? 1 : 2);
  }
  expectNearReference(out);
  expectStagesNearReference(dumps, out);
  if (kSanitized) return;

  std::unique_ptr<ConvBackend> one = ConvBackend::create(graphPath(), 1);
  EXPECT_EQ(static_cast<conv::Engine&>(*one).threads(), 1);
  EXPECT_TRUE(sameBits(in.render(*one, 0, 2).data(), out.data(), 2 * kItem)) << "1 thread against 2";
  const std::vector<std::int64_t> targets = targetsToTest();
  ForcedTarget forced(targets.back());
  SCOPED_TRACE(std::string("target ") + le::simd::targetName(targets.back()));
  EXPECT_TRUE(sameBits(in.render(*one, 1, 1).data(), out.data() + kItem, kItem))
      << "item 1 alone against item 1 of two";
}

TEST(ConvBackend, ThreadsAreCappedAtTheBatchAndRenderRefusesABadCount) {
  EXPECT_TRUE(ConvBackend::available());
  std::unique_ptr<ConvBackend> e = ConvBackend::create(graphPath(), 8);
  EXPECT_EQ(e->batch(), 2);
  EXPECT_EQ(static_cast<conv::Engine&>(*e).threads(), 2);
  float out = 0.0f;
  const uint16_t* none = nullptr;
  EXPECT_EQ(errorOf([&] { e->render(&none, &none, &out, &out, 0, &out); }), "le_conv: bad n");
  EXPECT_EQ(errorOf([&] { e->render(&none, &none, &out, &out, 3, &out); }), "le_conv: bad n");
  const conv::ConvLayer& mask = static_cast<conv::Engine&>(*e).layer(conv::kMaskOcc);
  EXPECT_EQ(mask.Cout, 23);
  EXPECT_EQ(mask.CoutP, 24);
  EXPECT_FALSE(mask.drainPerTap);
  EXPECT_TRUE(static_cast<conv::Engine&>(*e).layer(conv::kPre).drainPerTap);
}

TEST(ConvBackend, LoadRefusalsWordForWord) {
  const auto refusal = [](const std::string& name) {
    return errorOf([&] { ConvBackend::create(convData("refuse/" + name + ".onnx"), 1); });
  };
  EXPECT_EQ(refusal("non_fp32"), "onnx: non-fp32 initializer shape_const");
  EXPECT_EQ(refusal("raw_size"), "onnx: raw size mismatch short_raw");
  EXPECT_EQ(refusal("no_data"), "onnx: no data for few_floats");
  EXPECT_EQ(refusal("no_pooled64"), "le_conv: pooled64 input not found");
  EXPECT_EQ(refusal("batch_symbolic"), "le_conv: pooled64 input not found");
  EXPECT_EQ(refusal("not_m4b"),
            "le_conv: this graph is not the fused m4b topology this kernel implements (missing s.e0.conv.weight) — use "
            "ORT for it");
  EXPECT_EQ(refusal("not_onnx").rfind("onnx: ", 0), 0u) << refusal("not_onnx");
  EXPECT_EQ(refusal("absent"), "le_conv: cannot open " + convData("refuse/absent.onnx"));

  EXPECT_TRUE(ConvBackend::graphSupported(graphPath()));
  for (const char* name : {"non_fp32", "not_m4b", "not_onnx", "absent"})
    EXPECT_FALSE(ConvBackend::graphSupported(convData(std::string("refuse/") + name + ".onnx"))) << name;
  TempDir t;
  writeFile(t / "empty.onnx", "");
  EXPECT_FALSE(ConvBackend::graphSupported(t / "empty.onnx"));
  // A directory opens, and reports a size that can't be read.
  EXPECT_FALSE(ConvBackend::graphSupported(t.path()));
  EXPECT_EQ(errorOf([&] { ConvBackend::create(t.path(), 1); }), "le_conv: short read " + t.path());
}

// The shapes of the m4b graph, by name, for the topology proof.
conv::TensorShapes m4bShapes() {
  conv::TensorShapes s;
  for (const conv::M4bFixed& row : conv::kM4bFixed()) {
    s.names.push_back(row.name);
    s.dims.push_back(row.dims);
  }
  const auto add = [&](const std::string& name, std::vector<int64_t> dims) {
    s.names.push_back(name);
    s.dims.push_back(std::move(dims));
  };
  add("onnx::Conv_313", {96, 85, 1, 1});
  add("onnx::Conv_314", {96});
  add("onnx::Sub_316", {1, 1, 32, 32, 2});
  add("onnx::MatMul_338", {64, 196608});
  return s;
}

std::string why(const conv::TensorShapes& s) {
  conv::M4bNames names;
  std::string text;
  return conv::m4bResolve(s, names, &text) ? "resolved" : text;
}

void rename(conv::TensorShapes& s, const std::string& from, const std::string& to) {
  for (std::string& n : s.names)
    if (n == from) n = to;
}

TEST(M4bTopology, ResolvesDriftingNamesAndRefusesWordForWord) {
  conv::TensorShapes s = m4bShapes();
  conv::M4bNames names;
  ASSERT_TRUE(conv::m4bResolve(s, names, nullptr));
  EXPECT_EQ(names.preWeight, "onnx::Conv_313");
  EXPECT_EQ(names.preBias, "onnx::Conv_314");
  EXPECT_EQ(names.grid32, "onnx::Sub_316");
  EXPECT_EQ(names.basis, "onnx::MatMul_338");
  EXPECT_EQ(conv::kM4bFixed().size(), 36u);

  // Another export: the counters moved, the bias still follows its weight.
  conv::TensorShapes drift = s;
  rename(drift, "onnx::Conv_313", "onnx::Conv_99");
  rename(drift, "onnx::Conv_314", "onnx::Conv_100");
  rename(drift, "onnx::Sub_316", "onnx::Sub_7");
  ASSERT_TRUE(conv::m4bResolve(drift, names, nullptr));
  EXPECT_EQ(names.preWeight, "onnx::Conv_99");
  EXPECT_EQ(names.preBias, "onnx::Conv_100");
  EXPECT_EQ(names.grid32, "onnx::Sub_7");

  // The usual name wins over another initializer of the same shape.
  conv::TensorShapes twin = s;
  twin.names.push_back("other_grid");
  twin.dims.push_back({1, 1, 32, 32, 2});
  ASSERT_TRUE(conv::m4bResolve(twin, names, nullptr));
  EXPECT_EQ(names.grid32, "onnx::Sub_316");
  rename(twin, "onnx::Sub_316", "onnx::Sub_1");
  EXPECT_EQ(why(twin), "grid32 (1,1,32,32,2) absent or ambiguous");

  conv::TensorShapes t = s;
  t.names.erase(t.names.begin() + 4);
  t.dims.erase(t.dims.begin() + 4);
  EXPECT_EQ(why(t), "missing s.e2.conv.weight");
  t = s;
  t.dims[35] = {65};
  EXPECT_EQ(why(t), "shape s.wmlp.2.bias");
  t = s;
  rename(t, "onnx::Conv_313", "w_a");
  t.names.push_back("w_b");
  t.dims.push_back({96, 85, 1, 1});
  EXPECT_EQ(why(t), "pre weight (96,85,1,1) absent or ambiguous");
  t = s;
  rename(t, "onnx::Conv_313", "pre.weight");
  EXPECT_EQ(why(t), "pre weight name carries no SSA counter");
  t = s;
  rename(t, "onnx::Conv_313", "313");
  EXPECT_EQ(why(t), "pre weight name carries no SSA counter");
  t = s;
  rename(t, "onnx::Conv_314", "onnx::Conv_315");
  EXPECT_EQ(why(t), "pre bias onnx::Conv_314 absent or not (96)");
  t = s;
  t.dims[37] = {1, 96};
  EXPECT_EQ(why(t), "pre bias onnx::Conv_314 absent or not (96)");
  t = s;
  t.dims[39] = {64, 196607};
  EXPECT_EQ(why(t), "basis (64,196608) absent or ambiguous");
  EXPECT_EQ(conv::resolveByShape(s, conv::kM4bBasis()), "onnx::MatMul_338");
}

TEST(ConvPool, EveryTaskOnceOnItsWorkersAndAFailureReachesTheCaller) {
  conv::Pool pool(3);
  EXPECT_EQ(pool.threads(), 3);
  for (int round = 0; round < 20; ++round) {
    std::vector<std::atomic<int>> hits(48);
    std::atomic<int> badWorker{0};
    pool.run(hits.size(), [&](size_t task, size_t worker) {
      hits[task].fetch_add(1);
      if (worker >= 3) badWorker.fetch_add(1);
    });
    for (size_t i = 0; i < hits.size(); ++i) ASSERT_EQ(hits[i].load(), 1) << "task " << i;
    ASSERT_EQ(badWorker.load(), 0);
  }
  EXPECT_EQ(errorOf([&] {
              pool.run(10, [](size_t task, size_t) {
                if (task == 7) throw std::runtime_error("task 7 failed");
              });
            }),
            "task 7 failed");
  int ran = 0;
  pool.run(0, [&](size_t, size_t) { ++ran; });
  EXPECT_EQ(ran, 0);
  conv::Pool alone(1);
  alone.run(5, [&](size_t, size_t worker) { ran += worker == 0 ? 1 : 100; });
  EXPECT_EQ(ran, 5);
}

// ONNX Runtime on the graph's own nodes, in float32, against the same
// reference: the graph the backend reads by initializer is the network, so
// the benchmark's comparison is like for like.
TEST(ConvGraph, OnnxRuntimeRunsTheSameNetwork) {
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "conv_test");
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(1);
  Ort::Session session(env, graphPath().c_str(), options);
  Inputs in;
  std::vector<float> pooled(in.pooled.size()), prior(in.prior.size());
  halfToFloat(in.pooled.data(), pooled.data(), pooled.size());
  halfToFloat(in.prior.data(), prior.data(), prior.size());
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  const int64_t pooledShape[] = {2, 64, 32, 32}, priorShape[] = {2, 3, 512, 512}, kpShape[] = {2, 21, 3};
  Ort::Value values[] = {
      Ort::Value::CreateTensor<float>(mem, pooled.data(), pooled.size(), pooledShape, 4),
      Ort::Value::CreateTensor<float>(mem, prior.data(), prior.size(), priorShape, 4),
      Ort::Value::CreateTensor<float>(mem, in.kd.data(), in.kd.size(), kpShape, 3),
      Ort::Value::CreateTensor<float>(mem, in.ks.data(), in.ks.size(), kpShape, 3),
  };
  const char* names[] = {"pooled64", "P_rgb", "kp_driving", "kp_source"};
  const char* outName = "rgb";
  std::vector<Ort::Value> out = session.Run(Ort::RunOptions{nullptr}, names, values, 4, &outName, 1);
  const float* got = out[0].GetTensorData<float>();
  const std::vector<float> want = readAs<float>(convData("reference.f32"));
  double worst = 0.0;
  for (size_t i = 0; i < want.size(); ++i) worst = std::max(worst, std::fabs(double(got[i]) - want[i]));
  EXPECT_LE(worst, 1e-4);
}

// The renderer takes the backend for the m4b graph at crop 512 when asked,
// and goes to ONNX Runtime, saying why, for any other graph.
TEST(RendererConv, NeonRunsTheBackendAndOtherGraphsFallBack) {
  const Manifest m = loadManifest(convData("bundle"), 0);
  Identity identity(m);
  const Inputs in;
  const std::vector<float> reference = readAs<float>(convData("reference.f32"));
  for (const bool byEnv : {false, true}) {
    SCOPED_TRACE(byEnv ? "LE_CONV_BACKEND=neon" : "ep neon");
    ScopedEnv env("LE_CONV_BACKEND", byEnv ? "neon" : nullptr);
    std::unique_ptr<Renderer> r;
    const std::string log =
        captureStderr([&] { r = std::make_unique<Renderer>(m, identity, "m4b", 1, byEnv ? "" : "neon"); });
    EXPECT_EQ(log, "");
    EXPECT_EQ(r->backend(), "neon");
    EXPECT_EQ(r->ep(), "neon");
    EXPECT_EQ(r->batch(), 2);
    EXPECT_EQ(r->crop(), 512);
    if (byEnv || kSanitized) continue;
    // The rows in the other order: each takes its own frame and keypoints.
    const int si[] = {1, 0};
    std::vector<float> ks(in.ks.begin() + 63, in.ks.end()), kd(in.kd.begin() + 63, in.kd.end());
    ks.insert(ks.end(), in.ks.begin(), in.ks.begin() + 63);
    kd.insert(kd.end(), in.kd.begin(), in.kd.begin() + 63);
    const float* got = r->render(si, ks.data(), kd.data(), 2);
    for (size_t row = 0; row < 2; ++row) {
      double worst = 0.0;
      const float* want = reference.data() + (1 - row) * kItem;
      for (size_t i = 0; i < kItem; ++i) worst = std::max(worst, std::fabs(double(got[row * kItem + i]) - want[i]));
      EXPECT_LE(worst, 0.004) << "row " << row;
    }
  }
  // LE_CONV_BACKEND is compared whole: anything else is the ONNX Runtime
  // road, which this bundle (no lip template) can't take.
  for (const char* value : {"neon1", "NEON"}) {
    ScopedEnv env("LE_CONV_BACKEND", value);
    std::string text;
    captureStderr([&] { text = errorOf([&] { Renderer(m, identity, "m4b", 1, ""); }); });
    EXPECT_EQ(text.rfind("Renderer: LEGACY COMPOSE REFUSED", 0), 0u) << value << ": " << text;
  }

  // Another graph: a line on stderr, and the ORT road.
  const Manifest sample = loadManifest(dataPath("sample"), 0);
  Identity sampleIdentity(sample);
  std::unique_ptr<Renderer> r;
  const std::string log =
      captureStderr([&] { r = std::make_unique<Renderer>(sample, sampleIdentity, "b1_fp32", 1, "neon"); });
  EXPECT_NE(log.find("[le] NEON backend refused: b1_fp32 is not the fused m4b graph (golden/unified director?); using "
                     "ORT\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("unavailable"), std::string::npos);
  EXPECT_EQ(r->backend(), "ort");
  EXPECT_EQ(r->ep(), "cpu");

  // The m4b graph in a bundle of another crop: refused.
  TempDir t;
  copyTree(dataPath("sample"), t.path());
  std::filesystem::create_hard_link(graphPath(), t / "model_m4b.onnx");
  const Manifest small = loadManifest(t.path(), 0);
  Identity smallIdentity(small);
  EXPECT_EQ(errorOf([&] { Renderer(small, smallIdentity, "m4b", 1, "neon"); }), "le_conv: only crop=512 m4b bundles");
}

}  // namespace
}  // namespace le::test
