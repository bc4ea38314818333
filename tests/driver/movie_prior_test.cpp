// The warp prior movie through FFmpeg: every frame against ffmpeg's own
// decode converted by the reference formula, in presentation order, by
// index, after seeks and loops; the conversion's edge values; the stored
// record's chroma format; and every refusal word for word.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "driver/cursor.h"
#include "driver/movie_ffmpeg.h"
#include "driver/movie_record.h"
#include "driver/movie_source.h"
#include "driver/prior_convert.h"
#include "tests/driver/movie_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::DriverCursor;
using le::test::dataPath;
using le::test::errorOf;

std::string movie(const std::string& name) { return dataPath("movies/prior/" + name + ".mov"); }

constexpr int kNT = 10;
constexpr int kCrop = 32;

std::vector<uint8_t> nextFrame(le::driver::Source& s) {
  std::vector<uint8_t> f(s.frameBytes());
  if (!s.next(f.data())) f.clear();
  return f;
}

TEST(PriorConversion, TheEdgeValues) {
  const std::array<uint16_t, 256> lut = le::driver::priorHalfTable();
  EXPECT_EQ(lut[0], 0x0000);
  EXPECT_EQ(lut[255], 0x3C00);  // 1.0
  EXPECT_EQ(lut[128], 0x3804);  // 128 / 255 = 0.50196, rounded to half
  const auto one = [&](uint8_t y, uint8_t u, uint8_t v, uint16_t rgb[3]) {
    le::driver::yuv444RowToHalf(&y, &u, &v, 1, lut.data(), &rgb[0], &rgb[1], &rgb[2]);
  };
  uint16_t got[3];
  one(16, 128, 128, got);  // black
  EXPECT_EQ(got[0], 0);
  EXPECT_EQ(got[1], 0);
  EXPECT_EQ(got[2], 0);
  one(235, 128, 128, got);  // white: t = 255 exactly
  EXPECT_EQ(got[0], 0x3C00);
  EXPECT_EQ(got[1], 0x3C00);
  EXPECT_EQ(got[2], 0x3C00);
  one(255, 255, 128, got);  // B overflows past 511 (t = 534) and wraps to 0; R clips to 255
  EXPECT_EQ(got[2], 0);
  EXPECT_EQ(got[0], 0x3C00);
  // Every sample triple against the reference formula, on a sparse grid
  // with both ends of every axis.
  std::vector<uint8_t> ys, us, vs;
  for (int y = 0; y < 256; y += 5)
    for (int u = 0; u < 256; u += 15)
      for (int v = 0; v < 256; v += 17) {
        ys.push_back(static_cast<uint8_t>(y));
        us.push_back(static_cast<uint8_t>(u));
        vs.push_back(static_cast<uint8_t>(v));
      }
  const int n = static_cast<int>(ys.size());
  std::vector<uint16_t> r(ys.size()), g(ys.size()), b(ys.size());
  le::driver::yuv444RowToHalf(ys.data(), us.data(), vs.data(), n, lut.data(), r.data(), g.data(), b.data());
  for (int i = 0; i < n; ++i) {
    uint16_t want[3];
    le::test::referencePriorPixel(ys[i], us[i], vs[i], want);
    ASSERT_EQ(r[i], want[0]) << i;
    ASSERT_EQ(g[i], want[1]) << i;
    ASSERT_EQ(b[i], want[2]) << i;
  }
}

TEST(PriorRecord, TheChromaFormatOfAStoredRecord) {
  using le::driver::RecordKind;
  std::vector<uint8_t> hvcc(23, 0);
  hvcc[16] = 0xFD;  // reserved bits set, chroma_format_idc 1
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Hvcc, hvcc.data(), 17), 1);
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Hvcc, hvcc.data(), 16), -1);  // 16 bytes or fewer pass
  hvcc[16] = 0xFF;
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Hvcc, hvcc.data(), hvcc.size()), 3);
  // avcC: version, profile, compatibility, level, length size, then the
  // SPS count and each SPS, the PPS count and each PPS, and for the high
  // profiles the chroma format byte.
  const std::vector<uint8_t> high = {1, 100, 0, 31, 0xFF, 0xE1, 0, 3, 0x67, 0x64, 0x00, 1, 0, 2, 0x68, 0xEE, 0xFE};
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, high.data(), high.size()), 2);
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, high.data(), high.size() - 1), -1);  // ends at the PPS
  std::vector<uint8_t> other = high;
  for (const int profile : {66, 77, 88, 244}) {  // no chroma byte to read: 4:2:0
    other[1] = static_cast<uint8_t>(profile);
    EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, other.data(), other.size()), 1) << profile;
  }
  for (const int profile : {44, 83, 86, 110, 118, 122, 128, 134, 135, 138, 139, 144}) {
    other[1] = static_cast<uint8_t>(profile);
    EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, other.data(), other.size()), 2) << profile;
  }
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, high.data(), 6), -1);  // shorter than 7
  // Seven bytes: no SPS walk, the PPS count is byte 6, and nothing follows.
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, high.data(), 7), -1);
  // An SPS length that runs past the end stops the walk.
  std::vector<uint8_t> longSps = high;
  longSps[7] = 200;
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::Avcc, longSps.data(), longSps.size()), -1);
  EXPECT_EQ(le::driver::recordChromaFormat(RecordKind::None, high.data(), high.size()), -1);
}

