// The frame entry points through the C interface: driver frames by index,
// and a caller's crop pasted into one, byte for byte against the plain
// paste reference applied to the same driver frame.
#include <cstdint>
#include <cstdio>
#include <random>
#include <string>
#include <vector>

#include "driver/image_io.h"
#include "le/context.h"
#include "le/le.h"
#include "paste/paste_tables.h"
#include "tests/paste/paste_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

struct Sample {
  le_ctx* ctx = le_create(dataPath("sample").c_str(), "render", 0, nullptr);
  Sample() { EXPECT_NE(ctx, nullptr) << le_last_error(); }
  ~Sample() { le_destroy(ctx); }
  size_t frameBytes() const { return static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3; }
};

std::vector<uint8_t> decodedFrame(int si) {
  char name[64];
  std::snprintf(name, sizeof name, "sample/target_frames/frame_%06d.jpg", si);
  int w = 0, h = 0;
  return le::loadImageRGB(dataPath(name), &w, &h);
}

TEST(FrameEntryPoints, DriveFramesAndTargetFrames) {
  Sample s;
  ASSERT_NE(s.ctx, nullptr);
  EXPECT_EQ(le_drive_frames(s.ctx), 6);
  EXPECT_EQ(le_drive_frames(nullptr), 0);
  // Any order, the last frame included: each is the decoded JPEG of its index.
  for (const int si : {3, 0, 2, 1, 3}) {
    const uint8_t* f = le_target_frame(s.ctx, si);
    ASSERT_NE(f, nullptr) << le_last_error();
    EXPECT_STREQ(le_last_error(), "");
    EXPECT_EQ(std::vector<uint8_t>(f, f + s.frameBytes()), decodedFrame(si)) << si;
  }
  EXPECT_EQ(le_target_frame(s.ctx, 4), nullptr);
  EXPECT_STREQ(le_last_error(), "le_target_frame: bad args");
  EXPECT_EQ(le_target_frame(s.ctx, -1), nullptr);
  EXPECT_EQ(le_target_frame(nullptr, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_target_frame: bad args");
}

TEST(FrameEntryPoints, PastedCropMatchesTheReference) {
  Sample s;
  ASSERT_NE(s.ctx, nullptr);
  const le::Manifest& m = s.ctx->manifest;
  std::mt19937 rng(11);
  std::uniform_real_distribution<float> u(-0.05f, 1.05f);
  std::vector<float> crop(3 * m.crop * m.crop);
  for (auto& v : crop) v = u(rng);
  const std::string maskBytes = le::test::readFile(dataPath("sample/mask_512.u8"));
  const std::vector<uint8_t> mask(maskBytes.begin(), maskBytes.begin() + m.crop * m.crop);
  const le::test::PasteTables tables{le::paste::gaussTaps(m.ksize, m.sigma), le::paste::lanczosTable(),
                                     le::paste::bilinearTable(), le::paste::cubicTable()};
  for (const int si : {0, 3}) {
    std::vector<uint8_t> out(s.frameBytes(), 0);
    ASSERT_EQ(le_paste_crop(s.ctx, si, crop.data(), out.data(), out.size()), 1) << le_last_error();
    std::vector<uint8_t> want = decodedFrame(si);
    le::test::referencePaste(mask, m.crop, m.amount, tables, 0, crop.data(), 255.0f, s.ctx->identity->M(si),
                             want.data(), m.W, m.H);
    EXPECT_EQ(out, want) << si;
    EXPECT_NE(out, decodedFrame(si)) << "nothing was pasted";
  }
}

TEST(FrameEntryPoints, PasteRefusalsWriteNothing) {
  Sample s;
  ASSERT_NE(s.ctx, nullptr);
  std::vector<float> crop(3 * le_crop(s.ctx) * le_crop(s.ctx), 0.5f);
  std::vector<uint8_t> out(s.frameBytes(), 7);
  const auto untouched = std::vector<uint8_t>(out);
  const auto refused = [&](le_ctx* c, int si, const float* cr, size_t bytes) {
    EXPECT_EQ(le_paste_crop(c, si, cr, out.data(), bytes), 0);
    EXPECT_STREQ(le_last_error(), "le_paste_crop: bad args / out too small");
    EXPECT_EQ(out, untouched);
  };
  refused(s.ctx, 0, crop.data(), out.size() - 1);
  refused(s.ctx, 4, crop.data(), out.size());
  refused(s.ctx, -1, crop.data(), out.size());
  refused(s.ctx, 0, nullptr, out.size());
  refused(nullptr, 0, crop.data(), out.size());
  EXPECT_EQ(le_paste_crop(s.ctx, 0, crop.data(), nullptr, out.size()), 0);
  // The context stays usable after refusals.
  EXPECT_EQ(le_paste_crop(s.ctx, 3, crop.data(), out.data(), out.size()), 1);
}

TEST(FrameEntryPoints, ShortMaskIsRefusedAtOpen) {
  EXPECT_EQ(le_create(dataPath("frames/identity/mask_short").c_str(), "render", 0, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_create: mask read failed");
}

}  // namespace
