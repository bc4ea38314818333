// GridSampleFast: bilinear sampling with border clamp and align_corners=0,
// the one GridSample flavour the director graphs use. The plain kernel is
// exported for the operator, the tests and the benchmark.
#pragma once

#include <cstdint>

namespace le {

// One batch item: x is [C,H,W], grid [H,W,2] (x then y, -1..1 over the
// image), out [C,H,W]. The band form does rows rowBegin..rowEnd-1 only.
void gridsample_fast(const float* x, const float* grid, float* out, int64_t C, int64_t H, int64_t W);
void gridsample_fast_band(const float* x, const float* grid, float* out, int64_t C, int64_t H, int64_t W,
                          int64_t rowBegin, int64_t rowEnd);

// An integral float (a floor) as an index clamped to lo..hi. Clamping before
// the conversion keeps it defined for coordinates far outside the image (and
// for NaN, which lands on lo); in int range it equals int(v) clamped.
inline int64_t opIndexClamped(float v, int64_t lo, int64_t hi) {
  if (!(v >= static_cast<float>(lo))) return lo;
  if (v >= static_cast<float>(hi)) return hi;
  return static_cast<int64_t>(v);
}

}  // namespace le
