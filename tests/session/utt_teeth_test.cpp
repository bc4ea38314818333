// The live session with teeth, through the C interface as a host drives it
// (members read with le_tessera_members_*, the raw reference track put in
// donor order, one attach): refusals that leave the session as it was, the
// inline and pipelined roads giving the same bytes and touching nothing but
// the mouth window, interrupts that drop the held frame, a refused frame
// that ends the teeth for good, and a storm of host threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "le/le.h"
#include "le/le_tessera.h"
#include "le/le_utt.h"
#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::Frame;
using le::test::pullUntil;
using le::test::ScopedEnv;

constexpr int kRampEnd = 6, kRampInterrupt = 4;

std::string teethBundle() { return le::test::dataPath("teeth/session"); }

using le::test::backToIdleAfterRamp;
using le::test::framesOf;
using le::test::nowMs;

// The teeth members as a host holds them: the record, and the bank in donor
// order from the raw track.
struct Members {
  le_tessera_members* m = nullptr;
  std::vector<uint8_t> donors;
  std::vector<double> c_canon;

  Members() {
    char err[512];
    m = le_tessera_members_open(teethBundle().c_str(), err, sizeof err);
    if (!m) {
      ADD_FAILURE() << err;
      return;
    }
    const std::string track = le::test::readFile(le_tessera_members_bank_track_path(m));
    EXPECT_EQ(static_cast<int64_t>(track.size()), le_tessera_members_band_bytes(m));
    EXPECT_STREQ(le_tessera_members_bank_container(m), "raw");
    donors.resize(track.size());
    EXPECT_EQ(le_tessera_members_reorder(m, reinterpret_cast<const uint8_t*>(track.data()), donors.data(), err,
                                         sizeof err),
              0)
        << err;
    c_canon.assign(le_tessera_members_c_canon(m), le_tessera_members_c_canon(m) + 2);
  }
  ~Members() { le_tessera_members_close(m); }

  int attach(le_utt* utt, char* err, int err_len, const int32_t* stamp = nullptr, const char* head_json = nullptr) {
    return le_utt_tessera_attach(utt, donors.data(), le_tessera_members_n_donors(m), le_tessera_members_cent(m),
                                 c_canon.data(), le_tessera_members_aperture(m),
                                 stamp ? stamp : le_tessera_members_stamp(m), le_tessera_members_head_pt(m),
                                 le_tessera_members_head_pt_len(m),
                                 head_json ? head_json : le_tessera_members_head_json(m),
                                 le_tessera_members_manifest_json(m), err, err_len);
  }
};

struct Live : le::test::LiveSession {
  using LiveSession::LiveSession;
  int teeth(uint64_t* ok = nullptr, uint64_t* refused = nullptr, std::string* why = nullptr) {
    char err[256] = "";
    const int r = le_utt_tessera_stats(utt, ok, refused, err, sizeof err);
    if (why) *why = err;
    return r;
  }
};

std::vector<Frame> speakOnce(Live& s, const std::vector<int16_t>& pcm) {
  s.push(pcm);
  le_utt_end_utterance(s.utt);
  std::vector<Frame> f = pullUntil(s.utt, s.bytes, 120000, backToIdleAfterRamp, true);
  std::vector<Frame> out;
  for (Frame& x : f)
    if (x.info.type != 0) out.push_back(std::move(x));
  return out;
}

