// Teeth retrieval: the pass's construction, the pooled index of the bank,
// the shift of a frame, the teeth-pixel mask with its fallback and temporal
// carry, and the two-stage search with its scores and tie-breaks.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <stdexcept>
#include <string>

#include "compute/pool.h"
#include "compute/simd.h"
#include "tessera/avg_pool.h"
#include "tessera/number.h"
#include "tessera/stopwatch.h"
#include "tessera/teeth_pass.h"

namespace le::tessera {

namespace {

constexpr int32_t kPool = 4;       // retrieval compares windows pooled 4 x 4
constexpr int32_t kListBlock = 64;  // the exact list's weights come in whole blocks

float roundHalf(float v) {
  uint16_t h;
  simd::f32ToF16(&v, &h, 1);
  float out;
  simd::f16ToF32(&h, &out, 1);
  return out;
}

std::string tag(const char* what, int64_t a, int64_t b) {
  return std::string(what) + " [" + std::to_string(a) + "," + std::to_string(b) + ")";
}

}  // namespace

TeethPass::TeethPass(const BankData& bank, const HeadWeights& head, const ServeConfig& cfg)
    : stamp_(bank.stamp), cfg_(cfg), head_(head), n_(bank.n) {
  stamp_.validate();
  if (n_ < 1) throw std::runtime_error("teeth: the bank holds no donors (n=" + std::to_string(n_) + ")");
  const int64_t need = int64_t{n_} * stamp_.storedH() * stamp_.storedW() * 3;
  if (static_cast<int64_t>(bank.refs.size()) != need) {
    throw std::runtime_error("teeth: reference track is " + std::to_string(bank.refs.size()) +
                             " bytes, the stamp requires " + std::to_string(need) +
                             " (n * stored_h * stored_w * 3) — a decoder that delivered a different pixel format "
                             "would land here");
  }
  if (bank.aperture.size() != static_cast<size_t>(n_) || bank.cent.size() != 2 * static_cast<size_t>(n_))
    throw std::runtime_error("teeth: bank sidecar arrays disagree with n_donors");
  if (cfg_.kshort < 1) {
    throw std::runtime_error("teeth: tessera_head.v1.json retrieval.kshort is " + std::to_string(cfg_.kshort) +
                             " — at least one donor must survive the pooled stage");
  }
  H_ = stamp_.window_h();
  W_ = stamp_.window_w();
  if (H_ % 2 != 0 || W_ % 2 != 0) {
    throw std::runtime_error("teeth: window " + std::to_string(W_) + "x" + std::to_string(H_) +
                             " is not even — the head works at half resolution and its weights would not line up "
                             "with the window");
  }
  if (head_.cand0_w.size() != 1008 || head_.cand0_b.size() != 16 || head_.cand2_w.size() != 2304 ||
      head_.cand2_b.size() != 16 || head_.cand4_w.size() != 144 || head_.cand4_b.size() != 1)
    throw std::runtime_error("teeth: head weights lack the cand tensors of BlendHead(16)");
  ph_ = H_ / kPool;
  pw_ = W_ / kPool;
  SH_ = static_cast<int32_t>(stamp_.storedH());
  SW_ = static_cast<int32_t>(stamp_.storedW());
  refs_ = bank.refs;
  aperture_ = bank.aperture;
  c_canon_x_ = bank.c_canon[0];
  c_canon_y_ = bank.c_canon[1];
  dy_.resize(static_cast<size_t>(n_));
  dx_.resize(static_cast<size_t>(n_));
  for (int32_t q = 0; q < n_; ++q) {
    dx_[q] = roundToI32(bank.cent[2 * static_cast<size_t>(q)] - c_canon_x_);
    dy_[q] = roundToI32(bank.cent[2 * static_cast<size_t>(q) + 1] - c_canon_y_);
  }
  const char* exactList = std::getenv("LE_TESS_EXACT_LIST");
  use_exact_list_ = !(exactList && exactList[0] == '0');
  band_mask_.assign(static_cast<size_t>(H_) * W_, 0);
  for (int32_t y = stamp_.band_r0(); y < stamp_.band_r1(); ++y)
    for (int32_t x = stamp_.band_c0(); x < stamp_.band_c1(); ++x) band_mask_[static_cast<size_t>(y) * W_ + x] = 1;
  prev_mask_.assign(static_cast<size_t>(H_) * W_, 0.0f);
  buildIndex();
}

int32_t TeethPass::clampOffset(int32_t v) const { return std::min(std::max(v, 0), 2 * stamp_.pad()); }

bool TeethPass::covers(int32_t oy, int32_t ox, int32_t y, int32_t x) const {
  const int32_t r = storedRow(oy) + y, c = storedCol(ox) + x;
  return r >= 0 && r < SH_ && c >= 0 && c < SW_;
}

Box TeethPass::cpuReadRect() const {
  const int32_t pad = stamp_.pad();
  return Box{std::max(stamp_.window_x0() - pad, 0), std::max(stamp_.window_y0() - pad, 0),
             std::min(stamp_.window_x0() + stamp_.window_w() + pad, stamp_.canvas_w()),
             std::min(stamp_.window_y0() + stamp_.window_h() + pad, stamp_.canvas_h())};
}

void TeethPass::checkSynthRead(int32_t row, int32_t col, const char* what) const {
  const Box r = cpuReadRect();
  const int64_t r1 = int64_t{row} + H_, c1 = int64_t{col} + W_;
  if (row >= r.y0 && r1 <= r.y1 && col >= r.x0 && c1 <= r.x1) return;
  throw std::runtime_error("teeth: " + std::string(what) + " would read synth " + tag("rows", row, r1) + " " +
                           tag("cols", col, c1) + " outside the window +/- pad rect " + tag("rows", r.y0, r.y1) +
                           " " + tag("cols", r.x0, r.x1) +
                           " — the only bytes the stream quantises for this body; refusing rather than reading stale "
                           "bytes");
}

const float* TeethPass::dTable() {
  static const std::vector<float> table = [] {
    float v[256];
    for (int b = 0; b < 256; ++b) v[b] = static_cast<float>(b) / 255.0f;
    uint16_t h16[256];
    float h[256];
    simd::f32ToF16(v, h16, 256);
    simd::f16ToF32(h16, h, 256);
    std::vector<float> t(256 * 256);
    std::vector<float> diff(256);
    std::vector<uint16_t> d16(256);
    for (int a = 0; a < 256; ++a) {
      for (int b = 0; b < 256; ++b) diff[b] = h[b] - h[a];
      simd::f32ToF16(diff.data(), d16.data(), 256);
      simd::f16ToF32(d16.data(), t.data() + static_cast<size_t>(a) * 256, 256);
      for (int b = 0; b < 256; ++b) t[static_cast<size_t>(a) * 256 + b] = std::fabs(t[static_cast<size_t>(a) * 256 + b]);
    }
    return t;
  }();
  return table.data();
}

void TeethPass::canonicalWindowF16(int32_t q, uint16_t* out) const {
  const size_t hw = static_cast<size_t>(H_) * W_;
  const int32_t r0 = storedRow(clampOffset(dy_[q] + stamp_.pad()));
  const int32_t c0 = storedCol(clampOffset(dx_[q] + stamp_.pad()));
  const uint8_t* patch = refs_.data() + static_cast<size_t>(q) * SH_ * SW_ * 3;
  std::memset(out, 0, 3 * hw * sizeof(uint16_t));
  for (int32_t y = 0; y < H_; ++y) {
    const int32_t sr = r0 + y;
    if (sr < 0 || sr >= SH_) continue;
    // The columns this row covers, then one conversion per covered run.
    const int32_t x0 = std::max(0, -c0), x1 = std::min(W_, SW_ - c0);
    if (x1 <= x0) continue;
    simd::rgb8ToPlanarF16(patch + (static_cast<size_t>(sr) * SW_ + c0 + x0) * 3, out + static_cast<size_t>(y) * W_ + x0,
                          hw, static_cast<size_t>(x1 - x0));
  }
}

void TeethPass::buildIndex() {
  const size_t hw = static_cast<size_t>(H_) * W_, P = static_cast<size_t>(ph_) * pw_;
  index_.assign(static_cast<size_t>(n_) * 3 * P, 0);
  pool::parallelRange(static_cast<size_t>(n_), 1, [&](size_t lo, size_t hi) {
    std::vector<uint16_t> win(3 * hw);
    std::vector<float> wide(3 * hw), pooled(3 * P);
    for (size_t q = lo; q < hi; ++q) {
      canonicalWindowF16(static_cast<int32_t>(q), win.data());
      simd::f16ToF32(win.data(), wide.data(), 3 * hw);
      for (int c = 0; c < 3; ++c) avgPool(wide.data() + c * hw, H_, W_, kPool, pooled.data() + c * P);
      simd::f32ToF16(pooled.data(), index_.data() + q * 3 * P, 3 * P);
    }
  });
}

bool TeethPass::deriveShift(const uint8_t* pi, const int32_t* fixed, int32_t& dy, int32_t& dx,
                            std::string& why) const {
  if (fixed) {
    dy = fixed[0];
    dx = fixed[1];
  } else {
    double sx = 0.0, sy = 0.0, n = 0.0;
    const int32_t cw = stamp_.canvas_w(), ch = stamp_.canvas_h();
    for (int32_t y = 0; y < ch; ++y) {
      const uint8_t* row = pi + static_cast<size_t>(y) * cw;
      for (int32_t x = 0; x < cw; ++x) {
        if (row[x] < 128) continue;
        sx += x;
        sy += y;
        n += 1.0;
      }
    }
    if (n == 0.0) {
      why = "empty-pi";
      return false;
    }
    dx = roundToI32(sx / n - c_canon_x_);
    dy = roundToI32(sy / n - c_canon_y_);
  }
  const int64_t pad = stamp_.pad();
  if (std::llabs(dy) > pad || std::llabs(dx) > pad) {
    why = "shift-out-of-range";
    return false;
  }
  return true;
}

void TeethPass::retrievePrepare(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0) {
  RetrieveWork& w = work_;
  w.row0 = stamp_.window_y0() + dy0;
  w.col0 = stamp_.window_x0() + dx0;
  checkSynthRead(w.row0, w.col0, "retrieve");
  w.rgb = rgb;
  const size_t hw = static_cast<size_t>(H_) * W_, P = static_cast<size_t>(ph_) * pw_;
  const int32_t cw = stamp_.canvas_w();
  w.synth.resize(3 * hw);
  w.mask.resize(hw);
  const float lumaMin = static_cast<float>(cfg_.luma_min);
  const float rgMax = static_cast<float>(cfg_.rg_max);
  float sum = 0.0f;
  for (int32_t y = 0; y < H_; ++y) {
    const size_t at = static_cast<size_t>(w.row0 + y) * cw + w.col0;
    for (int32_t x = 0; x < W_; ++x) {
      const uint8_t* px = rgb + (at + x) * 3;
      const float R = px[0], G = px[1], B = px[2];
      const float p = pi[at + x];
      const size_t i = static_cast<size_t>(y) * W_ + x;
      w.synth[i] = R / 255.0f;
      w.synth[hw + i] = G / 255.0f;
      w.synth[2 * hw + i] = B / 255.0f;
      const float luma = R * 0.299f + G * 0.587f + B * 0.114f;
      const bool teeth = p / 255.0f > 0.5f && luma >= lumaMin && std::fabs(G - R) < rgMax;
      w.mask[i] = teeth ? 1.0f : 0.0f;
      sum += w.mask[i];
    }
  }
  // A closed or dark mouth has too few teeth pixels: the whole inner mouth
  // stands in for them.
  if (sum < static_cast<float>(cfg_.min_mask_px)) {
    for (int32_t y = 0; y < H_; ++y) {
      const size_t at = static_cast<size_t>(w.row0 + y) * cw + w.col0;
      for (int32_t x = 0; x < W_; ++x)
        w.mask[static_cast<size_t>(y) * W_ + x] = static_cast<float>(pi[at + x]) / 255.0f > 0.5f ? 1.0f : 0.0f;
    }
  }
  if (prev_mask_valid_) {
    const float decay = static_cast<float>(cfg_.mask_decay);
    for (size_t i = 0; i < hw; ++i) w.mask[i] = std::max(w.mask[i], prev_mask_[i] * decay);
  }
  std::copy(w.mask.begin(), w.mask.end(), prev_mask_.begin());
  prev_mask_valid_ = true;
  float dn = 0.0f;
  for (size_t i = 0; i < hw; ++i) dn += w.mask[i];
  w.dn = std::max(dn, 1.0f);
  w.row_lo = 0;
  w.row_hi = H_;
  int32_t first = -1, last = -1;
  for (int32_t y = 0; y < H_; ++y) {
    const float* row = w.mask.data() + static_cast<size_t>(y) * W_;
    if (std::any_of(row, row + W_, [](float v) { return v != 0.0f; })) {
      if (first < 0) first = y;
      last = y;
    }
  }
  if (first >= 0) {
    w.row_lo = first;
    w.row_hi = last + 1;
  }
  w.pooled_f.resize(4 * P);
  for (int c = 0; c < 3; ++c) avgPool(w.synth.data() + c * hw, H_, W_, kPool, w.pooled_f.data() + c * P);
  avgPool(w.mask.data(), H_, W_, kPool, w.pooled_f.data() + 3 * P);
  w.pool_synth.resize(3 * P);
  w.pool_mask.resize(P);
  simd::f32ToF16(w.pooled_f.data(), w.pool_synth.data(), 3 * P);
  simd::f32ToF16(w.pooled_f.data() + 3 * P, w.pool_mask.data(), P);
  simd::f16ToF32(w.pool_mask.data(), w.pooled_f.data(), P);  // the halves' own values, for the sum
  float pn = 0.0f;
  for (size_t i = 0; i < P; ++i) pn += w.pooled_f[i];
  w.pn = std::max(pn, 0.0001f);
}

void TeethPass::buildMaskList() {
  const RetrieveWork& w = work_;
  MaskList& l = list_;
  l.ys.clear();
  l.xs.clear();
  l.rs.clear();
  l.gs.clear();
  l.bs.clear();
  l.ws.clear();
  const int32_t cw = stamp_.canvas_w();
  for (int32_t y = w.row_lo; y < w.row_hi; ++y) {
    for (int32_t x = 0; x < W_; ++x) {
      const float m = w.mask[static_cast<size_t>(y) * W_ + x];
      if (m == 0.0f) continue;
      const uint8_t* px = w.rgb + (static_cast<size_t>(w.row0 + y) * cw + w.col0 + x) * 3;
      l.ys.push_back(y);
      l.xs.push_back(x);
      l.rs.push_back(px[0]);
      l.gs.push_back(px[1]);
      l.bs.push_back(px[2]);
      l.ws.push_back(m);
    }
  }
  l.count = static_cast<int32_t>(l.ws.size());
  l.ws.resize((l.ws.size() + kListBlock - 1) / kListBlock * kListBlock, 0.0f);
}

namespace {

// Per-thread scratch of the exact stage: the mean differences of one run of
// pixels and their weighted terms.
struct ExactScratch {
  std::vector<float> e, v;
  void size(size_t n) {
    if (e.size() < n) {
      e.resize(n);
      v.resize(n);
    }
  }
};
thread_local ExactScratch t_exact;

}  // namespace

float TeethPass::exactTermFromList(int32_t q) const {
  const MaskList& l = list_;
  const float* T = dTable();
  const int32_t r0 = storedRow(clampOffset(dy_[q] + stamp_.pad()));
  const int32_t c0 = storedCol(clampOffset(dx_[q] + stamp_.pad()));
  const uint8_t* patch = refs_.data() + static_cast<size_t>(q) * SH_ * SW_ * 3;
  const size_t padded = l.ws.size();
  ExactScratch& s = t_exact;
  s.size(padded);
  for (int32_t j = 0; j < l.count; ++j) {
    const int32_t sr = r0 + l.ys[j], sc = c0 + l.xs[j];
    uint8_t r = 0, g = 0, b = 0;
    if (sr >= 0 && sr < SH_ && sc >= 0 && sc < SW_) {
      const uint8_t* px = patch + (static_cast<size_t>(sr) * SW_ + sc) * 3;
      r = px[0];
      g = px[1];
      b = px[2];
    }
    s.e[j] = (T[l.rs[j] * 256 + r] + T[l.gs[j] * 256 + g] + T[l.bs[j] * 256 + b]) / 3.0f;
  }
  std::fill(s.e.begin() + l.count, s.e.begin() + static_cast<ptrdiff_t>(padded), 0.0f);
  simd::roundF16Mul(s.e.data(), l.ws.data(), s.v.data(), padded);
  float acc = 0.0f;
  for (int32_t j = 0; j < l.count; ++j) acc += s.v[j];
  return acc;
}

float TeethPass::exactTermFromBand(int32_t q) const {
  const RetrieveWork& w = work_;
  const float* T = dTable();
  const int32_t r0 = storedRow(clampOffset(dy_[q] + stamp_.pad()));
  const int32_t c0 = storedCol(clampOffset(dx_[q] + stamp_.pad()));
  const uint8_t* patch = refs_.data() + static_cast<size_t>(q) * SH_ * SW_ * 3;
  const int32_t cw = stamp_.canvas_w();
  ExactScratch& s = t_exact;
  s.size(2 * static_cast<size_t>(W_));
  float* ws = s.e.data() + W_;  // the row's weights beside its differences
  float acc = 0.0f;
  for (int32_t y = w.row_lo; y < w.row_hi; ++y) {
    const float* mrow = w.mask.data() + static_cast<size_t>(y) * W_;
    const uint8_t* srow = w.rgb + (static_cast<size_t>(w.row0 + y) * cw + w.col0) * 3;
    const int32_t sr = r0 + y;
    size_t k = 0;
    for (int32_t x = 0; x < W_; ++x) {
      if (mrow[x] == 0.0f) continue;
      const int32_t sc = c0 + x;
      uint8_t r = 0, g = 0, b = 0;
      if (sr >= 0 && sr < SH_ && sc >= 0 && sc < SW_) {
        const uint8_t* px = patch + (static_cast<size_t>(sr) * SW_ + sc) * 3;
        r = px[0];
        g = px[1];
        b = px[2];
      }
      const uint8_t* sp = srow + static_cast<size_t>(x) * 3;
      s.e[k] = (T[sp[0] * 256 + r] + T[sp[1] * 256 + g] + T[sp[2] * 256 + b]) / 3.0f;
      ws[k] = mrow[x];
      ++k;
    }
    simd::roundF16Mul(s.e.data(), ws, s.v.data(), k);
    for (size_t j = 0; j < k; ++j) acc += s.v[j];
  }
  return acc;
}

void TeethPass::stableArgsort(const std::vector<float>& values, std::vector<int32_t>& order) {
  order.resize(values.size());
  std::iota(order.begin(), order.end(), 0);
  // Ascending by value, equal values by ascending index: the order a stable
  // sort gives, as a strict total order so that an in-place sort can't be
  // misled. A NaN (which finite inputs never produce) sorts last.
  std::sort(order.begin(), order.end(), [&](int32_t a, int32_t b) {
    const float va = values[static_cast<size_t>(a)], vb = values[static_cast<size_t>(b)];
    const bool na = std::isnan(va), nb = std::isnan(vb);
    if (na || nb) return na == nb ? a < b : nb;
    return va < vb || (va == vb && a < b);
  });
}

const std::vector<int32_t>& TeethPass::retrieve(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0) {
  Stopwatch sw;
  retrievePrepare(rgb, pi, dy0, dx0);
  times_.prepare += sw.lap();
  const size_t P = static_cast<size_t>(ph_) * pw_;
  const RetrieveWork& w = work_;
  pooled_.resize(static_cast<size_t>(n_));
  pool::parallelRange(static_cast<size_t>(n_), 1, [&](size_t lo, size_t hi) {
    for (size_t q = lo; q < hi; ++q) {
      const float term = simd::retrieveTermPooled(index_.data() + q * 3 * P, w.pool_synth.data(), w.pool_mask.data(), P);
      pooled_[q] = roundHalf(term) / w.pn;
    }
  });
  stableArgsort(pooled_, order_);
  times_.pooled += sw.lap();
  const int32_t s = std::min(n_, cfg_.kshort);
  if (use_exact_list_) buildMaskList();
  exact_.assign(static_cast<size_t>(n_), 0.0f);
  pool::parallelRange(static_cast<size_t>(s), 1, [&](size_t lo, size_t hi) {
    for (size_t i = lo; i < hi; ++i) {
      const int32_t q = order_[i];
      exact_[static_cast<size_t>(q)] = (use_exact_list_ ? exactTermFromList(q) : exactTermFromBand(q)) / w.dn;
    }
  });
  times_.exact += sw.lap();
  retrieveSelect();
  times_.select += sw.lap();
  ++times_.retrievals;
  return chosen_;
}

void TeethPass::retrieveSelect() {
  // order_ holds the pooled ranking of this frame.
  const int32_t s = std::min(n_, cfg_.kshort);
  short_.resize(static_cast<size_t>(s));
  for (int32_t i = 0; i < s; ++i) short_[i] = exact_[static_cast<size_t>(order_[i])];
  stableArgsort(short_, rank_);
  const int32_t c = std::min(s, cfg_.cut);
  const int32_t best = order_[static_cast<size_t>(rank_[0])];
  const double a0 = aperture_[static_cast<size_t>(best)];
  const double tol = std::max(a0, 1e-6) * cfg_.aperture_tol;
  chosen_.clear();
  for (int32_t i = 0; i < c && static_cast<int32_t>(chosen_.size()) < cfg_.K; ++i) {
    const int32_t q = order_[static_cast<size_t>(rank_[i])];
    if (std::fabs(aperture_[static_cast<size_t>(q)] - a0) <= tol) chosen_.push_back(q);
  }
  if (chosen_.empty()) chosen_.push_back(best);
  while (static_cast<int32_t>(chosen_.size()) < cfg_.K) chosen_.push_back(chosen_.back());
}

void TeethPass::gatherWindowsU8(const std::vector<int32_t>& donors, int32_t dy0, int32_t dx0,
                                std::vector<uint8_t>& out) const {
  const size_t win = static_cast<size_t>(H_) * W_ * 3;
  out.assign(donors.size() * win, 0);
  for (size_t i = 0; i < donors.size(); ++i) {
    const int32_t q = donors[i];
    const int32_t r0 = storedRow(clampOffset(dy_[q] + stamp_.pad() - dy0));
    const int32_t c0 = storedCol(clampOffset(dx_[q] + stamp_.pad() - dx0));
    const uint8_t* patch = refs_.data() + static_cast<size_t>(q) * SH_ * SW_ * 3;
    const int32_t x0 = std::max(0, -c0), x1 = std::min(W_, SW_ - c0);
    if (x1 <= x0) continue;
    for (int32_t y = 0; y < H_; ++y) {
      const int32_t sr = r0 + y;
      if (sr < 0 || sr >= SH_) continue;
      std::memcpy(out.data() + i * win + (static_cast<size_t>(y) * W_ + x0) * 3,
                  patch + (static_cast<size_t>(sr) * SW_ + c0 + x0) * 3, static_cast<size_t>(x1 - x0) * 3);
    }
  }
}

}  // namespace le::tessera
