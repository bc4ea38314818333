// The frame-conditioned delta model: its refusals, the centre's arithmetic
// against the literal form (a sort per frame), the windows' frames and the
// decoder's state against a chain of plain graph runs, and clip lengths at
// the window edges.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "audio/fca_centre.h"
#include "audio/standardise.h"
#include "le/le_fca.h"
#include "tests/motion/motion_testing.h"
#include "tests/support/test_support.h"

namespace {

namespace fc = le::fca;
using le::test::clipFloats;

std::string w2vPath() { return le::test::dataPath("audio/w2v/w2v.onnx"); }
std::string fcaPath() { return le::test::speakingBundle() + "/fca_stream.onnx"; }

struct Fca {
  le_fca* f;
  Fca() : f(le_fca_create(w2vPath().c_str(), fcaPath().c_str(), 1)) {
    if (!f) ADD_FAILURE() << le_fca_last_error();
  }
  ~Fca() { le_fca_destroy(f); }
};

TEST(FcaCApi, RefusalsAndSizes) {
  const std::string missing = le::test::dataPath("motion/none.onnx");
  EXPECT_EQ(le_fca_create(w2vPath().c_str(), missing.c_str(), 1), nullptr);
  const std::string why = le_fca_last_error();
  EXPECT_EQ(why.rfind("le_fca_create: ", 0), 0u) << why;
  EXPECT_NE(why.find("none.onnx"), std::string::npos) << why;
  EXPECT_EQ(le_fca_create(nullptr, nullptr, 0), nullptr);
  EXPECT_EQ(std::string(le_fca_last_error()).rfind("le_fca_create: ", 0), 0u);

  Fca h;
  ASSERT_NE(h.f, nullptr);
  EXPECT_STREQ(le_fca_last_error(), "");
  std::vector<float> out(3 * 63);
  const std::vector<float> pcm = clipFloats("speech_3s.wav", 1281);
  EXPECT_EQ(le_fca_deltas(nullptr, pcm.data(), 1281, out.data(), 3), -1);
  EXPECT_STREQ(le_fca_last_error(), "le_fca_deltas: bad args");
  // Too small a buffer: -1, nothing written, and the text left as it was.
  std::fill(out.begin(), out.end(), 7.0f);
  EXPECT_EQ(le_fca_deltas(h.f, pcm.data(), 1281, out.data(), 2), -1);
  EXPECT_STREQ(le_fca_last_error(), "le_fca_deltas: bad args");
  EXPECT_EQ(std::count(out.begin(), out.end(), 7.0f), 3 * 63);
  EXPECT_EQ(le_fca_deltas(h.f, pcm.data(), 0, out.data(), 0), 0);
  EXPECT_STREQ(le_fca_last_error(), "");
  EXPECT_EQ(le_fca_deltas(h.f, pcm.data(), 1281, out.data(), 3), 3);
  le_fca_destroy(nullptr);
}

// ---- the centre ----

// The literal form: a sorted copy of energy[0 .. t] for every frame.
std::vector<float> literalCentre(const std::vector<float>& emb, const std::vector<float>& energy, int frames) {
  std::vector<float> sum(fc::kFeat, 0.0f), cen(emb.size());
  int count = 0;
  for (int t = 0; t < frames; ++t) {
    float thr = 0.0f;
    if (t >= 7) {
      std::vector<float> s(energy.begin(), energy.begin() + t + 1);
      std::sort(s.begin(), s.end());
      const double p = static_cast<double>(t) * 0.2;
      const size_t lo = static_cast<size_t>(std::floor(p)), hi = static_cast<size_t>(std::ceil(p));
      thr = s[lo] + (s[hi] - s[lo]) * static_cast<float>(p - static_cast<double>(lo));
    }
    if (energy[static_cast<size_t>(t)] > thr) {
      for (int c = 0; c < fc::kFeat; ++c) sum[static_cast<size_t>(c)] += emb[static_cast<size_t>(t * fc::kFeat + c)];
      ++count;
    }
    const float scale = 1.0f / static_cast<float>(std::max(count, 1));
    for (int c = 0; c < fc::kFeat; ++c)
      cen[static_cast<size_t>(t * fc::kFeat + c)] =
          emb[static_cast<size_t>(t * fc::kFeat + c)] - sum[static_cast<size_t>(c)] * scale;
  }
  return cen;
}

TEST(FcaCentre, GateAndRunningCentreAsDefined) {
  // The quantile's two ends: at t = 7 p is 1.4000000000000001 (between
  // s[1] and s[2]); at t = 10 it is 2 exactly, and the gate is s[2].
  const std::vector<float> s{0.5f, 1.0f, 2.0f, 4.0f, 8.0f, 9.0f, 10.0f, 11.0f, 12.0f, 13.0f, 14.0f};
  EXPECT_EQ(fc::gateThreshold(s, 3), 0.0f);
  EXPECT_EQ(fc::gateThreshold(s, 7), 1.0f + (2.0f - 1.0f) * static_cast<float>(1.4000000000000001 - 1.0));
  EXPECT_EQ(fc::gateThreshold(s, 10), 2.0f);

  // A clip with quiet stretches, ties and repeated energies.
  const int frames = 157;
  std::vector<float> emb(static_cast<size_t>(frames) * fc::kFeat);
  uint32_t x = 12345;
  for (int t = 0; t < frames; ++t) {
    const float level = (t / 10) % 3 == 0 ? 0.01f : (t % 7 == 0 ? 1.0f : 0.3f + 0.1f * static_cast<float>(t % 5));
    for (int c = 0; c < fc::kFeat; ++c) {
      x = x * 1103515245u + 12345u;
      emb[static_cast<size_t>(t * fc::kFeat + c)] = level * (static_cast<float>((x >> 9) & 1023) / 512.0f - 1.0f);
    }
  }
  for (int c = 0; c < fc::kFeat; ++c) emb[static_cast<size_t>(40 * fc::kFeat + c)] = emb[static_cast<size_t>(41 * fc::kFeat + c)];
  std::vector<float> energy(frames);
  fc::energies(emb.data(), frames, energy.data());
  double e40 = 0;
  for (int c = 0; c < fc::kFeat; ++c) e40 += double(emb[static_cast<size_t>(40 * fc::kFeat + c)]) * emb[static_cast<size_t>(40 * fc::kFeat + c)];
  EXPECT_EQ(energy[40], static_cast<float>(std::sqrt(e40)));
  EXPECT_EQ(energy[40], energy[41]);
  std::vector<float> cen(emb.size());
  fc::centre(emb.data(), energy.data(), frames, cen.data());
  EXPECT_EQ(cen, literalCentre(emb, energy, frames));
  // The first frame is its own centre (it passes the gate of 0).
  for (int c = 0; c < fc::kFeat; ++c) EXPECT_EQ(cen[static_cast<size_t>(c)], 0.0f);

  // All zeros: nothing passes the strict gate, the scale is 1 and cen is emb.
  std::vector<float> zeros(static_cast<size_t>(20) * fc::kFeat, 0.0f), zeroEnergy(20), zc(zeros.size(), 5.0f);
  fc::energies(zeros.data(), 20, zeroEnergy.data());
  fc::centre(zeros.data(), zeroEnergy.data(), 20, zc.data());
  EXPECT_EQ(zc, zeros);
}

TEST(FcaCentre, LayersAndConditionRows) {
  std::vector<float> out(static_cast<size_t>(12) * 200 * 768);
  for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<float>((i * 2654435761u) % 1000) / 1000.0f - 0.5f;
  std::vector<float> row(768);
  fc::averageLayers(out.data(), 123, row.data());
  for (int c = 0; c < 768; ++c) {
    float s = 0.0f;
    for (int l = 4; l <= 9; ++l) s = s + out[static_cast<size_t>((l * 200 + 123) * 768 + c)];
    ASSERT_EQ(row[static_cast<size_t>(c)], s / 6.0f) << c;
  }
  // Three frames: frame 0 sees rows 0, 0, 1, 2, 2, 2, 2.
  std::vector<float> cen(3 * 768);
  for (int t = 0; t < 3; ++t) std::fill_n(cen.begin() + t * 768, 768, static_cast<float>(t));
  std::vector<float> cond(3 * fc::kCond);
  fc::conditions(cen.data(), 3, cond.data());
  const int want[3][7] = {{0, 0, 1, 2, 2, 2, 2}, {0, 1, 2, 2, 2, 2, 2}, {1, 2, 2, 2, 2, 2, 2}};
  for (int t = 0; t < 3; ++t)
    for (int k = 0; k < 7; ++k)
      EXPECT_EQ(cond[static_cast<size_t>((t * 7 + k) * 768 + 5)], static_cast<float>(want[t][k])) << t << " " << k;
}

// ---- whole clips ----

// The chain of the model over plain graph runs: frame t below 200 from
// window 0, later frames from the window 100 frames before their hundred,
// at local row t - B; then the centre, the conditions and the frame graph
// with its output and state fed back.
std::vector<float> chained(const std::vector<float>& pcm) {
  const int n = static_cast<int>(pcm.size());
  const int frames = (n + 639) / 640;
  le::test::PlainGraph w2v(w2vPath()), dec(fcaPath());
  std::vector<float> emb(static_cast<size_t>(frames) * 768);
  std::vector<float> window(128000);
  std::vector<float> audioEmb;
  int loaded = -1;
  for (int t = 0; t < frames; ++t) {
    const int B = t < 200 ? 0 : (t / 100) * 100 - 100;
    if (B != loaded) {
      std::fill(window.begin(), window.end(), 0.0f);
      for (int i = 0; i < 128000 && B * 640 + i < n; ++i) window[static_cast<size_t>(i)] = pcm[static_cast<size_t>(B * 640 + i)];
      le::standardise(window.data(), window.size());
      audioEmb = w2v.run({&window}, {{1, 128000}});
      loaded = B;
    }
    fc::averageLayers(audioEmb.data(), t - B, emb.data() + static_cast<size_t>(t) * 768);
  }
  std::vector<float> energy(static_cast<size_t>(frames)), cen(emb.size()), cond(static_cast<size_t>(frames) * fc::kCond);
  fc::energies(emb.data(), frames, energy.data());
  fc::centre(emb.data(), energy.data(), frames, cen.data());
  fc::conditions(cen.data(), frames, cond.data());
  std::vector<float> prev(63, 0.0f), h(384, 0.0f), out;
  for (int t = 0; t < frames; ++t) {
    std::vector<float> c(cond.begin() + static_cast<std::ptrdiff_t>(t) * fc::kCond,
                         cond.begin() + static_cast<std::ptrdiff_t>(t + 1) * fc::kCond);
    std::vector<std::vector<float>> r = dec.runAll({&c, &prev, &h}, {{1, fc::kCond}, {1, 63}, {1, 1, 384}});
    prev = r[0];
    h = r[1];
    out.insert(out.end(), prev.begin(), prev.end());
  }
  return out;
}

TEST(FcaClip, FramesOfEveryWindowAndTheDecoderState) {
  Fca h;
  ASSERT_NE(h.f, nullptr);
  const std::vector<float> clip = clipFloats("speech_10s.wav");
  for (const size_t n : {size_t{1}, size_t{128000}, size_t{128001}, clip.size()}) {
    const std::vector<float> pcm(clip.begin(), clip.begin() + static_cast<std::ptrdiff_t>(n));
    const int frames = static_cast<int>((n + 639) / 640);
    std::vector<float> out(static_cast<size_t>(frames) * 63);
    ASSERT_EQ(le_fca_deltas(h.f, pcm.data(), static_cast<int>(n), out.data(), frames), frames) << le_fca_last_error();
    EXPECT_EQ(out, chained(pcm)) << n << " samples";
    // Nothing stays in the object between calls.
    std::vector<float> again(out.size());
    ASSERT_EQ(le_fca_deltas(h.f, pcm.data(), static_cast<int>(n), again.data(), frames), frames);
    EXPECT_EQ(again, out);
  }
}

// The deltas follow the speech: the mouth opens more on loud frames than in
// the pauses.
TEST(FcaClip, LoudSpeechOpensTheMouth) {
  Fca h;
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  const int frames = static_cast<int>((pcm.size() + 639) / 640);
  std::vector<float> out(static_cast<size_t>(frames) * 63);
  ASSERT_EQ(le_fca_deltas(h.f, pcm.data(), static_cast<int>(pcm.size()), out.data(), frames), frames);
  double loud = 0, pause = 0;
  int nl = 0, np = 0;
  for (int f = 1; f + 1 < frames; ++f) {
    double e = 0;
    for (int i = (f - 1) * 640; i < (f + 2) * 640 && i < static_cast<int>(pcm.size()); ++i) e += pcm[static_cast<size_t>(i)] * pcm[static_cast<size_t>(i)];
    const double lowerLip = out[static_cast<size_t>(f * 63 + 18 * 3 + 1)];
    if (e == 0.0) pause += lowerLip, ++np;
    if (std::sqrt(e / 1920) > 0.08) loud += lowerLip, ++nl;
  }
  ASSERT_GT(nl, 10);
  ASSERT_GT(np, 10);
  EXPECT_GT(loud / nl, pause / np + 0.005);
}

}  // namespace
