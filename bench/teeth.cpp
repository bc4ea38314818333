// teeth: the teeth pass and the live session with teeth.
//
//   1. The pass at the serving configuration's defaults (kshort 512, cut 96,
//      K 64, hysteresis 8, look-ahead 8) on a bank of 1024 donors, the
//      loader's cap, with a 128 x 64 mouth window on a 512 canvas (data made
//      here from a fixed seed): ms per frame at 1 and 2 threads, each count
//      in a process of its own, beside the plain scalar reference of the
//      tests, and where the time goes. The engine's windows are checked
//      against the reference's, byte for byte.
//   2. The live session on the generated teeth bundle (crop 128,
//      DATA_DIR/teeth/session): sustained speech frames per second with a
//      host pulling as fast as frames come, with teeth attached and without,
//      on the pipelined and the inline road.
//
// Usage: teeth [DATA_DIR]   (DATA_DIR: the output of tools/gen/gen_bundles.py;
// without it, or without W2V_ONNX, the session part is skipped)
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bench/child_run.h"
#include "bench/session_host.h"
#include "compute/threads.h"
#include "le/le.h"
#include "tests/audio/wav.h"
#include "le/le_tessera.h"
#include "le/le_utt.h"
#include "tessera/teeth_pass.h"
#include "tests/support/xorshift.h"
#include "tests/tessera/teeth_reference.h"

namespace {

using Clock = std::chrono::steady_clock;
using le::tessera::FrameResult;
using le::tessera::TeethPass;

double msSince(Clock::time_point t) { return std::chrono::duration<double, std::milli>(Clock::now() - t).count(); }

// CPU time of the whole process, all threads, in ms.
double cpuMs() {
  rusage u{};
  getrusage(RUSAGE_SELF, &u);
  return (u.ru_utime.tv_sec + u.ru_stime.tv_sec) * 1e3 + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e3;
}

constexpr int kCanvas = 512, kDonors = 1024, kFrames = 16;

using Rng = le::test::XorShift64;

uint8_t clampByte(double v) { return static_cast<uint8_t>(std::min(std::max(v, 0.0), 255.0)); }

// Lips, a dark mouth and a band of bright, neutral teeth on an RGB image.
void paintMouth(std::vector<uint8_t>& img, int w, int h, double cx, double cy, double hw, double ho, Rng& r) {
  for (int y = std::max(0, static_cast<int>(cy - ho - 4)); y < std::min(h, static_cast<int>(cy + ho + 5)); ++y)
    for (int x = std::max(0, static_cast<int>(cx - hw - 4)); x < std::min(w, static_cast<int>(cx + hw + 5)); ++x) {
      const double u = (x - cx) / (hw + 3), v = (y - cy) / (ho + 4), d = u * u + v * v;
      if (d > 1.0) continue;
      uint8_t* p = img.data() + (static_cast<size_t>(y) * w + x) * 3;
      if (d > 0.55) {
        p[0] = clampByte(170 + r.unit53() * 10);
        p[1] = clampByte(70 + r.unit53() * 10);
        p[2] = clampByte(72 + r.unit53() * 10);
      } else if (std::abs(y - cy) < ho * 0.6) {
        const double t = 200 + r.unit53() * 40;
        p[0] = clampByte(t);
        p[1] = clampByte(t - r.unit53() * 6);
        p[2] = clampByte(t - 10 - r.unit53() * 8);
      } else {
        p[0] = 55, p[1] = 28, p[2] = 30;
      }
    }
}

struct PassData {
  le::BankData bank;
  le::tessera::HeadWeights head;
  le::tessera::ServeConfig cfg;  // the serving defaults
  std::vector<uint8_t> rgb, pi;  // kFrames canvases and masks

