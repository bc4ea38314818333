// The C boundary: failure values, the per-thread and per-family error
// strings, and the context's life.
#include <string>
#include <thread>

#include "compute/threads.h"
#include "le/boundary.h"
#include "le/context.h"
#include "le/le.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

TEST(CBoundary, NullArgumentsAreRefusedWithTheFixedSentence) {
  const std::string sample = dataPath("sample");
  EXPECT_EQ(le_create(sample.c_str(), nullptr, 1, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
  EXPECT_EQ(le_create(nullptr, "render", 1, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
  EXPECT_EQ(le_create("", "render", 1, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: cannot open /manifest.json");
}

TEST(CBoundary, GettersOnNullAndTheKeypointContract) {
  EXPECT_EQ(le_nt(nullptr), 0);
  EXPECT_EQ(le_width(nullptr), 0);
  EXPECT_EQ(le_height(nullptr), 0);
  EXPECT_EQ(le_crop(nullptr), 0);
  EXPECT_EQ(le_host_kp_rows(), 21);
  le_destroy(nullptr);
}

TEST(CBoundary, SuccessClearsTheStringAndGettersLeaveItAlone) {
  EXPECT_EQ(le_create(nullptr, nullptr, 0, nullptr), nullptr);
  ASSERT_STRNE(le_last_error(), "");
  // Getters neither clear nor set it.
  EXPECT_EQ(le_nt(nullptr), 0);
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
  le_ctx* ctx = le_create(dataPath("sample").c_str(), "render", 0, nullptr);
  ASSERT_NE(ctx, nullptr);
  EXPECT_STREQ(le_last_error(), "");
  le_destroy(ctx);
}

TEST(CBoundary, ErrorStringsArePerThread) {
  EXPECT_EQ(le_create(nullptr, "render", 1, nullptr), nullptr);
  std::string seenOnB = "unset", failOnB;
  std::thread b([&] {
    seenOnB = le_last_error();
    EXPECT_EQ(le_create(dataPath("manifests/no_agent").c_str(), "render", 1, nullptr), nullptr);
    failOnB = le_last_error();
  });
  b.join();
  EXPECT_EQ(seenOnB, "");
  EXPECT_EQ(failOnB, "le_create: manifest: missing key agent");
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
}

TEST(CBoundary, ErrorStringsArePerFamily) {
  using le::boundary::Family;
  EXPECT_EQ(le_create(nullptr, "render", 1, nullptr), nullptr);
  le::boundary::store(Family::Utterance, "le_utt_push_audio", "a failure of another family");
  EXPECT_EQ(le::boundary::errorOf(Family::Utterance), "le_utt_push_audio: a failure of another family");
  EXPECT_STREQ(le_last_error(), "le_create: NULL bundle_dir/model_key");
  le::boundary::clear(Family::Utterance);
}

TEST(CBoundary, ExceptionsBecomeTextAndTheFailureValue) {
  using le::boundary::Family;
  EXPECT_EQ(le::boundary::run(Family::Stream, "le_stream_run", -1, []() -> int { throw std::runtime_error("boom"); }),
            -1);
  EXPECT_EQ(le::boundary::errorOf(Family::Stream), "le_stream_run: boom");
  EXPECT_EQ(le::boundary::run(Family::Stream, "le_stream_run", -1, []() -> int { throw 42; }), -1);
  EXPECT_EQ(le::boundary::errorOf(Family::Stream), "le_stream_run: unknown failure");
  EXPECT_EQ(le::boundary::run(Family::Stream, "le_stream_run", -1, [] { return 7; }), 7);
  le::boundary::clear(Family::Stream);
}

TEST(CBoundary, ContextKeepsItsSettings) {
  le_ctx* ctx = le_create(dataPath("sample").c_str(), "b24_fp32", 0, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  EXPECT_EQ(ctx->threads, le::pool::threads());
  EXPECT_EQ(ctx->ep, "");
  EXPECT_EQ(ctx->model_key, "b24_fp32");
  le_destroy(ctx);
  ctx = le_create(dataPath("sample").c_str(), "render", 3, "cpu");
  ASSERT_NE(ctx, nullptr);
  EXPECT_EQ(ctx->threads, 3);
  EXPECT_EQ(ctx->ep, "cpu");
  le_destroy(ctx);
}

}  // namespace
