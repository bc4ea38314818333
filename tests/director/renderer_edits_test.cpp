// The renderer with and without each of the edits that move the source
// warp, on the cone director: the source-cone hoist, the warp node and the
// warp fuse. Each renders what the graph without it renders, bit for bit
// where nothing changes order (the hoist, the fuse), within the round-off of
// the sampling weights where the warp node samples in its own order; for one
// row and for a chunk, at 1 and 2 threads; and each says what it did, or why
// not, in its own words.
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "director/renderer.h"
#include "tests/director/float_bits.h"
#include "tests/director/renderer_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::captureStderr;
using le::test::DirectorBundle;
using le::test::ScopedEnv;

constexpr const char* kCone = "render/cone/bundle";
// Against the composed graph in a plain session: GridSampleFast and the head
// rewrite sum in other orders (renderer_test.cpp).
constexpr float kRewriteRoundOff = 1e-6f;
// The warp node's sampling weights against GridSampleFast's (the largest
// difference on these frames is 1.8e-7).
constexpr float kWarpRoundOff = 1e-6f;
const std::vector<int> kChunkRows = {5, 1, 2, 4};

using Frames = std::vector<std::vector<float>>;

std::unique_ptr<le::Renderer> open(const DirectorBundle& b, const char* key, int threads, std::string* log = nullptr) {
  std::unique_ptr<le::Renderer> r;
  const std::string text =
      captureStderr([&] { r = std::make_unique<le::Renderer>(b.manifest, *b.identity, key, threads, ""); });
  if (log) *log = text;
  return r;
}

size_t crops(const DirectorBundle& b, int n) { return static_cast<size_t>(n * 3 * b.manifest.crop * b.manifest.crop); }

// Every drive row, one at a time.
Frames renderRows(const DirectorBundle& b, le::Renderer& r) {
  Frames out;
  for (int row = 0; row < b.drive.frames; ++row) {
    const auto at = static_cast<size_t>(row) * 63;
    const float* p = r.render(&b.drive.si[static_cast<size_t>(row)], b.drive.xs.data() + at, b.drive.xd.data() + at, 1);
    out.emplace_back(p, p + crops(b, 1));
  }
  return out;
}

// The chunk of kChunkRows, whole and its first two rows.
Frames renderChunk(const DirectorBundle& b, le::Renderer& r) {
  std::vector<int> si;
  std::vector<float> xs, xd;
  for (const int row : kChunkRows) {
    si.push_back(b.drive.si[static_cast<size_t>(row)]);
    xs.insert(xs.end(), b.drive.xs.begin() + row * 63, b.drive.xs.begin() + row * 63 + 63);
    xd.insert(xd.end(), b.drive.xd.begin() + row * 63, b.drive.xd.begin() + row * 63 + 63);
  }
  Frames out;
  for (const int n : {4, 2}) {
    const float* p = r.render(si.data(), xs.data(), xd.data(), n);
    out.emplace_back(p, p + crops(b, n));
  }
  return out;
}

// Frames under the given switches; the log of the construction in log.
Frames frames(const DirectorBundle& b, const char* key, int threads, const char* warpNode, const char* warpFuse,
              std::string* log = nullptr) {
  ScopedEnv node("LE_WARP_NODE", warpNode);
  ScopedEnv fuse("LE_WARP_FUSE", warpFuse);
  const auto r = open(b, key, threads, log);
  return r->batch() == 1 ? renderRows(b, *r) : renderChunk(b, *r);
}

void expectSameBits(const Frames& got, const Frames& want, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) EXPECT_TRUE(le::test::sameFloatBits(got[i], want[i])) << what << ", " << i;
}

void expectClose(const Frames& got, const Frames& want, float tolerance, const std::string& what) {
  ASSERT_EQ(got.size(), want.size()) << what;
  for (size_t i = 0; i < got.size(); ++i) {
    ASSERT_EQ(got[i].size(), want[i].size());
    EXPECT_LE(le::test::maxAbsDiff(got[i].data(), want[i].data(), got[i].size()), tolerance) << what << ", " << i;
  }
}

