// The fixed tables of the paste, built once per Paste in double precision
// and rounded to float: the unsharp Gaussian and the 32-phase interpolation
// weights of the inverse warp.
#pragma once

#include <vector>

namespace le::paste {

// ksize Gaussian taps of the given sigma, normalised to sum 1.
std::vector<float> gaussTaps(int ksize, float sigma);

// 32 phases x 8 taps of Lanczos-4; phase 0 is the unit tap 3.
std::vector<float> lanczosTable();

// 32 phases x 2 taps of linear interpolation.
std::vector<float> bilinearTable();

// 32 phases x 4 taps of Keys' cubic with A = -0.75.
std::vector<float> cubicTable();

}  // namespace le::paste
