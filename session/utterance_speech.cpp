// What speech adds to the worker's pass: an utterance's start and end, the
// motion model's jobs on the dispatch thread, rows becoming rendered crops
// (skipping the late ones), the ramps that return the face to the driver's
// own pose, and what the worker does after an interrupt.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>

#include "director/renderer.h"
#include "le/context.h"
#include "session/utterance.h"

using namespace le::session;

namespace {

double elapsedMs(double since) { return le::PlayoutClock::nowMs() - since; }

}  // namespace

void le_utt::startUtterance(int64_t start_sample) {
  in_utterance = true;
  ended = false;
  need_reset = true;
  finish_sent = false;
  first_rendered = false;
  next_ordinal = 0;
  row_read = row_write = 0;
  rows_pulled = 0;
  rows_backlog = 0;
  rows_total = -1;
  hybrid_high = 0;
  {
    std::lock_guard<std::mutex> lock(m);
    utt_first_push_ms = first_push_ms;
    std::lock_guard<std::mutex> pl(playout_m);
    base_sample = start_sample;
    clock.reset();
    if (have_position) clock.set(host_position - start_sample, position_at_ms);
  }
  utt_start_sample = start_sample;
  skipped_frames = rendered = 0;
  if (state.load(std::memory_order_relaxed) == kStateIdle) state.store(kStateOnset, std::memory_order_relaxed);
}

void le_utt::submitJob(void* mdl, int eager_now) {
  {
    std::lock_guard<std::mutex> lock(job_m);
    job_model = mdl;
    job_audio.swap(acc_audio);
    job_reset = need_reset;
    if (job_reset && onset_si >= 0) idle_si = onset_si;
    job_si = idle_si;
    job_dir = 1;
    job_finish = ended && !finish_sent;
    job_eager = eager_now == eager_sent ? 0 : eager_now;
    job_capacity = kRowCap - row_write + row_read;
    job_pending = true;
  }
  acc_audio.clear();
  if (ended) finish_sent = true;
  eager_sent = eager_now;
  job_gen = seen_gen;
  job_in_flight = true;
  need_reset = false;
  job_cv.notify_all();
}

void le_utt::dispatchLoop() {
  std::vector<float> pcm;  // swapped with job_audio: both keep their capacity
  for (;;) {
    void* mdl;
    bool reset, finish;
    int si, dir, eager_v, capacity;
    {
      std::unique_lock<std::mutex> lock(job_m);
      job_cv.wait(lock, [&] { return job_pending || job_stop; });
      if (job_stop) return;
      job_pending = false;
      mdl = job_model;
      pcm.clear();
      pcm.swap(job_audio);
      reset = job_reset;
      finish = job_finish;
      si = job_si;
      dir = job_dir;
      eager_v = job_eager;
      capacity = job_capacity;
    }
    // The model's calls never throw: its families report through their own
    // error strings and simply produce no rows.
    if (reset) fam->reset(mdl, si, dir, 1);
    if (eager_v != 0) fam->setEager(mdl, eager_v);
    if (!pcm.empty()) fam->push(mdl, pcm.data(), static_cast<int>(pcm.size()));
    if (finish) fam->finish(mdl);
    const int a = fam->avail(mdl);
    int got = 0;
    if (capacity >= 1 && a >= 1)
      got = fam->pull(mdl, job_row_si.data(), job_row_xs.data(), job_row_xd.data(), a < capacity ? a : capacity);
    if (got < 0) got = 0;
    const int t = fam->total(mdl);
    {
      std::lock_guard<std::mutex> lock(job_m);
      job_got = got;
      job_backlog = a - got;
      job_total = t;
      job_done = true;
    }
    wake.notify_all();
    job_cv.notify_all();
  }
}