TEST(UttTeeth, AttachRefusalsLeaveTheSessionAsItWas) {
  Members mem;
  char err[1024];
  EXPECT_EQ(mem.attach(nullptr, err, sizeof err), 1);
  EXPECT_STREQ(err, "le_utt_tessera_attach: null session");
  EXPECT_EQ(le_utt_tessera_stats(nullptr, nullptr, nullptr, nullptr, 0), 0);
  EXPECT_EQ(le_utt_tessera_geometry(nullptr, err, sizeof err), 0);
  EXPECT_EQ(le_utt_tessera_synth_w(nullptr, nullptr, nullptr, nullptr), 0);

  // A bundle whose crop isn't the bank's canvas.
  {
    Live small(le::test::dataPath("sample"));
    EXPECT_EQ(mem.attach(small.utt, err, sizeof err), 1);
    EXPECT_STREQ(err, "le_utt_tessera_attach: bank canvas 128x128 != this bundle's render crop 32");
  }
  // A motion directory without xs_target.bin: the corpus frame can't be named.
  {
    le::test::TempDir tmp;
    le::test::copyTree(teethBundle(), tmp / "b");
    std::remove((tmp / "b/xs_target.bin").c_str());
    le_utt_opts o{};
    const std::string dir = tmp / "b";
    o.motion_dir = dir.c_str();
    Live bare(teethBundle(), o);
    EXPECT_EQ(mem.attach(bare.utt, err, sizeof err), 1);
    EXPECT_STREQ(err, "le_utt_tessera_attach: xs_target.bin is absent or the wrong length, so this bundle's corpus pi "
                      "frame cannot be identified — refusing to arm the borrow against the manifest's compose-field "
                      "geometry");
  }

  Live s(teethBundle());
  ASSERT_EQ(le::test::waitReady(s.utt), 1) << le_utt_last_error();
  std::strcpy(err, "kept");
  EXPECT_EQ(le_utt_tessera_attach(s.utt, nullptr, 1, nullptr, nullptr, nullptr, nullptr, nullptr, 0, nullptr, nullptr,
                                  nullptr, 0),
            1)
      << "a null error buffer is allowed";
  EXPECT_EQ(le_utt_tessera_attach(s.utt, mem.donors.data(), 3, le_tessera_members_cent(mem.m), mem.c_canon.data(),
                                  le_tessera_members_aperture(mem.m), le_tessera_members_stamp(mem.m), nullptr, 0,
                                  "{}", "{}", err, sizeof err),
            1);
  EXPECT_STREQ(err, "le_utt_tessera_attach: a required member is null — this ABI has no partial-attach state");
  EXPECT_EQ(le_utt_tessera_attach(s.utt, mem.donors.data(), 0, le_tessera_members_cent(mem.m), mem.c_canon.data(),
                                  le_tessera_members_aperture(mem.m), le_tessera_members_stamp(mem.m),
                                  le_tessera_members_head_pt(mem.m), 5, "{}", "{}", err, 10),
            1);
  EXPECT_STREQ(err, "le_utt_te") << "err_len 10: nine characters and the terminator";
  int32_t stamp[12];
  std::memcpy(stamp, le_tessera_members_stamp(mem.m), sizeof stamp);
  stamp[6] = 0;  // pad
  EXPECT_EQ(mem.attach(s.utt, err, sizeof err, stamp), 1);
  EXPECT_STREQ(err, "le_utt_tessera_attach: teeth: GeometryStamp incoherent: pad/shift_margin must be positive;");
  EXPECT_EQ(mem.attach(s.utt, err, sizeof err, nullptr, "{\"retrieval\": {\"kshort\": 4}}"), 1);
  EXPECT_STREQ(err, "le_utt_tessera_attach: teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the "
                    "v1 schema — refusing to serve defaults");
  const std::vector<double> good = mem.c_canon;
  mem.c_canon = {good[0] + 40.0, good[1] - 25.0};
  EXPECT_EQ(mem.attach(s.utt, err, sizeof err), 1);
  EXPECT_EQ(std::string(err).rfind("le_utt_tessera_attach: teeth-pi: no corpus pi geometry matches this bank's c_canon", 0), 0u) << err;

  // Still unarmed, and frames flow as before.
  uint64_t ok = 9, refused = 9;
  EXPECT_EQ(s.teeth(&ok, &refused), 0);
  EXPECT_EQ(ok, 0u);
  EXPECT_EQ(refused, 0u);
  char geometry[8] = "x";
  EXPECT_EQ(le_utt_tessera_geometry(s.utt, geometry, sizeof geometry), 0);
  EXPECT_STREQ(geometry, "");
  EXPECT_EQ(pullUntil(s.utt, s.bytes, 10000, [](const auto& v) { return v.size() >= 3; }).size(), 3u);

  mem.c_canon = good;
  ASSERT_EQ(mem.attach(s.utt, err, sizeof err), 0) << err;
  EXPECT_STREQ(err, "");
  EXPECT_EQ(s.teeth(), 1);
  EXPECT_EQ(le_utt_tessera_geometry(s.utt, geometry, sizeof geometry), 1);
  EXPECT_STREQ(geometry, "v1");
  EXPECT_EQ(le_utt_tessera_geometry(s.utt, geometry, 0), 0);
  double mean = -5, max = -5;
  uint64_t frames = 7;
  EXPECT_EQ(le_utt_tessera_synth_w(s.utt, &mean, &max, &frames), 0);
  EXPECT_EQ(mean, -5);
  EXPECT_EQ(frames, 7u) << "nothing measured yet: outputs untouched";
  // A refused re-attach leaves the earlier pass armed.
  EXPECT_EQ(mem.attach(s.utt, err, sizeof err, stamp), 1);
  EXPECT_EQ(s.teeth(), 1);
  EXPECT_EQ(le_utt_tessera_geometry(s.utt, geometry, sizeof geometry), 1);
  EXPECT_STREQ(le_utt_last_error(), "") << "the teeth family never writes the session's error string";
}

