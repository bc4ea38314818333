// conv: the fused convolution backend on the generated m4b graph at crop
// 512 (batch 2, generated at run time into a temporary directory) beside
// ONNX Runtime's CPU provider on the same graph, at 1 and 2 threads; and the
// exact half-precision fused multiply-adds per second on one core, through
// the array kernel on every compiled target and inside each layer of the
// network. Times are wall clock and process CPU time: on a shared machine
// the second says what the work cost when the first is inflated by waiting.
#include <onnxruntime_cxx_api.h>
#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "bench/alloc_count.h"
#include "compute/half.h"
#include "compute/simd.h"
#include "director/conv/engine.h"
#include "hwy/targets.h"

namespace {

using Clock = std::chrono::steady_clock;

double cpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) * 1e-9;
}

struct Timing {
  double wallMs = 0.0, cpuMs = 0.0;  // per call, median wall and mean CPU
  double allocs = 0.0;               // heap allocations per call
};

Timing timeCalls(int warm, int n, const std::function<void()>& call) {
  for (int i = 0; i < warm; ++i) call();
  std::vector<double> wall;
  wall.reserve(static_cast<size_t>(n));
  const uint64_t a0 = le::bench::allocations();
  const double c0 = cpuSeconds();
  for (int i = 0; i < n; ++i) {
    const auto t0 = Clock::now();
    call();
    wall.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  const double cpuMs = (cpuSeconds() - c0) * 1000.0 / n;
  const double allocs = static_cast<double>(le::bench::allocations() - a0) / n;
  std::sort(wall.begin(), wall.end());
  return {wall[wall.size() / 2], cpuMs, allocs};
}

template <class T>
std::vector<T> readAs(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(f)), std::istreambuf_iterator<char>());
  if (!f && !f.eof()) throw std::runtime_error("cannot read " + path);
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

constexpr int kBatch = 2;
constexpr size_t kItem = 3 * 512 * 512;

struct Graph {
  std::string path;
  std::vector<uint16_t> pooled, prior;
  std::vector<float> ks, kd;
};

void benchEngine(const Graph& g, int threads, int renders, Timing& t) {
  auto engine = le::ConvBackend::create(g.path, threads);
  const uint16_t* pooled[kBatch] = {g.pooled.data(), g.pooled.data() + 65536};
  const uint16_t* prior[kBatch] = {g.prior.data(), g.prior.data() + kItem};
  std::vector<float> out(kBatch * kItem);
  t = timeCalls(1, renders, [&] { engine->render(pooled, prior, g.ks.data(), g.kd.data(), kBatch, out.data()); });
}

void benchOrt(const Graph& g, int threads, int renders, Timing& t) {
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "bench_conv");
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  Ort::Session session(env, g.path.c_str(), options);
  std::vector<float> pooled(g.pooled.size()), prior(g.prior.size()), ks = g.ks, kd = g.kd, rgb(kBatch * kItem);
  le::halfToFloat(g.pooled.data(), pooled.data(), pooled.size());
  le::halfToFloat(g.prior.data(), prior.data(), prior.size());
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  auto tensor = [&](std::vector<float>& v, std::vector<int64_t> shape) {
    return Ort::Value::CreateTensor<float>(mem, v.data(), v.size(), shape.data(), shape.size());
  };
  const char* names[] = {"pooled64", "P_rgb", "kp_driving", "kp_source"};
  Ort::Value in[] = {tensor(pooled, {kBatch, 64, 32, 32}), tensor(prior, {kBatch, 3, 512, 512}),
                     tensor(kd, {kBatch, 21, 3}), tensor(ks, {kBatch, 21, 3})};
  const char* outName = "rgb";
  Ort::Value out = tensor(rgb, {kBatch, 3, 512, 512});
  t = timeCalls(1, renders, [&] { session.Run(Ort::RunOptions{nullptr}, names, in, 4, &outName, &out, 1); });
}

// The array kernel: n fused multiply-adds of random halves of moderate size.
double arrayRate(std::int64_t target) {
  hwy::SetSupportedTargetsForTest(target);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
  constexpr size_t kN = size_t{1} << 22;
  std::mt19937 rng(7);
  std::normal_distribution<float> nd(0.0f, 1.0f);
  std::vector<uint16_t> a(kN), b(kN), c(kN), out(kN);
  for (size_t i = 0; i < kN; ++i) {
    a[i] = le::f32ToF16(nd(rng));
    b[i] = le::f32ToF16(nd(rng));
    c[i] = le::f32ToF16(nd(rng));
  }
  const Timing t = timeCalls(1, 5, [&] { le::simd::fmaF16(a.data(), b.data(), c.data(), out.data(), kN); });
  hwy::SetSupportedTargetsForTest(0);
  hwy::GetChosenTarget().Update(hwy::SupportedTargets());
  return static_cast<double>(kN) / (t.cpuMs * 1e-3);
}

