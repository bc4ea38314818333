// The live session on a director whose source cone is hoisted: the frame
// renderer's worker prefetches beside the session's own threads, and the
// speech frames are the bytes of the same director never hoisted.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "le/le.h"
#include "le/le_utt.h"
#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::Frame;

// The speech frames of one utterance of the clip on the cone bundle's
// director `model`, with the chunk renderer `steady` ("-" for none).
std::vector<Frame> speechFrames(const char* model, const char* steady) {
  le::test::useGeneratedSpeechEncoder();
  const std::string bundle = le::test::dataPath("render/cone/bundle");
  std::vector<Frame> speech;
  le_ctx* ctx = nullptr;
  le::test::captureStderr([&] { ctx = le_create(bundle.c_str(), model, 0, nullptr); });
  if (!ctx) {
    ADD_FAILURE() << le_last_error();
    return speech;
  }
  le_utt_opts o{};
  o.motion_dir = bundle.c_str();
  o.steady_model = steady;
  le_utt* utt = le_utt_create(ctx, &o);
  if (utt && le::test::waitReady(utt) == 1) {
    const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
    EXPECT_EQ(le_utt_push_audio(utt, pcm.data(), static_cast<int>(pcm.size())), 1);
    le_utt_end_utterance(utt);
    const size_t bytes = static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3;
    const std::vector<Frame> f = le::test::pullUntil(
        utt, bytes, 60000,
        [](const std::vector<Frame>& v) {
          bool ramp = false;
          for (const Frame& x : v) {
            ramp = ramp || x.info.type == 2;
            if (ramp && x.info.type == 0) return true;
          }
          return false;
        },
        true);
    for (const Frame& x : f)
      if (x.info.type == 1) speech.push_back(x);
    EXPECT_EQ(speech.size(), (pcm.size() + 639) / 640);
  } else {
    ADD_FAILURE() << le_utt_last_error();
  }
  le_utt_destroy(utt);
  le_destroy(ctx);
  return speech;
}

TEST(UttHoist, SpeechFramesOfAHoistedDirectorAreTheUnhoistedBytes) {
  le::test::ScopedEnv onset("LE_UTT_ONSET_SI", "0");
  const std::vector<Frame> hoisted = speechFrames("b1_fp32", "-");
  const std::vector<Frame> plain = speechFrames("symbolic", "-");
  ASSERT_EQ(hoisted.size(), plain.size());
  ASSERT_FALSE(hoisted.empty());
  for (size_t i = 0; i < hoisted.size(); ++i) {
    EXPECT_EQ(hoisted[i].info.si, plain[i].info.si) << "speech frame " << i;
    EXPECT_TRUE(hoisted[i].rgb == plain[i].rgb) << "speech frame " << i;
  }
  // With the chunk renderer beside it, the first frame still comes from the
  // hoisted renderer and the rest from the chunks.
  const std::vector<Frame> chunked = speechFrames("b1_fp32", "b4_fp32");
  ASSERT_EQ(chunked.size(), hoisted.size());
  EXPECT_TRUE(chunked[0].rgb == hoisted[0].rgb);
}

}  // namespace
