// Teeth in the live session: the attach that arms the pass on a running
// session, and the two roads on which a rendered crop goes through it before
// the paste. The pass runs one frame behind, so one crop is always held:
// inline, the worker pushes each crop and pastes the one before it; with the
// paste pipelined, the teeth thread does the same between the worker's teeth
// queue and the paste queue.
#include <chrono>
#include <cstring>
#include <exception>
#include <stdexcept>

#include "le/context.h"
#include "le/error_buffer.h"
#include "session/utterance.h"
#include "tessera/stream_borrow.h"
#include "tessera/unified_pi.h"

using namespace le::session;
using le::tessera::StreamBorrow;

namespace {

const auto kWait = std::chrono::duration<double, std::milli>(kWaitMs);
const std::array<float, kKp> kNoKp{};

double nowMs() { return le::PlayoutClock::nowMs(); }

}  // namespace

// ---- attach, on the host's thread ----

void le_utt::tesseraAttach(const uint8_t* bank, int32_t n_donors, const double* cent, const double* c_canon,
                           const double* aperture, const int32_t* stampIn, const uint8_t* head_pt, int32_t head_pt_len,
                           const char* head_json, const char* manifest_json) {
  // Everything up to the hand-over runs without a lock and touches nothing
  // of the session, so that a refusal leaves it exactly as it was.
  le::GeometryStamp stamp;
  std::memcpy(stamp.v.data(), stampIn, sizeof(int32_t) * le::GeometryStamp::kFields);
  stamp.validate();
  if (stamp.canvas_w() != crop || stamp.canvas_h() != crop) {
    throw std::runtime_error("bank canvas " + std::to_string(stamp.canvas_w()) + "x" + std::to_string(stamp.canvas_h()) +
                             " != this bundle's render crop " + std::to_string(crop));
  }
  le::BankData b;
  b.stamp = stamp;
  b.n = n_donors;
  const size_t n = static_cast<size_t>(n_donors);
  b.refs.assign(bank, bank + n * static_cast<size_t>(stamp.storedH()) * static_cast<size_t>(stamp.storedW()) * 3);
  b.cent.assign(cent, cent + 2 * n);
  b.c_canon = {c_canon[0], c_canon[1]};
  b.aperture.assign(aperture, aperture + n);
  const le::tessera::ServeConfig cfg = le::tessera::ServeConfig::fromHeadMemberJson(head_json);
  const le::tessera::HeadWeights weights =
      le::tessera::loadHeadPt(head_pt, head_pt_len > 0 ? static_cast<size_t>(head_pt_len) : 0);
  if (nt < 1 || xs_target.size() != static_cast<size_t>(nt) * kKp) {
    throw std::runtime_error(
        "xs_target.bin is absent or the wrong length, so this bundle's corpus pi frame cannot be identified — "
        "refusing to arm the borrow against the manifest's compose-field geometry");
  }
  std::string corpus;
  const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::corpusFromManifestJson(
      manifest_json, stamp.canvas_w(), xs_target.data(), nt, b.c_canon.data(), &corpus, {});
  auto pass = std::make_unique<StreamBorrow>(b, weights, cfg, pi, ctx->manifest.lip_template_json);
  {
    std::lock_guard<std::mutex> lock(m);
    // The thread first: if it can't start, nothing has changed.
    if (pipeline_paste && !tess_thread.joinable()) tess_thread = std::thread(&le_utt::tessLoop, this);
    tess_next = std::move(pass);  // a pass attached before and not yet taken up goes
    tess_armed = true;
    tess_threaded = pipeline_paste;
    tess_geometry = corpus;
    tess_faulted = false;
    tess_ok = tess_refused = 0;
    tess_error.clear();
    tess_synth = {};
  }
  tess_cv.notify_all();
}

// Under m: hands an attached pass to the actor that calls.
std::unique_ptr<StreamBorrow> le_utt::takeAttachedLocked() {
  if (tess_next) tess_gen = interrupt_gen;
  return std::move(tess_next);
}

// Outside m, on the actor: the pass it replaces goes, and with it the frame
// that pass held.
void le_utt::adoptPass(std::unique_ptr<StreamBorrow> fresh) {
  held = false;
  tess = std::move(fresh);
}

// ---- host reports ----

