// The driver movie against the JPEG driver on the same frames: 16 synthetic
// 1280x720 frames (see driver_frames.h) written once as JPEGs (stb, quality
// 90) and once as an H.264 movie (the ffmpeg command: libx264 crf 18, 4:2:0,
// a key frame every 8 frames, 2 B-frames), then decoded frame after frame
//   1. by the source on its own (Source::next, what the cursor's decoder
//      thread runs: read, decode, convert to RGB24), and
//   2. through a DriverCursor (look-ahead 2, history 11), pulled in order by
//      a caller that does nothing else, so each pull waits on the decode,
// at 1 and 2 decoder threads for the movie (1 is what a bundle's cursor
// uses; 2 adds a libavcodec frame thread; the JPEG source decodes on its one
// thread either way). Prints the median, the
// 99th percentile and the mean per frame, the heap allocations per frame
// where the allocation counter is built in, and the movie/JPEG ratios.
//
//   movie
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "bench/alloc_count.h"
#include "bench/driver_frames.h"
#include "driver/cursor.h"
#include "driver/jpeg_source.h"
#include "driver/movie_source.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

namespace {

using le::bench::kH;
using le::bench::kW;

constexpr int kNT = 16;

std::string framePath(const std::string& dir, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
  return dir + name;
}

struct Row {
  double median, p99, mean, allocs;
};

Row measure(const std::function<void(int)>& fn, int warm, int n) {
  double allocs = 0;
  const auto s = le::bench::statsOf(le::bench::timeCalls(warm, n, fn, &allocs));
  return {s.median, s.p99, s.mean, allocs};
}

void print(const char* what, const char* threads, const Row& r) {
  std::printf("%-40s %-8s median %7.3f ms  p99 %7.3f ms  mean %7.3f ms", what, threads, r.median, r.p99, r.mean);
#if LE_BENCH_COUNT_ALLOCS
  std::printf("  allocations/frame %6.2f", r.allocs);
#endif
  std::printf("\n");
}

// Source::next in a loop, rewinding at the end as the cursor does.
std::function<void(int)> nextLoop(le::driver::Source& s, std::vector<uint8_t>& frame) {
  return [&s, &frame](int) {
    if (!s.next(frame.data())) {
      s.rewind();
      s.next(frame.data());
    }
  };
}

std::function<void(int)> pullLoop(le::DriverCursor& c) {
  return [&c](int i) {
    int id = -1;
    c.pullAt(i % kNT, &id);
  };
}

bool writeInputs(const std::string& dir, const std::string& movie) {
  const std::string cmd = "ffmpeg -nostdin -hide_banner -loglevel error -y -f rawvideo -pix_fmt rgb24 -s " +
                          std::to_string(kW) + "x" + std::to_string(kH) +
                          " -r 25 -i - -c:v libx264 -crf 18 -pix_fmt yuv420p -g 8 -bf 2 -movflags +faststart '" +
                          movie + "'";
  FILE* enc = popen(cmd.c_str(), "w");
  if (!enc) return false;
  bool ok = true;
  for (int i = 0; i < kNT && ok; ++i) {
    const std::vector<uint8_t> rgb = le::bench::syntheticFrame(i);
    ok = stbi_write_jpg(framePath(dir, i).c_str(), kW, kH, 3, rgb.data(), 90) != 0 &&
         std::fwrite(rgb.data(), 1, rgb.size(), enc) == rgb.size();
  }
  return pclose(enc) == 0 && ok;
}

}  // namespace

int main() {
  char templ[] = "/tmp/movie_bench.XXXXXX";
  if (!mkdtemp(templ)) {
    std::perror("mkdtemp");
    return 1;
  }
  const std::string dir = templ;
  const std::string movie = dir + "/driver.mp4";
  int rc = 0;
  try {
    if (!writeInputs(dir, movie)) throw std::runtime_error("cannot write the JPEGs or run ffmpeg to encode the movie");
    std::printf("movie: %d synthetic frames of %dx%d as JPEG (stb q90) and as H.264 (libx264 crf 18, 4:2:0, "
                "GOP 8, 2 B-frames); %s\n",
                kNT, kW, kH, le::movieDecoderBuild().c_str());
    const int n = 10 * kNT, warm = 2 * kNT;
    std::vector<uint8_t> frame(static_cast<size_t>(kW) * kH * 3);

    auto jpeg = le::driver::openJpgDir(dir, kNT, kW, kH);
    const Row jpegNext = measure(nextLoop(*jpeg, frame), warm, n);
    auto jpegCursor = le::DriverCursor::over(le::driver::openJpgDir(dir, kNT, kW, kH), 2, 11);
    const Row jpegPull = measure(pullLoop(*jpegCursor), warm, n);

    Row movieNext[2], moviePull[2];
    for (int t = 1; t <= 2; ++t) {
      auto source = le::driver::openMp4(movie, kNT, kW, kH, t);
      movieNext[t - 1] = measure(nextLoop(*source, frame), warm, n);
      auto cursor = le::DriverCursor::over(le::driver::openMp4(movie, kNT, kW, kH, t), 2, 11);
      moviePull[t - 1] = measure(pullLoop(*cursor), warm, n);
      if (cursor->seeks() != 0)
        std::printf("unexpected: %llu seeks\n", static_cast<unsigned long long>(cursor->seeks()));
    }

    std::printf("\n%-40s %-8s\n", "per 1280x720 frame", "threads");
    print("JpgDirSource::next (jpg/stb)", "1", jpegNext);
    print("movie Source::next (mp4/ffmpeg y420)", "1", movieNext[0]);
    print("movie Source::next (mp4/ffmpeg y420)", "2", movieNext[1]);
    print("DriverCursor::pullAt, JPEG", "1", jpegPull);
    print("DriverCursor::pullAt, movie", "1", moviePull[0]);
    print("DriverCursor::pullAt, movie", "2", moviePull[1]);
    std::printf("\nmovie / JPEG, median ms per frame:  next  %.2f (1 thread)  %.2f (2 threads)   "
                "cursor pull  %.2f (1 thread)  %.2f (2 threads)\n",
                movieNext[0].median / jpegNext.median, movieNext[1].median / jpegNext.median,
                moviePull[0].median / jpegPull.median, moviePull[1].median / jpegPull.median);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "movie: %s\n", e.what());
    rc = 1;
  }
  for (int i = 0; i < kNT; ++i) ::unlink(framePath(dir, i).c_str());
  ::unlink(movie.c_str());
  ::rmdir(dir.c_str());
  return rc;
}