  PassData() {
    Rng r{0x7EE7BE4C};
    le::GeometryStamp& s = bank.stamp;
    s.v = {kCanvas, kCanvas, 192, 320, 128, 64, 8, 8, 56, 16, 112, 6};
    const int sh = static_cast<int>(s.storedH()), sw = static_cast<int>(s.storedW());
    bank.n = kDonors;
    bank.refs.resize(static_cast<size_t>(kDonors) * sh * sw * 3);
    const double mx = 64 - s.band_c0() + s.shift_margin(), my = 32 - s.band_r0() + s.shift_margin();
    for (int q = 0; q < kDonors; ++q) {
      std::vector<uint8_t> patch(static_cast<size_t>(sh) * sw * 3);
      const double base[3] = {196 + r.unit53() * 30 - 15, 148 + r.unit53() * 30 - 15, 128 + r.unit53() * 30 - 15};
      for (size_t i = 0; i < patch.size(); ++i) patch[i] = clampByte(base[i % 3] + r.unit53() * 16 - 8);
      const double open = 3 + 9 * r.unit53();
      paintMouth(patch, sw, sh, mx, my, 36 + 10 * r.unit53(), open, r);
      std::copy(patch.begin(), patch.end(), bank.refs.begin() + static_cast<ptrdiff_t>(q) * sh * sw * 3);
      bank.aperture.push_back(0.04 + open / 30.0 + 0.05 * r.unit53());
    }
    rgb.resize(static_cast<size_t>(kFrames) * kCanvas * kCanvas * 3);
    pi.resize(static_cast<size_t>(kFrames) * kCanvas * kCanvas);
    for (int f = 0; f < kFrames; ++f) {
      std::vector<uint8_t> img(static_cast<size_t>(kCanvas) * kCanvas * 3);
      for (size_t i = 0; i < img.size(); ++i) img[i] = clampByte((i % 3 == 0 ? 170 : i % 3 == 1 ? 120 : 100) + r.unit53() * 30);
      const double cx = 256 + 3 * (r.unit53() - 0.5), cy = 352 + 3 * (r.unit53() - 0.5);
      paintMouth(img, kCanvas, kCanvas, cx, cy, 40, 6 + 6 * r.unit53(), r);
      std::copy(img.begin(), img.end(), rgb.begin() + static_cast<ptrdiff_t>(f) * kCanvas * kCanvas * 3);
      uint8_t* m = pi.data() + static_cast<size_t>(f) * kCanvas * kCanvas;
      for (int y = 0; y < kCanvas; ++y)
        for (int x = 0; x < kCanvas; ++x) {
          const double u = (x - cx) / 50.0, v = (y - cy) / 22.0, d = std::sqrt(u * u + v * v);
          m[static_cast<size_t>(y) * kCanvas + x] = clampByte((1.0 - d) * 10.0 * 255.0);
        }
    }
    bank.c_canon = {256.0, 352.0};
    for (int q = 0; q < kDonors; ++q) {
      bank.cent.push_back(256.0 + 8 * r.unit53() - 4);
      bank.cent.push_back(352.0 + 8 * r.unit53() - 4);
    }
    auto fill = [&](std::vector<float>& t, size_t n) {
      t.resize(n);
      for (float& v : t) v = static_cast<float>((r.unit53() - 0.5) * 0.5);
    };
    fill(head.cand0_w, 1008);
    fill(head.cand0_b, 16);
    fill(head.cand2_w, 2304);
    fill(head.cand2_b, 16);
    fill(head.cand4_w, 144);
    fill(head.cand4_b, 1);
  }
  const uint8_t* canvas(int f) const { return rgb.data() + static_cast<size_t>(f) * kCanvas * kCanvas * 3; }
  const uint8_t* mask(int f) const { return pi.data() + static_cast<size_t>(f) * kCanvas * kCanvas; }
};

// One thread count, in this process: a line of key=value.
int childPass() {
  const PassData d;
  auto t0 = Clock::now();
  TeethPass pass(d.bank, d.head, d.cfg);
  const double build = msSince(t0);
  FrameResult r;
  pass.push(0, d.canvas(0), d.mask(0), nullptr, r);
  pass.push(1, d.canvas(1), d.mask(1), nullptr, r);  // warm: every buffer at its size
  const le::tessera::PhaseTimes before = pass.phaseTimes();
  std::vector<double> ms;
  const double cpu0 = cpuMs();
  for (int f = 2; f < kFrames; ++f) {
    t0 = Clock::now();
    pass.push(f, d.canvas(f), d.mask(f), nullptr, r);
    ms.push_back(msSince(t0));
  }
  const int n = static_cast<int>(ms.size());
  const double cpu = (cpuMs() - cpu0) / n;
  std::sort(ms.begin(), ms.end());
  le::tessera::PhaseTimes t = pass.phaseTimes();
  auto avg = [&](double now, double was) { return (now - was) / n; };
  std::printf("threads=%d push_ms=%.2f best_ms=%.2f cpu_ms=%.2f build_ms=%.1f prepare=%.2f pooled=%.2f exact=%.2f select=%.3f "
              "gather=%.2f convs=%.2f blend=%.2f compose=%.2f merged=%d\n",
              le::pool::threads(), ms[ms.size() / 2], ms.front(), cpu, build, avg(t.prepare, before.prepare), avg(t.pooled, before.pooled),
              avg(t.exact, before.exact), avg(t.select, before.select), avg(t.gather, before.gather),
              avg(t.convs, before.convs), avg(t.blend, before.blend), avg(t.compose, before.compose), r.n);
  return 0;
}

std::string runChild(const std::string& self, int threads) {
  return le::bench::runChild(self, {}, [&] { setenv("LE_CORE_THREADS", std::to_string(threads).c_str(), 1); });
}

// The scalar reference, single-threaded, and the engine's bytes against it.
void referenceRow(double* perFrame, bool* same) {
  const PassData d;
  le::test::teethref::Pass ref(d.bank, d.head, d.cfg);
  TeethPass pass(d.bank, d.head, d.cfg);
  le::test::teethref::Emitted want;
  FrameResult got;
  *same = true;
  constexpr int kRefFrames = 4;
  double total = 0;
  for (int f = 0; f < kRefFrames; ++f) {
    const auto t0 = Clock::now();
    const bool w = ref.push(f, d.canvas(f), d.mask(f), nullptr, want);
    if (f > 0) total += msSince(t0);
    const bool g = pass.push(f, d.canvas(f), d.mask(f), nullptr, got);
    *same = *same && w == g && got.rgb == want.rgb && got.n == want.n;
  }
  *perFrame = total / (kRefFrames - 1);
}

// ---- the session ----

struct Host : le::bench::SessionHost {
  using SessionHost::SessionHost;
  void attach(const std::string& bundle) {
    char err[1024];
    le_tessera_members* m = le_tessera_members_open(bundle.c_str(), err, sizeof err);
    if (!m) throw std::runtime_error(err);
    FILE* f = std::fopen(le_tessera_members_bank_track_path(m), "rb");
    std::vector<uint8_t> track(static_cast<size_t>(le_tessera_members_band_bytes(m))), donors(track.size());
    const bool read = f && std::fread(track.data(), 1, track.size(), f) == track.size();
    if (f) std::fclose(f);
    const bool ok = read && le_tessera_members_reorder(m, track.data(), donors.data(), err, sizeof err) == 0 &&
                    le_utt_tessera_attach(utt, donors.data(), le_tessera_members_n_donors(m), le_tessera_members_cent(m),
                                          le_tessera_members_c_canon(m), le_tessera_members_aperture(m),
                                          le_tessera_members_stamp(m), le_tessera_members_head_pt(m),
                                          le_tessera_members_head_pt_len(m), le_tessera_members_head_json(m),
                                          le_tessera_members_manifest_json(m), err, sizeof err) == 0;
    le_tessera_members_close(m);
    if (!ok) throw std::runtime_error(read ? err : "cannot read the reference track");
  }
};

// Sustained speech fps: the whole clip at once, pulled as fast as frames
// come. Returns the fps; *frameMs gets the worker's cost per speech frame.
double sessionRun(const std::string& bundle, const std::vector<int16_t>& clip, bool teeth, const char* road,
                  double* frameMs) {
  setenv("LE_UTT_PIPELINE_PASTE", road, 1);
  Host h(bundle);
  if (teeth) h.attach(bundle);
  le_utt_frame_info info;
  for (const auto w0 = Clock::now(); msSince(w0) < 200;)
    if (!h.pull(&info)) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  const auto t0 = Clock::now();
  le_utt_push_audio(h.utt, clip.data(), static_cast<int>(clip.size()));
  le_utt_end_utterance(h.utt);
  const int total = static_cast<int>((clip.size() + 639) / 640);
  int speech = 0;
  double first = -1, last = 0;
  while (speech < total && msSince(t0) < 600000) {
    if (h.pull(&info) != 1) {
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      continue;
    }
    if (info.type != 1) continue;
    if (++speech == 1) first = msSince(t0);
    last = msSince(t0);
  }
  le_utt_stats st{};
  le_utt_get_stats(h.utt, &st);
  uint64_t ok = 0;
  if (teeth && (le_utt_tessera_stats(h.utt, &ok, nullptr, nullptr, 0) != 1 || ok + 1 < static_cast<uint64_t>(speech)))
    throw std::runtime_error("the teeth didn't correct every frame");
  *frameMs = st.frame_ms;
  return (speech - 1) / ((last - first) / 1000.0);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc == 2 && std::strcmp(argv[1], "--child") == 0) return childPass();
    const std::string self = std::filesystem::canonical("/proc/self/exe").string();
    std::printf("teeth pass: %d donors, canvas %d, window 128x64, serving defaults (kshort 512, cut 96, K 64,\n"
                "hysteresis 8, look-ahead 8), %d frames; ms per frame in steady state (retrieval of the new frame and\n"
                "emission of the one before it), median and best of the frames after two warm-up pushes\n\n",
                kDonors, kCanvas, kFrames);
    std::map<int, std::map<std::string, std::string>> rows;
    for (int threads : {1, 2}) rows[threads] = le::bench::parseKeyValues(runChild(self, threads));
    double refMs = 0;
    bool same = false;
    referenceRow(&refMs, &same);
    std::printf("  %-28s %10s %8s %12s %10s\n", "", "median ms", "best ms", "cpu ms/frame", "vs scalar");
    for (int threads : {1, 2}) {
      const double ms = std::atof(rows[threads]["push_ms"].c_str());
      std::printf("  engine, %d thread%s %-17s %10.2f %8s %12s %9.1fx   (index build %s ms)\n", threads,
                  threads > 1 ? "s" : " ", "", ms, rows[threads]["best_ms"].c_str(), rows[threads]["cpu_ms"].c_str(),
                  refMs / ms, rows[threads]["build_ms"].c_str());
    }
    std::printf("  %-28s %10.2f %8s %12s %9s   (engine's windows %s)\n", "scalar reference, 1 thread", refMs, "", "",
                "1.0x", same ? "byte-identical" : "DIFFER");
    std::printf("  (cpu ms/frame: the process's CPU time over the timed frames, all threads; on a machine shared\n"
                "  with other work it shows what the wall time would be with the cores to itself)\n");
    std::printf("\n  where a frame's time goes, mean ms (1 thread / 2 threads), %s donors merged:\n",
                rows[1]["merged"].c_str());
    const char* phases[][2] = {{"prepare", "teeth mask, carry, pooling"},   {"pooled", "pooled score, 1024 donors"},
                               {"exact", "exact score, short list of 512"}, {"select", "aperture selection"},
                               {"gather", "merge, candidates, head mask"},  {"convs", "head input, 3 convolutions"},
                               {"blend", "upsample, softmax, blend"},       {"compose", "carried donors, compose"}};
    for (const auto& p : phases)
      std::printf("    %-8s %-32s %8s / %s\n", p[0], p[1], rows[1][p[0]].c_str(), rows[2][p[0]].c_str());

