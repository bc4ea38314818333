// xorshift64*: a small generator whose sequence is the same on every
// machine and run, for the data of tests and benchmarks.
#pragma once

#include <cstddef>
#include <cstdint>

namespace le::test {

struct XorShift64 {
  uint64_t s;

  uint64_t next() {
    s ^= s >> 12;
    s ^= s << 25;
    s ^= s >> 27;
    return s * 0x2545F4914F6CDD1DULL;
  }
  size_t below(size_t n) { return static_cast<size_t>(next() % n); }
  // Uniform in [0, 1): 24 bits, exact in a float.
  float unit24() { return static_cast<float>(next() >> 40) / static_cast<float>(1 << 24); }
  // Uniform in [0, 1): 53 bits, exact in a double.
  double unit53() { return static_cast<double>(next() >> 11) / 9007199254740992.0; }
};

}  // namespace le::test
