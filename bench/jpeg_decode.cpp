// Times the decode of one 1280x720 driver frame through the JPEG source
// (JpgDirSource::next: read the file, stb_image decode, copy into
// the frame), and, for comparison, the allocating le::loadImageRGB and a
// sequential DriverCursor pull. Prints the median and the 99th percentile,
// and the heap allocations per decode where the allocation counter is built
// in (not in sanitizer builds).
//
//   jpeg_decode [DIR [NT]]
//
// DIR holds frame_000000.jpg ... of 1280x720; without it the program writes
// 8 frames of synthetic video-like content (gradients, shapes, fine grain)
// at quality 90, 4:2:0, into a temporary directory and removes them after.
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "driver/cursor.h"
#include "driver/image_io.h"
#include "driver/jpeg_source.h"

#include "bench/alloc_count.h"
#include "bench/driver_frames.h"

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

namespace {

using le::bench::kH;
using le::bench::kW;
using le::bench::statsOf;
using le::bench::Stats;
using le::bench::syntheticFrame;
using le::bench::timeCalls;

std::string framePath(const std::string& dir, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
  return dir + name;
}

void report(const char* what, const std::vector<double>& ms, double allocs) {
  const Stats s = statsOf(ms);
  std::printf("%-44s median %7.3f ms   p99 %7.3f ms   mean %7.3f ms   n=%zu", what, s.median, s.p99, s.mean,
              ms.size());
#if LE_BENCH_COUNT_ALLOCS
  std::printf("   allocations/frame %.2f", allocs);
#else
  (void)allocs;
#endif
  std::printf("\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string dir;
  int nt = 8;
  std::string tmp;
  if (argc >= 2) {
    dir = argv[1];
    if (argc >= 3) nt = std::atoi(argv[2]);
  } else {
    char templ[] = "/tmp/jpeg_decode.XXXXXX";
    if (!mkdtemp(templ)) {
      std::perror("mkdtemp");
      return 1;
    }
    tmp = dir = templ;
    for (int i = 0; i < nt; ++i) {
      const std::vector<uint8_t> rgb = syntheticFrame(i);
      if (!stbi_write_jpg(framePath(dir, i).c_str(), kW, kH, 3, rgb.data(), 90)) {
        std::fprintf(stderr, "cannot write %s\n", framePath(dir, i).c_str());
        return 1;
      }
    }
  }
  long bytes = 0;
  for (int i = 0; i < nt; ++i) {
    struct stat st {};
    if (::stat(framePath(dir, i).c_str(), &st) == 0) bytes += st.st_size;
  }
  std::printf("jpeg_decode: %d frames of %dx%d in %s, %.0f KiB per file on average%s\n", nt, kW, kH, dir.c_str(),
              bytes / 1024.0 / nt, tmp.empty() ? "" : " (synthetic, stb_image_write q90 4:2:0)");

  int rc = 0;
  try {
    const int n = 400;
    double allocs = 0;
    // 1. The JPEG source as the cursor's decoder thread drives it.
    auto source = le::driver::openJpgDir(dir, nt, kW, kH);
    std::vector<uint8_t> frame(source->frameBytes());
    const auto sourceNext = [&](int) {
      if (!source->next(frame.data())) {
        source->rewind();
        source->next(frame.data());
      }
    };
    std::vector<double> ms = timeCalls(2 * nt, n, sourceNext, &allocs);
    report("JpgDirSource::next (read + decode + copy)", ms, allocs);

    // 2. The plain loader, which allocates its buffers and result each time.
    const auto plain = [&](int i) {
      int w = 0, h = 0;
      const std::vector<uint8_t> rgb = le::loadImageRGB(framePath(dir, i % nt), &w, &h);
      frame[0] = rgb[0];
    };
    ms = timeCalls(nt, n, plain, &allocs);
    report("le::loadImageRGB (allocating)", ms, allocs);

    // 3. A sequential pull through the cursor (look-ahead 2, history 11) by a
    // caller that does nothing else, so each pull waits on the decoder thread.
    auto cursor = le::DriverCursor::over(le::driver::openJpgDir(dir, nt, kW, kH), 2, 11);
    const auto pull = [&](int i) {
      int id = -1;
      cursor->pullAt(i % nt, &id);
    };
    ms = timeCalls(2 * nt, n, pull, &allocs);
    report("DriverCursor::pullAt in order (waits on decode)", ms, allocs);
    std::printf("cursor seeks: %llu\n", static_cast<unsigned long long>(cursor->seeks()));
  } catch (const std::exception& e) {
    std::fprintf(stderr, "jpeg_decode: %s\n", e.what());
    rc = 1;
  }
  if (!tmp.empty()) {
    for (int i = 0; i < nt; ++i) ::unlink(framePath(tmp, i).c_str());
    ::rmdir(tmp.c_str());
  }
  return rc;
}