TEST(PriorRecord, FourCharacterCodes) {
  EXPECT_EQ(le::driver::ff::fourcc(0x68766331), "hvc1");
  EXPECT_EQ(le::driver::ff::fourcc(0x61760031), "av");  // stops at a zero byte
  EXPECT_EQ(le::driver::ff::fourccStr(0x68766331), "hvc1");
  EXPECT_EQ(le::driver::ff::fourccStr(0x0A7F6100), "??a?");
}

struct Playable {
  const char* name;
  int bits;
};
const Playable kPlayable[] = {{"hevc444", 8}, {"hevc444_hev1", 8}, {"hevc444_lossy", 8}, {"hevc444_10bit", 10}};

TEST(MoviePrior, TheMembersAreStoredOutOfPresentationOrder) {
  for (const Playable& p : kPlayable) {
    const std::vector<int64_t> pts = le::test::storedPresentationTimes(movie(p.name));
    ASSERT_EQ(pts.size(), static_cast<size_t>(kNT)) << p.name;
    EXPECT_FALSE(std::is_sorted(pts.begin(), pts.end())) << p.name;
  }
}

TEST(MoviePrior, EveryFrameInPresentationOrderAfterRewindAndSeekMatchesTheReference) {
  for (const Playable& p : kPlayable) {
    const auto want =
        le::test::referencePriorFrames(dataPath("movies/prior/") + p.name + ".yuv", kCrop, p.bits);
    ASSERT_EQ(want.size(), static_cast<size_t>(kNT));
    for (const int threads : le::test::decoderThreadCounts()) {
      SCOPED_TRACE(std::string(p.name) + " threads " + std::to_string(threads));
      auto s = le::driver::openPriorHevc(movie(p.name), kNT, kCrop, threads);
      EXPECT_EQ(s->NT(), kNT);
      EXPECT_EQ(s->W(), kCrop);
      EXPECT_EQ(s->H(), kCrop);
      EXPECT_EQ(s->frameBytes(), static_cast<size_t>(kCrop * kCrop * 6));
      EXPECT_EQ(s->name(), "hevc444/ffmpeg x444");
      EXPECT_EQ(s->residentBytes(), static_cast<size_t>(kCrop * kCrop * 36 + 4 * kCrop * kCrop * 6));
      for (int i = 0; i < kNT; ++i) ASSERT_EQ(nextFrame(*s), want[i]) << "frame " << i;
      EXPECT_TRUE(nextFrame(*s).empty());
      EXPECT_TRUE(nextFrame(*s).empty());
      s->rewind();
      for (int i = 0; i < 3; ++i) ASSERT_EQ(nextFrame(*s), want[i]) << "after rewind " << i;
      // A seek is a walk: forwards from here, backwards from frame 0.
      for (const int i : {3, 7, 2, 9, 0, 5, 4}) {
        s->seek(i);
        ASSERT_EQ(nextFrame(*s), want[i]) << "seek " << i;
      }
      s->seek(5);  // already there
      ASSERT_EQ(nextFrame(*s), want[5]);
      EXPECT_EQ(errorOf([&] { s->seek(kNT); }), "le_driver: seek outside the member");
      ASSERT_EQ(nextFrame(*s), want[6]);
    }
  }
}

TEST(MoviePrior, BothTagsPlayTheSameFrames) {
  auto hvc1 = le::driver::openPriorHevc(movie("hevc444"), kNT, kCrop, 1);
  auto hev1 = le::driver::openPriorHevc(movie("hevc444_hev1"), kNT, kCrop, 1);
  for (int i = 0; i < kNT; ++i) ASSERT_EQ(nextFrame(*hvc1), nextFrame(*hev1)) << i;
  EXPECT_EQ(le::test::readFile(movie("hevc444_hev1")).find("hev1") != std::string::npos, true)
      << "the member is not tagged hev1";
}

TEST(MoviePrior, ThroughTheCursorWithHistoryAndWalks) {
  const auto want = le::test::referencePriorFrames(dataPath("movies/prior/hevc444.yuv"), kCrop, 8);
  auto cursor = DriverCursor::over(le::driver::openPriorHevc(movie("hevc444"), kNT, kCrop, 1), 2, 1);
  EXPECT_EQ(cursor->frame_bytes, static_cast<size_t>(kCrop * kCrop * 6));
  int id = -1;
  for (int k = 0; k < 2 * kNT + 3; ++k) {
    const uint8_t* f = cursor->pullAt(k % kNT, &id);
    ASSERT_EQ(std::vector<uint8_t>(f, f + cursor->frame_bytes), want[k % kNT]) << k;
  }
  EXPECT_EQ(cursor->seeks(), 0u);
  for (const int si : {8, 1, 0, 6, 9, 2}) {
    const uint8_t* f = cursor->pullAt(si, &id);
    ASSERT_EQ(std::vector<uint8_t>(f, f + cursor->frame_bytes), want[si]) << si;
  }
  EXPECT_GE(cursor->seeks(), 3u);
}

