// le-speak: a host over the live session for people evaluating the engine
// and for scripts. It speaks a WAV file or a text (through espeak-ng) with
// an avatar bundle and writes what a viewer would have seen and heard as an
// MP4 of H.264 video and AAC audio.
//
//   le-speak [--bundle PATH] (--wav FILE | --text "...") -o OUT.mp4
//            [--realtime] [--interrupt-at SECONDS] [--frames DIR]
//            [--model KEY] [--voice VOICE]
//
// --frames DIR also writes every video frame as DIR/frame_NNNNNN.png and the
// sound track as DIR/audio.wav, 640 samples per frame, in step.
//
// It runs the session as a real host does: 20 ms blocks of audio pushed, one
// frame pulled every 40 ms, the audio played in step with the frames shown
// (from the first speech frame on) and that position reported to the
// engine. With --realtime the host keeps wall-clock time, and a frame that
// isn't there in time leaves the previous one on screen; without it the host
// keeps its own clock and waits for every frame, which gives the same frame
// sequence as fast as the engine goes. The speech encoder is $W2V_ONNX.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <exception>
#include <filesystem>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern "C" {
#include <libavutil/log.h>
}

#include "driver/image_io.h"
#include "le/le.h"
#include "le/le_utt.h"
#include "tools/speak/audio_input.h"
#include "tools/speak/mp4_writer.h"
#include "tools/speak/wav_file.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kLeadFrames = 25;  // idle frames before the speech starts
constexpr int kTailFrames = 25;  // idle frames after the face is back
constexpr int kBlock = 320;      // 20 ms

[[noreturn]] void die(const std::string& what) {
  std::fprintf(stderr, "le-speak: %s\n", what.c_str());
  std::exit(1);
}

int usage() {
  std::fprintf(stderr,
               "usage: le-speak [--bundle PATH] (--wav FILE | --text \"...\") -o OUT.mp4 [--realtime]\n"
               "                [--interrupt-at SECONDS] [--frames DIR] [--model KEY] [--voice VOICE]\n");
  return 2;
}

// Frames go to the encoder on a thread of their own, so that encoding never
// holds the host's 40 ms tick back.
class Writer {
 public:
  Writer(const std::string& mp4, int w, int h, std::string frames_dir)
      : mp4_(mp4, w, h), w_(w), h_(h), frames_dir_(std::move(frames_dir)), thread_([this] { loop(); }) {}
  ~Writer() { close(); }

  void add(const std::vector<uint8_t>& rgb, const int16_t* pcm) {
    std::unique_lock<std::mutex> lock(m_);
    cv_.wait(lock, [&] { return q_.size() < 64 || failed_; });
    q_.push_back({rgb, std::vector<int16_t>(pcm, pcm + 640)});
    cv_.notify_all();
  }

  // Returns the writer's failure, or "".
  std::string close() {
    {
      std::lock_guard<std::mutex> lock(m_);
      done_ = true;
    }
    cv_.notify_all();
    if (thread_.joinable()) thread_.join();
    return error_;
  }

 private:
  struct Item {
    std::vector<uint8_t> rgb;
    std::vector<int16_t> pcm;
  };

  void loop() {
    size_t n = 0;
    for (;;) {
      Item it;
      {
        std::unique_lock<std::mutex> lock(m_);
        cv_.wait(lock, [&] { return !q_.empty() || done_; });
        if (q_.empty()) break;
        it = std::move(q_.front());
        q_.pop_front();
        cv_.notify_all();
      }
      if (failed_) continue;
      try {
        mp4_.add(it.rgb.data(), it.pcm.data());
        if (!frames_dir_.empty()) {
          char name[64];
          std::snprintf(name, sizeof name, "/frame_%06zu.png", n);
          le::writePNG(frames_dir_ + name, it.rgb.data(), w_, h_);
          timeline_.insert(timeline_.end(), it.pcm.begin(), it.pcm.end());
        }
        ++n;
      } catch (const std::exception& e) {
        std::lock_guard<std::mutex> lock(m_);
        error_ = e.what();
        failed_ = true;
        cv_.notify_all();
      }
    }
    if (!failed_) {
      try {
        mp4_.finish();
        if (!frames_dir_.empty()) le::speak::writeWav16k(frames_dir_ + "/audio.wav", timeline_);
      } catch (const std::exception& e) {
        error_ = e.what();
      }
    }
  }

