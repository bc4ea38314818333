// Which speech frontend a process ends up with, and the refusals on the
// way there. The frontends are loaded once per process, so every case runs
// in a process of its own: CTest starts this program once per case with the
// case's environment and LE_A2X_CASE naming it; a case not named there is
// skipped.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdlib>
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

// Skips the case unless CTest started this process for it.
#define A2X_CASE(name)                                                              \
  do {                                                                              \
    const char* c = std::getenv("LE_A2X_CASE");                                     \
    if (!c || std::string(c) != (name)) GTEST_SKIP() << "runs as a2x_frontend_" name; \
  } while (0)

std::string bundle(const std::string& name) { return audioPath("bundles/" + name); }

std::string env(const char* name) {
  const char* v = std::getenv(name);
  return v ? v : "";
}

long long sizeOf(const std::string& path) {
  struct stat st {};
  return ::stat(path.c_str(), &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

std::string loadedLine(const std::string& trunk, const std::string& head) {
  return "[le_a2x] short-window w2v frontend loaded (LT=400) trunk=" + trunk + " (" + std::to_string(sizeOf(trunk)) +
         " B) head=" + head + " (" + std::to_string(sizeOf(head)) + " B)\n";
}

std::string notDeployed(const std::string& w2v) {
  return "[le_a2x] short-window audio frontend NOT DEPLOYED on this plane: neither "
         "LE_A2X_W2V_WIN_ONNX/LE_A2X_W2V_HEAD_ONNX are set nor is the pair beside $W2V_ONNX (" +
         w2v +
         ") as audio_encoder_fp16_window_{trunk,head}.onnx (legacy w2v_trunk32.onnx/w2v_head32.onnx). Serving the "
         "LEGACY 8s window — same reference quality, 2.8-3.9x the audio hop cost. Ship the pair beside the encoder "
         "(tools/export_w2v_window).\n";
}

size_t count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
  return n;
}

// Creates the causal bundle's object, streams a clip through it and returns
// whether the short window served it; fails the case if no rows come.
bool servesShortWindow(std::string* log = nullptr) {
  bool isShort = false;
  const std::string text = captureStderr([&] {
    le_a2x* a = createOrFail(bundle("causal"));
    if (!a) return;
    isShort = a->shortWindow;
    const Pulled p = stream(a, clip("speech_3s.wav"), {640});
    EXPECT_EQ(p.rows.size(), 75u);
    le_a2x_destroy(a);
  });
  if (log) *log = text;
  return isShort;
}

TEST(A2xFrontend, pair) {
  A2X_CASE("pair");
  const std::string w2v = env("W2V_ONNX");
  const std::string dir = w2v.substr(0, w2v.rfind('/'));
  // Two objects created at once: one load, both served.
  std::atomic<int> shortCount{0};
  const std::string log = captureStderr([&] {
    auto one = [&] {
      le_a2x* a = le_a2x_create(bundle("causal").c_str(), 1);
      ASSERT_NE(a, nullptr) << le_a2x_last_error();
      shortCount += a->shortWindow ? 1 : 0;
      le_a2x_destroy(a);
    };
    std::thread t(one);
    one();
    t.join();
  });
  EXPECT_EQ(shortCount.load(), 2);
  EXPECT_EQ(count(log, loadedLine(dir + "/audio_encoder_fp16_window_trunk.onnx",
                                  dir + "/audio_encoder_fp16_window_head.onnx")),
            1u)
      << log;
  EXPECT_EQ(count(log, "[le_a2x] live cadence: block-320 (one trunk window per 8 frames), push-size invariant, "
                       "threads=1\n"),
            1u)
      << log;
  // The 8 s graph waits until something needs it.
  EXPECT_EQ(g_w2v_session, nullptr);
  EXPECT_TRUE(servesShortWindow());
  EXPECT_EQ(g_w2v_session, nullptr);
  le_a2x* a = createOrFail(bundle("causal"));
  ASSERT_NE(a, nullptr);
  const std::vector<float> pcm = clip("speech_3s.wav");
  std::vector<float> out(75 * 63);
  EXPECT_EQ(le_a2x_deltas(a, pcm.data(), 48000, out.data(), 75), 75) << le_a2x_last_error();
  EXPECT_NE(g_w2v_session, nullptr);
  EXPECT_EQ(g_w2v_path, w2v);
  le_a2x_destroy(a);
  // Loaded once: a later preload from anywhere finds it there.
  EXPECT_EQ(le_a2x_preload_w2v("/nowhere/else.onnx"), 1);
  EXPECT_STREQ(le_a2x_last_error(), "");
}

TEST(A2xFrontend, absent) {
  A2X_CASE("absent");
  std::string log;
  EXPECT_FALSE(servesShortWindow(&log));
  EXPECT_EQ(count(log, notDeployed(env("W2V_ONNX"))), 1u) << log;
  EXPECT_NE(g_w2v_session, nullptr);
  // The pair is searched for once per process.
  EXPECT_FALSE(servesShortWindow(&log));
  EXPECT_EQ(log.find("NOT DEPLOYED"), std::string::npos) << log;
}

TEST(A2xFrontend, legacy_names) {
  A2X_CASE("legacy_names");
  const std::string w2v = env("W2V_ONNX");
  const std::string dir = w2v.substr(0, w2v.rfind('/'));
  std::string log;
  EXPECT_TRUE(servesShortWindow(&log));
  EXPECT_NE(log.find(loadedLine(dir + "/w2v_trunk32.onnx", dir + "/w2v_head32.onnx")), std::string::npos) << log;
}

TEST(A2xFrontend, env_pair) {
  A2X_CASE("env_pair");
  std::string log;
  EXPECT_TRUE(servesShortWindow(&log));  // W2V_ONNX has no pair beside it
  EXPECT_NE(log.find(loadedLine(env("LE_A2X_W2V_WIN_ONNX"), env("LE_A2X_W2V_HEAD_ONNX"))), std::string::npos) << log;
}

TEST(A2xFrontend, env_half_set) {
  A2X_CASE("env_half_set");
  // One variable empty: both are ignored and the sibling search runs.
  const std::string w2v = env("W2V_ONNX");
  const std::string dir = w2v.substr(0, w2v.rfind('/'));
  std::string log;
  EXPECT_TRUE(servesShortWindow(&log));
  EXPECT_NE(log.find(loadedLine(dir + "/audio_encoder_fp16_window_trunk.onnx",
                                dir + "/audio_encoder_fp16_window_head.onnx")),
            std::string::npos)
      << log;
}

TEST(A2xFrontend, env_missing) {
  A2X_CASE("env_missing");
  // Named by the variables, not there: the load fails and the 8 s graph serves.
  std::string log;
  EXPECT_FALSE(servesShortWindow(&log));
  EXPECT_NE(log.find("[le_a2x] short-window w2v load FAILED ("), std::string::npos) << log;
  EXPECT_NE(log.find(") — legacy 8s path\n"), std::string::npos) << log;
  EXPECT_EQ(g_w2vwin_trunk, nullptr);
  EXPECT_EQ(g_w2vwin_head, nullptr);
}

TEST(A2xFrontend, gelu_erf) {
  A2X_CASE("gelu_erf");
  // This runtime leaves a float16 Erf-based Gelu unfused at every level, so
  // the trunk opens at once.
  std::string log;
  EXPECT_TRUE(servesShortWindow(&log));
  EXPECT_EQ(log.find("reopening"), std::string::npos) << log;
}

TEST(A2xFrontend, gelu_refused) {
  A2X_CASE("gelu_refused");
  // A float16 Gelu refused with a text naming both: reopened at the basic
  // level, refused again, and that second failure ends the pair's load.
  const std::string w2v = env("W2V_ONNX");
  const std::string trunk = w2v.substr(0, w2v.rfind('/')) + "/audio_encoder_fp16_window_trunk.onnx";
  std::string log;
  EXPECT_FALSE(servesShortWindow(&log));
  EXPECT_NE(log.find("[le_a2x] " + trunk +
                     ": ORT's level-2 Gelu fusion produced a float16 com.microsoft.Gelu this runtime has no CPU kernel "
                     "for; reopening at ORT_ENABLE_BASIC\n[le_a2x] short-window w2v load FAILED ("),
            std::string::npos)
      << log;
  EXPECT_EQ(g_w2vwin_trunk, nullptr);
}

TEST(A2xFrontend, cuda_requested) {
  A2X_CASE("cuda_requested");
  // This runtime has the CPU provider only: the frontend says so and runs on
  // the CPU; the encoder and decoder never ask.
  std::string log;
  EXPECT_TRUE(servesShortWindow(&log));
  EXPECT_EQ(count(log, "[le_a2x] CUDA EP append failed (w2v): "), 1u) << log;
  EXPECT_EQ(count(log, " -- falling back to CPU\n"), 1u) << log;
  EXPECT_EQ(log.find("enc/dec"), std::string::npos) << log;
  EXPECT_EQ(log.find("CUDA EP appended"), std::string::npos) << log;
}

TEST(A2xFrontend, no_w2v) {
  A2X_CASE("no_w2v");
  EXPECT_EQ(le_a2x_create(bundle("causal").c_str(), 1), nullptr);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: $W2V_ONNX not set");
  EXPECT_EQ(le_a2x_preload_w2v(nullptr), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_preload_w2v: no path and $W2V_ONNX unset");
  EXPECT_EQ(le_a2x_preload_w2v(""), 0);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_preload_w2v: no path and $W2V_ONNX unset");
  // The bundle's own refusals come first, whatever the frontend.
  const std::string missing = bundle("meta_missing");
  EXPECT_EQ(le_a2x_create(missing.c_str(), 1), nullptr);
  EXPECT_EQ(std::string(le_a2x_last_error()), "le_a2x_create: a2x_meta.json missing in " + missing);
  EXPECT_EQ(le_a2x_create(bundle("meta_empty").c_str(), 1), nullptr);
  EXPECT_EQ(std::string(le_a2x_last_error()), "le_a2x_create: a2x_meta.json missing in " + bundle("meta_empty"));
  for (const char* b : {"window_absent", "left_negative"}) {
    EXPECT_EQ(le_a2x_create(bundle(b).c_str(), 1), nullptr);
    EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: meta lacks causal window/left (not a streaming a2x)") << b;
  }
  for (const char* b : {"pos_short", "norm_short", "xs_target_empty"}) {
    EXPECT_EQ(le_a2x_create(bundle(b).c_str(), 1), nullptr);
    EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: pos/norm/xs_target read failed") << b;
  }
}

TEST(A2xFrontend, w2v_unloadable) {
  A2X_CASE("w2v_unloadable");
  const std::string w2v = env("W2V_ONNX");
  const std::string log = captureStderr([&] {
    EXPECT_EQ(le_a2x_create(bundle("causal").c_str(), 1), nullptr);
    EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: shared w2v load failed");
  });
  EXPECT_EQ(count(log, notDeployed(w2v)), 1u) << log;
  EXPECT_EQ(le_a2x_preload_w2v(nullptr), 0);
  const std::string e = le_a2x_last_error();
  EXPECT_EQ(e.rfind("le_a2x_preload_w2v: ", 0), 0u) << e;
  EXPECT_NE(e.find(w2v), std::string::npos) << e;  // ONNX Runtime names the file
}

TEST(A2xFrontend, prime_unloadable) {
  A2X_CASE("prime_unloadable");
  // The pair from the variables serves; the 8 s graph can't be had.
  EXPECT_EQ(le_a2x_create(bundle("silence_prime").c_str(), 1), nullptr);
  EXPECT_STREQ(le_a2x_last_error(), "le_a2x_create: shared w2v load failed (silence_prime)");
  le_a2x* a = createOrFail(bundle("causal"));
  ASSERT_NE(a, nullptr);
  EXPECT_TRUE(a->shortWindow);
  const std::vector<float> pcm = clip("speech_3s.wav");
  std::vector<float> out(75 * 63, 5.0f);
  EXPECT_EQ(le_a2x_deltas(a, pcm.data(), 48000, out.data(), 75), -1);
  EXPECT_EQ(std::string(le_a2x_last_error()),
            "le_a2x_deltas: the shared 8 s w2v encoder did not load ($W2V_ONNX=" + env("W2V_ONNX") + ")");
  for (float v : out) ASSERT_EQ(v, 5.0f);
  // The live path does not need it.
  le_a2x_reset(a, 0, 1, 1);
  EXPECT_EQ(stream(a, pcm, {640}).rows.size(), 75u);
  le_a2x_destroy(a);
}

TEST(A2xFrontend, quiet) {
  A2X_CASE("quiet");
  // Load-time diagnostics are silenced; fallbacks still speak.
  std::string log;
  EXPECT_FALSE(servesShortWindow(&log));
  EXPECT_EQ(log.find("live cadence"), std::string::npos) << log;
  EXPECT_NE(log.find("NOT DEPLOYED"), std::string::npos) << log;
}

}  // namespace
}  // namespace le::test
