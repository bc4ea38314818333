// Paste benchmark: a 512 crop composited into a 1280x720 frame, at ksize 7
// and 15, at matrix scales 0.75 and 1.2 and at 1.2 turned by 15 degrees, at
// 1 and 2 threads. Beside each, the same work the way open-source pipelines
// paste back with OpenCV (Gaussian-blur unsharp, warpAffine with Lanczos-4, a
// float mask blend), in the same process.
//
// The two alternate frame by frame, so that whatever else the machine is
// doing falls on both alike and the ratio ours/theirs holds even where the
// times themselves wander. Prints the median and 99th percentile per
// composite of each, the ratio of the medians, and our heap allocations per
// frame after warm-up (must be 0).
//
// The thread count is read once per process, so the program runs itself once
// per count (LE_CORE_THREADS) and prints the rows side by side.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <random>
#include <string>
#include <vector>

#include "bench/alloc_count.h"
#include "compute/threads.h"
#include "paste/paste.h"

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
double timeOne(Fn&& fn) {
  const auto t0 = std::chrono::steady_clock::now();
  fn();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
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

// OpenCV's paste-back over an interleaved float crop, as those pipelines
// hold it, into the same frame.
class OpenCvPaste {
 public:
  OpenCvPaste(const std::vector<float>& crop, const std::vector<uint8_t>& mask, const float* M, int ksize)
      : img_(kSide, kSide, CV_32FC3), ksize_(ksize) {
    for (int y = 0; y < kSide; ++y)
      for (int x = 0; x < kSide; ++x)
        for (int c = 0; c < 3; ++c) img_.at<cv::Vec3f>(y, x)[c] = crop[(c * kSide + y) * kSide + x] * 255.0f;
    cv::Mat(kSide, kSide, CV_8U, const_cast<uint8_t*>(mask.data())).convertTo(maskF_, CV_32F, 1.0 / 255.0);
    affine_ = (cv::Mat_<double>(2, 3) << M[0], M[1], M[2], M[3], M[4], M[5]);
  }

  void run(uint8_t* frame) {
    cv::Mat frameMat(kH, kW, CV_8UC3, frame);
    cv::GaussianBlur(img_, blur_, cv::Size(ksize_, ksize_), 2.0);
    cv::addWeighted(img_, 1.6, blur_, -0.6, 0.0, sharp_);
    cv::min(cv::max(sharp_, 0.0), 255.0, sharp_);
    cv::warpAffine(sharp_, warped_, affine_, cv::Size(kW, kH), cv::INTER_LANCZOS4, cv::BORDER_CONSTANT);
    cv::warpAffine(maskF_, warpedMask_, affine_, cv::Size(kW, kH), cv::INTER_LINEAR, cv::BORDER_CONSTANT);
    frameMat.convertTo(frameF_, CV_32FC3);
    cv::merge(std::vector<cv::Mat>{warpedMask_, warpedMask_, warpedMask_}, alpha3_);
    out_ = warped_.mul(alpha3_) + frameF_.mul(cv::Scalar::all(1.0) - alpha3_);
    out_.convertTo(frameMat, CV_8UC3);
  }

 private:
  cv::Mat img_, maskF_, affine_, blur_, sharp_, warped_, warpedMask_, frameF_, alpha3_, out_;
  int ksize_;
};

struct Geometry {
  float scale, degrees;
};

// One process: every configuration at this process's thread count.
int child() {
  cv::setNumThreads(le::pool::threads());
  std::mt19937 rng(7);
  std::uniform_real_distribution<float> u(0.0f, 1.0f);
  std::vector<float> crop(3 * kSide * kSide);
  for (auto& v : crop) v = u(rng);
  std::vector<uint8_t> frame(kW * kH * 3), theirFrame;
  for (auto& v : frame) v = static_cast<uint8_t>(rng());
  theirFrame = frame;
  const auto mask = featheredMask();
  for (const int ksize : {7, 15})
    for (const Geometry g : {Geometry{0.75f, 0.0f}, Geometry{1.2f, 0.0f}, Geometry{1.2f, 15.0f}}) {
      // Crop to frame: turn and scale about the crop's centre, placed at the
      // frame's centre, a fraction of a pixel off the grid.
      const float t = g.degrees * 3.14159265f / 180.0f;
      const float a = g.scale * std::cos(t), b = -g.scale * std::sin(t), c = -b, d = a;
      const float cc = kSide * 0.5f;
      const float M[6] = {a, b, kW * 0.5f - (a * cc + b * cc) + 0.3f, c, d, kH * 0.5f - (c * cc + d * cc) + 0.2f};
      le::Paste paste(mask, kSide, le::Unsharp{0.6f, 2.0f, ksize});
      OpenCvPaste theirs(crop, mask, M, ksize);
      const auto ours = [&] { paste.composite(crop.data(), 255.0f, M, frame.data(), kW, kH); };
      for (int i = 0; i < kWarm; ++i) {
        ours();
        theirs.run(theirFrame.data());
      }
      std::vector<double> ourMs, theirMs;
      ourMs.reserve(kFrames);
      theirMs.reserve(kFrames);
      long allocs = 0;
      for (int i = 0; i < kFrames; ++i) {
        const auto before = le::bench::allocations();
        ourMs.push_back(timeOne(ours));
        allocs += static_cast<long>(le::bench::allocations() - before);
        theirMs.push_back(timeOne([&] { theirs.run(theirFrame.data()); }));
      }
      const Stats o = stats(ourMs), th = stats(theirMs);
      std::printf("%d\t%d\t%.2f\t%.0f\t%.3f\t%.3f\t%ld\t%.3f\t%.3f\t%.2f\n", le::pool::threads(), ksize, g.scale,
                  g.degrees, o.median, o.p99, LE_BENCH_COUNT_ALLOCS ? allocs : -1L, th.median, th.p99,
                  o.median / th.median);
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
  std::printf(
      "paste: %d crop into a %dx%d frame, %d frames after %d of warm-up, ours and OpenCV's alternating; times in ms "
      "per composite\n",
      kSide, kW, kH, kFrames, kWarm);
  std::printf("threads\tksize\tscale\tdegrees\tmedian\tp99\tallocs_after_warmup\topencv_median\topencv_p99\tours/opencv\n");
  for (const int t : {1, 2}) std::fputs(runChild("/proc/self/exe", t).c_str(), stdout);
  return 0;
}
