// The source-cone worker of a real renderer: a source frame that walks,
// jumps and turns mid-stream gives the frames of the renderer that never
// hoisted, bit for bit; the worker is one thread that sleeps when there is
// nothing to prefetch; a renderer destroyed while its worker prefetches.
// This program also runs under ThreadSanitizer and on one core.
#include <gtest/gtest.h>

#include <dirent.h>
#include <time.h>

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "compute/threads.h"
#include "director/renderer.h"
#include "tests/director/float_bits.h"
#include "tests/director/renderer_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::captureStderr;
using le::test::DirectorBundle;

constexpr const char* kCone = "render/cone/bundle";

std::unique_ptr<le::Renderer> open(const DirectorBundle& b, const char* key, int threads, std::string* log = nullptr) {
  std::unique_ptr<le::Renderer> r;
  const std::string text =
      captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, key, threads, ""); });
  if (log) *log = text;
  return r;
}

size_t threadsOfThisProcess() {
  size_t n = 0;
  if (DIR* d = opendir("/proc/self/task")) {
    while (const dirent* e = readdir(d)) n += e->d_name[0] != '.' ? 1 : 0;
    closedir(d);
  }
  return n;
}

double processCpuMs() {
  timespec t{};
  clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_nsec) / 1e6;
}

// One frame of both renderers, its keypoints from drive row `row`.
void expectSameFrame(const DirectorBundle& b, le::Renderer& hoisted, le::Renderer& plain, int si, int row) {
  const size_t elems = static_cast<size_t>(3 * b.manifest.crop * b.manifest.crop);
  const auto at = static_cast<size_t>(row % b.drive.frames) * 63;
  const float* h = hoisted.render(&si, b.drive.xs.data() + at, b.drive.xd.data() + at, 1);
  const std::vector<float> got(h, h + elems);
  const float* p = plain.render(&si, b.drive.xs.data() + at, b.drive.xd.data() + at, 1);
  EXPECT_TRUE(le::test::sameFloatBits(got, std::vector<float>(p, p + elems))) << "si " << si << ", row " << row;
}

TEST(HoistWorker, ASourceFrameThatWalksJumpsAndTurnsGivesTheUnhoistedBits) {
  DirectorBundle b(kCone);
  ASSERT_EQ(b.identity->nt(), 4);
  std::string log;
  const auto hoisted = open(b, "b1_fp32", 1, &log);
  ASSERT_NE(log.find("[le] source-cone hoist: 'cone_planes' [1,12,32,32]"), std::string::npos) << log;
  const auto plain = open(b, "symbolic", 1);
  // A walk, a wrap, a walk backwards, repeats, jumps, and a walk the other
  // way after a jump: every kind of guess, right and wrong.
  const std::vector<int> sis = {0, 1, 2, 3, 0, 1, 3, 2, 1, 1, 1, 3, 0, 2, 2, 0, 3, 2, 1, 0, 1};
  for (size_t i = 0; i < sis.size(); ++i) expectSameFrame(b, *hoisted, *plain, sis[i], static_cast<int>(i));
}

TEST(HoistWorker, DestroyedWhileItsWorkerPrefetches) {
  DirectorBundle b(kCone);
  const auto plain = open(b, "symbolic", 1);
  for (int round = 0; round < 4; ++round) {
    auto hoisted = open(b, "b1_fp32", 1);
    expectSameFrame(b, *hoisted, *plain, round % 4, round);
    // The render asked for the next frame; the renderer goes while that
    // prefetch may still run.
    hoisted.reset();
  }
}

// The threads of this process once ONNX Runtime has started those it keeps
// for the process's life.
size_t threadsAtRest(const DirectorBundle& b) {
  open(b, "symbolic", 1);
  return threadsOfThisProcess();
}

TEST(HoistWorker, OneThreadOfItsOwnThatSleepsWhenIdle) {
  DirectorBundle b(kCone);
  const size_t before = threadsAtRest(b);
  {
    const auto hoisted = open(b, "b1_fp32", 1);
    const int si[3] = {0, 1, 2};
    for (int i = 0; i < 3; ++i) hoisted->render(&si[i], b.drive.xs.data(), b.drive.xd.data(), 1);
    // One intra-op thread is the caller; the prep session starts none of its
    // own and runs on the worker.
    EXPECT_EQ(threadsOfThisProcess(), before + 1);
    // A prefetch of frame 3 was asked for; it ends, and then nothing runs.
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const double cpu0 = processCpuMs();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_LT(processCpuMs() - cpu0, 30.0) << "something spins while the renderer is idle";
  }
  EXPECT_EQ(threadsOfThisProcess(), before);
  // The renderer that can't hoist has no worker.
  {
    const auto plain = open(b, "symbolic", 1);
    EXPECT_EQ(threadsOfThisProcess(), before);
  }
}

// threads <= 0 takes the process's worker count, which follows the cores: on
// a host of one core the renderer adds its worker and nothing else.
TEST(HoistWorker, DefaultThreadsFollowTheCores) {
  DirectorBundle b(kCone);
  const size_t before = threadsAtRest(b);
  const auto hoisted = open(b, "b1_fp32", 0);
  const int si = 2;  // drive row 2
  const float* got = hoisted->render(&si, b.drive.xs.data() + 2 * 63, b.drive.xd.data() + 2 * 63, 1);
  const std::vector<float> want = le::test::plainRender(b, "render/cone/composed_b1_fp32.onnx", {2});
  EXPECT_LE(le::test::maxAbsDiff(got, want.data(), want.size()), 1e-6f);
  EXPECT_EQ(threadsOfThisProcess(), before + 1 + static_cast<size_t>(le::pool::threads() - 1))
      << le::pool::threads() << " worker(s) in this process, " << std::thread::hardware_concurrency() << " core(s)";
}

}  // namespace
