// Bundles whose driver and prior are movies: they open and play exactly,
// rendering the same finished frames as the same bundle with its frames as
// JPEGs and its prior as P.f16; the prior kept in step by walkP; and the
// le_prior_* functions word for word.
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "driver/cursor.h"
#include "le/context.h"
#include "le/le.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

std::string bundle(const std::string& name) { return dataPath("movies/bundles/" + name); }

struct Ctx {
  le_ctx* ctx = nullptr;
  explicit Ctx(const std::string& dir) {
    le::test::captureStderr([&] { ctx = le_create(dir.c_str(), "b1_fp32", 1, nullptr); });
    EXPECT_NE(ctx, nullptr) << le_last_error();
  }
  ~Ctx() { le_destroy(ctx); }
  Ctx(const Ctx&) = delete;
  Ctx& operator=(const Ctx&) = delete;
};

std::vector<uint8_t> twinPriorRow(int si) {
  const std::string p = le::test::readFile(bundle("jpeg_twin/P.f16"));
  const size_t row = 32 * 32 * 6;
  return std::vector<uint8_t>(p.begin() + static_cast<long>(si * row), p.begin() + static_cast<long>((si + 1) * row));
}

TEST(MovieBundle, RendersTheSameFinishedFramesAsItsJpegTwin) {
  Ctx movie(bundle("movie"));
  Ctx twin(bundle("jpeg_twin"));
  ASSERT_NE(movie.ctx, nullptr);
  ASSERT_NE(twin.ctx, nullptr);
  EXPECT_EQ(movie.ctx->cursor->backend, "mp4/ffmpeg y420");
  EXPECT_EQ(twin.ctx->cursor->backend, "jpg/stb");
  const int nt = le_nt(movie.ctx);
  ASSERT_EQ(nt, 4);
  const size_t frameBytes = static_cast<size_t>(le_width(movie.ctx)) * static_cast<size_t>(le_height(movie.ctx)) * 3;
  // The driver frames and the prior rows are the same bytes.
  for (const int si : {0, 1, 2, 3, 1, 0, 3}) {
    const uint8_t* a = le_target_frame(movie.ctx, si);
    ASSERT_NE(a, nullptr) << le_last_error();
    const std::vector<uint8_t> fromMovie(a, a + frameBytes);
    const uint8_t* b = le_target_frame(twin.ctx, si);
    ASSERT_NE(b, nullptr) << le_last_error();
    ASSERT_EQ(fromMovie, std::vector<uint8_t>(b, b + frameBytes)) << "driver frame " << si;
    const auto* p = reinterpret_cast<const uint8_t*>(movie.ctx->identity->P(si));
    ASSERT_EQ(std::vector<uint8_t>(p, p + 32 * 32 * 6), twinPriorRow(si)) << "prior row " << si;
  }
  EXPECT_EQ(movie.ctx->identity->priorBackend(), "hevc444/ffmpeg x444");
  EXPECT_EQ(twin.ctx->identity->priorBackend(), "mmap P.f16");
  // Every row of the idle loop, rendered and pasted, twice round.
  std::vector<uint8_t> a(frameBytes / 3 * 4), b(a.size());
  for (int k = 0; k < 2 * le_drive_frames(movie.ctx); ++k) {
    const int row = k % le_drive_frames(movie.ctx);
    ASSERT_EQ(le_render_drive_rgba(movie.ctx, row, a.data(), a.size()), 1) << le_last_error();
    ASSERT_EQ(le_render_drive_rgba(twin.ctx, row, b.data(), b.size()), 1) << le_last_error();
    ASSERT_EQ(a, b) << "finished frame of row " << row;
  }
  // And a host's own crop pasted into each driver frame.
  std::vector<float> crop(3 * 32 * 32);
  for (size_t i = 0; i < crop.size(); ++i) crop[i] = static_cast<float>(i % 97) / 96.0f;
  std::vector<uint8_t> pa(frameBytes), pb(frameBytes);
  for (int si = nt - 1; si >= 0; --si) {
    ASSERT_EQ(le_paste_crop(movie.ctx, si, crop.data(), pa.data(), pa.size()), 1) << le_last_error();
    ASSERT_EQ(le_paste_crop(twin.ctx, si, crop.data(), pb.data(), pb.size()), 1) << le_last_error();
    ASSERT_EQ(pa, pb) << si;
    const uint8_t* driver = le_target_frame(movie.ctx, si);
    EXPECT_NE(pa, std::vector<uint8_t>(driver, driver + frameBytes)) << "nothing was pasted";
  }
}

