// DriverCursor over a steerable source: ordering, the loop's wrap, history
// and look-ahead hits, real seeks and their count, mutable pulls, and the
// sticky first failure of the decoder thread.
#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "driver/cursor.h"
#include "tests/driver/fake_source.h"
#include "tests/support/test_support.h"

namespace {

using le::test::errorOf;

using le::DriverCursor;
using le::test::FakeSource;
using le::test::FakeState;
using le::test::frameId;
using le::test::frameIs;

constexpr int kW = 8, kH = 4;  // 96-byte frames

struct Rig {
  std::shared_ptr<FakeState> state = std::make_shared<FakeState>();
  std::unique_ptr<DriverCursor> cursor;
  Rig(int nt, int look, int history, void (*setup)(FakeState&) = nullptr) {
    if (setup) setup(*state);
    cursor = DriverCursor::over(std::make_unique<FakeSource>(nt, kW, kH, state), look, history);
  }
  // Waits (bounded) until the decoder has `n` frames ahead of the reader.
  void waitBuffered(int n) const {
    for (int i = 0; i < 5000 && cursor->buffered() < n; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_EQ(cursor->buffered(), n);
  }
  // pullAt through the pointer form, checking id and content.
  void expectAt(int si) const {
    int id = -1;
    const uint8_t* f = cursor->pullAt(si, &id);
    ASSERT_EQ(id, si);
    ASSERT_TRUE(frameIs(f, cursor->frame_bytes, si)) << "content of frame " << si << " is " << frameId(f);
  }
};

TEST(DriverCursor, FaceCopiesTheSourceAndClampsLookAndHistory) {
  Rig r(5, 0, -5);
  EXPECT_EQ(r.cursor->nt, 5);
  EXPECT_EQ(r.cursor->w, kW);
  EXPECT_EQ(r.cursor->h, kH);
  EXPECT_EQ(r.cursor->frame_bytes, static_cast<std::size_t>(kW * kH * 3));
  EXPECT_EQ(r.cursor->backend, "fake");
  EXPECT_EQ(r.cursor->ringSlots(), 2);
  EXPECT_EQ(r.cursor->residentBytes(), 1000u + 2u * kW * kH * 3);
  EXPECT_EQ(r.cursor->position(), 0);
  EXPECT_EQ(r.cursor->seeks(), 0u);
  Rig session(5, 2, 11);
  EXPECT_EQ(session.cursor->ringSlots(), 14);
}

TEST(DriverCursor, InOrderPullsWrapByRewindWithoutSeeks) {
  Rig r(5, 2, 3);
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  for (int i = 0; i < 17; ++i) {
    EXPECT_EQ(r.cursor->pull(out.data()), i % 5);
    EXPECT_TRUE(frameIs(out.data(), out.size(), i % 5)) << i;
    EXPECT_EQ(r.cursor->position(), (i + 1) % 5);
  }
  EXPECT_EQ(r.cursor->seeks(), 0u);
  std::lock_guard<std::mutex> lk(r.state->m);
  EXPECT_GE(r.state->rewinds, 3);
  EXPECT_TRUE(r.state->seeks.empty());
}

TEST(DriverCursor, PullAtInLoopOrderIsFreeAcrossTheWrap) {
  Rig r(6, 2, 11);
  for (int i = 0; i < 20; ++i) r.expectAt(i % 6);
  EXPECT_EQ(r.cursor->seeks(), 0u);
}

TEST(DriverCursor, PointerAndMutableFormsOfThePlainPull) {
  Rig r(4, 2, 3);
  int id = -1;
  const uint8_t* f = r.cursor->pull(&id);
  EXPECT_EQ(id, 0);
  EXPECT_TRUE(frameIs(f, r.cursor->frame_bytes, 0));
  uint8_t* g = r.cursor->pullMut(&id);
  EXPECT_EQ(id, 1);
  EXPECT_TRUE(frameIs(g, r.cursor->frame_bytes, 1));
  g[5] ^= 0xff;  // the caller may change it in place
  r.cursor->seek(3);
  EXPECT_EQ(r.cursor->position(), 3);
  f = r.cursor->pull(&id);
  EXPECT_EQ(id, 3);
  EXPECT_TRUE(frameIs(f, r.cursor->frame_bytes, 3));
}

TEST(DriverCursor, TheFrameJustServedComesFromHistory) {
  Rig r(10, 2, 11);
  r.expectAt(0);
  r.expectAt(1);
  r.expectAt(1);
  r.expectAt(1);
  r.expectAt(0);
  r.expectAt(1);
  r.expectAt(2);
  EXPECT_EQ(r.cursor->seeks(), 0u);
}

TEST(DriverCursor, BackStepOfHistoryPlusOneIsFreeOneMoreSeeks) {
  const int history = 4, look = 2;
  {
    Rig r(30, look, history);
    for (int i = 0; i < 10; ++i) r.expectAt(i);
    r.waitBuffered(look);
    // position is 10: frames 10 - (history + 1) .. 9 are in history.
    r.expectAt(10 - (history + 1));
    EXPECT_EQ(r.cursor->seeks(), 0u);
    r.expectAt(10 - history);  // and the ring plays on from there
    EXPECT_EQ(r.cursor->seeks(), 0u);
  }
  {
    Rig r(30, look, history);
    for (int i = 0; i < 10; ++i) r.expectAt(i);
    r.waitBuffered(look);
    r.expectAt(10 - (history + 2));
    EXPECT_EQ(r.cursor->seeks(), 1u);
    std::lock_guard<std::mutex> lk(r.state->m);
    EXPECT_EQ(r.state->seeks, std::vector<int>{10 - (history + 2)});
  }
}

TEST(DriverCursor, ForwardSkipInsideTheLookAheadIsFree) {
  Rig r(20, 4, 2);
  r.expectAt(0);
  r.waitBuffered(4);  // frames 1..4
  r.expectAt(3);
  EXPECT_EQ(r.cursor->seeks(), 0u);
  int id = -1;
  r.cursor->pull(&id);
  EXPECT_EQ(id, 4);
  // Past the look-ahead: a real seek.
  r.waitBuffered(4);  // frames 5..8
  r.expectAt(12);
  EXPECT_EQ(r.cursor->seeks(), 1u);
}

TEST(DriverCursor, SkipToTheFrameBeingDecodedWaitsForItWithoutASeek) {
  Rig r(10, 2, 2, [](FakeState& s) { s.gate = 2; });
  r.expectAt(0);
  r.state->waitInGate();  // frame 1 is published, the decoder is inside next() for 2
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    r.state->openGate();
  });
  r.expectAt(2);
  release.join();
  EXPECT_EQ(r.cursor->seeks(), 0u);
}

