// The stream borrow: a rendered float canvas and its keypoints in, the pass's
// window one frame later, the same bytes as the reference pass fed with the
// canvas's quantisation, the lip contour's delivered mask and pi's shift;
// the window written back as a delta that leaves every unchanged pixel's
// float as it was; its log lines and refusals.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tessera/lip_contour.h"
#include "tessera/stream_borrow.h"
#include "tessera/unified_pi.h"
#include "tests/support/test_support.h"
#include "tests/tessera/teeth_reference.h"
#include "tests/tessera/teeth_testing.h"

namespace {

using le::tessera::FrameResult;
using le::tessera::LipContour;
using le::tessera::StreamBorrow;
using le::tessera::UnifiedPi;
using le::test::TeethBank;
using le::test::TeethFrames;
namespace ref = le::test::teethref;

constexpr int32_t S = TeethFrames::kS;
constexpr size_t kPlane = size_t{S} * S;

std::string sessionFile(const std::string& name) { return le::test::readFile(le::test::teethData("session/" + name)); }

// The bank's pi geometry, identified from the bundle's own source frames.
UnifiedPi bankPi(const TeethBank& b, std::string* name = nullptr) {
  const std::string xs = sessionFile("xs_target.bin");
  std::vector<float> rows(xs.size() / 4);
  std::memcpy(rows.data(), xs.data(), xs.size());
  return UnifiedPi::corpusFromManifestJson(b.in.manifest_json, S, rows.data(), static_cast<int32_t>(rows.size() / 63),
                                           b.bank.c_canon.data(), name, {});
}

// Frame i as a planar float canvas: each byte / 255 moved by less than 0.4
// of a level, so that it quantises back to the byte but isn't a level itself.
std::vector<float> planar(const TeethFrames& f, int32_t i) {
  std::vector<float> out(3 * kPlane);
  for (size_t p = 0; p < kPlane; ++p)
    for (int c = 0; c < 3; ++c)
      out[c * kPlane + p] = f.canvas(i)[p * 3 + c] / 255.0f + static_cast<float>((p * 7 + c * 3) % 11) * 1e-4f - 5e-4f;
  return out;
}

uint8_t quantised(float v) {
  v = std::min(std::max(v, 0.0f), 1.0f);
  return static_cast<uint8_t>(std::nearbyint(v * 255.0f));
}

TEST(TeethStream, MatchesThePassOnTheQuantisedCanvasAndDeliveredMask) {
  const TeethBank b;
  const TeethFrames f;
  std::string corpus;
  const UnifiedPi pi = bankPi(b, &corpus);
  EXPECT_EQ(corpus, "v1");
  const std::string tmpl = sessionFile("lip_template.v1.json");
  std::vector<std::vector<FrameResult>> runs;
  for (const char* roi : {static_cast<const char*>(nullptr), "0"}) {
    le::test::ScopedEnv env("LE_TESS_CPU_ROI", roi);
    StreamBorrow stream(b.bank, b.head, TeethBank::config("base"), pi, tmpl);
    EXPECT_STREQ(stream.backend(), "cpu");
    EXPECT_EQ(stream.roi().empty(), roi != nullptr);
    ref::Pass reference(b.bank, b.head, TeethBank::config("base"));
    LipContour contour = LipContour::fromTemplateJson(tmpl, S);
    std::vector<FrameResult> got;
    FrameResult r;
    ref::Emitted want;
    std::vector<uint8_t> q(kPlane * 3), mask(kPlane);
    int skipped = 0;
    for (int32_t i = 0; i <= f.count(); ++i) {
      SCOPED_TRACE("push " + std::to_string(i));
      bool g, w;
      if (i < f.count()) {
        const std::vector<float> canvas = planar(f, i);
        for (size_t p = 0; p < kPlane; ++p)
          for (int c = 0; c < 3; ++c) q[p * 3 + c] = quantised(canvas[c * kPlane + p]);
        int32_t shift[2];
        const bool found = contour.deliveredU8AndShift(f.row(i), pi, b.bank.c_canon.data(), mask.data(), shift[0], shift[1]);
        g = stream.push(canvas.data(), f.row(i), r);
        w = reference.push(i, q.data(), mask.data(), found ? shift : nullptr, want);
      } else {
        g = stream.flush(r);
        w = reference.flush(want);
      }
      ASSERT_EQ(g, w);
      if (!g) continue;
      EXPECT_EQ(r.skipped, want.skipped);
      EXPECT_EQ(r.reason, want.reason);
      EXPECT_TRUE(r.rgb == want.rgb);
      skipped += r.skipped;
      got.push_back(r);
    }
    EXPECT_FALSE(stream.flush(r));
    EXPECT_EQ(skipped, 1) << "only the frame whose lips are off the canvas";
    EXPECT_EQ(got[9].reason, "empty-pi");
    runs.push_back(got);
  }
  ASSERT_EQ(runs[0].size(), runs[1].size());
  for (size_t i = 0; i < runs[0].size(); ++i) EXPECT_TRUE(runs[0][i].rgb == runs[1][i].rgb) << "whole canvas, frame " << i;
}

TEST(TeethStream, FourByteCanvasGivesTheSameWindows) {
  const TeethBank b;
  const TeethFrames f;
  const UnifiedPi pi = bankPi(b);
  const std::string tmpl = sessionFile("lip_template.v1.json");
  StreamBorrow planarStream(b.bank, b.head, TeethBank::config("base"), pi, tmpl);
  StreamBorrow rgbaStream(b.bank, b.head, TeethBank::config("base"), pi, tmpl);
  FrameResult a, c;
  std::vector<uint8_t> rgba(kPlane * 4);
  for (int32_t i = 0; i < 5; ++i) {
    const std::vector<float> canvas = planar(f, i);
    for (size_t p = 0; p < kPlane; ++p) {
      for (int k = 0; k < 3; ++k) rgba[p * 4 + k] = quantised(canvas[k * kPlane + p]);
      rgba[p * 4 + 3] = static_cast<uint8_t>(p);
    }
    ASSERT_EQ(planarStream.push(canvas.data(), f.row(i), a), rgbaStream.pushRgba(rgba.data(), f.row(i), c));
    EXPECT_TRUE(a.rgb == c.rgb) << "frame " << i - 1;
  }
}

// The window goes back as a delta against the canvas's own quantisation.
TEST(TeethStream, WriteBackMovesOnlyWhatThePassChanged) {
  float step = 0.003921569f;
  uint32_t bits;
  std::memcpy(&bits, &step, 4);
  EXPECT_EQ(bits, 0x3B808081u);

  const TeethBank b;
  const TeethFrames f;
  const le::GeometryStamp& s = b.bank.stamp;
  StreamBorrow stream(b.bank, b.head, TeethBank::config("base"), bankPi(b), sessionFile("lip_template.v1.json"));
  // Out-of-range floats in the window: one in a corner that pi doesn't
  // reach, which the pass leaves alone, and one in the mouth.
  const size_t lowAt = static_cast<size_t>(s.window_y0()) * S + s.window_x0();
  const size_t highAt = static_cast<size_t>(s.window_y0() + 20) * S + s.window_x0() + 24;
  std::vector<float> canvas = planar(f, 0);
  canvas[lowAt] = -0.02f;
  canvas[kPlane + highAt] = 1.03f;
  FrameResult r;
  ASSERT_FALSE(stream.push(canvas.data(), f.row(0), r));
  ASSERT_TRUE(stream.push(planar(f, 1).data(), f.row(1), r));
  ASSERT_FALSE(r.skipped);
  const std::vector<float> before = canvas;
  StreamBorrow::writeWindowDelta(canvas.data(), S, r, s);
  int unchanged = 0, changed = 0;
  for (int c = 0; c < 3; ++c)
    for (int32_t y = 0; y < S; ++y)
      for (int32_t x = 0; x < S; ++x) {
        const size_t p = static_cast<size_t>(y) * S + x;
        const float was = before[c * kPlane + p], now = canvas[c * kPlane + p];
        const int32_t wy = y - s.window_y0(), wx = x - s.window_x0();
        if (wy < 0 || wy >= s.window_h() || wx < 0 || wx >= s.window_w()) {
          ASSERT_EQ(std::memcmp(&was, &now, 4), 0) << "outside the window";
          continue;
        }
        const uint8_t want = r.rgb[(static_cast<size_t>(wy) * s.window_w() + wx) * 3 + c];
        ASSERT_GE(now, 0.0f);
        ASSERT_LE(now, 1.0f);
        if (was < 0.0f || was > 1.0f) continue;
        if (want == quantised(was)) {
          ASSERT_EQ(std::memcmp(&was, &now, 4), 0) << "an unchanged byte keeps its float";
          ++unchanged;
        } else {
          ++changed;
        }
        ASSERT_EQ(quantised(now), want) << "the written window quantises to the pass's bytes";
      }
  EXPECT_GT(unchanged, 1000);
  EXPECT_GT(changed, 100);
  EXPECT_EQ(canvas[lowAt], 0.0f) << "a float below 0 the pass didn't change comes back as 0";

  // A skipped result leaves the canvas alone to the last bit; a window of
  // the wrong size is refused.
  FrameResult skip;
  skip.skipped = true;
  const std::vector<float> kept = canvas;
  StreamBorrow::writeWindowDelta(canvas.data(), S, skip, s);
  EXPECT_EQ(std::memcmp(kept.data(), canvas.data(), kept.size() * 4), 0);
  FrameResult shortOne;
  shortOne.rgb.resize(10);
  EXPECT_EQ(le::test::errorOf([&] { StreamBorrow::writeWindowDelta(canvas.data(), S, shortOne, s); }),
            "teeth stream: window 10 bytes does not match the stamp window 32x48 — refusing to write back");

  // Four bytes a pixel: the window takes the pass's bytes, the fourth byte
  // and everything outside stay.
  std::vector<uint8_t> rgba(kPlane * 4);
  for (size_t p = 0; p < kPlane; ++p)
    for (int k = 0; k < 4; ++k) rgba[p * 4 + k] = static_cast<uint8_t>(p * 13 + k * 71);
  const std::vector<uint8_t> rgbaBefore = rgba;
  StreamBorrow::writeWindowDeltaRgba(rgba.data(), S, r, s);
  for (int32_t y = 0; y < S; ++y)
    for (int32_t x = 0; x < S; ++x) {
      const size_t p = static_cast<size_t>(y) * S + x;
      const int32_t wy = y - s.window_y0(), wx = x - s.window_x0();
      const bool inside = wy >= 0 && wy < s.window_h() && wx >= 0 && wx < s.window_w();
      for (int k = 0; k < 4; ++k) {
        const uint8_t want = inside && k < 3 ? r.rgb[(static_cast<size_t>(wy) * s.window_w() + wx) * 3 + k] : rgbaBefore[p * 4 + k];
        ASSERT_EQ(rgba[p * 4 + k], want) << "pixel " << x << "," << y << " byte " << k;
      }
    }
  StreamBorrow::writeWindowDeltaRgba(rgba.data(), S, skip, s);
}

TEST(TeethStream, LogLinesAndRefusals) {
  const TeethBank b;
  const UnifiedPi pi = bankPi(b);
  const auto cfg = TeethBank::config("base");
  std::string log = le::test::captureStderr([&] {
    le::test::ScopedEnv cpu("LE_TESSERA_CPU", "0");  // any value keeps a GPU road off
    StreamBorrow s(b.bank, b.head, cfg, pi, sessionFile("lip_template.v1.json"));
    EXPECT_STREQ(s.backend(), "cpu");
    EXPECT_FALSE(s.hostSplit(nullptr));
  });
  EXPECT_NE(log.find("[borrow] delivery mask: LIP CONTOUR (8 verts, feather 2.5 px) — the ellipse is not reachable in "
                     "this session\n"),
            std::string::npos)
      << log;
  EXPECT_NE(log.find("[borrow] compositor: CPU\n"), std::string::npos) << log;
  log = le::test::captureStderr([&] { StreamBorrow s(b.bank, b.head, cfg, pi, ""); });
  EXPECT_NE(log.find("[borrow] !!! delivery mask: ELLIPSE — this bundle carries no lip_template.v1.json, so it serves "
                     "the over-covering elliptical mask the contour replaces. BACKFILL IT: "
                     "models/vespera-2/tools/bake_lip_templates\n"),
            std::string::npos)
      << log;
  EXPECT_EQ(log.find("[borrow-metal]"), std::string::npos) << "no GPU: nothing said about one";

  le::BankData tall = b.bank;
  tall.stamp.v[le::GeometryStamp::kCanvasH] = 130;
  EXPECT_EQ(le::test::errorOf([&] { StreamBorrow s(tall, b.head, cfg, pi, ""); }),
            "teeth stream: non-square compose canvas 128x130 — le_core renders a square crop");
  UnifiedPi other = pi;
  other.canvas = 64;
  EXPECT_EQ(le::test::errorOf([&] { StreamBorrow s(b.bank, b.head, cfg, other, ""); }),
            "teeth stream: manifest pi canvas 64 != bank compose canvas 128 — refusing to compose a mouth on a canvas "
            "the stamp does not name");
  // A template that can't be read refuses the stream; it never falls back
  // to the ellipse.
  const std::string why =
      le::test::errorOf([&] { StreamBorrow s(b.bank, b.head, cfg, pi, "{\"format\": \"lip-template-v0\"}"); });
  EXPECT_EQ(why.rfind("lip_template.v1.json: ", 0), 0u) << why;
}

}  // namespace
