// No allocation per frame after warm-up: the cursor's pulls and the JPEG
// source's decodes, counted by replacing malloc for this whole program. The
// movie sources add none to what FFmpeg's own calls make.
#include <cstdint>
#include <cstdio>
#include <string>
#include <memory>
#include <vector>

#include "bundle/manifest.h"
#include "driver/cursor.h"
#include "driver/image_io.h"
#include "driver/movie_ffmpeg.h"
#include "driver/movie_source.h"
#include "tests/driver/malloc_counter.h"
#include "tests/support/test_support.h"

namespace {

using le::test::allocationCount;

TEST(DriverAllocations, TheCounterSeesAllocations) {
  const uint64_t before = allocationCount();
  auto p = std::make_unique<std::vector<int>>(100);
  EXPECT_GE(allocationCount() - before, 2u);
}

TEST(DriverAllocations, NonePerFrameInTheCursorAfterWarmUp) {
  const le::Manifest m = le::loadManifest(le::test::dataPath("frames/driver/long"), 0);
  std::unique_ptr<le::DriverCursor> c;
  le::test::captureStderr([&] { c = le::DriverCursor::open(m, 2, 11); });
  std::vector<uint8_t> out(c->frame_bytes);
  int id = -1;
  // Warm-up: one loop, a back step and a seek, so that the decoder's buffers
  // have seen a frame of this size.
  for (int i = 0; i < 20; ++i) c->pullAt(i, &id);
  c->pullAt(5, &id);
  c->pullAt(15, &id);

  const uint64_t seeks_before = c->seeks();
  const uint64_t before = allocationCount();
  uint64_t checksum = 0;
  for (int k = 0; k < 100; ++k) {  // five loops with wraps, in every pull form
    const int si = k % 20;
    const uint8_t* f = nullptr;
    switch (k % 4) {
      case 0: f = c->pullAt(si, &id); break;
      case 1: c->pullAt(si, out.data()); f = out.data(); break;
      case 2: c->seek(si); f = c->pull(&id); break;
      default: c->seek(si); c->pull(out.data()); f = out.data(); break;
    }
    checksum += f[1000];
  }
  c->pullAt(7, &id);  // 13 behind the position, past history: a real seek
  c->pullAt(6, &id);  // not decoded since: another
  c->pullAt(7, &id);  // two behind: a history hit
  const uint64_t during = allocationCount() - before;
  EXPECT_EQ(during, 0u) << "allocations over 103 pulls (checksum " << checksum << ")";
  EXPECT_GE(c->seeks() - seeks_before, 2u);  // the window held real seeks
}

TEST(DriverAllocations, NoneInTheReusableDecoderAfterWarmUp) {
  le::ImageDecoder d;
  const std::string p = le::test::dataPath("frames/driver/long/target_frames/frame_000003.jpg");
  int w = 0, h = 0;
  d.decode(p.c_str(), &w, &h);
  d.decode(p.c_str(), &w, &h);
  const uint64_t before = allocationCount();
  for (int i = 0; i < 10; ++i) d.decode(p.c_str(), &w, &h);
  EXPECT_EQ(allocationCount() - before, 0u);
  // The plain loader allocates: stb_image's own buffers and the result.
  const uint64_t plain = allocationCount();
  le::loadImageRGB(p, &w, &h);
  EXPECT_GT(allocationCount() - plain, 0u);
}

// The same FFmpeg calls as a movie source makes for one loop of a member
// (demux, decode in presentation order, back to the first sample), with
// nothing around them: the allocations libavformat and libavcodec make by
// themselves. The driver decodes until the decoder has nothing left; the
// prior stops once it has its NT frames (stopAt).
class BareDecode {
 public:
  BareDecode(const std::string& path, int threads) {
    int status = 0;
    format_ = le::driver::ff::openInput(path, true, &status);
    stream_ = le::driver::ff::firstVideoStream(format_.get());
    codec_ = le::driver::ff::openDecoder(format_->streams[stream_]->codecpar, threads, &status);
  }
  int loop(int stopAt) {
    int frames = 0;
    while (frames != stopAt) {
      int r = avcodec_receive_frame(codec_.get(), frame_.get());
      if (r == 0) {
        ++frames;
        av_frame_unref(frame_.get());
        continue;
      }
      if (r == AVERROR_EOF) break;
      r = av_read_frame(format_.get(), packet_.get());
      if (r == AVERROR_EOF) {
        avcodec_send_packet(codec_.get(), nullptr);
        continue;
      }
      if (packet_->stream_index == stream_) avcodec_send_packet(codec_.get(), packet_.get());
      av_packet_unref(packet_.get());
    }
    le::driver::ff::rewindToFirstSample(format_.get(), stream_);
    avcodec_flush_buffers(codec_.get());
    return frames;
  }

 private:
  le::driver::ff::Format format_;
  int stream_ = -1;
  le::driver::ff::Codec codec_;
  le::driver::ff::Frame frame_{av_frame_alloc()};
  le::driver::ff::Packet packet_{av_packet_alloc()};
};

// Allocations of the third of three loops.
template <class Loop>
uint64_t steadyLoop(Loop&& loop) {
  loop();
  loop();
  const uint64_t before = allocationCount();
  loop();
  return allocationCount() - before;
}

// One decoder thread: with more, FFmpeg's own count depends on how its
// threads meet, which the benchmark reports instead.
TEST(DriverAllocations, TheMovieSourcesAddNoneToFfmpegsOwn) {
  const std::string driver = le::test::dataPath("movies/driver/h264.mp4");
  auto d = le::driver::openMp4(driver, 12, 64, 48, 1);
  std::vector<uint8_t> frame(d->frameBytes());
  const uint64_t source = steadyLoop([&] {
    while (d->next(frame.data())) {
    }
    d->rewind();
  });
  BareDecode bare(driver, 1);
  const uint64_t own = steadyLoop([&] { EXPECT_EQ(bare.loop(-1), 12); });
  EXPECT_EQ(source, own);

  const std::string prior = le::test::dataPath("movies/prior/hevc444.mov");
  auto p = le::driver::openPriorHevc(prior, 10, 32, 1);
  std::vector<uint8_t> row(p->frameBytes());
  const uint64_t priorSource = steadyLoop([&] {
    while (p->next(row.data())) {
    }
    p->rewind();
  });
  BareDecode barePrior(prior, 1);
  const uint64_t priorOwn = steadyLoop([&] { EXPECT_EQ(barePrior.loop(10), 10); });
  EXPECT_EQ(priorSource, priorOwn);
  std::printf("[ info     ] allocations per frame inside FFmpeg: driver %.1f, prior %.1f\n",
              static_cast<double>(own) / 12, static_cast<double>(priorOwn) / 10);
}

}  // namespace
