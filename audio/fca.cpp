// le_fca: both graphs opened once; a call runs the encoder every 100 frames
// over an 8 s window and the frame graph once per frame, and keeps nothing.
#include "audio/fca.h"

#include <algorithm>
#include <array>
#include <stdexcept>
#include <string>
#include <vector>

#include "audio/a2x_ort.h"
#include "audio/fca_centre.h"
#include "audio/standardise.h"
#include "compute/threads.h"

using namespace le::fca;

namespace {

constexpr int kWindowSamples = 128000;
constexpr int kFrameSamples = 640;
constexpr size_t kEmbFloatsNeeded = static_cast<size_t>(kLastLayer + 1) * kWindowFrames * kFeat;

}  // namespace

namespace le {

std::unique_ptr<le_fca> createFca(const char* w2vPath, const char* fcaPath, int threads) {
  auto f = std::make_unique<le_fca>();
  f->env = Ort::Env(a2xOrtLogLevel(), "le_fca");
  f->options.SetIntraOpNumThreads(threads <= 0 ? pool::threads() : threads);
  f->options.SetInterOpNumThreads(1);
  f->options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  f->w2v = Ort::Session(f->env, w2vPath ? w2vPath : "", f->options);
  f->dec = Ort::Session(f->env, fcaPath ? fcaPath : "", f->options);
  f->memory = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  return f;
}

}  // namespace le

int le_fca::deltas(const float* pcm, int n, float* out) {
  const int frames = static_cast<int>((static_cast<int64_t>(n) + kFrameSamples - 1) / kFrameSamples);
  std::vector<float> emb(static_cast<size_t>(frames) * kFeat, 0.0f);
  std::vector<uint8_t> done(static_cast<size_t>(frames), 0);
  std::vector<float> window(kWindowSamples, 0.0f);

  static const char* const encIn[] = {"input_values"};
  static const char* const encOut[] = {"audio_emb"};
  const std::array<int64_t, 2> windowShape{1, kWindowSamples};
  for (int B = 0; B < frames; B += kHop) {
    std::fill(window.begin(), window.end(), 0.0f);
    const int64_t from = static_cast<int64_t>(B) * kFrameSamples;
    const int64_t left = static_cast<int64_t>(n) - from;
    if (left > 0) std::copy_n(pcm + from, std::min<int64_t>(left, kWindowSamples), window.begin());
    le::standardise(window.data(), window.size());
    Ort::Value in = Ort::Value::CreateTensor<float>(memory, window.data(), window.size(), windowShape.data(), 2);
    std::vector<Ort::Value> r = w2v.Run(runOptions, encIn, &in, 1, encOut, 1);
    const size_t got = r[0].GetTensorTypeAndShapeInfo().GetElementCount();
    if (got < kEmbFloatsNeeded)
      throw std::runtime_error("the speech encoder's audio_emb holds " + std::to_string(got) +
                               " floats, fewer than 10 layers of 200 x 768");
    const float* audioEmb = r[0].GetTensorData<float>();
    for (int i = B == 0 ? 0 : 50; i < kWindowFrames; ++i) {
      const int t = B + i;
      if (t >= frames) break;
      if (done[static_cast<size_t>(t)]) continue;
      averageLayers(audioEmb, i, emb.data() + static_cast<size_t>(t) * kFeat);
      done[static_cast<size_t>(t)] = 1;
    }
  }

  std::vector<float> energy(static_cast<size_t>(frames));
  energies(emb.data(), frames, energy.data());
  std::vector<float> cen(emb.size());
  centre(emb.data(), energy.data(), frames, cen.data());
  std::vector<float>().swap(emb);
  std::vector<float> cond(static_cast<size_t>(frames) * kCond);
  conditions(cen.data(), frames, cond.data());
  std::vector<float>().swap(cen);

  // The frame graph reads the condition rows where they lie and its own
  // state from two fixed buffers; its results land in two more.
  std::array<float, kKp> prev{}, m{};
  std::array<float, kHidden> h{}, hn{};
  const std::array<int64_t, 2> condShape{1, kCond}, prevShape{1, kKp}, mShape{1, kKp};
  const std::array<int64_t, 3> hShape{1, 1, kHidden};
  static const char* const decIn[] = {"cond", "prev", "h"};
  static const char* const decOut[] = {"m", "hn"};
  Ort::Value outputs[2] = {Ort::Value::CreateTensor<float>(memory, m.data(), m.size(), mShape.data(), 2),
                           Ort::Value::CreateTensor<float>(memory, hn.data(), hn.size(), hShape.data(), 3)};
  Ort::Value inputs[3] = {Ort::Value(nullptr),
                          Ort::Value::CreateTensor<float>(memory, prev.data(), prev.size(), prevShape.data(), 2),
                          Ort::Value::CreateTensor<float>(memory, h.data(), h.size(), hShape.data(), 3)};
  for (int t = 0; t < frames; ++t) {
    inputs[0] = Ort::Value::CreateTensor<float>(memory, cond.data() + static_cast<size_t>(t) * kCond, kCond,
                                                condShape.data(), 2);
    dec.Run(runOptions, decIn, inputs, 3, decOut, outputs, 2);
    std::copy(m.begin(), m.end(), out + static_cast<size_t>(t) * kKp);
    prev = m;
    h = hn;
  }
  return frames;
}
