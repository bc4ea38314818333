// A bundle without the streaming model speaks through the live session on
// the motion pipeline: warm-up succeeds, every speech frame of an utterance
// comes out in order with its ramp, with the pipeline eager, patient or
// hybrid; audio pushed after the end of an utterance is refused by the
// pipeline and the session goes on.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_utt.h"
#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::Frame;
using le::test::pullUntil;

constexpr int kRampEnd = 6;

std::string speaking() { return le::test::dataPath("motion/bundles/speaking"); }

// The speaking bundle's session, motion eager as asked.
struct Live : le::test::LiveSession {
  explicit Live(int eager) : LiveSession(speaking(), optsOf(eager)) {}
  static le_utt_opts optsOf(int eager) {
    le_utt_opts o{};
    o.eager = eager;
    return o;
  }
};

using le::test::backToIdleAfterRamp;
using le::test::framesOf;

void expectUtterance(const std::vector<Frame>& f, int n, int nt) {
  size_t i = 0;
  while (i < f.size() && f[i].info.type == 0) ++i;
  for (int o = 0; o < n; ++o, ++i) {
    ASSERT_LT(i, f.size()) << "ran out at ordinal " << o;
    ASSERT_EQ(f[i].info.type, 1) << "frame " << i;
    ASSERT_EQ(f[i].info.ordinal, o);
    if (o > 0) {
      EXPECT_EQ(f[i].info.si, (f[i - 1].info.si + 1) % nt);
    }
  }
  for (int r = 0; r < kRampEnd; ++r, ++i) {
    ASSERT_LT(i, f.size());
    ASSERT_EQ(f[i].info.type, 2) << "ramp frame " << r;
  }
  ASSERT_LT(i, f.size());
  EXPECT_EQ(f[i].info.type, 0);
  for (size_t k = 1; k < f.size(); ++k) EXPECT_EQ(f[k].info.seq, f[k - 1].info.seq + 1);
}

TEST(UttMotion, ABundleWithoutTheStreamingModelSpeaks) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  // 0 leaves the session's default (automatic eagerness), 3 a fixed one,
  // -2 the hybrid gate.
  for (const int eager : {0, 3, -2}) {
    SCOPED_TRACE("eager " + std::to_string(eager));
    Live s(eager);
    ASSERT_NE(s.utt, nullptr);
    ASSERT_EQ(le::test::waitReady(s.utt), 1) << le_utt_last_error();
    ASSERT_EQ(le_utt_push_audio(s.utt, pcm.data(), static_cast<int>(pcm.size())), 1);
    le_utt_end_utterance(s.utt);
    const std::vector<Frame> f = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
    expectUtterance(f, framesOf(pcm.size()), s.nt);
    le_utt_stats st{};
    le_utt_get_stats(s.utt, &st);
    EXPECT_EQ(st.speech_frames_out, static_cast<uint64_t>(framesOf(pcm.size())));
    EXPECT_EQ(st.utterances, 1u);
    uint64_t failures = 1;
    EXPECT_EQ(le_utt_render_status(s.utt, nullptr, 0, &failures), 0);
    EXPECT_EQ(failures, 0u);
  }
}

TEST(UttMotion, AudioAfterTheEndIsRefusedAndTheSessionGoesOn) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Live s(0);
  ASSERT_EQ(le::test::waitReady(s.utt), 1) << le_utt_last_error();
  ASSERT_EQ(le_utt_push_audio(s.utt, pcm.data(), static_cast<int>(pcm.size())), 1);
  le_utt_end_utterance(s.utt);
  // The output queue holds the worker back: with frame 0 pulled the
  // utterance is still open when more audio comes.
  std::vector<Frame> f = pullUntil(s.utt, s.bytes, 60000, [](const std::vector<Frame>& v) {
    return !v.empty() && v.back().info.type == 1;
  });
  ASSERT_EQ(le_utt_push_audio(s.utt, pcm.data(), 16000), 1);
  const std::vector<Frame> rest = pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp);
  f.insert(f.end(), rest.begin(), rest.end());
  expectUtterance(f, framesOf(pcm.size()), s.nt);
  // The next utterance speaks in full.
  ASSERT_EQ(le_utt_push_audio(s.utt, pcm.data(), static_cast<int>(pcm.size())), 1);
  le_utt_end_utterance(s.utt);
  expectUtterance(pullUntil(s.utt, s.bytes, 60000, backToIdleAfterRamp), framesOf(pcm.size()), s.nt);
}

}  // namespace