bool le_utt::collectJob() {
  std::lock_guard<std::mutex> lock(job_m);
  if (!job_in_flight || !job_done) return false;
  job_in_flight = false;
  job_done = false;
  if (job_gen != seen_gen) return true;  // an interrupt came: its rows are dropped
  if (job_got >= 1) {
    if (row_write + job_got > kRowCap && row_read >= 1) {
      const int live = row_write - row_read;
      std::memmove(row_si.data(), row_si.data() + row_read, sizeof(int) * static_cast<size_t>(live));
      std::memmove(row_xs.data(), row_xs.data() + static_cast<size_t>(row_read) * kKp,
                   sizeof(float) * static_cast<size_t>(live) * kKp);
      std::memmove(row_xd.data(), row_xd.data() + static_cast<size_t>(row_read) * kKp,
                   sizeof(float) * static_cast<size_t>(live) * kKp);
      row_write = live;
      row_read = 0;
    }
    std::memcpy(row_si.data() + row_write, job_row_si.data(), sizeof(int) * static_cast<size_t>(job_got));
    std::memcpy(row_xs.data() + static_cast<size_t>(row_write) * kKp, job_row_xs.data(),
                sizeof(float) * static_cast<size_t>(job_got) * kKp);
    std::memcpy(row_xd.data() + static_cast<size_t>(row_write) * kKp, job_row_xd.data(),
                sizeof(float) * static_cast<size_t>(job_got) * kKp);
    row_write += job_got;
    rows_pulled += job_got;
  }
  rows_backlog = job_backlog;
  rows_total = job_total;
  return true;
}

bool le_utt::renderSpeech(int n, le::Renderer* steady_r) {
  const int avail = row_write - row_read;
  const int count = avail < n ? avail : n;
  if (count < 1) return false;
  const size_t crop_floats = static_cast<size_t>(crop) * static_cast<size_t>(crop) * 3;
  const float* chunk = nullptr;
  double per_frame_ms = 0.0;
  if (count > 1 && steady_r && count <= steady_r->batch()) {
    const double t0 = le::PlayoutClock::nowMs();
    try {
      chunk = steady_r->render(row_si.data() + row_read, row_xs.data() + static_cast<size_t>(row_read) * kKp,
                               row_xd.data() + static_cast<size_t>(row_read) * kKp, count);
      per_frame_ms = elapsedMs(t0) / count;
    } catch (const std::exception& e) {
      noteRenderFail("b24 chunk", e.what(), false);
      chunk = nullptr;
    }
  }
  const bool active = playout_active.load();
  const int64_t last_ordinal = next_ordinal + avail - 1;
  bool advanced = false;
  for (int i = 0; i < count; ++i) {
    const int r = row_read;
    double pushed_ms = 0.0;
    if (active) {
      const double now = le::PlayoutClock::nowMs();
      if (next_ordinal >= 1 && clock.firstDueReady(next_ordinal, last_ordinal, now) > next_ordinal) {
        // Late: its audio has gone out. The pose and source index still
        // follow the row, so the next frame continues from it.
        idle_si = prev_si = row_si[r];
        std::memcpy(prev_kd.data(), row_xd.data() + static_cast<size_t>(r) * kKp, sizeof(float) * kKp);
        ++row_read;
        ++next_ordinal;
        ++skipped_frames;
        clock.noteSkipped(1);
        advanced = true;
        continue;
      }
      clock.pushed(next_ordinal, now);
      pushed_ms = now;
    }
    const float* out;
    double frame_ms;
    if (chunk) {
      out = chunk + static_cast<size_t>(i) * crop_floats;
      frame_ms = per_frame_ms;
    } else {
      const double t0 = le::PlayoutClock::nowMs();
      try {
        out = ctx->renderer->render(row_si.data() + r, row_xs.data() + static_cast<size_t>(r) * kKp,
                                    row_xd.data() + static_cast<size_t>(r) * kKp, 1);
      } catch (const std::exception& e) {
        // The row stays: it is tried again on the next pass.
        noteRenderFail("render", e.what(), true);
        return advanced;
      }
      frame_ms = elapsedMs(t0);
    }
    idle_si = prev_si = row_si[r];
    std::memcpy(prev_kd.data(), row_xd.data() + static_cast<size_t>(r) * kKp, sizeof(float) * kKp);
    wait_ms = 0.0;
    if (!enqueue(out, kSpeech, prev_si, next_ordinal, prev_kd.data(), &frame_ms,
                 utt_start_sample + static_cast<int64_t>(next_ordinal) * kFrameSamples, pushed_ms))
      return advanced;
    ++row_read;
    ++next_ordinal;
    ++rendered;
    first_rendered = true;
    advanced = true;
    {
      std::lock_guard<std::mutex> lock(m);
      a_sum_ms += frame_ms;
      a_wait_ms += wait_ms;
      ++a_frames;
      stats.frame_ms = stats.frame_ms == 0.0 ? frame_ms : frame_ms * 0.1 + stats.frame_ms * 0.9;
    }
  }
  idle_si = nextSi(idle_si);
  return advanced;
}

