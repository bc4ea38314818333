// Rounding to the nearest integer with ties to even, by explicit arithmetic
// rather than the floating-point environment, so that a host that changes the
// rounding mode cannot change a mask.
#pragma once

#include <cmath>

namespace le::tessera {

// f = floor(v), e = v - f: e above 0.5 gives f + 1, e of exactly 0.5 gives f
// plus the low bit of f, otherwise f. A NaN stays a NaN.
inline double roundHalfEven(double v) {
  const double f = std::floor(v);
  const double e = v - f;
  if (e > 0.5) return f + 1.0;
  if (e == 0.5) return f + (std::fmod(f, 2.0) != 0.0 ? 1.0 : 0.0);
  return f;
}

}  // namespace le::tessera
