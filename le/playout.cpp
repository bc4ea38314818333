// The C face of le::PlayoutClock: the handle is the clock itself, and each
// call reads the steady clock inside.
#include <new>

#include "le/le_playout.h"
#include "session/playout_clock.h"

struct le_playout : le::PlayoutClock {
  using le::PlayoutClock::PlayoutClock;
};

extern "C" {

LE_API le_playout* le_playout_create(int samples_per_frame, int sample_rate) {
  return new (std::nothrow) le_playout(samples_per_frame, sample_rate);
}

LE_API void le_playout_destroy(le_playout* p) { delete p; }

LE_API void le_playout_reset(le_playout* p) {
  if (p) p->reset();
}

LE_API void le_playout_set(le_playout* p, int64_t played_samples) {
  if (p) p->set(played_samples, le::PlayoutClock::nowMs());
}

LE_API void le_playout_pushed(le_playout* p, int64_t ordinal) {
  if (p) p->pushed(ordinal, le::PlayoutClock::nowMs());
}

LE_API void le_playout_delivered(le_playout* p, int64_t ordinal) {
  if (p) p->delivered(ordinal, le::PlayoutClock::nowMs());
}

LE_API int64_t le_playout_first_due(le_playout* p, int64_t ordinal) {
  return p ? p->firstDue(ordinal, le::PlayoutClock::nowMs()) : ordinal;
}

LE_API int64_t le_playout_first_due_ready(le_playout* p, int64_t ordinal, int64_t last_ready) {
  return p ? p->firstDueReady(ordinal, last_ready, le::PlayoutClock::nowMs()) : ordinal;
}

LE_API int64_t le_playout_note_skipped(le_playout* p, int64_t count) { return p ? p->noteSkipped(count) : 0; }

LE_API double le_playout_latency_ms(le_playout* p) { return p ? p->latencyMs() : -1.0; }

}  // extern "C"
