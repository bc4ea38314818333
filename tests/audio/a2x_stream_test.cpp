// The live stream through the C interface, on whichever frontend the
// process was started with (W2V_ONNX and LE_A2X_TEST_FRONTEND, "short" or
// "8s", set by CTest: the frontends are loaded once per process, so each
// runs in a process of its own). Settings read per object
// (LE_A2X_W2V_RIGHT, LE_A2X_SILENCE_PRIME) are changed inside the cases.
#include <gtest/gtest.h>
#include <onnxruntime_cxx_api.h>

#include <array>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "audio/a2x.h"
#include "audio/w2v_shared.h"
#include "le/le_a2x.h"
#include "tests/audio/a2x_testing.h"
#include "tests/support/test_support.h"

namespace le::test {
namespace {

bool shortFrontend() {
  const char* f = std::getenv("LE_A2X_TEST_FRONTEND");
  return f && std::strcmp(f, "short") == 0;
}

std::string bundle(const std::string& name) { return audioPath("bundles/" + name); }

// The causal bundle with left 0: every encoder row sees its own frame only,
// so a row's bits cannot depend on where the encoder's band starts. (With
// left > 0 the attention's softmax sums a row's terms in an order that
// depends on their place in the band, and the band's start depends on when
// rows became ready: rows then agree to within a unit in the last place.)
class RowLocalBundle {
 public:
  RowLocalBundle() {
    copyTree(bundle("causal"), dir_.path());
    writeFile(dir_ / "a2x_meta.json", R"({"h": 32, "window": 0, "left": 0, "layers": 2, "width": false})");
  }
  const std::string& path() const { return dir_.path(); }

