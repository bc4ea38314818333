// The playout clock: its arithmetic with explicit times, the ring, the
// smoothing, stale and future positions, the switch, the C family's null
// handles, and many threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

#include "le/le_playout.h"
#include "session/playout_clock.h"
#include "tests/support/test_support.h"

namespace {

using le::PlayoutClock;

TEST(PlayoutClock, FirstDueFollowsThePosition) {
  PlayoutClock c(640, 16000);
  const double t = 5000.0;
  EXPECT_EQ(c.firstDue(5, t), 5);  // no position yet
  c.set(6400, t);
  EXPECT_EQ(c.firstDue(5, t), 9);    // 6400 / 640 - 1
  EXPECT_EQ(c.firstDue(20, t), 20);  // ahead of the audio
  EXPECT_EQ(c.firstDue(0, t), 0);    // frame 0 is never skipped
  // 100 ms after the report the audio has moved on by 1600 samples.
  EXPECT_EQ(c.firstDue(5, t + 100.0), 11);  // floor(8000 / 640) - 1
  // Stale after 1000 ms, and a report from the future is not trusted.
  EXPECT_EQ(c.firstDue(5, t + 1000.0), 34);  // floor(22400 / 640) - 1
  EXPECT_EQ(c.firstDue(5, t + 1000.5), 5);
  EXPECT_EQ(c.firstDue(5, t - 1.0), 5);
  // A position at or behind 0 makes nothing late.
  c.set(-3000, t);
  EXPECT_EQ(c.firstDue(5, t), 5);
}

TEST(PlayoutClock, FirstDueReadyNeverPassesTheLastReadyFrame) {
  PlayoutClock c(640, 16000);
  c.set(640 * 13, 0.0);  // computed value 12
  EXPECT_EQ(c.firstDue(5, 0.0), 12);
  EXPECT_EQ(c.firstDueReady(5, 7, 0.0), 7);
  EXPECT_EQ(c.firstDueReady(5, 3, 0.0), 5);
  EXPECT_EQ(c.firstDueReady(0, 30, 0.0), 0);
  EXPECT_EQ(c.firstDueReady(5, 30, 0.0), 12);
}

TEST(PlayoutClock, LatencyCountsIntoFirstDue) {
  PlayoutClock c(640, 16000);
  c.pushed(3, 100.0);
  c.delivered(3, 140.0);  // 40 ms, no position: the plain path
  EXPECT_DOUBLE_EQ(c.latencyMs(), 40.0);
  c.set(6400, 200.0);
  // (0 + 40) ms * 16 + 6400 = 7040 samples: floor(11) - 1.
  EXPECT_EQ(c.firstDue(5, 200.0), 10);
}

TEST(PlayoutClock, LatencySmoothingCapAndEarlyDecay) {
  PlayoutClock c(640, 16000);
  EXPECT_DOUBLE_EQ(c.latencyMs(), -1.0);
  c.pushed(1, 0.0);
  c.delivered(1, 700.0);
  EXPECT_DOUBLE_EQ(c.latencyMs(), 500.0);  // capped
  c.pushed(2, 1000.0);
  c.delivered(2, 1100.0);
  EXPECT_DOUBLE_EQ(c.latencyMs(), 100.0 * 0.25 + 500.0 * 0.75);
  // A frame more than one frame ahead of the audio only decays the value.
  c.set(0, 2000.0);
  c.pushed(10, 2000.0);
  c.delivered(10, 2010.0);  // audio at 160 samples; 6400 > 800
  EXPECT_DOUBLE_EQ(c.latencyMs(), 400.0 * 0.75);
  // Within one frame of the audio: measured.
  c.pushed(1, 2000.0);
  c.delivered(1, 2020.0);  // 640 <= 320 + 640
  EXPECT_DOUBLE_EQ(c.latencyMs(), 20.0 * 0.25 + 300.0 * 0.75);
  // A position reported in the future: the plain path measures.
  c.set(0, 5000.0);
  c.pushed(30, 3000.0);
  c.delivered(30, 3010.0);
  EXPECT_DOUBLE_EQ(c.latencyMs(), 10.0 * 0.25 + 230.0 * 0.75);
}

TEST(PlayoutClock, RingForgetsOverwrittenAndDeliveredOrdinals) {
  PlayoutClock c(640, 16000);
  c.delivered(4, 10.0);  // never pushed
  EXPECT_DOUBLE_EQ(c.latencyMs(), -1.0);
  c.pushed(10, 0.0);
  c.pushed(74, 5.0);     // same entry: 10 is forgotten
  c.delivered(10, 50.0);
  EXPECT_DOUBLE_EQ(c.latencyMs(), -1.0);
  c.delivered(74, 25.0);
  EXPECT_DOUBLE_EQ(c.latencyMs(), 20.0);
  c.delivered(74, 90.0);  // a second delivery changes nothing
  EXPECT_DOUBLE_EQ(c.latencyMs(), 20.0);
  c.pushed(-1, 0.0);
  c.delivered(-1, 1.0);
  c.pushed(5, 10.0);
  c.delivered(5, 5.0);  // negative latency is dropped
  EXPECT_DOUBLE_EQ(c.latencyMs(), 20.0);
}

TEST(PlayoutClock, ResetKeepsSkippedAndRates) {
  PlayoutClock c(0, 0);  // 640 and 16000
  c.set(6400, 0.0);
  EXPECT_EQ(c.firstDue(5, 0.0), 9);
  EXPECT_EQ(c.noteSkipped(3), 3);
  EXPECT_EQ(c.noteSkipped(0), 3);
  EXPECT_EQ(c.noteSkipped(-2), 3);
  c.pushed(2, 0.0);
  c.delivered(2, 10.0);
  c.pushed(3, 0.0);
  c.reset();
  EXPECT_EQ(c.firstDue(5, 0.0), 5);
  EXPECT_DOUBLE_EQ(c.latencyMs(), -1.0);
  c.delivered(3, 10.0);  // the ring was emptied
  EXPECT_DOUBLE_EQ(c.latencyMs(), -1.0);
  EXPECT_EQ(c.skipped(), 3);
}

TEST(PlayoutClock, SkipSwitchIsComparedAsAWholeString) {
  {
    le::test::ScopedEnv off("LE_PLAYOUT_SKIP", "0");
    PlayoutClock c(640, 16000);
    c.set(64000, 0.0);
    EXPECT_EQ(c.firstDue(5, 0.0), 5);
    EXPECT_EQ(c.firstDueReady(5, 50, 0.0), 5);
    c.pushed(1, 0.0);
    c.delivered(1, 30.0);  // still measures
    EXPECT_DOUBLE_EQ(c.latencyMs(), 30.0);
  }
  for (const char* v : {"", "00", "false", "1"}) {
    le::test::ScopedEnv on("LE_PLAYOUT_SKIP", v);
    PlayoutClock c(640, 16000);
    c.set(64000, 0.0);
    EXPECT_EQ(c.firstDue(5, 0.0), 99) << "LE_PLAYOUT_SKIP=" << v;
  }
}

TEST(PlayoutCApi, NullHandlesAndDefaults) {
  EXPECT_EQ(le_playout_first_due(nullptr, 7), 7);
  EXPECT_EQ(le_playout_first_due_ready(nullptr, 7, 3), 7);
  EXPECT_EQ(le_playout_note_skipped(nullptr, 4), 0);
  EXPECT_DOUBLE_EQ(le_playout_latency_ms(nullptr), -1.0);
  le_playout_reset(nullptr);
  le_playout_set(nullptr, 5);
  le_playout_pushed(nullptr, 1);
  le_playout_delivered(nullptr, 1);
  le_playout_destroy(nullptr);

  le_playout* p = le_playout_create(0, 0);  // 640 and 16000
  ASSERT_NE(p, nullptr);
  le_playout_set(p, 6400);
  EXPECT_EQ(le_playout_first_due(p, 5), 9);
  EXPECT_EQ(le_playout_first_due_ready(p, 5, 7), 7);
  EXPECT_EQ(le_playout_note_skipped(p, 2), 2);
  le_playout_pushed(p, 1);
  le_playout_delivered(p, 1);
  EXPECT_GE(le_playout_latency_ms(p), 0.0);
  le_playout_reset(p);
  EXPECT_EQ(le_playout_first_due(p, 5), 5);
  EXPECT_DOUBLE_EQ(le_playout_latency_ms(p), -1.0);
  EXPECT_EQ(le_playout_note_skipped(p, 0), 2);
  le_playout_destroy(p);
}

// Producer, consumer, reporter and reader threads on one clock, as in a
// session; run under ThreadSanitizer this checks the locking.
TEST(PlayoutClock, ManyThreadsAtOnce) {
  le_playout* p = le_playout_create(640, 16000);
  std::atomic<bool> go{true};
  std::vector<std::thread> ts;
  ts.emplace_back([&] {
    for (int64_t o = 0; o < 20000; ++o) {
      le_playout_pushed(p, o);
      (void)le_playout_first_due_ready(p, o, o + 4);
    }
  });
  ts.emplace_back([&] {
    for (int64_t o = 0; o < 20000; ++o) le_playout_delivered(p, o);
  });
  ts.emplace_back([&] {
    for (int64_t s = 0; go.load(); s += 640) le_playout_set(p, s % 640000);
  });
  ts.emplace_back([&] {
    for (int i = 0; i < 5000; ++i) le_playout_note_skipped(p, 1);
  });
  ts[0].join();
  ts[1].join();
  ts[3].join();
  go = false;
  ts[2].join();
  EXPECT_EQ(le_playout_note_skipped(p, 0), 5000);
  const double lat = le_playout_latency_ms(p);
  EXPECT_LE(lat, 500.0);
  le_playout_destroy(p);
}

}  // namespace
