// le-live: a voice-agent host over the live session, through the public C
// interface (and the engine's PNG writer for the frames). One thread pushes a speech clip in 20 ms blocks at real
// time, another pulls frames at 25 fps and reports how far its audio has
// played; once mid-sentence the host interrupts and speaks again.
//
//   le-live [options] <bundle> <clip> <outdir>
//     --model KEY         director graph (default b1_fp32)
//     --steady KEY        chunk renderer ("-" for none; default: the session's)
//     --interrupt-at S    interrupt the first utterance S seconds in (default 1.6; 0: never)
//     --audio-delay-ms D  the host's audio output delay behind the push (default 1200)
//     --fast              push the whole clip at once and pull as fast as frames come
//
// Writes every pulled frame as <outdir>/frames/frame_NNNNNN.png, the pushed
// speech as <outdir>/speech.wav, one line per frame in <outdir>/frames.csv,
// and prints a summary.
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "driver/image_io.h"
#include "tools/speak/audio_input.h"
#include "tools/speak/wav_file.h"
#include "le/le.h"
#include "le/le_utt.h"

namespace {

using Clock = std::chrono::steady_clock;

double msSince(Clock::time_point t0) {
  return std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
}

struct Pulled {
  le_utt_frame_info info;
  double at_ms;
};

}  // namespace

