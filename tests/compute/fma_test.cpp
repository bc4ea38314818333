// The exact half-precision fused multiply-add against integer reasoning
// (exact_half.h): the scalar definition (half_arith.h) and the dispatched
// kernel on every compiled target, on knife edges built to break a wrong
// rounding and on a hundred million random triples.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

#include "compute/half_arith.h"
#include "compute/simd.h"
#include "tests/compute/exact_half.h"
#include "tests/compute/targets.h"

namespace le::test {
namespace {

struct Planes {
  std::vector<std::uint16_t> a, b, c;
  void add(std::uint16_t x, std::uint16_t y, std::uint16_t z) {
    a.push_back(x);
    b.push_back(y);
    c.push_back(z);
  }
  size_t size() const { return a.size(); }
};

std::uint16_t neg(std::uint16_t h) { return static_cast<std::uint16_t>(h ^ 0x8000); }

// A half from sign, biased exponent field and fraction.
std::uint16_t half(int sign, int field, int frac) {
  return static_cast<std::uint16_t>((sign << 15) | (field << 10) | frac);
}

// Triples whose exact result is a tie between two halves or lies a hair
// short of one, where a float fused multiply-add loses the hair; subnormal
// results and their ties; the edge of overflow; signed zeros and exact
// cancellation; the IEEE cases of infinities and NaNs.
Planes knifeEdges() {
  Planes p;
  // Against c of every binade: the product is a power of two t at half an
  // ulp of c (or a quarter, the tie below a binade), of either sign, so that
  // c + t is a tie; or t (1 + 2^-10) (1 - 2^-10) = t (1 - 2^-20), a hair
  // short of it, with bits 31 places below c's.
  const std::uint16_t one = 0x3c00, shy = 0x3bfe;  // 1 - 2^-10
  for (int field = 1; field <= 30; ++field) {
    for (const int frac : {0, 1, 2, 3, 0x155, 0x2aa, 0x3fe, 0x3ff}) {
      for (const int sign : {0, 1}) {
        const std::uint16_t c = half(sign, field, frac);
        for (const int below : {11, 12}) {
          const int e = field - 15 - below;
          if (e < -24) continue;
          const std::uint16_t t = e >= -14 ? half(0, e + 15, 0) : static_cast<std::uint16_t>(1 << (e + 24));
          for (const int s : {0, 1}) {
            p.add(s ? neg(t) : t, one, c);
            if (e >= -14) p.add(half(s, e + 15, 1), shy, c);  // t (1 + 2^-10), times 1 - 2^-10
          }
        }
        // Far below c: the product only decides a tie that isn't there.
        p.add(0x0001, 0x0001, c);
        p.add(0x8001, 0x0001, c);
      }
    }
  }
  // Subnormal results: products of subnormals and small normals, around
  // the subnormal ties and the step into the normal range.
  for (int i = 0; i < 1024; i += 7) {
    for (const std::uint16_t c : {std::uint16_t{0}, std::uint16_t{0x8000}, std::uint16_t{0x0001}, std::uint16_t{0x8001},
                                  std::uint16_t{0x03ff}, std::uint16_t{0x0400}, std::uint16_t{0x83ff}}) {
      p.add(static_cast<std::uint16_t>(i), 0x3800, c);  // i/2: ties at odd i
      p.add(static_cast<std::uint16_t>(i), 0x3400, c);  // i/4
      p.add(static_cast<std::uint16_t>(i), 0x3bff, c);
      p.add(static_cast<std::uint16_t>(0x0400 | i), 0x3801, c);
    }
  }
  // Overflow: 65504 + 16 is the tie to infinity; 65504 + 15.99 is not.
  p.add(0x4c00, 0x3c00, 0x7bff);  // 16 * 1 + 65504 -> inf
  p.add(0x4bff, 0x3c00, 0x7bff);  // 15.99 + 65504 -> 65504
  p.add(0x4c00, 0x3c00, 0xfbff);
  p.add(0xcc00, 0x3c00, 0xfbff);  // -> -inf
  p.add(0x7bff, 0x7bff, 0xfbff);  // 65504^2 - 65504 -> inf
  p.add(0x7bff, 0x7bff, 0xfc00);  // finite + -inf -> -inf
  p.add(0x5c00, 0x5800, 0xfbff);  // 256 * 128 - 65504 = -32736, exact
  p.add(0x5c00, 0x5c00, 0xfbff);  // 65536 - 65504 = 32
  p.add(0x5c00, 0x5c01, 0xfbff);  // 65792 - 65504
  p.add(0x6000, 0x6000, 0xfbff);  // 2^18 - 65504: overflow past c
  p.add(0x7bff, 0x3c00, 0x4c00);  // 65504 + 16
  p.add(0x7bff, 0x3c00, 0x4bff);
  // Signed zeros and exact cancellation.
  for (const std::uint16_t a : {std::uint16_t{0}, std::uint16_t{0x8000}, std::uint16_t{0x3c00}, std::uint16_t{0xbc00}}) {
    for (const std::uint16_t b : {std::uint16_t{0}, std::uint16_t{0x8000}, std::uint16_t{0x3c00}}) {
      for (const std::uint16_t c :
           {std::uint16_t{0}, std::uint16_t{0x8000}, std::uint16_t{0x3c00}, std::uint16_t{0xbc00}}) {
        p.add(a, b, c);
      }
    }
  }
  p.add(0x0001, 0x0001, 0x8000);  // 2^-48 + -0 -> +0 (a positive tiny rounds to +0)
  p.add(0x8001, 0x0001, 0x0000);  // -2^-48 + 0 -> -0
  p.add(0x8001, 0x0001, 0x8000);
  p.add(0x3555, 0x3555, 0x0000);
  // Infinities and NaNs.
  for (const std::uint16_t x : {std::uint16_t{0x7c00}, std::uint16_t{0xfc00}, std::uint16_t{0x7e00},
                                std::uint16_t{0xfe01}, std::uint16_t{0x7c01}}) {
    for (const std::uint16_t y : {std::uint16_t{0}, std::uint16_t{0x8000}, std::uint16_t{0x3c00},
                                  std::uint16_t{0xbc00}, std::uint16_t{0x7c00}, std::uint16_t{0xfc00}}) {
      p.add(x, y, 0x3c00);
      p.add(y, x, 0xfc00);
      p.add(y, 0x3c00, x);
      p.add(x, 0x3c00, y);
    }
  }
  return p;
}

// Random triples in several mixtures: all bit patterns; products close to
// -c (cancellation, and results near ties); small operands (subnormal
// results); large ones (overflow).
void randomTriples(std::mt19937_64& rng, size_t n, Planes& p) {
  p.a.resize(n);
  p.b.resize(n);
  p.c.resize(n);
  for (size_t i = 0; i < n; ++i) {
    const std::uint64_t r = rng();
    auto a = static_cast<std::uint16_t>(r), b = static_cast<std::uint16_t>(r >> 16),
         c = static_cast<std::uint16_t>(r >> 32);
    const int mode = static_cast<int>((r >> 48) & 3);
    const auto field = [&](int lo, int hi, std::uint16_t h, int shift) {
      const int f = lo + static_cast<int>((r >> shift) % static_cast<std::uint64_t>(hi - lo + 1));
      return static_cast<std::uint16_t>((h & 0x83ff) | (f << 10));
    };
    if (mode == 1) {
      // |a*b| within a few binades of |c|: a, b in 2^-7..2^7, c set from them.
      a = field(8, 22, a, 50);
      b = field(8, 22, b, 54);
      const int ea = (a >> 10) & 31, eb = (b >> 10) & 31;
      const int ec = std::max(1, std::min(30, ea + eb - 15 + static_cast<int>((r >> 58) % 5) - 2));
      c = static_cast<std::uint16_t>((c & 0x83ff) | (ec << 10));
    } else if (mode == 2) {
      a = field(0, 14, a, 50);
      b = field(0, 14, b, 54);
      c = field(0, 6, c, 58);
    } else if (mode == 3) {
      a = field(16, 30, a, 50);
      b = field(16, 30, b, 54);
      c = field(20, 30, c, 58);
    }
    p.a[i] = a;
    p.b[i] = b;
    p.c[i] = c;
  }
}

std::string describe(const Planes& p, size_t i) {
  char buf[96];
  std::snprintf(buf, sizeof buf, "fma(0x%04x, 0x%04x, 0x%04x)", p.a[i], p.b[i], p.c[i]);
  return buf;
}

// The kernel on every target and the scalar definition, against want.
void expectAllMatch(const Planes& p, const std::vector<std::uint16_t>& want) {
  for (size_t i = 0; i < p.size(); ++i) {
    const std::uint16_t got = simd::soft::fmaF16(p.a[i], p.b[i], p.c[i]);
    ASSERT_EQ(got, want[i]) << "scalar definition, " << describe(p, i);
  }
  forEachTarget([&] {
    std::vector<std::uint16_t> got(p.size() + 1, 0xdead);
    le::simd::fmaF16(p.a.data(), p.b.data(), p.c.data(), got.data(), p.size());
    for (size_t i = 0; i < p.size(); ++i) ASSERT_EQ(got[i], want[i]) << describe(p, i);
    ASSERT_EQ(got[p.size()], 0xdead) << "wrote past the end";
  });
}

std::vector<std::uint16_t> reference(const Planes& p) {
  std::vector<std::uint16_t> want(p.size());
  for (size_t i = 0; i < p.size(); ++i) want[i] = exact::fma(p.a[i], p.b[i], p.c[i]);
  return want;
}

// The two ways the fused result is easy to get wrong, for the tests that
// show the edges really are edges: a float fused multiply-add rounded to
// half, and the double sum rounded to float to nearest, then to half.
std::uint16_t viaFloatFma(std::uint16_t a, std::uint16_t b, std::uint16_t c) {
  return simd::soft::f16Canonical(std::fma(simd::soft::wide(a), simd::soft::wide(b), simd::soft::wide(c)));
}
std::uint16_t viaNearestFloat(std::uint16_t a, std::uint16_t b, std::uint16_t c) {
  const double s = simd::soft::wideD(a) * simd::soft::wideD(b) + simd::soft::wideD(c);
  return simd::soft::f16Canonical(static_cast<float>(s));
}

TEST(HalfFma, KnifeEdgesOnEveryTarget) {
  const Planes p = knifeEdges();
  const std::vector<std::uint16_t> want = reference(p);
  expectAllMatch(p, want);
  // The edges break both wrong roundings many times over.
  size_t floatFma = 0, nearestFloat = 0;
  for (size_t i = 0; i < p.size(); ++i) {
    floatFma += viaFloatFma(p.a[i], p.b[i], p.c[i]) != want[i];
    nearestFloat += viaNearestFloat(p.a[i], p.b[i], p.c[i]) != want[i];
  }
  EXPECT_GT(floatFma, 100u) << "of " << p.size();
  EXPECT_GT(nearestFloat, 100u) << "of " << p.size();
}

TEST(HalfFma, KnownResults) {
  // The integer reference itself on results IEEE arithmetic fixes.
  EXPECT_EQ(exact::fma(0x4c00, 0x3c00, 0x7bff), 0x7c00);  // 16 + 65504: the tie to infinity
  EXPECT_EQ(exact::fma(0x4bff, 0x3c00, 0x7bff), 0x7bff);
  EXPECT_EQ(exact::fma(0x3c00, 0x3c00, 0xbc00), 0x0000);  // 1 - 1 = +0
  EXPECT_EQ(exact::fma(0x8000, 0x3c00, 0x8000), 0x8000);  // -0 + -0 = -0
  EXPECT_EQ(exact::fma(0x0000, 0x3c00, 0x8000), 0x0000);
  EXPECT_EQ(exact::fma(0x0001, 0x3800, 0x0000), 0x0000);  // 2^-25: tie to even 0
  EXPECT_EQ(exact::fma(0x0003, 0x3800, 0x0000), 0x0002);  // 1.5 * 2^-24: tie to 2
  EXPECT_EQ(exact::fma(0x7c00, 0x0000, 0x3c00), 0x7e00);  // inf * 0
  EXPECT_EQ(exact::fma(0x7c00, 0x3c00, 0xfc00), 0x7e00);  // inf - inf
  EXPECT_EQ(exact::fma(0x3c01, 0x3c01, 0x0000), 0x3c02);  // 1 + 2^-9 + 2^-20 -> up
  // 2048 + 1 is a tie between 2048 and 2050 and goes to even 2048; a
  // product a hair above 1 pushes it to 2050; one a hair below keeps 2048.
  EXPECT_EQ(exact::fma(0x3c00, 0x3c00, 0x6800), 0x6800);
  EXPECT_EQ(exact::fma(0x3c01, 0x3bfe, 0x6800), 0x6800);  // (1 + 2^-10)(1 - 2^-10) = 1 - 2^-20
  EXPECT_EQ(exact::fma(0x3c01, 0x3c00, 0x6800), 0x6801);
  EXPECT_EQ(exact::add(0x3c00, 0x1400), 0x3c01);  // 1 + 2^-10
  EXPECT_EQ(exact::add(0x3c00, 0x1000), 0x3c00);  // 1 + 2^-11: a tie, to even 1
  EXPECT_EQ(exact::mul(0x3555, 0x3555), simd::soft::mulF16(0x3555, 0x3555));
}

// The index of the first element where got differs from want, or n.
size_t firstMismatch(const std::vector<std::uint16_t>& got, const std::vector<std::uint16_t>& want, size_t n) {
  size_t i = 0;
  while (i < n && got[i] == want[i]) ++i;
  return i;
}

// The sanitizer builds check memory and threads, not the arithmetic, and run
// many times slower: a tenth of the triples does for them.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t kRandomTriples = 10'000'000;
#else
constexpr size_t kRandomTriples = 100'000'000;
#endif

TEST(HalfFma, HundredMillionRandomTriplesOnEveryTarget) {
  constexpr size_t kTotal = kRandomTriples, kChunk = size_t{1} << 21;
  std::mt19937_64 rng(0x5eed16);
  Planes p;
  std::vector<std::uint16_t> want, got;
  const std::vector<std::int64_t> targets = targetsToTest();
  size_t wrongFloatFma = 0;
  for (size_t done = 0; done < kTotal; done += kChunk) {
    const size_t n = std::min(kChunk, kTotal - done);
    randomTriples(rng, n, p);
    want.resize(n);
    got.resize(n);
    for (size_t i = 0; i < n; ++i) want[i] = exact::fma(p.a[i], p.b[i], p.c[i]);
    for (size_t i = 0; i < n; ++i) got[i] = simd::soft::fmaF16(p.a[i], p.b[i], p.c[i]);
    size_t bad = firstMismatch(got, want, n);
    ASSERT_EQ(bad, n) << "scalar definition, " << describe(p, bad) << " gave " << got[bad] << ", want " << want[bad];
    for (const std::int64_t bit : targets) {
      ForcedTarget forced(bit);
      le::simd::fmaF16(p.a.data(), p.b.data(), p.c.data(), got.data(), n);
      bad = firstMismatch(got, want, n);
      ASSERT_EQ(bad, n) << le::simd::targetName(bit) << ", " << describe(p, bad) << " gave " << got[bad]
                        << ", want " << want[bad];
    }
    if (done == 0) {
      for (size_t i = 0; i < n; ++i) wrongFloatFma += viaFloatFma(p.a[i], p.b[i], p.c[i]) != want[i];
    }
  }
  // Random triples meet the double rounding of a float fused multiply-add.
  EXPECT_GT(wrongFloatFma, 0u);
}

TEST(HalfArith, AddMulAndDoubleRoundingAgainstIntegers) {
  std::mt19937_64 rng(0xadd16);
  for (int i = 0; i < 2'000'000; ++i) {
    const std::uint64_t r = rng();
    const auto a = static_cast<std::uint16_t>(r), b = static_cast<std::uint16_t>(r >> 16);
    ASSERT_EQ(simd::soft::addF16(a, b), exact::add(a, b)) << std::hex << a << " + " << b;
    ASSERT_EQ(simd::soft::mulF16(a, b), exact::mul(a, b)) << std::hex << a << " * " << b;
    // A float to half: the rounding the engine's float stages end with.
    float x;
    const auto bits = static_cast<std::uint32_t>(r >> 32);
    std::memcpy(&x, &bits, sizeof x);
    ASSERT_EQ(simd::soft::f16Canonical(x), exact::fromFloat(x)) << std::hex << bits;
  }
  // Every half plus every half of a few magnitudes: all ties of addition.
  for (std::uint32_t a = 0; a < 0x10000; ++a) {
    for (const std::uint16_t b : {std::uint16_t{0x0001}, std::uint16_t{0x1400}, std::uint16_t{0x3c00},
                                  std::uint16_t{0x3c01}, std::uint16_t{0xbbff}, std::uint16_t{0x7bff}}) {
      ASSERT_EQ(simd::soft::addF16(static_cast<std::uint16_t>(a), b), exact::add(static_cast<std::uint16_t>(a), b))
          << std::hex << a << " + " << b;
    }
  }
}

}  // namespace
}  // namespace le::test