std::string openRefusal(const std::string& name, int nt = kNT, int crop = kCrop) {
  return errorOf([&] { le::driver::openPriorHevc(movie(name), nt, crop, 1); });
}

std::string chromaRefusal(const std::string& name, int n) {
  return "le_driver: " + movie(name) + " is chroma_format_idc " + std::to_string(n) +
         " and a warp prior must be 3 (4:4:4). Playing it would RESAMPLE the chroma to a full-resolution surface, "
         "which is a different prior from the one every other plane reads. REFUSING rather than serving an identity "
         "member through an interpolator.";
}

TEST(MoviePrior, OpeningRefusals) {
  EXPECT_EQ(openRefusal("hevc420", 4), chromaRefusal("hevc420", 1));
  EXPECT_EQ(openRefusal("hevc422", 4), chromaRefusal("hevc422", 2));
  EXPECT_EQ(openRefusal("h264_high", 4), chromaRefusal("h264_high", 1));
  EXPECT_EQ(openRefusal("h264_baseline", 4), chromaRefusal("h264_baseline", 1));
  EXPECT_EQ(openRefusal("h264_444", 4), chromaRefusal("h264_444", 1));  // profile 244 counts as 4:2:0
  // The chroma check comes before the size check.
  EXPECT_EQ(openRefusal("hevc420", 4, 48), chromaRefusal("hevc420", 1));
  EXPECT_EQ(openRefusal("hevc444_48", 4),
            "le_driver: " + movie("hevc444_48") +
                " is 48x48, the manifest says 32x32 — refusing to rescale an identity member");
  EXPECT_EQ(openRefusal("hevc444", kNT - 1),
            "le_driver: " + movie("hevc444") +
                " carries 10 samples, the manifest says NT=9 — member/manifest mismatch, refusing");
  EXPECT_EQ(openRefusal("duplicate_times"),
            "le_driver: " + movie("duplicate_times") +
                " carries duplicate presentation times — refusing to guess the frame order");
  for (const std::string& path : {movie("no_such_file"), dataPath("movies/driver/not_a_movie.mp4"),
                                  dataPath("movies/driver/truncated_index.mp4"),
                                  dataPath("movies/driver/audio_only.mp4")})
    EXPECT_EQ(errorOf([&] { le::driver::openPriorHevc(path, kNT, kCrop); }),
              "le_driver: " + path + " has no video track — refusing");
}

TEST(MoviePrior, AnRgbSurfaceIsRefusedAtTheFirstFrameAndTheFailureStays) {
  auto s = le::driver::openPriorHevc(movie("hevc_gbrp"), 4, kCrop, 1);
  std::vector<uint8_t> f(s->frameBytes());
  const std::string want = "le_driver: " + movie("hevc_gbrp") +
                           ": FFmpeg returned a 'gbrp' surface where 'x444' was demanded — any other surface is not "
                           "the full-resolution 4:4:4 the prior was stored in. REFUSING rather than serving a warp "
                           "prior that is not the one every other plane reads.";
  EXPECT_EQ(errorOf([&] { s->next(f.data()); }), want);
  EXPECT_EQ(errorOf([&] { s->next(f.data()); }), want);
  EXPECT_EQ(errorOf([&] { s->seek(2); }), want);
  // A rewind clears the stored failure, and the same surface fails again.
  s->rewind();
  EXPECT_EQ(errorOf([&] { s->next(f.data()); }), want);
}

TEST(MoviePrior, TruncatedAndCorruptMembersAreRefusedWithoutAHang) {
  // Cut short, the stored index still lists every sample but the scan can
  // read only some of them.
  const std::string cut = openRefusal("truncated");
  EXPECT_EQ(cut.rfind("le_driver: " + movie("truncated") + " carries ", 0), 0u) << cut;
  EXPECT_NE(cut.find(" samples, the manifest says NT=10 — member/manifest mismatch, refusing"), std::string::npos);
  // Damaged in place, the samples scan, and the decoder's refusal (a picture
  // that fails its stored hash) comes at the pull that reaches the damage
  // and stays.
  auto cursor = DriverCursor::over(le::driver::openPriorHevc(movie("corrupt"), kNT, kCrop, 1), 2, 11);
  std::vector<uint8_t> out(cursor->frame_bytes);
  std::string first;
  for (int k = 0; k < kNT && first.empty(); ++k) {
    first = errorOf([&] { cursor->pullAt(k, out.data()); });
    if (first == "(no exception)") first.clear();
  }
  const std::string head = "le_driver: le_driver: " + movie("corrupt") + ": FFmpeg refused sample ";
  const std::string tail = " (status " + std::to_string(AVERROR_INVALIDDATA) + ")";
  ASSERT_GT(first.size(), head.size() + tail.size()) << first;
  EXPECT_EQ(first.substr(0, head.size()), head);
  EXPECT_EQ(first.substr(first.size() - tail.size()), tail);
  EXPECT_EQ(errorOf([&] { cursor->pullAt(0, out.data()); }), first);
}

}  // namespace