bool has(const std::string& log, const std::string& line) { return log.find(line) != std::string::npos; }

TEST(RendererHoist, TheConeLeavesThePerFrameGraphAndNoBitChanges) {
  DirectorBundle b(kCone);
  for (const int threads : {1, 2}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    std::string log, plainLog;
    const Frames hoisted = frames(b, "b1_fp32", threads, nullptr, nullptr, &log);
    EXPECT_TRUE(has(log, "[le] source-cone hoist: 'cone_planes' [1,12,32,32] leaves the per-frame graph and is "
                         "prefetched per SOURCE FRAME on one spare core (b1_fp32)\n"))
        << log;
    // The same director with P_rgb's size left symbolic: the same arithmetic,
    // and a boundary the cut can't size.
    const Frames plain = frames(b, "symbolic", threads, nullptr, nullptr, &plainLog);
    EXPECT_TRUE(has(plainLog, "[le] source-cone hoist NOT applied (symbolic): boundary shape is not static\n"))
        << plainLog;
    expectSameBits(hoisted, plain, "hoisted against unhoisted");
    for (int row = 0; row < b.drive.frames; ++row) {
      const std::vector<float> want = le::test::plainRender(b, "render/cone/composed_b1_fp32.onnx", {row});
      EXPECT_LE(le::test::maxAbsDiff(hoisted[static_cast<size_t>(row)].data(), want.data(), want.size()),
                kRewriteRoundOff)
          << "row " << row;
    }
  }
}

TEST(RendererHoist, TheChunkGraphKeepsItsCone) {
  DirectorBundle b(kCone);
  const std::vector<float> want = le::test::plainRender(b, "render/cone/composed_b4_fp32.onnx", kChunkRows);
  for (const int threads : {1, 2}) {
    std::string log;
    const Frames chunk = frames(b, "b4_fp32", threads, nullptr, nullptr, &log);
    EXPECT_TRUE(has(log, "[le] source-cone hoist NOT applied (b4_fp32): batch-1 lever; this graph declares batch 4\n"))
        << log;
    EXPECT_LE(le::test::maxAbsDiff(chunk[0].data(), want.data(), want.size()), kRewriteRoundOff) << threads;
    EXPECT_LE(le::test::maxAbsDiff(chunk[1].data(), want.data(), chunk[1].size()), kRewriteRoundOff) << threads;
  }
}

TEST(RendererHoist, ADirectorWithoutAConeSaysWhyQuietly) {
  DirectorBundle b("sample");
  const std::string line =
      "[le] source-cone hoist NOT applied (b1_fp32): expected exactly one Concat consuming P_rgb, found 0\n";
  std::string log;
  open(b, "b1_fp32", 1, &log);
  EXPECT_TRUE(has(log, line)) << log;
  ScopedEnv quiet("KESTROVA_ENGINE_QUIET", "1");
  open(b, "b1_fp32", 1, &log);
  EXPECT_FALSE(has(log, "source-cone")) << log;
}

TEST(RendererWarp, TheWarpNodeTakesTheConeWithItAndSamplesInItsOwnOrder) {
  DirectorBundle b(kCone);
  for (const int threads : {1, 2}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    std::string log;
    const Frames node = frames(b, "b1_fp32", threads, "1", nullptr, &log);
    EXPECT_TRUE(has(log, "[le] director warp -> com.kestrova::WarpDirector (55 nodes removed, the source cone with "
                         "them)\n"))
        << log;
    EXPECT_TRUE(has(log, "[le] source-cone hoist SKIPPED (b1_fp32): the warp node subsumes the cone — there is "
                         "nothing left to hoist\n"))
        << log;
    const Frames stock = frames(b, "b1_fp32", threads, nullptr, nullptr);
    expectClose(node, stock, kWarpRoundOff, "warp node against the block");
    expectClose(frames(b, "b4_fp32", threads, "yes", nullptr), frames(b, "b4_fp32", threads, nullptr, nullptr),
                kWarpRoundOff, "chunk");
    // Off is off: the graph hoists as it does by default.
    expectSameBits(frames(b, "b1_fp32", threads, "0", nullptr, &log), stock, "LE_WARP_NODE=0");
    EXPECT_FALSE(has(log, "[le] director warp")) << log;
    EXPECT_TRUE(has(log, "[le] source-cone hoist: ")) << log;
  }
}

