// The session's construction, its threads' lives, the host-facing calls and
// the worker's pass: the state machine that decides, on one thread, what the
// next frame is.
#include "session/utterance.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fstream>
#include <stdexcept>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/members.h"
#include "director/renderer.h"
#include "le/context.h"
#include "tessera/stream_borrow.h"

using namespace le::session;

namespace {

const char* envOrNull(const char* name) { return std::getenv(name); }

// xs_target.bin as raw floats; any failure, or a length other than NT x 63,
// leaves it empty, which only means that the session has no ramps.
std::vector<float> readXsTarget(const std::string& dir, int nt) {
  std::vector<float> xs;
  try {
    std::ifstream f(le::resolveMember(dir, "xs_target.bin"), std::ios::binary | std::ios::ate);
    if (!f) return {};
    const std::streamoff bytes = f.tellg();
    if (nt < 1 || bytes != static_cast<std::streamoff>(nt) * kKp * 4) return {};
    xs.resize(static_cast<size_t>(nt) * kKp);
    f.seekg(0);
    if (!f.read(reinterpret_cast<char*>(xs.data()), bytes)) return {};
  } catch (const std::exception&) {
    return {};
  }
  return xs;
}

}  // namespace

void JobRing::pushSwap(PasteJob& job) {
  PasteJob& slot = ring_[(first_ + n_) % kPasteDepth];
  std::swap(slot, job);
  ++n_;
}

void JobRing::popSwap(PasteJob& job) {
  std::swap(ring_[first_], job);
  first_ = (first_ + 1) % kPasteDepth;
  --n_;
}

le_utt::le_utt(le_ctx* c, const le_utt_opts& o) : ctx(c) {
  if (!o.motion_dir || !*o.motion_dir) throw std::runtime_error("opts.motion_dir required");
  motion_dir = o.motion_dir;
  motion_ep = o.motion_ep ? o.motion_ep : "";
  threads = o.threads < 1 ? ctx->threads : o.threads;
  eager = o.eager < 1 && o.eager != -2 ? -1 : o.eager;
  ramp_end_frames = o.ramp_end_frames <= 0 ? 6 : o.ramp_end_frames;
  ramp_interrupt_frames = o.ramp_interrupt_frames <= 0 ? 4 : o.ramp_interrupt_frames;
  silence_ms = o.silence_s == 0.0 ? 600.0 : o.silence_s < 0.0 ? -1.0 : o.silence_s * 1000.0;

  // The motion directory may be a container, as the bundle itself may be.
  const std::string dir = le::resolveBundlePath(motion_dir);
  is_a2x = le::canOpen(le::resolveMember(dir, "a2x_enc_stream.onnx"));
  fam = is_a2x ? &a2xFamily() : &motionFamily();
  pipeline_paste = is_a2x;
  if (const char* v = envOrNull("LE_UTT_PIPELINE_PASTE")) pipeline_paste = std::atoi(v) != 0;
  steady_model = o.steady_model ? o.steady_model : "b24_fp32";
  if (const char* v = envOrNull("LE_STEADY_MODEL")) steady_model = v;

  const le::Manifest& man = ctx->manifest;
  nt = man.NT;
  W = man.W;
  H = man.H;
  crop = man.crop;
  frame_bytes = static_cast<size_t>(W) * static_cast<size_t>(H) * 3;
  if (const char* v = envOrNull("LE_UTT_ONSET_SI"); v && *v && std::atoi(v) >= 0 && nt >= 1)
    onset_si = std::atoi(v) % nt;
  if (eager == -2) {
    hybrid = true;
  } else if (const char* v = envOrNull("LE_UTT_HYBRID"); v && *v && std::strcmp(v, "0") != 0 && o.eager <= 0) {
    hybrid = true;
  }
  eager_sent = hybrid ? 3 : eager;
  xs_target = readXsTarget(dir, nt);

  row_si.resize(kRowCap);
  row_xs.resize(static_cast<size_t>(kRowCap) * kKp);
  row_xd.resize(static_cast<size_t>(kRowCap) * kKp);
  job_row_si.resize(kRowCap);
  job_row_xs.resize(static_cast<size_t>(kRowCap) * kKp);
  job_row_xd.resize(static_cast<size_t>(kRowCap) * kKp);
  ramp_ks.resize(kKp);
  ramp_kd.resize(kKp);
  for (Slot& s : slots) s.rgb.resize(frame_bytes);

  // A thread that fails to start leaves those already started to be stopped
  // and joined by the destructor's own road.
  try {
    worker_thread = std::thread(&le_utt::run, this);
    warm_thread = std::thread(&le_utt::warm, this);
    dispatch_thread = std::thread(&le_utt::dispatchLoop, this);
    if (pipeline_paste) paste_thread = std::thread(&le_utt::pasteLoop, this);
  } catch (...) {
    shutdown();
    throw;
  }
}

