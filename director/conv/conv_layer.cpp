#include "director/conv/conv_layer.h"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "compute/half.h"
#include "compute/half_arith.h"

namespace le::conv {

void packConv(ConvLayer& layer, const float* weights, size_t weightCount, const float* bias, size_t biasCount) {
  const size_t taps = static_cast<size_t>(layer.kH) * static_cast<size_t>(layer.kW);
  const size_t need = static_cast<size_t>(layer.Cin) * static_cast<size_t>(layer.Cout) * taps;
  if (weightCount < need || biasCount < static_cast<size_t>(layer.Cout))
    throw std::runtime_error("le_conv: layer " + (layer.name.empty() ? std::string("?") : layer.name) + " needs " +
                             std::to_string(need) + " weights / " + std::to_string(layer.Cout) +
                             " bias but the graph supplies " + std::to_string(weightCount) + " / " +
                             std::to_string(biasCount) +
                             " — refusing to pack (graph is not the m4b this kernel implements)");
  layer.tiles.clear();
  int rest = layer.Cout;
  for (; rest >= 32; rest -= 32) layer.tiles.push_back(32);
  if (rest > 0) layer.tiles.push_back((rest + 7) / 8 * 8);
  layer.CoutP = 0;
  for (const int t : layer.tiles) layer.CoutP += t;
  layer.drainPerTap = layer.Cin > 63;

  const size_t cinP = static_cast<size_t>(layer.CinP);
  layer.weights.assign(static_cast<size_t>(layer.CoutP) * taps * cinP, 0);
  layer.bias.assign(static_cast<size_t>(layer.CoutP), 0.0f);
  size_t at = 0;
  int oc0 = 0;
  for (const int t : layer.tiles) {
    for (size_t tap = 0; tap < taps; ++tap) {
      for (size_t c = 0; c < cinP; ++c) {
        for (int o = 0; o < t; ++o, ++at) {
          const int oc = oc0 + o;
          if (static_cast<int>(c) >= layer.Cin || oc >= layer.Cout) continue;
          const size_t src = (static_cast<size_t>(oc) * static_cast<size_t>(layer.Cin) + c) * taps + tap;
          layer.weights[at] = f32ToF16(weights[src]);
        }
      }
    }
    oc0 += t;
  }
  for (int o = 0; o < layer.Cout; ++o) layer.bias[static_cast<size_t>(o)] = bias[o];
  layer.wide.resize(layer.weights.size());
  for (size_t i = 0; i < layer.weights.size(); ++i) layer.wide[i] = simd::soft::wideD(layer.weights[i]);

  // Sums of |w| per output channel and run, over the packed halves (an
  // infinite weight makes the bound infinite, and no run is bounded).
  const size_t perRun = layer.drainPerTap ? 1 : static_cast<size_t>(layer.kW);
  const size_t runs = taps / perRun;
  layer.runWeightSum = 0.0;
  at = 0;
  for (const int t : layer.tiles) {
    const auto width = static_cast<size_t>(t);
    std::vector<double> sums(runs * width, 0.0);
    for (size_t tap = 0; tap < taps; ++tap)
      for (size_t c = 0; c < cinP; ++c)
        for (size_t o = 0; o < width; ++o, ++at) sums[(tap / perRun) * width + o] += std::fabs(layer.wide[at]);
    for (const double sum : sums) layer.runWeightSum = std::max(layer.runWeightSum, sum);
  }
}

}  // namespace le::conv
