/*
 * Kestrova talking-avatar engine: the motion pipeline family.
 *
 * An le_motion object turns 16 kHz mono speech into keypoint rows, one per
 * 40 ms frame (640 samples), from a motion directory: a speech feature
 * graph over a log-mel spectrogram, a motion graph run in chunks of 80
 * frames that overlap by 10, and a keypoint stitch graph, with their tables
 * (meta.json, hubert_*.bin, emo.bin, ch_*.bin, v_min_max.bin,
 * src_xs_info.bin, xs_target.bin). Each frame gives a source row index, the
 * source keypoints xs of that row of xs_target.bin, and the driven
 * keypoints xd, 63 floats each. The live session uses it for a bundle
 * without the streaming model.
 *
 * Frames leave as whole windows and chunks of audio allow, or earlier in
 * eager mode, which computes the unfinished tail ahead of the audio (a
 * frame handed out from that tail is not taken back). Errors go to
 * le_motion_last_error(), per thread. One thread at a time per object.
 */
#ifndef LE_LE_MOTION_H
#define LE_LE_MOTION_H

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_motion le_motion;

/* Opens a motion directory (or a container holding one). threads at or
 * below 0 means the process-wide worker count. ep selects the execution
 * provider of the feature and motion graphs: NULL or "" the CPU provider,
 * "coreml[:cpu|:gpu|:ane]" the CoreML provider where the runtime has it.
 * NULL on failure, with the refusal in le_motion_last_error(). */
LE_API le_motion* le_motion_create(const char* motion_dir, int threads, const char* ep);
LE_API void le_motion_destroy(le_motion* m);
LE_API const char* le_motion_last_error(void);

/* Rows of xs_target.bin; 0 for NULL. */
LE_API int le_motion_nt(const le_motion* m);

/* Starts a new utterance: the rows walk from start (clamped to the table)
 * in direction dir (negative: backwards), looping if loop is non-zero,
 * else turning at either end. */
LE_API void le_motion_reset(le_motion* m, int start, int dir, int loop);
/* Appends n samples (float, -1 to 1). 1, or 0 for a NULL handle or samples,
 * a negative n, or audio after le_motion_finish. */
LE_API int le_motion_push(le_motion* m, const float* pcm, int n);
/* Marks the end of the utterance's audio; a second call does nothing. */
LE_API void le_motion_finish(le_motion* m);
/* Advances the work; returns the frames that can be pulled now. */
LE_API int le_motion_avail(le_motion* m);
/* -1 until finished; then ceil(samples / 640). */
LE_API int le_motion_total(const le_motion* m);
/* 0 computes frames only from complete windows and chunks; a positive v
 * runs the unfinished tail again once v new frames of audio have arrived;
 * a negative v picks that count from the measured cost of a pass. */
LE_API void le_motion_set_eager(le_motion* m, int v);
/* Writes up to max frames: rows[i] (rows may be NULL), 63 floats each of
 * xs and xd. Returns the count written. */
LE_API int le_motion_pull(le_motion* m, int* rows, float* xs, float* xd, int max);

#ifdef __cplusplus
}
#endif

#endif
