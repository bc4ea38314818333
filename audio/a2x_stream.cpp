// The live stream's own bookkeeping: a new utterance, audio in, rows out,
// and the trims that keep every buffer bounded however long the utterance.
#include <algorithm>
#include <cstring>

#include "audio/a2x.h"

namespace le {

void clearBuffer(std::vector<float>& v) {
  v.clear();
  if (v.capacity() * sizeof(float) > 0x1000000) std::vector<float>().swap(v);
}

}  // namespace le

namespace {

// Drops the first n floats (bounded by the size); no allocation.
void eraseFront(std::vector<float>& v, size_t n) {
  v.erase(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(std::min(n, v.size())));
}

}  // namespace

using namespace le::a2x;
using le::clearBuffer;

void le_a2x::reset(int start, int dir, int loop) {
  if (start < 0) start = rowAt(pulled);
  clearBuffer(audio);
  clearBuffer(feats);
  clearBuffer(band);
  clearBuffer(wn);
  clearBuffer(deltas);
  audioBase = 0;
  finished = false;
  pulled = featFed = featDone = featBase = encoded = bandBase = deltaBase = decoded = 0;
  if (!primedPrev.empty() && !primedH.empty()) {
    prev = primedPrev;
    hState = primedH;
  } else {
    prev.assign(kKp, 0.0f);
    hState.assign(static_cast<size_t>(h), 0.0f);
  }
  rowStart = start;
  rowDir = dir < 0 ? -1 : 1;
  rowLoop = loop;
}

void le_a2x::push(const float* pcm, int n) {
  if (n < 1) return;
  audio.insert(audio.end(), pcm, pcm + n);
}

int le_a2x::total() const {
  if (!finished) return -1;
  return static_cast<int>((samples() + kFrameSamples - 1) / kFrameSamples);
}

int le_a2x::avail() {
  const int r = ready();
  if (decoded < r) extend(std::min(r, decoded + (shortWindow ? kBlockFrames : kLiveChunk)));
  return std::max(decoded - pulled, 0);
}

int le_a2x::pull(int* rows, float* xsOut, float* xdOut, float* wnOut, int max) {
  if (pulled >= decoded) extend(static_cast<int>(std::min<int64_t>(ready(), static_cast<int64_t>(pulled) + max)));
  const int limit = std::min(ready(), decoded);
  if (pulled >= limit || max < 1) return 0;
  const int n = std::min(max, limit - pulled);
  for (int i = 0; i < n; ++i) {
    const int f = pulled;
    const int r = rowAt(f);
    rows[i] = r;
    const float* src = xs.data() + static_cast<size_t>(r) * kKp;
    const float* d = deltas.data() + static_cast<size_t>(f - deltaBase) * kKp;
    float* xsRow = xsOut + static_cast<size_t>(i) * kKp;
    float* xdRow = xdOut + static_cast<size_t>(i) * kKp;
    std::memcpy(xsRow, src, kKp * sizeof(float));
    for (int k = 0; k < kKp; ++k) xdRow[k] = src[k] + d[k];
    if (wnOut) {
      const int64_t at = static_cast<int64_t>(f) - bandBase;
      wnOut[i] = (widthFlag && at >= 0 && at < static_cast<int64_t>(wn.size())) ? wn[static_cast<size_t>(at)] : 0.0f;
    }
    ++pulled;
  }
  trim();
  return n;
}

void le_a2x::trim() {
  // Audio: the frontend never looks further back than one trunk window
  // before its next input.
  const int64_t keepAudio = std::max<int64_t>(static_cast<int64_t>(featFed) * kFrameSamples, 32000) - 32000;
  if (keepAudio - audioBase >= kTrimSamples) {
    const size_t n = std::min(static_cast<size_t>(keepAudio - audioBase), audio.size());
    eraseFront(audio, n);
    audioBase += static_cast<int64_t>(n);
  }
  // Features: the encoder's next chunk reaches leftLayers frames behind.
  const int keepFeat = std::max(std::min(featDone, encoded - leftLayers), 0);
  if (keepFeat - featBase >= kTrimFrames) {
    eraseFront(feats, static_cast<size_t>(keepFeat - featBase) * kFeatFloats);
    featBase = keepFeat;
  }
  const int keepBand = std::min(decoded, pulled);
  if (keepBand - bandBase >= kTrimFrames) {
    eraseFront(band, static_cast<size_t>(keepBand - bandBase) * static_cast<size_t>(h));
    eraseFront(wn, static_cast<size_t>(keepBand - bandBase));
    bandBase = keepBand;
  }
  if (pulled - deltaBase >= kTrimFrames) {
    eraseFront(deltas, static_cast<size_t>(pulled - deltaBase) * kKp);
    deltaBase = pulled;
  }
}