 private:
  TempDir dir_;
};

struct Handle {
  explicit Handle(const std::string& b, int threads = 1) : a(createOrFail(b, threads)) {}
  ~Handle() { le_a2x_destroy(a); }
  le_a2x* a;
};

TEST(A2xStream, ServesTheFrontendItWasStartedWith) {
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  EXPECT_EQ(h.a->shortWindow, shortFrontend());
  EXPECT_EQ(h.a->lag, shortFrontend() ? 20 : 12);
  EXPECT_EQ(le_a2x_nt(h.a), 4);
  EXPECT_EQ(le_a2x_width(h.a), 0);
}

TEST(A2xStream, PushSizesDoNotChangeTheRows) {
  const std::vector<float> pcm = clip("speech_10s.wav");
  RowLocalBundle rowLocal;
  Handle h(rowLocal.path());
  ASSERT_NE(h.a, nullptr);
  if (shortFrontend()) {
    // Every block sees the same window whatever the pushes: one sample at a
    // time, frames, odd sizes and the whole clip give the same rows.
    const Pulled whole = stream(h.a, pcm, {static_cast<int>(pcm.size())});
    ASSERT_EQ(whole.total, 250);
    for (const std::vector<int>& sizes : {std::vector<int>{1}, {640}, {17, 999, 4093, 1, 6000}, {12345}}) {
      le_a2x_reset(h.a, 0, 1, 1);
      EXPECT_TRUE(stream(h.a, pcm, sizes) == whole) << "pushes starting " << sizes[0];
    }
  } else {
    // The 8 s window standardises whatever audio is usable when it runs, so
    // its rows depend on where the pushes leave the usable audio: pushes
    // that reach every block exactly give the same rows.
    const Pulled blocks = stream(h.a, pcm, {5120});
    ASSERT_EQ(blocks.total, 250);
    for (const std::vector<int>& sizes : {std::vector<int>{640}, {1280, 2560, 1280}, {2560}}) {
      le_a2x_reset(h.a, 0, 1, 1);
      EXPECT_TRUE(stream(h.a, pcm, sizes) == blocks) << "pushes starting " << sizes[0];
    }
  }
}

TEST(A2xStream, TheShortWindowFeedsTheSameFeaturesWhateverThePushes) {
  if (!shortFrontend()) GTEST_SKIP() << "the 8 s window depends on the usable audio when it runs";
  const std::vector<float> pcm = clip("speech_3s.wav");  // 75 frames: nothing is trimmed
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  stream(h.a, pcm, {static_cast<int>(pcm.size())});
  const std::vector<float> whole = h.a->feats;
  const int done = h.a->featDone;
  ASSERT_GE(done, 75);
  for (const std::vector<int>& sizes : {std::vector<int>{1}, {640}, {333, 7001}}) {
    le_a2x_reset(h.a, 0, 1, 1);
    stream(h.a, pcm, sizes);
    ASSERT_EQ(h.a->featDone, done);
    EXPECT_EQ(std::memcmp(h.a->feats.data(), whole.data(), static_cast<size_t>(done) * 9216 * sizeof(float)), 0)
        << "pushes starting " << sizes[0];
  }
}

TEST(A2xStream, NothingBeforeTheFirstThresholdThenABlockAtATime) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  // Short window: frame f leaves once the audio reaches frame f + 21 in
  // whole blocks (lag 12 + 8); the 8 s window: f + 13 (lag 12).
  const long long first = shortFrontend() ? 14721 : 9601;
  std::vector<std::pair<long long, int>> changes;
  int last = 0;
  const Pulled p = stream(h.a, pcm, {1}, [&](long long pushed, int pulled) {
    if (pulled != last) changes.emplace_back(pushed, pulled - last);
    last = pulled;
  });
  ASSERT_FALSE(changes.empty());
  EXPECT_EQ(changes[0], std::make_pair(first, 4));
  for (size_t i = 1; i < changes.size(); ++i)
    EXPECT_EQ(changes[i], std::make_pair(first + 5120 * static_cast<long long>(i), 8)) << i;
  // 48000 samples count as 46080 before the end: 72 frames less the hold-back.
  EXPECT_EQ(last, shortFrontend() ? 52 : 60);
  EXPECT_EQ(p.total, 75);
}

TEST(A2xStream, OneAvailDoesOneSliceOfWork) {
  const std::vector<float> pcm = clip("speech_10s.wav");
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  ASSERT_EQ(le_a2x_push(h.a, pcm.data(), static_cast<int>(pcm.size())), 1);
  // 160000 samples: 158720 usable, 248 frames, 228 or 236 ready.
  EXPECT_EQ(le_a2x_avail(h.a), shortFrontend() ? 8 : 64);
  EXPECT_EQ(le_a2x_avail(h.a), shortFrontend() ? 16 : 128);
  EXPECT_EQ(le_a2x_total(h.a), -1);
  int rows[300];
  std::vector<float> xs(300 * 63), xd(300 * 63);
  // A pull with nothing decoded does the work it needs itself.
  const int ready = shortFrontend() ? 228 : 236;
  EXPECT_EQ(le_a2x_pull(h.a, rows, xs.data(), xd.data(), 300), shortFrontend() ? 16 : 128);
  EXPECT_EQ(le_a2x_pull(h.a, rows, xs.data(), xd.data(), 300), ready - (shortFrontend() ? 16 : 128));
  EXPECT_EQ(le_a2x_pull(h.a, rows, xs.data(), xd.data(), 300), 0);
  le_a2x_finish(h.a);
  EXPECT_EQ(le_a2x_total(h.a), 250);
  EXPECT_EQ(le_a2x_pull(h.a, rows, xs.data(), xd.data(), 300), 250 - ready);
  EXPECT_EQ(le_a2x_avail(h.a), 0);
  EXPECT_STREQ(le_a2x_last_error(), "");
}

TEST(A2xStream, TotalIsKnownAtTheEnd) {
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  const std::vector<float> pcm = clip("speech_3s.wav");
  for (auto [n, frames] : {std::pair{1, 1}, {640, 1}, {641, 2}, {0, 0}, {4000, 7}}) {
    le_a2x_reset(h.a, 0, 1, 1);
    ASSERT_EQ(le_a2x_push(h.a, pcm.data(), n), 1);
    EXPECT_EQ(le_a2x_total(h.a), -1);
    EXPECT_EQ(le_a2x_avail(h.a), 0);  // short of the first threshold
    le_a2x_finish(h.a);
    EXPECT_EQ(le_a2x_total(h.a), frames) << n;
    // At the end every frame can leave, in one pull.
    std::vector<int> rows(static_cast<size_t>(frames) + 1);
    std::vector<float> xs(rows.size() * 63), xd(rows.size() * 63);
    EXPECT_EQ(le_a2x_pull(h.a, rows.data(), xs.data(), xd.data(), frames + 1), frames) << n;
    EXPECT_EQ(le_a2x_pull(h.a, rows.data(), xs.data(), xd.data(), frames + 1), 0) << n;
  }
}

// The rows of xs_target.bin.
std::vector<float> targetRows(const std::string& b) {
  const std::string bytes = readFile(b + "/xs_target.bin");
  std::vector<float> v(bytes.size() / 4);
  std::memcpy(v.data(), bytes.data(), v.size() * 4);
  return v;
}

TEST(A2xStream, TheRowWalk) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle h(bundle("nt4"));
  ASSERT_NE(h.a, nullptr);
  const std::vector<float> table = targetRows(bundle("nt4"));
  ASSERT_EQ(table.size(), 4u * 63);

