/*
 * Kestrova talking-avatar engine: the live utterance session.
 *
 * A session keeps a stream of finished frames flowing from the moment it is
 * created: idle frames straight from the bundle's driver video while nobody
 * speaks, rendered speech frames while audio lasts, and a short ramp of
 * rendered frames that returns the face to the video's own pose when speech
 * ends or is cut off. A host pushes 16 kHz mono speech from any thread and
 * pulls frames at its own rate from another; an output queue of 8 frames is
 * the only pacing (one frame is 640 samples, 25 frames per second).
 *
 * If the host reports how far its audio has played
 * (le_utt_set_playout_position), speech frames whose audio has already gone
 * out are skipped instead of delivered late. le_utt_interrupt drops every
 * frame and sample in flight at once.
 *
 * Errors: le_utt_last_error(), per thread. Nothing here blocks for long: a
 * push, pull or interrupt takes the session lock briefly and returns.
 */
#ifndef LE_LE_UTT_H
#define LE_LE_UTT_H

#include <stddef.h>
#include <stdint.h>

#include "le/le.h"
#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_utt le_utt;

/* Options; zero or NULL fields take the default noted beside them. */
typedef struct le_utt_opts {
  const char* motion_dir;    /* directory (or container) of the audio-to-motion model: required */
  int32_t threads;           /* threads of the motion model; below 1: the context's */
  const char* motion_ep;     /* execution provider of the motion pipeline; NULL: none */
  const char* steady_model;  /* model key of the chunk renderer, "-" for none; NULL: "b24_fp32" */
  int32_t eager;             /* motion model eagerness, -2 hybrid; below 1: -1 */
  double silence_s;          /* seconds without audio that end an utterance, negative never; 0: 0.6 */
  int32_t ramp_end_frames;   /* ramp after a natural end; below 1: 6 */
  int32_t ramp_interrupt_frames; /* ramp after an interrupt; below 1: 4 */
} le_utt_opts;

typedef struct le_utt_stats {
  uint64_t frames_out;        /* frames pulled, all types */
  uint64_t speech_frames_out; /* speech frames pulled */
  uint64_t utterances;        /* utterances whose frame 0 reached the output queue */
  double first_frame_ms;      /* latest utterance: first audio push to its frame 0 queued */
  double frame_ms;            /* smoothed cost of one speech frame on the worker */
  int32_t state;              /* 0 idle, 1 onset, 2 speech, 3 ramp */
} le_utt_stats;

typedef struct le_utt_frame_info {
  uint64_t seq;     /* counts every frame queued since the session began */
  int32_t type;     /* 0 idle, 1 speech, 2 ramp */
  int32_t si;       /* source frame index */
  int32_t ordinal;  /* speech frame number in its utterance, -1 otherwise */
} le_utt_frame_info;

/* Starts a session on a context (which must outlive it) and its threads;
 * idle frames flow at once, speech once le_utt_ready returns 1. */
LE_API le_utt* le_utt_create(le_ctx* ctx, const le_utt_opts* opts);
/* le_utt_create with every other option zero. */
LE_API le_utt* le_utt_open(le_ctx* ctx, const char* motion_dir);
/* Stops and joins every thread of the session; NULL is ignored. */
LE_API void le_utt_destroy(le_utt* utt);
LE_API const char* le_utt_last_error(void);

/* 1 warm, 0 still warming up, -1 warm-up failed (the reason is then in this
 * thread's le_utt_last_error; idle frames go on and audio is dropped). -1 for
 * NULL. */
LE_API int le_utt_ready(le_utt* utt);
/* Appends n 16-bit samples; returns 1, or 0 for bad arguments. n may be 0. */
LE_API int le_utt_push_audio(le_utt* utt, const int16_t* pcm, int n);
/* The current utterance's audio is complete. */
LE_API void le_utt_end_utterance(le_utt* utt);
/* Drops queued frames and pending audio at once; the face ramps back from
 * the last frame pulled. */
LE_API void le_utt_interrupt(le_utt* utt);
/* Frames waiting in the output queue; 0 for NULL. */
LE_API int le_utt_frames_available(le_utt* utt);
/* Copies the oldest queued frame (W x H x 3 RGB) into out and its
 * description into info (may be NULL). 1 if a frame was delivered; 0 if the
 * queue is empty (no error) or on bad arguments / a short buffer. */
LE_API int le_utt_pull_frame(le_utt* utt, uint8_t* out, size_t cap, le_utt_frame_info* info);
LE_API void le_utt_get_stats(le_utt* utt, le_utt_stats* stats);

/* Render failures: the latest line into out (out_len bytes with the
 * terminator; nothing below 1) and the count into *count. 0, or -1 once a
 * failure cost a frame; 0 for NULL. */
LE_API int le_utt_render_status(le_utt* utt, char* out, int out_len, uint64_t* count);

/* Samples of the pushed stream the host has played, counted from the
 * session's start or the last interrupt. 0; -1 for NULL. */
LE_API int le_utt_set_playout_position(le_utt* utt, int64_t played_samples);
/* Frames skipped as late over the session's life, the first sample of the
 * last speech frame pulled (-1 otherwise), and the smoothed push-to-delivery
 * latency (negative until measured). 1 once a position was reported, else 0;
 * -1 for NULL. */
LE_API int le_utt_playout_stats(le_utt* utt, int64_t* skipped, int64_t* sample, double* latency_ms);

/* ---- teeth ------------------------------------------------------------------
 * Arms the teeth pass on a running session, before its first speech. A host
 * reads the members with le_tessera_members_open (le/le_tessera.h), decodes
 * the reference track itself and puts it in donor order, then hands
 * everything over here in one call: the bank (n_donors stored patches of
 * band_h x band_w x 3 bytes), cent (2 x n_donors), c_canon (2), aperture
 * (n_donors), the 12 stamp integers, the head weights and configuration, and
 * the manifest's text. All of it is copied. 0 armed; 1 refused, with the
 * reason in err (at most err_len - 1 bytes and a NUL; nothing for a NULL err
 * or err_len below 1), and the session as it was. This family never touches
 * le_utt_last_error.
 *
 * From then on every frame's mouth window is corrected by borrowed teeth,
 * one frame behind the renderer. A frame the pass refuses ends the teeth
 * for the session: no frame goes out uncorrected, so none goes out at all,
 * and le_utt_tessera_stats says why. */
LE_API int le_utt_tessera_attach(le_utt* utt, const uint8_t* bank, int32_t n_donors, const double* cent,
                                 const double* c_canon, const double* aperture, const int32_t* stamp,
                                 const uint8_t* head_pt, int32_t head_pt_len, const char* head_json,
                                 const char* manifest_json, char* err, int err_len);
/* Frames corrected and refused, and the latest fault (err as above). 1 armed
 * and healthy, -1 faulted, 0 not armed or NULL. */
LE_API int le_utt_tessera_stats(le_utt* utt, uint64_t* ok, uint64_t* refused, char* err, int err_len);
/* The corpus lip geometry attach identified the bank by ("v1", "v2", "v3");
 * "" when not armed. 1 armed; 0 not armed, NULL, or out_len below 1 (then
 * nothing is written). */
LE_API int le_utt_tessera_geometry(le_utt* utt, char* out, int out_len);
/* The blend head's weight on the synthesised mouth: the mean over frames of
 * each frame's mean under the head mask, the largest seen, and the frames
 * measured. 1 once a frame was measured; 0 before (outputs untouched). */
LE_API int le_utt_tessera_synth_w(le_utt* utt, double* mean, double* max, uint64_t* frames);

#ifdef __cplusplus
}
#endif

#endif
