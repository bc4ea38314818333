// The teeth pass against the plain scalar reference: retrieval scores and
// rankings bit for bit (pooled and exact, list and band roads), emitted
// windows byte for byte through the one-frame-late protocol under several
// head configurations (carried donors, look-ahead, skips, padding with
// repeats), on every dispatch target; the batch C entry points; and every
// refusal word for word. ctest also runs these at 1, 2 and 4 threads, each in
// a process of its own, against the same reference.
#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "le/le_tessera.h"
#include "tessera/teeth_pass.h"
#include "tests/compute/targets.h"
#include "tests/support/test_support.h"
#include "tests/tessera/teeth_reference.h"
#include "tests/tessera/teeth_testing.h"

namespace {

using le::tessera::FrameResult;
using le::tessera::ServeConfig;
using le::tessera::TeethPass;
using le::test::TeethBank;
using le::test::TeethFrames;
namespace ref = le::test::teethref;

const char* const kConfigs[] = {"base", "no_hysteresis", "no_lookahead", "wide", "narrow_tolerance", "short_list"};

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// Each frame whose shift can be derived, retrieved by both, in order (the
// carried teeth mask makes the order matter).
void expectSameRetrieval(const std::string& config) {
  const TeethBank b;
  const TeethFrames f;
  const ServeConfig cfg = TeethBank::config(config);
  TeethPass pass(b.bank, b.head, cfg);
  ref::Pass reference(b.bank, b.head, cfg);
  int retrieved = 0;
  for (int32_t i = 0; i < f.count(); ++i) {
    SCOPED_TRACE("frame " + std::to_string(i));
    int32_t dy = 0, dx = 0, rdy = 0, rdx = 0;
    std::string why, rwhy;
    const bool ok = pass.deriveShift(f.mask(i), f.shift(i), dy, dx, why);
    ASSERT_EQ(ok, reference.shift(f.mask(i), f.shift(i), rdy, rdx, rwhy));
    EXPECT_EQ(why, rwhy);
    if (!ok) continue;
    EXPECT_EQ(dy, rdy);
    EXPECT_EQ(dx, rdx);
    const std::vector<int32_t> donors = pass.retrieve(f.canvas(i), f.mask(i), dy, dx);
    const ref::Pass::Retrieval want = reference.retrieve(f.canvas(i), f.mask(i), dy, dx);
    EXPECT_TRUE(sameBits(pass.pooledScores(), want.pooled)) << "pooled scores";
    EXPECT_TRUE(sameBits(pass.exactScores(), want.exact)) << "exact scores";
    EXPECT_EQ(donors, want.donors);
    EXPECT_EQ(donors.size(), static_cast<size_t>(cfg.K));
    ++retrieved;
  }
  EXPECT_EQ(retrieved, f.count() - 2);  // one frame's pi is empty, one shift is beyond the pad
}

TEST(TeethRetrieval, ScoresAndRankingsMatchTheReference) {
  le::test::forEachTarget([] {
    for (const char* config : kConfigs) {
      SCOPED_TRACE(config);
      expectSameRetrieval(config);
    }
  });
}

TEST(TeethRetrieval, BandRoadGivesTheListRoadsScores) {
  le::test::ScopedEnv band("LE_TESS_EXACT_LIST", "0");
  expectSameRetrieval("base");
  expectSameRetrieval("wide");
}

// The whole protocol: every frame pushed, one result per push from the
// second on, the last on flush; each result byte for byte the reference's.
void expectSameFrames(const std::string& config, std::vector<ref::Emitted>* emitted = nullptr) {
  const TeethBank b;
  const TeethFrames f;
  const ServeConfig cfg = TeethBank::config(config);
  TeethPass pass(b.bank, b.head, cfg);
  ref::Pass reference(b.bank, b.head, cfg);
  FrameResult got;
  ref::Emitted want;
  std::vector<ref::Emitted> all;
  for (int32_t i = 0; i <= f.count(); ++i) {
    SCOPED_TRACE("push " + std::to_string(i));
    const bool g = i < f.count() ? pass.push(i, f.canvas(i), f.mask(i), f.shift(i), got) : pass.flush(got);
    const bool w = i < f.count() ? reference.push(i, f.canvas(i), f.mask(i), f.shift(i), want) : reference.flush(want);
    ASSERT_EQ(g, w);
    ASSERT_EQ(g, i > 0) << "a push returns the frame before it, flush the last";
    EXPECT_EQ(got.skipped, want.skipped);
    EXPECT_EQ(got.reason, want.reason);
    EXPECT_EQ(got.n, want.n);
    EXPECT_TRUE(got.rgb == want.rgb) << "window bytes of frame " << i - 1;
    if (g && !got.skipped) {
      EXPECT_TRUE(sameBits(pass.lastWeights(), want.weights)) << "head weights of frame " << i - 1;
      EXPECT_TRUE(sameBits(pass.lastBlend(), want.blend)) << "blend of frame " << i - 1;
    }
    if (w) all.push_back(want);
  }
  EXPECT_FALSE(pass.flush(got));
  if (emitted) *emitted = all;
}

TEST(TeethEmit, FramesMatchTheReferenceByteForByte) {
  le::test::forEachTarget([] {
    for (const char* config : kConfigs) {
      SCOPED_TRACE(config);
      expectSameFrames(config);
    }
  });
}

// What the merge promises, on the reference's merge lists (the engine's
// bytes match them under each configuration): carried donors first, then
// those the next frame wants too, then the frame's own; a skipped frame
// breaks the chain; flush looks ahead at nothing; a padded list's repeats
// count.
std::vector<int32_t> firstOf(const std::vector<int32_t>& v, int32_t k) {
  return std::vector<int32_t>(v.begin(), v.begin() + std::min<size_t>(v.size(), static_cast<size_t>(std::max(k, 0))));
}
bool in(const std::vector<int32_t>& v, int32_t q) { return std::find(v.begin(), v.end(), q) != v.end(); }

// The merge as stated: carried (if any), then look-ahead picks not carried,
// then own picks neither looked ahead at nor carried; at most K.
std::vector<int32_t> stated(const std::vector<int32_t>& carried, const ref::Emitted& e, const ServeConfig& c) {
  const std::vector<int32_t> cur = firstOf(e.own, c.K), nxt = firstOf(e.next, c.lookahead);
  std::vector<int32_t> m = carried;
  for (int32_t q : nxt)
    if (!in(carried, q)) m.push_back(q);
  for (int32_t q : cur)
    if (!in(nxt, q) && !in(carried, q)) m.push_back(q);
  return firstOf(m, c.K);
}

TEST(TeethEmit, MergeCarriesLooksAheadAndBreaksOnSkips) {
  const TeethFrames f;
  for (const char* config : kConfigs) {
    SCOPED_TRACE(config);
    const ServeConfig cfg = TeethBank::config(config);
    std::vector<ref::Emitted> e;
    expectSameFrames(config, &e);
    ASSERT_EQ(e.size(), static_cast<size_t>(f.count()));
    for (size_t i = 0; i < e.size(); ++i) {
      SCOPED_TRACE("frame " + std::to_string(i));
      if (e[i].skipped) {
        EXPECT_EQ(e[i].n, 0);
        EXPECT_TRUE(e[i].rgb.empty());
        continue;
      }
      // Carried: the previous frame's top donors by weight, when it was
      // emitted just before; a skip (frames 7 and 9) breaks the chain.
      std::vector<int32_t> carried;
      if (i > 0 && !e[i - 1].skipped) {
        carried = firstOf(e[i].merged, std::min(cfg.hysteresis, e[i - 1].n));
        for (int32_t q : carried) EXPECT_TRUE(in(e[i - 1].merged, q)) << "carried from the frame before";
      }
      EXPECT_EQ(e[i].merged, stated(carried, e[i], cfg));
      EXPECT_EQ(e[i].n, static_cast<int32_t>(e[i].merged.size()));
      EXPECT_LE(e[i].n, cfg.K);
      const bool nextSkipped = i + 1 < e.size() && e[i + 1].skipped;
      EXPECT_EQ(e[i].next.empty(), i + 1 == e.size() || nextSkipped) << "flush and a skipped successor give no look-ahead";
    }
    EXPECT_EQ(e[7].reason, "shift-out-of-range");
    EXPECT_EQ(e[9].reason, "empty-pi");
    if (std::string(config) == "short_list") {
      EXPECT_GE(std::count(e[0].merged.begin(), e[0].merged.end(), e[0].own[0]), 2) << "repeats reach the merge";
    }
    if (std::string(config) == "no_hysteresis") {
      for (const ref::Emitted& x : e) EXPECT_TRUE(x.skipped || x.merged == stated({}, x, cfg));
    }
  }
}

// Pixels where pi is 0 give back the synthesised byte exactly, whatever the
// head did; the window sits at its stamped place.
TEST(TeethEmit, PiZeroKeepsTheSynthesisedByte) {
  const TeethBank b;
  const TeethFrames f;
  TeethPass pass(b.bank, b.head, TeethBank::config("base"));
  const le::GeometryStamp& s = b.bank.stamp;
  FrameResult r;
  int checked = 0;
  for (int32_t i = 0; i < f.count(); ++i) {
    if (!pass.push(i, f.canvas(i), f.mask(i), f.shift(i), r) || r.skipped) continue;
    const int32_t frame = i - 1;
    for (int32_t y = 0; y < s.window_h(); ++y)
      for (int32_t x = 0; x < s.window_w(); ++x) {
        const size_t at = static_cast<size_t>(s.window_y0() + y) * TeethFrames::kS + s.window_x0() + x;
        if (f.mask(frame)[at] != 0) continue;
        for (int c = 0; c < 3; ++c)
          ASSERT_EQ(r.rgb[(static_cast<size_t>(y) * s.window_w() + x) * 3 + c], f.canvas(frame)[at * 3 + c]);
        ++checked;
      }
  }
  EXPECT_GT(checked, 1000);
}

TEST(TeethEmit, FirstPushFillsNothingAndStatisticsStayAtZero) {
  const TeethBank b;
  const TeethFrames f;
  TeethPass pass(b.bank, b.head, TeethBank::config("base"));
  FrameResult r;
  r.rgb.assign(5, 9);
  EXPECT_FALSE(pass.flush(r));
  EXPECT_FALSE(pass.push(0, f.canvas(0), f.mask(0), nullptr, r));
  EXPECT_EQ(r.rgb.size(), 5u) << "nothing filled";
  EXPECT_EQ(r.synth_mean, -1.0f);
  EXPECT_TRUE(pass.push(1, f.canvas(1), f.mask(1), nullptr, r));
  // The head has no synth branch here: the synth plane weighs 0.
  EXPECT_EQ(r.synth_mean, 0.0f);
  EXPECT_EQ(r.synth_max, 0.0f);
  EXPECT_TRUE(pass.flush(r));
  EXPECT_FALSE(pass.flush(r));
  EXPECT_EQ(pass.synthStats().frames, 2u);
  EXPECT_GT(pass.synthStats().pixels, 0u);
  EXPECT_EQ(pass.synthStats().sum, 0.0);
}

TEST(TeethRetrieval, ShiftLimitsAndTheHalfWayPixel) {
  const TeethBank b;
  TeethPass pass(b.bank, b.head, TeethBank::config("base"));
  const int32_t S = 128, pad = b.bank.stamp.pad();
  int32_t dy = 99, dx = 99;
  std::string why;
  const int32_t atPad[2] = {pad, -pad}, beyond[2] = {0, -pad - 1};
  EXPECT_TRUE(pass.deriveShift(nullptr, atPad, dy, dx, why));
  EXPECT_EQ(dy, pad);
  EXPECT_EQ(dx, -pad);
  EXPECT_FALSE(pass.deriveShift(nullptr, beyond, dy, dx, why));
  EXPECT_EQ(why, "shift-out-of-range");
  std::vector<uint8_t> pi(S * S, 127);
  EXPECT_FALSE(pass.deriveShift(pi.data(), nullptr, dy, dx, why));
  EXPECT_EQ(why, "empty-pi") << "127 is below half";
  // One pixel of 128 at the canonical centroid rounded: a shift of 0.
  const int32_t cx = static_cast<int32_t>(b.bank.c_canon[0] + 0.5), cy = static_cast<int32_t>(b.bank.c_canon[1] + 0.5);
  pi[static_cast<size_t>(cy) * S + cx] = 128;
  ASSERT_TRUE(pass.deriveShift(pi.data(), nullptr, dy, dx, why));
  EXPECT_EQ(dy, 0);
  EXPECT_EQ(dx, 0);
  pi[static_cast<size_t>(cy) * S + cx] = 127;
  pi[static_cast<size_t>(cy + pad + 1) * S + cx] = 200;
  EXPECT_FALSE(pass.deriveShift(pi.data(), nullptr, dy, dx, why));
  EXPECT_EQ(why, "shift-out-of-range");
}

// All donors alike: every stage ranks by index. An aperture of 0 for the
// best donor leaves a tolerance of 1e-6 * aperture_tol, and the tail repeats
// the last donor chosen rather than one that fails the test.
TEST(TeethRetrieval, TiesGoToTheLowerIndexAndTheTailRepeats) {
  TeethBank b;
  const size_t patch = b.bank.refs.size() / b.bank.n;
  for (int32_t q = 1; q < b.bank.n; ++q)
    std::copy(b.bank.refs.begin(), b.bank.refs.begin() + patch, b.bank.refs.begin() + q * patch);
  for (int32_t q = 0; q < b.bank.n; ++q) {
    b.bank.cent[2 * q] = b.bank.c_canon[0];
    b.bank.cent[2 * q + 1] = b.bank.c_canon[1];
    b.bank.aperture[q] = 0.3;
  }
  const TeethFrames f;
  {
    TeethPass pass(b.bank, b.head, TeethBank::config("base"));
    EXPECT_EQ(pass.retrieve(f.canvas(0), f.mask(0), 0, 0), (std::vector<int32_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  }
  b.bank.aperture[0] = 0.0;
  b.bank.aperture[3] = 2e-7;   // within 1e-6 * 0.25 of 0
  b.bank.aperture[5] = 3e-7;   // not
  TeethPass pass(b.bank, b.head, TeethBank::config("base"));
  EXPECT_EQ(pass.retrieve(f.canvas(0), f.mask(0), 0, 0), (std::vector<int32_t>{0, 3, 3, 3, 3, 3, 3, 3}));
}

TEST(TeethPassRefusals, ConstructionWordForWord) {
  const TeethBank b;
  const ServeConfig cfg = TeethBank::config("base");
  le::BankData bad = b.bank;
  bad.refs.pop_back();
  EXPECT_EQ(le::test::errorOf([&] { TeethPass p(bad, b.head, cfg); }),
            "teeth: reference track is 147839 bytes, the stamp requires 147840 (n * stored_h * stored_w * 3) — a "
            "decoder that delivered a different pixel format would land here");
  bad = b.bank;
  bad.aperture.pop_back();
  EXPECT_EQ(le::test::errorOf([&] { TeethPass p(bad, b.head, cfg); }),
            "teeth: bank sidecar arrays disagree with n_donors");
  bad = b.bank;
  bad.stamp.v[le::GeometryStamp::kPad] = 0;
  bad.stamp.v[le::GeometryStamp::kShiftMargin] = 9;
  EXPECT_EQ(le::test::errorOf([&] { TeethPass p(bad, b.head, cfg); }),
            "teeth: GeometryStamp incoherent: pad/shift_margin must be positive; stored band rows escape patch; "
            "stored band cols escape patch;");
  ServeConfig zero = cfg;
  zero.kshort = 0;
  EXPECT_EQ(le::test::errorOf([&] { TeethPass p(b.bank, b.head, zero); }),
            "teeth: tessera_head.v1.json retrieval.kshort is 0 — at least one donor must survive the pooled stage");
  bad = b.bank;
  bad.stamp.v[le::GeometryStamp::kWindowW] = 47;
  EXPECT_EQ(le::test::errorOf([&] { TeethPass p(bad, b.head, cfg); }),
            "teeth: window 47x32 is not even — the head works at half resolution and its weights would not line up "
            "with the window");
}

// A window near the canvas's top: the read rectangle starts at row 0, so a
// shift that would read above it is refused rather than read.
TEST(TeethPassRefusals, ReadsOutsideTheWindowAndPad) {
  TeethBank b;
  b.bank.stamp.v[le::GeometryStamp::kWindowY0] = 2;
  TeethPass pass(b.bank, b.head, TeethBank::config("base"));
  const TeethFrames f;
  const int32_t up[2] = {-6, 0};
  FrameResult r;
  EXPECT_EQ(le::test::errorOf([&] { pass.push(0, f.canvas(0), f.mask(0), up, r); }),
            "teeth: retrieve would read synth rows [-4,28) cols [40,88) outside the window +/- pad rect rows [0,40) "
            "cols [34,94) — the only bytes the stream quantises for this body; refusing rather than reading stale "
            "bytes");
  const le::tessera::Box rect = pass.cpuReadRect();
  EXPECT_EQ(rect.y0, 0);
  EXPECT_EQ(rect.y1, 40);
  EXPECT_EQ(rect.x0, 34);
  EXPECT_EQ(rect.x1, 94);
}

// ---- the batch entry points ----

struct Batch {
  TeethBank b;
  TeethFrames f;
  std::string headJson = le::test::readFile(le::test::teethData("pass/config/base.json"));
  size_t win = static_cast<size_t>(b.bank.stamp.window_w()) * b.bank.stamp.window_h() * 3;
  std::vector<uint8_t> out = std::vector<uint8_t>(win * 12, 0xAB);
  std::vector<uint32_t> skipped = std::vector<uint32_t>(12, 7);
  char err[512] = "untouched";

  int run(const int32_t* shifts, int32_t frames, int32_t errLen = sizeof(err)) {
    return le_tessera_run_shift(b.bank.refs.data(), b.bank.n, b.bank.cent.data(), b.bank.c_canon.data(),
                                b.bank.aperture.data(), b.bank.stamp.v.data(), b.in.head_pt.data(),
                                static_cast<int32_t>(b.in.head_pt.size()), headJson.c_str(), f.rgb.data(), f.pi.data(),
                                shifts, frames, out.data(), skipped.data(), err, errLen);
  }
};

TEST(TeethRun, BatchMatchesTheReference) {
  Batch t;
  ASSERT_EQ(t.f.count(), 12);
  ASSERT_EQ(t.run(t.f.shifts.data(), 12), 0) << t.err;
  EXPECT_STREQ(t.err, "");
  ref::Pass reference(t.b.bank, t.b.head, TeethBank::config("base"));
  ref::Emitted want;
  for (int32_t i = 0; i <= 12; ++i) {
    const bool got = i < 12 ? reference.push(i, t.f.canvas(i), t.f.mask(i), t.f.shift(i), want) : reference.flush(want);
    if (!got) continue;
    const int32_t k = i - 1;
    EXPECT_EQ(t.skipped[k], want.skipped ? 1u : 0u) << "frame " << k;
    if (want.skipped) {
      EXPECT_TRUE(std::all_of(t.out.begin() + k * t.win, t.out.begin() + (k + 1) * t.win, [](uint8_t v) { return v == 0xAB; }))
          << "a skipped frame's window is left unwritten";
    } else {
      EXPECT_TRUE(std::equal(want.rgb.begin(), want.rgb.end(), t.out.begin() + k * t.win)) << "frame " << k;
    }
  }
  // Every shift from pi: the fixed ones of frames 5 and 7 no longer apply.
  Batch d;
  ASSERT_EQ(le_tessera_run(d.b.bank.refs.data(), d.b.bank.n, d.b.bank.cent.data(), d.b.bank.c_canon.data(),
                           d.b.bank.aperture.data(), d.b.bank.stamp.v.data(), d.b.in.head_pt.data(),
                           static_cast<int32_t>(d.b.in.head_pt.size()), d.headJson.c_str(), d.f.rgb.data(),
                           d.f.pi.data(), 12, d.out.data(), d.skipped.data(), d.err, sizeof d.err),
            0)
      << d.err;
  EXPECT_EQ(d.skipped, (std::vector<uint32_t>{0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}));
}

TEST(TeethRun, FrameCountsAndRefusals) {
  Batch t;
  EXPECT_EQ(t.run(nullptr, 0), 0);
  EXPECT_EQ(t.skipped, std::vector<uint32_t>(12, 7)) << "nothing emitted";
  EXPECT_EQ(t.run(nullptr, -1), 1);
  EXPECT_STREQ(t.err, "teeth: emitted 0 of -1 frames");
  EXPECT_EQ(t.run(nullptr, -1, 10), 1);
  EXPECT_STREQ(t.err, "teeth: em");
  EXPECT_EQ(le_tessera_run_shift(t.b.bank.refs.data(), t.b.bank.n, t.b.bank.cent.data(), t.b.bank.c_canon.data(),
                                 t.b.bank.aperture.data(), t.b.bank.stamp.v.data(), t.b.in.head_pt.data(),
                                 static_cast<int32_t>(t.b.in.head_pt.size()), t.headJson.c_str(), nullptr, nullptr,
                                 nullptr, 3, t.out.data(), t.skipped.data(), nullptr, 0),
            1)
      << "a null error buffer is allowed";
  std::strcpy(t.err, "kept");
  EXPECT_EQ(t.run(nullptr, -1, 0), 1);
  EXPECT_STREQ(t.err, "kept") << "a buffer size below 1 gets nothing";
  t.b.bank.stamp.v[le::GeometryStamp::kBandR1] = 40;
  EXPECT_EQ(t.run(nullptr, 3), 1);
  EXPECT_STREQ(t.err, "teeth: GeometryStamp incoherent: band rows escape window; stored band rows escape patch;");
  Batch h;
  h.headJson = "{\"retrieval\": {}}";
  EXPECT_EQ(h.run(nullptr, 3), 1);
  EXPECT_STREQ(h.err, "teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the v1 schema — refusing "
                      "to serve defaults");
  Batch n;
  EXPECT_EQ(le_tessera_run(n.b.bank.refs.data(), n.b.bank.n, nullptr, n.b.bank.c_canon.data(),
                           n.b.bank.aperture.data(), n.b.bank.stamp.v.data(), n.b.in.head_pt.data(),
                           static_cast<int32_t>(n.b.in.head_pt.size()), n.headJson.c_str(), n.f.rgb.data(),
                           n.f.pi.data(), 3, n.out.data(), n.skipped.data(), n.err, sizeof n.err),
            1);
  EXPECT_STREQ(n.err, "teeth: a required argument is null");
}

}  // namespace