le_utt::~le_utt() { shutdown(); }

void le_utt::shutdown() {
  {
    std::lock_guard<std::mutex> lock(m);
    stop = true;
  }
  wake.notify_all();
  {
    std::lock_guard<std::mutex> lock(m);
    tess_stop = true;
    paste_stop = true;
  }
  tess_cv.notify_all();
  paste_cv.notify_all();
  if (tess_thread.joinable()) tess_thread.join();
  if (paste_thread.joinable()) paste_thread.join();
  if (worker_thread.joinable()) worker_thread.join();
  if (warm_thread.joinable()) warm_thread.join();
  {
    std::lock_guard<std::mutex> lock(job_m);
    job_stop = true;
  }
  job_cv.notify_all();
  if (dispatch_thread.joinable()) dispatch_thread.join();
  if (model) fam->destroy(model);
  model = nullptr;
  if (std::getenv("LE_UTT_STAGE_REPORT")) printStageReport();
}

void le_utt::warm() {
  void* made = fam->create(motion_dir.c_str(), threads, motion_ep.c_str());
  if (!made) {
    const char* e = fam->lastError();
    std::lock_guard<std::mutex> lock(m);
    warm_failed = true;
    warm_error = e ? e : "";
    return;
  }
  fam->setEager(made, hybrid ? 3 : eager);
  std::unique_ptr<le::Renderer> chunk;
  // A bundle without the chunk graph simply renders frame by frame; trying
  // to load a member that isn't there would only print a refusal.
  if (steady_model != "-" &&
      le::canOpen(le::resolveMember(ctx->manifest.bundle_dir, "model_" + steady_model + ".onnx"))) {
    try {
      chunk = std::make_unique<le::Renderer>(ctx->manifest, *ctx->identity, steady_model, ctx->threads, ctx->ep);
    } catch (const std::exception&) {
      chunk.reset();
    }
  }
  if (chunk) {
    const std::string& mine = ctx->renderer->ep();
    if (mine.rfind("coreml-native", 0) == 0 && chunk->ep().rfind("coreml-native", 0) != 0) {
      std::fprintf(stderr,
                   "[le_utt] steady chunk renderer '%s' DROPPED (rendering b1-only): this frame graph runs on ep=%s "
                   "while the chunk graph fell back to ep=%s. A chunk that gives up the bundle's own CoreML director "
                   "costs MORE per frame than the per-frame path it was meant to amortize, and letting timing choose "
                   "between two runtimes makes the delivered pixels depend on scheduling.\n",
                   steady_model.c_str(), mine.c_str(), chunk->ep().c_str());
      chunk.reset();
    }
  }
  const le::Drive& drive = ctx->drive;
  if (drive.frames >= 1) {
    try {
      const int si = drive.si[0];
      ctx->renderer->render(&si, drive.xs.data(), drive.xs.data(), 1);
      if (chunk) chunk->render(&si, drive.xs.data(), drive.xs.data(), 1);
    } catch (const std::exception& e) {
      noteRenderFail("warm-up", e.what(), false);
    }
  }
  {
    std::lock_guard<std::mutex> lock(m);
    steady = std::move(chunk);
    steady_pub = steady.get();
    model = made;
  }
  wake.notify_all();
}

// ---- host side ----

int le_utt::ready(std::string* why) {
  std::lock_guard<std::mutex> lock(m);
  if (warm_failed) {
    *why = warm_error;
    return -1;
  }
  return model ? 1 : 0;
}

void le_utt::pushAudio(const int16_t* pcm, int n) {
  const double now = le::PlayoutClock::nowMs();
  {
    std::lock_guard<std::mutex> lock(m);
    const size_t at = audio.size();
    audio.resize(at + static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) audio[at + static_cast<size_t>(i)] = static_cast<float>(pcm[i]) * 3.0517578e-5f;
    total_pushed += n;
    last_push_ms = now;
    if (!push_started) {
      push_started = true;
      first_push_ms = now;
    }
  }
  wake.notify_all();
  paste_cv.notify_all();
}