TEST(MovieBundle, WalkPKeepsThePriorInStepWithoutGoingBack) {
  le::Identity id(le::loadManifest(bundle("movie"), 0));
  le::DriverCursor* cursor = nullptr;
  le::test::captureStderr([&] { cursor = &id.prior(); });
  EXPECT_EQ(id.P(0), id.P(0));
  EXPECT_EQ(cursor->position(), 1);
  id.walkP(0);  // one behind the cursor: it stays
  EXPECT_EQ(cursor->position(), 1);
  id.walkP(2);  // ahead: pulled, so the cursor is past it
  EXPECT_EQ(cursor->position(), 3);
  id.walkP(2);  // behind again
  EXPECT_EQ(cursor->position(), 3);
  id.walkP(0);  // one ahead across the loop's end
  EXPECT_EQ(cursor->position(), 1);
  EXPECT_EQ(id.priorSeeks(), cursor->seeks());
  const auto* p = reinterpret_cast<const uint8_t*>(id.P(1));
  EXPECT_EQ(std::vector<uint8_t>(p, p + 32 * 32 * 6), twinPriorRow(1));
  // A mapped prior has nothing to walk.
  le::Identity mapped(le::loadManifest(bundle("jpeg_twin"), 0));
  mapped.walkP(3);
  EXPECT_EQ(mapped.priorSeeks(), 0u);
  EXPECT_EQ(mapped.priorResidentBytes(), 0u);
}

// The session's pattern: one thread takes rows while another keeps the
// prior in step; each row that comes out is the right one.
TEST(MovieBundle, RowsAndWalksFromTwoThreads) {
  le::Identity id(le::loadManifest(bundle("movie"), 0));
  le::DriverCursor* cursor = nullptr;
  le::test::captureStderr([&] { cursor = &id.prior(); });
  std::vector<std::vector<uint8_t>> want;
  for (int si = 0; si < 4; ++si) want.push_back(twinPriorRow(si));
  std::thread walker([&] {
    for (int k = 0; k < 200; ++k) id.walkP((k / 3) % 4);
  });
  std::vector<uint8_t> row(cursor->frame_bytes);
  int wrong = 0;
  for (int k = 0; k < 200; ++k) {
    const int si = (k * 3) % 4;
    if (cursor->pullAt(si, row.data()) != si || row != want[static_cast<size_t>(si)]) ++wrong;
  }
  walker.join();
  EXPECT_EQ(wrong, 0);
}

TEST(PriorHandle, RowsBackendAndRefusals) {
  EXPECT_EQ(le_prior_open(nullptr, 2, 11), nullptr);
  EXPECT_STREQ(le_last_error(), "le_prior_open: NULL bundle_dir");

  le_prior* prior = nullptr;
  const std::string err = le::test::captureStderr([&] { prior = le_prior_open(bundle("movie").c_str(), 0, -1); });
  ASSERT_NE(prior, nullptr) << le_last_error();
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(err, "Kestrova: identity source ready — 4 frames 32x32, played straight from P_hevc.mov "
                 "(hevc444/ffmpeg x444); nothing is unpacked to disk\n");
  EXPECT_STREQ(le_prior_backend(prior), "hevc444/ffmpeg x444");
  const size_t bytes = le_prior_row_bytes(prior);
  ASSERT_EQ(bytes, 32u * 32u * 6u);
  std::vector<uint8_t> row(bytes + 1, 0xEE);
  for (const int si : {2, 3, 0, 1, 1, 3}) {
    ASSERT_EQ(le_prior_row(prior, si, row.data(), bytes), 1) << le_last_error();
    EXPECT_EQ(std::vector<uint8_t>(row.begin(), row.begin() + static_cast<long>(bytes)), twinPriorRow(si)) << si;
    EXPECT_EQ(row[bytes], 0xEE) << "written past the row";
  }
  EXPECT_EQ(le_prior_row(prior, 0, row.data(), bytes - 1), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: cap 6143 < row bytes 6144");
  EXPECT_EQ(le_prior_row(prior, 0, nullptr, bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: NULL prior/out");
  EXPECT_EQ(le_prior_row(nullptr, 0, row.data(), bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: NULL prior/out");
  EXPECT_EQ(le_prior_row(prior, 4, row.data(), bytes), 0);
  EXPECT_STREQ(le_last_error(), "le_prior_row: le_driver: seek(4) outside [0,4)");
  ASSERT_EQ(le_prior_row(prior, 3, row.data(), bytes), 1) << "a refused index left the handle unusable";
  EXPECT_EQ(le_prior_row_bytes(nullptr), 0u);
  EXPECT_STREQ(le_prior_backend(nullptr), "");
  le_prior_close(prior);
  le_prior_close(nullptr);

  // A bundle whose prior is mapped has no movie to play.
  const std::string sample = dataPath("sample");
  EXPECT_EQ(le_prior_open(sample.c_str(), 2, 11), nullptr);
  EXPECT_EQ(std::string(le_last_error()),
            "le_prior_open: this bundle carries neither a raw P.f16 nor P_hevc.mov (" + sample +
                "/P_hevc.mov) — there is no warp prior to play. REFUSING to create a session.");
  // A movie that can't be played is refused by its own sentence.
  const std::string broken = dataPath("priors/hevc_present");
  EXPECT_EQ(le_prior_open(broken.c_str(), 2, 11), nullptr);
  EXPECT_EQ(std::string(le_last_error()),
            "le_prior_open: le_driver: " + broken + "/prior.mov has no video track — refusing");
}

}  // namespace
