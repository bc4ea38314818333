// The host's playout position turned into two answers for a frame producer:
// the first frame still worth rendering, and how long a frame takes from
// being pushed to being delivered. A frame whose audio has already gone out
// is useless, so a producer skips it rather than falling further behind.
//
// Works in frame ordinals counted from 0 at an utterance's start, and in
// samples of that same utterance. One mutex guards everything; no operation
// allocates, so any thread may call at any rate.
#pragma once

#include <cstdint>
#include <mutex>

namespace le {

class PlayoutClock {
 public:
  static constexpr int kRing = 64;            // deeper than every queue of the session together
  static constexpr double kStaleMs = 1000.0;  // a position older than this is ignored
  static constexpr double kLatencyCapMs = 500.0;

  // samples_per_frame <= 0 becomes 640, sample_rate < 1 becomes 16000.
  // LE_PLAYOUT_SKIP exactly "0" turns skip decisions off.
  PlayoutClock(int32_t samples_per_frame, int32_t sample_rate);

  // Milliseconds of the steady clock.
  static double nowMs();

  void reset();
  void set(int64_t played_samples, double now);
  void pushed(int64_t ordinal, double now);
  void delivered(int64_t ordinal, double now);
  int64_t firstDue(int64_t ordinal, double now);
  int64_t firstDueReady(int64_t ordinal, int64_t last_ready, double now);
  int64_t noteSkipped(int64_t count);
  int64_t skipped();
  double latencyMs();

 private:
  int64_t firstDueLocked(int64_t ordinal, double now) const;

  std::mutex m;
  int32_t samples_per_frame;
  int32_t sample_rate;
  bool enabled;
  bool have_position = false;
  int64_t played_samples = 0;
  double played_at_ms = 0.0;
  double latency_ms = -1.0;
  int64_t pushed_ordinal[kRing];
  double pushed_at_ms[kRing];
  int64_t skipped_ = 0;
};

}  // namespace le
