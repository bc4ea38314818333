// batch: one generated clip (60 s unless told) through the batch session
// (le_stream_run) beside the same clip through a live session pulled as fast
// as possible, on the streaming model and on the motion pipeline, at crop 256
// and 512: frames per second and the real-time factor (wall time over audio
// time; below 1 is faster than real time). Then the two live audio models on
// the same clip, pushed a frame of audio (640 samples) at a time as fast as
// they take it: rows per second, and the first row's latency, as audio
// pushed before it could leave and as compute time from the first push.
//
// Bundles (1280x720 driver, tools/gen/motion_graphs.py bench on top of
// tools/gen/session_bench.py) and the clip (tools/gen/speech_clip.py) are
// generated at run time into a temporary directory. The live session renders
// with the bundle's chunk graph (b4_fp32) after each utterance's first frame,
// its fastest road; the batch session renders frame by frame. W2V_ONNX must
// name a generated speech encoder, e.g. build/tests/data/audio/w2v/w2v.onnx
// with its short-window pair beside it.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "compute/threads.h"
#include "le/le.h"
#include "tests/audio/wav.h"
#include "le/le_stream.h"
#include "le/le_utt.h"
#include "session/motion_family.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) { return std::chrono::duration<double, std::milli>(Clock::now() - t0).count(); }

void run(const std::string& cmd) {
  if (std::system(cmd.c_str()) != 0) throw std::runtime_error("failed: " + cmd);
}

struct Figures {
  int frames = 0;
  double ms = 0.0;
  uint64_t touched = 0;  // a byte of every frame, so that the frames are read
};

int countFrame(void* user, int32_t, const uint8_t* rgb, int32_t, int32_t) {
  auto* f = static_cast<Figures*>(user);
  ++f->frames;
  f->touched += rgb[0];
  return 0;
}

Figures batch(const std::string& dir, const std::string& w2v, const std::vector<float>& pcm, int threads) {
  le_stream* s = le_stream_create(dir.c_str(), w2v.c_str(), threads, 0, 1.0f);
  if (!s) throw std::runtime_error(le_stream_last_error());
  Figures f;
  const auto t0 = Clock::now();
  const int r = le_stream_run(s, pcm.data(), static_cast<int>(pcm.size()), countFrame, &f);
  f.ms = msSince(t0);
  const std::string why = le_stream_last_error();
  le_stream_destroy(s);
  if (r != f.frames) throw std::runtime_error("le_stream_run gave " + std::to_string(r) + ": " + why);
  return f;
}

// Pushes the whole clip at once, ends the utterance and pulls as fast as the
// session gives frames, until the last speech frame.
Figures live(const std::string& dir, const std::vector<int16_t>& pcm, int threads) {
  le_ctx* ctx = le_create(dir.c_str(), "b1_fp32", threads, nullptr);
  if (!ctx) throw std::runtime_error(le_last_error());
  le_utt_opts o{};
  o.motion_dir = dir.c_str();
  o.threads = threads;
  o.steady_model = "b4_fp32";
  le_utt* utt = le_utt_create(ctx, &o);
  if (!utt) {
    le_destroy(ctx);
    throw std::runtime_error(le_utt_last_error());
  }
  const auto wait0 = Clock::now();
  int ready;
  while ((ready = le_utt_ready(utt)) == 0 && msSince(wait0) < 120000)
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  std::string why = le_utt_last_error();
  Figures f;
  if (ready == 1) {
    const int want = static_cast<int>((pcm.size() + 639) / 640);
    std::vector<uint8_t> rgb(static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3);
    le_utt_frame_info info{};
    const auto t0 = Clock::now();
    le_utt_push_audio(utt, pcm.data(), static_cast<int>(pcm.size()));
    le_utt_end_utterance(utt);
    while (f.frames < want && msSince(t0) < 600000) {
      if (le_utt_pull_frame(utt, rgb.data(), rgb.size(), &info) == 1) {
        f.frames += info.type == 1;
      } else {
        std::this_thread::sleep_for(std::chrono::microseconds(100));
      }
    }
    f.ms = msSince(t0);
    if (f.frames < want) why = "only " + std::to_string(f.frames) + " of " + std::to_string(want) + " speech frames";
  }
  le_utt_destroy(utt);
  le_destroy(ctx);
  if (ready != 1 || f.frames == 0) throw std::runtime_error("live session: " + why);
  return f;
}

struct ModelFigures {
  int rows = 0;
  double ms = 0.0, firstAudioMs = -1.0, firstComputeMs = -1.0;
};

// The model as the session's dispatch thread drives it, a frame of audio a
// step: push, avail, pull what is there; then finish and drain.
ModelFigures model(const le::session::MotionFamily& fam, void* m, const std::vector<float>& pcm) {
  fam.reset(m, 0, 1, 1);
  ModelFigures f;
  std::vector<int> si(4096);
  std::vector<float> xs(4096 * 63), xd(4096 * 63);
  auto drain = [&](double pushedMs, Clock::time_point t0) {
    int a;
    while ((a = fam.avail(m)) > 0) {
      const int got = fam.pull(m, si.data(), xs.data(), xd.data(), a < 4096 ? a : 4096);
      if (got < 1) break;
      if (f.rows == 0) {
        f.firstAudioMs = pushedMs;
        f.firstComputeMs = msSince(t0);
      }
      f.rows += got;
    }
  };
  const auto t0 = Clock::now();
  for (size_t at = 0; at < pcm.size(); at += 640) {
    const size_t n = pcm.size() - at < 640 ? pcm.size() - at : 640;
    fam.push(m, pcm.data() + at, static_cast<int>(n));
    drain(static_cast<double>(at + n) / 16.0, t0);
  }
  fam.finish(m);
  drain(static_cast<double>(pcm.size()) / 16.0, t0);
  f.ms = msSince(t0);
  return f;
}

