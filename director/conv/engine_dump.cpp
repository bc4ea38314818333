// LE_CONV_DUMP: each stage of item 0 as channel-first floats, one file per
// stage, overwritten by every render, for holding the engine against another
// implementation of the same network stage by stage.
#include <cstdio>
#include <string>
#include <vector>

#include "compute/half_soft.h"
#include "director/conv/engine.h"

namespace le::conv {

namespace {

void write(const std::string& dir, const char* name, const std::vector<float>& v) {
  std::FILE* f = std::fopen((dir + "/" + name + ".f32").c_str(), "wb");
  if (!f) return;  // a dump that can't be written is passed over
  std::fwrite(v.data(), sizeof(float), v.size(), f);
  std::fclose(f);
}

// Channels [0, ch) of an h x w channel-last half buffer of `stride`
// channels with `pad` pixels of border, as channel-first floats.
std::vector<float> planes(const std::vector<uint16_t>& buf, size_t h, size_t w, size_t stride, size_t ch,
                          size_t pad) {
  std::vector<float> out(ch * h * w);
  for (size_t c = 0; c < ch; ++c)
    for (size_t y = 0; y < h; ++y)
      for (size_t x = 0; x < w; ++x)
        out[(c * h + y) * w + x] = simd::soft::wide(buf[((y + pad) * (w + 2 * pad) + x + pad) * stride + c]);
  return out;
}

std::vector<float> widen(const uint16_t* h, size_t n) {
  std::vector<float> out(n);
  for (size_t i = 0; i < n; ++i) out[i] = simd::soft::wide(h[i]);
  return out;
}

}  // namespace

void Engine::dumpA(const Scratch& s) const {
  const std::string& d = dumpDir_;
  write(d, "pre_relu", planes(s.p0, 32, 32, 96, 96, 1));
  write(d, "e0_relu", planes(s.e0, 32, 32, 96, 96, 0));
  write(d, "e1_relu", planes(s.e1, 16, 16, 144, 144, 0));
  write(d, "e2_relu", planes(s.e2, 8, 8, 192, 192, 0));
  write(d, "d1_relu", planes(s.d1, 16, 16, 144, 144, 0));
  write(d, "d0_relu", planes(s.d0, 32, 32, 96, 96, 0));
  write(d, "ref_relu", planes(s.refout, 64, 64, 48, 48, 1));
  std::vector<float> mask(22 * 64 * 64);
  for (size_t c = 0; c < 22; ++c)
    for (size_t p = 0; p < 64 * 64; ++p) mask[c * 64 * 64 + p] = s.mo[p * 24 + c];
  write(d, "mask_conv", mask);
  write(d, "occ_sig", std::vector<float>(occ_.begin(), occ_.begin() + 64 * 64));
  write(d, "grid_add", std::vector<float>(gridAdd_.begin(), gridAdd_.begin() + 64 * 64 * 2));
  write(d, "w64", std::vector<float>(w64_.begin(), w64_.begin() + 64));
}

void Engine::dumpC(const Scratch& s, const float* out) const {
  const std::string& d = dumpDir_;
  constexpr size_t kPlane = 512 * 512;
  write(d, "basisimg", widen(basisImg_.data(), 3 * 256 * 256));
  write(d, "occ512", widen(s.occ512.data(), kPlane));
  write(d, "warped", widen(s.warped.data(), 3 * kPlane));
  write(d, "corr0_relu", planes(s.corrA, 256, 256, 24, 24, 1));
  write(d, "corr1_relu", planes(s.corrB, 256, 256, 24, 24, 1));
  write(d, "corr2_conv", planes(s.corrOut, 256, 256, 16, 12, 0));
  write(d, "refined", widen(s.blended.data(), 3 * kPlane));
  write(d, "tile2_relu", planes(s.tileA, 256, 208, 32, 32, 1));
  write(d, "tile3_conv", planes(s.tileOut, 256, 208, 8, 3, 0));
  write(d, "rgb", std::vector<float>(out, out + 3 * kPlane));
}

}  // namespace le::conv
