// A whole clip at once: features from the 8 s frontend whichever frontend
// serves the live path, the encoder in chunks of 24, and the decoder from the
// same start state as a new utterance, on copies that leave the live stream
// alone.
#include <algorithm>
#include <cstring>

#include "audio/a2x.h"

using namespace le::a2x;

int le_a2x::deltasClip(const float* pcm, int n, float* out, int maxFrames) {
  if (n < 1) return 0;
  const int frames = static_cast<int>((static_cast<int64_t>(n) + kFrameSamples - 1) / kFrameSamples);
  if (frames > maxFrames) return -2;

  w2v8Clip(pcm, n, frames);

  const size_t hs = static_cast<size_t>(h);
  clipBand.resize(static_cast<size_t>(frames) * hs);
  clipWn.assign(widthFlag ? static_cast<size_t>(frames) : 0, 0.0f);
  for (int start = 0; start < frames;) {
    const int end = std::min(start + kBatchChunk, frames);
    const int lo = std::max(start - leftLayers, 0);
    const int hi = std::min(windowLayers + end, frames);
    std::vector<Ort::Value> band24 = runEncoder(clipFeats.data() + static_cast<size_t>(lo) * kFeatFloats, lo, hi - lo);
    const float* rows = band24[0].GetTensorData<float>();
    const size_t k = static_cast<size_t>(start - lo);
    std::copy(rows + k * hs, rows + (k + static_cast<size_t>(end - start)) * hs, clipBand.begin() + static_cast<size_t>(start) * hs);
    if (widthFlag) {
      const float* w = band24[1].GetTensorData<float>();
      std::copy(w + k, w + k + (end - start), clipWn.begin() + start);
    }
    start = end;
  }

  std::vector<float> p = primedPrev, hs0 = primedH;
  if (p.empty() || hs0.empty()) {
    p.assign(kKp, 0.0f);
    hs0.assign(hs, 0.0f);
  }
  clipDeltas.resize(static_cast<size_t>(frames) * kKp);
  for (int f = 0; f < frames; ++f) {
    decodeStep(clipBand.data() + static_cast<size_t>(f) * hs, p.data(), hs0.data());
    float* d = clipDeltas.data() + static_cast<size_t>(f) * kKp;
    for (int i = 0; i < kKp; ++i) {
      const size_t u = static_cast<size_t>(i);
      p[u] = decM[u];
      d[i] = denormalise(decM[u], stdev[u], mean[u]);
    }
    std::copy(decHOut.begin(), decHOut.end(), hs0.begin());
  }
  // Only a complete result reaches the caller.
  std::memcpy(out, clipDeltas.data(), clipDeltas.size() * sizeof(float));
  le::clearBuffer(clipFeats);
  le::clearBuffer(clipBand);
  le::clearBuffer(clipDeltas);
  return frames;
}
