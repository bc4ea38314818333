// a2x: the live speech path on a 60 s generated clip, on both frontends and
// at 1 and 2 threads, in one run: the real-time factor of the whole path
// (frontend, encoder, decoder: audio seconds per wall second), the audio a
// host must push before the first row, the steady lag between the audio
// pushed and the rows handed out, and heap allocations per row after
// warm-up. Lag figures are given twice: as the schedule predicts it from
// the sample counts alone, and as measured through the C interface.
//
// The frontends are loaded once per process, so each configuration runs in
// a child process (this program re-executed with --child); the parent
// prints the figures side by side.
//
// Usage: a2x [DATA_DIR]   (DATA_DIR: what tools/gen/gen_bundles.py wrote;
// default $LE_TEST_DATA). The bundle is DATA_DIR/sample.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "audio/a2x.h"
#include "audio/a2x_schedule.h"
#include "bench/alloc_count.h"
#include "bench/child_run.h"
#include "le/le_a2x.h"
#include "tests/audio/wav.h"

namespace {

using Clock = std::chrono::steady_clock;
using le::bench::allocations;

constexpr int kPush = 640;          // a host's push: one frame of audio
constexpr int kWarmRows = 250;      // rows before allocations are counted (10 s)

struct Lag {
  double min = 1e9, max = -1e9, sum = 0.0;
  long long n = 0;
  void add(double v) {
    min = std::min(min, v);
    max = std::max(max, v);
    sum += v;
    ++n;
  }
  double mean() const { return n ? sum / static_cast<double>(n) : 0.0; }
};

// The frames pulled after s samples were pushed, as the schedule alone says.
int predictedRows(const le_a2x& a, long long s) {
  using namespace le::a2x;
  return readyFrames(audioFramesOf(usableSamples(s, false)), false, a.windowLayers, a.lag);
}

// One configuration, in this process: prints one line of key=value figures.
int child(const std::string& data, const std::string& clipPath) {
  const std::vector<float> pcm = le::test::readWav(clipPath);
  const int threads = std::atoi(std::getenv("LE_A2X_BENCH_THREADS"));
  const auto c0 = Clock::now();
  le_a2x* a = le_a2x_create((data + "/sample").c_str(), threads);
  if (!a) throw std::runtime_error(std::string("le_a2x_create: ") + le_a2x_last_error());
  const double createMs = std::chrono::duration<double, std::milli>(Clock::now() - c0).count();

  // The first row: one sample at a time until a row can leave.
  long long firstMeasured = 0;
  for (long long s = 0; s < static_cast<long long>(pcm.size()); ++s) {
    le_a2x_push(a, pcm.data() + s, 1);
    if (le_a2x_avail(a) > 0) {
      firstMeasured = s + 1;
      break;
    }
  }
  long long firstPredicted = 0;
  while (predictedRows(*a, firstPredicted) == 0) ++firstPredicted;

  // The whole clip as a live host pushes it: a frame at a time, every row
  // taken as soon as it is offered.
  le_a2x_reset(a, 0, 1, 1);
  std::vector<int> rows(64);
  std::vector<float> xs(64 * 63), xd(64 * 63);
  Lag measured, predicted;
  int pulled = 0;
  uint64_t allocStart = 0;
  int allocRows = 0;
  const auto t0 = Clock::now();
  for (size_t at = 0; at < pcm.size(); at += kPush) {
    const int n = static_cast<int>(std::min<size_t>(kPush, pcm.size() - at));
    le_a2x_push(a, pcm.data() + at, n);
    for (int k; (k = le_a2x_avail(a)) > 0;) pulled += le_a2x_pull(a, rows.data(), xs.data(), xd.data(), std::min(k, 64));
    const long long s = static_cast<long long>(at) + n;
    const double framesPushed = static_cast<double>(s) / kPush;
    if (pulled > 0) {  // steady: from the first row to the end of the audio
      measured.add(framesPushed - pulled);
      predicted.add(framesPushed - predictedRows(*a, s));
    }
    if (pulled >= kWarmRows && allocRows == 0) {
      allocStart = allocations();
      allocRows = pulled;
    }
  }
  const uint64_t allocEnd = allocations();
  const int rowsCounted = pulled - allocRows;
  le_a2x_finish(a);
  for (int k; pulled < le_a2x_total(a) && (k = le_a2x_pull(a, rows.data(), xs.data(), xd.data(), 64)) > 0;) pulled += k;
  const double wall = std::chrono::duration<double>(Clock::now() - t0).count();
  if (pulled != le_a2x_total(a)) throw std::runtime_error("the stream stopped short: " + std::string(le_a2x_last_error()));

  // ONNX Runtime's own share: one decoder step over buffers bound once,
  // which allocates nothing of ours.
  const uint64_t d0 = allocations();
  for (int i = 0; i < 100; ++i) a->decodeStep(a->band.data(), a->prev.data(), a->hState.data());
  const double decoderAllocs = static_cast<double>(allocations() - d0) / 100.0;

  std::printf("frontend=%s threads=%d rtf=%.2f wall=%.3f create_ms=%.1f rows=%d first_pred=%lld first_meas=%lld "
              "lag_pred=%.2f/%.2f/%.2f lag_meas=%.2f/%.2f/%.2f allocs_per_row=%.2f decoder_run_allocs=%.1f\n",
              a->shortWindow ? "short" : "8s", a->threads, static_cast<double>(pcm.size()) / 16000.0 / wall, wall,
              createMs, pulled, firstPredicted, firstMeasured, predicted.min, predicted.mean(), predicted.max,
              measured.min, measured.mean(), measured.max,
              rowsCounted > 0 ? static_cast<double>(allocEnd - allocStart) / rowsCounted : -1.0, decoderAllocs);
  le_a2x_destroy(a);
  return 0;
}

// Runs this program as a child for one configuration; returns its line.
std::string runChild(const std::string& self, const std::string& data, const std::string& clipPath,
                     const std::string& w2v, int threads) {
  const auto setup = [&] {
    // The table says which frontend served; the fallback line of the 8 s
    // rows would only interleave with it.
    if (FILE* null = std::fopen("/dev/null", "w")) dup2(fileno(null), 2);
    setenv("W2V_ONNX", w2v.c_str(), 1);
    setenv("LE_A2X_BENCH_THREADS", std::to_string(threads).c_str(), 1);
    setenv("LE_CORE_THREADS", std::to_string(threads).c_str(), 1);
    setenv("KESTROVA_ENGINE_QUIET", "1", 1);
    for (const char* v : {"LE_A2X_W2V_WIN_ONNX", "LE_A2X_W2V_HEAD_ONNX", "LE_A2X_W2V_RIGHT", "LE_A2X_SILENCE_PRIME"})
      unsetenv(v);
  };
  return le::bench::runChild(self, {data, clipPath}, setup, "w2v " + w2v);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 4 && std::strcmp(argv[1], "--child") == 0) return child(argv[2], argv[3]);
    const char* dir = argc > 1 ? argv[1] : std::getenv("LE_TEST_DATA");
    if (!dir) {
      std::fprintf(stderr, "usage: a2x DATA_DIR (the output of tools/gen/gen_bundles.py)\n");
      return 2;
    }
    const std::string data = dir;
    char tmpl[] = "/tmp/le_bench_a2x.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    const std::string root = tmpl, clipPath = root + "/speech_60s.wav";
    const std::string cmd = std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/speech_clip.py " + clipPath + " 60";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("generating the 60 s clip failed");
    const std::string self = std::filesystem::canonical("/proc/self/exe").string();

