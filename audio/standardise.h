// Zero-mean, unit-variance scaling of one window of speech samples, as the
// speech encoder was trained: statistics in double over the whole window,
// zero padding included, the scale in float.
#pragma once

#include <cstddef>

namespace le {

// In place over n samples: mean and variance summed in double in ascending
// order, inv = 1 / sqrtf((float)var + 1e-7f), each x becomes
// (float)((x - mean) * inv) in double. A silent window stays all zeros.
void standardise(float* x, std::size_t n);

}  // namespace le
