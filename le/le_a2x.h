/*
 * Kestrova talking-avatar engine: the streaming audio-to-keypoints family.
 *
 * An le_a2x object turns a stream of 16 kHz mono speech into keypoint rows,
 * one row of 63 floats per 40 ms frame (640 samples): a source row index, the
 * source keypoints xs of that row of the bundle's xs_target.bin, and the
 * driven keypoints xd = xs + delta. Audio becomes usable in blocks of 5120
 * samples (8 frames); a frame leaves once the audio reaches the look-ahead
 * that the encoder and the speech frontend need, and at le_a2x_finish every
 * frame can leave.
 *
 * The speech encoder lives outside the bundle: set W2V_ONNX to its path
 * before the first le_a2x_create. Beside it may stand a short-window pair
 * (audio_encoder_fp16_window_trunk.onnx and _head.onnx), which serves one
 * block at a time and sees the same samples for a block however the host
 * cut its pushes; without it the 8 s encoder serves, whose windows see the
 * audio that was usable when they ran. Both are loaded once per process.
 *
 * Errors go to le_a2x_last_error(), per thread. One thread at a time per
 * object; objects on different threads may run at once.
 */
#ifndef LE_LE_A2X_H
#define LE_LE_A2X_H

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_a2x le_a2x;

/* Opens the bundle's streaming model (a directory or IMX container). threads
 * below 1 or above the process-wide worker count becomes that count. NULL on
 * failure, with the refusal in le_a2x_last_error(). */
LE_API le_a2x* le_a2x_create(const char* bundle, int threads);
LE_API void le_a2x_destroy(le_a2x* a);
LE_API const char* le_a2x_last_error(void);

/* Rows of xs_target.bin; 0 for NULL. */
LE_API int le_a2x_nt(const le_a2x* a);

/* Starts a new utterance. The rows walk from `start` (negative: where the
 * walk has reached) in direction dir (negative: backwards), looping over the
 * table if loop is non-zero, else ping-ponging. */
LE_API void le_a2x_reset(le_a2x* a, int start, int dir, int loop);
/* Appends n samples (float, -1 to 1); n below 1 does nothing. Returns 1 (0
 * for a NULL handle, or NULL pcm with n above 0). */
LE_API int le_a2x_push(le_a2x* a, const float* pcm, int n);
/* Marks the end of the utterance's audio. */
LE_API void le_a2x_finish(le_a2x* a);
/* Does up to one slice of work; returns the frames that can be pulled now. */
LE_API int le_a2x_avail(le_a2x* a);
/* -1 until finished (and for NULL); then ceil(samples / 640). */
LE_API int le_a2x_total(le_a2x* a);
/* Writes up to max frames: rows[i], 63 floats each of xs and xd. Returns the
 * count written. With every decoded frame already pulled it first does the
 * work for up to max frames that are ready. */
LE_API int le_a2x_pull(le_a2x* a, int* rows, float* xs, float* xd, int max);
/* The same with one width value per frame (0 where the encoder has none). */
LE_API int le_a2x_pull_wn(le_a2x* a, int* rows, float* xs, float* xd, float* wn, int max);
/* 1 if the encoder declares a width output, else 0. */
LE_API int le_a2x_width(const le_a2x* a);
/* Stores the eagerness; the block cadence does not depend on it. */
LE_API void le_a2x_set_eager(le_a2x* a, int v);

/* A whole clip at once, on the 8 s frontend: writes ceil(n / 640) frames of
 * 63 delta floats to out. Returns the frame count, 0 for n below 1, -2 (and
 * writes nothing) if more than maxFrames are needed, -1 on failure. The live
 * stream's state is left alone. */
LE_API int le_a2x_deltas(le_a2x* a, const float* pcm, int n, float* out, int maxFrames);
/* The same with one width value per frame; -3 without a width output. */
LE_API int le_a2x_deltas_wn(le_a2x* a, const float* pcm, int n, float* out, float* wn, int maxFrames);

/* Loads the shared 8 s speech encoder ahead of any bundle, from path, or
 * from W2V_ONNX when path is NULL or empty. 1 if loaded, else 0. */
LE_API int le_a2x_preload_w2v(const char* path);
/* 1: this build loads the 8 s encoder on first need. */
LE_API int le_a2x_w2v8_lazy(void);

#ifdef __cplusplus
}
#endif

#endif
