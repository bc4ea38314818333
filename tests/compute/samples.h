// Test inputs for the compute kernels: awkward values (signed zeros,
// subnormals, exact ties, the edges of the half range, infinities, NaNs)
// mixed with seeded random ones, and bit-level comparisons.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <vector>

namespace le::test {

inline float floatFromBits(std::uint32_t b) {
  float x;
  std::memcpy(&x, &b, sizeof x);
  return x;
}

inline std::uint32_t bitsOfFloat(float x) {
  std::uint32_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

// Floats that sit where half rounding is easy to get wrong.
inline std::vector<float> awkwardFloats() {
  std::vector<std::uint32_t> bits = {
      0x00000000, 0x80000000,                          // signed zeros
      0x00000001, 0x807fffff, 0x00800000,              // float subnormals, FLT_MIN
      0x33000000, 0xb3000000,                          // 2^-25: half of the smallest half, a tie to 0
      0x33000001, 0x32ffffff,                          // either side of it
      0x33400000,                                      // 1.5 * 2^-24: tie between subnormals 1 and 2
      0x33a00000,                                      // 2.5 * 2^-24: tie that goes down to 2
      0x387fc000, 0x387fe000, 0x387ff000, 0x38800000,  // top of the subnormal range, a carry into it
      0x3f801000, 0x3f803000, 0x3f801001, 0x3f802fff,  // ties near 1 to even, and beside them
      0x477fe000, 0x477fefff, 0x477ff000, 0x47800000,  // 65504, just under 65520, 65520, 65536
      0xc77ff000,                                      // -65520
      0x7f800000, 0xff800000,                          // infinities
      0x7fc00000, 0xffc00000, 0x7f800001, 0xff800001,  // quiet and signalling NaNs
      0x7fbfe000, 0x7fffffff, 0x7fc02000,              // NaN payloads in the kept bits
      0x33d6bf95,                                      // 1e-7: a subnormal half
      0x3f800000, 0xbf800000, 0x3eaaaaab,              // 1, -1, 1/3
      0x3b808081,                                      // 1/255
  };
  std::vector<float> out;
  for (std::uint32_t b : bits) out.push_back(floatFromBits(b));
  return out;
}

// `count` floats: awkward values, uniformly random bit patterns (every
// exponent, NaNs included), exact midpoints between neighbouring halves, and
// ordinary values in [-4, 4].
inline std::vector<float> mixedFloats(std::size_t count, std::uint32_t seed) {
  std::mt19937 rng(seed);
  const std::vector<float> awkward = awkwardFloats();
  std::vector<float> out(count);
  for (std::size_t i = 0; i < count; ++i) {
    switch (rng() % 4) {
      case 0:
        out[i] = awkward[rng() % awkward.size()];
        break;
      case 1:
        out[i] = floatFromBits(static_cast<std::uint32_t>(rng()));
        break;
      case 2: {
        // A half value plus half a half-ulp: an exact tie in the half grid
        // for normal halves (subnormals are covered by the awkward set).
        const int e = static_cast<int>(rng() % 29) + 1;
        const int m = static_cast<int>(rng() % 1024);
        const double mid = std::ldexp(1024.0 + m + 0.5, e - 25);
        out[i] = static_cast<float>((rng() & 1) ? -mid : mid);
        break;
      }
      default:
        out[i] = std::uniform_real_distribution<float>(-4.0f, 4.0f)(rng);
        break;
    }
  }
  return out;
}

// `count` halves: uniform bit patterns (subnormals, infinities and NaNs
// among them) and ordinary values near 1.
inline std::vector<std::uint16_t> mixedHalves(std::size_t count, std::uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<std::uint16_t> out(count);
  for (std::size_t i = 0; i < count; ++i) {
    if (rng() % 2) {
      out[i] = static_cast<std::uint16_t>(rng());
    } else {
      out[i] = static_cast<std::uint16_t>(0x3400 + rng() % 0x0c00);  // 0.25 .. 2
    }
  }
  return out;
}

// The same bits. For results of arithmetic, two NaNs also count as equal:
// when two NaNs meet in an add or multiply, which payload survives depends
// on the operand order the compiler picked, and the kernels define values,
// not NaN payloads.
inline bool sameFloatBits(float a, float b) { return bitsOfFloat(a) == bitsOfFloat(b); }
inline bool sameFloatValue(float a, float b) {
  return sameFloatBits(a, b) || (std::isnan(a) && std::isnan(b));
}
inline bool sameHalfValue(std::uint16_t a, std::uint16_t b) {
  const auto isNaN = [](std::uint16_t h) { return (h & 0x7c00) == 0x7c00 && (h & 0x3ff) != 0; };
  return a == b || (isNaN(a) && isNaN(b));
}

inline std::string hexBits(float x) {
  char buf[16];
  std::snprintf(buf, sizeof buf, "0x%08x", bitsOfFloat(x));
  return buf;
}

inline std::string hexHalf(std::uint16_t h) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "0x%04x", h);
  return buf;
}

// Lengths that exercise empty input, tails shorter than any vector, exact
// multiples of 4, 8 and 16 lanes, and tails after several vectors.
inline const std::vector<std::size_t>& testLengths() {
  static const std::vector<std::size_t> lengths = {0,  1,  2,  3,  4,  5,  7,  8,  9,  15,
                                                   16, 17, 23, 31, 32, 33, 47, 64, 100, 1027};
  return lengths;
}

}  // namespace le::test
