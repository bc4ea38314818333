/*
 * Kestrova telemetry family: a process-wide store of named numbers and texts
 * that the host fills, and snapshots posted through a transport that the
 * host supplies. The engine records nothing here by itself.
 *
 * Any thread may call any of these functions. None of them fails loudly:
 * bad keys are ignored, and le_tel_flush reports by its result.
 */
#ifndef LE_LE_TEL_H
#define LE_LE_TEL_H

#include "le/le_export.h"

#ifdef __cplusplus
extern "C" {
#endif

/*
 * The host's transport: sends body as a JSON POST to path (always
 * "/v1/telemetry/ingest") of the telemetry service and returns the HTTP
 * status, or a negative number if nothing was exchanged. It is called
 * outside the engine's lock, on the thread that called le_tel_flush.
 */
typedef int (*le_tel_post_fn)(void* user, const char* path, const char* body);

/*
 * Hands in the transport. token is the service's ingestion token (copied);
 * sdk_version is the host's version text for the snapshots' "sdk_version"
 * (copied; NULL means empty). user is passed back to post. A NULL post
 * removes the transport, after which le_tel_flush returns -1. Calling it
 * again replaces all four values; snapshots already queued stay queued.
 */
LE_API void le_tel_set_transport(const char* token, le_tel_post_fn post, void* user,
                                 const char* sdk_version);

/* Sets a number; a NULL or empty key is ignored. */
LE_API void le_tel_record(const char* key, double value);

/* Sets a text; a NULL or empty key, or a NULL value, is ignored. */
LE_API void le_tel_record_str(const char* key, const char* value);

/*
 * Queues a fresh snapshot (the queue keeps the latest 256) and posts every
 * queued snapshot in one batch. Returns 0 when delivered (the queue is then
 * empty), -1 without a transport or with an empty token (nothing is queued),
 * -3 when the service answered other than 200, the transport's own
 * negative result, or -4 when the engine itself could not build the batch
 * (out of memory). On failure the queue is kept for the next flush.
 */
LE_API int le_tel_flush(void);

/*
 * {"queued":<n>,"snapshot":{...}}: the queue length and a fresh snapshot,
 * which is not queued. The text belongs to the calling thread and stays
 * valid until that thread's next call of this function.
 */
LE_API const char* le_tel_pending_json(void);

#ifdef __cplusplus
}
#endif

#endif