int le_utt::tesseraStats(uint64_t* ok, uint64_t* refused, char* err, int err_len) {
  std::lock_guard<std::mutex> lock(m);
  if (ok) *ok = tess_ok;
  if (refused) *refused = tess_refused;
  le::boundary::writeErrorBuffer(err, err_len, tess_error.c_str());
  if (!tess_armed) return 0;
  return tess_faulted ? -1 : 1;
}

int le_utt::tesseraGeometry(char* out, int out_len) {
  if (!out || out_len < 1) return 0;
  std::lock_guard<std::mutex> lock(m);
  le::boundary::writeErrorBuffer(out, out_len, tess_armed ? tess_geometry.c_str() : "");
  return tess_armed ? 1 : 0;
}

int le_utt::tesseraSynthW(double* mean, double* max, uint64_t* frames) {
  std::lock_guard<std::mutex> lock(m);
  if (tess_synth.frames == 0) return 0;
  if (mean) *mean = tess_synth.sum / static_cast<double>(tess_synth.frames);
  if (max) *max = tess_synth.peak;
  if (frames) *frames = tess_synth.frames;
  return 1;
}

// ---- what both roads share ----

void le_utt::tessFault(const char* what) {
  std::lock_guard<std::mutex> lock(m);
  tess_faulted = true;
  tess_error = what && *what ? what : "unknown failure";
}

// The pass's push and flush. A throw faults the teeth for good and gives
// false; got says whether a held frame's teeth came back in tess_result.
bool le_utt::tessPush(const float* c, const float* kd, bool& got) {
  try {
    got = tess->push(c, kd, tess_result);
    return true;
  } catch (const std::exception& e) {
    tessFault(e.what());
    return false;
  }
}

bool le_utt::tessFlush(bool& got) {
  try {
    got = tess->flush(tess_result);
    return true;
  } catch (const std::exception& e) {
    tessFault(e.what());
    return false;
  }
}

void le_utt::parkHeld(const float* c, int type, int si, int ordinal, const float* kd, int64_t sample,
                      double pushed_ms) {
  held_crop.resize(static_cast<size_t>(crop) * static_cast<size_t>(crop) * 3);
  std::memcpy(held_crop.data(), c, sizeof(float) * held_crop.size());
  held_type = type;
  held_si = si;
  held_ordinal = ordinal;
  copyKd(held_kd, kd);
  held_sample = sample;
  held_pushed_ms = type == kSpeech ? pushed_ms : 0.0;
  held_at_ms = nowMs();
  held = true;
}

// The held frame's teeth came back in tess_result: corrects its mouth window
// in place. False when the pass refused the frame or the write-back failed;
// either faults the teeth for good.
bool le_utt::tessEmitCommon() {
  held = false;
  // The time the frame spent parked isn't latency of the host's audio.
  if (held_type == kSpeech && held_pushed_ms > 0.0 && playout_active.load())
    clock.pushed(held_ordinal, held_pushed_ms + nowMs() - held_at_ms);
  if (tess_result.skipped) {
    std::lock_guard<std::mutex> lock(m);
    ++tess_refused;
    tess_error = tess_result.reason;
    tess_faulted = true;
    return false;
  }
  try {
    StreamBorrow::writeWindowDelta(held_crop.data(), crop, tess_result, tess->stamp());
  } catch (const std::exception& e) {
    tessFault(e.what());
    return false;
  }
  const le::tessera::SynthWeightStats synth = tess->synthW();
  std::lock_guard<std::mutex> lock(m);
  ++tess_ok;
  tess_synth = synth;
  return true;
}

void le_utt::tessDiscardHeld() {
  if (!tess) return;
  held = false;
  try {
    tess->flush(tess_result);  // the pass starts the next generation empty
  } catch (...) {
  }
}

// ---- the inline road: the worker runs the pass ----

bool le_utt::enqueueTeethInline(std::unique_ptr<StreamBorrow> fresh, const float* c, int type, int si, int ordinal,
                                const float* kd, double* ms, int64_t sample, double pushed_ms) {
  if (fresh) adoptPass(std::move(fresh));
  if (!c) {
    // An idle frame sends the held frame out ahead of itself.
    if (!tessDrain(ms)) return false;
    return enqueueRaw(nullptr, type, si, ordinal, kd, ms, -1);
  }
  const double t0 = nowMs();
  bool got;
  if (!tessPush(c, kd ? kd : kNoKp.data(), got)) return false;
  if (ms) *ms += nowMs() - t0;
  const bool ok = got ? tessEmitHeld(ms) : true;
  parkHeld(c, type, si, ordinal, kd, sample, pushed_ms);
  return ok;
}

