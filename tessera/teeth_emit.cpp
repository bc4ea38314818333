// The second half of the teeth pass: the frame protocol one frame late, the
// merge of a frame's donors with those carried from the frame before and
// those the frame after wants, the blend head, and the compose of its result
// with the synthesised mouth.
#include <math.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>

#include "compute/pool.h"
#include "compute/simd.h"
#include "tessera/avg_pool.h"
#include "tessera/round.h"
#include "tessera/stopwatch.h"
#include "tessera/teeth_pass.h"

namespace le::tessera {

namespace {

constexpr int32_t kFeat = 7;     // head input planes: candidate, synth, their difference
constexpr int32_t kHidden = 16;  // the head's hidden channels

// T[i] = i / 255: a true division, once per process.
const float* byteTable() {
  static const std::array<float, 256> t = [] {
    std::array<float, 256> v{};
    for (int i = 0; i < 256; ++i) v[static_cast<size_t>(i)] = static_cast<float>(i) / 255.0f;
    return v;
  }();
  return t.data();
}

bool contains(const std::vector<int32_t>& v, int32_t x) { return std::find(v.begin(), v.end(), x) != v.end(); }

using Tap = UpsampleTap;

Tap tapAt(int32_t i, int32_t n) {
  float src = (static_cast<float>(i) + 0.5f) * 0.5f - 0.5f;
  if (src < 0.0f) src = 0.0f;
  const float lo = std::floor(src);
  const int32_t l = static_cast<int32_t>(lo);
  return Tap{l, std::min(l + 1, n - 1), src - lo};
}

uint8_t composeByte(float v) {
  if (!(v >= 0.0f)) v = 0.0f;  // NaN as 0
  if (v > 1.0f) v = 1.0f;
  const double r = roundHalfEven(static_cast<double>(v * 255.0f));
  return static_cast<uint8_t>(std::min(std::max(r, 0.0), 255.0));
}

}  // namespace

bool TeethPass::push(int32_t frame, const uint8_t* rgb, const uint8_t* pi, const int32_t* shift,
                     FrameResult& result) {
  const size_t px = static_cast<size_t>(stamp_.canvas_w()) * stamp_.canvas_h();
  Pending& in = incoming_;
  in.frame = frame;
  in.rgb.assign(rgb, rgb + px * 3);
  in.pi.assign(pi, pi + px);
  in.why.clear();
  in.donors.clear();
  in.ok = deriveShift(in.pi.data(), shift, in.dy, in.dx, in.why);
  if (in.ok) in.donors = retrieve(in.rgb.data(), in.pi.data(), in.dy, in.dx);
  bool emitted = false;
  if (has_pending_) {
    emit(pending_, in.ok ? &in.donors : nullptr, result);
    emitted = true;
  }
  std::swap(pending_, incoming_);
  has_pending_ = true;
  return emitted;
}

bool TeethPass::flush(FrameResult& result) {
  if (!has_pending_) return false;
  emit(pending_, nullptr, result);
  has_pending_ = false;
  return true;
}

void TeethPass::mergeDonors(const Pending& p, const std::vector<int32_t>* next) {
  const size_t K = static_cast<size_t>(std::max(cfg_.K, 0));
  cur_.assign(p.donors.begin(), p.donors.begin() + static_cast<ptrdiff_t>(std::min(p.donors.size(), K)));
  nxt_.clear();
  if (next && cfg_.lookahead_on) {
    const size_t la = static_cast<size_t>(std::max(cfg_.lookahead, 0));
    nxt_.assign(next->begin(), next->begin() + static_cast<ptrdiff_t>(std::min(next->size(), la)));
  }
  cur_only_.clear();
  for (int32_t q : cur_)
    if (!contains(nxt_, q)) cur_only_.push_back(q);
  merged_.clear();
  // Carried donors first, then those the next frame wants too, then those
  // only this frame wants. Both tests look at the carried list only, so a
  // repeat from the padded retrieval list can reach the merge.
  if (!prev_sel_.empty() && int64_t{prev_sel_frame_} == int64_t{p.frame} - 1) {
    merged_ = prev_sel_;
    for (int32_t q : nxt_)
      if (!contains(prev_sel_, q)) merged_.push_back(q);
    for (int32_t q : cur_only_)
      if (!contains(prev_sel_, q)) merged_.push_back(q);
  } else {
    merged_ = nxt_;
    merged_.insert(merged_.end(), cur_only_.begin(), cur_only_.end());
  }
  if (merged_.size() > K) merged_.resize(K);
}

void TeethPass::emit(const Pending& p, const std::vector<int32_t>* next, FrameResult& result) {
  result.rgb.clear();
  result.skipped = false;
  result.reason.clear();
  if (!p.ok) {
    // The carried donors stay, but their frame no longer follows on.
    result.skipped = true;
    result.reason = p.why;
    result.n = 0;
    return;
  }
  Stopwatch sw;
  mergeDonors(p, next);
  const int32_t m = static_cast<int32_t>(merged_.size());
  checkSynthRead(stamp_.window_y0(), stamp_.window_x0(), "emit");
  const size_t hw = static_cast<size_t>(H_) * W_;
  const int32_t cw = stamp_.canvas_w(), wy0 = stamp_.window_y0(), wx0 = stamp_.window_x0();
  const int32_t pad = stamp_.pad();
  const float* T = byteTable();

  // Candidates: the donors at this frame's shift; the window stays where the
  // stamp puts it.
  koy_.resize(static_cast<size_t>(m));
  kox_.resize(static_cast<size_t>(m));
  for (int32_t i = 0; i < m; ++i) {
    koy_[i] = clampOffset(dy_[merged_[i]] + pad - p.dy);
    kox_[i] = clampOffset(dx_[merged_[i]] + pad - p.dx);
  }
  gatherWindowsU8(merged_, p.dy, p.dx, gathered_);
  cand_.resize(static_cast<size_t>(m) * 3 * hw);
  pool::parallelRange(static_cast<size_t>(m), 1, [&](size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i) {
      const uint8_t* g = gathered_.data() + i * hw * 3;
      float* c = cand_.data() + i * 3 * hw;
      for (size_t k = 0; k < hw; ++k) {
        c[k] = T[g[3 * k]];
        c[hw + k] = T[g[3 * k + 1]];
        c[2 * hw + k] = T[g[3 * k + 2]];
      }
    }
  });

