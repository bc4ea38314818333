// The live stream through the C interface, on whichever frontend the
// process was started with (W2V_ONNX and LE_A2X_TEST_FRONTEND, "short" or
// "8s", set by CTest: the frontends are process-wide, so each runs in a
// process of its own).
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "audio/a2x.h"
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

TEST(A2xStream, ServesTheFrontendItWasStartedWith) {
  le_a2x* a = createOrFail(bundle("causal"));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->shortWindow, shortFrontend());
  EXPECT_EQ(a->lag, shortFrontend() ? 20 : 12);
  le_a2x_destroy(a);
}

TEST(A2xStream, PushSizesDoNotChangeTheRows) {
  const std::vector<float> pcm = clip("speech_3s.wav");
  le_a2x* a = createOrFail(bundle("causal"));
  ASSERT_NE(a, nullptr);
  le_a2x_reset(a, 0, 1, 1);
  const Pulled whole = stream(a, pcm, {static_cast<int>(pcm.size())});
  ASSERT_EQ(whole.total, 75);
  const std::vector<std::vector<int>> patterns = {{1}, {640}, {5120}, {17, 999, 4093, 1, 6000}, {12345}};
  for (const auto& sizes : patterns) {
    le_a2x_reset(a, 0, 1, 1);
    const Pulled p = stream(a, pcm, sizes);
    EXPECT_TRUE(p == whole) << "push sizes starting " << sizes[0];
  }
  le_a2x_destroy(a);
}

}  // namespace
}  // namespace le::test