// The window of the crop that teeth correct, in frame pixels (the bundle
// pastes the crop at an offset of 16, 8), widened by the paste's reach.
bool nearTheMouth(int x, int y) { return x >= 56 - 8 && x < 104 + 8 && y >= 80 - 8 && y < 112 + 8; }

TEST(UttTeeth, InlineAndThreadedRoadsGiveTheSameBytes) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  ScopedEnv onset("LE_UTT_ONSET_SI", "1");
  ScopedEnv report("LE_UTT_STAGE_REPORT", "1");
  Members mem;
  std::vector<std::vector<Frame>> runs;
  std::vector<std::string> reports;
  for (const char* road : {"0", "1", "plain"}) {
    SCOPED_TRACE(road);
    ScopedEnv e("LE_UTT_PIPELINE_PASTE", std::strcmp(road, "1") == 0 ? "1" : "0");
    auto s = std::make_unique<Live>(teethBundle());
    ASSERT_EQ(le::test::waitReady(s->utt), 1) << le_utt_last_error();
    char err[512];
    if (std::strcmp(road, "plain") != 0) {
      ASSERT_EQ(mem.attach(s->utt, err, sizeof err), 0) << err;
    }
    std::vector<Frame> f = speakOnce(*s, pcm);
    ASSERT_EQ(f.size(), static_cast<size_t>(framesOf(pcm.size()) + kRampEnd));
    for (size_t i = 0; i < f.size(); ++i) {
      EXPECT_EQ(f[i].info.type, i < f.size() - kRampEnd ? 1 : 2);
      if (f[i].info.type == 1) {
        EXPECT_EQ(f[i].info.ordinal, static_cast<int32_t>(i));
      }
    }
    if (std::strcmp(road, "plain") != 0) {
      uint64_t ok = 0, refused = 9;
      std::string why;
      EXPECT_EQ(s->teeth(&ok, &refused, &why), 1) << why;
      EXPECT_EQ(refused, 0u);
      EXPECT_GE(ok, f.size()) << "every rendered frame went through the pass";
      double mean = -1, max = -1;
      uint64_t frames = 0;
      EXPECT_EQ(le_utt_tessera_synth_w(s->utt, &mean, &max, &frames), 1);
      EXPECT_EQ(frames, ok);
      EXPECT_EQ(mean, 0.0) << "the head gives the synthesised mouth no weight";
      EXPECT_EQ(max, 0.0);
    }
    reports.push_back(le::test::captureStderr([&] { s.reset(); }));
    runs.push_back(std::move(f));
  }
  ASSERT_EQ(runs[0].size(), runs[1].size());
  for (size_t i = 0; i < runs[0].size(); ++i) {
    EXPECT_EQ(runs[0][i].info.si, runs[1][i].info.si);
    EXPECT_TRUE(runs[0][i].rgb == runs[1][i].rgb) << "frame " << i;
  }
  // Against the same utterance without teeth: only the mouth moves, and it
  // does move.
  const int W = 160;
  int differing = 0;
  for (size_t i = 0; i < runs[0].size(); ++i) {
    const std::vector<uint8_t>& a = runs[0][i].rgb;
    const std::vector<uint8_t>& b = runs[2][i].rgb;
    bool any = false;
    for (size_t k = 0; k < a.size(); ++k) {
      if (a[k] == b[k]) continue;
      const int px = static_cast<int>(k / 3);
      ASSERT_TRUE(nearTheMouth(px % W, px / W)) << "frame " << i << " pixel " << px % W << "," << px / W;
      any = true;
    }
    differing += any;
  }
  EXPECT_GT(differing, static_cast<int>(runs[0].size()) / 2);
  // The stage report: the teeth stage counted on the pipelined road only.
  EXPECT_NE(reports[0].find("[le_utt-stage] MEASURED NOTHING"), std::string::npos) << reports[0];
  EXPECT_NE(reports[0].find("(pipe=0 jobsB=0 jobsC=0"), std::string::npos) << reports[0];
  const size_t at = reports[1].find("[le_utt-stage] pipe=1 jobsB=");
  ASSERT_NE(at, std::string::npos) << reports[1];
  EXPECT_GE(std::atoi(reports[1].c_str() + at + 28), static_cast<int>(runs[1].size()));
  const size_t b = reports[1].find("stageB_ms=");
  ASSERT_NE(b, std::string::npos);
  EXPECT_GT(std::atof(reports[1].c_str() + b + 10), 0.0);
}