TEST(DriverCursor, ASeekWhileTheDecoderIsInsideNextDropsThatFrame) {
  Rig r(10, 1, 3, [](FakeState& s) { s.gate = 1; });
  r.expectAt(0);
  r.state->waitInGate();  // decoding frame 1
  r.cursor->seek(5);
  EXPECT_EQ(r.cursor->seeks(), 1u);
  EXPECT_EQ(r.cursor->position(), 5);
  r.state->openGate();
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  EXPECT_EQ(r.cursor->pull(out.data()), 5);
  EXPECT_TRUE(frameIs(out.data(), out.size(), 5));
  r.expectAt(6);
  {
    std::lock_guard<std::mutex> lk(r.state->m);
    ASSERT_GE(r.state->decoded.size(), 3u);
    EXPECT_EQ(r.state->decoded[1], 1);  // decoded, then dropped
  }
  // Frame 1 was never published: asking for it is a real seek.
  r.expectAt(1);
  EXPECT_EQ(r.cursor->seeks(), 2u);
}

TEST(DriverCursor, TwoSeeksInARowBothCountTheSecondSkipsTheRing) {
  Rig r(10, 1, 3, [](FakeState& s) { s.gate = 1; });
  r.expectAt(0);
  r.state->waitInGate();
  r.cursor->seek(6);  // pending: the decoder is held inside next()
  EXPECT_EQ(r.cursor->seeks(), 1u);
  r.cursor->seek(0);  // frame 0 is in history, but a seek is pending
  EXPECT_EQ(r.cursor->seeks(), 2u);
  r.state->openGate();
  r.expectAt(0);
  r.expectAt(1);
  EXPECT_EQ(r.cursor->seeks(), 2u);
}

TEST(DriverCursor, AMutablePullIsNeverServedAgain) {
  Rig r(10, 2, 11);
  r.expectAt(0);
  r.expectAt(1);
  int id = -1;
  uint8_t* f = r.cursor->pullMutAt(2, &id);
  EXPECT_EQ(id, 2);
  std::memset(f + 8, 0, 16);
  EXPECT_EQ(r.cursor->seeks(), 0u);
  r.expectAt(2);  // a fresh decode of frame 2, not the changed slot
  EXPECT_EQ(r.cursor->seeks(), 1u);
  // Nor is anything before it: the floor moved past the changed frame.
  r.expectAt(1);
  EXPECT_EQ(r.cursor->seeks(), 2u);
}

TEST(DriverCursor, AnIndexOutsideTheMemberIsRefusedBeforeAnyStateChanges) {
  Rig r(5, 2, 3);
  r.expectAt(0);
  r.expectAt(1);
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(5, out.data()); }), "le_driver: seek(5) outside [0,5)");
  EXPECT_EQ(errorOf([&] {
              int id;
              r.cursor->pullAt(-1, &id);
            }),
            "le_driver: seek(-1) outside [0,5)");
  EXPECT_EQ(errorOf([&] { r.cursor->seek(7); }), "le_driver: seek(7) outside [0,5)");
  EXPECT_EQ(r.cursor->position(), 2);
  EXPECT_EQ(r.cursor->seeks(), 0u);
  EXPECT_EQ(r.cursor->pullAt(4, out.data()), 4);  // 4 is the last frame, and served
  EXPECT_TRUE(frameIs(out.data(), out.size(), 4));
  EXPECT_EQ(r.cursor->pull(out.data()), 0);
}

