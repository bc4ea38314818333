// A slow, plain paste written from the recipe, pixel by pixel, for the tests
// to hold the engine's bytes against. It shares nothing with the engine but
// the interpolation tables, which are checked on their own.
#pragma once

#include <cstdint>
#include <vector>

namespace le::test {

struct PasteTables {
  std::vector<float> gauss, lanc, bil, cubic;
};

// mode: 0 Lanczos reference, 1 bicubic, 2 bilinear.
void referencePaste(const std::vector<uint8_t>& mask, int side, float amount, const PasteTables& t, int mode,
                    const float* crop, float scale, const float* M, uint8_t* frame, int W, int H);

}  // namespace le::test
