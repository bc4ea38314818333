/*
 * Kestrova talking-avatar engine: the batch stream family.
 *
 * An le_stream renders a whole clip: the host hands over 16 kHz mono speech
 * once and receives every frame of the talking face through a callback, as
 * fast as the machine allows, with no playout clock and no idle frames. The
 * session opens its own context on the bundle (director key "render") and
 * the bundle's frame-conditioned delta graph (fca_stream.onnx, see
 * le/le_fca.h) beside the speech encoder the host names. Rendering and
 * pasting run on two threads through a ring of 4 crops; the callback runs
 * on the thread that called le_stream_run, once per frame, in order.
 * Errors go to le_stream_last_error(), per thread.
 */
#ifndef LE_LE_STREAM_H
#define LE_LE_STREAM_H

#include <stdint.h>

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_stream le_stream;

/* One finished frame: index counts from 0 with no gap; rgb is w x h x 3
 * bytes, valid during the call only. The result is ignored. */
typedef int (*le_stream_frame_cb)(void* user, int32_t index, const uint8_t* rgb, int32_t w, int32_t h);

/* Opens bundle_dir (a directory) for whole clips, with the 8 s speech
 * encoder at w2v_path. threads below 1 means the process-wide worker
 * count. The first lag frames of deltas precede the first frame put out
 * (0 or more); gain scales the deltas. NULL on failure. */
LE_API le_stream* le_stream_create(const char* bundle_dir, const char* w2v_path, int threads, int lag, float gain);
LE_API void le_stream_destroy(le_stream* s);
LE_API const char* le_stream_last_error(void);
/* The frame size. */
LE_API int le_stream_width(const le_stream* s);
LE_API int le_stream_height(const le_stream* s);

/* Renders n samples (float, -1 to 1) into ceil(n / 640) - lag frames and
 * calls callback (may be NULL) with each. Returns the frames delivered, or
 * -1 on failure. One run at a time per handle. */
LE_API int le_stream_run(le_stream* s, const float* pcm, int n, le_stream_frame_cb callback, void* user);

#ifdef __cplusplus
}
#endif

#endif
