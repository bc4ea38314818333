// The live session through its C interface: refusals, the idle stream, the
// shape of an utterance, its ends, interrupts, late-frame skipping, the two
// paste roads, failures on the session's threads, and a storm of host
// threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_utt.h"
#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::Frame;
using le::test::pullUntil;
using le::test::ScopedEnv;

constexpr int kRampEnd = 6, kRampInterrupt = 4;

using Live = le::test::LiveSession;
using le::test::backToIdleAfterRamp;
using le::test::framesOf;
using le::test::nowMs;

std::string sample() { return le::test::dataPath("sample"); }

void expectUtteranceShape(const std::vector<Frame>& f, int n, int ramp, int nt) {
  size_t i = 0;
  while (i < f.size() && f[i].info.type == 0) ++i;
  for (int o = 0; o < n; ++o, ++i) {
    ASSERT_LT(i, f.size()) << "ran out at ordinal " << o;
    ASSERT_EQ(f[i].info.type, 1) << "frame " << i;
    ASSERT_EQ(f[i].info.ordinal, o);
    if (o > 0) {
      EXPECT_EQ(f[i].info.si, (f[i - 1].info.si + 1) % nt) << "source walk at ordinal " << o;
    }
  }
  const int last_si = f[i - 1].info.si;
  for (int r = 0; r < ramp; ++r, ++i) {
    ASSERT_LT(i, f.size());
    ASSERT_EQ(f[i].info.type, 2) << "ramp frame " << r;
    EXPECT_EQ(f[i].info.ordinal, -1);
    EXPECT_EQ(f[i].info.si, (last_si + 1 + r) % nt);
  }
  ASSERT_LT(i, f.size());
  EXPECT_EQ(f[i].info.type, 0);
  for (size_t k = 1; k < f.size(); ++k) EXPECT_EQ(f[k].info.seq, f[k - 1].info.seq + 1) << "every frame delivered";
}

