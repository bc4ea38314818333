#include "director/conv/lin_tab.h"

#include <algorithm>
#include <cmath>

namespace le::conv {

void LinTab::init(int out, int in) {
  const auto n = static_cast<size_t>(out);
  i0.resize(n);
  i1.resize(n);
  frac.resize(n);
  const float ratio = static_cast<float>(in) / static_cast<float>(out);
  for (int i = 0; i < out; ++i) {
    const float centre = static_cast<float>(i) + 0.5f;
    const float scaled = ratio * centre;
    const float s = scaled - 0.5f;
    const float f = std::floor(s);
    const int fi = static_cast<int>(f);
    const auto u = static_cast<size_t>(i);
    i0[u] = std::clamp(fi, 0, in - 1);
    const int next = std::max(fi, -1) + 1;
    i1[u] = next < in ? next : in - 1;
    frac[u] = s - f;
  }
}

}  // namespace le::conv
