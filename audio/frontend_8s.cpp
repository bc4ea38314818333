// The 8 s speech frontend: one graph run over 128000 samples, hopping 100
// frames. Live, a frame after the first 200 comes from the upper half of a
// window (local frames 100 to 199), and a window still filling is run again
// when more audio arrives; a frame once written stays.
#include <algorithm>
#include <array>
#include <stdexcept>

#include "audio/a2x.h"
#include "audio/a2x_ort.h"
#include "audio/half_round.h"
#include "audio/standardise.h"
#include "audio/w2v_shared.h"

using namespace le::a2x;

namespace {

// A window of 128000 samples: the first `available` of pcm (none if that is
// not positive), zeros beyond, then standardised.
void fillWindow(std::vector<float>& window, const float* pcm, int64_t available) {
  window.assign(le::kW2vWindowSamples, 0.0f);
  const int64_t count = std::min<int64_t>(available, le::kW2vWindowSamples);
  if (count > 0) std::copy_n(pcm, count, window.begin());
  le::standardise(window.data(), window.size());
}

}  // namespace

namespace le {

Ort::Value w2v8Run(Ort::Session& s, std::vector<float>& window) {
  const Ort::MemoryInfo& mem = cpuMemory();
  const std::array<int64_t, 2> shape{1, le::kW2vWindowSamples};
  Ort::Value in = Ort::Value::CreateTensor<float>(mem, window.data(), window.size(), shape.data(), shape.size());
  static const char* const inName[] = {"input_values"};
  static const char* const outName[] = {"audio_emb"};
  std::vector<Ort::Value> out = s.Run(Ort::RunOptions{nullptr}, inName, &in, 1, outName, 1);
  if (out[0].GetTensorTypeAndShapeInfo().GetElementCount() != le::kZeroEmbFloats)
    throw std::runtime_error("w2v: audio_emb is not (12, 200, 768)");
  return std::move(out[0]);
}

void w2v8Frame(const float* out, int frame, float* dst) {
  for (int l = 0; l < kLayers; ++l) {
    const float* src = out + (static_cast<size_t>(l) * kW2vWindowFrames + static_cast<size_t>(frame)) * kChannels;
    float* d = dst + static_cast<size_t>(l) * kChannels;
    for (int c = 0; c < kChannels; ++c) d[c] = throughHalf(src[c]);
  }
}

}  // namespace le

bool le_a2x::w2v8LiveStep() {
  Ort::Session& s = le::w2v8(this);
  const int B = featFed;
  const int64_t startS = static_cast<int64_t>(B) * kFrameSamples;
  const int64_t available = usable() - startS;
  if (available > 0 && startS < audioBase) le::failBehind("8 s window audio");
  fillWindow(window128k, available > 0 ? audio.data() + (startS - audioBase) : nullptr, available);
  const Ort::Value out = le::w2v8Run(s, window128k);
  const float* emb = out.GetTensorData<float>();

  int limit = B + le::kW2vWindowFrames;
  if (!finished) limit = std::min(limit, std::max(audioFramesOf(usable()) - lag, 0));
  for (int i = B == 0 ? 0 : 50; i < le::kW2vWindowFrames; ++i) {
    const int f = B + i;
    if (f < featDone) continue;
    if (f >= limit) break;
    if (f < featBase) le::failBehind("feat frame");
    const size_t want = static_cast<size_t>(f + 1 - featBase) * kFeatFloats;
    if (feats.size() < want) feats.resize(want, 0.0f);
    le::w2v8Frame(emb, i, feats.data() + static_cast<size_t>(f - featBase) * kFeatFloats);
  }
  featDone = std::max(limit, featDone);
  if (finished || limit == B + le::kW2vWindowFrames) {
    featFed = B + le::kW2vHopFrames;
    return true;
  }
  return false;
}

void le_a2x::w2v8Clip(const float* pcm, int n, int frames) {
  Ort::Session& s = le::w2v8(this);
  clipFeats.resize(static_cast<size_t>(frames) * kFeatFloats);
  int done = 0;  // frames written: the first window to reach a frame writes it
  for (int B = 0; B < frames; B += le::kW2vHopFrames) {
    const int64_t startS = static_cast<int64_t>(B) * kFrameSamples;
    fillWindow(window128k, pcm + std::min<int64_t>(startS, n), n - startS);
    const Ort::Value out = le::w2v8Run(s, window128k);
    const float* emb = out.GetTensorData<float>();
    for (int i = B == 0 ? 0 : 50; i < le::kW2vWindowFrames; ++i) {
      const int f = B + i;
      if (f >= frames) break;
      if (f < done) continue;
      le::w2v8Frame(emb, i, clipFeats.data() + static_cast<size_t>(f) * kFeatFloats);
    }
    done = std::max(done, std::min(B + le::kW2vWindowFrames, frames));
  }
}
