// The driver movie through FFmpeg: every frame against ffmpeg's own decode
// converted by the reference, in order, by index, after seeks and loops, on
// its own and through the cursor, at one and two decoder threads; and every
// refusal word for word.
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "driver/cursor.h"
#include "driver/movie_source.h"
#include "tests/driver/movie_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::DriverCursor;
using le::test::dataPath;
using le::test::errorOf;

std::string movie(const std::string& name) { return dataPath("movies/driver/" + name + ".mp4"); }

struct Case {
  const char* name;
  int w, h;
};

constexpr int kNT = 12;
const Case kPlayable[] = {{"h264", 64, 48}, {"hevc", 64, 48}, {"h264_66x38", 66, 38}};

std::vector<uint8_t> nextFrame(le::driver::Source& s) {
  std::vector<uint8_t> f(s.frameBytes());
  if (!s.next(f.data())) f.clear();
  return f;
}

TEST(MovieDriver, TheMembersAreStoredOutOfPresentationOrder) {
  for (const Case& c : kPlayable) {
    const std::vector<int64_t> pts = le::test::storedPresentationTimes(movie(c.name));
    ASSERT_EQ(pts.size(), static_cast<size_t>(kNT)) << c.name;
    EXPECT_FALSE(std::is_sorted(pts.begin(), pts.end())) << c.name << " has no B-frames to reorder";
  }
}

TEST(MovieDriver, EveryFrameInOrderAfterRewindAndSeekMatchesTheReference) {
  for (const Case& c : kPlayable) {
    const auto want = le::test::referenceDriverFrames(dataPath("movies/driver/") + c.name + ".yuv", c.w, c.h);
    ASSERT_EQ(want.size(), static_cast<size_t>(kNT));
    for (const int threads : le::test::decoderThreadCounts()) {
      SCOPED_TRACE(std::string(c.name) + " threads " + std::to_string(threads));
      auto s = le::driver::openMp4(movie(c.name), kNT, c.w, c.h, threads);
      EXPECT_EQ(s->NT(), kNT);
      EXPECT_EQ(s->W(), c.w);
      EXPECT_EQ(s->H(), c.h);
      EXPECT_EQ(s->frameBytes(), static_cast<size_t>(c.w * c.h * 3));
      EXPECT_EQ(s->name(), "mp4/ffmpeg y420");
      EXPECT_EQ(s->residentBytes(), static_cast<size_t>(c.w * c.h * 9));
      for (int i = 0; i < kNT; ++i) ASSERT_EQ(nextFrame(*s), want[i]) << "frame " << i;
      EXPECT_TRUE(nextFrame(*s).empty()) << "the member goes on past NT";
      s->rewind();
      ASSERT_EQ(nextFrame(*s), want[0]);
      // Every frame by a seek from elsewhere: forwards, backwards, onto key
      // frames and onto frames stored before the key frame they follow.
      for (const int i : {7, 3, 11, 5, 0, 10, 1, 6, 2, 9, 4, 8}) {
        s->seek(i);
        ASSERT_EQ(nextFrame(*s), want[i]) << "seek " << i;
        ASSERT_EQ(nextFrame(*s), (i + 1 < kNT ? want[i + 1] : std::vector<uint8_t>())) << "after seek " << i;
      }
      s->seek(4);
      s->seek(4);  // already there: nothing happens
      ASSERT_EQ(nextFrame(*s), want[4]);
      EXPECT_EQ(errorOf([&] { s->seek(kNT); }), "le_driver: seek outside the member");
      EXPECT_EQ(errorOf([&] { s->seek(-1); }), "le_driver: seek outside the member");
      ASSERT_EQ(nextFrame(*s), want[5]) << "a refused seek moved the source";
    }
  }
}

TEST(MovieDriver, ThroughTheCursorByIndexAcrossLoopsAndSeeks) {
  const Case& c = kPlayable[0];
  const auto want = le::test::referenceDriverFrames(dataPath("movies/driver/h264.yuv"), c.w, c.h);
  for (const int threads : le::test::decoderThreadCounts()) {
    auto cursor = DriverCursor::over(le::driver::openMp4(movie(c.name), kNT, c.w, c.h, threads), 2, 11);
    EXPECT_EQ(cursor->backend, "mp4/ffmpeg y420");
    EXPECT_EQ(cursor->residentBytes(), static_cast<size_t>(c.w * c.h * 9 + 14 * c.w * c.h * 3));
    std::vector<uint8_t> out(cursor->frame_bytes);
    for (int k = 0; k < 3 * kNT; ++k) {  // three loops, each wrap a rewind, not a seek
      int id = -1;
      const uint8_t* f = cursor->pullAt(k % kNT, &id);
      ASSERT_EQ(std::vector<uint8_t>(f, f + cursor->frame_bytes), want[k % kNT]) << k;
    }
    EXPECT_EQ(cursor->seeks(), 0u);
  }
  // Jumps on a ring of 4 slots: back past history and ahead past the
  // look-ahead are real seeks, the rest come from the ring.
  auto cursor = DriverCursor::over(le::driver::openMp4(movie(c.name), kNT, c.w, c.h, 1), 2, 1);
  std::vector<uint8_t> out(cursor->frame_bytes);
  const int jumps[] = {3, 9, 8, 2, 11, 0, 5, 6, 1, 7, 4, 10};
  for (const int si : jumps) {
    ASSERT_EQ(cursor->pullAt(si, out.data()), si);
    ASSERT_EQ(out, want[si]) << si;
  }
  EXPECT_GE(cursor->seeks(), 8u);
  ASSERT_EQ(cursor->pull(out.data()), 11);  // a plain pull goes on from the last frame
  EXPECT_EQ(out, want[11]);
  ASSERT_EQ(cursor->pull(out.data()), 0);  // and round the loop
  EXPECT_EQ(out, want[0]);
}

