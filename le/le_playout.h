/*
 * Kestrova talking-avatar engine: the playout clock family.
 *
 * A standalone clock that turns a host's reports of how far its audio has
 * played into skip decisions: le_playout_first_due answers which frame is the
 * first one still worth producing, and le_playout_latency_ms how long a frame
 * takes from push to delivery. Ordinals count frames from 0 in an utterance;
 * positions are samples of that utterance. Time is taken inside each call
 * from the steady clock. Every function may be called from any thread, and a
 * NULL handle gets the result noted beside it.
 *
 * LE_PLAYOUT_SKIP=0 (exactly) turns skipping off when a clock is created.
 */
#ifndef LE_LE_PLAYOUT_H
#define LE_LE_PLAYOUT_H

#include <stdint.h>

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct le_playout le_playout;

/* samples_per_frame <= 0 becomes 640; sample_rate < 1 becomes 16000. */
LE_API le_playout* le_playout_create(int samples_per_frame, int sample_rate);
LE_API void le_playout_destroy(le_playout* p);                  /* NULL ignored */
LE_API void le_playout_reset(le_playout* p);                    /* NULL ignored */
LE_API void le_playout_set(le_playout* p, int64_t played_samples); /* NULL ignored */
LE_API void le_playout_pushed(le_playout* p, int64_t ordinal);  /* NULL ignored */
LE_API void le_playout_delivered(le_playout* p, int64_t ordinal); /* NULL ignored */
/* First frame at or after ordinal worth producing; NULL returns ordinal. */
LE_API int64_t le_playout_first_due(le_playout* p, int64_t ordinal);
/* The same, never past max(last_ready, ordinal); NULL returns ordinal. */
LE_API int64_t le_playout_first_due_ready(le_playout* p, int64_t ordinal, int64_t last_ready);
/* Adds count (if 1 or more) to the skipped total and returns it; NULL: 0. */
LE_API int64_t le_playout_note_skipped(le_playout* p, int64_t count);
/* Smoothed push-to-delivery latency in ms, negative until measured; NULL: -1. */
LE_API double le_playout_latency_ms(le_playout* p);

#ifdef __cplusplus
}
#endif

#endif
