// No allocation per frame after warm-up: the cursor's pulls and the JPEG
// source's decodes, counted by replacing malloc for this whole program.
#include <cstdint>
#include <memory>
#include <vector>

#include "bundle/manifest.h"
#include "driver/cursor.h"
#include "driver/image_io.h"
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

}  // namespace