// An interrupt mid-speech: nothing of the old generation comes out after it,
// the held frame included, on either road; the ramp and the next utterance
// come through the pass.
TEST(UttTeeth, InterruptDropsTheHeldFrame) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Members mem;
  for (const char* pipe : {"0", "1"}) {
    SCOPED_TRACE(std::string("pipeline ") + pipe);
    ScopedEnv e("LE_UTT_PIPELINE_PASTE", pipe);
    Live s(teethBundle());
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    char err[512];
    ASSERT_EQ(mem.attach(s.utt, err, sizeof err), 0) << err;
    for (int round = 0; round < 2; ++round) {
      s.push(pcm);
      le_utt_end_utterance(s.utt);
      auto f = pullUntil(s.utt, s.bytes, 60000, [](const std::vector<Frame>& v) {
        return std::count_if(v.begin(), v.end(), [](const Frame& x) { return x.info.type == 1; }) >= 8;
      });
      ASSERT_FALSE(f.empty());
      const Frame last = f.back();
      ASSERT_EQ(last.info.type, 1);
      le_utt_interrupt(s.utt);
      EXPECT_EQ(le_utt_frames_available(s.utt), 0);
      auto g = pullUntil(s.utt, s.bytes, 20000, [](const std::vector<Frame>& v) {
        return !v.empty() && v.back().info.type == 0;
      });
      ASSERT_EQ(g.size(), static_cast<size_t>(kRampInterrupt + 1));
      for (int r = 0; r < kRampInterrupt; ++r) {
        EXPECT_EQ(g[r].info.type, 2) << "no speech frame of the old generation, held or queued";
        EXPECT_EQ(g[r].info.si, (last.info.si + 1 + r) % s.nt);
        EXPECT_GT(g[r].info.seq, last.info.seq);
      }
    }
    auto h = speakOnce(s, pcm);
    ASSERT_EQ(h.size(), static_cast<size_t>(framesOf(pcm.size()) + kRampEnd));
    for (int o = 0; o < framesOf(pcm.size()); ++o) EXPECT_EQ(h[o].info.ordinal, o);
    std::string why;
    EXPECT_EQ(s.teeth(nullptr, nullptr, &why), 1) << why;
  }
}

// A bank whose canonical centroid lies 7 px above every frame's: attach
// still names v1, but every frame's shift is beyond the pad of 6. The first
// frame out of the pass is refused, and from then on nothing goes out, not
// even idle frames, until a good attach arms a new pass.
TEST(UttTeeth, RefusedFrameEndsTheTeethForGood) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  Members mem;
  const std::vector<double> good = mem.c_canon;
  for (const char* pipe : {"0", "1"}) {
    SCOPED_TRACE(std::string("pipeline ") + pipe);
    ScopedEnv e("LE_UTT_PIPELINE_PASTE", pipe);
    Live s(teethBundle());
    ASSERT_EQ(le::test::waitReady(s.utt), 1);
    char err[512];
    mem.c_canon = {good[0], good[1] - 7.0};
    ASSERT_EQ(mem.attach(s.utt, err, sizeof err), 0) << err;
    char geometry[8];
    EXPECT_EQ(le_utt_tessera_geometry(s.utt, geometry, sizeof geometry), 1);
    EXPECT_STREQ(geometry, "v1");
    s.push(pcm);
    le_utt_end_utterance(s.utt);
    std::string why;
    uint64_t ok = 9, refused = 0;
    const double t0 = nowMs();
    while (s.teeth(&ok, &refused, &why) != -1 && nowMs() - t0 < 30000) {
      pullUntil(s.utt, s.bytes, 5, [](const auto&) { return false; });
    }
    EXPECT_EQ(s.teeth(&ok, &refused, &why), -1);
    EXPECT_EQ(why, "shift-out-of-range");
    EXPECT_EQ(refused, 1u);
    EXPECT_EQ(ok, 0u);
    // Whatever was queued before the fault drains; then nothing, for good.
    auto drained = pullUntil(s.utt, s.bytes, 300, [](const auto&) { return false; });
    for (const Frame& x : drained) EXPECT_EQ(x.info.type, 0) << "no speech frame went out uncorrected";
    EXPECT_TRUE(pullUntil(s.utt, s.bytes, 600, [](const auto&) { return false; }).empty());

    mem.c_canon = good;
    ASSERT_EQ(mem.attach(s.utt, err, sizeof err), 0) << err;
    EXPECT_EQ(s.teeth(), 1);
    EXPECT_EQ(pullUntil(s.utt, s.bytes, 10000, [](const auto& v) { return v.size() >= 3; }).size(), 3u)
        << "a new pass un-faults the session";
  }
}

