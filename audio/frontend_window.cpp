// The short-window speech frontend: one trunk run over 32000 samples and one
// head run over 8 frames per block. The window of block F always ends R
// frames past the block, so it holds the same samples however the host cut
// its pushes; and the trunk positions are read where the 8 s graph would
// have put each frame, so the features match the reference frontend's.
#include <algorithm>
#include <array>
#include <cmath>
#include <stdexcept>

#include "audio/a2x.h"
#include "audio/a2x_ort.h"
#include "audio/half_round.h"
#include "audio/standardise.h"
#include "audio/w2v_shared.h"

using namespace le::a2x;

namespace {

// 1598/199: the 8 s trunk's 1599 positions spread over a window's 200
// frames, ends aligned.
constexpr double kPositionsPerFrame = 8.030150753768844;

}  // namespace

bool le_a2x::windowBlock() {
  const int F = featFed;
  const int64_t endS = static_cast<int64_t>(F + kBlockFrames + R) * kFrameSamples;
  const int64_t use = usable();
  if (use < endS && !finished) return false;

  const int64_t ws = endS - le::kTrunkSamples;
  window32k.assign(le::kTrunkSamples, 0.0f);
  const int64_t from = std::max<int64_t>(ws, 0), to = std::min(endS, use);
  if (from < to) {
    if (from < audioBase) le::failBehind("w2v window audio");
    std::copy(audio.begin() + (from - audioBase), audio.begin() + (to - audioBase), window32k.begin() + (from - ws));
  }
  le::standardise(window32k.data(), window32k.size());

  const Ort::MemoryInfo& mem = le::cpuMemory();
  const std::array<int64_t, 2> inShape{1, le::kTrunkSamples};
  Ort::Value in = Ort::Value::CreateTensor<float>(mem, window32k.data(), window32k.size(), inShape.data(), inShape.size());
  static const char* const trunkIn[] = {"input_values"};
  const char* trunkOut[] = {le::g_w2vwin_trunk_out.c_str()};
  std::vector<Ort::Value> t = le::g_w2vwin_trunk->Run(Ort::RunOptions{nullptr}, trunkIn, &in, 1, trunkOut, 1);
  const Ort::TensorTypeAndShapeInfo info = t[0].GetTensorTypeAndShapeInfo();
  const std::vector<int64_t> shape = info.GetShape();
  if (info.GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT16 || shape.size() != 3 || shape[1] != le::kTrunkChannels || shape[2] < 1)
    throw std::runtime_error("w2v_win: the trunk's output is not half floats of (1, 640, positions)");
  if (le::g_w2vwin_LT.load() == 0) {
    int expected = 0;
    le::g_w2vwin_LT.compare_exchange_strong(expected, static_cast<int>(shape[2]));
  }
  const int LT = le::g_w2vwin_LT.load();
  if (shape[2] != LT) throw std::runtime_error("w2v_win: the trunk gave " + std::to_string(shape[2]) + " positions, not " + std::to_string(LT));
  const uint16_t* trunk = reinterpret_cast<const uint16_t*>(t[0].GetTensorData<Ort::Float16_t>());

  headIn.resize(static_cast<size_t>(kBlockFrames) * le::kTrunkChannels);
  for (int i = 0; i < kBlockFrames; ++i) {
    const int f = F + i;
    // The 8 s window that would own this frame starts at `base`.
    const int base = f < 200 ? 0 : (f / 100) * 100 - 100;
    const double p = (f - base) * kPositionsPerFrame + static_cast<double>(static_cast<int64_t>(base) * kFrameSamples - ws) / 80.0;
    const double fl = std::floor(p);
    if (fl < 0.0 || fl > static_cast<double>(LT - 1)) throw std::runtime_error("w2v_win: trunk pos out of range");
    const int idx = static_cast<int>(fl);
    const double frac = p - idx;
    const int idx2 = std::min(LT - 1, idx + 1);
    float* row = headIn.data() + static_cast<size_t>(i) * le::kTrunkChannels;
    for (int c = 0; c < le::kTrunkChannels; ++c) {
      const uint16_t* channel = trunk + static_cast<size_t>(c) * LT;
      const double a = le::widen(channel[idx]), b = le::widen(channel[idx2]);
      row[c] = le::throughHalf(static_cast<float>((1.0 - frac) * a + frac * b));
    }
  }

  const std::array<int64_t, 2> headShape{kBlockFrames, le::kTrunkChannels};
  Ort::Value x = Ort::Value::CreateTensor<float>(mem, headIn.data(), headIn.size(), headShape.data(), headShape.size());
  static const char* const headInName[] = {"x"};
  static const char* const headOutName[] = {"emb"};
  std::vector<Ort::Value> e = le::g_w2vwin_head->Run(Ort::RunOptions{nullptr}, headInName, &x, 1, headOutName, 1);
  if (e[0].GetTensorTypeAndShapeInfo().GetElementCount() != static_cast<size_t>(kBlockFrames) * kFeatFloats)
    throw std::runtime_error("w2v_win: the head's emb is not 8 rows of 9216");
  const float* emb = e[0].GetTensorData<float>();

  if (F < featBase) le::failBehind("feat block");
  const size_t want = static_cast<size_t>(F + kBlockFrames - featBase) * kFeatFloats;
  if (feats.size() < want) feats.resize(want, 0.0f);
  float* dst = feats.data() + static_cast<size_t>(F - featBase) * kFeatFloats;
  for (size_t k = 0; k < static_cast<size_t>(kBlockFrames) * kFeatFloats; ++k) dst[k] = le::throughHalf(emb[k]);
  featDone = featFed = F + kBlockFrames;
  return true;
}
