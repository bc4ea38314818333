// Serving a published output height: the "outputs" block of the manifest.
#include <stdexcept>
#include <string>

#include "bundle/manifest.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

std::string refusal(const std::string& dir, int height) {
  try {
    le::loadManifest(dir, height);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  ADD_FAILURE() << "height " << height << " was served";
  return {};
}

class Outputs : public ::testing::Test {
 protected:
  const std::string dir = dataPath("manifests/outputs");
  std::string label(int h) const { return dir + "/manifest.json outputs." + std::to_string(h); }
};

TEST_F(Outputs, PublishedOutputIsServed) {
  le::Manifest m;
  const std::string err = le::test::captureStderr([&] { m = le::loadManifest(dir, 360); });
  EXPECT_EQ(m.W, 640);
  EXPECT_EQ(m.H, 360);
  EXPECT_EQ(m.output_height, 360);
  EXPECT_EQ(m.driver_mp4, "driver_360.mp4");
  // The stamp stays on the authored canvas, so M can be scaled to the output.
  EXPECT_EQ(m.M_src_w, 1280);
  EXPECT_EQ(m.M_src_h, 720);
  EXPECT_EQ(err, "[le] output 640x360 (outputs.360: driver_360.mp4) — the bundle's native canvas is 1280x720\n");
}

TEST_F(Outputs, NativeOrUnpublishedHeightsServeTheNativeCanvas) {
  // The native short side changes nothing and says nothing.
  le::Manifest native;
  EXPECT_EQ(le::test::captureStderr([&] { native = le::loadManifest(dir, 720); }), "");
  EXPECT_EQ(native.W, 1280);
  EXPECT_EQ(native.output_height, 0);
  le::Manifest other;
  const std::string err = le::test::captureStderr([&] { other = le::loadManifest(dir, 500); });
  EXPECT_EQ(other.H, 720);
  EXPECT_EQ(err, "[le] WARNING output height 500 was asked for, but " + dir +
                     "/manifest.json publishes no outputs.500 — serving the bundle's native 1280x720 canvas\n");
  // A bundle with no outputs block at all.
  const std::string sample = dataPath("sample");
  EXPECT_EQ(le::test::captureStderr([&] { le::loadManifest(sample, 30); }),
            "[le] WARNING output height 30 was asked for, but " + sample +
                "/manifest.json publishes no outputs.30 — serving the bundle's native 64x48 canvas\n");
}

TEST_F(Outputs, EveryRefusalWordForWord) {
  EXPECT_EQ(refusal(dir, -1), "loadManifest: output height must be >= 0 (asked for -1)");
  EXPECT_EQ(refusal(dir, 405), label(405) +
                                   " declares 720.000000x405.000000 — it must be an even WxH whose short side is the "
                                   "key it is published under");
  // 406x720 passes the even test and fails the aspect.
  EXPECT_EQ(refusal(dir, 406),
            label(406) + " is 406x720, not the native 1280x720 canvas's aspect — the paste would stretch the face");
  EXPECT_EQ(refusal(dir, 480),
            label(480) + " is 854x480, not the native 1280x720 canvas's aspect — the paste would stretch the face");
  EXPECT_EQ(refusal(dir, 540), label(540) + " names no usable driver_mp4 member (\"..driver.mp4\")");
  EXPECT_EQ(refusal(dir, 450), label(450) + " names no usable driver_mp4 member (\"sub/driver.mp4\")");
  EXPECT_EQ(refusal(dir, 396), label(396) + " names no usable driver_mp4 member (\"\")");
  EXPECT_EQ(refusal(dir, 288), label(288) + " publishes missing.mp4 and it is not in " + dir +
                                   " — this output was asked for and its driver is missing. REFUSING to create a "
                                   "session.");
  EXPECT_EQ(refusal(dir, 270), label(270) + " carries no numeric \"width\"");
  EXPECT_EQ(refusal(dir, 200), label(200) + ": \"200\" is not a JSON object");
  const std::string twice = dataPath("manifests/outputs_twice");
  EXPECT_EQ(refusal(twice, 360), twice +
                                     "/manifest.json: key \"outputs\" occurs 2 times — refusing to guess which "
                                     "output was published");
}

}  // namespace