  // The head's mask: the band, and the strip above it wherever pi reaches
  // and every merged donor covers the pixel.
  head_mask_ = band_mask_;
  for (int32_t y = 0; y < stamp_.band_r0(); ++y) {
    for (int32_t x = stamp_.band_c0(); x < stamp_.band_c1(); ++x) {
      if (p.pi[static_cast<size_t>(wy0 + y) * cw + wx0 + x] == 0) continue;
      bool all = true;
      for (int32_t i = 0; i < m && all; ++i) all = covers(koy_[i], kox_[i], y, x);
      if (all) head_mask_[static_cast<size_t>(y) * W_ + x] = 1;
    }
  }

  synth_planes_.resize(3 * hw);
  pool::parallelRange(static_cast<size_t>(H_), 8, [&](size_t lo, size_t hi) {
    for (size_t y = lo; y < hi; ++y) {
      const uint8_t* row = p.rgb.data() + ((static_cast<size_t>(wy0) + y) * cw + wx0) * 3;
      for (int32_t x = 0; x < W_; ++x) {
        const size_t i = y * W_ + x;
        synth_planes_[i] = T[row[3 * x]];
        synth_planes_[hw + i] = T[row[3 * x + 1]];
        synth_planes_[2 * hw + i] = T[row[3 * x + 2]];
      }
    }
  });

  times_.gather += sw.lap();
  headForward(m);
  sw.lap();  // headForward kept its own split

  // The synth plane's weight under the head mask: 0 on this road, where the
  // head has no synth branch, but measured all the same.
  const float* wsyn = weights_.data() + static_cast<size_t>(m) * hw;
  double sum = 0.0, peak = 0.0;
  uint64_t count = 0;
  for (size_t i = 0; i < hw; ++i) {
    if (head_mask_[i] == 0) continue;
    const double v = wsyn[i];
    sum += v;
    peak = std::max(peak, v);
    ++count;
  }
  if (count > 0) {
    const double mean = sum / static_cast<double>(count);
    result.synth_mean = static_cast<float>(mean);
    result.synth_max = static_cast<float>(peak);
    stats_.frames += 1;
    stats_.pixels += count;
    stats_.sum += mean;
    stats_.peak = std::max(stats_.peak, peak);
  }

