// The learned blend head of the teeth pass, read from the head_weights
// member (tessera_head.v1.pt, a PyTorch checkpoint) without Python: a
// minimal ZIP reader and a minimal pickle interpreter accept what such a
// checkpoint contains and refuse everything else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace le::tessera {

// Tensors in row-major order; convolution weights are [out][in][3][3].
// BlendHead8(16) carries the six `cand` tensors; BlendHead(16) also the four
// `syn` ones, which are loaded and counted but never evaluated.
struct HeadWeights {
  std::vector<float> cand0_w;  // "cand.0.weight" 16,7,3,3
  std::vector<float> cand0_b;  // "cand.0.bias"   16
  std::vector<float> cand2_w;  // "cand.2.weight" 16,16,3,3
  std::vector<float> cand2_b;  // "cand.2.bias"   16
  std::vector<float> cand4_w;  // "cand.4.weight" 1,16,3,3
  std::vector<float> cand4_b;  // "cand.4.bias"   1
  std::vector<float> syn0_w;   // "syn.0.weight"  16,3,3,3
  std::vector<float> syn0_b;   // "syn.0.bias"    16
  std::vector<float> syn2_w;   // "syn.2.weight"  1,16,3,3
  std::vector<float> syn2_b;   // "syn.2.bias"    1
  float envelope = 12.0f / 255.0f;  // bits 0x3D40C0C1; the GPU road's compose clamp

  // Sum of all element counts: 3,489 or 4,082.
  int64_t params() const;
};

// Reads the checkpoint's bytes; throws std::runtime_error on every refusal.
// The reader touches nothing outside [bytes, bytes + size) and allocates in
// proportion to size.
HeadWeights loadHeadPt(const uint8_t* bytes, size_t size);
inline HeadWeights loadHeadPt(const std::vector<uint8_t>& bytes) { return loadHeadPt(bytes.data(), bytes.size()); }

}  // namespace le::tessera