    std::printf("a2x: 60 s generated speech (tools/gen/speech_clip.py), bundle %s/sample, pushes of %d samples,\n"
                "every offered row pulled at once; lag in frames of audio pushed ahead of the rows pulled, from the\n"
                "first row to the end of the audio (min / mean / max); allocations per row from row %d to the end%s\n\n",
                data.c_str(), kPush, kWarmRows, LE_BENCH_COUNT_ALLOCS ? "" : " (not counted in this build)");
    std::printf("%-12s %7s %8s %9s  %-28s  %-19s  %-19s  %10s  %s\n", "frontend", "threads", "RTF", "create",
                "first row (samples pred/meas)", "lag pred", "lag meas", "allocs/row", "of which per decoder run");
    for (const char* frontend : {"short", "8s"}) {
      const std::string w2v = data + (std::strcmp(frontend, "short") == 0 ? "/audio/w2v/w2v.onnx" : "/audio/w2v8only/w2v.onnx");
      for (int threads : {1, 2}) {
        auto kv = le::bench::parseKeyValues(runChild(self, data, clipPath, w2v, threads));
        const long long fp = std::atoll(kv["first_pred"].c_str()), fm = std::atoll(kv["first_meas"].c_str());
        char first[64];
        std::snprintf(first, sizeof first, "%lld / %lld (%.0f ms)", fp, fm, static_cast<double>(fm) / 16.0);
        std::printf("%-12s %7s %7sx %6s ms  %-28s  %-19s  %-19s  %10s  %s\n",
                    kv["frontend"] == "short" ? "short-window" : "8 s", kv["threads"].c_str(), kv["rtf"].c_str(),
                    kv["create_ms"].c_str(), first, kv["lag_pred"].c_str(), kv["lag_meas"].c_str(),
                    kv["allocs_per_row"].c_str(), kv["decoder_run_allocs"].c_str());
        if (kv["frontend"] != frontend) std::printf("  (asked for %s)\n", frontend);
      }
    }
    std::printf("\nRTF: audio seconds per wall second, creation excluded. Allocations after warm-up are ONNX\n"
                "Runtime's own inside Session::Run (one decoder run per row, one encoder run and the frontend's\n"
                "runs per block or window) and the input tensor wrappers of those runs; the stream's own buffers\n"
                "no longer allocate.\n");
    std::filesystem::remove_all(root);
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "a2x: %s\n", e.what());
    return 1;
  }
}