  // The donors carried into the next frame: the largest total weight first.
  scores_.resize(static_cast<size_t>(m));
  pool::parallelRange(static_cast<size_t>(m), 1, [&](size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i) {
      const float* w = weights_.data() + i * hw;
      float s = 0.0f;
      for (size_t k = 0; k < hw; ++k) s += w[k];
      scores_[i] = -s;
    }
  });
  stableArgsort(scores_, sel_order_);
  const int32_t keep = std::max(std::min(cfg_.hysteresis, m), 0);
  prev_sel_.resize(static_cast<size_t>(keep));
  for (int32_t j = 0; j < keep; ++j) prev_sel_[j] = merged_[static_cast<size_t>(sel_order_[j])];
  prev_sel_frame_ = p.frame;

  result.rgb.resize(hw * 3);
  pool::parallelRange(static_cast<size_t>(H_), 4, [&](size_t lo, size_t hi) {
    for (size_t y = lo; y < hi; ++y) {
      const uint8_t* pirow = p.pi.data() + (static_cast<size_t>(wy0) + y) * cw + wx0;
      for (int32_t x = 0; x < W_; ++x) {
        const size_t i = y * W_ + x;
        const float a = static_cast<float>(pirow[x]) / 255.0f;
        const float inv = 1.0f - a;
        for (int c = 0; c < 3; ++c) {
          const float s = synth_planes_[c * hw + i];
          const float b = blended_[c * hw + i];
          const float v = inv * s + a * b;
          result.rgb[i * 3 + c] = composeByte(v);
        }
      }
    }
  });
  result.n = m;
  times_.compose += sw.lap();
  ++times_.emits;
}

