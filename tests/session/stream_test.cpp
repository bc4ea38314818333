// The batch session: its refusals, every frame in order on the calling
// thread and equal to the frame the context functions make of the same row,
// the lag and clip lengths, and failures on either thread ending the run
// with its error, never a hang.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_fca.h"
#include "le/le_stream.h"
#include "tests/motion/motion_testing.h"
#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace {

std::string speaking() { return le::test::dataPath("motion/bundles/speaking"); }
std::string w2v() { return le::test::dataPath("audio/w2v/w2v.onnx"); }

struct Seen {
  std::vector<int> index;
  std::vector<std::vector<uint8_t>> rgb;
  std::thread::id caller = std::this_thread::get_id();
  int offThread = 0;
  int w = 0, h = 0;
  bool keep = true;
};

int record(void* user, int32_t index, const uint8_t* rgb, int32_t w, int32_t h) {
  Seen& s = *static_cast<Seen*>(user);
  s.index.push_back(index);
  if (std::this_thread::get_id() != s.caller) ++s.offThread;
  s.w = w;
  s.h = h;
  if (s.keep) s.rgb.emplace_back(rgb, rgb + static_cast<size_t>(w) * h * 3);
  return 0;
}

struct Stream {
  le_stream* s;
  Stream(const std::string& dir, int lag, float gain) : s(le_stream_create(dir.c_str(), w2v().c_str(), 1, lag, gain)) {
    if (!s) ADD_FAILURE() << le_stream_last_error();
  }
  ~Stream() { le_stream_destroy(s); }
};