void le_utt::printSkipLine(const char* how) {
  std::fprintf(stderr,
               "[le-skip] utterance %s: ordinals=%d rendered=%lld skipped=%lld (late: their audio had gone out) "
               "latency=%.0f ms total=%lld\n",
               how, next_ordinal, static_cast<long long>(rendered), static_cast<long long>(skipped_frames),
               clock.latencyMs(), static_cast<long long>(clock.skipped()));
}

void le_utt::completeUtterance() {
  {
    std::lock_guard<std::mutex> lock(m);
    push_started = false;
  }
  in_utterance = false;
  if (skipped_frames >= 1) printSkipLine("complete");
  skipped_frames = rendered = 0;
  if (first_rendered && !xs_target.empty()) {
    idle_si = nextSi(prev_si);
    const float* target = xs_target.data() + static_cast<size_t>(prev_si) * kKp;
    for (int k = 0; k < kKp; ++k) ramp_delta[k] = prev_kd[k] - target[k];
    ramp_total = ramp_left = ramp_end_frames;
    state.store(kStateRamp, std::memory_order_relaxed);
  } else {
    state.store(kStateIdle, std::memory_order_relaxed);
  }
}

bool le_utt::produceRamp() {
  const int si = idle_si;
  const int k = ramp_total - ramp_left + 1;
  const float w = 1.0f - static_cast<float>(k) / static_cast<float>(ramp_total);
  const float* ks = xs_target.data() + static_cast<size_t>(si) * kKp;
  for (int i = 0; i < kKp; ++i) {
    ramp_ks[i] = ks[i];
    const float step = w * ramp_delta[i];  // rounded before the sum
    ramp_kd[i] = ks[i] + step;
  }
  const float* out = nullptr;
  try {
    out = ctx->renderer->render(&si, ramp_ks.data(), ramp_kd.data(), 1);
  } catch (const std::exception& e) {
    noteRenderFail("ramp", e.what(), true);
  }
  std::memcpy(prev_kd.data(), ramp_kd.data(), sizeof(float) * kKp);
  prev_si = si;
  if (out && !enqueue(out, kRamp, si, -1, ramp_kd.data(), nullptr, -1)) return false;
  idle_si = nextSi(idle_si);
  if (--ramp_left <= 0) state.store(kStateIdle, std::memory_order_relaxed);
  return true;
}

void le_utt::handleInterrupt() {
  bool had_last, threaded;
  int l_type, l_si;
  std::array<float, kKp> l_kd;
  {
    std::lock_guard<std::mutex> lock(m);
    seen_gen = interrupt_gen;
    had_last = have_last;
    l_type = last_type;
    l_si = last_si;
    l_kd = last_kd;
    push_started = false;
    threaded = tess_threaded;
  }
  // The inline road's held frame belongs to the old generation; the teeth
  // thread drops its own when the first job of the new one reaches it.
  if (!threaded) tessDiscardHeld();
  if (skipped_frames >= 1) printSkipLine("interrupted");
  utt_start_sample = 0;
  skipped_frames = rendered = 0;
  {
    std::lock_guard<std::mutex> pl(playout_m);
    base_sample = 0;
    clock.reset();
    if (have_position) clock.set(host_position, position_at_ms);
  }
  in_utterance = ended = first_rendered = need_reset = finish_sent = false;
  next_ordinal = 0;
  row_read = row_write = 0;
  acc_audio.clear();
  rows_pulled = 0;
  rows_backlog = 0;
  rows_total = -1;
  hybrid_high = 0;
  if (had_last && l_type != kIdle) {
    if (xs_target.empty()) {
      state.store(kStateIdle, std::memory_order_relaxed);
    } else {
      idle_si = nextSi(l_si);
      const float* target = xs_target.data() + static_cast<size_t>(l_si) * kKp;
      for (int k = 0; k < kKp; ++k) ramp_delta[k] = l_kd[k] - target[k];
      ramp_total = ramp_left = ramp_interrupt_frames;
      state.store(kStateRamp, std::memory_order_relaxed);
    }
  } else if (had_last) {
    idle_si = nextSi(l_si);
    state.store(kStateIdle, std::memory_order_relaxed);
  } else {
    state.store(kStateIdle, std::memory_order_relaxed);
  }
}
