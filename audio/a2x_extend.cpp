// Advancing the three stages to a target frame: features as far as the
// encoder's look-ahead needs them, encoder rows in chunks, then the decoder
// frame by frame.
#include <algorithm>
#include <exception>
#include <stdexcept>

#include "audio/a2x.h"
#include "le/boundary.h"

using namespace le::a2x;

void le_a2x::extend(int target) {
  try {
    extendOrThrow(target);
  } catch (const std::exception& e) {
    le::boundary::store(le::boundary::Family::A2x, "le_a2x extend", e.what());
  }
}

void le_a2x::extendOrThrow(int target) {
  const int frames = audioFrames();
  const int t = std::min(ready(), target);
  if (t <= decoded) return;
  const int need = std::min(windowLayers + t, frames);
  if (need > featBase) {
    const size_t want = static_cast<size_t>(need - featBase) * kFeatFloats;
    if (feats.size() < want) feats.resize(want, 0.0f);
  }
  while (featDone < need)
    if (!frontendStep()) break;
  if (encoded < t) encodeLive(t);
  decodeLive(t);
}

bool le_a2x::frontendStep() { return shortWindow ? windowBlock() : w2v8LiveStep(); }

void le_a2x::encodeLive(int t) {
  const size_t rows = static_cast<size_t>(t - bandBase);
  if (band.size() < rows * static_cast<size_t>(h)) band.resize(rows * static_cast<size_t>(h), 0.0f);
  if (widthFlag && wn.size() < rows) wn.resize(rows, 0.0f);
  int start = encoded;
  while (start < t) {
    int end = std::min(start + kLiveChunk, t);
    const int lo = std::max(start - leftLayers, 0);
    int hi = std::min(windowLayers + end, audioFrames());
    // On the first pass through the position table a band stops at its end,
    // so that no run mixes table rows with wrapped ones.
    if (start < P && hi >= P) hi = P;
    if (start < P && end >= P) end = P;
    if (lo < featBase || start < bandBase) le::failBehind("encoder band");
    const int L = hi - lo;
    if (feats.size() < static_cast<size_t>(hi - featBase) * kFeatFloats)
      throw std::runtime_error("a2x encoder band reaches past the feature frames held");
    std::vector<Ort::Value> out = runEncoder(feats.data() + static_cast<size_t>(lo - featBase) * kFeatFloats, lo, L);
    const float* rowsOut = out[0].GetTensorData<float>();
    const size_t k = static_cast<size_t>(start - lo);
    std::copy(rowsOut + k * h, rowsOut + (k + (end - start)) * h, band.begin() + static_cast<size_t>(start - bandBase) * h);
    if (widthFlag) {
      const float* w = out[1].GetTensorData<float>();
      std::copy(w + k, w + k + (end - start), wn.begin() + (start - bandBase));
    }
    start = end;
    encoded = end;
  }
  encoded = t;
}

void le_a2x::decodeLive(int t) {
  if (decoded < bandBase || decoded < deltaBase) le::failBehind("decoder frame");
  const size_t want = static_cast<size_t>(t - deltaBase) * kKp;
  if (deltas.size() < want) deltas.resize(want, 0.0f);
  for (int f = decoded; f < t; ++f) {
    decodeStep(band.data() + static_cast<size_t>(f - bandBase) * h, prev.data(), hState.data());
    float* d = deltas.data() + static_cast<size_t>(f - deltaBase) * kKp;
    for (int i = 0; i < kKp; ++i) {
      prev[static_cast<size_t>(i)] = decM[static_cast<size_t>(i)];
      d[i] = denormalise(decM[static_cast<size_t>(i)], stdev[static_cast<size_t>(i)], mean[static_cast<size_t>(i)]);
    }
    std::copy(decHOut.begin(), decHOut.end(), hState.begin());
    decoded = f + 1;
  }
}