// A run under a watchdog: a hang fails the test instead of the suite.
int runGuarded(le_stream* s, const std::vector<float>& pcm, Seen* seen) {
  std::atomic<bool> finished{false};
  std::thread watchdog([&] {
    for (int i = 0; i < 6000 && !finished; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (!finished) {
      std::fprintf(stderr, "stream: the run did not end\n");
      std::abort();
    }
  });
  const int r = le_stream_run(s, pcm.data(), static_cast<int>(pcm.size()), seen ? record : nullptr, seen);
  finished = true;
  watchdog.join();
  return r;
}

TEST(StreamCApi, CreateRefusalsWordForWord) {
  EXPECT_EQ(le_stream_create(nullptr, w2v().c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_create: NULL bundle_dir");
  const std::string none = le::test::dataPath("motion/none");
  EXPECT_EQ(le_stream_create(none.c_str(), w2v().c_str(), 1, 0, 1.0f), nullptr);
  const std::string ctxWhy = le_stream_last_error();
  EXPECT_EQ(le_create(none.c_str(), "render", 1, ""), nullptr);
  EXPECT_EQ(ctxWhy, std::string("le_create: ") + le_last_error());

  // The sample bundle has no fca_stream.onnx.
  const std::string sample = le::test::dataPath("sample");
  EXPECT_EQ(le_stream_create(sample.c_str(), w2v().c_str(), 1, 0, 1.0f), nullptr);
  const std::string fcaWhy = le_stream_last_error();
  EXPECT_EQ(le_fca_create(w2v().c_str(), (sample + "/fca_stream.onnx").c_str(), 1), nullptr);
  EXPECT_EQ(fcaWhy, std::string("le_fca_create: ") + le_fca_last_error());

  le::test::TempDir tmp;
  le::test::copyTree(speaking(), tmp / "b");
  le::test::writeFile(tmp / "b/xs_target.bin", std::string(4 * 63 * 4 - 4, '\0'));
  EXPECT_EQ(le_stream_create((tmp / "b").c_str(), w2v().c_str(), 1, 0, 1.0f), nullptr);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_create: cannot read xs_target.bin (NT*63 f32)");
  EXPECT_EQ(le_stream_create(speaking().c_str(), w2v().c_str(), 1, -1, 1.0f), nullptr);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_create: lag must be 0 or more, got -1");

  Stream ok(speaking(), 0, 1.0f);
  EXPECT_STREQ(le_stream_last_error(), "");
  EXPECT_EQ(le_stream_width(ok.s), 64);
  EXPECT_EQ(le_stream_height(ok.s), 48);
  EXPECT_EQ(le_stream_run(nullptr, nullptr, 0, nullptr, nullptr), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: bad args");
  EXPECT_EQ(le_stream_run(ok.s, nullptr, 5, nullptr, nullptr), -1);
  EXPECT_EQ(le_stream_run(ok.s, nullptr, -1, nullptr, nullptr), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: bad args");
  le_stream_destroy(nullptr);
}

// Each frame is the driver frame of its row with the crop of its keypoints
// pasted in: the source row walks from lag mod NT, and the driven keypoints
// are the target row plus gain times the delta of frame index + lag.
void expectFramesOfRows(const std::vector<float>& pcm, int lag, float gain, const Seen& seen) {
  const int frames = static_cast<int>((pcm.size() + 639) / 640);
  le_fca* fca = le_fca_create(w2v().c_str(), (speaking() + "/fca_stream.onnx").c_str(), 1);
  ASSERT_NE(fca, nullptr);
  std::vector<float> deltas(static_cast<size_t>(frames) * 63);
  ASSERT_EQ(le_fca_deltas(fca, pcm.data(), static_cast<int>(pcm.size()), deltas.data(), frames), frames);
  le_fca_destroy(fca);
  const std::string xsBytes = le::test::readFile(speaking() + "/xs_target.bin");
  std::vector<float> xs(xsBytes.size() / 4);
  std::memcpy(xs.data(), xsBytes.data(), xs.size() * 4);
  le_ctx* ctx = le_create(speaking().c_str(), "render", 1, "");
  ASSERT_NE(ctx, nullptr);
  const int nt = le_nt(ctx);
  std::vector<uint8_t> frame(seen.rgb.empty() ? 0 : seen.rgb[0].size());
  for (size_t i = 0; i < seen.rgb.size(); ++i) {
    const int j = static_cast<int>(i) + lag;
    const int si = j % nt;
    float kd[63];
    for (int k = 0; k < 63; ++k) kd[k] = xs[static_cast<size_t>(si * 63 + k)] + gain * deltas[static_cast<size_t>(j * 63 + k)];
    const float* crop = le_render_kp_crop(ctx, si, xs.data() + si * 63, kd);
    ASSERT_NE(crop, nullptr);
    ASSERT_EQ(le_paste_crop(ctx, si, crop, frame.data(), frame.size()), 1);
    ASSERT_EQ(frame, seen.rgb[i]) << "frame " << i;
  }
  le_destroy(ctx);
}

TEST(StreamRun, EveryFrameInOrderOnTheCallingThread) {
  const std::vector<float> pcm = le::test::clipFloats("speech_3s.wav");
  Stream st(speaking(), 0, 1.0f);
  Seen seen;
  EXPECT_EQ(runGuarded(st.s, pcm, &seen), 75);
  ASSERT_EQ(seen.index.size(), 75u);
  for (int i = 0; i < 75; ++i) EXPECT_EQ(seen.index[static_cast<size_t>(i)], i);
  EXPECT_EQ(seen.offThread, 0);
  EXPECT_EQ(seen.w, 64);
  EXPECT_EQ(seen.h, 48);
  expectFramesOfRows(pcm, 0, 1.0f, seen);
  // Speech moves the face: not every frame is its target pose's.
  Stream still(speaking(), 0, 0.0f);
  Seen rest;
  EXPECT_EQ(runGuarded(still.s, pcm, &rest), 75);
  expectFramesOfRows(pcm, 0, 0.0f, rest);
  int differ = 0;
  for (size_t i = 0; i < 75; ++i) differ += seen.rgb[i] != rest.rgb[i];
  EXPECT_GT(differ, 10);
}

TEST(StreamRun, LagAndClipLengths) {
  const auto clip = [](size_t n) { return le::test::clipFloats("speech_3s.wav", n); };
  Stream st(speaking(), 0, 1.0f);
  for (const auto& [n, want] : {std::pair<size_t, int>{640, 1}, {641, 2}, {0, 0}}) {
    Seen seen;
    EXPECT_EQ(runGuarded(st.s, clip(n), &seen), want) << n;
    EXPECT_EQ(static_cast<int>(seen.index.size()), want);
  }
  // A null callback still renders every frame.
  EXPECT_EQ(runGuarded(st.s, clip(6400), nullptr), 10);

  Stream lagged(speaking(), 3, 0.5f);
  Seen none;
  EXPECT_EQ(runGuarded(lagged.s, clip(3 * 640), &none), 0);  // lag equal to the frames
  EXPECT_TRUE(none.index.empty());
  const std::vector<float> pcm = clip(20 * 640 + 1);
  Seen seen;
  EXPECT_EQ(runGuarded(lagged.s, pcm, &seen), 21 - 3);
  expectFramesOfRows(pcm, 3, 0.5f, seen);
}

TEST(StreamRun, RenderFailureEndsTheRun) {
  le::test::TempDir tmp;
  le::test::copyTree(speaking(), tmp / "b");
  le::test::writeFile(tmp / "b/model_render.onnx", "not a graph");
  Stream st(tmp / "b", 0, 1.0f);
  ASSERT_NE(st.s, nullptr);
  Seen seen;
  EXPECT_EQ(runGuarded(st.s, le::test::clipFloats("speech_3s.wav"), &seen), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: render/paste failed");
  EXPECT_TRUE(seen.index.empty());
  EXPECT_STREQ(le_last_error(), "");  // the render error stays on the render thread
}

TEST(StreamRun, PasteFailureEndsTheRun) {
  le::test::TempDir tmp;
  le::test::copyTree(speaking(), tmp / "b");
  le::test::writeFile(tmp / "b/target_frames/frame_000002.jpg", "not a jpeg");
  Stream st(tmp / "b", 0, 1.0f);
  ASSERT_NE(st.s, nullptr);
  Seen seen;
  seen.keep = false;
  EXPECT_EQ(runGuarded(st.s, le::test::clipFloats("speech_3s.wav"), &seen), -1);
  EXPECT_STREQ(le_stream_last_error(), "le_stream_run: render/paste failed");
  // Frames of source rows 0 and 1 at most: the driver can't give row 2.
  EXPECT_LE(seen.index.size(), 2u);
  const std::string why = le_last_error();
  EXPECT_NE(why.find("le_paste_crop"), std::string::npos) << why;
}

}  // namespace
