// Bitwise comparison of float buffers, for results that must be the same
// bits and not merely close.
#pragma once

#include <gtest/gtest.h>

#include <cstddef>
#include <vector>

namespace le::test {

// Bitwise equality of float buffers, naming the first difference.
::testing::AssertionResult sameFloatBits(const std::vector<float>& got, const std::vector<float>& want);

// Floats whose bit patterns differ.
size_t bitDifferences(const std::vector<float>& a, const std::vector<float>& b);

}  // namespace le::test
