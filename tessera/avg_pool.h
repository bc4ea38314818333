// Average pooling as the teeth pass defines it, for retrieval (by 4) and the
// head (by 2): each block's inputs summed from 0 in float, block row by block
// row, then multiplied by 1 / (k * k). Rows and columns beyond the last
// whole block are dropped.
#pragma once

#include <cstddef>
#include <cstdint>

namespace le::tessera {

inline void avgPool(const float* in, int32_t h, int32_t w, int32_t k, float* out) {
  const int32_t oh = h / k, ow = w / k;
  const float scale = 1.0f / static_cast<float>(k * k);
  for (int32_t oy = 0; oy < oh; ++oy) {
    for (int32_t ox = 0; ox < ow; ++ox) {
      float acc = 0.0f;
      for (int32_t by = 0; by < k; ++by) {
        const float* row = in + static_cast<size_t>(oy * k + by) * w + static_cast<size_t>(ox) * k;
        for (int32_t bx = 0; bx < k; ++bx) acc += row[bx];
      }
      out[static_cast<size_t>(oy) * ow + ox] = acc * scale;
    }
  }
}

}  // namespace le::tessera
