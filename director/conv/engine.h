// The fused m4b network as code: a U-shaped keypoint network at 32x32, a
// motion field and occlusion map at 64x64, a 64-term image basis at
// 256x256, a warp of the source image at 512x512, a correction network at
// 256x256 and a refinement tile over the mouth region.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "director/conv/conv_backend.h"
#include "director/conv/conv_layer.h"
#include "director/conv/conv_pool.h"
#include "director/conv/lin_tab.h"

namespace le::conv {

// The layers in network order.
enum Layer { kPre, kE0, kE1, kE2, kD1, kD0, kRef, kMaskOcc, kCorr0, kCorr1, kCorr2, kTile0, kTile1, kTile2, kTile3,
             kLayerCount };

// The activations of one worker: channel-last halves unless said; the
// padded ones have a one-pixel border that nothing writes, nor any padding
// channel, so both stay zero. Allocated, zeroed, on the worker's first task.
struct Scratch {
  std::vector<uint16_t> x0, p0, e0, e0p, e1, e1p, e2, d1in, d1, d0in, d0, refin, refout;
  std::vector<float> mo;  // maskocc output, float
  std::vector<uint16_t> occ512, warped, blended;  // planes
  std::vector<uint16_t> corrIn, corrA, corrB, corrOut, tileIn, tileA, tileB, tileOut;
  bool ready = false;
  void alloc();
};

class Engine final : public ConvBackend {
 public:
  Engine(const std::string& path, int threads);
  ~Engine() override;

  int batch() const override { return batch_; }
  void render(const uint16_t* const* pooled, const uint16_t* const* prior, const float* kpSource,
              const float* kpDriving, int n, float* out) override;

  int threads() const { return pool_->threads(); }
  const ConvLayer& layer(Layer l) const { return layers_[l]; }

 private:
  void phaseA(int item, Scratch& s, const uint16_t* pooled, const float* ks, const float* kd);
  void phaseB(size_t task);
  void phaseC(int item, Scratch& s, const uint16_t* prior, float* out);
  void dumpA(const Scratch& s) const;
  void dumpC(const Scratch& s, const float* out) const;

  int batch_ = 0;
  std::string dumpDir_;
  std::array<ConvLayer, kLayerCount> layers_;
  std::vector<float> grid32_, grid64_, feather_;
  std::vector<float> wmlp0w_, wmlp0b_, wmlp2w_, wmlp2b_;
  std::vector<uint16_t> basis_;  // (j * 64 + r) * 16 + q: 12288 blocks of 16 columns
  LinTab lin512from64_, lin512from256_, lin64from32_;
  std::vector<float> gridAdd_, occ_, w64_;  // per item
  std::vector<uint16_t> w64h_, basisImg_;
  std::vector<Scratch> scratch_;
  std::unique_ptr<Pool> pool_;
};

}  // namespace le::conv
