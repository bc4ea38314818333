// Whole numbers out of JSON doubles. The teeth members state integers as
// JSON numbers, and a conversion of a double that no 32-bit integer holds
// (or of a NaN, which strtod reads from "nan") would be undefined; these
// conversions are defined for every double, so a hostile member can only
// ever produce a value that a later check refuses.
#pragma once

#include <cstdint>
#include <limits>

#include "tessera/round.h"

namespace le::tessera {

// Truncation toward zero, saturating at the 32-bit range; NaN gives 0.
inline int32_t truncToI32(double v) {
  if (!(v == v)) return 0;
  if (v <= static_cast<double>(std::numeric_limits<int32_t>::min())) return std::numeric_limits<int32_t>::min();
  if (v >= static_cast<double>(std::numeric_limits<int32_t>::max())) return std::numeric_limits<int32_t>::max();
  return static_cast<int32_t>(v);
}

// Rounding to nearest with ties to even, then saturating as above.
inline int32_t roundToI32(double v) { return truncToI32(roundHalfEven(v)); }

}  // namespace le::tessera
