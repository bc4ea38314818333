// The C face of the live session. Every function clears the family's error
// string, checks its arguments in one test, and runs its work inside the
// boundary's catch, so nothing is ever thrown at the host.
#include <memory>

#include "director/renderer.h"
#include "le/boundary.h"
#include "le/context.h"
#include "le/error_buffer.h"
#include "le/le_utt.h"
#include "session/utterance.h"

using le::boundary::Family;

extern "C" {

LE_API le_utt* le_utt_create(le_ctx* ctx, const le_utt_opts* opts) {
  le::boundary::clear(Family::Utterance);
  if (!ctx || !opts) {
    le::boundary::storeFixed(Family::Utterance, "le_utt_create: NULL ctx/opts");
    return nullptr;
  }
  return le::boundary::run(Family::Utterance, "le_utt_create", static_cast<le_utt*>(nullptr), [&] {
    if (!ctx->renderer)
      ctx->renderer = std::make_unique<le::Renderer>(ctx->manifest, *ctx->identity, ctx->model_key, ctx->threads,
                                                     ctx->ep);
    auto utt = std::make_unique<le_utt>(ctx, *opts);
    const std::string& note = ctx->renderer->directorNote();
    if (!note.empty()) utt->noteRenderFail("director load", note.c_str(), false);
    return utt.release();
  });
}

LE_API le_utt* le_utt_open(le_ctx* ctx, const char* motion_dir) {
  le_utt_opts opts{};
  opts.motion_dir = motion_dir;
  return le_utt_create(ctx, &opts);
}

LE_API void le_utt_destroy(le_utt* utt) { delete utt; }

LE_API const char* le_utt_last_error(void) { return le::boundary::errorOf(Family::Utterance).c_str(); }

LE_API int le_utt_ready(le_utt* utt) {
  le::boundary::clear(Family::Utterance);
  if (!utt) return -1;
  return le::boundary::run(Family::Utterance, "le_utt_ready", -1, [&] {
    std::string why;
    const int r = utt->ready(&why);
    // A failed warm-up reaches the host here, on the thread that asks.
    if (r < 0) le::boundary::storeFixed(Family::Utterance, why.c_str());
    return r;
  });
}

LE_API int le_utt_push_audio(le_utt* utt, const int16_t* pcm, int n) {
  le::boundary::clear(Family::Utterance);
  if (!utt || !pcm || n < 0) {
    le::boundary::storeFixed(Family::Utterance, "le_utt_push_audio: bad args");
    return 0;
  }
  return le::boundary::run(Family::Utterance, "le_utt_push_audio", 0, [&] {
    utt->pushAudio(pcm, n);
    return 1;
  });
}

LE_API void le_utt_end_utterance(le_utt* utt) {
  le::boundary::clear(Family::Utterance);
  if (utt) utt->endUtterance();
}

LE_API void le_utt_interrupt(le_utt* utt) {
  le::boundary::clear(Family::Utterance);
  if (utt) utt->interrupt();
}

LE_API int le_utt_frames_available(le_utt* utt) { return utt ? utt->framesAvailable() : 0; }

LE_API int le_utt_pull_frame(le_utt* utt, uint8_t* out, size_t cap, le_utt_frame_info* info) {
  le::boundary::clear(Family::Utterance);
  if (!utt || !out) {
    le::boundary::storeFixed(Family::Utterance, "le_utt_pull_frame: bad args");
    return 0;
  }
  return le::boundary::run(Family::Utterance, "le_utt_pull_frame", 0, [&] {
    const int r = utt->pullFrame(out, cap, info);
    if (r < 0) {
      le::boundary::storeFixed(Family::Utterance, "le_utt_pull_frame: buffer too small");
      return 0;
    }
    return r;
  });
}

LE_API void le_utt_get_stats(le_utt* utt, le_utt_stats* stats) {
  if (utt && stats) utt->getStats(stats);
}

LE_API int le_utt_render_status(le_utt* utt, char* out, int out_len, uint64_t* count) {
  return utt ? utt->renderStatus(out, out_len, count) : 0;
}

LE_API int le_utt_set_playout_position(le_utt* utt, int64_t played_samples) {
  if (!utt) return -1;
  utt->setPlayoutPosition(played_samples);
  return 0;
}

LE_API int le_utt_playout_stats(le_utt* utt, int64_t* skipped, int64_t* sample, double* latency_ms) {
  return utt ? utt->playoutStats(skipped, sample, latency_ms) : -1;
}

// The teeth family reports into the caller's buffer, never into the
// session's error string.
LE_API int le_utt_tessera_attach(le_utt* utt, const uint8_t* bank, int32_t n_donors, const double* cent,
                                 const double* c_canon, const double* aperture, const int32_t* stamp,
                                 const uint8_t* head_pt, int32_t head_pt_len, const char* head_json,
                                 const char* manifest_json, char* err, int err_len) {
  using le::boundary::writeErrorBuffer;
  writeErrorBuffer(err, err_len, "");
  if (!utt) {
    writeErrorBuffer(err, err_len, "le_utt_tessera_attach: null session");
    return 1;
  }
  if (!bank || !cent || !c_canon || !aperture || !stamp || !head_pt || !head_json || !manifest_json) {
    writeErrorBuffer(err, err_len,
                     "le_utt_tessera_attach: a required member is null — this ABI has no partial-attach state");
    return 1;
  }
  if (n_donors <= 0) {
    writeErrorBuffer(err, err_len, "le_utt_tessera_attach: n_donors <= 0");
    return 1;
  }
  try {
    utt->tesseraAttach(bank, n_donors, cent, c_canon, aperture, stamp, head_pt, head_pt_len, head_json,
                       manifest_json);
    return 0;
  } catch (const std::exception& e) {
    // The prefix, then as much of the reason as fits; nothing allocated.
    static const char kPrefix[] = "le_utt_tessera_attach: ";
    writeErrorBuffer(err, err_len, kPrefix);
    const int used = static_cast<int>(sizeof kPrefix) - 1;
    if (err && err_len > used) writeErrorBuffer(err + used, err_len - used, e.what());
  } catch (...) {
    writeErrorBuffer(err, err_len, "le_utt_tessera_attach: unknown failure");
  }
  return 1;
}

LE_API int le_utt_tessera_stats(le_utt* utt, uint64_t* ok, uint64_t* refused, char* err, int err_len) {
  if (!utt) return 0;
  return le::boundary::run(Family::Utterance, "le_utt_tessera_stats", 0,
                           [&] { return utt->tesseraStats(ok, refused, err, err_len); });
}

LE_API int le_utt_tessera_geometry(le_utt* utt, char* out, int out_len) {
  if (!utt) return 0;
  return le::boundary::run(Family::Utterance, "le_utt_tessera_geometry", 0,
                           [&] { return utt->tesseraGeometry(out, out_len); });
}

LE_API int le_utt_tessera_synth_w(le_utt* utt, double* mean, double* max, uint64_t* frames) {
  return utt ? utt->tesseraSynthW(mean, max, frames) : 0;
}

}  // extern "C"