TEST(DriverCursor, AShortMemberFailsAtTheMissingFrameWithTheSentence) {
  Rig r(4, 1, 2, [](FakeState& s) { s.present = 3; });
  for (int i = 0; i < 3; ++i) r.expectAt(i);
  const std::string want =
      "le_driver: fake ended after 3 frames, the manifest says NT=4 — a short driver is a session that stops part "
      "way through the loop, refusing";
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(3, out.data()); }), want);
  // Sticky: every later seek and pull says the same, even of frames that
  // were in the ring.
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(2, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { r.cursor->pull(out.data()); }), want);
  EXPECT_EQ(errorOf([&] { r.cursor->seek(0); }), want);
}

TEST(DriverCursor, AFailingFrameIsStickyWithItsOwnText) {
  Rig r(8, 1, 11, [](FakeState& s) { s.fail_at = 2; });
  r.expectAt(0);
  r.expectAt(1);
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(2, out.data()); }), "le_driver: boom at 2");
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(0, out.data()); }), "le_driver: boom at 2");
  EXPECT_EQ(errorOf([&] {
              int id;
              r.cursor->pullMut(&id);
            }),
            "le_driver: boom at 2");
  // The failure came from the decoder, so the index refusal still comes first.
  EXPECT_EQ(errorOf([&] { r.cursor->seek(8); }), "le_driver: seek(8) outside [0,8)");
}

TEST(DriverCursor, ASourceSeekFailureIsSticky) {
  Rig r(8, 1, 1, [](FakeState& s) { s.seek_fails = true; });
  r.expectAt(0);
  std::vector<uint8_t> out(r.cursor->frame_bytes);
  const std::string want = "le_driver: seek failed: no seeking here";
  EXPECT_EQ(errorOf([&] { r.cursor->pullAt(6, out.data()); }), want);
  EXPECT_EQ(r.cursor->seeks(), 1u);
  EXPECT_EQ(errorOf([&] { r.cursor->pull(out.data()); }), want);
}

TEST(DriverCursor, DestructionWhileTheDecoderWaitsOrDecodes) {
  // Full ring: the decoder waits for space.
  { Rig r(5, 2, 1); r.waitBuffered(2); }
  // Inside next(): the destructor waits for the frame, then joins.
  Rig r(5, 2, 1, [](FakeState& s) { s.gate = 1; });
  r.state->waitInGate();
  std::thread release([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    r.state->openGate();
  });
  r.cursor.reset();
  release.join();
}

TEST(DriverCursor, ConcurrentPullersEachGetTheirOwnFrame) {
  // The copying pulls copy while they hold the cursor, so two threads can't
  // get each other's frame or a half-written one. (A pointer into the ring
  // is another matter: another thread's pulls make the decoder write, and the
  // pointer holds only until ring further frames have been written.)
  Rig r(40, 2, 11);
  auto worker = [&](unsigned seed, int* bad) {
    std::mt19937 rng(seed);
    std::vector<uint8_t> out(r.cursor->frame_bytes);
    int last = static_cast<int>(seed % 40);
    for (int i = 0; i < 300; ++i) {
      // Mostly in order, sometimes a jump, like the sessions ask.
      const int si = rng() % 5 == 0 ? static_cast<int>(rng() % 40) : (last + 1) % 40;
      if (i % 2) {
        if (r.cursor->pullAt(si, out.data()) != si || !frameIs(out.data(), out.size(), si)) ++*bad;
      } else {
        // Another thread may pull between this seek and this pull; whatever
        // comes must be whole and the frame the cursor says it is.
        r.cursor->seek(si);
        const int id = r.cursor->pull(out.data());
        if (!frameIs(out.data(), out.size(), id)) ++*bad;
      }
      last = si;
    }
  };
  int bad_a = 0, bad_b = 0;
  std::thread a(worker, 1u, &bad_a), b(worker, 2u, &bad_b);
  a.join();
  b.join();
  EXPECT_EQ(bad_a, 0);
  EXPECT_EQ(bad_b, 0);
}

TEST(DriverCursor, OverRefusesNothingToPlay) {
  EXPECT_EQ(errorOf([] { DriverCursor::over(nullptr, 2, 11); }), "le_driver: no source to play");
  auto state = std::make_shared<FakeState>();
  EXPECT_EQ(errorOf([&] { DriverCursor::over(std::make_unique<FakeSource>(0, kW, kH, state), 2, 11); }),
            "le_driver: fake has 0 frames — nothing to play");
}

}  // namespace