  le_a2x_reset(h.a, 0, 1, 0);  // ping-pong
  Pulled p = stream(h.a, pcm, {4000});
  const int pingPong[] = {0, 1, 2, 3, 2, 1, 0, 1, 2, 3};
  for (int f = 0; f < 10; ++f) EXPECT_EQ(p.rows[static_cast<size_t>(f)], pingPong[f]) << f;
  for (size_t f = 0; f < p.rows.size(); ++f) {
    const float* row = table.data() + static_cast<size_t>(p.rows[f]) * 63;
    ASSERT_EQ(std::memcmp(p.xs.data() + f * 63, row, 63 * 4), 0) << f;
  }

  le_a2x_reset(h.a, 1, -1, 1);  // backwards, looping
  p = stream(h.a, pcm, {4000});
  const int backwards[] = {1, 0, 3, 2, 1, 0, 3};
  for (int f = 0; f < 7; ++f) EXPECT_EQ(p.rows[static_cast<size_t>(f)], backwards[f]) << f;

  // Seven frames from row 3, then an utterance that goes on where the walk
  // stopped: (3 + 7) % 4.
  le_a2x_reset(h.a, 3, 1, 1);
  p = stream(h.a, std::vector<float>(pcm.begin(), pcm.begin() + 7 * 640), {640});
  ASSERT_EQ(p.rows.size(), 7u);
  le_a2x_reset(h.a, -1, 1, 1);
  p = stream(h.a, std::vector<float>(pcm.begin(), pcm.begin() + 640), {640});
  ASSERT_EQ(p.rows.size(), 1u);
  EXPECT_EQ(p.rows[0], 2);

  Handle one(bundle("nt1"));
  ASSERT_NE(one.a, nullptr);
  EXPECT_EQ(le_a2x_nt(one.a), 1);
  le_a2x_reset(one.a, 3, -1, 0);
  p = stream(one.a, pcm, {9000});
  for (int r : p.rows) ASSERT_EQ(r, 0);
}

