// One render of the fused m4b network, in three barriers: per item the
// keypoint network, motion field, occlusion and basis weights (A); the basis
// image of every item in 48 blocks (B); per item the warp, blend, correction
// and refinement tile (C).
//
// Every float operation rounds by itself and every half operation rounds
// once (compute/half_arith.h); the order of each sum is part of the result.
#include <cmath>
#include <stdexcept>

#include "compute/half_arith.h"
#include "director/conv/engine.h"

namespace le::conv {

namespace {

using simd::soft::addF16;
using simd::soft::f16Canonical;
using simd::soft::fmaF16;
using simd::soft::mulF16;
using simd::soft::wide;

constexpr uint16_t kQuarter = 0x3400;  // 0.25

// Element (y, x, c) of a channel-last buffer of `cols` columns and `ch`
// channels, with `pad` pixels of border before it.
inline size_t at(size_t y, size_t x, size_t c, size_t cols, size_t ch, size_t pad) {
  return ((y + pad) * (cols + 2 * pad) + (x + pad)) * ch + c;
}

// A convolution from a padded input (at pixel 0, 0) into a padded output (at
// pixel 1, 1) or, with outPad 0, an unpadded one.
void conv(const ConvLayer& L, const std::vector<uint16_t>& in, size_t inCols, std::vector<uint16_t>& out,
          size_t outCols, size_t outPad) {
  const size_t outCh = static_cast<size_t>(L.CoutP);
  runConv(L, in.data(), inCols * static_cast<size_t>(L.CinP), out.data() + at(0, 0, 0, outCols, outCh, outPad),
          nullptr, (outCols + 2 * outPad) * outCh);
}

// 2x2 mean in half: ((a + b) + (c + d)) * 0.25, every step rounded; from an
// unpadded h x w x ch buffer into the padded (h/2 + 2) x (w/2 + 2) one.
void poolHalf(const std::vector<uint16_t>& in, size_t h, size_t w, size_t ch, std::vector<uint16_t>& out) {
  for (size_t y = 0; y < h / 2; ++y)
    for (size_t x = 0; x < w / 2; ++x)
      for (size_t c = 0; c < ch; ++c) {
        const uint16_t a = in[at(2 * y, 2 * x, c, w, ch, 0)], b = in[at(2 * y, 2 * x + 1, c, w, ch, 0)];
        const uint16_t cc = in[at(2 * y + 1, 2 * x, c, w, ch, 0)], d = in[at(2 * y + 1, 2 * x + 1, c, w, ch, 0)];
        out[at(y, x, c, w / 2, ch, 1)] = mulF16(addF16(addF16(a, b), addF16(cc, d)), kQuarter);
      }
}

// Channels [c0, c0 + ch) of the padded (2h + 2) x (2w + 2) x outCh buffer
// from an unpadded h x w x ch one, each pixel repeated 2x2.
void upsampleRepeat(const std::vector<uint16_t>& in, size_t h, size_t w, size_t ch, std::vector<uint16_t>& out,
                    size_t outCh, size_t c0) {
  for (size_t y = 0; y < 2 * h; ++y)
    for (size_t x = 0; x < 2 * w; ++x)
      for (size_t c = 0; c < ch; ++c) out[at(y, x, c0 + c, 2 * w, outCh, 1)] = in[at(y / 2, x / 2, c, w, ch, 0)];
}

// Channels [c0, c0 + ch) of a padded h x w x outCh buffer from an unpadded
// h x w x ch one.
void copyChannels(const std::vector<uint16_t>& in, size_t h, size_t w, size_t ch, std::vector<uint16_t>& out,
                  size_t outCh, size_t c0) {
  for (size_t y = 0; y < h; ++y)
    for (size_t x = 0; x < w; ++x)
      for (size_t c = 0; c < ch; ++c) out[at(y, x, c0 + c, w, outCh, 1)] = in[at(y, x, c, w, ch, 0)];
}

// Bilinear sample of a map by two tables: along x first on rows i0 and i1,
// then along y, all in float.
template <class F>
inline float bilinear(const F& map, const LinTab& ty, const LinTab& tx, size_t y, size_t x) {
  const int y0 = ty.i0[y], y1 = ty.i1[y], x0 = tx.i0[x], x1 = tx.i1[x];
  const float fy = ty.frac[y], fx = tx.frac[x];
  const float a = map(y0, x0), b = map(y0, x1), c = map(y1, x0), d = map(y1, x1);
  const float top = a + fx * (b - a);
  const float bottom = c + fx * (d - c);
  return top + fy * (bottom - top);
}

// Source coordinate of the warp along one axis: u = g * 256 + 255.5 clamped
// to [0, 511]; the left index at most 510 so that the last pixel is sampled
// with full weight.
inline void warpCoordinate(float g, int& i0, float& f) {
  float u = g * 256.0f + 255.5f;
  if (!(u >= 0.0f)) u = 0.0f;  // a NaN too
  if (u > 511.0f) u = 511.0f;
  i0 = static_cast<int>(u);
  if (i0 > 510) i0 = 510;
  f = u - static_cast<float>(i0);
}

}  // namespace

void Engine::render(const uint16_t* const* pooled, const uint16_t* const* prior, const float* kpSource,
                    const float* kpDriving, int n, float* out) {
  if (n < 1 || n > batch_) throw std::runtime_error("le_conv: bad n");
  const auto items = static_cast<size_t>(n);
  // The lambdas go to the pool by reference: no allocation per render.
  auto phaseAItem = [&](size_t item, size_t worker) {
    Scratch& s = scratch_[worker];
    if (!s.ready) s.alloc();
    phaseA(static_cast<int>(item), s, pooled[item], kpSource + item * 63, kpDriving + item * 63);
    if (item == 0 && !dumpDir_.empty()) dumpA(s);
  };
  pool_->run(items, std::ref(phaseAItem));

  const size_t rows = w64h_.size() / 64;
  for (size_t r = 0; r < rows; ++r)
    for (size_t k = 0; k < 64; ++k)
      w64h_[r * 64 + k] = r < items ? f16Canonical(w64_[r * 64 + k]) : uint16_t{0};
  auto phaseBTask = [&](size_t task, size_t) { phaseB(task); };
  pool_->run(48, std::ref(phaseBTask));

  auto phaseCItem = [&](size_t item, size_t worker) {
    Scratch& s = scratch_[worker];
    if (!s.ready) s.alloc();
    float* dst = out + item * 3 * 512 * 512;
    phaseC(static_cast<int>(item), s, prior[item], dst);
    if (item == 0 && !dumpDir_.empty()) dumpC(s, dst);
  };
  pool_->run(items, std::ref(phaseCItem));
}

void Engine::phaseA(int item, Scratch& s, const uint16_t* pooled, const float* ks, const float* kd) {
  // 1. x0: the pooled features, transposed to channel-last, then 21
  //    keypoint heat maps: exp(-50 |g - kd|^2) - exp(-50 |g - ks|^2) over x, y.
  for (size_t p = 0; p < 1024; ++p) {
    uint16_t* px = s.x0.data() + p * 88;
    for (size_t c = 0; c < 64; ++c) px[c] = pooled[c * 1024 + p];
    const float gx = grid32_[p * 2], gy = grid32_[p * 2 + 1];
    for (size_t k = 0; k < 21; ++k) {
      const float ddx = gx - kd[k * 3], ddy = gy - kd[k * 3 + 1];
      const float sdx = gx - ks[k * 3], sdy = gy - ks[k * 3 + 1];
      const float d2 = ddx * ddx + ddy * ddy;
      const float s2 = sdx * sdx + sdy * sdy;
      px[64 + k] = f16Canonical(std::exp(-50.0f * d2) - std::exp(-50.0f * s2));
    }
  }
  // 2 to 7: the encoder.
  conv(layers_[kPre], s.x0, 32, s.p0, 32, 1);
  conv(layers_[kE0], s.p0, 34, s.e0, 32, 0);
  poolHalf(s.e0, 32, 32, 96, s.e0p);
  conv(layers_[kE1], s.e0p, 18, s.e1, 16, 0);
  poolHalf(s.e1, 16, 16, 144, s.e1p);
  conv(layers_[kE2], s.e1p, 10, s.e2, 8, 0);
  // 8, 9: the decoder, each stage on the one below repeated 2x2 beside the
  //    encoder's skip.
  upsampleRepeat(s.e2, 8, 8, 192, s.d1in, 336, 0);
  copyChannels(s.e1, 16, 16, 144, s.d1in, 336, 192);
  conv(layers_[kD1], s.d1in, 18, s.d1, 16, 0);
  upsampleRepeat(s.d1, 16, 16, 144, s.d0in, 240, 0);
  copyChannels(s.e0, 32, 32, 96, s.d0in, 240, 144);
  conv(layers_[kD0], s.d0in, 34, s.d0, 32, 0);
  // 10. 32 to 64 bilinear in half: weights as half products, the value a
  //     product and three fused multiply-adds.
  const LinTab& t = lin64from32_;
  for (size_t y = 0; y < 64; ++y) {
    const uint16_t wy1 = f16Canonical(t.frac[y]), wy0 = f16Canonical(1.0f - t.frac[y]);
    for (size_t x = 0; x < 64; ++x) {
      const uint16_t wx1 = f16Canonical(t.frac[x]), wx0 = f16Canonical(1.0f - t.frac[x]);
      const uint16_t w00 = mulF16(wy0, wx0), w01 = mulF16(wy0, wx1), w10 = mulF16(wy1, wx0), w11 = mulF16(wy1, wx1);
      const auto y0 = static_cast<size_t>(t.i0[y]), y1 = static_cast<size_t>(t.i1[y]);
      const auto x0 = static_cast<size_t>(t.i0[x]), x1 = static_cast<size_t>(t.i1[x]);
      const uint16_t* p00 = s.d0.data() + at(y0, x0, 0, 32, 96, 0);
      const uint16_t* p01 = s.d0.data() + at(y0, x1, 0, 32, 96, 0);
      const uint16_t* p10 = s.d0.data() + at(y1, x0, 0, 32, 96, 0);
      const uint16_t* p11 = s.d0.data() + at(y1, x1, 0, 32, 96, 0);
      uint16_t* dst = s.refin.data() + at(y, x, 0, 64, 96, 1);
      for (size_t c = 0; c < 96; ++c) {
        uint16_t v = mulF16(p00[c], w00);
        v = fmaF16(p01[c], w01, v);
        v = fmaF16(p10[c], w10, v);
        dst[c] = fmaF16(p11[c], w11, v);
      }
    }
  }
  // 11. The motion head: the mask logits and the occlusion logit, in float.
  conv(layers_[kRef], s.refin, 66, s.refout, 64, 1);
  runConv(layers_[kMaskOcc], s.refout.data(), 66 * 48, nullptr, s.mo.data(), 64 * 24);
  // 12 to 14. Per pixel: softmax over 22 masks, the grid moved by each
  // keypoint's motion under its mask, and the occlusion's sigmoid.
  const auto B = static_cast<size_t>(item);
  float* gridAdd = gridAdd_.data() + B * 64 * 64 * 2;
  float* occ = occ_.data() + B * 64 * 64;
  for (size_t p = 0; p < 64 * 64; ++p) {
    const float* z = s.mo.data() + p * 24;
    float mx = z[0];
    for (size_t i = 1; i < 22; ++i) mx = z[i] > mx ? z[i] : mx;
    float e[22];
    float sum = 0.0f;
    for (size_t i = 0; i < 22; ++i) {
      e[i] = std::exp(z[i] - mx);
      sum = sum + e[i];
    }
    const float inv = 1.0f / sum;
    float ax = 0.0f, ay = 0.0f;
    for (size_t k = 0; k < 21; ++k) {
      const float m = e[k + 1] * inv;
      ax = ax + m * (ks[k * 3] - kd[k * 3]);
      ay = ay + m * (ks[k * 3 + 1] - kd[k * 3 + 1]);
    }
    gridAdd[p * 2] = grid64_[p * 2] + ax;
    gridAdd[p * 2 + 1] = grid64_[p * 2 + 1] + ay;
    occ[p] = 1.0f / (std::exp(-z[22]) + 1.0f);
  }
  // 15. The basis weights: the mean of e2 per channel and the keypoint
  //     motion through a two-layer perceptron.
  float v[255];
  for (size_t c = 0; c < 192; ++c) {
    float sum = 0.0f;
    for (size_t p = 0; p < 64; ++p) sum = sum + wide(s.e2[p * 192 + c]);
    v[c] = sum * (1.0f / 64.0f);
  }
  for (size_t i = 0; i < 63; ++i) v[192 + i] = kd[i] - ks[i];
  float h[128];
  for (size_t j = 0; j < 128; ++j) {
    float a = wmlp0b_[j];
    for (size_t i = 0; i < 255; ++i) a = a + wmlp0w_[j * 255 + i] * v[i];
    h[j] = a > 0.0f ? a : 0.0f;
  }
  float* w64 = w64_.data() + B * 64;
  for (size_t i = 0; i < 64; ++i) {
    float a = wmlp2b_[i];
    for (size_t j = 0; j < 128; ++j) a = a + wmlp2w_[i * 128 + j] * h[j];
    w64[i] = a;
  }
}

void Engine::phaseB(size_t task) {
  // Blocks of 16 columns, 4 rows of w64h at a time: the product of two
  // halves is exact in float, so each step rounds only in the add.
  const size_t groups = w64h_.size() / 256;
  for (size_t j = task * 256; j < task * 256 + 256; ++j) {
    const uint16_t* basis = basis_.data() + j * 64 * 16;
    for (size_t g = 0; g < groups; ++g) {
      float acc[4][16] = {};
      for (size_t r = 0; r < 64; ++r) {
        float b[16];
        for (size_t q = 0; q < 16; ++q) b[q] = wide(basis[r * 16 + q]);
        for (size_t row = 0; row < 4; ++row) {
          const float w = wide(w64h_[(g * 4 + row) * 64 + r]);
          for (size_t q = 0; q < 16; ++q) acc[row][q] = acc[row][q] + w * b[q];
        }
      }
      for (size_t row = 0; row < 4; ++row) {
        const size_t item = g * 4 + row;
        if (item >= static_cast<size_t>(batch_)) continue;
        uint16_t* dst = basisImg_.data() + item * 196608 + j * 16;
        for (size_t q = 0; q < 16; ++q) dst[q] = f16Canonical(acc[row][q]);
      }
    }
  }
}

void Engine::phaseC(int item, Scratch& s, const uint16_t* prior, float* out) {
  const auto B = static_cast<size_t>(item);
  const float* gridAdd = gridAdd_.data() + B * 64 * 64 * 2;
  const float* occ = occ_.data() + B * 64 * 64;
  const uint16_t* basisImg = basisImg_.data() + B * 196608;
  const LinTab& t64 = lin512from64_;
  const LinTab& t256 = lin512from256_;
  constexpr size_t kPlane = 512 * 512;
  // 1 to 3: occlusion at full size, the prior warped by the motion field,
  // and the blend of the two with the basis image.
  for (size_t y = 0; y < 512; ++y) {
    for (size_t x = 0; x < 512; ++x) {
      const size_t p = y * 512 + x;
      const uint16_t o = f16Canonical(bilinear([&](int yy, int xx) { return occ[yy * 64 + xx]; }, t64, t64, y, x));
      s.occ512[p] = o;
      const float gx = bilinear([&](int yy, int xx) { return gridAdd[(yy * 64 + xx) * 2]; }, t64, t64, y, x);
      const float gy = bilinear([&](int yy, int xx) { return gridAdd[(yy * 64 + xx) * 2 + 1]; }, t64, t64, y, x);
      int x0 = 0, y0 = 0;
      float fx = 0.0f, fy = 0.0f;
      warpCoordinate(gx, x0, fx);
      warpCoordinate(gy, y0, fy);
      const size_t s00 = static_cast<size_t>(y0) * 512 + static_cast<size_t>(x0);
      for (size_t c = 0; c < 3; ++c) {
        const uint16_t* P = prior + c * kPlane;
        const float p00 = wide(P[s00]), p01 = wide(P[s00 + 1]);
        const float p10 = wide(P[s00 + 512]), p11 = wide(P[s00 + 513]);
        const float top = (p01 - p00) * fx + p00;
        const float bottom = (p11 - p10) * fx + p10;
        const uint16_t w = f16Canonical(top + (bottom - top) * fy);
        s.warped[c * kPlane + p] = w;
        const uint16_t* img = basisImg + c * 65536;
        const float basis = bilinear([&](int yy, int xx) { return wide(img[yy * 256 + xx]); }, t256, t256, y, x);
        s.blended[c * kPlane + p] = f16Canonical(wide(w) * wide(o) + basis);
      }
    }
  }
  // 4. The correction network's input at 256x256: 2x2 means of the warp and
  //    the occlusion, and the basis image.
  const auto mean4 = [](const uint16_t* plane, size_t y, size_t x) {
    const float a = wide(plane[2 * y * 512 + 2 * x]), b = wide(plane[2 * y * 512 + 2 * x + 1]);
    const float c = wide(plane[(2 * y + 1) * 512 + 2 * x]), d = wide(plane[(2 * y + 1) * 512 + 2 * x + 1]);
    return f16Canonical((((a + b) + c) + d) * 0.25f);
  };
  for (size_t y = 0; y < 256; ++y)
    for (size_t x = 0; x < 256; ++x) {
      uint16_t* dst = s.corrIn.data() + at(y, x, 0, 256, 8, 1);
      for (size_t c = 0; c < 3; ++c) dst[c] = mean4(s.warped.data() + c * kPlane, y, x);
      dst[3] = mean4(s.occ512.data(), y, x);
      for (size_t c = 0; c < 3; ++c) dst[4 + c] = basisImg[c * 65536 + y * 256 + x];
    }
  // 5, 6: the correction, added in half through a 2x2 depth-to-space.
  conv(layers_[kCorr0], s.corrIn, 258, s.corrA, 256, 1);
  conv(layers_[kCorr1], s.corrA, 258, s.corrB, 256, 1);
  conv(layers_[kCorr2], s.corrB, 258, s.corrOut, 256, 0);
  for (size_t y = 0; y < 256; ++y)
    for (size_t x = 0; x < 256; ++x) {
      const uint16_t* corr = s.corrOut.data() + (y * 256 + x) * 16;
      for (size_t c = 0; c < 3; ++c)
        for (size_t dy = 0; dy < 2; ++dy)
          for (size_t dx = 0; dx < 2; ++dx) {
            uint16_t& b = s.blended[c * kPlane + (2 * y + dy) * 512 + 2 * x + dx];
            b = addF16(b, corr[c * 4 + dy * 2 + dx]);
          }
    }
  // 7, 8: the refinement tile over the mouth region.
  for (size_t y = 0; y < 256; ++y)
    for (size_t x = 0; x < 208; ++x) {
      const size_t p = (224 + y) * 512 + 144 + x;
      uint16_t* dst = s.tileIn.data() + at(y, x, 0, 208, 8, 1);
      for (size_t c = 0; c < 3; ++c) {
        dst[c] = s.blended[c * kPlane + p];
        dst[3 + c] = s.warped[c * kPlane + p];
      }
      dst[6] = s.occ512[p];
    }
  conv(layers_[kTile0], s.tileIn, 210, s.tileA, 208, 1);
  conv(layers_[kTile1], s.tileA, 210, s.tileB, 208, 1);
  conv(layers_[kTile2], s.tileB, 210, s.tileA, 208, 1);
  conv(layers_[kTile3], s.tileA, 210, s.tileOut, 208, 0);
  // 9. The refined image in float, the tile feathered in.
  for (size_t i = 0; i < 3 * kPlane; ++i) out[i] = wide(s.blended[i]);
  for (size_t y = 0; y < 256; ++y)
    for (size_t x = 0; x < 208; ++x) {
      const float f = feather_[y * 208 + x];
      const uint16_t* tile = s.tileOut.data() + (y * 208 + x) * 8;
      for (size_t c = 0; c < 3; ++c) {
        float& o = out[c * kPlane + (224 + y) * 512 + 144 + x];
        o = o + f * wide(tile[c]);
      }
    }
}

}  // namespace le::conv
