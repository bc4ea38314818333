// SubBcastKHWC: a - b with broadcast over at most five axes, for the
// subtraction of the keypoints from the identity grid, [1,1,H,W,D] minus
// [1,K,1,1,D].
#pragma once

#include <cstdint>
#include <vector>

namespace le {

// out[k][i] = a[i] - b[k][i mod D] for i in 0..HW*D-1: a holds HW*D floats,
// b K*D, out K*HW*D.
void subBcastKHWC(const float* a, const float* b, float* out, int64_t K, int64_t HW, int64_t D);

// The broadcast output shape of a and b (right-aligned, at most rank 5);
// throws the operator's refusal texts.
std::vector<int64_t> subBcastShape(const std::vector<int64_t>& a, const std::vector<int64_t>& b);

// a - b over any broadcast of shapes of rank <= 5.
void subBcastGeneral(const float* a, const std::vector<int64_t>& as, const float* b, const std::vector<int64_t>& bs,
                     float* out);

}  // namespace le
