// The driver of a bundle: which member DriverCursor::open plays, its lines
// and refusals word for word, the JPEG source through the cursor, and the
// movie members chosen instead of it.
#include <chrono>
#include <cstdio>
#include <exception>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bundle/manifest.h"
#include "driver/cursor.h"
#include "driver/image_io.h"
#include "driver/jpeg_source.h"
#include "driver/movie_source.h"
#include "tests/support/test_support.h"

namespace {

using le::test::errorOf;

using le::DriverCursor;
using le::test::dataPath;
using le::test::ScopedEnv;

std::string driverCase(const std::string& name) { return dataPath("frames/driver/" + name); }

std::string framePath(const std::string& dir, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
  return dir + name;
}

// The index a generated frame carries in its top-left block (see
// tools/gen/frames_data.py).
int frameIndex(const uint8_t* rgb, int w) {
  const uint8_t* p = rgb + (8 * w + 8) * 3;
  return p[0] / 16 + 16 * (p[1] / 16);  // levels 16 k + 8, off by less than 8
}

// open() with its standard error swallowed; an exception comes out after
// the capture has ended.
std::unique_ptr<DriverCursor> openQuiet(const le::Manifest& m, int look, int history) {
  std::unique_ptr<DriverCursor> c;
  std::exception_ptr failure;
  le::test::captureStderr([&] {
    try {
      c = DriverCursor::open(m, look, history);
    } catch (...) {
      failure = std::current_exception();
    }
  });
  if (failure) std::rethrow_exception(failure);
  return c;
}

std::string movieLine(const std::string& member, int w, int h) {
  return "[le-driver] " + member + " decoded IN PLACE (mp4/ffmpeg y420, 4 frames " + std::to_string(w) + "x" +
         std::to_string(h) + ", look-ahead 2, history 11) — no frame of the driver is expanded ahead of the paste\n";
}

// Every frame of a four-frame driver carries its index.
void expectTheFourFrames(DriverCursor& c) {
  std::vector<uint8_t> out(c.frame_bytes);
  for (int i = 0; i < 4; ++i) {
    ASSERT_EQ(c.pullAt(i, out.data()), i);
    EXPECT_EQ(frameIndex(out.data(), c.w), i);
  }
}

TEST(DriverOpen, TheSampleReadsItsJpegDirectoryAndSaysSo) {
  const le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::open(m, 2, 11); });
  EXPECT_EQ(err, "[le-driver] " + m.bundle_dir + "/target_frames/ (raw jpg, 4 frames) — read one frame per pull\n");
  EXPECT_EQ(c->backend, "jpg/stb");
  EXPECT_EQ(c->nt, 4);
  EXPECT_EQ(c->w, 64);
  EXPECT_EQ(c->h, 48);
  EXPECT_EQ(c->frame_bytes, 64u * 48u * 3u);
  EXPECT_EQ(c->ringSlots(), 14);
  EXPECT_EQ(c->residentBytes(), 14u * 64u * 48u * 3u);  // the JPEG source holds nothing it reports
  EXPECT_EQ(DriverCursor::mp4MemberPath(m), "");
  for (int i = 0; i < 4; ++i) {
    int id = -1;
    const uint8_t* f = c->pullAt(i, &id);
    EXPECT_EQ(frameIndex(f, 64), i);
  }
}

TEST(DriverOpen, TheCanonicalSampleToo) {
  const le::Manifest m = le::loadManifest(dataPath("sample_canonical"), 0);
  auto c = openQuiet(m, 2, 11);
  std::vector<uint8_t> out(c->frame_bytes);
  EXPECT_EQ(c->pullAt(3, out.data()), 3);
  EXPECT_EQ(frameIndex(out.data(), 64), 3);
}

TEST(DriverOpen, FramesAreExactlyWhatLoadImageRgbDecodesThroughTheLoop) {
  const le::Manifest m = le::loadManifest(driverCase("long"), 0);
  auto c = openQuiet(m, 2, 11);
  ASSERT_EQ(c->nt, 20);
  std::vector<std::vector<uint8_t>> want(20);
  for (int i = 0; i < 20; ++i) {
    int w = 0, h = 0;
    want[i] = le::loadImageRGB(framePath(m.bundle_dir + "/target_frames", i), &w, &h);
    ASSERT_EQ(w, 64);
    ASSERT_EQ(h, 48);
    ASSERT_EQ(frameIndex(want[i].data(), 64), i);
  }
  std::vector<uint8_t> out(c->frame_bytes);
  for (int k = 0; k < 50; ++k) {  // two and a half loops
    const int si = k % 20;
    if (k % 3 == 0) {
      ASSERT_EQ(c->pull(out.data()), si);
      ASSERT_EQ(out, want[si]) << k;
    } else {
      int id = -1;
      const uint8_t* f = c->pullAt(si, &id);
      ASSERT_EQ(id, si);
      ASSERT_EQ(std::vector<uint8_t>(f, f + c->frame_bytes), want[si]) << k;
    }
  }
  EXPECT_EQ(c->seeks(), 0u);
}

