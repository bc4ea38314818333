// Running the bundle's two graphs: the encoder over a band of feature frames
// with its attention mask and position rows, and the decoder one frame at a
// time over buffers bound once.
#include <algorithm>
#include <array>
#include <limits>
#include <stdexcept>

#include "audio/a2x.h"
#include "audio/a2x_ort.h"

using namespace le::a2x;

namespace {

size_t elementCount(const Ort::Value& v) { return v.GetTensorTypeAndShapeInfo().GetElementCount(); }

}  // namespace

std::vector<Ort::Value> le_a2x::runEncoder(const float* feat, int lo, int L) {
  const size_t n = static_cast<size_t>(L);
  // Row i may see rows i - left .. i + window; the per-layer reach, not the
  // whole receptive field.
  attnBuf.resize(n * n);
  const float blocked = -std::numeric_limits<float>::infinity();
  for (int i = 0; i < L; ++i)
    for (int j = 0; j < L; ++j)
      attnBuf[static_cast<size_t>(i) * n + static_cast<size_t>(j)] = (j >= i - left && j <= i + window) ? 0.0f : blocked;
  // Beyond the table, positions cycle through its second half.
  posBuf.resize(n * static_cast<size_t>(h));
  const int half = P / 2;
  for (int r = 0; r < L; ++r) {
    const int u = lo + r;
    const int row = u < P ? u : half + (u - P) % (P - half);
    std::copy_n(pos.data() + static_cast<size_t>(row) * h, h, posBuf.data() + static_cast<size_t>(r) * h);
  }
  const Ort::MemoryInfo& mem = le::cpuMemory();
  const std::array<int64_t, 4> featShape{1, L, kLayers, kChannels};
  const std::array<int64_t, 3> posShape{1, L, h};
  const std::array<int64_t, 4> attnShape{1, 1, L, L};
  std::array<Ort::Value, 3> inputs{
      Ort::Value::CreateTensor<float>(mem, const_cast<float*>(feat), n * kFeatFloats, featShape.data(), featShape.size()),
      Ort::Value::CreateTensor<float>(mem, posBuf.data(), posBuf.size(), posShape.data(), posShape.size()),
      Ort::Value::CreateTensor<float>(mem, attnBuf.data(), attnBuf.size(), attnShape.data(), attnShape.size())};
  static const char* const inNames[] = {"feat", "pos_window", "attn"};
  const char* outNames[] = {encOut0.c_str(), encOut1.c_str()};
  std::vector<Ort::Value> out =
      enc.Run(Ort::RunOptions{nullptr}, inNames, inputs.data(), inputs.size(), outNames, widthFlag ? 2 : 1);
  if (elementCount(out[0]) != n * static_cast<size_t>(h))
    throw std::runtime_error("a2x encoder output " + encOut0 + " holds " + std::to_string(elementCount(out[0])) +
                             " values for " + std::to_string(L) + " rows of " + std::to_string(h));
  if (widthFlag && elementCount(out[1]) != n)
    throw std::runtime_error("a2x encoder output " + encOut1 + " holds " + std::to_string(elementCount(out[1])) +
                             " values for " + std::to_string(L) + " rows");
  return out;
}

void le_a2x::bindDecoder() {
  const size_t hs = static_cast<size_t>(h);
  decCtx.assign(hs, 0.0f);
  decPrev.assign(kKp, 0.0f);
  decH.assign(hs, 0.0f);
  decM.assign(kKp, 0.0f);
  decHOut.assign(hs, 0.0f);
  const Ort::MemoryInfo& mem = le::cpuMemory();
  const std::array<int64_t, 2> ctxShape{1, h}, prevShape{1, kKp};
  const std::array<int64_t, 3> hShape{1, 1, h};
  decInputs.clear();
  decInputs.push_back(Ort::Value::CreateTensor<float>(mem, decCtx.data(), hs, ctxShape.data(), ctxShape.size()));
  decInputs.push_back(Ort::Value::CreateTensor<float>(mem, decPrev.data(), kKp, prevShape.data(), prevShape.size()));
  decInputs.push_back(Ort::Value::CreateTensor<float>(mem, decH.data(), hs, hShape.data(), hShape.size()));

  // The outputs are bound to our buffers where the graph declares their
  // shapes (free dimensions being 1); otherwise ONNX Runtime allocates them
  // per step and they are copied.
  int mAt = -1, hAt = -1;
  for (size_t i = 0, n = dec.GetOutputCount(); i < n; ++i) {
    const std::string name = le::outputName(dec, i);
    if (name == "m") mAt = static_cast<int>(i);
    if (name == "h_out") hAt = static_cast<int>(i);
  }
  if (mAt < 0 || hAt < 0) throw std::runtime_error("a2x_dec.onnx lacks the output 'm' or 'h_out'; it is not an a2x decoder");
  decOutputs.clear();
  decOutputsBound = false;
  std::vector<int64_t> shapes[2] = {le::outputShape(dec, static_cast<size_t>(mAt)), le::outputShape(dec, static_cast<size_t>(hAt))};
  const size_t want[2] = {kKp, hs};
  float* buffers[2] = {decM.data(), decHOut.data()};
  for (int k = 0; k < 2; ++k) {
    size_t count = 1;
    for (int64_t& d : shapes[k]) {
      if (d < 0) d = 1;
      count *= static_cast<size_t>(d);
    }
    if (shapes[k].empty() || count != want[k]) {
      decOutputs.clear();
      return;
    }
    decOutputs.push_back(Ort::Value::CreateTensor<float>(mem, buffers[k], want[k], shapes[k].data(), shapes[k].size()));
  }
  decOutputsBound = true;
}

void le_a2x::decodeStep(const float* ctx, const float* prevIn, const float* hIn) {
  std::copy_n(ctx, h, decCtx.data());
  std::copy_n(prevIn, kKp, decPrev.data());
  std::copy_n(hIn, h, decH.data());
  static const char* const inNames[] = {"ctx_t", "prev", "h"};
  static const char* const outNames[] = {"m", "h_out"};
  if (decOutputsBound) {
    dec.Run(Ort::RunOptions{nullptr}, inNames, decInputs.data(), decInputs.size(), outNames, decOutputs.data(), 2);
    return;
  }
  std::vector<Ort::Value> out = dec.Run(Ort::RunOptions{nullptr}, inNames, decInputs.data(), decInputs.size(), outNames, 2);
  if (elementCount(out[0]) != static_cast<size_t>(kKp) || elementCount(out[1]) != static_cast<size_t>(h))
    throw std::runtime_error("a2x decoder outputs hold " + std::to_string(elementCount(out[0])) + " and " +
                             std::to_string(elementCount(out[1])) + " values; m needs 63 and h_out " + std::to_string(h));
  std::copy_n(out[0].GetTensorData<float>(), kKp, decM.data());
  std::copy_n(out[1].GetTensorData<float>(), h, decHOut.data());
}
