// session: the live session end to end on generated 1280x720 bundles at
// crop 256 and 512 (tools/gen/session_bench.py), through the C interface:
//   - sustained frames per second with a host pulling as fast as it can
//     (a whole clip pushed at once, no playout position, chunk renderer on);
//   - push-to-first-frame (first_frame_ms) for a host pushing a whole clip
//     at once and for one pushing 20 ms blocks in real time;
//   - the process's CPU use while idle, with a host pulling at 25 fps and
//     with nobody pulling;
//   - heap allocations per frame in steady state (idle frames, speech
//     frames), beside the renderer's own per call;
//   - where a frame's time goes: render, paste, driver pull, measured one at
//     a time on a second context.
// Needs W2V_ONNX (the generated speech encoder); the bundles and the clip
// are generated at run time into a temporary directory.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/alloc_count.h"
#include "bench/session_host.h"
#include "le/le.h"
#include "tests/audio/wav.h"
#include "le/le_utt.h"

namespace {

using Clock = std::chrono::steady_clock;
using le::bench::allocations;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

double cpuMs() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

void run(const std::string& cmd) {
  if (std::system(cmd.c_str()) != 0) throw std::runtime_error("failed: " + cmd);
}

struct Host : le::bench::SessionHost {
  using SessionHost::SessionHost;
  // Pulls at 25 fps for ms milliseconds; returns frames pulled.
  int pullPaced(double ms) {
    int got = 0;
    auto next = Clock::now();
    const auto t0 = Clock::now();
    while (msSince(t0) < ms) {
      le_utt_frame_info info;
      got += pull(&info);
      std::this_thread::sleep_until(next += std::chrono::milliseconds(40));
    }
    return got;
  }
  le_utt_stats stats() {
    le_utt_stats s{};
    le_utt_get_stats(utt, &s);
    return s;
  }
};

template <class F>
double medianMs(int n, F&& f) {
  std::vector<double> ms;
  for (int i = 0; i < n; ++i) {
    const auto t0 = Clock::now();
    f(i);
    ms.push_back(msSince(t0));
  }
  std::sort(ms.begin(), ms.end());
  return ms[ms.size() / 2];
}

void benchCrop(const std::string& root, int crop, const std::vector<int16_t>& clip) {
  const std::string dir = root + "/crop" + std::to_string(crop);
  run(std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/session_bench.py " + dir + " " +
      std::to_string(crop));
  std::printf("\ncrop %d, 1280x720 canvas, chunk renderer b4_fp32\n", crop);

  {  // Sustained: the whole clip at once, pulled as fast as frames come.
    Host h(dir, "b4_fp32");
    h.pullPaced(200);
    const auto t0 = Clock::now();
    le_utt_push_audio(h.utt, clip.data(), static_cast<int>(clip.size()));
    le_utt_end_utterance(h.utt);
    int speech = 0;
    double first_ms = -1, last_ms = 0;
    uint64_t a0 = 0, a1 = 0;
    const int total = static_cast<int>((clip.size() + 639) / 640);
    while (speech < total && msSince(t0) < 600000) {
      le_utt_frame_info info;
      if (h.pull(&info) != 1) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      if (info.type != 1) continue;
      ++speech;
      if (speech == 1) first_ms = msSince(t0);
      if (speech == 20) a0 = allocations();
      last_ms = msSince(t0);
    }
    a1 = allocations();
    const le_utt_stats st = h.stats();
    std::printf("  sustained, host pulling as fast as it can: %d speech frames in %.0f ms after the first: %.1f fps "
                "(worker frame cost %.1f ms); %.1f allocations per speech frame\n",
                speech, last_ms - first_ms, (speech - 1) / ((last_ms - first_ms) / 1000.0), st.frame_ms,
                speech > 20 ? static_cast<double>(a1 - a0) / (speech - 20) : 0.0);
    std::printf("  push-to-first-frame, whole clip pushed at once: %.0f ms\n", st.first_frame_ms);
  }
  {  // Real time: 20 ms blocks at their pace, pulled at 25 fps.
    Host h(dir, "b4_fp32");
    h.pullPaced(200);
    std::thread pusher([&] {
      auto next = Clock::now();
      for (size_t at = 0; at < 16000 * 3; at += 320) {
        le_utt_push_audio(h.utt, clip.data() + at, 320);
        std::this_thread::sleep_until(next += std::chrono::milliseconds(20));
      }
      le_utt_end_utterance(h.utt);
    });
    h.pullPaced(3500);
    pusher.join();
    std::printf("  push-to-first-frame, 20 ms blocks in real time: %.0f ms\n", h.stats().first_frame_ms);
  }
  {  // Idle: CPU and allocations.
    Host h(dir, "b4_fp32");
    h.pullPaced(500);
    double c0 = cpuMs();
    auto t0 = Clock::now();
    const uint64_t a0 = allocations();
    const int frames = h.pullPaced(3000);
    const uint64_t a1 = allocations();
    std::printf("  idle, host pulling at 25 fps: %.1f%% of one core, %d frames, %.2f allocations per frame\n",
                100.0 * (cpuMs() - c0) / msSince(t0), frames,
                frames ? static_cast<double>(a1 - a0) / frames : 0.0);
    c0 = cpuMs();
    t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::milliseconds(3000));
    std::printf("  idle, nobody pulling: %.1f%% of one core\n", 100.0 * (cpuMs() - c0) / msSince(t0));
  }
  {  // One frame's parts, one at a time, on a context of its own.
    le_ctx* ctx = le_create(dir.c_str(), "b1_fp32", 0, nullptr);
    if (!ctx) throw std::runtime_error(le_last_error());
    std::vector<float> ks(63, 0.0f), kd(63, 0.0f);
    std::vector<uint8_t> out(static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3);
    const float* crop_out = le_render_kp_crop(ctx, 0, ks.data(), kd.data());
    std::vector<float> crop_copy(crop_out, crop_out + static_cast<size_t>(crop) * crop * 3);
    uint64_t a0 = allocations();
    const double render = medianMs(15, [&](int i) { le_render_kp_crop(ctx, i % le_nt(ctx), ks.data(), kd.data()); });
    const double render_allocs = static_cast<double>(allocations() - a0) / 15;
    const double paste = medianMs(15, [&](int i) { le_paste_crop(ctx, i % le_nt(ctx), crop_copy.data(), out.data(), out.size()); });
    const double driver = medianMs(15, [&](int i) { le_target_frame(ctx, i % le_nt(ctx)); });
    std::printf("  one frame's parts (median): render %.1f ms (%.0f allocations per call, inside ONNX Runtime's Run), "
                "paste %.1f ms, driver pull %.1f ms\n",
                render, render_allocs, paste, driver);
    le_destroy(ctx);
  }
}

}  // namespace

int main(int argc, char** argv) {
  if (!std::getenv("W2V_ONNX")) {
    std::fprintf(stderr, "session: set W2V_ONNX to the generated speech encoder (data/audio/w2v/w2v.onnx)\n");
    return 2;
  }
  const int seconds = argc > 1 ? std::max(2, std::atoi(argv[1])) : 20;
  char tmpl[] = "/tmp/le_bench_session.XXXXXX";
  if (!mkdtemp(tmpl)) return 1;
  const std::string root = tmpl;
  int rc = 0;
  try {
    run(std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/speech_clip.py " + root + "/clip.wav " +
        std::to_string(seconds));
    const std::vector<int16_t> clip = le::test::readWav16(root + "/clip.wav");
    std::printf("session: a %d s generated clip; %s\n", seconds,
                LE_BENCH_COUNT_ALLOCS ? "allocations counted by the malloc hook" : "allocations not counted in this build");
    for (const int crop : {256, 512}) benchCrop(root, crop, clip);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "session: %s\n", e.what());
    rc = 1;
  }
  std::filesystem::remove_all(root);
  return rc;
}