// Each layer of the network alone on one core, on random activations.
double layerTable(const le::conv::Engine& engine) {
  std::printf("\n  layer     out HxW   Cin(P) CoutP  k   fma/frame   ms (cpu)   G exact fma/s\n");
  std::mt19937 rng(11);
  std::normal_distribution<float> nd(0.0f, 1.0f);
  double total = 0.0, totalMs = 0.0;
  for (int l = 0; l < le::conv::kLayerCount; ++l) {
    const le::conv::ConvLayer& L = engine.layer(static_cast<le::conv::Layer>(l));
    const size_t rows = static_cast<size_t>(L.H + L.kH - 1), cols = static_cast<size_t>(L.W + L.kW - 1);
    std::vector<uint16_t> in(rows * cols * static_cast<size_t>(L.CinP));
    for (uint16_t& h : in) h = le::f32ToF16(nd(rng));
    std::vector<uint16_t> outHalf(static_cast<size_t>(L.H * L.W * L.CoutP));
    std::vector<float> outFloat(outHalf.size());
    const bool half = l != le::conv::kMaskOcc;
    const Timing t = timeCalls(0, 3, [&] {
      le::conv::runConv(L, in.data(), cols * static_cast<size_t>(L.CinP), half ? outHalf.data() : nullptr,
                        half ? nullptr : outFloat.data(), static_cast<size_t>(L.W * L.CoutP));
    });
    const double fmas = double(L.H) * L.W * L.CoutP * L.CinP * L.kH * L.kW;
    total += fmas;
    totalMs += t.cpuMs;
    std::printf("  %-8s %4dx%-4d %4d(%3d) %4d  %d  %10.1fM %10.2f   %6.2f\n", L.name.c_str(), L.H, L.W, L.Cin,
                L.CinP, L.CoutP, L.kH, fmas / 1e6, t.cpuMs, fmas / (t.cpuMs * 1e-3) / 1e9);
  }
  std::printf("  all      %10.1fM fused multiply-adds per frame, %.1f ms of CPU: %.2f G exact fma/s on one core\n",
              total / 1e6, totalMs, total / (totalMs * 1e-3) / 1e9);
  return total;
}

}  // namespace

int main(int argc, char** argv) {
  const int renders = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  char tmpl[] = "/tmp/le_bench_conv.XXXXXX";
  if (!mkdtemp(tmpl)) {
    std::fprintf(stderr, "conv: cannot make a temporary directory\n");
    return 1;
  }
  const std::string root = tmpl;
  int rc = 0;
  try {
    const std::string cmd =
        std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/conv_graphs.py bench " + root;
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("generating the m4b graph failed");
    Graph g;
    g.path = root + "/m4b.onnx";
    g.pooled = readAs<uint16_t>(root + "/pooled64.f16");
    g.prior = readAs<uint16_t>(root + "/P.f16");
    g.ks = readAs<float>(root + "/kp_source.f32");
    g.kd = readAs<float>(root + "/kp_driving.f32");
    std::printf("conv: the m4b graph at crop 512, batch %d, %d timed renders after 1 warm-up; kernel target %s\n"
                "per frame = per render / %d; wall is the median render, cpu the process CPU time per render\n\n",
                kBatch, renders, le::simd::targetName(le::simd::dispatchedTarget()), kBatch);
    std::printf("  threads | fused backend: wall ms/frame  cpu ms/frame  allocs/render | ONNX Runtime CPU: wall "
                "ms/frame  cpu ms/frame | backend/ORT (wall)\n");
    // The backend first, so that no ONNX Runtime thread is alive while it runs.
    Timing fused[2], ort[2];
    for (const int threads : {1, 2}) benchEngine(g, threads, renders, fused[threads - 1]);
    for (const int threads : {1, 2}) benchOrt(g, threads, renders, ort[threads - 1]);
    const double engineOneThreadCpu = fused[0].cpuMs / kBatch;
    for (const int threads : {1, 2}) {
      const Timing& e = fused[threads - 1];
      const Timing& o = ort[threads - 1];
      std::printf("  %7d | %28.1f %13.1f %14.0f | %30.1f %13.1f | %.2fx slower\n", threads, e.wallMs / kBatch,
                  e.cpuMs / kBatch, e.allocs, o.wallMs / kBatch, o.cpuMs / kBatch, e.wallMs / o.wallMs);
    }
    std::printf("\n  real time at 25 fps is 40 ms per frame%s\n",
                LE_BENCH_COUNT_ALLOCS ? "" : "; allocations are not counted in this build");

    std::printf("\n  exact half fused multiply-adds per second on one core, array kernel (load, fma, store):\n");
    const std::int64_t compiled = le::simd::compiledTargets() & (hwy::SupportedTargets() | HWY_SCALAR);
    for (std::int64_t rest = compiled; rest != 0; rest &= rest - 1) {
      const std::int64_t bit = rest & -rest;
      std::printf("    %-7s %.2f G/s\n", le::simd::targetName(bit), arrayRate(bit) / 1e9);
    }
    le::conv::Engine engine(g.path, 1);
    const double fmas = layerTable(engine);
    std::printf("  whole frame on one core: %.1f ms of CPU for %.0fM fused multiply-adds and the rest, %.2f G/s "
                "overall\n",
                engineOneThreadCpu, fmas / 1e6, fmas / (engineOneThreadCpu * 1e-3) / 1e9);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "conv: %s\n", e.what());
    rc = 1;
  }
  std::filesystem::remove_all(root);
  return rc;
}