TEST(DriverOpen, HistoryLookAheadAndSeeksThroughTheJpegSource) {
  const le::Manifest m = le::loadManifest(driverCase("long"), 0);
  auto c = openQuiet(m, 2, 11);
  std::vector<uint8_t> out(c->frame_bytes);
  for (int i = 0; i < 15; ++i) ASSERT_EQ(c->pullAt(i, out.data()), i);
  ASSERT_EQ(frameIndex(out.data(), 64), 14);
  // Let the decoder fill its look-ahead, so that the oldest frames have been
  // overwritten and what the ring holds is exactly history and look-ahead.
  for (int i = 0; i < 5000 && c->buffered() < 2; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  ASSERT_EQ(c->buffered(), 2);
  ASSERT_EQ(c->pullAt(14, out.data()), 14);  // just served
  ASSERT_EQ(c->pullAt(15 - 12, out.data()), 3);  // history + 1 behind the position
  ASSERT_EQ(frameIndex(out.data(), 64), 3);
  EXPECT_EQ(c->seeks(), 0u);
  ASSERT_EQ(c->pullAt(1, out.data()), 1);  // further back: a real seek
  EXPECT_EQ(frameIndex(out.data(), 64), 1);
  EXPECT_EQ(c->seeks(), 1u);
  ASSERT_EQ(c->pullAt(17, out.data()), 17);  // far ahead: another
  EXPECT_EQ(frameIndex(out.data(), 64), 17);
  EXPECT_EQ(c->seeks(), 2u);
  for (int k = 18; k < 26; ++k) {  // and on round the wrap
    ASSERT_EQ(c->pullAt(k % 20, out.data()), k % 20);
    ASSERT_EQ(frameIndex(out.data(), 64), k % 20);
  }
  EXPECT_EQ(c->seeks(), 2u);
}

TEST(DriverOpen, AJpegOfTheWrongSizeIsRefusedAtItsPullAndFromThenOn) {
  const le::Manifest m = le::loadManifest(driverCase("wrong_size"), 0);
  auto c = openQuiet(m, 1, 11);
  std::vector<uint8_t> out(c->frame_bytes);
  EXPECT_EQ(c->pullAt(0, out.data()), 0);
  EXPECT_EQ(c->pullAt(1, out.data()), 1);
  const std::string want = "le_driver: le_driver: " + m.bundle_dir +
                           "/target_frames/frame_000002.jpg is 32x24, the manifest says 64x48 — refusing";
  EXPECT_EQ(errorOf([&] { c->pullAt(2, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { c->pullAt(0, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { c->pull(out.data()); }), want);
}

TEST(DriverOpen, ACorruptJpegFailsWithTheDecodeSentence) {
  const le::Manifest m = le::loadManifest(driverCase("corrupt"), 0);
  auto c = openQuiet(m, 1, 11);
  std::vector<uint8_t> out(c->frame_bytes);
  EXPECT_EQ(c->pullAt(0, out.data()), 0);
  EXPECT_EQ(c->pullAt(1, out.data()), 1);
  const std::string want = "le_driver: decode failed: " + m.bundle_dir + "/target_frames/frame_000002.jpg";
  EXPECT_EQ(errorOf([&] { c->pullAt(2, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { c->pullAt(3, out.data()); }), want);
}

TEST(DriverOpen, NoDriverAtAllIsRefused) {
  const le::Manifest m = le::loadManifest(driverCase("none"), 0);
  EXPECT_EQ(errorOf([&] { openQuiet(m, 2, 11); }),
            "this bundle carries neither a populated target_frames/ nor target_frames.mp4 (" + m.bundle_dir +
                "/target_frames.mp4) — there is no driver video to play. REFUSING to create a session.");
  EXPECT_EQ(DriverCursor::mp4MemberPath(m), "");
}

TEST(DriverOpen, OnlyTheLastFrameIsProbed) {
  const le::Manifest m = le::loadManifest(driverCase("missing_last"), 0);
  EXPECT_EQ(errorOf([&] { openQuiet(m, 2, 11); }),
            "this bundle carries neither a populated target_frames/ nor target_frames.mp4 (" + m.bundle_dir +
                "/target_frames.mp4) — there is no driver video to play. REFUSING to create a session.");
}

TEST(DriverOpen, AMovieOnlyDriverPlaysItsMovieAndSaysSo) {
  const le::Manifest m = le::loadManifest(driverCase("mp4_only"), 0);
  const std::string path = m.bundle_dir + "/target_frames.mp4";
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::open(m, 2, 11); });
  EXPECT_EQ(err, movieLine("target_frames.mp4", 64, 48));
  EXPECT_EQ(c->backend, "mp4/ffmpeg y420");
  EXPECT_EQ(DriverCursor::mp4MemberPath(m), path);
  expectTheFourFrames(*c);
}

TEST(DriverOpen, BothFormsReadTheJpegsUnlessTheMovieIsPreferredExactly) {
  const le::Manifest m = le::loadManifest(driverCase("both"), 0);
  const std::string path = m.bundle_dir + "/target_frames.mp4";
  {
    ScopedEnv env("LE_DRIVER_PREFER_MP4", "1 ");
    EXPECT_EQ(openQuiet(m, 2, 11)->backend, "jpg/stb");
    EXPECT_EQ(DriverCursor::mp4MemberPath(m), "");
  }
  ScopedEnv env("LE_DRIVER_PREFER_MP4", "1");
  EXPECT_EQ(DriverCursor::mp4MemberPath(m), path);
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::open(m, 2, 11); });
  EXPECT_EQ(err,
            "[le-driver] LE_DRIVER_PREFER_MP4=1 — target_frames/ is populated and NOT used; target_frames.mp4 is the "
            "member this consumer reads\n" +
                movieLine("target_frames.mp4", 64, 48));
  EXPECT_EQ(c->backend, "mp4/ffmpeg y420");
  expectTheFourFrames(*c);
}

TEST(DriverOpen, PreferringAMissingMovieKeepsTheJpegs) {
  ScopedEnv env("LE_DRIVER_PREFER_MP4", "1");
  const le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  EXPECT_EQ(openQuiet(m, 2, 11)->backend, "jpg/stb");
}

TEST(DriverOpen, ManifestNamesForTheDirectoryAndTheMovie) {
  const le::Manifest custom = le::loadManifest(driverCase("custom_names"), 0);
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::open(custom, 2, 11); });
  EXPECT_EQ(err, "[le-driver] " + custom.bundle_dir + "/body/ (raw jpg, 4 frames) — read one frame per pull\n");
  std::vector<uint8_t> out(c->frame_bytes);
  EXPECT_EQ(c->pullAt(2, out.data()), 2);
  EXPECT_EQ(frameIndex(out.data(), 64), 2);

  const le::Manifest movie = le::loadManifest(driverCase("custom_mp4"), 0);
  std::unique_ptr<DriverCursor> m4;
  EXPECT_EQ(le::test::captureStderr([&] { m4 = DriverCursor::open(movie, 2, 11); }), movieLine("body.mp4", 64, 48));
  expectTheFourFrames(*m4);
  EXPECT_EQ(DriverCursor::mp4MemberPath(movie), movie.bundle_dir + "/body.mp4");

  const le::Manifest empty = le::loadManifest(driverCase("empty_names"), 0);
  EXPECT_EQ(openQuiet(empty, 2, 11)->backend, "jpg/stb");
}

TEST(DriverOpen, APublishedOutputPlaysItsMovieAndNeverTheJpegs) {
  le::Manifest m;
  le::test::captureStderr([&] { m = le::loadManifest(driverCase("published"), 24); });
  ASSERT_EQ(m.driver_mp4, "driver_24.mp4");
  const std::string path = m.bundle_dir + "/driver_24.mp4";
  EXPECT_EQ(DriverCursor::mp4MemberPath(m), path);
  ScopedEnv env("LE_DRIVER_PREFER_MP4", "1");  // and no preference line for a published driver
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::open(m, 2, 11); });
  EXPECT_EQ(err, movieLine("driver_24.mp4", 32, 24));
  EXPECT_EQ(c->w, 32);
  EXPECT_EQ(c->h, 24);
  expectTheFourFrames(*c);
}