TEST(A2xStream, DenormalisationRoundsTheProductBeforeTheSum) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  const Pulled p = stream(h.a, pcm, {640});
  ASSERT_EQ(p.total, 75);
  ASSERT_EQ(h.a->bandBase, 0);  // nothing trimmed: every encoder row is still there

  // The decoder graph in a session of our own, from the zero state, over the
  // stream's encoder rows.
  Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "a2x_test");
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(1);
  Ort::Session dec(env, (bundle("causal") + "/a2x_dec.onnx").c_str(), options);
  const std::string norm = readFile(bundle("causal") + "/a2x_norm.f32");
  std::vector<float> mean(63), stdev(63);
  std::memcpy(mean.data(), norm.data(), 63 * 4);
  std::memcpy(stdev.data(), norm.data() + 63 * 4, 63 * 4);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<float> ctx(32), prev(63, 0.0f), state(32, 0.0f);
  const std::array<int64_t, 2> ctxShape{1, 32}, prevShape{1, 63};
  const std::array<int64_t, 3> hShape{1, 1, 32};
  const char* inNames[] = {"ctx_t", "prev", "h"};
  const char* outNames[] = {"m", "h_out"};
  int fusedDiffers = 0;
  for (size_t f = 0; f < 75; ++f) {
    std::copy_n(h.a->band.data() + f * 32, 32, ctx.data());
    std::array<Ort::Value, 3> in{Ort::Value::CreateTensor<float>(mem, ctx.data(), 32, ctxShape.data(), 2),
                                 Ort::Value::CreateTensor<float>(mem, prev.data(), 63, prevShape.data(), 2),
                                 Ort::Value::CreateTensor<float>(mem, state.data(), 32, hShape.data(), 3)};
    std::vector<Ort::Value> out = dec.Run(Ort::RunOptions{nullptr}, inNames, in.data(), 3, outNames, 2);
    const float* m = out[0].GetTensorData<float>();
    for (size_t i = 0; i < 63; ++i) {
      volatile float product = m[i] * stdev[i];  // rounded to float here
      const float delta = product + mean[i];
      const float xd = p.xs[f * 63 + i] + delta;
      ASSERT_EQ(std::memcmp(&p.xd[f * 63 + i], &xd, 4), 0) << "frame " << f << " value " << i;
      if (std::fmaf(m[i], stdev[i], mean[i]) != delta) ++fusedDiffers;
    }
    std::copy_n(m, 63, prev.data());
    std::copy_n(out[1].GetTensorData<float>(), 32, state.data());
  }
  // The check can tell the two orders apart on this clip.
  EXPECT_GT(fusedDiffers, 0);
}

TEST(A2xStream, WholeClipDeltas) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  std::vector<float> out(76 * 63, -7.0f);
  // One frame short: -2, no text, nothing written.
  EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 48000, out.data(), 74), -2);
  EXPECT_STREQ(le_a2x_last_error(), "");
  for (float v : out) ASSERT_EQ(v, -7.0f);
  EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 0, out.data(), 74), 0);
  EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 48000, out.data(), 75), 75);
  EXPECT_EQ(out[75 * 63], -7.0f);
  const std::vector<float> first(out.begin(), out.begin() + 75 * 63);
  for (size_t i = 0; i < first.size(); ++i) ASSERT_TRUE(std::isfinite(first[i]) && first[i] != -7.0f) << i;

  // Without a width output: -3 and the family's text.
  std::vector<float> wn(75);
  EXPECT_EQ(le_a2x_deltas_wn(h.a, pcm.data(), 48000, out.data(), wn.data(), 75), -3);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_deltas_wn: encoder declares no wn output");

  // The live stream is left alone by a whole-clip run in its middle.
  const Pulled plain = stream(h.a, pcm, {640});
  le_a2x_reset(h.a, 0, 1, 1);
  const Pulled interrupted = stream(h.a, pcm, {640}, [&](long long pushed, int) {
    if (pushed == 20480) {
      EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 48000, out.data(), 75), 75);
    }
  });
  EXPECT_TRUE(plain == interrupted);
  // And it does not disturb the batch result either.
  EXPECT_EQ(std::memcmp(out.data(), first.data(), first.size() * 4), 0);
}

