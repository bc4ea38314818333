// The paste's row kernel, dispatched at run time like every vector kernel.
#pragma once

#include <cstdint>

namespace le::simd {

// One frame row of the reference paste: for x in [x0, x1], the source
// position X = X0 + adelta[x - x0], Y = Y0 + bdelta[x - x0] (1/1024 pixel),
// the mask weight rounded to 8 bits, the 8x8 Lanczos sample of rgbx
// (side*side pixels of 4 floats, zero border, row sums then column sum in
// ascending tap order) and the truncating blend into dstRow[3x .. 3x+2].
// Pixels out of reach or under a zero mask are left as they are.
void pasteLanczos8Row(const float* rgbx, int side, const uint8_t* mask, const float* lanc, const float* bil,
                      const int* adelta, const int* bdelta, int X0, int Y0, int x0, int x1, uint8_t* dstRow);

}  // namespace le::simd
