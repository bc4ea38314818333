/*
 * Kestrova teeth members: the four files a bundle carries for the teeth
 * borrow (a reference track of donor frames, its JSON sidecar, the blend
 * head's weights and the head's serving configuration).
 *
 * All four present arms the borrow; any one missing refuses it. A host reads
 * the members through le_tessera_members_open, decodes the reference track
 * itself (bank_track_path, at bank_pix_fmt) into n_donors frames of
 * band_h x band_w RGB bytes in track order, puts them in donor order with
 * le_tessera_members_reorder, and hands the result with the other fields to
 * the session.
 *
 * Strings and arrays returned stay valid until the handle is closed, except
 * where noted. A NULL handle gives 0, NULL or "" as the result type needs.
 *
 * Error buffers: err may be NULL or err_len 0 or less, and then nothing is
 * written. Otherwise at most err_len - 1 bytes of the message are copied and
 * the buffer ends with a NUL.
 */
#ifndef LE_LE_TESSERA_H
#define LE_LE_TESSERA_H

#include <stdint.h>

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Member slots, in slot order: "bank_track", "bank_sidecar", "head_weights",
 * "head_config". le_tessera_slot_key gives NULL outside 0..count-1. */
LE_API int le_tessera_slot_count(void);
LE_API const char* le_tessera_slot_key(int index);

/* ---- carriage: which members a bundle carries ---------------------------
 * Opening never fails on a bad bundle: a bundle that cannot be looked at
 * gives a carriage with no paths, not complete, not declared, and all four
 * slots missing. NULL only for a NULL bundle_dir or when memory runs out. */
typedef struct le_tessera_carriage le_tessera_carriage;

LE_API le_tessera_carriage* le_tessera_carriage_open(const char* bundle_dir);
LE_API void le_tessera_carriage_close(le_tessera_carriage* c);
/* 1 when no member is missing. */
LE_API int le_tessera_carriage_complete(const le_tessera_carriage* c);
/* 1 when the manifest holds a "tessera" object. */
LE_API int le_tessera_carriage_declared(const le_tessera_carriage* c);
/* The slot's resolved path; "" for a NULL argument or an unknown key. The
 * text lives in the handle and is replaced by the next call on it, so this
 * one function must not be called on one handle from two threads. */
LE_API const char* le_tessera_carriage_path(le_tessera_carriage* c, const char* slot_key);
LE_API int le_tessera_carriage_missing_count(const le_tessera_carriage* c);
/* The index-th missing slot key; NULL when out of range. */
LE_API const char* le_tessera_carriage_missing(const le_tessera_carriage* c, int index);

/* ---- members: the checked record ---------------------------------------- */
typedef struct le_tessera_members le_tessera_members;

/* NULL on failure, with the refusal in err. */
LE_API le_tessera_members* le_tessera_members_open(const char* bundle_dir, char* err, int err_len);
LE_API void le_tessera_members_close(le_tessera_members* m);

LE_API int32_t le_tessera_members_n_donors(const le_tessera_members* m);
/* 2 * n_donors doubles, interleaved x, y: each donor's pi centroid. */
LE_API const double* le_tessera_members_cent(const le_tessera_members* m);
/* 2 doubles, x then y: the bank's canonical centroid. */
LE_API const double* le_tessera_members_c_canon(const le_tessera_members* m);
/* n_donors doubles: each donor's mouth aperture. */
LE_API const double* le_tessera_members_aperture(const le_tessera_members* m);
/* The 12 stamp integers: canvas_w, canvas_h, window_x0, window_y0, window_w,
 * window_h, pad, band_r0, band_r1, band_c0, band_c1, shift_margin. */
LE_API const int32_t* le_tessera_members_stamp(const le_tessera_members* m);
/* The head weights member's bytes (NULL when empty) and their count. */
LE_API const uint8_t* le_tessera_members_head_pt(const le_tessera_members* m);
LE_API int32_t le_tessera_members_head_pt_len(const le_tessera_members* m);
/* Texts of the head configuration member and of the bundle's manifest. */
LE_API const char* le_tessera_members_head_json(const le_tessera_members* m);
LE_API const char* le_tessera_members_manifest_json(const le_tessera_members* m);
/* The reference track and how it is stored. */
LE_API const char* le_tessera_members_bank_track_path(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_container(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_codec(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_pix_fmt(const le_tessera_members* m);
LE_API const char* le_tessera_members_bank_packing(const le_tessera_members* m);
/* One stored donor patch: band_h rows of band_w RGB pixels. */
LE_API int32_t le_tessera_members_band_w(const le_tessera_members* m);
LE_API int32_t le_tessera_members_band_h(const le_tessera_members* m);
/* n_donors * band_h * band_w * 3. */
LE_API int64_t le_tessera_members_band_bytes(const le_tessera_members* m);
/* Copies track frame i to donor frame track_order[i]; both buffers hold
 * band_bytes, and they must not overlap. 0 on success, 1 on failure with the
 * reason in err. */
LE_API int le_tessera_members_reorder(const le_tessera_members* m, const uint8_t* track_frames,
                                      uint8_t* donor_frames, char* err, int err_len);

#ifdef __cplusplus
}
#endif

#endif
