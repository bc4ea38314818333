// The paste's executor on a build without a GPU executor: the first frame's
// attempt to make one fails and says so, the CPU body runs, and the
// once-per-process executor line names the CPU. LE_PASTE_METAL=verify asks
// for a check that needs a GPU executor, so here it ends the same way.
//
// Each case runs in a process of its own (one CTest test per case), so the
// first composite of a case is the first of its process; the case that reads
// the executor line also comes first in this program.
#include <cstdint>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "compute/pool.h"
#include "paste/paste.h"
#include "paste/paste_tables.h"
#include "tests/paste/paste_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::test::captureStderr;
using le::test::ScopedEnv;

constexpr int kSide = 16, kW = 40, kH = 30;
const float kPlace[6] = {1.1f, 0.1f, 9.3f, -0.1f, 1.1f, 6.8f};
const std::string kInitFailed = "[le-paste-metal] init failed — CPU paste fallback\n";

struct Scene {
  std::vector<uint8_t> mask = std::vector<uint8_t>(kSide * kSide, 255);
  std::vector<float> crop;
  std::vector<uint8_t> frame;
  Scene() {
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (int i = 0; i < 3 * kSide * kSide; ++i) crop.push_back(u(rng));
    for (int i = 0; i < kW * kH * 3; ++i) frame.push_back(static_cast<uint8_t>(rng()));
  }
  // Composites into a copy of the frame and holds it against the reference.
  void expectReferenceBytes(le::Paste& p) const {
    auto mine = frame, ref = frame;
    p.composite(crop.data(), 255.0f, kPlace, mine.data(), kW, kH);
    const le::test::PasteTables t{p.gauss(), le::paste::lanczosTable(), le::paste::bilinearTable(),
                                  le::paste::cubicTable()};
    le::test::referencePaste(mask, kSide, 0.5f, t, p.fastMode(), crop.data(), 255.0f, kPlace, ref.data(), kW, kH);
    EXPECT_EQ(mine, ref);
    EXPECT_NE(mine, frame);
  }
};

const le::Unsharp kUnsharp{0.5f, 1.0f, 5};

TEST(PasteExecutor, FirstFrameFallsBackAndTheExecutorLineNamesTheCpu) {
  Scene s;
  le::Paste p(s.mask, kSide, kUnsharp);
  EXPECT_EQ(p.metalMode(), 1);
  const std::string log = captureStderr([&] { s.expectReferenceBytes(p); });
  EXPECT_EQ(log, kInitFailed + "[le-paste] executor=cpu (side=16, ksize=5, threads=" +
                     std::to_string(le::pool::threads()) + ") — 40x30 frame\n");
  EXPECT_EQ(p.metalMode(), 0);
  // Neither line comes again: the attempt is made once, the line once per
  // process.
  EXPECT_EQ(captureStderr([&] { s.expectReferenceBytes(p); }), "");
  le::Paste second(s.mask, kSide, kUnsharp);
  EXPECT_EQ(captureStderr([&] { s.expectReferenceBytes(second); }), kInitFailed);
}

TEST(PasteExecutor, VerifyWithoutAGpuExecutorRunsTheCpuBody) {
  Scene s;
  ScopedEnv verify("LE_PASTE_METAL", "verify");
  le::Paste p(s.mask, kSide, kUnsharp);
  EXPECT_EQ(p.metalMode(), 2);
  const std::string log = captureStderr([&] { s.expectReferenceBytes(p); });
  EXPECT_EQ(log.rfind(kInitFailed, 0), 0u) << log;
  EXPECT_EQ(log.find("-verify]"), std::string::npos) << "nothing was compared, so nothing may be reported";
  EXPECT_EQ(p.metalMode(), 0);
  EXPECT_EQ(captureStderr([&] { s.expectReferenceBytes(p); }), "");
}

TEST(PasteExecutor, OnlyTheWholeWordVerifyIsRead) {
  const Scene s;
  for (const char* v : {"Verify", "verify ", "1", "", "0"}) {
    ScopedEnv metal("LE_PASTE_METAL", v);
    EXPECT_EQ(le::Paste(s.mask, kSide, kUnsharp).metalMode(), 1) << '"' << v << '"';
  }
}

TEST(PasteExecutor, FastModesKeepTheGpuOutFromTheStart) {
  Scene s;
  ScopedEnv fast("LE_PASTE_FAST", "2");
  ScopedEnv verify("LE_PASTE_METAL", "verify");
  std::unique_ptr<le::Paste> p;
  EXPECT_EQ(captureStderr([&] { p = std::make_unique<le::Paste>(s.mask, kSide, kUnsharp); }),
            "[le-paste-metal] LE_PASTE_FAST=2 set — Metal covers the lanczos8 reference only; CPU paste\n");
  EXPECT_EQ(p->metalMode(), 0);
  EXPECT_EQ(p->fastMode(), 2);
  const std::string log = captureStderr([&] { s.expectReferenceBytes(*p); });
  EXPECT_EQ(log.find("[le-paste-metal]"), std::string::npos) << log;
}

TEST(PasteExecutor, NoAttemptBeforeAFrameReachesTheBody) {
  // A singular transform and one off the frame return before the executor is
  // chosen: nothing is logged and the GPU is still to be tried.
  const Scene s;
  le::Paste p(s.mask, kSide, kUnsharp);
  auto frame = s.frame;
  const float singular[6] = {1, 2, 5, 2, 4, 5};
  const float offFrame[6] = {1, 0, 500, 0, 1, 10};
  EXPECT_EQ(captureStderr([&] {
              p.composite(s.crop.data(), 255.0f, singular, frame.data(), kW, kH);
              p.composite(s.crop.data(), 255.0f, offFrame, frame.data(), kW, kH);
            }),
            "");
  EXPECT_EQ(frame, s.frame);
  EXPECT_EQ(p.metalMode(), 1);
}

}  // namespace