bool le_utt::tessEmitHeld(double* ms) {
  if (!held) return true;
  if (!tessEmitCommon()) return false;
  return enqueueRaw(held_crop.data(), held_type, held_si, held_ordinal, held_kd.data(), ms, held_sample);
}

bool le_utt::tessDrain(double* ms) {
  if (!tess || !held) return true;
  bool got;
  if (!tessFlush(got)) return false;
  if (got) return tessEmitHeld(ms);
  held = false;
  tessFault("flush: the pass held no pending frame while a crop was held — refusing to deliver it uncomposed");
  return false;
}

// ---- the pipelined road: the teeth thread runs the pass ----

void le_utt::tessLoop() {
  for (;;) {
    bool current;
    std::unique_ptr<StreamBorrow> fresh;
    {
      std::unique_lock<std::mutex> lock(m);
      tess_cv.wait(lock, [&] { return tess_q.size() > 0 || tess_stop || stop; });
      if (tess_stop || stop) return;
      tess_q.popSwap(tess_job);
      current = tess_job.gen == interrupt_gen;
      fresh = takeAttachedLocked();
    }
    wake.notify_all();
    if (fresh) adoptPass(std::move(fresh));
    if (!current) continue;  // dropped: an interrupt came after it was queued
    tessStage(tess_job);
    ++b_jobs;
  }
}

void le_utt::tessStage(PasteJob& job) {
  // An interrupt's held frame dies at the first job of the new generation.
  if (job.gen != tess_gen) {
    tessDiscardHeld();
    tess_gen = job.gen;
  }
  {
    std::lock_guard<std::mutex> lock(m);
    if (tess_faulted) return;
  }
  if (!job.has_crop) {
    if (tessDrainP()) pushPaste(false, job.type, job.si, job.ordinal, job.kd.data(), job.gen, job.enq_ms, job.sample);
    return;
  }
  const double t0 = nowMs();
  bool got;
  if (!tessPush(job.crop.data(), job.kd.data(), got)) return;
  b_sum_ms += nowMs() - t0;
  if (got && !tessEmitHeldP()) return;
  // Park the job's crop: buffers change hands, contents stay.
  std::swap(job.crop, held_crop);
  held_type = job.type;
  held_si = job.si;
  held_ordinal = job.ordinal;
  held_kd = job.kd;
  held_gen = job.gen;
  held_enq_ms = job.enq_ms;
  held_sample = job.sample;
  held_pushed_ms = job.pushed_ms;
  held_at_ms = nowMs();
  held = true;
}

bool le_utt::tessEmitHeldP() {
  if (!held) return true;
  const double t0 = nowMs();
  if (!tessEmitCommon()) return false;
  b_sum_ms += nowMs() - t0;
  pushPaste(true, held_type, held_si, held_ordinal, held_kd.data(), held_gen, held_enq_ms, held_sample);
  return true;
}

bool le_utt::tessDrainP() {
  if (!held) return true;
  bool got;
  if (!tessFlush(got)) return false;
  if (got) return tessEmitHeldP();
  // The pass lost the frame: on this road the crop goes on as it stands.
  held = false;
  pushPaste(true, held_type, held_si, held_ordinal, held_kd.data(), held_gen, held_enq_ms, held_sample);
  return true;
}

// Into the paste queue from the teeth stage, at most kTessDepth deep; a
// crop comes from the held frame, whose buffer changes hands.
bool le_utt::pushPaste(bool has_crop, int type, int si, int ordinal, const float* kd, uint64_t gen, double enq_ms,
                       int64_t sample) {
  PasteJob& job = tess_out_job;
  job.has_crop = has_crop;
  if (has_crop) std::swap(job.crop, held_crop);
  job.type = type;
  job.si = si;
  job.ordinal = ordinal;
  std::memcpy(job.kd.data(), kd, sizeof(float) * kKp);
  job.gen = gen;
  job.enq_ms = enq_ms;
  job.sample = sample;
  job.pushed_ms = 0.0;
  {
    std::unique_lock<std::mutex> lock(m);
    if (stop) return false;
    while (paste_q.size() >= kTessDepth) {
      if (gen != interrupt_gen || stop) return false;
      tess_cv.wait_for(lock, kWait);
    }
    if (gen != interrupt_gen || stop) return false;
    paste_q.pushSwap(job);
  }
  paste_cv.notify_one();
  return true;
}