TEST(DriverOpen, ThePriorMovie) {
  const le::Manifest none = le::loadManifest(dataPath("priors/no_prior"), 0);
  EXPECT_EQ(errorOf([&] { DriverCursor::openPrior(none, 2, 11); }),
            "this bundle carries neither a raw P.f16 nor P_hevc.mov (" + none.bundle_dir +
                "/P_hevc.mov) — there is no warp prior to play. REFUSING to create a session.");
  const le::Manifest missing = le::loadManifest(dataPath("priors/hevc_missing"), 0);
  EXPECT_EQ(errorOf([&] { DriverCursor::openPrior(missing, 2, 11); }),
            "this bundle carries neither a raw P.f16 nor prior.mov (" + missing.bundle_dir +
                "/prior.mov) — there is no warp prior to play. REFUSING to create a session.");
  // Present under either name, and not a movie at all.
  const le::Manifest present = le::loadManifest(dataPath("priors/hevc_present"), 0);
  EXPECT_EQ(errorOf([&] { DriverCursor::openPrior(present, 2, 11); }),
            "le_driver: " + present.bundle_dir + "/prior.mov has no video track — refusing");
  const le::Manifest canonical = le::loadManifest(dataPath("priors/hevc_canonical"), 0);
  EXPECT_EQ(errorOf([&] { DriverCursor::openPrior(canonical, 2, 11); }),
            "le_driver: " + canonical.bundle_dir + "/source_frames.hevc has no video track — refusing");
  // A playable one says where it plays from.
  const le::Manifest movie = le::loadManifest(dataPath("frames/identity/hevc_prior_named"), 0);
  std::unique_ptr<DriverCursor> c;
  const std::string err = le::test::captureStderr([&] { c = DriverCursor::openPrior(movie, 2, 11); });
  EXPECT_EQ(err,
            "Kestrova: identity source ready — 4 frames 32x32, played straight from prior.mov (hevc444/ffmpeg x444); "
            "nothing is unpacked to disk\n");
  EXPECT_EQ(c->frame_bytes, 32u * 32u * 6u);
  EXPECT_EQ(c->ringSlots(), 14);
  EXPECT_EQ(le::movieDecoderBuild().rfind("FFmpeg (libavformat ", 0), 0u) << le::movieDecoderBuild();
}