    const char* data = argc > 1 ? argv[1] : std::getenv("LE_TEST_DATA");
    if (!data || !std::getenv("W2V_ONNX")) {
      std::printf("\nsession: skipped (give DATA_DIR and set W2V_ONNX to DATA_DIR/audio/w2v/w2v.onnx)\n");
      return 0;
    }
    char tmpl[] = "/tmp/le_bench_teeth.XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("cannot make a temporary directory");
    const std::string root = tmpl;
    const std::string cmd = std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/speech_clip.py " + root +
                            "/clip.wav 20";
    if (std::system(cmd.c_str()) != 0) throw std::runtime_error("generating the clip failed");
    const std::vector<int16_t> clip = le::test::readWav16(root + "/clip.wav");
    std::filesystem::remove_all(root);
    const std::string bundle = std::string(data) + "/teeth/session";
    setenv("KESTROVA_ENGINE_QUIET", "1", 1);
    constexpr int kRuns = 3;
    std::printf("\nlive session, %s (crop 128, window 48x32, 40 donors, K 8),\n"
                "a 20 s generated clip pushed at once, speech frames pulled as fast as they come; %d runs of each,\n"
                "interleaved, median (and best) sustained fps, and the worker's smoothed cost per speech frame:\n",
                bundle.c_str(), kRuns);
    std::map<std::string, std::vector<std::pair<double, double>>> got;
    for (int run = 0; run < kRuns; ++run)
      for (const char* road : {"1", "0"})
        for (bool teeth : {false, true}) {
          double frameMs = 0;
          const double fps = sessionRun(bundle, clip, teeth, road, &frameMs);
          got[std::string(road) + (teeth ? "t" : "n")].emplace_back(fps, frameMs);
        }
    for (const char* road : {"1", "0"})
      for (bool teeth : {false, true}) {
        auto v = got[std::string(road) + (teeth ? "t" : "n")];
        std::sort(v.begin(), v.end());
        std::printf("  %-9s %-8s %7.1f fps (best %6.1f)   worker %5.2f ms/frame\n",
                    std::strcmp(road, "1") == 0 ? "pipelined" : "inline", teeth ? "teeth" : "no teeth", v[kRuns / 2].first,
                    v.back().first, v[kRuns / 2].second);
      }
    return 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "teeth: %s\n", e.what());
    return 1;
  }
}
