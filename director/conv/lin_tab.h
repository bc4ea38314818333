// The index and weight tables of a bilinear resize with half-pixel centres
// and edge clamping, per output index along one axis.
#pragma once

#include <vector>

namespace le::conv {

struct LinTab {
  std::vector<int> i0, i1;
  std::vector<float> frac;

  // out and in: the lengths of the output and input axes. For output i,
  // s = (in / out) * (i + 0.5) - 0.5 in float, each step rounded; f =
  // floor(s); i0 = f clamped to [0, in - 1]; i1 = max(f, -1) + 1, or in - 1
  // if that is not below in; frac = s - f.
  void init(int out, int in);
};

}  // namespace le::conv
