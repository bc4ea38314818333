// The render entry points through the C interface: a row of the idle loop
// rendered and pasted into a finished frame, byte for byte against the plain
// paste reference applied to the crop the engine returned, and the failures
// of the table word for word.
#include <cstdint>
#include <string>
#include <vector>

#include "le/context.h"
#include "le/le.h"
#include "paste/paste_tables.h"
#include "tests/paste/paste_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

struct Director {
  le_ctx* ctx = le_create(dataPath("sample").c_str(), "b1_fp32", 1, nullptr);
  Director() { EXPECT_NE(ctx, nullptr) << le_last_error(); }
  ~Director() { le_destroy(ctx); }
  size_t pixels() const { return static_cast<size_t>(le_width(ctx)) * static_cast<size_t>(le_height(ctx)); }
};

// The driver frame si with crop pasted by the reference.
std::vector<uint8_t> referenceFrame(le_ctx* ctx, int si, const float* crop) {
  const le::Manifest& m = ctx->manifest;
  const std::string maskBytes = le::test::readFile(dataPath("sample/mask_512.u8"));
  const std::vector<uint8_t> mask(maskBytes.begin(), maskBytes.begin() + m.crop * m.crop);
  const le::test::PasteTables tables{le::paste::gaussTaps(m.ksize, m.sigma), le::paste::lanczosTable(),
                                     le::paste::bilinearTable(), le::paste::cubicTable()};
  const uint8_t* driver = le_target_frame(ctx, si);
  std::vector<uint8_t> frame(driver, driver + static_cast<size_t>(m.W) * m.H * 3);
  le::test::referencePaste(mask, m.crop, m.amount, tables, 0, crop, 255.0f, ctx->identity->M(si), frame.data(), m.W,
                           m.H);
  return frame;
}

TEST(RenderEntryPoints, IdleLoopRowsRenderedAndPastedMatchTheReference) {
  Director d;
  ASSERT_NE(d.ctx, nullptr);
  const size_t cropElems = static_cast<size_t>(3 * le_crop(d.ctx) * le_crop(d.ctx));
  std::vector<uint8_t> rgba(d.pixels() * 4);
  for (const int frame : {0, 3, 5, 1}) {
    SCOPED_TRACE(frame);
    ASSERT_EQ(le_render_drive_rgba(d.ctx, frame, rgba.data(), rgba.size()), 1) << le_last_error();
    EXPECT_STREQ(le_last_error(), "");
    const int si = d.ctx->drive.si[static_cast<size_t>(frame)];
    const std::vector<float> crop(d.ctx->last_crop, d.ctx->last_crop + cropElems);
    const std::vector<uint8_t> want = referenceFrame(d.ctx, si, crop.data());
    std::vector<uint8_t> rgb;
    for (size_t p = 0; p < d.pixels(); ++p) {
      rgb.insert(rgb.end(), rgba.begin() + static_cast<long>(4 * p), rgba.begin() + static_cast<long>(4 * p + 3));
      ASSERT_EQ(rgba[4 * p + 3], 255);
    }
    EXPECT_EQ(rgb, want);
    const uint8_t* driver = le_target_frame(d.ctx, si);
    EXPECT_NE(rgb, std::vector<uint8_t>(driver, driver + d.pixels() * 3)) << "nothing was pasted";
  }
}