TEST(RendererWarp, TheFuseChangesNoBitOfTheWarpNodes) {
  DirectorBundle b(kCone);
  for (const int threads : {1, 2}) {
    SCOPED_TRACE(std::to_string(threads) + " threads");
    const Frames node = frames(b, "b1_fp32", threads, "1", nullptr);
    const Frames nodeChunk = frames(b, "b4_fp32", threads, "1", nullptr);
    std::string log;
    expectSameBits(frames(b, "b1_fp32", threads, "1", "1", &log), node, "fused");
    EXPECT_TRUE(has(log, "[le] warp fuse: grid in the warp, exit in the warp, 2 keypoint Sub(s) -> SubBcastKHWC (5 "
                         "nodes removed; multiply-add form plain)\n"))
        << log;
    expectSameBits(frames(b, "b4_fp32", threads, "1", "1"), nodeChunk, "fused chunk");
    // VERIFY computes the grid beside ONNX Runtime's, serves ONNX Runtime's,
    // and reports after the first frame that the two are the same bits.
    ScopedEnv warpNode("LE_WARP_NODE", "1");
    ScopedEnv verify("LE_WARP_FUSE", "verify");
    const auto r = open(b, "b1_fp32", threads, &log);
    EXPECT_TRUE(has(log, "[le] warp fuse VERIFY: grid computed beside ORT's, exit in the warp, 2 keypoint Sub(s) -> "
                         "SubBcastKHWC (2 nodes removed; multiply-add form plain)\n"))
        << log;
    Frames verified;
    log = captureStderr([&] { verified = renderRows(b, *r); });
    expectSameBits(verified, node, "verify");
    EXPECT_TRUE(has(log, "[le] warp fuse VERIFY: 1 frames, 2048 grid floats; the served form (plain) differs from "
                         "ORT's grid on 0, the other form (fma) on "))
        << log;
    EXPECT_FALSE(has(log, "NOT ORT'S")) << log;
  }
}

TEST(RendererWarp, EachRefusalLoadsTheGraphAsBefore) {
  {
    // A director whose warp samples P_rgb itself has no block to move.
    DirectorBundle b("sample");
    std::string log;
    const Frames node = frames(b, "b1_fp32", 1, "1", "1", &log);
    EXPECT_TRUE(has(log, "[le] director warp NOT moved to one node (not one Concat consuming P_rgb) — the graph loads "
                         "exactly as it did before\n"))
        << log;
    EXPECT_FALSE(has(log, "warp fuse")) << log;
    expectSameBits(node, frames(b, "b1_fp32", 1, nullptr, nullptr), "sample");
  }
  DirectorBundle b(kCone);
  std::string log;
  // Nothing around the plain warp to fuse.
  const Frames fused = frames(b, "plain", 1, "1", "1", &log);
  EXPECT_TRUE(has(log, "[le] warp fuse NOT applied (nothing to fuse: grid (the grid Add does not read a Transpose), "
                       "exit (the warp output is not read by one Slice), subs (no Sub(const [1,1,H,W,C], tensor))) — "
                       "the warp node loads as before\n"))
      << log;
  expectSameBits(fused, frames(b, "plain", 1, "1", nullptr), "plain");
  // The fuse alone asks for nothing: it works on the warp node.
  frames(b, "b1_fp32", 1, nullptr, "1", &log);
  EXPECT_FALSE(has(log, "[le] director warp")) << log;
  EXPECT_FALSE(has(log, "[le] warp fuse")) << log;
  EXPECT_TRUE(has(log, "[le] source-cone hoist: ")) << log;
}

}  // namespace