TEST(UttCApi, RefusalsWordForWord) {
  EXPECT_EQ(le_utt_create(nullptr, nullptr), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: NULL ctx/opts");
  le::test::useGeneratedSpeechEncoder();
  le_ctx* ctx = le_create(sample().c_str(), "b1_fp32", 0, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  EXPECT_EQ(le_utt_create(ctx, nullptr), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: NULL ctx/opts");
  le_utt_opts opts{};
  EXPECT_EQ(le_utt_create(ctx, &opts), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: opts.motion_dir required");
  opts.motion_dir = "";
  EXPECT_EQ(le_utt_create(ctx, &opts), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: opts.motion_dir required");
  EXPECT_EQ(le_utt_open(ctx, nullptr), nullptr);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_create: opts.motion_dir required");

  le_utt* utt = le_utt_open(ctx, sample().c_str());
  ASSERT_NE(utt, nullptr) << le_utt_last_error();
  EXPECT_STREQ(le_utt_last_error(), "");
  const int16_t pcm[4] = {1, 2, 3, 4};
  EXPECT_EQ(le_utt_push_audio(nullptr, pcm, 4), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_push_audio: bad args");
  EXPECT_EQ(le_utt_push_audio(utt, nullptr, 4), 0);
  EXPECT_EQ(le_utt_push_audio(utt, pcm, -1), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_push_audio: bad args");
  EXPECT_EQ(le_utt_push_audio(utt, pcm, 0), 1);
  EXPECT_STREQ(le_utt_last_error(), "");

  uint8_t small[16];
  EXPECT_EQ(le_utt_pull_frame(nullptr, small, sizeof small, nullptr), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: bad args");
  EXPECT_EQ(le_utt_pull_frame(utt, nullptr, 100, nullptr), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: bad args");
  // A short buffer leaves the frame in the queue.
  const auto t0 = nowMs();
  while (le_utt_frames_available(utt) == 0 && nowMs() - t0 < 10000) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_GE(le_utt_frames_available(utt), 1);
  const int before = le_utt_frames_available(utt);
  EXPECT_EQ(le_utt_pull_frame(utt, small, sizeof small, nullptr), 0);
  EXPECT_STREQ(le_utt_last_error(), "le_utt_pull_frame: buffer too small");
  EXPECT_GE(le_utt_frames_available(utt), before);

  // Null handles.
  EXPECT_EQ(le_utt_ready(nullptr), -1);
  EXPECT_EQ(le_utt_frames_available(nullptr), 0);
  EXPECT_EQ(le_utt_render_status(nullptr, nullptr, 0, nullptr), 0);
  EXPECT_EQ(le_utt_set_playout_position(nullptr, 5), -1);
  EXPECT_EQ(le_utt_playout_stats(nullptr, nullptr, nullptr, nullptr), -1);
  le_utt_end_utterance(nullptr);
  le_utt_interrupt(nullptr);
  le_utt_get_stats(nullptr, nullptr);
  le_utt_get_stats(utt, nullptr);
  le_utt_destroy(nullptr);
  le_utt_destroy(utt);
  le_destroy(ctx);
}

// Idle frames are the driver frames as they are, the source index walking
// round the loop, from the moment the session exists.
TEST(UttSession, IdleStreamIsTheDriverLoop) {
  Live s(sample());
  std::vector<Frame> f = pullUntil(s.utt, s.bytes, 20000, [](const auto& v) { return v.size() >= 9; }, true);
  ASSERT_EQ(f.size(), 9u);
  for (size_t i = 0; i < f.size(); ++i) {
    EXPECT_EQ(f[i].info.type, 0);
    EXPECT_EQ(f[i].info.ordinal, -1);
    if (i > 0) {
      EXPECT_EQ(f[i].info.seq, f[i - 1].info.seq + 1);
      EXPECT_EQ(f[i].info.si, (f[i - 1].info.si + 1) % s.nt);
    }
  }
  // le_target_frame reads the same cursor: not while the session runs.
  std::vector<std::vector<uint8_t>> expect;
  const std::vector<Frame> copy = f;
  le_utt_destroy(s.utt);
  s.utt = nullptr;
  for (const Frame& x : copy) {
    const uint8_t* want = le_target_frame(s.ctx, x.info.si);
    ASSERT_NE(want, nullptr);
    EXPECT_EQ(std::memcmp(want, x.rgb.data(), s.bytes), 0) << "idle frame of si " << x.info.si;
  }
}

TEST(UttSession, UtteranceShapeEndedByTheHost) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Live s(sample());
  ASSERT_EQ(le::test::waitReady(s.utt), 1) << le_utt_last_error();
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  int max_avail = 0;
  std::vector<Frame> f = pullUntil(s.utt, s.bytes, 60000, [&](const std::vector<Frame>& v) {
    max_avail = std::max(max_avail, le_utt_frames_available(s.utt));
    return backToIdleAfterRamp(v);
  });
  expectUtteranceShape(f, framesOf(pcm.size()), kRampEnd, s.nt);
  EXPECT_LE(max_avail, 8);
  le_utt_stats st{};
  le_utt_get_stats(s.utt, &st);
  EXPECT_EQ(st.utterances, 1u);
  EXPECT_EQ(st.speech_frames_out, static_cast<uint64_t>(framesOf(pcm.size())));
  EXPECT_GT(st.first_frame_ms, 0.0);
  EXPECT_GT(st.frame_ms, 0.0);
  int64_t skipped = -1, sample_at = 0;
  double lat = 0;
  EXPECT_EQ(le_utt_playout_stats(s.utt, &skipped, &sample_at, &lat), 0);  // no position: nothing skipped
  EXPECT_EQ(skipped, 0);
  EXPECT_EQ(sample_at, -1);  // the last frame pulled was idle
  char text[8] = "x";
  uint64_t failures = 99;
  EXPECT_EQ(le_utt_render_status(s.utt, text, sizeof text, &failures), 0);
  EXPECT_EQ(failures, 0u);
  EXPECT_STREQ(text, "");
}

TEST(UttSession, SilenceEndsAnUtteranceAndNegativeSilenceWaits) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  {
    le_utt_opts o{};
    o.silence_s = 0.3;
    Live s(sample(), o);
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    le_utt_end_utterance(s.utt);  // no utterance open: consumed, no effect on the next
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    s.push(pcm);
    auto f = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
    expectUtteranceShape(f, framesOf(pcm.size()), kRampEnd, s.nt);
  }
  {
    le_utt_opts o{};
    o.silence_s = -1.0;
    o.ramp_end_frames = 3;
    Live s(sample(), o);
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    s.push(pcm);
    // Without an end the model holds back its look-ahead, and nothing ramps.
    auto f = pullUntil(s.utt, s.bytes, 1500, [](const std::vector<Frame>&) { return false; });
    int speech = 0;
    for (const Frame& x : f) {
      EXPECT_NE(x.info.type, 2);
      speech += x.info.type == 1;
    }
    EXPECT_LT(speech, framesOf(pcm.size()));
    le_utt_end_utterance(s.utt);
    auto rest = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
    f.insert(f.end(), rest.begin(), rest.end());
    expectUtteranceShape(f, framesOf(pcm.size()), 3, s.nt);
  }
}

TEST(UttSession, InterruptDropsEverythingAndRampsFromTheLastPulledFrame) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Live s(sample());
  ASSERT_EQ(le::test::waitReady(s.utt), 1);
  // Interrupt before any speech frame was pulled, after idle frames: idle,
  // continuing from the frame the host saw.
  auto idle = pullUntil(s.utt, s.bytes, 10000, [](const auto& v) { return v.size() >= 2; });
  ASSERT_EQ(idle.size(), 2u);
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  le_utt_interrupt(s.utt);
  auto after = pullUntil(s.utt, s.bytes, 3000, [](const auto& v) { return v.size() >= 3; });
  ASSERT_GE(after.size(), 1u);
  EXPECT_EQ(after[0].info.type, 0);
  EXPECT_EQ(after[0].info.si, (idle.back().info.si + 1) % s.nt);
  for (const Frame& x : after) EXPECT_EQ(x.info.type, 0) << "no speech, no ramp after an interrupt seen as idle";

  // Interrupt mid-speech: nothing of the old generation after it returns,
  // then a ramp of 4 from the last pulled frame, then idle.
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  auto f = pullUntil(s.utt, s.bytes, 60000, [](const std::vector<Frame>& v) {
    int speech = 0;
    for (const Frame& x : v) speech += x.info.type == 1;
    return speech >= 10;
  });
  ASSERT_FALSE(f.empty());
  const Frame last = f.back();
  ASSERT_EQ(last.info.type, 1);
  le_utt_interrupt(s.utt);
  // The queue was emptied at once; a ramp frame takes a render and a paste
  // before it can be there.
  EXPECT_EQ(le_utt_frames_available(s.utt), 0);
  auto g = pullUntil(s.utt, s.bytes, 20000, [](const std::vector<Frame>& v) {
    return !v.empty() && v.back().info.type == 0;
  });
  ASSERT_EQ(g.size(), static_cast<size_t>(kRampInterrupt + 1));
  for (int r = 0; r < kRampInterrupt; ++r) {
    EXPECT_EQ(g[r].info.type, 2);
    EXPECT_EQ(g[r].info.si, (last.info.si + 1 + r) % s.nt);
    EXPECT_GT(g[r].info.seq, last.info.seq);
  }
  // Speaking again starts a new utterance at ordinal 0.
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  auto h = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
  expectUtteranceShape(h, framesOf(pcm.size()), kRampEnd, s.nt);
  // The first utterance counts if its frame 0 reached the queue before the
  // interrupt dropped it.
  le_utt_stats st{};
  le_utt_get_stats(s.utt, &st);
  EXPECT_GE(st.utterances, 2u);
  EXPECT_LE(st.utterances, 3u);
}

// A host whose audio runs ahead of the frames: late frames are stepped over,
// ordinal 0 never, and the gaps add up to the count reported.
TEST(UttSession, LateFramesAreSkippedAgainstThePlayoutPosition) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Live s(sample());
  ASSERT_EQ(le::test::waitReady(s.utt), 1);
  EXPECT_EQ(le_utt_set_playout_position(s.utt, 0), 0);  // before any audio: nothing to skip
  int64_t skipped = -1;
  EXPECT_EQ(le_utt_playout_stats(s.utt, &skipped, nullptr, nullptr), 1);
  EXPECT_EQ(skipped, 0);
  std::atomic<bool> run{true};
  const double t0 = nowMs();
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  // The host's speaker is 30 frames into the audio the moment it is pushed.
  std::thread reporter([&] {
    while (run) {
      le_utt_set_playout_position(s.utt, static_cast<int64_t>(30 * 640 + (nowMs() - t0) * 16.0));
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  });
  auto f = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
  run = false;
  reporter.join();
  std::vector<int> ordinals;
  for (const Frame& x : f)
    if (x.info.type == 1) ordinals.push_back(x.info.ordinal);
  ASSERT_FALSE(ordinals.empty());
  EXPECT_EQ(ordinals.front(), 0);
  int64_t gaps = 0;
  for (size_t i = 1; i < ordinals.size(); ++i) {
    ASSERT_GT(ordinals[i], ordinals[i - 1]);
    gaps += ordinals[i] - ordinals[i - 1] - 1;
  }
  gaps += framesOf(pcm.size()) - 1 - ordinals.back();
  EXPECT_EQ(le_utt_playout_stats(s.utt, &skipped, nullptr, nullptr), 1);
  EXPECT_GT(skipped, 0);
  EXPECT_EQ(skipped, gaps);

  // After an interrupt the old position is gone: nothing is skipped until
  // the host reports again.
  le_utt_interrupt(s.utt);
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  auto g = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
  int64_t again = -1;
  le_utt_playout_stats(s.utt, &again, nullptr, nullptr);
  EXPECT_EQ(again, skipped);
  int speech = 0;
  for (const Frame& x : g) speech += x.info.type == 1;
  EXPECT_EQ(speech, framesOf(pcm.size()));
}

// The inline and the pipelined paste give the same frames, byte for byte.
TEST(UttSession, InlineAndPipelinedPasteGiveTheSameBytes) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  ScopedEnv onset("LE_UTT_ONSET_SI", "1");
  std::vector<std::vector<Frame>> runs;
  for (const char* pipe : {"0", "1"}) {
    ScopedEnv e("LE_UTT_PIPELINE_PASTE", pipe);
    Live s(sample());
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    s.push(pcm);
    le_utt_end_utterance(s.utt);
    auto f = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp, true);
    std::vector<Frame> speech;
    for (Frame& x : f)
      if (x.info.type != 0) speech.push_back(std::move(x));
    runs.push_back(std::move(speech));
  }
  ASSERT_EQ(runs[0].size(), runs[1].size());
  ASSERT_EQ(runs[0].size(), static_cast<size_t>(framesOf(pcm.size()) + kRampEnd));
  EXPECT_EQ(runs[0][0].info.si, 1);
  for (size_t i = 0; i < runs[0].size(); ++i) {
    EXPECT_EQ(runs[0][i].info.si, runs[1][i].info.si);
    EXPECT_EQ(runs[0][i].rgb, runs[1][i].rgb) << "frame " << i;
  }
}

// Chunks on the steady renderer after the first frame: the same utterance
// shape, and frames within a byte of the single-frame road.
TEST(UttSession, ChunkRendererKeepsTheShape) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  ScopedEnv onset("LE_UTT_ONSET_SI", "0");
  std::vector<std::vector<Frame>> runs;
  for (const char* steady : {"b4_fp32", "-"}) {
    le_utt_opts o{};
    o.steady_model = steady;
    Live s(le::test::dataPath("render/bundles/chunk"), o);
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    s.push(pcm);
    le_utt_end_utterance(s.utt);
    auto f = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp, true);
    expectUtteranceShape(f, framesOf(pcm.size()), kRampEnd, s.nt);
    std::vector<Frame> speech;
    for (Frame& x : f)
      if (x.info.type == 1) speech.push_back(std::move(x));
    runs.push_back(std::move(speech));
  }
  ASSERT_EQ(runs[0].size(), runs[1].size());
  for (size_t i = 0; i < runs[0].size(); ++i) {
    int worst = 0;
    for (size_t k = 0; k < runs[0][i].rgb.size(); ++k)
      worst = std::max(worst, std::abs(int(runs[0][i].rgb[k]) - int(runs[1][i].rgb[k])));
    EXPECT_LE(worst, 1) << "speech frame " << i;
  }
}

// A bundle without the streaming encoder: warm-up fails with the model's
// sentence (on the asking thread only), idle frames keep flowing, and audio
// is dropped without an error.
TEST(UttSession, MissingSpeechModelKeepsTheIdleStream) {
  le::test::TempDir tmp;
  le::test::copyTree(sample(), tmp / "b");
  std::remove((tmp / "b/a2x_enc_stream.onnx").c_str());
  Live s(tmp / "b");
  ASSERT_EQ(le::test::waitReady(s.utt), -1);
  const std::string why = le_utt_last_error();
  EXPECT_NE(why.find("le_motion_create"), std::string::npos) << why;
  std::string other = "unset";
  std::thread([&] { other = le_utt_last_error(); }).join();
  EXPECT_EQ(other, "");
  EXPECT_EQ(le_utt_push_audio(s.utt, le::test::clip("speech_3s.wav").data(), 16000), 1);
  EXPECT_STREQ(le_utt_last_error(), "");
  auto f = pullUntil(s.utt, s.bytes, 10000, [](const auto& v) { return v.size() >= 12; });
  ASSERT_EQ(f.size(), 12u);
  for (const Frame& x : f) EXPECT_EQ(x.info.type, 0);
}

// A driver frame that can't be decoded costs its frame; the failure reaches
// the host through the render status, never as a silent stall.
TEST(UttSession, DriverFailureReachesTheHost) {
  le::test::TempDir tmp;
  le::test::copyTree(sample(), tmp / "b");
  le::test::writeFile(tmp / "b/target_frames/frame_000002.jpg", "not a jpeg");
  Live s(tmp / "b");
  auto f = pullUntil(s.utt, s.bytes, 3000, [](const auto&) { return false; });
  char text[512];
  uint64_t n = 0;
  EXPECT_EQ(le_utt_render_status(s.utt, text, sizeof text, &n), -1);
  EXPECT_GE(n, 1u);
  EXPECT_NE(std::string(text).find("driver: "), std::string::npos) << text;
  EXPECT_NE(std::string(text).find("frame_000002.jpg"), std::string::npos) << text;
  char tiny[10];
  le_utt_render_status(s.utt, tiny, sizeof tiny, nullptr);
  EXPECT_EQ(std::strlen(tiny), 9u);
}

// Many host threads pushing, pulling, ending and interrupting at once, under
// a watchdog; then destroy with everything in flight.
TEST(UttSession, StormOfHostThreadsThenDestroy) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  std::atomic<bool> finished{false};
  std::thread watchdog([&] {
    const double t0 = nowMs();
    while (!finished) {
      if (nowMs() - t0 > 120000) {
        std::fprintf(stderr, "storm: watchdog expired\n");
        std::abort();
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  {
    le_utt_opts o{};
    o.silence_s = 0.05;
    Live s(sample(), o);
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    std::atomic<bool> run{true};
    std::atomic<uint64_t> pulled{0};
    std::atomic<int> bad{0};
    std::vector<std::thread> ts;
    for (int p = 0; p < 2; ++p)
      ts.emplace_back([&, p] {
        std::mt19937 rng(p);
        size_t at = 0;
        while (run) {
          const size_t n = 1 + rng() % 2000;
          if (at + n > pcm.size()) at = 0;
          le_utt_push_audio(s.utt, pcm.data() + at, static_cast<int>(n));
          at += n;
          if (rng() % 50 == 0) le_utt_end_utterance(s.utt);
          std::this_thread::sleep_for(std::chrono::microseconds(rng() % 2000));
        }
      });
    for (int p = 0; p < 2; ++p)
      ts.emplace_back([&] {
        std::vector<uint8_t> rgb(s.bytes);
        uint64_t last = 0;
        bool any = false;
        while (run) {
          le_utt_frame_info info{};
          if (le_utt_pull_frame(s.utt, rgb.data(), rgb.size(), &info) == 1) {
            if (any && info.seq <= last) ++bad;
            last = info.seq;
            any = true;
            ++pulled;
          }
          if (le_utt_frames_available(s.utt) > 8) ++bad;
          std::this_thread::sleep_for(std::chrono::microseconds(300));
        }
      });
    ts.emplace_back([&] {
      std::mt19937 rng(7);
      for (int i = 0; run; ++i) {
        le_utt_interrupt(s.utt);
        if (i % 3 == 0) le_utt_set_playout_position(s.utt, rng() % 64000);
        std::this_thread::sleep_for(std::chrono::microseconds(500 + rng() % 5000));
      }
    });
    ts.emplace_back([&] {
      le_utt_stats st;
      char text[64];
      while (run) {
        le_utt_get_stats(s.utt, &st);
        le_utt_playout_stats(s.utt, nullptr, nullptr, nullptr);
        le_utt_render_status(s.utt, text, sizeof text, nullptr);
        std::this_thread::sleep_for(std::chrono::microseconds(700));
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(4000));
    run = false;
    for (auto& t : ts) t.join();
    EXPECT_EQ(bad.load(), 0);
    EXPECT_GT(pulled.load(), 20u);
    // Destroy with audio pending and frames queued.
    s.push(pcm);
    const double t0 = nowMs();
    le_utt_destroy(s.utt);
    s.utt = nullptr;
    EXPECT_LT(nowMs() - t0, 2000.0);
  }
  finished = true;
  watchdog.join();
}

TEST(UttSession, DestroyWhileSpeakingReturnsPromptly) {
  const std::vector<int16_t> pcm = le::test::clip("speech_10s.wav");
  Live s(sample());
  ASSERT_EQ(le::test::waitReady(s.utt), 1);
  s.push(pcm);
  pullUntil(s.utt, s.bytes, 30000, [](const std::vector<Frame>& v) { return !v.empty() && v.back().info.type == 1; });
  const double t0 = nowMs();
  le_utt_destroy(s.utt);
  s.utt = nullptr;
  EXPECT_LT(nowMs() - t0, 2000.0);
}

}  // namespace
