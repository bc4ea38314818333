// The warp prior's conversion from 8-bit 4:4:4 samples to the planar half
// floats of one P.f16 row, in integers and a table of 256 halves: no
// floating point per pixel, and one result on every machine.
#pragma once

#include <array>
#include <cstdint>

namespace le::driver {

// lut[i] = the binary16 bits of i / 255, divided in single precision.
std::array<uint16_t, 256> priorHalfTable();

// One row of w pixels. Per pixel, in 32-bit integers with arithmetic shifts:
//   base = Y * 76312 - 1188224          ((Y - 16) * 76312 + 32768)
//   R = (base + (V - 128) * 104600) >> 16
//   G = (base - (U - 128) * 25672 - (V - 128) * 53280) >> 16
//   B = (base + (U - 128) * 132200) >> 16
// each t clipped as an unsigned value (above 511: 0, so every negative is
// 0; 255 to 511: 255), then r[x], g[x], b[x] = lut[t].
void yuv444RowToHalf(const uint8_t* y, const uint8_t* u, const uint8_t* v, int w, const uint16_t* lut, uint16_t* r,
                     uint16_t* g, uint16_t* b);

}  // namespace le::driver