// Host threads pushing, pulling, ending and interrupting with the teeth on
// the pipelined road, then destroy with everything in flight.
TEST(UttTeeth, StormOfHostThreadsThenDestroy) {
  const std::vector<int16_t> pcm = le::test::clip("speech_3s.wav");
  ScopedEnv e("LE_UTT_PIPELINE_PASTE", "1");
  Members mem;
  le_utt_opts o{};
  o.silence_s = 0.05;
  Live s(teethBundle(), o);
  ASSERT_EQ(le::test::waitReady(s.utt), 1);
  char err[512];
  ASSERT_EQ(mem.attach(s.utt, err, sizeof err), 0) << err;
  std::atomic<bool> run{true};
  std::atomic<int> bad{0};
  std::atomic<uint64_t> pulled{0}, speech{0};
  std::vector<std::thread> ts;
  ts.emplace_back([&] {
    std::mt19937 rng(3);
    size_t at = 0;
    while (run) {
      const size_t n = 1 + rng() % 3000;
      if (at + n > pcm.size()) at = 0;
      le_utt_push_audio(s.utt, pcm.data() + at, static_cast<int>(n));
      at += n;
      if (rng() % 40 == 0) le_utt_end_utterance(s.utt);
      std::this_thread::sleep_for(std::chrono::microseconds(rng() % 3000));
    }
  });
  ts.emplace_back([&] {
    std::vector<uint8_t> rgb(s.bytes);
    uint64_t last = 0;
    bool any = false;
    while (run) {
      le_utt_frame_info info{};
      if (le_utt_pull_frame(s.utt, rgb.data(), rgb.size(), &info) == 1) {
        if (any && info.seq <= last) ++bad;
        last = info.seq;
        any = true;
        ++pulled;
        speech += info.type == 1;
      }
      std::this_thread::sleep_for(std::chrono::microseconds(400));
    }
  });
  ts.emplace_back([&] {
    std::mt19937 rng(11);
    while (run) {
      // Apart enough that speech gets through the pass between them, even
      // under a sanitizer.
      std::this_thread::sleep_for(std::chrono::microseconds(250000 + rng() % 400000));
      le_utt_interrupt(s.utt);
    }
  });
  ts.emplace_back([&] {
    char text[64];
    double mean;
    while (run) {
      le_utt_tessera_stats(s.utt, nullptr, nullptr, text, sizeof text);
      le_utt_tessera_geometry(s.utt, text, sizeof text);
      le_utt_tessera_synth_w(s.utt, &mean, nullptr, nullptr);
      std::this_thread::sleep_for(std::chrono::microseconds(900));
    }
  });
  // At least 2 s of it, and until frames, speech among them, have come
  // through: a sanitizer's pace decides how long that takes.
  const double t0 = nowMs();
  while (nowMs() - t0 < 2000 || ((pulled < 20 || speech < 1) && nowMs() - t0 < 90000))
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  run = false;
  for (auto& t : ts) t.join();
  EXPECT_EQ(bad.load(), 0);
  EXPECT_GE(pulled.load(), 20u);
  EXPECT_GE(speech.load(), 1u);
  std::string why;
  EXPECT_EQ(s.teeth(nullptr, nullptr, &why), 1) << why;
  s.push(pcm);
  const double d0 = nowMs();
  le_utt_destroy(s.utt);
  s.utt = nullptr;
  EXPECT_LT(nowMs() - d0, 2000.0);
}

}  // namespace
