#include "session/playout_clock.h"

#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace le {

PlayoutClock::PlayoutClock(int32_t spf, int32_t rate)
    : samples_per_frame(spf <= 0 ? 640 : spf), sample_rate(rate < 1 ? 16000 : rate) {
  const char* v = std::getenv("LE_PLAYOUT_SKIP");
  enabled = !(v && std::strcmp(v, "0") == 0);
  for (int i = 0; i < kRing; ++i) {
    pushed_ordinal[i] = -1;
    pushed_at_ms[i] = 0.0;
  }
}

double PlayoutClock::nowMs() {
  const auto ns =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch());
  return static_cast<double>(ns.count()) / 1e6;
}

void PlayoutClock::reset() {
  std::lock_guard<std::mutex> lock(m);
  have_position = false;
  played_samples = 0;
  played_at_ms = 0.0;
  latency_ms = -1.0;
  for (int64_t& o : pushed_ordinal) o = -1;
}

void PlayoutClock::set(int64_t samples, double now) {
  std::lock_guard<std::mutex> lock(m);
  have_position = true;
  played_samples = samples;
  played_at_ms = now;
}

void PlayoutClock::pushed(int64_t ordinal, double now) {
  if (ordinal < 0) return;
  std::lock_guard<std::mutex> lock(m);
  const int slot = static_cast<int>(ordinal % kRing);
  pushed_ordinal[slot] = ordinal;
  pushed_at_ms[slot] = now;
}

void PlayoutClock::delivered(int64_t ordinal, double now) {
  if (ordinal < 0) return;
  std::lock_guard<std::mutex> lock(m);
  const int slot = static_cast<int>(ordinal % kRing);
  if (pushed_ordinal[slot] != ordinal) return;
  pushed_ordinal[slot] = -1;  // a second delivery of the same ordinal does nothing
  double lat = now - pushed_at_ms[slot];
  if (lat < 0.0) return;
  if (have_position) {
    const double age = now - played_at_ms;
    if (age >= 0.0 && age <= kStaleMs) {
      const double audio = age * sample_rate / 1000.0 + static_cast<double>(played_samples);
      // A frame that arrived more than a frame ahead of the audio waited on
      // the host, not on the engine: its wait says nothing about lateness.
      if (static_cast<double>(ordinal * samples_per_frame) > audio + samples_per_frame) {
        if (latency_ms > 0.0) latency_ms *= 0.75;
        return;
      }
    }
  }
  if (lat > kLatencyCapMs) lat = kLatencyCapMs;
  latency_ms = latency_ms < 0.0 ? lat : lat * 0.25 + latency_ms * 0.75;
}

int64_t PlayoutClock::firstDueLocked(int64_t ordinal, double now) const {
  if (ordinal < 1 || !enabled) return ordinal;  // frame 0 is never skipped
  if (!have_position) return ordinal;
  const double age = now - played_at_ms;
  if (age < 0.0 || age > kStaleMs) return ordinal;
  const double lat = latency_ms < 0.0 ? 0.0 : latency_ms;
  const double audio = (age + lat) * sample_rate / 1000.0 + static_cast<double>(played_samples);
  if (audio <= 0.0) return ordinal;
  const int64_t due = static_cast<int64_t>(std::floor(audio / samples_per_frame)) - 1;
  return due > ordinal ? due : ordinal;
}

int64_t PlayoutClock::firstDue(int64_t ordinal, double now) {
  std::lock_guard<std::mutex> lock(m);
  return firstDueLocked(ordinal, now);
}

int64_t PlayoutClock::firstDueReady(int64_t ordinal, int64_t last_ready, double now) {
  std::lock_guard<std::mutex> lock(m);
  if (ordinal < 1 || !enabled) return ordinal;
  const int64_t hi = last_ready > ordinal ? last_ready : ordinal;
  const int64_t due = firstDueLocked(ordinal, now);
  return due < hi ? due : hi;
}

int64_t PlayoutClock::noteSkipped(int64_t count) {
  std::lock_guard<std::mutex> lock(m);
  if (count >= 1) skipped_ += count;
  return skipped_;
}

int64_t PlayoutClock::skipped() {
  std::lock_guard<std::mutex> lock(m);
  return skipped_;
}

double PlayoutClock::latencyMs() {
  std::lock_guard<std::mutex> lock(m);
  return latency_ms;
}

}  // namespace le
