// The motion pipeline: its refusals word for word, the log-mel arithmetic
// against independent references, the window and chunk schedule (crossfade,
// smoothing, the final limits) against a restatement over the whole clip,
// push sizes, eager limits, totals at finish, the row walk, and the frames
// the keypoints make.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <complex>
#include <filesystem>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "audio/motion.h"
#include "audio/motion_mel.h"
#include "le/le_motion.h"
#include "tests/motion/motion_testing.h"
#include "tests/support/test_support.h"

namespace {

using le::test::clipFloats;
using le::test::MotionHandle;
using le::test::Rows;
using le::test::ScopedEnv;
using le::test::speakingBundle;
using le::test::TempDir;
namespace mo = le::motion;

constexpr int kKp = 63;

int framesOf(size_t samples) { return static_cast<int>((samples + 639) / 640); }

std::string refusal(const std::string& dir, const char* ep = nullptr) {
  le_motion* m = le_motion_create(dir.c_str(), 1, ep);
  EXPECT_EQ(m, nullptr) << dir;
  le_motion_destroy(m);
  return le_motion_last_error();
}

std::string floats(size_t n) { return std::string(n * 4, '\0'); }

TEST(MotionCApi, CreateRefusalsWordForWord) {
  EXPECT_EQ(le_motion_create(nullptr, 1, nullptr), nullptr);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_create: NULL motion_dir");
  TempDir tmp;
  EXPECT_EQ(refusal(tmp / "none"), "le_motion_create: cannot open " + (tmp / "none") + "/meta.json");

  // One change at a time to a good directory.
  auto variant = [&](const std::string& name, const std::string& file, const std::string* bytes) {
    const std::string d = tmp / name;
    le::test::copyTree(speakingBundle(), d);
    if (bytes)
      le::test::writeFile(d + "/" + file, *bytes);
    else
      std::remove((d + "/" + file).c_str());
    return d;
  };
  const std::string noEmo = R"({"nt": 4, "n_src": 4, "s_bridge": 0.8})";
  EXPECT_EQ(refusal(variant("a", "meta.json", &noEmo)), "le_motion_create: meta.json: missing n_emo");
  const std::string bad = R"({"nt": 4, "n_src": 4, "n_emo": 3, "s_bridge"})";
  EXPECT_EQ(refusal(variant("b", "meta.json", &bad)), "le_motion_create: meta.json: bad s_bridge");
  const std::string mismatch = R"({"nt": 4, "n_src": 3, "n_emo": 3, "s_bridge": 0.8})";
  EXPECT_EQ(refusal(variant("c", "meta.json", &mismatch)), "le_motion_create: le_motion: n_src != nt unsupported");
  const std::string shortEmo = floats(3 * 8 - 1);
  std::string d = variant("d", "emo.bin", &shortEmo);
  EXPECT_EQ(refusal(d), "le_motion_create: " + d + "/emo.bin: 23 floats, expected 24");
  d = variant("e", "v_min_max.bin", nullptr);
  EXPECT_EQ(refusal(d), "le_motion_create: cannot open " + d + "/v_min_max.bin");
  // A directory where a table should be opens but can't be read.
  d = variant("f", "ch_sc.bin", nullptr);
  std::filesystem::create_directory(d + "/ch_sc.bin");
  EXPECT_EQ(refusal(d), "le_motion_create: short read " + d + "/ch_sc.bin");
  // xs_target.bin holds nt rows of 63 floats.
  const std::string fewRows = floats(3 * kKp);
  d = variant("g", "xs_target.bin", &fewRows);
  EXPECT_EQ(refusal(d), "le_motion_create: " + d + "/xs_target.bin: 189 floats, expected 252");

  EXPECT_EQ(refusal(speakingBundle(), "cuda"), "le_motion_create: le_motion: unknown ep 'cuda'");
  // This runtime has no CoreML provider: its own reason, and no object.
  const std::string coreml = refusal(speakingBundle(), "coreml:ane");
  EXPECT_EQ(coreml.rfind("le_motion_create: ", 0), 0u) << coreml;
  EXPECT_NE(coreml.find("CoreML"), std::string::npos) << coreml;

  // A good directory clears the error; each thread has its own.
  MotionHandle ok(speakingBundle());
  EXPECT_STREQ(le_motion_last_error(), "");
  refusal(tmp / "none");
  std::string other = "unset";
  std::thread([&] { other = le_motion_last_error(); }).join();
  EXPECT_EQ(other, "");
}

TEST(MotionCApi, CallRefusalsAndNullHandles) {
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  ASSERT_NE(m, nullptr);
  EXPECT_EQ(le_motion_nt(m), 4);
  EXPECT_EQ(le_motion_total(m), -1);
  const float pcm[3] = {0.1f, 0.2f, 0.3f};
  EXPECT_EQ(le_motion_push(m, pcm, 3), 1);
  EXPECT_EQ(le_motion_push(m, pcm, 0), 1);
  EXPECT_STREQ(le_motion_last_error(), "");
  for (int bad = 0; bad < 3; ++bad) {
    le_motion_push(nullptr, pcm, 1);
    EXPECT_STREQ(le_motion_last_error(), "le_motion_push: bad args / already finished");
    le_motion_push(m, nullptr, 1);
    EXPECT_STREQ(le_motion_last_error(), "le_motion_push: bad args / already finished");
    EXPECT_EQ(le_motion_push(m, pcm, -1), 0);
    EXPECT_STREQ(le_motion_last_error(), "le_motion_push: bad args / already finished");
  }
  int rows[2];
  float xs[2 * kKp], xd[2 * kKp];
  EXPECT_EQ(le_motion_pull(m, rows, xs, xd, 0), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_pull: bad args");
  EXPECT_EQ(le_motion_pull(m, rows, nullptr, xd, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_pull: bad args");
  EXPECT_EQ(le_motion_pull(nullptr, rows, xs, xd, 1), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_pull: bad args");
  // rows may be null.
  le_motion_finish(m);
  EXPECT_EQ(le_motion_total(m), 1);
  EXPECT_EQ(le_motion_pull(m, nullptr, xs, xd, 2), 1);
  EXPECT_STREQ(le_motion_last_error(), "");
  // Audio after the end of the utterance is refused, and nothing changes.
  EXPECT_EQ(le_motion_push(m, pcm, 3), 0);
  EXPECT_STREQ(le_motion_last_error(), "le_motion_push: bad args / already finished");
  le_motion_finish(m);
  EXPECT_EQ(le_motion_total(m), 1);
  EXPECT_EQ(le_motion_avail(m), 0);

  EXPECT_EQ(le_motion_avail(nullptr), 0);
  EXPECT_STREQ(le_motion_last_error(), "");
  EXPECT_EQ(le_motion_total(nullptr), -1);
  EXPECT_EQ(le_motion_nt(nullptr), 0);
  le_motion_finish(nullptr);
  le_motion_reset(nullptr, 0, 1, 1);
  le_motion_set_eager(nullptr, 3);
  le_motion_destroy(nullptr);
}

// ---- the log-mel spectrogram ----

using Cf = std::complex<float>;

// The same decimation in time, written as a recursion over even and odd
// halves; its butterflies must give the same bits.
std::vector<Cf> recursiveFft(const std::vector<Cf>& x, const std::vector<Cf>& tw) {
  const size_t n = x.size();
  if (n == 1) return x;
  std::vector<Cf> even(n / 2), odd(n / 2);
  for (size_t i = 0; i < n / 2; ++i) {
    even[i] = x[2 * i];
    odd[i] = x[2 * i + 1];
  }
  const std::vector<Cf> e = recursiveFft(even, tw), o = recursiveFft(odd, tw);
  std::vector<Cf> out(n);
  for (size_t k = 0; k < n / 2; ++k) {
    const Cf w = tw[k * (512 / n)];
    const float tr = w.real() * o[k].real() - w.imag() * o[k].imag();
    const float ti = w.real() * o[k].imag() + w.imag() * o[k].real();
    out[k] = Cf(e[k].real() + tr, e[k].imag() + ti);
    out[k + n / 2] = Cf(e[k].real() - tr, e[k].imag() - ti);
  }
  return out;
}

std::vector<float> noisySlice(uint32_t seed) {
  std::vector<float> s(mo::kSlice);
  uint32_t x = seed;
  for (size_t i = 0; i < s.size(); ++i) {
    x = x * 1664525u + 1013904223u;
    s[i] = static_cast<float>((x >> 8) & 0xFFFF) / 65536.0f - 0.5f + 0.3f * std::sin(0.05f * static_cast<float>(i)) +
           static_cast<float>(i) * 1e-5f;
  }
  return s;
}

TEST(MotionMel, FftGivesTheBitsOfItsRecursiveForm) {
  std::vector<float> twRe(256), twIm(256);
  mo::fftTwiddles(twRe.data(), twIm.data());
  std::vector<Cf> tw(256);
  for (int k = 0; k < 256; ++k) {
    const float t = static_cast<float>(k) * -6.28318530717958647692f / 512.0f;
    tw[static_cast<size_t>(k)] = Cf(std::cos(t), std::sin(t));
    EXPECT_EQ(twRe[static_cast<size_t>(k)], tw[static_cast<size_t>(k)].real());
    EXPECT_EQ(twIm[static_cast<size_t>(k)], tw[static_cast<size_t>(k)].imag());
  }
  const std::vector<float> s = noisySlice(7);
  std::vector<float> re(s.begin(), s.begin() + 512), im(512, 0.0f);
  std::vector<Cf> x(512);
  for (int i = 0; i < 512; ++i) x[static_cast<size_t>(i)] = Cf(re[static_cast<size_t>(i)], 0.0f);
  mo::fft512(re.data(), im.data(), twRe.data(), twIm.data());
  const std::vector<Cf> want = recursiveFft(x, tw);
  for (int k = 0; k < 512; ++k) {
    ASSERT_EQ(re[static_cast<size_t>(k)], want[static_cast<size_t>(k)].real()) << "bin " << k;
    ASSERT_EQ(im[static_cast<size_t>(k)], want[static_cast<size_t>(k)].imag()) << "bin " << k;
  }
}

// The window's log-mel spectra from a plain DFT in double over the
// reflected slice: the same numbers to float accuracy.
std::vector<double> doubleLogMel(const std::vector<float>& s, const std::vector<float>& window,
                                 const std::vector<float>& binmat) {
  auto at = [&](int i) {
    int j = i - 256;
    if (j < 0) j = -j;
    if (j >= mo::kSlice) j = 2 * (mo::kSlice - 1) - j;
    return static_cast<double>(s[static_cast<size_t>(j)]);
  };
  std::vector<double> mel(80 * 21);
  for (int t = 0; t < 21; ++t) {
    std::vector<double> mag(257);
    for (int k = 0; k < 257; ++k) {
      double r = 0, im = 0;
      for (int i = 0; i < 512; ++i) {
        const double v = at(t * 320 + i) * window[static_cast<size_t>(i)];
        r += v * std::cos(-2.0 * M_PI * k * i / 512.0);
        im += v * std::sin(-2.0 * M_PI * k * i / 512.0);
      }
      mag[static_cast<size_t>(k)] = std::sqrt(r * r + im * im);
    }
    for (int b = 0; b < 80; ++b) {
      double sum = 0;
      for (int k = 0; k < 257; ++k) sum += binmat[static_cast<size_t>(k * 80 + b)] * mag[static_cast<size_t>(k)];
      mel[static_cast<size_t>(b * 21 + t)] = std::log(sum + 1e-8);
    }
  }
  return mel;
}

TEST(MotionMel, LogMelOfAWindowAgreesWithAPlainDft) {
  MotionHandle h(speakingBundle());
  ASSERT_NE(h.m, nullptr);
  const std::vector<float> s = noisySlice(11);
  std::vector<float> mel(80 * 21);
  mo::logMel(s.data(), h.m->window.data(), h.m->binmat.data(), h.m->twRe.data(), h.m->twIm.data(), mel.data());
  const std::vector<double> want = doubleLogMel(s, h.m->window, h.m->binmat);
  for (size_t i = 0; i < mel.size(); ++i) ASSERT_NEAR(mel[i], want[i], 2e-4) << "band " << i / 21 << " spectrum " << i % 21;
}

// ---- the schedule ----

// Feeds a clip in pieces, pulling whatever is offered after each piece.
Rows feed(le_motion* m, const std::vector<float>& pcm, size_t piece, bool finish = true) {
  Rows rows;
  for (size_t at = 0; at < pcm.size(); at += piece) {
    const size_t n = std::min(piece, pcm.size() - at);
    EXPECT_EQ(le_motion_push(m, pcm.data() + at, static_cast<int>(n)), 1);
    le::test::pullAvailable(m, rows);
  }
  if (finish) {
    le_motion_finish(m);
    while (le::test::pullAvailable(m, rows) > 0) {
    }
  }
  return rows;
}

TEST(MotionSchedule, AWindowGoesWhenItsAudioIsThere) {
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  const std::vector<float> pcm = clipFloats("speech_3s.wav");
  // Window w needs 4480 samples past its first frame.
  const struct {
    size_t samples;
    int rows;
  } steps[] = {{4479, 0}, {4480, 5}, {4480 + 3199, 5}, {4480 + 3200, 10}, {4480 + 5 * 3200, 30}};
  size_t pushed = 0;
  for (const auto& s : steps) {
    le_motion_push(m, pcm.data() + pushed, static_cast<int>(s.samples - pushed));
    pushed = s.samples;
    EXPECT_EQ(le_motion_avail(m), 0) << "no chunk yet";
    EXPECT_EQ(m->condRows, s.rows) << s.samples << " samples";
    EXPECT_EQ(m->windowAt, s.rows);
  }
  // Each condition row: the mean of two student rows, then the emotion row
  // of its frame, the eyes and the character's keypoints.
  for (int f = 0; f < m->condRows; ++f) {
    const float* c = m->cond.data() + static_cast<size_t>(f) * mo::kCondDim;
    EXPECT_EQ(std::memcmp(c + 1024, m->emo.data() + (f % 3) * 8, 32), 0) << f;
    EXPECT_EQ(std::memcmp(c + 1032, m->chEyeOpen.data(), 8), 0);
    EXPECT_EQ(std::memcmp(c + 1034, m->chEyeBall.data(), 24), 0);
    EXPECT_EQ(std::memcmp(c + 1040, m->chSc.data(), 252), 0);
  }
}

TEST(MotionSchedule, DumpsShowTheFirstWindowAndEveryRow) {
  TempDir tmp;
  ScopedEnv dump("LE_MOTION_DUMP", tmp.path().c_str());
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  const std::vector<float> pcm = clipFloats("speech_3s.wav");
  const Rows rows = feed(m, pcm, pcm.size());
  auto read = [&](const char* name) {
    const std::string b = le::test::readFile(tmp / name);
    std::vector<float> v(b.size() / 4);
    std::memcpy(v.data(), b.data(), v.size() * 4);
    return v;
  };
  // Window 0 reaches 2000 samples back, before the audio: zeros there.
  std::vector<float> slice(mo::kSlice, 0.0f);
  std::copy(pcm.begin(), pcm.begin() + (mo::kSlice - 2000), slice.begin() + 2000);
  const std::vector<float> mel = read("mel0.bin");
  const std::vector<double> want = doubleLogMel(slice, m->window, m->binmat);
  ASSERT_EQ(mel.size(), want.size());
  // Compared as band energies: a band that holds little but the float
  // FFT's rounding noise is close in energy, not in its logarithm.
  for (size_t i = 0; i < mel.size(); ++i) {
    const double e = std::exp(want[i]);
    ASSERT_NEAR(std::exp(static_cast<double>(mel[i])), e, 1e-4 + 1e-4 * e) << "band " << i / 21 << " spectrum " << i % 21;
  }
  // Condition row r of window 0 averages student rows 6 + 2r and 7 + 2r.
  const std::vector<float> feat = read("feat0.bin");
  const std::vector<float> cond = read("cond.bin");
  ASSERT_EQ(feat.size(), 20u * 1024);
  ASSERT_EQ(cond.size(), static_cast<size_t>(framesOf(pcm.size())) * mo::kCondDim);
  for (int r = 0; r < 5; ++r)
    for (int c = 0; c < 1024; ++c)
      ASSERT_EQ(cond[static_cast<size_t>(r * mo::kCondDim + c)],
                (feat[static_cast<size_t>((6 + 2 * r) * 1024 + c)] + feat[static_cast<size_t>((7 + 2 * r) * 1024 + c)]) * 0.5f);
  EXPECT_EQ(read("final.bin"), m->finalRows);
  EXPECT_EQ(read("xs.bin"), rows.xs);
  EXPECT_EQ(read("xd.bin"), rows.xd);
  EXPECT_EQ(read("xsla.bin").size(), rows.xs.size());
  EXPECT_EQ(read("lmdm0_pred.bin").size(), 80u * mo::kMotionDim);
  EXPECT_EQ(read("res_post.bin").size(), static_cast<size_t>(framesOf(pcm.size())) * mo::kMotionDim);
}

// The schedule over a whole clip, restated: chunks of 80 condition rows
// every 70 (the last real row repeated to fill), each run on the state the
// last chunk left (the character's row with the pose of the row 11 from the
// end), a crossfade over the 10 shared rows, a 3-row mean of the pose dims
// across each seam; at the end one mean over everything and the limits.
struct Restated {
  le::test::PlainGraph lmdm;
  const le_motion& m;
  std::vector<float> res;
  int rows = 0;

  Restated(const std::string& dir, const le_motion& mo) : lmdm(dir + "/lmdm.onnx"), m(mo) {}

  float* at(int r) { return res.data() + static_cast<size_t>(r) * mo::kMotionDim; }

  void meanOfNeighbours(int from, int to) {
    const std::vector<float> before = res;
    for (int i = std::max(from, 0); i < std::min(to, rows); ++i)
      for (int d = 0; d < mo::kPoseDims; ++d) {
        float sum = 0.0f;
        int count = 0;
        for (int r = std::max(i - 1, 0); r <= std::min(i + 1, rows - 1); ++r, ++count)
          sum += before[static_cast<size_t>(r * mo::kMotionDim + d)];
        at(i)[d] = sum / static_cast<float>(count);
      }
  }

  // Runs every chunk that starts below `frames` on condition rows 0 to
  // condRows - 1.
  void chunks(const std::vector<float>& cond, int condRows, int frames, int upTo = 1 << 30) {
    std::vector<float> state(m.kp0.begin(), m.kp0.end());
    for (int start = 0, k = 0; start < frames && k < upTo; start += 70, ++k) {
      std::vector<float> in(80 * mo::kCondDim);
      for (int i = 0; i < 80; ++i) {
        const int src = std::min(start + i, condRows - 1);
        std::copy_n(cond.begin() + static_cast<std::ptrdiff_t>(src) * mo::kCondDim, mo::kCondDim,
                    in.begin() + static_cast<std::ptrdiff_t>(i) * mo::kCondDim);
      }
      const std::vector<float> pred = lmdm.run({&state, &in}, {{1, mo::kMotionDim}, {1, 80, mo::kCondDim}});
      if (rows == 0) {
        res = pred;
        rows = 80;
        meanOfNeighbours(0, 80);
      } else {
        for (int i = 0; i < 10; ++i) {
          const float a = static_cast<float>(i) / 10.0f;
          for (int d = 0; d < mo::kMotionDim; ++d)
            at(rows - 10 + i)[d] = (1.0f - a) * at(rows - 10 + i)[d] + a * pred[static_cast<size_t>(i * mo::kMotionDim + d)];
        }
        res.insert(res.end(), pred.begin() + 10 * mo::kMotionDim, pred.end());
        rows += 70;
        meanOfNeighbours(rows - 80, rows - 69);
      }
      state.assign(m.kp0.begin(), m.kp0.end());
      std::copy_n(at(rows - 11), mo::kPoseDims, state.begin());
    }
  }

  std::vector<float> final(int total) {
    rows = std::min(rows, total);
    res.resize(static_cast<size_t>(rows) * mo::kMotionDim);
    meanOfNeighbours(0, rows);
    std::vector<float> out = res;
    for (size_t i = 0; i < out.size(); ++i) {
      const size_t d = i % mo::kMotionDim;
      out[i] = std::min(std::max(out[i], m.vmin[d]), m.vmax[d]);
    }
    return out;
  }
};

TEST(MotionSchedule, ChunksCrossfadeAndSmoothAsDefined) {
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  const int total = framesOf(pcm.size());
  ASSERT_EQ(total, 250);
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  // 200 frames of audio: windows up to 190 are complete (195 condition
  // rows), so chunks 0 and 1 are committed and 150 motion rows exist, of
  // which the last 11 wait for the next crossfade.
  le_motion_push(m, pcm.data(), 200 * 640);
  EXPECT_EQ(le_motion_avail(m), 139);
  EXPECT_EQ(m->condRows, 195);
  EXPECT_EQ(m->chunkAt, 2);
  EXPECT_EQ(m->resRows, 150);
  Restated live(speakingBundle(), *m);
  live.chunks(m->cond, m->condRows, 1 << 30, 2);
  ASSERT_EQ(live.rows, 150);
  EXPECT_EQ(live.res, m->res) << "the motion rows of two committed chunks";

  le_motion_push(m, pcm.data() + 200 * 640, static_cast<int>(pcm.size() - 200 * 640));
  le_motion_finish(m);
  EXPECT_EQ(le_motion_total(m), total);
  EXPECT_EQ(le_motion_avail(m), total);
  EXPECT_TRUE(m->finalBuilt);
  EXPECT_EQ(m->chunkAt, 4);  // starts 0, 70, 140 and 210
  ASSERT_EQ(m->condRows, total);
  Restated whole(speakingBundle(), *m);
  whole.chunks(m->cond, m->condRows, total);
  EXPECT_EQ(whole.final(total), m->finalRows);
  // Some values were limited: the loudest frames stop the mouth corners.
  int limited = 0;
  for (int f = 0; f < total; ++f)
    limited += m->finalRows[static_cast<size_t>(f * mo::kMotionDim + mo::kExpAt + 3 * 19 + 1)] ==
               m->vmax[mo::kExpAt + 3 * 19 + 1];
  EXPECT_GT(limited, 0);
  EXPECT_LT(limited, total / 4);
}

TEST(MotionSchedule, ShortUtterancesAndTotalsAtFinish) {
  // Long enough for the largest cut below (51,201 samples).
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  for (const size_t n : {size_t{0}, size_t{1}, size_t{640}, size_t{641}, size_t{1000}, size_t{3199}, size_t{51200},
                         size_t{51201}}) {
    le_motion_reset(m, 0, 1, 1);
    const Rows rows = feed(m, std::vector<float>(pcm.begin(), pcm.begin() + static_cast<std::ptrdiff_t>(n)), 4096);
    const int total = framesOf(n);
    EXPECT_EQ(le_motion_total(m), total) << n;
    EXPECT_EQ(static_cast<int>(rows.size()), total) << n;
    EXPECT_EQ(m->condRows, total) << n;
    EXPECT_EQ(m->resRows, total) << n;
    // Chunks run while they start below the total: 80 frames need two.
    EXPECT_EQ(m->chunkAt, total == 0 ? 0 : (total - 1) / 70 + 1) << n;
    EXPECT_EQ(le_motion_avail(m), 0);
    if (total >= 1 && total < 80) {
      // One chunk, its rows past the audio repeating the last real row:
      // the restatement gives the same final rows.
      Restated one(speakingBundle(), *m);
      one.chunks(m->cond, m->condRows, total);
      EXPECT_EQ(one.final(total), m->finalRows) << n;
    }
  }
}

TEST(MotionSchedule, PushSizeDoesNotChangeTheRows) {
  const std::vector<float> pcm = clipFloats("speech_10s.wav", 7 * 16000);
  std::vector<Rows> runs;
  for (const size_t piece : {pcm.size(), size_t{640}, size_t{997}, size_t{5120}}) {
    MotionHandle h(speakingBundle());
    runs.push_back(feed(h.m, pcm, piece));
  }
  for (size_t i = 1; i < runs.size(); ++i) {
    ASSERT_EQ(runs[i].size(), runs[0].size());
    EXPECT_EQ(runs[i].si, runs[0].si);
    EXPECT_EQ(runs[i].xs, runs[0].xs);
    EXPECT_EQ(runs[i].xd, runs[0].xd) << "run " << i;
  }
  EXPECT_EQ(static_cast<int>(runs[0].size()), framesOf(pcm.size()));
}

TEST(MotionSchedule, EagerPassesRunAheadOfTheAudio) {
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  MotionHandle lazy(speakingBundle()), keen(speakingBundle());
  // Ten frames of audio: one complete window, no chunk; an eager pass
  // computes the tail and lets all frames but the last go.
  le_motion_push(lazy.m, pcm.data(), 6400);
  EXPECT_EQ(le_motion_avail(lazy.m), 0);
  le_motion_set_eager(keen.m, 3);
  le_motion_push(keen.m, pcm.data(), 6400);
  EXPECT_EQ(le_motion_avail(keen.m), 9);
  EXPECT_EQ(keen.m->eagerFrames, 10);
  EXPECT_EQ(keen.m->provisionalCond, 5);  // window 5, its audio partly zeros
  EXPECT_TRUE(keen.m->provisionalRes);
  Rows rows;
  EXPECT_EQ(le::test::pullAvailable(keen.m, rows), 9);
  // With frames out, a pass waits for 3 new frames of audio.
  le_motion_push(keen.m, pcm.data() + 6400, 2 * 640);
  EXPECT_EQ(le_motion_avail(keen.m), 0);
  EXPECT_EQ(keen.m->eagerFrames, 10);
  le_motion_push(keen.m, pcm.data() + 6400 + 2 * 640, 640);
  EXPECT_EQ(le_motion_avail(keen.m), 3);
  EXPECT_EQ(keen.m->eagerLimit, 12);
  le::test::pullAvailable(keen.m, rows);
  // Up to 81 frames: 75 committed condition rows, still no committed chunk.
  le_motion_push(keen.m, pcm.data() + 13 * 640, (81 - 13) * 640);
  le::test::pullAvailable(keen.m, rows);
  EXPECT_EQ(keen.m->chunkAt, 0);
  EXPECT_EQ(static_cast<int>(rows.size()), 80);
  // Frame 82 completes window 75 and commits chunk 0, which makes a pass
  // due whatever the gain.
  le_motion_push(keen.m, pcm.data() + 81 * 640, 640);
  le::test::pullAvailable(keen.m, rows);
  EXPECT_EQ(keen.m->chunkAt, 1);
  EXPECT_EQ(keen.m->eagerFrames, 82);
  EXPECT_FALSE(keen.m->eagerDue);
  EXPECT_EQ(static_cast<int>(rows.size()), 81);

  // The rest of the clip, then the end: the provisional tail is replaced, so
  // the final rows are those of the patient pipeline; the frame count is the
  // total.
  const size_t fed = 82 * 640;
  for (size_t at = fed; at < pcm.size(); at += 1600) {
    le_motion_push(keen.m, pcm.data() + at, static_cast<int>(std::min<size_t>(1600, pcm.size() - at)));
    le::test::pullAvailable(keen.m, rows);
  }
  le_motion_finish(keen.m);
  while (le::test::pullAvailable(keen.m, rows) > 0) {
  }
  le_motion_push(lazy.m, pcm.data() + 6400, static_cast<int>(pcm.size() - 6400));
  le_motion_finish(lazy.m);
  EXPECT_EQ(le_motion_avail(lazy.m), framesOf(pcm.size()));
  EXPECT_EQ(static_cast<int>(rows.size()), framesOf(pcm.size()));
  EXPECT_EQ(keen.m->finalRows, lazy.m->finalRows);
}

TEST(MotionSchedule, AutomaticEagernessNeverWaitsMoreThanEightFrames) {
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  MotionHandle h(speakingBundle());
  le_motion* m = h.m;
  le_motion_set_eager(m, -1);
  Rows rows;
  le_motion_push(m, pcm.data(), 640);
  EXPECT_EQ(le::test::pullAvailable(m, rows), 0);  // frame 0 waits for frame 1
  le_motion_push(m, pcm.data() + 640, 640);
  EXPECT_EQ(le::test::pullAvailable(m, rows), 1);
  EXPECT_GT(m->eagerMs, 0.0);
  size_t at = 2 * 640;
  for (int k = 0; k < 5; ++k) {
    le_motion_push(m, pcm.data() + at, 8 * 640);
    at += 8 * 640;
    le::test::pullAvailable(m, rows);
    EXPECT_EQ(m->eagerFrames, static_cast<int>(at / 640));
    EXPECT_EQ(static_cast<int>(rows.size()), static_cast<int>(at / 640) - 1);
  }
}

// ---- frames out ----

TEST(MotionFrames, RowWalkLoopsOrTurns) {
  MotionHandle h(speakingBundle());
  const std::vector<float> pcm = clipFloats("speech_3s.wav", 8 * 640);
  auto walk = [&](int start, int dir, int loop) {
    le_motion_reset(h.m, start, dir, loop);
    return feed(h.m, pcm, pcm.size()).si;
  };
  EXPECT_EQ(walk(0, 1, 0), (std::vector<int>{0, 1, 2, 3, 2, 1, 0, 1}));
  EXPECT_EQ(walk(2, -1, 1), (std::vector<int>{2, 1, 0, 3, 2, 1, 0, 3}));
  EXPECT_EQ(walk(99, 1, 1), (std::vector<int>{3, 0, 1, 2, 3, 0, 1, 2}));
  EXPECT_EQ(walk(-4, -1, 0), (std::vector<int>{0, 1, 2, 3, 2, 1, 0, 1}));
  MotionHandle one(le::test::dataPath("motion/dirs/nt1"));
  ASSERT_NE(one.m, nullptr);
  le_motion_reset(one.m, 0, 1, 0);
  EXPECT_EQ(feed(one.m, pcm, pcm.size()).si, std::vector<int>(8, 0));
}

// The keypoints of a frame restated in double: angles from the logits, the
// two rotations, the source and driven keypoints, the stitch graph, the
// bridge onto the target row.
void expectFrame(const le_motion& m, const float* y, const float* exp0, int r, const float* xs, const float* xd,
                 le::test::PlainGraph& stitch) {
  const float* s = m.src.data() + static_cast<size_t>(r) * mo::kSrcDim;
  auto deg = [](const float* l) {
    double top = *std::max_element(l, l + 66), sum = 0, a = 0;
    for (int k = 0; k < 66; ++k) sum += std::exp(l[k] - top);
    for (int k = 0; k < 66; ++k) a += std::exp(l[k] - top) / sum * k;
    return a * 3.0 - 97.5;
  };
  auto rot = [](double p, double yw, double rl, double R[3][3]) {
    p *= M_PI / 180, yw *= M_PI / 180, rl *= M_PI / 180;
    const double x[3][3] = {{1, 0, 0}, {0, std::cos(p), -std::sin(p)}, {0, std::sin(p), std::cos(p)}};
    const double yy[3][3] = {{std::cos(yw), 0, std::sin(yw)}, {0, 1, 0}, {-std::sin(yw), 0, std::cos(yw)}};
    const double z[3][3] = {{std::cos(rl), -std::sin(rl), 0}, {std::sin(rl), std::cos(rl), 0}, {0, 0, 1}};
    double zy[3][3] = {};
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j)
        for (int k = 0; k < 3; ++k) zy[i][j] += z[i][k] * yy[k][j];
    for (int i = 0; i < 3; ++i)
      for (int j = 0; j < 3; ++j) {
        R[i][j] = 0;
        for (int k = 0; k < 3; ++k) R[i][j] += zy[i][k] * x[k][j];
      }
  };
  double R[3][3], Rd[3][3];
  const double p = deg(s + mo::kSrcPitch), yw = deg(s + mo::kSrcYaw), rl = deg(s + mo::kSrcRoll);
  rot(p, yw, rl, R);
  rot(p + m.delta_pitch, yw, rl, Rd);
  std::vector<float> xsLa(63), xdLa(63);
  for (int k = 0; k < 21; ++k) {
    const bool moves = k == 6 || k == 12 || k == 14 || k == 17 || k == 19 || k == 20;
    for (int j = 0; j < 3; ++j) {
      const int i = 3 * k + j;
      const double e = s[i] + (moves ? (static_cast<double>(y[mo::kExpAt + i]) - exp0[i]) * m.rel : 0.0);
      double a = 0, b = 0;
      for (int c = 0; c < 3; ++c) {
        a += R[j][c] * s[mo::kSrcKp + 3 * k + c];
        b += Rd[j][c] * s[mo::kSrcKp + 3 * k + c];
      }
      const double t = j < 2 ? s[mo::kSrcT + j] : 0.0;
      xsLa[static_cast<size_t>(i)] = static_cast<float>(t + s[mo::kSrcScale] * (a + s[i]));
      xdLa[static_cast<size_t>(i)] = static_cast<float>(t + s[mo::kSrcScale] * (b + e));
    }
  }
  const std::vector<float> st = stitch.run({&xsLa, &xdLa}, {{1, 63}, {1, 63}});
  for (int i = 0; i < 63; ++i) {
    const double target = m.target[static_cast<size_t>(r * 63 + i)];
    EXPECT_EQ(xs[i], static_cast<float>(target));
    EXPECT_NEAR(xd[i], target + m.s_bridge * (static_cast<double>(st[static_cast<size_t>(i)]) - xsLa[static_cast<size_t>(i)]),
                2e-6)
        << "keypoint " << i;
  }
}

TEST(MotionFrames, KeypointsOfAFrameAsDefined) {
  for (const std::string& dir : {speakingBundle(), le::test::dataPath("motion/dirs/delta_pitch")}) {
    MotionHandle h(dir);
    le_motion* m = h.m;
    ASSERT_NE(m, nullptr);
    le::test::PlainGraph stitch(dir + "/stitch.onnx");
    le_motion_reset(m, 0, 1, 1);
    const std::vector<float> pcm = clipFloats("speech_3s.wav");
    le_motion_push(m, pcm.data(), static_cast<int>(pcm.size()));
    le_motion_finish(m);
    ASSERT_EQ(le_motion_avail(m), framesOf(pcm.size()));
    std::vector<float> exp0(m->finalRows.begin() + mo::kExpAt, m->finalRows.begin() + mo::kMotionDim);
    for (int f = 0; f < framesOf(pcm.size()); ++f) {
      int r;
      float xs[63], xd[63];
      ASSERT_EQ(le_motion_pull(m, &r, xs, xd, 1), 1);
      EXPECT_EQ(r, f % 4);
      if (f % 9 == 0) expectFrame(*m, m->finalRows.data() + static_cast<size_t>(f) * mo::kMotionDim, exp0.data(), r, xs, xd, stitch);
      // Rows outside the mask and the stitch's reach keep the target
      // exactly, unless the driven pose is pitched.
      if (m->delta_pitch == 0.0f) {
        for (int k : {0, 1, 2, 3, 4, 5, 7, 8, 9, 10, 11, 13, 15})
          for (int j = 0; j < 3; ++j) EXPECT_EQ(xd[3 * k + j], xs[3 * k + j]) << "row " << k;
      } else {
        EXPECT_NE(std::memcmp(xd, xs, sizeof xs), 0);
      }
    }
  }
}

// s_bridge 0 leaves every driven row on its target.
TEST(MotionFrames, NoBridgeNoMotion) {
  TempDir tmp;
  le::test::copyTree(speakingBundle(), tmp / "m");
  le::test::writeFile(tmp / "m/meta.json", R"({"nt": 4, "n_src": 4, "n_emo": 3, "s_bridge": 0})");
  MotionHandle h(tmp / "m");
  const Rows rows = feed(h.m, clipFloats("speech_3s.wav"), 16000);
  ASSERT_EQ(static_cast<int>(rows.size()), 75);
  EXPECT_EQ(rows.xd, rows.xs);
}

// Louder voiced speech opens the mouth (rows 16 to 20, y down); pauses
// and silence leave it where frame 0 had it.
TEST(MotionFrames, LoudSpeechOpensTheMouth) {
  MotionHandle h(speakingBundle());
  const std::vector<float> pcm = clipFloats("speech_10s.wav");
  const Rows rows = feed(h.m, pcm, pcm.size());
  std::vector<double> opening(rows.size()), level(rows.size());
  for (size_t f = 0; f < rows.size(); ++f) {
    opening[f] = rows.xd[f * 63 + 18 * 3 + 1] - rows.xs[f * 63 + 18 * 3 + 1];
    double e = 0;
    for (size_t i = f * 640; i < std::min(pcm.size(), (f + 1) * 640); ++i) e += pcm[i] * pcm[i];
    level[f] = std::sqrt(e / 640);
  }
  double loud = 0, quiet = 0;
  int nl = 0, nq = 0;
  for (size_t f = 0; f < rows.size(); ++f) {
    if (level[f] > 0.08) loud += opening[f], ++nl;
    if (level[f] == 0.0 && (f == 0 || level[f - 1] == 0.0) && f + 1 < rows.size() && level[f + 1] == 0.0)
      quiet += std::abs(opening[f]), ++nq;
  }
  ASSERT_GT(nl, 10);
  ASSERT_GT(nq, 10);
  EXPECT_GT(loud / nl, 0.02);
  EXPECT_LT(quiet / nq, 0.2 * loud / nl);
  MotionHandle s(speakingBundle());
  const Rows silent = feed(s.m, clipFloats("silence_2s.wav"), 32000);
  ASSERT_EQ(static_cast<int>(silent.size()), 50);
  for (size_t f = 0; f < silent.size(); ++f)
    for (int i = 16 * 3; i < 63; ++i) EXPECT_NEAR(silent.xd[f * 63 + i], silent.xs[f * 63 + i], 1e-6);
}

}  // namespace
