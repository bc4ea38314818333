// Image files: the stb_image decode with its one refusal, the PNG writer,
// and the reusable decoder of the driver's thread.
#include <cstdio>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/image_io.h"
#include "tests/support/test_support.h"

namespace {

using le::test::errorOf;

using le::test::dataPath;

TEST(ImageIo, LoadsAGeneratedDriverFrame) {
  int w = 0, h = 0;
  const std::vector<uint8_t> rgb = le::loadImageRGB(dataPath("sample/target_frames/frame_000002.jpg"), &w, &h);
  ASSERT_EQ(w, 64);
  ASSERT_EQ(h, 48);
  ASSERT_EQ(rgb.size(), 64u * 48u * 3u);
  const uint8_t* block = rgb.data() + (8 * 64 + 8) * 3;  // red 16 * 2 + 8, green 8, blue 200
  EXPECT_NEAR(block[0], 40, 4);
  EXPECT_NEAR(block[1], 8, 4);
  EXPECT_NEAR(block[2], 200, 4);
}

TEST(ImageIo, DecodeFailuresNameThePath) {
  const std::string missing = dataPath("sample/target_frames/frame_000099.jpg");
  EXPECT_EQ(errorOf([&] { le::loadImageRGB(missing, nullptr, nullptr); }), "decode failed: " + missing);
  const std::string garbage = dataPath("frames/driver/corrupt/target_frames/frame_000002.jpg");
  int w = 0, h = 0;
  EXPECT_EQ(errorOf([&] { le::loadImageRGB(garbage, &w, &h); }), "decode failed: " + garbage);
  const std::string dir = dataPath("sample/target_frames");
  EXPECT_EQ(errorOf([&] { le::loadImageRGB(dir, &w, &h); }), "decode failed: " + dir);
  le::ImageDecoder d;
  EXPECT_EQ(errorOf([&] { d.decode(garbage.c_str(), &w, &h); }), "decode failed: " + garbage);
}

TEST(ImageIo, PngRoundTripIsExact) {
  le::test::TempDir tmp;
  std::vector<uint8_t> rgb(7 * 5 * 3);
  for (size_t i = 0; i < rgb.size(); ++i) rgb[i] = static_cast<uint8_t>(i * 13 + 1);
  le::writePNG(tmp / "x.png", rgb.data(), 7, 5);
  int w = 0, h = 0;
  EXPECT_EQ(le::loadImageRGB(tmp / "x.png", &w, &h), rgb);
  EXPECT_EQ(w, 7);
  EXPECT_EQ(h, 5);
  const std::string bad = tmp / "no/such/dir/x.png";
  EXPECT_EQ(errorOf([&] { le::writePNG(bad, rgb.data(), 7, 5); }), "png write failed: " + bad);
}

TEST(ImageIo, TheReusableDecoderMatchesAndStopsGrowing) {
  le::ImageDecoder d;
  const std::string a = dataPath("frames/driver/long/target_frames/frame_000000.jpg");
  int w = 0, h = 0;
  const std::vector<uint8_t> want = le::loadImageRGB(a, &w, &h);
  int dw = 0, dh = 0;
  const uint8_t* got = d.decode(a.c_str(), &dw, &dh);
  ASSERT_EQ(dw, w);
  ASSERT_EQ(dh, h);
  EXPECT_EQ(std::vector<uint8_t>(got, got + want.size()), want);
  // One pass over the loop sizes the buffers for the largest file and the
  // largest decode; from then on frames of this size need nothing new.
  const auto pass = [&] {
    for (int i = 0; i < 20; ++i) {
      char name[96];
      std::snprintf(name, sizeof name, "frames/driver/long/target_frames/frame_%06d.jpg", i);
      const std::string p = dataPath(name);
      got = d.decode(p.c_str(), &dw, &dh);
      ASSERT_EQ(std::vector<uint8_t>(got, got + want.size()), le::loadImageRGB(p, &w, &h)) << i;
    }
  };
  pass();
  d.decode(a.c_str(), &dw, &dh);
  const uint64_t settled = d.growths();
  EXPECT_GT(d.residentBytes(), want.size());
  pass();
  pass();
  EXPECT_EQ(d.growths(), settled);
}

}  // namespace