void le_utt::endUtterance() {
  {
    std::lock_guard<std::mutex> lock(m);
    end_requested = true;
  }
  wake.notify_all();
}

void le_utt::interrupt() {
  {
    std::lock_guard<std::mutex> lock(m);
    audio.clear();
    end_requested = false;
    tail = head;
    paste_q.clear();
    ++interrupt_gen;
    total_pushed = 0;
    std::lock_guard<std::mutex> pl(playout_m);
    have_position = false;
    base_sample = 0;
    clock.reset();
  }
  wake.notify_all();
}

int le_utt::framesAvailable() {
  std::lock_guard<std::mutex> lock(m);
  return static_cast<int>(head - tail);
}

int le_utt::pullFrame(uint8_t* out, size_t cap, le_utt_frame_info* info) {
  {
    std::lock_guard<std::mutex> lock(m);
    if (head == tail) return 0;
    const Slot& s = slots[tail % kQueueSlots];
    if (cap < frame_bytes) return -1;
    std::memcpy(out, s.rgb.data(), frame_bytes);
    if (info) {
      info->seq = s.seq;
      info->type = s.type;
      info->si = s.si;
      info->ordinal = s.ordinal;
    }
    have_last = true;
    last_type = s.type;
    last_si = s.si;
    last_kd = s.kd;
    last_sample = s.type == kSpeech ? s.sample : -1;
    if (s.landed) clock.delivered(s.ordinal, le::PlayoutClock::nowMs());
    ++tail;
    ++stats.frames_out;
    if (s.type == kSpeech) ++stats.speech_frames_out;
  }
  wake.notify_all();
  return 1;
}

void le_utt::getStats(le_utt_stats* out) {
  std::lock_guard<std::mutex> lock(m);
  *out = stats;
  out->state = state.load(std::memory_order_relaxed);
}

int le_utt::renderStatus(char* out, int out_len, uint64_t* count) {
  std::lock_guard<std::mutex> lock(m);
  if (out && out_len >= 1) {
    const size_t n = std::min(render_status.size(), static_cast<size_t>(out_len - 1));
    std::memcpy(out, render_status.data(), n);
    out[n] = '\0';
  }
  if (count) *count = render_failures;
  return render_fatal ? -1 : 0;
}

void le_utt::setPlayoutPosition(int64_t played_samples) {
  const double now = le::PlayoutClock::nowMs();
  {
    std::lock_guard<std::mutex> lock(playout_m);
    host_position = played_samples;
    position_at_ms = now;
    have_position = true;
    clock.set(played_samples - base_sample, now);
  }
  playout_active.store(true, std::memory_order_seq_cst);
}

int le_utt::playoutStats(int64_t* skipped, int64_t* sample, double* latency_ms) {
  std::lock_guard<std::mutex> lock(m);
  if (skipped) *skipped = clock.skipped();
  if (sample) *sample = last_sample;
  if (latency_ms) *latency_ms = clock.latencyMs();
  return playout_active.load() ? 1 : 0;
}

void le_utt::noteRenderFail(const char* stage, const char* what, bool fatal) {
  std::lock_guard<std::mutex> lock(m);
  ++render_failures;
  const std::string ep = ctx->renderer ? ctx->renderer->ep() : "unknown";
  render_status = "ep=" + ep + " " + stage + ": " + (what && *what ? what : "unknown failure");
  if (fatal) render_fatal = true;
}

// ---- the worker ----