TEST(A2xStream, WidthRows) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  std::string log = captureStderr([&] {
    Handle h(bundle("width"));
    ASSERT_NE(h.a, nullptr);
    EXPECT_EQ(le_a2x_width(h.a), 1);
    ASSERT_EQ(le_a2x_push(h.a, pcm.data(), static_cast<int>(pcm.size())), 1);
    le_a2x_finish(h.a);
    std::vector<int> rows(75);
    std::vector<float> xs(75 * 63), xd(75 * 63), wn(75, -1.0f);
    int got = 0;
    for (int n; got < 75 && (n = le_a2x_pull_wn(h.a, rows.data() + got, xs.data() + got * 63, xd.data() + got * 63,
                                                  wn.data() + got, 75 - got)) > 0;)
      got += n;
    ASSERT_EQ(got, 75);
    int nonzero = 0;
    for (float v : wn) nonzero += v != 0.0f && v != -1.0f;
    EXPECT_GT(nonzero, 10);
    std::vector<float> out(75 * 63), clipWn(75, -1.0f);
    EXPECT_EQ(le_a2x_deltas_wn(h.a, pcm.data(), 48000, out.data(), clipWn.data(), 75), 75);
    nonzero = 0;
    for (float v : clipWn) nonzero += v != 0.0f && v != -1.0f;
    EXPECT_GT(nonzero, 10);
  });
  EXPECT_EQ(log.find("WARNING"), std::string::npos) << log;

  log = captureStderr([&] {
    Handle h(bundle("width_mismatch"));
    ASSERT_NE(h.a, nullptr);
    EXPECT_EQ(le_a2x_width(h.a), 1);
  });
  EXPECT_NE(log.find("[le_a2x] WARNING: a2x_meta width=0 but the encoder declares 2 output(s) — serving the GRAPH "
                     "(width=1). Repackage this bundle.\n"),
            std::string::npos)
      << log;

  // Without the output every width value is 0.
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  ASSERT_EQ(le_a2x_push(h.a, pcm.data(), 6400), 1);
  le_a2x_finish(h.a);
  int rows[10];
  float xs[630], xd[630], wn[10];
  std::fill(std::begin(wn), std::end(wn), -1.0f);
  ASSERT_EQ(le_a2x_pull_wn(h.a, rows, xs, xd, wn, 10), 10);
  for (float v : wn) EXPECT_EQ(v, 0.0f);
}

TEST(A2xStream, SilencePriming) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Pulled primedRows;
  std::vector<float> primedClip(75 * 63);
  const std::string log = captureStderr([&] {
    Handle h(bundle("silence_prime"));
    ASSERT_NE(h.a, nullptr);
    ASSERT_EQ(h.a->primedPrev.size(), 63u);
    ASSERT_EQ(h.a->primedH.size(), 32u);
    // The decoder rests away from zero after silence.
    EXPECT_NE(h.a->primedH, std::vector<float>(32, 0.0f));
    EXPECT_EQ(h.a->prev, h.a->primedPrev);
    EXPECT_EQ(h.a->hState, h.a->primedH);
    primedRows = stream(h.a, pcm, {640});
    le_a2x_reset(h.a, 0, 1, 1);  // every utterance starts from the primed state
    EXPECT_EQ(h.a->hState, h.a->primedH);
    EXPECT_TRUE(stream(h.a, pcm, {640}) == primedRows);
    EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 48000, primedClip.data(), 75), 75);
  });
  EXPECT_NE(log.find("[le_a2x] silence-primed AR state cached (4 frames)\n"), std::string::npos) << log;
  {
    ScopedEnv prime("LE_A2X_SILENCE_PRIME", "500");
    const std::string capped = captureStderr([&] { Handle h(bundle("causal")); });
    EXPECT_NE(capped.find("[le_a2x] silence-primed AR state cached (200 frames)\n"), std::string::npos) << capped;
  }
  // The variable overrides the meta key: no priming, the zero state, and
  // other rows from the first frame on.
  ScopedEnv off("LE_A2X_SILENCE_PRIME", "0");
  Handle h(bundle("silence_prime"));
  ASSERT_NE(h.a, nullptr);
  EXPECT_TRUE(h.a->primedPrev.empty());
  EXPECT_EQ(h.a->hState, std::vector<float>(32, 0.0f));
  const Pulled zeroRows = stream(h.a, pcm, {640});
  ASSERT_EQ(zeroRows.xd.size(), primedRows.xd.size());
  EXPECT_NE(std::memcmp(zeroRows.xd.data(), primedRows.xd.data(), 63 * 4), 0);
  std::vector<float> zeroClip(75 * 63);
  EXPECT_EQ(le_a2x_deltas(h.a, pcm.data(), 48000, zeroClip.data(), 75), 75);
  EXPECT_NE(std::memcmp(zeroClip.data(), primedClip.data(), 63 * 4), 0);
}

