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

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

namespace {

constexpr int kW = 1280, kH = 720;

using le::bench::allocations;

std::string framePath(const std::string& dir, int i) {
  char name[32];
  std::snprintf(name, sizeof name, "/frame_%06d.jpg", i);
  return dir + name;
}

// A frame that encodes like camera footage: smooth light, a few shapes with
// edges, and grain, which is what keeps a JPEG's coefficients busy.
std::vector<uint8_t> syntheticFrame(int index) {
  std::vector<uint8_t> rgb(static_cast<size_t>(kW) * kH * 3);
  std::mt19937 rng(1234u + static_cast<unsigned>(index));
  std::normal_distribution<float> grain(0.0f, 4.0f);
  const float cx = 640.0f + 12.0f * index, cy = 330.0f;
  for (int y = 0; y < kH; ++y) {
    for (int x = 0; x < kW; ++x) {
      float r = 70.0f + 90.0f * x / kW + 20.0f * std::sin(y * 0.01f);
      float g = 60.0f + 70.0f * y / kH;
      float b = 90.0f + 40.0f * std::cos(x * 0.004f + index * 0.1f);
      const float dx = (x - cx) / 190.0f, dy = (y - cy) / 240.0f;
      if (dx * dx + dy * dy < 1.0f) {  // a face-sized oval with texture
        r = 200.0f - 40.0f * dy + 10.0f * std::sin(x * 0.2f) * std::sin(y * 0.15f);
        g = 150.0f - 30.0f * dy;
        b = 120.0f;
      }
      if (y > 560 && std::abs(x - cx) < 420.0f - (y - 560) * 0.2f) {  // shoulders, striped cloth
        r = 40.0f + ((x / 6 + y / 9) % 2) * 30.0f;
        g = 50.0f;
        b = 90.0f + ((x / 6) % 3) * 10.0f;
      }
      uint8_t* p = &rgb[(static_cast<size_t>(y) * kW + x) * 3];
      const float c[3] = {r, g, b};
      for (int k = 0; k < 3; ++k) p[k] = static_cast<uint8_t>(std::clamp(c[k] + grain(rng), 0.0f, 255.0f));
    }
  }
  return rgb;
}

struct Stats {
  double median, p99, mean;
};

Stats statsOf(std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  const auto at = [&](double q) {
    const size_t i = static_cast<size_t>(std::ceil(q * ms.size())) - 1;
    return ms[std::min(i, ms.size() - 1)];
  };
  double sum = 0;
  for (double v : ms) sum += v;
  return {at(0.5), at(0.99), sum / ms.size()};
}

// Runs fn `n` times after `warm` untimed calls; per-call milliseconds, and
// allocations per timed call.
std::vector<double> timeCalls(int warm, int n, const std::function<void(int)>& fn, double* allocsPerCall) {
  using Clock = std::chrono::steady_clock;
  for (int i = 0; i < warm; ++i) fn(i);
  std::vector<double> ms;
  ms.reserve(static_cast<size_t>(n));
  const uint64_t a0 = allocations();
  for (int i = 0; i < n; ++i) {
    const auto t0 = Clock::now();
    fn(warm + i);
    ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
  }
  *allocsPerCall = static_cast<double>(allocations() - a0) / n;
  return ms;
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