void le_utt::run() {
  std::vector<float> taken;  // swapped with `audio`, so both keep their capacity
  for (;;) {
    bool took = false, take_end = false, stopping = false;
    uint64_t gen = 0;
    int64_t start_sample = 0;
    void* mdl = nullptr;
    le::Renderer* steady_r = nullptr;
    int queued = 0, paste_queued = 0;
    bool teeth_faulted = false;
    {
      std::lock_guard<std::mutex> lock(m);
      gen = interrupt_gen;
      if (state.load(std::memory_order_relaxed) != kStateRamp && gen == seen_gen) {
        taken.clear();
        taken.swap(audio);
        took = !taken.empty();
        take_end = end_requested;
        end_requested = false;
        start_sample = total_pushed - static_cast<int64_t>(taken.size());
      }
      stopping = stop;
      mdl = model;
      steady_r = steady_pub;
      queued = static_cast<int>(head - tail);
      // The stage queues: an idle frame waits until both are empty.
      paste_queued = pipeline_paste ? paste_q.size() + tess_q.size() : 0;
      teeth_faulted = tess_armed && tess_faulted;
    }
    if (stopping) return;
    if (gen != seen_gen) {
      handleInterrupt();
      continue;
    }
    bool progressed = collectJob();
    if (took) {
      if (!mdl) {
        std::lock_guard<std::mutex> lock(m);
        push_started = false;
      } else {
        if (!in_utterance) startUtterance(start_sample);
        acc_audio.insert(acc_audio.end(), taken.begin(), taken.end());
      }
    }
    if (in_utterance && !ended) {
      if (take_end) {
        ended = true;
      } else if (silence_ms >= 0.0) {
        double last;
        {
          std::lock_guard<std::mutex> lock(m);
          last = last_push_ms;
        }
        if (le::PlayoutClock::nowMs() - last >= silence_ms) ended = true;
      }
    }
    auto allDone = [&] { return finish_sent && !job_in_flight && rows_total >= 0 && rows_pulled >= rows_total; };
    bool all_done = allDone();
    int avail = row_write - row_read;

    int eager_now = eager;
    if (hybrid) {
      if (in_utterance) {
        const int ahead = avail + queued + rows_backlog;
        if (hybrid_high == 0 && ahead >= 24)
          hybrid_high = 1;
        else if (hybrid_high == 1 && ahead < 12)
          hybrid_high = 0;
      }
      eager_now = hybrid_high ? 24 : 3;
    }

    // The first frame of every utterance takes the single-frame path.
    int batch = 0;
    bool chunk_ok = false, chunk_near = false;
    if (first_rendered && steady_r) {
      batch = steady_r->batch();
      chunk_ok = batch >= 1;
      chunk_near = batch >= 1 && avail < batch && rows_backlog + avail >= batch;
    }

    if (mdl && in_utterance && !job_in_flight) {
      const bool wanted = chunk_near || (ended && !finish_sent);
      if (!(acc_audio.empty() && !wanted && (avail >= 8 || all_done))) {
        submitJob(mdl, eager_now);
        if (!hybrid) {
          {
            std::unique_lock<std::mutex> lock(job_m);
            job_cv.wait(lock, [&] { return job_done; });
          }
          collectJob();
          avail = row_write - row_read;
          all_done = allDone();
        }
      }
    }

    if (teeth_faulted) {
      // Nothing can go out until a new teeth pass is attached: rendering
      // frames that would only be refused would burn a core.
    } else if (state.load(std::memory_order_relaxed) == kStateRamp) {
      if (ramp_left >= 1 && queued <= kQueueSlots - 1) progressed = produceRamp() || progressed;
    } else if (in_utterance && mdl) {
      if (avail >= 1 && queued <= kQueueSlots - 1) {
        state.store(kStateSpeech, std::memory_order_relaxed);
        if (chunk_ok && avail < batch && rows_backlog + avail >= batch && job_in_flight) {
          // A full chunk is on its way: render nothing on this pass.
        } else if (chunk_ok && avail >= batch) {
          progressed = renderSpeech(batch, steady_r) || progressed;
        } else {
          progressed = renderSpeech(1, steady_r) || progressed;
        }
      } else if (avail == 0 && all_done) {
        completeUtterance();
        progressed = true;
      }
    }

    if (state.load(std::memory_order_relaxed) == kStateIdle && queued + paste_queued < 1) {
      if (enqueue(nullptr, kIdle, idle_si, -1, nullptr, nullptr, -1)) {
        idle_si = nextSi(idle_si);
        continue;
      }
    }
    if (progressed) continue;

    std::unique_lock<std::mutex> lock(m);
    wake.wait_for(lock, std::chrono::duration<double, std::milli>(kWaitMs), [&] {
      if (stop || interrupt_gen != seen_gen) return true;
      return state.load(std::memory_order_relaxed) != kStateRamp && (!audio.empty() || end_requested);
    });
  }
}