  le::speak::Mp4Writer mp4_;
  int w_, h_;
  std::string frames_dir_;
  std::mutex m_;
  std::condition_variable cv_;
  std::deque<Item> q_;
  bool done_ = false;
  bool failed_ = false;
  std::string error_;
  std::vector<int16_t> timeline_;  // with --frames: the sound of every frame, in order
  std::thread thread_;
};

class Progress {
 public:
  explicit Progress(int total) : total_(total), tty_(isatty(STDOUT_FILENO)) {}
  void update(int done) {
    const int pct = std::min(100, done * 100 / std::max(1, total_));
    if (tty_) {
      const int bar = pct * 30 / 100;
      std::printf("\rle-speak [%s%s] %3d%% %d frames", std::string(bar, '#').c_str(),
                  std::string(30 - bar, '-').c_str(), pct, done);
      std::fflush(stdout);
    } else if (pct >= next_) {
      std::printf("le-speak: %d%% (%d frames)\n", pct, done);
      next_ = pct / 25 * 25 + 25;
    }
  }
  void end() {
    if (tty_) std::printf("\n");
  }

 private:
  int total_;
  bool tty_;
  int next_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
  av_log_set_level(AV_LOG_QUIET);  // failures come back as one sentence of this tool
  std::string bundle = std::getenv("LE_SPEAK_BUNDLE") ? std::getenv("LE_SPEAK_BUNDLE") : "out/demo/astronaut";
  std::string wav, text, out, frames_dir, model = "b1_fp32", voice = "en-us";
  bool realtime = false, have_text = false;
  double interrupt_at = -1.0;
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    auto next = [&]() -> std::string {
      if (i + 1 >= argc) {
        usage();
        std::exit(2);
      }
      return argv[++i];
    };
    if (a == "--bundle") bundle = next();
    else if (a == "--wav") wav = next();
    else if (a == "--text") text = next(), have_text = true;
    else if (a == "-o") out = next();
    else if (a == "--realtime") realtime = true;
    else if (a == "--interrupt-at") interrupt_at = std::atof(next().c_str());
    else if (a == "--frames") frames_dir = next();
    else if (a == "--model") model = next();
    else if (a == "--voice") voice = next();
    else return usage();
  }
  if (out.empty() || wav.empty() == !have_text) return usage();
  if (!std::filesystem::exists(bundle)) die("no avatar bundle at " + bundle);
  if (!std::getenv("W2V_ONNX") || !*std::getenv("W2V_ONNX"))
    die("W2V_ONNX must name the speech encoder (the generated one is out/data/audio/w2v/w2v.onnx)");

  std::vector<int16_t> speech;
  try {
    speech = have_text ? le::speak::speakText(text, voice) : le::speak::readAudio16k(wav);
  } catch (const std::exception& e) {
    die(e.what());
  }

  le_ctx* ctx = le_create(bundle.c_str(), model.c_str(), 0, nullptr);
  if (!ctx) die(le_last_error());
  le_utt_opts opts{};
  opts.motion_dir = bundle.c_str();
  le_utt* utt = le_utt_create(ctx, &opts);
  if (!utt) die(le_utt_last_error());
  int ready;
  while ((ready = le_utt_ready(utt)) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(2));
  if (ready < 0) die(std::string("the speech model did not load: ") + le_utt_last_error());
  const int W = le_width(ctx), H = le_height(ctx);
  if (!frames_dir.empty()) std::filesystem::create_directories(frames_dir);

  int rc = 0;
  try {
    Writer writer(out, W, H, frames_dir);
    const int speech_frames = static_cast<int>((speech.size() + 639) / 640);
    const int cut = interrupt_at >= 0 ? std::min(speech_frames, static_cast<int>(interrupt_at * 25)) : -1;
    Progress progress(kLeadFrames + speech_frames + 40 + kTailFrames);
    std::vector<uint8_t> shown(static_cast<size_t>(W) * H * 3, 0), rgb(shown.size());
    std::vector<int16_t> silence(640, 0), tick_pcm(640);
    size_t pushed = 0;
    bool ended = false, interrupted = false, have_frame = false;
    int t0 = -1;             // the tick at which speech frame 0 was shown
    int counts[3] = {0, 0, 0}, repeated = 0, idle_after = 0;
    const auto start = Clock::now();
    auto deadline = Clock::now();
    for (int tick = 0;; ++tick) {
      // The host's audio source after the lead-in: in real time 40 ms of
      // speech per tick, in 20 ms blocks; on the host's own clock all of it
      // at once, as a speech synthesiser that runs ahead does (a host that
      // waits for frames must not hold its audio back: no frame comes until
      // the model has heard enough).
      if (tick >= kLeadFrames && !ended && !interrupted) {
        for (int b = 0; (b < 2 || !realtime) && pushed < speech.size(); ++b) {
          const size_t n = std::min<size_t>(kBlock, speech.size() - pushed);
          le_utt_push_audio(utt, speech.data() + pushed, static_cast<int>(n));
          pushed += n;
        }
        if (pushed >= speech.size()) {
          le_utt_end_utterance(utt);
          ended = true;
        }
      }
      if (!interrupted && cut >= 0 && t0 >= 0 && tick - t0 >= cut) {
        le_utt_interrupt(utt);
        interrupted = true;
      }
      if (realtime) std::this_thread::sleep_until(deadline += std::chrono::milliseconds(40));
      le_utt_frame_info info{};
      bool got = le_utt_pull_frame(utt, rgb.data(), rgb.size(), &info) == 1;
      while (!got && !realtime) {  // the host's own clock waits for the engine
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        got = le_utt_pull_frame(utt, rgb.data(), rgb.size(), &info) == 1;
      }
      if (got) {
        shown.swap(rgb);
        have_frame = true;
        ++counts[info.type >= 0 && info.type <= 2 ? info.type : 0];
        if (info.type == 1 && info.ordinal == 0 && t0 < 0) t0 = tick;
      } else {
        ++repeated;
      }
      if (!have_frame) continue;
      // The speaker plays the utterance in step with the frames from its
      // first speech frame on, until the end or the interrupt.
      const int16_t* pcm = silence.data();
      const int k = t0 >= 0 ? tick - t0 : -1;
      if (k >= 0 && k < speech_frames && !(interrupted && k >= cut)) {
        const size_t at = static_cast<size_t>(k) * 640;
        const size_t n = std::min<size_t>(640, speech.size() - at);
        std::copy(speech.begin() + at, speech.begin() + at + n, tick_pcm.begin());
        std::fill(tick_pcm.begin() + n, tick_pcm.end(), int16_t{0});
        pcm = tick_pcm.data();
        if (realtime) le_utt_set_playout_position(utt, static_cast<int64_t>(at));
      }
      writer.add(shown, pcm);
      progress.update(counts[0] + counts[1] + counts[2] + repeated);
      const bool speech_over = t0 >= 0 && (interrupted || k >= speech_frames);
      if (speech_over && got && info.type == 0) ++idle_after;
      if (idle_after >= kTailFrames) break;
      if (std::chrono::duration<double>(Clock::now() - start).count() > 600) throw std::runtime_error("gave up after 10 minutes");
    }
    progress.end();
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    const std::string werr = writer.close();
    if (!werr.empty()) throw std::runtime_error(werr);
    le_utt_stats st{};
    le_utt_get_stats(utt, &st);
    int64_t skipped = 0;
    le_utt_playout_stats(utt, &skipped, nullptr, nullptr);
    const int total = counts[0] + counts[1] + counts[2] + repeated;
    std::printf("le-speak: wrote %s: %d frames (%d idle, %d speech, %d ramp, %d repeated), %lld skipped, "
                "first-frame latency %.0f ms, %.1f fps\n",
                out.c_str(), total, counts[0], counts[1], counts[2], repeated, static_cast<long long>(skipped),
                st.first_frame_ms, total / secs);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "le-speak: %s\n", e.what());
    rc = 1;
  }
  le_utt_destroy(utt);
  le_destroy(ctx);
  return rc;
}