int main(int argc, char** argv) {
  std::string model = "b1_fp32", steady;
  bool have_steady = false, fast = false;
  double interrupt_at = 1.6, delay_ms = 1200.0;
  std::vector<std::string> pos;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--model" && i + 1 < argc) model = argv[++i];
    else if (a == "--steady" && i + 1 < argc) steady = argv[++i], have_steady = true;
    else if (a == "--interrupt-at" && i + 1 < argc) interrupt_at = std::atof(argv[++i]);
    else if (a == "--audio-delay-ms" && i + 1 < argc) delay_ms = std::atof(argv[++i]);
    else if (a == "--fast") fast = true;
    else pos.push_back(a);
  }
  if (pos.size() != 3) {
    std::fprintf(stderr, "usage: le-live [--model KEY] [--steady KEY] [--interrupt-at S] [--audio-delay-ms D] [--fast] "
                         "<bundle> <clip> <outdir>\n");
    return 2;
  }
  const std::string bundle = pos[0], clip_path = pos[1], outdir = pos[2];
  std::vector<int16_t> clip;
  try {
    clip = le::speak::readAudio16k(clip_path);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "le-live: %s\n", e.what());
    return 1;
  }
  le_ctx* ctx = le_create(bundle.c_str(), model.c_str(), 0, nullptr);
  if (!ctx) {
    std::fprintf(stderr, "le-live: %s\n", le_last_error());
    return 1;
  }
  le_utt_opts opts{};
  opts.motion_dir = bundle.c_str();
  if (have_steady) opts.steady_model = steady.c_str();
  const auto t_open = Clock::now();
  le_utt* utt = le_utt_create(ctx, &opts);
  if (!utt) {
    std::fprintf(stderr, "le-live: %s\n", le_utt_last_error());
    le_destroy(ctx);
    return 1;
  }
  const int W = le_width(ctx), H = le_height(ctx);
  const size_t frame_bytes = static_cast<size_t>(W) * H * 3;
  std::filesystem::create_directories(outdir + "/frames");

  // Idle frames flow while the models warm up; speech waits for ready.
  int ready = 0;
  while ((ready = le_utt_ready(utt)) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));
  if (ready < 0) {
    std::fprintf(stderr, "le-live: warm-up failed: %s\n", le_utt_last_error());
    le_utt_destroy(utt);
    le_destroy(ctx);
    return 1;
  }
  std::printf("le-live: session warm after %.0f ms (%dx%d, crop %d)\n", msSince(t_open), W, H, le_crop(ctx));

  // The speech the host sends: the clip up to the interrupt, then the whole
  // clip again.
  const size_t block = 320;  // 20 ms
  const size_t cut = interrupt_at > 0 ? std::min(clip.size(), static_cast<size_t>(interrupt_at * 16000)) : 0;
  std::vector<int16_t> spoken;
  std::atomic<int64_t> stream_pushed{0};       // samples in the stream since open or the last interrupt
  std::atomic<double> stream_start_ms{-1.0};   // when the current stream's first sample was pushed
  std::atomic<bool> pushing_done{false};
  const auto t0 = Clock::now();

  std::thread pusher([&] {
    auto speak = [&](size_t upto) {
      auto next = Clock::now();
      stream_start_ms = msSince(t0);
      for (size_t at = 0; at < upto; at += block) {
        const size_t n = std::min(block, upto - at);
        le_utt_push_audio(utt, clip.data() + at, static_cast<int>(n));
        spoken.insert(spoken.end(), clip.begin() + at, clip.begin() + at + n);
        stream_pushed += static_cast<int64_t>(n);
        if (!fast) std::this_thread::sleep_until(next += std::chrono::milliseconds(20));
      }
    };
    if (cut > 0) {
      speak(cut);
      le_utt_interrupt(utt);
      stream_pushed = 0;
      stream_start_ms = -1.0;
      std::printf("le-live: interrupted at %.2f s of speech\n", cut / 16000.0);
      std::this_thread::sleep_for(std::chrono::milliseconds(400));
    }
    speak(clip.size());
    le_utt_end_utterance(utt);
    pushing_done = true;
  });

  std::vector<Pulled> pulled;
  std::vector<uint8_t> rgb(frame_bytes);
  int misses = 0, idle_after = 0;
  bool saw_speech_after_done = false;
  auto next = Clock::now();
  const double limit_ms = 1000.0 * clip.size() / 16000.0 * 2 + 30000.0;
  while (msSince(t0) < limit_ms) {
    // The host's audio clock: its speaker plays the pushed stream delay_ms
    // behind the push.
    const double start = stream_start_ms;
    if (start >= 0.0) {
      const int64_t played = static_cast<int64_t>((msSince(t0) - start - delay_ms) * 16.0);
      le_utt_set_playout_position(utt, std::min<int64_t>(std::max<int64_t>(played, 0), stream_pushed.load()));
    }
    le_utt_frame_info info{};
    if (le_utt_pull_frame(utt, rgb.data(), rgb.size(), &info) == 1) {
      char name[64];
      std::snprintf(name, sizeof name, "/frames/frame_%06zu.png", pulled.size());
      le::writePNG(outdir + name, rgb.data(), W, H);
      pulled.push_back({info, msSince(t0)});
      if (pushing_done && info.type != 0) saw_speech_after_done = true;
      if (pushing_done && saw_speech_after_done && info.type == 0 && ++idle_after >= 12) break;
    } else {
      ++misses;
    }
    if (fast) {
      if (le_utt_frames_available(utt) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      std::this_thread::sleep_until(next += std::chrono::milliseconds(40));
    }
  }
  const double wall_ms = msSince(t0);
  pusher.join();

  le_utt_stats st{};
  le_utt_get_stats(utt, &st);
  int64_t skipped = 0, last_sample = 0;
  double latency = 0.0;
  le_utt_playout_stats(utt, &skipped, &last_sample, &latency);
  char status[512];
  uint64_t failures = 0;
  const int rs = le_utt_render_status(utt, status, sizeof status, &failures);
  le_utt_destroy(utt);
  le_destroy(ctx);

  le::speak::writeWav16k(outdir + "/speech.wav", spoken);
  if (FILE* f = std::fopen((outdir + "/frames.csv").c_str(), "w")) {
    std::fprintf(f, "index,seq,type,si,ordinal,pulled_ms\n");
    for (size_t i = 0; i < pulled.size(); ++i)
      std::fprintf(f, "%zu,%llu,%d,%d,%d,%.1f\n", i, static_cast<unsigned long long>(pulled[i].info.seq),
                   pulled[i].info.type, pulled[i].info.si, pulled[i].info.ordinal, pulled[i].at_ms);
    std::fclose(f);
  }
  int by_type[3] = {0, 0, 0};
  for (const Pulled& p : pulled) by_type[p.info.type >= 0 && p.info.type <= 2 ? p.info.type : 0]++;
  std::printf("le-live: %zu frames pulled in %.1f s: %d idle, %d speech, %d ramp; %d empty pulls\n", pulled.size(),
              wall_ms / 1000.0, by_type[0], by_type[1], by_type[2], misses);
  std::printf("le-live: utterances %llu, skipped frames %lld, first-frame latency %.0f ms, frame cost %.1f ms, "
              "push-to-delivery latency %.0f ms\n",
              static_cast<unsigned long long>(st.utterances), static_cast<long long>(skipped), st.first_frame_ms,
              st.frame_ms, latency);
  std::printf("le-live: sustained %.1f fps; render status %d (%llu failures)%s%s\n",
              pulled.size() / (wall_ms / 1000.0), rs, static_cast<unsigned long long>(failures), failures ? ": " : "",
              failures ? status : "");
  std::printf("le-live: wrote %s/frames/*.png, %s/frames.csv and %s/speech.wav\n", outdir.c_str(), outdir.c_str(),
              outdir.c_str());
  return rs < 0 ? 1 : 0;
}