TEST(A2xStream, LookAheadOfTheShortWindow) {
  {
    ScopedEnv right("LE_A2X_W2V_RIGHT", "0");
    Handle h(bundle("causal"));
    ASSERT_NE(h.a, nullptr);
    EXPECT_EQ(h.a->lag, shortFrontend() ? 8 : 0);
  }
  {
    ScopedEnv right("LE_A2X_W2V_RIGHT", "-4");
    Handle h(bundle("causal"));
    ASSERT_NE(h.a, nullptr);
    EXPECT_EQ(h.a->R, 0);
  }
  if (!shortFrontend()) return;
  // A window that ends so far past its block that frame 0 would lie before
  // the trunk's first position.
  ScopedEnv right("LE_A2X_W2V_RIGHT", "60");
  Handle h(bundle("causal"));
  ASSERT_NE(h.a, nullptr);
  const std::vector<float> pcm = clip("speech_3s.wav");
  ASSERT_EQ(le_a2x_push(h.a, pcm.data(), static_cast<int>(pcm.size())), 1);
  le_a2x_finish(h.a);
  EXPECT_EQ(le_a2x_avail(h.a), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x extend: w2v_win: trunk pos out of range");
  int row;
  float xs[63], xd[63];
  EXPECT_EQ(le_a2x_pull(h.a, &row, xs, xd, 1), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x extend: w2v_win: trunk pos out of range");
}

TEST(A2xStream, ALookAheadEncoderSeesFurther) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle causal(bundle("causal")), ahead(bundle("lookahead"));
  ASSERT_NE(causal.a, nullptr);
  ASSERT_NE(ahead.a, nullptr);
  EXPECT_EQ(ahead.a->windowLayers, 4);
  const Pulled a = stream(causal.a, pcm, {640}), b = stream(ahead.a, pcm, {640});
  EXPECT_EQ(b.total, 75);
  EXPECT_FALSE(a == b);
}

TEST(A2xStream, ResetDropsAnUtteranceInFlight) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  Handle fresh(bundle("causal")), reused(bundle("causal"));
  ASSERT_NE(fresh.a, nullptr);
  ASSERT_NE(reused.a, nullptr);
  const Pulled want = stream(fresh.a, pcm, {640});
  ASSERT_EQ(le_a2x_push(reused.a, pcm.data(), 30000), 1);
  int rows[8];
  float xs[8 * 63], xd[8 * 63];
  EXPECT_GT(le_a2x_pull(reused.a, rows, xs, xd, 8), 0);
  le_a2x_reset(reused.a, 0, 1, 1);
  EXPECT_TRUE(stream(reused.a, pcm, {640}) == want);
}

TEST(A2xStream, ObjectsShareTheFrontendAndRunSideBySide) {
  const std::vector<float> pcm = clip("speech_10s.wav");
  RowLocalBundle rowLocal;
  Handle one(rowLocal.path(), 1), two(rowLocal.path(), 2);
  ASSERT_NE(one.a, nullptr);
  ASSERT_NE(two.a, nullptr);
  const Pulled alone = stream(one.a, pcm, {640});
  le_a2x_reset(one.a, 0, 1, 1);
  Pulled a, b;
  std::thread t([&] { a = stream(one.a, pcm, {640}); });
  b = stream(two.a, pcm, {640});
  t.join();
  EXPECT_TRUE(a == alone);
  EXPECT_TRUE(b == alone);  // two intra-op threads give the same rows
}

}  // namespace
}  // namespace le::test
