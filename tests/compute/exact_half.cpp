#include "tests/compute/exact_half.h"

#include <cmath>
#include <cstring>

namespace le::test::exact {

namespace {

__extension__ typedef __int128 i128;

constexpr std::uint16_t kNaN = 0x7e00;
constexpr std::uint16_t kInf = 0x7c00;

bool isNaN(std::uint16_t h) { return (h & 0x7c00) == 0x7c00 && (h & 0x3ff) != 0; }
bool isInf(std::uint16_t h) { return (h & 0x7fff) == 0x7c00; }
bool isZero(std::uint16_t h) { return (h & 0x7fff) == 0; }
bool negative(std::uint16_t h) { return (h & 0x8000) != 0; }

// |h| = mant * 2^exp with exp >= -24.
void decode(std::uint16_t h, std::int64_t& mant, int& exp) {
  const int field = (h >> 10) & 31;
  const std::int64_t frac = h & 0x3ff;
  if (field == 0) {
    mant = frac;
    exp = -24;
  } else {
    mant = frac | 0x400;
    exp = field - 25;
  }
}

int bitLength(i128 v) {  // v > 0
  const auto hi = static_cast<std::uint64_t>(v >> 64), lo = static_cast<std::uint64_t>(v);
  return hi != 0 ? 128 - __builtin_clzll(hi) : 64 - __builtin_clzll(lo);
}

// The half nearest to mag * 2^-unit (mag > 0), with the given sign.
std::uint16_t roundScaled(i128 mag, bool neg, int unit = 48) {
  const std::uint16_t sign = neg ? 0x8000 : 0;
  // The value's binade is 2^(bits - 1 - unit); the half ulp there is
  // 2^(binade - 10), never below 2^-24.
  int binade = bitLength(mag) - 1 - unit;
  if (binade < -14) binade = -14;
  const int shift = binade - 10 + unit;
  i128 q = mag >> shift;
  const i128 rest = mag - (q << shift);
  const i128 half = static_cast<i128>(1) << (shift - 1);
  if (rest > half || (rest == half && (q & 1) != 0)) ++q;
  // q * 2^(binade - 10): a subnormal below 1024 at the lowest binade.
  if (q < 1024) return static_cast<std::uint16_t>(sign | static_cast<std::uint16_t>(q));
  if (q == 2048) {
    q = 1024;
    ++binade;
  }
  if (binade > 15) return sign | kInf;
  return static_cast<std::uint16_t>(sign | ((binade + 15) << 10) | static_cast<int>(q - 1024));
}

// Exact sum of the signed product term and c, then one rounding.
std::uint16_t sumAndRound(bool pNeg, i128 pMag, std::uint16_t c) {
  std::int64_t cm = 0;
  int ce = 0;
  decode(c, cm, ce);
  const i128 cMag = static_cast<i128>(cm) << (ce + 48);
  const i128 s = (pNeg ? -pMag : pMag) + (negative(c) ? -cMag : cMag);
  if (s == 0) {
    // An exact zero is -0 only when both terms are negative zeros.
    const bool bothNegZero = pMag == 0 && cMag == 0 && pNeg && negative(c);
    return bothNegZero ? 0x8000 : 0;
  }
  return roundScaled(s < 0 ? -s : s, s < 0);
}

}  // namespace

std::uint16_t fma(std::uint16_t a, std::uint16_t b, std::uint16_t c) {
  const bool pNeg = negative(a) != negative(b);
  if (isNaN(a) || isNaN(b) || isNaN(c)) return kNaN;
  if (isInf(a) || isInf(b)) {
    if (isZero(a) || isZero(b)) return kNaN;  // infinity times zero
    if (isInf(c) && negative(c) != pNeg) return kNaN;
    return static_cast<std::uint16_t>((pNeg ? 0x8000 : 0) | kInf);
  }
  if (isInf(c)) return c;
  std::int64_t am = 0, bm = 0;
  int ae = 0, be = 0;
  decode(a, am, ae);
  decode(b, bm, be);
  const i128 pMag = static_cast<i128>(am * bm) << (ae + be + 48);
  return sumAndRound(pNeg, pMag, c);
}

std::uint16_t add(std::uint16_t a, std::uint16_t b) {
  // a * 1 + b: multiplying by one is exact and keeps a's sign and zeros.
  return fma(a, 0x3c00, b);
}

std::uint16_t mul(std::uint16_t a, std::uint16_t b) {
  // a * b + (-0): adding a negative zero changes no product, not even +0.
  return fma(a, b, 0x8000);
}

std::uint16_t fromFloat(float x) {
  if (std::isnan(x)) return kNaN;
  const bool neg = std::signbit(x);
  const std::uint16_t sign = neg ? 0x8000 : 0;
  const float mag = std::fabs(x);
  if (mag >= 65536.0f) return sign | kInf;
  // Below 2^-26 everything rounds to a signed zero (2^-25 is the first tie).
  if (mag < 0x1p-26f) return sign;
  std::uint32_t bits;
  std::memcpy(&bits, &mag, sizeof bits);
  const int field = static_cast<int>(bits >> 23);
  const std::int64_t mant = (bits & 0x7fffff) | 0x800000;  // normal: mag >= 2^-26
  const int exp = field - 127 - 23;                         // -49 ... -8
  return roundScaled(static_cast<i128>(mant) << (exp + 50), neg, 50);
}

double value(std::uint16_t h) {
  std::int64_t m = 0;
  int e = 0;
  decode(h, m, e);
  const double v = std::ldexp(static_cast<double>(m), e);
  return negative(h) ? -v : v;
}

}  // namespace le::test::exact
