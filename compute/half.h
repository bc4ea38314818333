// Scalar IEEE binary16 conversions for the engine's half tensors (identity
// tables, teeth bank, head weights).
#pragma once

#include <cstddef>
#include <cstdint>

namespace le {

// Exact binary16 to binary32 widening of n values, subnormals included. A NaN
// stays a NaN with its sign and payload, the quiet bit set, as the processor's
// own conversion gives it.
void halfToFloat(const std::uint16_t* src, float* dst, std::size_t n);

// The binary16 pattern of x, rounded to nearest, ties to even, subnormals
// kept. Overflow and NaN both give infinity of the sign: a tensor written
// through here never holds a NaN.
std::uint16_t f32ToF16(float x);

}  // namespace le
