// GridSampleFast against ONNX Runtime's own GridSample (bilinear, border,
// align_corners=0) on the same input, each a one-node session, at the
// director's sampling sizes and at 1 and 2 intra-op threads. Prints the
// median and 99th percentile per run and the ratio ours/theirs.
//
// Usage: custom_ops [DATA_DIR]   (DATA_DIR: what tools/gen/gen_bundles.py
// wrote; default $LE_TEST_DATA). The graphs are DATA_DIR/ops/*.onnx.
#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "director/ops/custom_ops.h"

namespace {

struct Timing {
  double median, p99;
};

std::string readAll(const std::string& path) {
  std::ifstream f(path, std::ios::binary);
  if (!f) throw std::runtime_error("cannot read " + path);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

Timing timeGraph(Ort::Env& env, const std::string& model, const std::vector<float>& x, const std::vector<float>& grid,
                 const std::vector<int64_t>& xs, const std::vector<int64_t>& gs, int threads, int runs) {
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  le::registerGridSampleFast(options);
  Ort::Session session(env, model.data(), model.size(), options);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<float> out(x.size());
  Ort::Value in[2] = {
      Ort::Value::CreateTensor<float>(mem, const_cast<float*>(x.data()), x.size(), xs.data(), xs.size()),
      Ort::Value::CreateTensor<float>(mem, const_cast<float*>(grid.data()), grid.size(), gs.data(), gs.size())};
  Ort::Value y = Ort::Value::CreateTensor<float>(mem, out.data(), out.size(), xs.data(), xs.size());
  const char* inNames[] = {"X", "grid"};
  const char* outNames[] = {"Y"};
  std::vector<double> ms;
  for (int i = 0; i < runs + 5; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    session.Run(Ort::RunOptions{nullptr}, inNames, in, 2, outNames, &y, 1);
    const auto t1 = std::chrono::steady_clock::now();
    if (i >= 5) ms.push_back(std::chrono::duration<double, std::milli>(t1 - t0).count());
  }
  std::sort(ms.begin(), ms.end());
  return {ms[ms.size() / 2], ms[std::min(ms.size() - 1, ms.size() * 99 / 100)]};
}

}  // namespace

int main(int argc, char** argv) {
  const char* dir = argc > 1 ? argv[1] : std::getenv("LE_TEST_DATA");
  if (dir == nullptr) {
    std::fprintf(stderr, "usage: custom_ops DATA_DIR (the output of tools/gen/gen_bundles.py)\n");
    return 2;
  }
  try {
    Ort::Env env(ORT_LOGGING_LEVEL_WARNING, "custom_ops_bench");
    const std::string fast = readAll(std::string(dir) + "/ops/gridsample_fast.onnx");
    const std::string std_ = readAll(std::string(dir) + "/ops/gridsample_std.onnx");
    struct Size {
      int C, H, W;
    };
    std::printf("%-16s %7s  %22s  %22s  %7s\n", "input [C,H,W]", "threads", "GridSampleFast med/p99",
                "ORT GridSample med/p99", "ratio");
    for (const Size s : {Size{12, 512, 512}, Size{3, 512, 512}, Size{32, 128, 128}}) {
      std::mt19937 rng(1);
      std::uniform_real_distribution<float> px(0, 1), g(-1.05f, 1.05f);
      std::vector<float> x(static_cast<size_t>(s.C) * s.H * s.W), grid(static_cast<size_t>(s.H) * s.W * 2);
      for (float& v : x) v = px(rng);
      // A smooth warp of the identity grid, as the director's grids are.
      for (int y = 0; y < s.H; ++y)
        for (int c = 0; c < s.W; ++c) {
          const size_t at = (static_cast<size_t>(y) * s.W + c) * 2;
          grid[at] = (2.0f * c + 1) / s.W - 1 + 0.05f * g(rng);
          grid[at + 1] = (2.0f * y + 1) / s.H - 1 + 0.05f * g(rng);
        }
      const std::vector<int64_t> xs{1, s.C, s.H, s.W}, gs{1, s.H, s.W, 2};
      const int runs = s.C * s.H * s.W > 1000000 ? 40 : 200;
      for (int threads : {1, 2}) {
        const Timing a = timeGraph(env, fast, x, grid, xs, gs, threads, runs);
        const Timing b = timeGraph(env, std_, x, grid, xs, gs, threads, runs);
        char shape[32];
        std::snprintf(shape, sizeof shape, "[%d,%d,%d]", s.C, s.H, s.W);
        std::printf("%-16s %7d  %9.3f / %8.3f ms  %9.3f / %8.3f ms  %7.3f\n", shape, threads, a.median, a.p99,
                    b.median, b.p99, a.median / b.median);
      }
    }
  } catch (const std::exception& e) {
    std::fprintf(stderr, "custom_ops: %s\n", e.what());
    return 1;
  }
  return 0;
}
