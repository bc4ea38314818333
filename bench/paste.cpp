// Paste benchmark: a 512 crop composited into a 1280x720 frame, at ksize 7
// and 15 and matrix scales 0.75 and 1.2, at 1 and 2 threads. Prints the
// median and 99th percentile per composite and the allocations per frame
// after warm-up (must be 0). Where OpenCV is available, the same work the
// way open-source pipelines paste back (Gaussian-blur unsharp, warpAffine
// with Lanczos-4, a float mask blend) runs in the same process, and the
// ratio ours/theirs is printed.
//
// The thread count is read once per process, so the program runs itself once
// per count (LE_CORE_THREADS) and prints the rows side by side.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "compute/threads.h"
#include "bench/alloc_count.h"
#include "paste/paste.h"

#if LE_BENCH_HAVE_OPENCV
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kW = 1280, kH = 720, kSide = 512, kFrames = 60, kWarm = 3;

struct Stats {
  double median, p99;
};

Stats stats(std::vector<double> ms) {
  std::sort(ms.begin(), ms.end());
  const size_t i99 = std::min(ms.size() - 1, static_cast<size_t>(std::ceil(ms.size() * 0.99)) - 1);
  return {ms[ms.size() / 2], ms[i99]};
}

template <class Fn>
std::vector<double> timeFrames(Fn&& fn, long* allocsAfterWarmup) {
  for (int i = 0; i < kWarm; ++i) fn();
  std::vector<double> ms;
  ms.reserve(kFrames);
  const long before = static_cast<long>(le::bench::allocations());
  for (int i = 0; i < kFrames; ++i) {
    const auto t0 = std::chrono::steady_clock::now();
    fn();
    ms.push_back(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
  }
  *allocsAfterWarmup = LE_BENCH_COUNT_ALLOCS ? static_cast<long>(le::bench::allocations()) - before : -1;
  return ms;
}

std::vector<uint8_t> featheredMask() {
  std::vector<uint8_t> m(kSide * kSide);
  const float c = (kSide - 1) * 0.5f;
  for (int y = 0; y < kSide; ++y)
    for (int x = 0; x < kSide; ++x) {
      const float d = std::hypot(x - c, y - c);
      m[y * kSide + x] = static_cast<uint8_t>(std::clamp((220.0f - d) / 30.0f, 0.0f, 1.0f) * 255.0f);
    }
  return m;
}

// One process: every configuration at this process's thread count.
int child() {
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<float> crop(3 * kSide * kSide);
  for (auto& v : crop) v = u(rng);
  std::vector<uint8_t> frame(kW * kH * 3);
  for (auto& v : frame) v = static_cast<uint8_t>(rng());
  const auto mask = featheredMask();
  for (const int ksize : {7, 15})
    for (const float scale : {0.75f, 1.2f}) {
      const float half = kSide * scale * 0.5f;
      const float M[6] = {scale, 0.0f, kW * 0.5f - half + 0.3f, 0.0f, scale, kH * 0.5f - half + 0.2f};
      le::Paste paste(mask, kSide, le::Unsharp{0.6f, 2.0f, ksize});
      long allocs = 0;
      const Stats ours = stats(timeFrames([&] { paste.composite(crop.data(), 255.0f, M, frame.data(), kW, kH); }, &allocs));
      std::printf("%d\t%d\t%.2f\t%.3f\t%.3f\t%ld", le::pool::threads(), ksize, scale, ours.median, ours.p99,
                  allocs);
#if LE_BENCH_HAVE_OPENCV
      cv::setNumThreads(le::pool::threads());
      // Interleaved float crop, as those pipelines hold it.
      cv::Mat img(kSide, kSide, CV_32FC3);
      for (int y = 0; y < kSide; ++y)
        for (int x = 0; x < kSide; ++x)
          for (int c = 0; c < 3; ++c) img.at<cv::Vec3f>(y, x)[c] = crop[(c * kSide + y) * kSide + x] * 255.0f;
      cv::Mat maskF;
      cv::Mat(kSide, kSide, CV_8U, const_cast<uint8_t*>(mask.data())).convertTo(maskF, CV_32F, 1.0 / 255.0);
      cv::Mat affine = (cv::Mat_<double>(2, 3) << M[0], M[1], M[2], M[3], M[4], M[5]);
      cv::Mat frameMat(kH, kW, CV_8UC3, frame.data());
      cv::Mat blur, sharp, warped, warpedMask, frameF, out;
      long theirAllocs = 0;
      const Stats theirs = stats(timeFrames(
          [&] {
            cv::GaussianBlur(img, blur, cv::Size(ksize, ksize), 2.0);
            cv::addWeighted(img, 1.6, blur, -0.6, 0.0, sharp);
            cv::min(cv::max(sharp, 0.0), 255.0, sharp);
            cv::warpAffine(sharp, warped, affine, cv::Size(kW, kH), cv::INTER_LANCZOS4, cv::BORDER_CONSTANT);
            cv::warpAffine(maskF, warpedMask, affine, cv::Size(kW, kH), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
            frameMat.convertTo(frameF, CV_32FC3);
            cv::Mat alpha3;
            cv::merge(std::vector<cv::Mat>{warpedMask, warpedMask, warpedMask}, alpha3);
            out = warped.mul(alpha3) + frameF.mul(cv::Scalar::all(1.0) - alpha3);
            out.convertTo(frameMat, CV_8UC3);
          },
          &theirAllocs));
      std::printf("\t%.3f\t%.3f\t%.2f", theirs.median, theirs.p99, ours.median / theirs.median);
#endif
      std::printf("\n");
    }
  return 0;
}

std::string runChild(const char* self, int threads) {
  int fds[2];
  if (pipe(fds) != 0) return {};
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(fds[1], 1);
    close(fds[0]);
    setenv("LE_CORE_THREADS", std::to_string(threads).c_str(), 1);
    execl(self, self, "--child", static_cast<char*>(nullptr));
    _exit(127);
  }
  close(fds[1]);
  std::string out;
  char buf[4096];
  for (ssize_t n; (n = read(fds[0], buf, sizeof buf)) > 0;) out.append(buf, static_cast<size_t>(n));
  close(fds[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], "--child") == 0) return child();
  std::printf("paste: %d crop into a %dx%d frame, %d frames after %d of warm-up; times in ms per composite\n", kSide,
              kW, kH, kFrames, kWarm);
#if LE_BENCH_HAVE_OPENCV
  std::printf("threads\tksize\tscale\tmedian\tp99\tallocs_after_warmup\topencv_median\topencv_p99\tours/opencv\n");
#else
  std::printf("threads\tksize\tscale\tmedian\tp99\tallocs_after_warmup\t(OpenCV not installed: no comparison)\n");
#endif
  for (const int t : {1, 2}) std::fputs(runChild("/proc/self/exe", t).c_str(), stdout);
  return 0;
}