std::string refusalAtFirstFrame(const std::string& name) {
  auto s = le::driver::openMp4(movie(name), 4, 64, 48, 1);
  std::vector<uint8_t> f(s->frameBytes());
  return errorOf([&] { s->next(f.data()); });
}

TEST(MovieDriver, ARefusedLayoutStopsTheFirstFrame) {
  for (const auto& [name, surface] : {std::pair<const char*, const char*>{"h264_yuv444p", "yuv444p"},
                                      {"h264_yuv422p", "yuv422p"},
                                      {"hevc_yuv420p10le", "yuv420p10le"},
                                      {"h264_yuvj420p", "yuvj420p"}}) {
    EXPECT_EQ(refusalAtFirstFrame(name), "le_driver: FFmpeg returned surface " + std::string(surface) + " for " +
                                             movie(name) +
                                             ", not y420 — refusing rather than pasting onto a different pixel domain");
  }
  // Through the cursor the decoder thread adds its prefix, and the first
  // failure stays.
  auto cursor = DriverCursor::over(le::driver::openMp4(movie("h264_yuv444p"), 4, 64, 48, 1), 2, 11);
  std::vector<uint8_t> out(cursor->frame_bytes);
  const std::string want = "le_driver: le_driver: FFmpeg returned surface yuv444p for " + movie("h264_yuv444p") +
                           ", not y420 — refusing rather than pasting onto a different pixel domain";
  EXPECT_EQ(errorOf([&] { cursor->pullAt(0, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { cursor->pullAt(2, out.data()); }), want);
  EXPECT_EQ(errorOf([&] { cursor->seek(1); }), want);
}

TEST(MovieDriver, OpeningRefusals) {
  const std::string h264 = movie("h264");
  EXPECT_EQ(errorOf([&] { le::driver::openMp4(h264, kNT, 64, 50); }),
            "le_driver: " + h264 + " is 64x48, the manifest says 64x50 — refusing to rescale the driver");
  EXPECT_EQ(errorOf([&] { le::driver::openMp4(h264, kNT - 1, 64, 48); }),
            "le_driver: " + h264 + " carries ~12 frames, the manifest says NT=11 — member/manifest mismatch, refusing");
  EXPECT_EQ(errorOf([&] { le::driver::openMp4(h264, kNT + 1, 64, 48); }),
            "le_driver: " + h264 + " carries ~12 frames, the manifest says NT=13 — member/manifest mismatch, refusing");
  for (const char* name : {"not_a_movie", "audio_only", "truncated_index", "no_such_file"})
    EXPECT_EQ(errorOf([&] { le::driver::openMp4(movie(name), 4, 64, 48); }),
              "le_driver: " + movie(name) + " has no video track")
        << name;
}

// A broken member fails at the pull that reaches the damage, with a sentence
// that says so, and every later pull fails the same way; nothing hangs.
TEST(MovieDriver, TruncatedAndCorruptMembersAreRefusedAtThePullThatReachesThem) {
  for (const char* name : {"truncated", "corrupt"}) {
    SCOPED_TRACE(name);
    auto cursor = DriverCursor::over(le::driver::openMp4(movie(name), kNT, 64, 48, 1), 2, 11);
    std::vector<uint8_t> out(cursor->frame_bytes);
    std::string first;
    int served = 0;
    for (int k = 0; k < kNT && first.empty(); ++k) {
      first = errorOf([&] { cursor->pullAt(k, out.data()); });
      if (first == "(no exception)") {
        first.clear();
        ++served;
      }
    }
    ASSERT_FALSE(first.empty()) << "every frame of a broken member was served";
    // The decoder thread runs up to the look-ahead (2) past the frame pulled,
    // and its first failure is thrown to every pull after it.
    bool named = false;
    for (int f = served; f <= served + 2; ++f)
      named = named || first == "le_driver: le_driver: " + movie(name) + " decode fault at frame " +
                                     std::to_string(f) + ": Invalid data found when processing input";
    EXPECT_TRUE(named) << first << " (frames served: " << served << ")";
    EXPECT_EQ(errorOf([&] { cursor->pullAt(0, out.data()); }), first);
  }
}

}  // namespace