TEST(JpgDirSource, TheSourceOnItsOwn) {
  const std::string dir = dataPath("sample/target_frames");
  auto s = le::driver::openJpgDir(dir, 4, 64, 48);
  EXPECT_EQ(s->NT(), 4);
  EXPECT_EQ(s->W(), 64);
  EXPECT_EQ(s->H(), 48);
  EXPECT_EQ(s->frameBytes(), 64u * 48u * 3u);
  EXPECT_EQ(s->name(), "jpg/stb");
  EXPECT_EQ(s->residentBytes(), 0u);
  std::vector<uint8_t> out(s->frameBytes());
  for (int i = 0; i < 4; ++i) {
    ASSERT_TRUE(s->next(out.data()));
    EXPECT_EQ(frameIndex(out.data(), 64), i);
  }
  EXPECT_FALSE(s->next(out.data()));  // the end of the member
  s->rewind();
  ASSERT_TRUE(s->next(out.data()));
  EXPECT_EQ(frameIndex(out.data(), 64), 0);
  s->seek(3);
  ASSERT_TRUE(s->next(out.data()));
  EXPECT_EQ(frameIndex(out.data(), 64), 3);
  EXPECT_EQ(errorOf([&] { s->seek(4); }), "le_driver: seek outside the member");
  EXPECT_EQ(errorOf([&] { s->seek(-1); }), "le_driver: seek outside the member");
  // Outside a cursor the size refusal carries one "le_driver: ".
  auto wrong = le::driver::openJpgDir(dir, 4, 32, 48);
  EXPECT_EQ(errorOf([&] { wrong->next(out.data()); }),
            "le_driver: " + dir + "/frame_000000.jpg is 64x48, the manifest says 32x48 — refusing");
  auto missing = le::driver::openJpgDir(dir, 5, 64, 48);
  missing->seek(4);
  EXPECT_EQ(errorOf([&] { missing->next(out.data()); }), "decode failed: " + dir + "/frame_000004.jpg");
}

}  // namespace
