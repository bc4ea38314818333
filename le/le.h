/*
 * Kestrova talking-avatar engine: the context family.
 *
 * A context (le_ctx) holds everything loaded from one avatar bundle: a
 * directory with a manifest.json, or a single-file IMX container that the
 * engine unpacks once into a directory beside it.
 *
 * Conventions shared by every family of this library:
 *  - Functions never throw and never abort on bad input. A function that can
 *    fail returns NULL, 0 or a negative number, and leaves a sentence in its
 *    family's error string ("le_create: cannot open ..."). For this family
 *    that is le_last_error().
 *  - Error strings are per thread and per family: a failure on one thread is
 *    not visible on another, and a successful call leaves an empty string.
 *  - le_*_destroy ignores NULL.
 */
#ifndef LE_LE_H
#define LE_LE_H

#include <stddef.h>
#include <stdint.h>

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Opaque handle of one opened bundle. */
typedef struct le_ctx le_ctx;

/*
 * Opens a bundle. bundle_dir names a bundle directory or an IMX container
 * (with or without its ".imx" suffix). model_key selects the director graph
 * member "model_<key>.onnx" ("render" is the usual key). threads below 1
 * means the process-wide worker count (LE_CORE_THREADS, else
 * LE_PASTE_THREADS, else min(4, cores)). ep may be NULL.
 * Returns NULL on failure, with the refusal in le_last_error().
 */
LE_API le_ctx* le_create(const char* bundle_dir, const char* model_key, int threads, const char* ep);

/* Frees a context; NULL is ignored. Destroy every session on it first. */
LE_API void le_destroy(le_ctx* ctx);

/*
 * The calling thread's error text of this family: empty after a successful
 * call. Valid until the next call of this family on this thread.
 */
LE_API const char* le_last_error(void);

/* Rows of a keypoint set: always 21 (x, y, z each, 63 floats). */
LE_API int le_host_kp_rows(void);

/* Geometry of an opened bundle; 0 for a NULL context. */
LE_API int le_nt(const le_ctx* ctx);     /* source frames */
LE_API int le_width(const le_ctx* ctx);  /* output canvas width, pixels */
LE_API int le_height(const le_ctx* ctx); /* output canvas height, pixels */
LE_API int le_crop(const le_ctx* ctx);   /* side of the rendered face crop */

/* Rows of the bundle's recorded idle loop; 0 for a NULL context. */
LE_API int le_drive_frames(const le_ctx* ctx);

/*
 * Driver frame si (0 to le_nt - 1) as W x H x 3 bytes of RGB, rows top to
 * bottom, no padding. The pointer is into the driver's look-ahead ring and
 * stays valid until 14 further frames have been decoded; copy it to keep it.
 * NULL on failure.
 */
LE_API const uint8_t* le_target_frame(le_ctx* ctx, int si);

/*
 * Writes driver frame si into out (at least W*H*3 bytes) and pastes crop
 * into it: three float planes R, G, B of crop x crop values on a 0 to 1
 * scale, sharpened, warped by the bundle's paste matrix of frame si and
 * blended through the compose mask. Returns 1, or 0 on failure. One thread
 * at a time per context, and not while a session runs on it.
 */
LE_API int le_paste_crop(le_ctx* ctx, int si, const float* crop, uint8_t* out, size_t out_bytes);

/*
 * Renders one face crop through the context's director graph (loaded on the
 * first call): source frame si (0 to le_nt - 1), source keypoints ks and
 * driven keypoints kd, le_host_kp_rows() x 3 floats each. Returns three float
 * planes R, G, B of le_crop x le_crop values on a 0 to 1 scale, valid until
 * the next render on this context; NULL on failure.
 */
LE_API const float* le_render_kp_crop(le_ctx* ctx, int si, const float* ks, const float* kd);

/* The same for row `frame` (0 to le_drive_frames - 1) of the idle loop. */
LE_API const float* le_render_drive_crop(le_ctx* ctx, int frame);

/*
 * Pastes the last rendered crop into driver frame si and returns the
 * finished W x H x 3 RGB frame, valid until the next paste or le_destroy.
 * NULL on failure, or when nothing has been rendered yet.
 */
LE_API const uint8_t* le_paste_last(le_ctx* ctx, int si);

/*
 * Render and paste in one call, the frame written as RGBA (alpha 255) into
 * out, at least W*H*4 bytes: idle loop row `frame`, or keypoints ks, kd on
 * source frame si. Returns 1, or 0 on failure. The buffer is checked after
 * the render, so a short one still leaves the crop for le_paste_last.
 */
LE_API int le_render_drive_rgba(le_ctx* ctx, int frame, uint8_t* out, size_t out_bytes);
LE_API int le_render_kp_rgba(le_ctx* ctx, int si, const float* ks, const float* kd, uint8_t* out, size_t out_bytes);

/*
 * Resolves a bundle path without opening a context: unpacks a container if
 * needed and writes the directory to use into out (cap bytes, terminator
 * included). Returns 1, or -1 on failure (out[0] set to 0 when out is
 * usable; le_last_error() says why unless the arguments were NULL or cap 0).
 */
LE_API int le_bundle_resolve_handle(const char* path, char* out, size_t cap);

/*
 * Writes the path of a bundle member into out, trying its canonical name
 * when the primary name is absent. Returns 1 if the file exists, 0 if it
 * doesn't, -1 for NULL arguments, a cap of 0, a path that doesn't fit, or a
 * container that can't be unpacked (then le_last_error() says why).
 */
LE_API int le_bundle_resolve_member(const char* path, const char* member, char* out, size_t cap);

/*
 * The bundle's warp prior movie (the manifest's P_hevc member, default
 * "P_hevc.mov") played by itself, with no renderer: a cursor that decodes up
 * to `look` frames ahead and keeps `history` frames behind. look below 1
 * becomes 2, history below 0 becomes 0. Returns NULL on failure, with the
 * refusal in le_last_error(); a bundle whose prior is not a movie is refused.
 */
typedef struct le_prior le_prior;
LE_API le_prior* le_prior_open(const char* bundle_dir, int look, int history);

/* Bytes of one prior row: three planes R, G, B of crop x crop IEEE halves
 * (the layout of one P.f16 row); 0 for NULL. */
LE_API size_t le_prior_row_bytes(const le_prior* prior);

/* Copies the row of source frame si (0 to NT - 1) into out, cap bytes at
 * least le_prior_row_bytes. Returns 1, or 0 on failure. One thread at a time
 * per handle. */
LE_API int le_prior_row(le_prior* prior, int si, uint8_t* out, size_t cap);

/* The movie source's name, valid until le_prior_close; "" for NULL. */
LE_API const char* le_prior_backend(const le_prior* prior);

/* Stops the decoder and frees the handle; NULL is ignored. */
LE_API void le_prior_close(le_prior* prior);

#ifdef __cplusplus
}
#endif

#endif
