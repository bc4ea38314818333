/*
 * Kestrova talking-avatar engine: the frame-conditioned delta family.
 *
 * An le_fca object turns one whole clip of 16 kHz mono speech into one
 * keypoint delta per 40 ms frame (63 floats), in a single blocking call, on
 * the calling thread. It is given two graphs: the 8 s speech encoder and a
 * bundle's fca_stream.onnx. It keeps nothing between calls: two calls on
 * the same clip give the same rows. The batch session (le_stream) uses it.
 * Errors go to le_fca_last_error(), per thread.
 */
#ifndef LE_LE_FCA_H
#define LE_LE_FCA_H

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_fca le_fca;

/* Opens the speech encoder at w2v_path and the frame graph at fca_path (a
 * NULL path counts as ""). threads at or below 0 means the process-wide
 * worker count. NULL on failure, with the reason in le_fca_last_error(). */
LE_API le_fca* le_fca_create(const char* w2v_path, const char* fca_path, int threads);
LE_API void le_fca_destroy(le_fca* f);
/* This thread's error text of the family; never NULL. */
LE_API const char* le_fca_last_error(void);

/* Writes ceil(n / 640) frames of 63 floats to out and returns that count;
 * 0 for n below 1; -1 (nothing written, the error text left as it was) if
 * more than maxFrames are needed; -1 with a text on failure. */
LE_API int le_fca_deltas(le_fca* f, const float* pcm, int n, float* out, int maxFrames);

#ifdef __cplusplus
}
#endif

#endif