void printModel(const char* name, const ModelFigures& f, double seconds) {
  std::printf("  %-30s %6d rows in %9.1f ms: %9.1f rows/s (%6.1fx real time) | first row after %6.0f ms of audio, "
              "%7.1f ms of compute from the first push\n",
              name, f.rows, f.ms, f.rows / (f.ms / 1000.0), seconds * 1000.0 / f.ms, f.firstAudioMs, f.firstComputeMs);
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60.0;
  const char* w2v = std::getenv("W2V_ONNX");
  if (!w2v || !*w2v) {
    std::fprintf(stderr, "batch: set W2V_ONNX to a generated speech encoder (build/tests/data/audio/w2v/w2v.onnx)\n");
    return 2;
  }
  if (!(seconds > 0.0 && seconds < 3600.0)) {
    std::fprintf(stderr, "batch: the clip length must be a positive number of seconds below 3600\n");
    return 2;
  }
  char tmpl[] = "/tmp/le_bench_batch.XXXXXX";
  if (!mkdtemp(tmpl)) {
    std::fprintf(stderr, "batch: cannot make a temporary directory\n");
    return 1;
  }
  const std::string root = tmpl;
  int rc = 0;
  try {
    const int threads = le::pool::threads();
    const std::string gen = std::string("/usr/bin/python3 ") + LE_SOURCE_DIR + "/tools/gen/";
    run(gen + "speech_clip.py " + root + "/clip.wav " + std::to_string(seconds));
    const std::vector<int16_t> pcm16 = le::test::readWav16(root + "/clip.wav");
    std::vector<float> pcm(pcm16.size());
    for (size_t i = 0; i < pcm.size(); ++i) pcm[i] = static_cast<float>(pcm16[i]) * 3.0517578e-5f;
    const double audioMs = static_cast<double>(pcm.size()) / 16.0;
    std::printf("batch: a %.1f s generated speech clip (%zu frames), %d threads (LE_CORE_THREADS), ONNX Runtime CPU "
                "provider, W2V_ONNX=%s\n",
                audioMs / 1000.0, (pcm.size() + 639) / 640, threads, w2v);
    for (const int crop : {256, 512}) {
      const std::string dir = root + "/crop" + std::to_string(crop);
      run(gen + "motion_graphs.py bench " + dir + " " + std::to_string(crop));
      // The same bundle without the streaming encoder: live on the motion pipeline.
      const std::string motionDir = dir + "_motion";
      std::filesystem::copy(dir, motionDir, std::filesystem::copy_options::recursive);
      std::filesystem::remove(motionDir + "/a2x_enc_stream.onnx");
      const Figures b = batch(dir, w2v, pcm, threads);
      const Figures la = live(dir, pcm16, threads);
      const Figures lm = live(motionDir, pcm16, threads);
      auto line = [&](const char* name, const Figures& f) {
        std::printf("  crop %3d | %-34s %5d frames in %9.1f ms: %7.2f fps, RTF %.3f\n", crop, name, f.frames, f.ms,
                    f.frames / (f.ms / 1000.0), f.ms / audioMs);
      };
      line("le_stream_run (batch)", b);
      line("live session, le_a2x", la);
      line("live session, le_motion", lm);
      std::printf("  crop %3d | batch / live: %.2fx (le_a2x), %.2fx (le_motion)\n", crop,
                  (b.frames / b.ms) / (la.frames / la.ms), (b.frames / b.ms) / (lm.frames / lm.ms));
    }

    std::printf("audio models on the same clip, a frame of audio a step, as fast as they take it:\n");
    const std::string dir = root + "/crop256";
    const le::session::MotionFamily& a2x = le::session::a2xFamily();
    const le::session::MotionFamily& mot = le::session::motionFamily();
    void* a = a2x.create(dir.c_str(), threads, "");
    if (!a) throw std::runtime_error(a2x.lastError());
    printModel("le_a2x", model(a2x, a, pcm), audioMs / 1000.0);
    a2x.destroy(a);
    void* m = mot.create(dir.c_str(), threads, "");
    if (!m) throw std::runtime_error(mot.lastError());
    for (const int eager : {-1, 3, 0}) {
      mot.setEager(m, eager);
      const std::string name = "le_motion, eager " + std::to_string(eager) + (eager == -1 ? " (automatic)" : "");
      printModel(name.c_str(), model(mot, m, pcm), audioMs / 1000.0);
    }
    mot.destroy(m);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "batch: %s\n", e.what());
    rc = 1;
  }
  std::filesystem::remove_all(root);
  return rc;
}
