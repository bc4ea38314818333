// Half-precision arithmetic by exact integer reasoning, for tests: every
// half is an integer times 2^-24 and every product of two halves an integer
// times 2^-48, so a * b + c is one 128-bit integer times 2^-48, rounded to
// the half grid by integer shifts. Nothing here uses floating point beyond
// reading the inputs, and nothing is shared with the engine's code.
#pragma once

#include <cstdint>

namespace le::test::exact {

// a * b + c, fused: one rounding to nearest, ties to even; IEEE rules for
// signed zeros, infinities and invalid operations; any NaN result 0x7e00.
std::uint16_t fma(std::uint16_t a, std::uint16_t b, std::uint16_t c);

// a + b and a * b, each rounded once, with the same rules.
std::uint16_t add(std::uint16_t a, std::uint16_t b);
std::uint16_t mul(std::uint16_t a, std::uint16_t b);

// The half nearest to the float x (ties to even), NaN as 0x7e00.
std::uint16_t fromFloat(float x);

// Exact value of a finite half as a double (for building inputs).
double value(std::uint16_t h);

}  // namespace le::test::exact
