#include "tests/director/float_bits.h"

#include <cstring>

namespace le::test {

size_t bitDifferences(const std::vector<float>& a, const std::vector<float>& b) {
  size_t n = 0;
  for (size_t i = 0; i < a.size() && i < b.size(); ++i) n += std::memcmp(&a[i], &b[i], sizeof(float)) != 0;
  return n;
}

::testing::AssertionResult sameFloatBits(const std::vector<float>& got, const std::vector<float>& want) {
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " floats against " << want.size() << " expected";
  for (size_t i = 0; i < got.size(); ++i)
    if (std::memcmp(&got[i], &want[i], sizeof(float)) != 0)
      return ::testing::AssertionFailure() << bitDifferences(got, want) << " floats differ; the first at " << i
                                           << ": " << got[i] << " against " << want[i];
  return ::testing::AssertionSuccess();
}

}  // namespace le::test