void TeethPass::headForward(int32_t m) {
  Stopwatch sw;
  const int32_t h2 = H_ / 2, w2 = W_ / 2;
  const size_t hw = static_cast<size_t>(H_) * W_, p2 = static_cast<size_t>(h2) * w2;
  const size_t mm = static_cast<size_t>(m);

  synth_pool_.resize(3 * p2);
  for (int c = 0; c < 3; ++c) avgPool(synth_planes_.data() + c * hw, H_, W_, 2, synth_pool_.data() + c * p2);
  feats_.resize(mm * kFeat * p2);
  pool::parallelRange(mm, 1, [&](size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i) {
      float* f = feats_.data() + i * kFeat * p2;
      for (int c = 0; c < 3; ++c) avgPool(cand_.data() + (i * 3 + c) * hw, H_, W_, 2, f + c * p2);
      std::memcpy(f + 3 * p2, synth_pool_.data(), 3 * p2 * sizeof(float));
      for (size_t k = 0; k < p2; ++k) {
        const float d0 = std::fabs(f[k] - f[3 * p2 + k]);
        const float d1 = std::fabs(f[p2 + k] - f[4 * p2 + k]);
        const float d2 = std::fabs(f[2 * p2 + k] - f[5 * p2 + k]);
        f[6 * p2 + k] = (d0 + d1 + d2) / 3.0f;
      }
    }
  });

  // Three convolutions at half resolution, every output plane on one thread.
  auto conv = [&](const std::vector<float>& in, int cin, const std::vector<float>& w, const std::vector<float>& b,
                  int cout, std::vector<float>& out, bool relu) {
    out.resize(mm * static_cast<size_t>(cout) * p2);
    pool::parallelRange(mm * static_cast<size_t>(cout), 1, [&](size_t lo, size_t hi) {
      simd::conv3x3Range(in.data(), m, cin, h2, w2, w.data(), b.data(), cout, out.data(), static_cast<int>(lo),
                         static_cast<int>(hi));
      if (!relu) return;
      for (float* v = out.data() + lo * p2; v != out.data() + hi * p2; ++v)
        if (!(*v > 0.0f)) *v = 0.0f;
    });
  };
  conv(feats_, kFeat, head_.cand0_w, head_.cand0_b, kHidden, act0_, true);
  conv(act0_, kHidden, head_.cand2_w, head_.cand2_b, kHidden, act1_, true);
  conv(act1_, kHidden, head_.cand4_w, head_.cand4_b, 1, logits_, false);

  times_.convs += sw.lap();

  // Back to full resolution: bilinear, half-pixel centres, each donor apart.
  const int32_t uh = 2 * h2, uw = 2 * w2;
  taps_x_.resize(static_cast<size_t>(uw));
  for (int32_t x = 0; x < uw; ++x) taps_x_[x] = tapAt(x, w2);
  up_.resize(mm * hw);
  pool::parallelRange(mm, 1, [&](size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i) {
      const float* L = logits_.data() + i * p2;
      float* out = up_.data() + i * hw;
      for (int32_t y = 0; y < uh; ++y) {
        const Tap ty = tapAt(y, h2);
        const float* a = L + static_cast<size_t>(ty.lo) * w2;
        const float* b = L + static_cast<size_t>(ty.hi) * w2;
        for (int32_t x = 0; x < uw; ++x) {
          const Tap& tx = taps_x_[x];
          const float top = a[tx.lo] + (a[tx.hi] - a[tx.lo]) * tx.f;
          const float bot = b[tx.lo] + (b[tx.hi] - b[tx.lo]) * tx.f;
          out[static_cast<size_t>(y) * W_ + x] = top + ty.f * (bot - top);
        }
      }
    }
  });

  // Softmax over the donors per pixel; the synth plane, last, weighs 0. Each
  // pixel's arithmetic is its own; the loops walk a block of pixels donor by
  // donor so that the planes are read in order.
  weights_.resize((mm + 1) * hw);
  pool::parallelRange(hw, 256, [&](size_t lo, size_t hi) {
    constexpr size_t kBlock = 256;
    float mx[kBlock], sum[kBlock];
    for (size_t b0 = lo; b0 < hi; b0 += kBlock) {
      const size_t n = std::min(kBlock, hi - b0);
      std::fill(mx, mx + n, -1e30f);
      std::fill(sum, sum + n, 0.0f);
      for (size_t i = 0; i < mm; ++i) {
        const float* u = up_.data() + i * hw + b0;
        for (size_t k = 0; k < n; ++k) mx[k] = std::max(mx[k], u[k]);
      }
      for (size_t i = 0; i < mm; ++i) {
        const float* u = up_.data() + i * hw + b0;
        float* w = weights_.data() + i * hw + b0;
        for (size_t k = 0; k < n; ++k) {
          w[k] = expf(u[k] - mx[k]);  // the C library's own
          sum[k] += w[k];
        }
      }
      for (size_t i = 0; i < mm; ++i) {
        float* w = weights_.data() + i * hw + b0;
        for (size_t k = 0; k < n; ++k) w[k] = w[k] / sum[k];
      }
      std::fill(weights_.data() + mm * hw + b0, weights_.data() + mm * hw + b0 + n, 0.0f);
    }
  });

  // The blend: within the head mask the weighted sum of the candidates,
  // donors in order from 0; elsewhere the synthesised value.
  blended_.resize(3 * hw);
  pool::parallelRange(3 * hw, 256, [&](size_t lo, size_t hi) {
    for (size_t e0 = lo; e0 < hi;) {
      const size_t c = e0 / hw, k0 = e0 % hw;
      const size_t n = std::min(hi - e0, hw - k0);  // within one channel's plane
      float* out = blended_.data() + e0;
      std::fill(out, out + n, 0.0f);
      for (size_t i = 0; i < mm; ++i) {
        const float* w = weights_.data() + i * hw + k0;
        const float* cd = cand_.data() + (i * 3 + c) * hw + k0;
        for (size_t k = 0; k < n; ++k) out[k] += w[k] * cd[k];
      }
      for (size_t k = 0; k < n; ++k)
        if (head_mask_[k0 + k] == 0) out[k] = synth_planes_[e0 + k];
      e0 += n;
    }
  });
  times_.blend += sw.lap();
}

}  // namespace le::tessera