TEST(RenderEntryPoints, KeypointCropThenPasteLast) {
  Director d;
  ASSERT_NE(d.ctx, nullptr);
  EXPECT_EQ(le_paste_last(d.ctx, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_paste_last: bad args / no prior render");
  const le::Drive& drive = d.ctx->drive;
  // The drive row's crop and the same keypoints on the same si are one crop.
  const float* viaDrive = le_render_drive_crop(d.ctx, 2);
  ASSERT_NE(viaDrive, nullptr) << le_last_error();
  const size_t cropElems = static_cast<size_t>(3 * le_crop(d.ctx) * le_crop(d.ctx));
  const std::vector<float> first(viaDrive, viaDrive + cropElems);
  const float* crop = le_render_kp_crop(d.ctx, drive.si[2], drive.xs.data() + 2 * 63, drive.xd.data() + 2 * 63);
  ASSERT_NE(crop, nullptr);
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(std::vector<float>(crop, crop + cropElems), first);
  EXPECT_EQ(crop, d.ctx->last_crop);
  // Pasted onto another source frame than it was rendered for: the paste
  // takes what it is told.
  const uint8_t* frame = le_paste_last(d.ctx, 3);
  ASSERT_NE(frame, nullptr) << le_last_error();
  EXPECT_EQ(frame, d.ctx->frame_rgb.data());
  EXPECT_EQ(std::vector<uint8_t>(frame, frame + d.pixels() * 3), referenceFrame(d.ctx, 3, first.data()));
  std::vector<uint8_t> rgba(d.pixels() * 4);
  ASSERT_EQ(le_render_kp_rgba(d.ctx, 1, drive.xs.data(), drive.xd.data(), rgba.data(), rgba.size()), 1);
  EXPECT_EQ(rgba[3], 255);
}

TEST(RenderEntryPoints, Refusals) {
  Director d;
  ASSERT_NE(d.ctx, nullptr);
  const float* xs = d.ctx->drive.xs.data();
  for (const int si : {-1, 4}) {
    EXPECT_EQ(le_render_kp_crop(d.ctx, si, xs, xs), nullptr);
    EXPECT_STREQ(le_last_error(), "le_render_kp_crop: bad args");
  }
  EXPECT_EQ(le_render_kp_crop(nullptr, 0, xs, xs), nullptr);
  EXPECT_EQ(le_render_kp_crop(d.ctx, 0, nullptr, xs), nullptr);
  EXPECT_EQ(le_render_kp_crop(d.ctx, 0, xs, nullptr), nullptr);
  EXPECT_STREQ(le_last_error(), "le_render_kp_crop: bad args");
  for (const int frame : {-1, 6}) {
    EXPECT_EQ(le_render_drive_crop(d.ctx, frame), nullptr);
    EXPECT_STREQ(le_last_error(), "le_render_drive_crop: bad frame index");
  }
  EXPECT_EQ(le_render_drive_crop(nullptr, 0), nullptr);
  EXPECT_STREQ(le_last_error(), "le_render_drive_crop: bad frame index");
  EXPECT_EQ(d.ctx->renderer, nullptr) << "a refused call built the renderer";

  // A buffer one byte short fails after the render, which leaves the crop.
  std::vector<uint8_t> rgba(d.pixels() * 4 - 1);
  EXPECT_EQ(le_render_drive_rgba(d.ctx, 1, rgba.data(), rgba.size()), 0);
  EXPECT_STREQ(le_last_error(), "le_render_drive_rgba: out buffer too small");
  EXPECT_NE(d.ctx->last_crop, nullptr);
  EXPECT_NE(le_paste_last(d.ctx, 1), nullptr);
  EXPECT_EQ(le_render_kp_rgba(d.ctx, 0, xs, xs, nullptr, d.pixels() * 4), 0);
  EXPECT_STREQ(le_last_error(), "le_render_kp_rgba: out buffer too small");
  EXPECT_EQ(le_render_drive_rgba(nullptr, 0, rgba.data(), rgba.size()), 0);
  EXPECT_EQ(le_render_kp_rgba(nullptr, 0, xs, xs, rgba.data(), rgba.size()), 0);
  for (const int si : {-1, 4}) {
    EXPECT_EQ(le_paste_last(d.ctx, si), nullptr);
    EXPECT_STREQ(le_last_error(), "le_paste_last: bad args / no prior render");
  }
  EXPECT_EQ(le_paste_last(nullptr, 0), nullptr);
}

TEST(RenderEntryPoints, AFailedLoadIsStoredAndTheContextStaysUsable) {
  le_ctx* ctx = le_create(dataPath("render/bundles/no_compose").c_str(), "b1_fp32", 1, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  const float* xs = ctx->drive.xs.data();
  ::testing::internal::CaptureStderr();
  EXPECT_EQ(le_render_kp_crop(ctx, 0, xs, xs), nullptr);
  ::testing::internal::GetCapturedStderr();
  EXPECT_EQ(std::string(le_last_error()).rfind("le_render_kp_crop: Renderer: LEGACY COMPOSE REFUSED for identity "
                                               "'sample' (b1_fp32): its lip_template.v1.json carries no compose_v2 ",
                                               0),
            0u)
      << le_last_error();
  EXPECT_EQ(ctx->last_crop, nullptr);
  std::vector<uint8_t> out(static_cast<size_t>(le_width(ctx)) * le_height(ctx) * 3);
  std::vector<float> crop(3 * 32 * 32, 0.5f);
  EXPECT_EQ(le_paste_crop(ctx, 0, crop.data(), out.data(), out.size()), 1);
  le_destroy(ctx);
}

}  // namespace
