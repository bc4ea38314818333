#include "tests/tessera/teeth_reference.h"

#include <math.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <stdexcept>

#include "tests/compute/reference.h"

namespace le::test::teethref {

namespace {

// The float value of the nearest half.
float h(float v) { return ref::wide(ref::f16(v)); }

// Nearest integer, ties to even (the default rounding mode).
int32_t nearest(double v) { return static_cast<int32_t>(std::nearbyint(v)); }

std::vector<int32_t> ascending(const std::vector<float>& v) {
  std::vector<int32_t> o(v.size());
  std::iota(o.begin(), o.end(), 0);
  std::stable_sort(o.begin(), o.end(), [&](int32_t a, int32_t b) { return v[a] < v[b]; });
  return o;
}

// The mean of each k x k block, summed block row by block row, times
// 1 / (k * k).
std::vector<float> pool(const std::vector<float>& plane, int32_t H, int32_t W, int32_t k) {
  std::vector<float> out(static_cast<size_t>(H / k) * (W / k));
  for (int32_t oy = 0; oy < H / k; ++oy)
    for (int32_t ox = 0; ox < W / k; ++ox) {
      float acc = 0.0f;
      for (int32_t by = 0; by < k; ++by)
        for (int32_t bx = 0; bx < k; ++bx) acc += plane[static_cast<size_t>(oy * k + by) * W + ox * k + bx];
      out[static_cast<size_t>(oy) * (W / k) + ox] = acc * (1.0f / static_cast<float>(k * k));
    }
  return out;
}

bool has(const std::vector<int32_t>& v, int32_t x) { return std::find(v.begin(), v.end(), x) != v.end(); }

// in: n images of cin planes; w: [cout][cin][3][3].
std::vector<float> conv3x3(const std::vector<float>& in, int32_t n, int32_t cin, int32_t H, int32_t W,
                           const std::vector<float>& w, const std::vector<float>& b, int32_t cout, bool relu) {
  std::vector<float> out(static_cast<size_t>(n) * cout * H * W);
  for (int32_t img = 0; img < n; ++img)
    for (int32_t oc = 0; oc < cout; ++oc)
      for (int32_t y = 0; y < H; ++y)
        for (int32_t x = 0; x < W; ++x) {
          float acc = 0.0f;
          for (int32_t ky = 0; ky < 3; ++ky) {
            const int32_t yy = y + ky - 1;
            if (yy < 0 || yy >= H) continue;
            for (int32_t kx = 0; kx < 3; ++kx) {
              const int32_t xx = x + kx - 1;
              if (xx < 0 || xx >= W) continue;
              for (int32_t ic = 0; ic < cin; ++ic)
                acc += in[((static_cast<size_t>(img) * cin + ic) * H + yy) * W + xx] *
                       w[((static_cast<size_t>(oc) * cin + ic) * 3 + ky) * 3 + kx];
            }
          }
          float v = acc + b[oc];
          if (relu && !(v > 0.0f)) v = 0.0f;
          out[((static_cast<size_t>(img) * cout + oc) * H + y) * W + x] = v;
        }
  return out;
}

}  // namespace

Pass::Pass(const BankData& bank, const tessera::HeadWeights& head, const tessera::ServeConfig& cfg)
    : bank_(bank), head_(head), cfg_(cfg) {
  const GeometryStamp& s = bank_.stamp;
  H_ = s.window_h();
  W_ = s.window_w();
  SH_ = s.band_r1() - s.band_r0() + 2 * s.shift_margin();
  SW_ = s.band_c1() - s.band_c0() + 2 * s.shift_margin();
  for (int32_t q = 0; q < bank_.n; ++q) {
    dx_.push_back(nearest(bank_.cent[2 * q] - bank_.c_canon[0]));
    dy_.push_back(nearest(bank_.cent[2 * q + 1] - bank_.c_canon[1]));
  }
  prev_mask_.assign(static_cast<size_t>(H_) * W_, 0.0f);
  for (int b = 0; b < 256; ++b) byteHalf_[b] = h(b / 255.0f);
  const size_t hw = static_cast<size_t>(H_) * W_;
  for (int32_t q = 0; q < bank_.n; ++q) {
    const int32_t oy = std::clamp(dy_[q] + s.pad(), 0, 2 * s.pad()), ox = std::clamp(dx_[q] + s.pad(), 0, 2 * s.pad());
    std::vector<float> all;
    for (int c = 0; c < 3; ++c) {
      std::vector<float> plane(hw);
      for (int32_t y = 0; y < H_; ++y)
        for (int32_t x = 0; x < W_; ++x) {
          bool cov;
          const uint8_t v = donorByte(q, oy, ox, y, x, c, cov);
          plane[y * W_ + x] = cov ? byteHalf_[v] : 0.0f;
        }
      for (float v : pool(plane, H_, W_, 4)) all.push_back(h(v));
    }
    pooledDonor_.push_back(all);
  }
}

uint8_t Pass::donorByte(int32_t q, int32_t oy, int32_t ox, int32_t y, int32_t x, int c, bool& covered) const {
  const GeometryStamp& s = bank_.stamp;
  const int32_t r = oy + y + s.shift_margin() - s.pad() - s.band_r0();
  const int32_t col = ox + x + s.shift_margin() - s.pad() - s.band_c0();
  covered = r >= 0 && r < SH_ && col >= 0 && col < SW_;
  if (!covered) return 0;
  return bank_.refs[((static_cast<size_t>(q) * SH_ + r) * SW_ + col) * 3 + c];
}

bool Pass::shift(const uint8_t* pi, const int32_t* fixed, int32_t& dy, int32_t& dx, std::string& why) const {
  const GeometryStamp& s = bank_.stamp;
  if (fixed) {
    dy = fixed[0];
    dx = fixed[1];
  } else {
    double sx = 0, sy = 0, n = 0;
    for (int32_t y = 0; y < s.canvas_h(); ++y)
      for (int32_t x = 0; x < s.canvas_w(); ++x)
        if (pi[y * s.canvas_w() + x] >= 128) {
          sx += x;
          sy += y;
          n += 1;
        }
    if (n == 0) {
      why = "empty-pi";
      return false;
    }
    dx = nearest(sx / n - bank_.c_canon[0]);
    dy = nearest(sy / n - bank_.c_canon[1]);
  }
  if (std::abs(dy) > s.pad() || std::abs(dx) > s.pad()) {
    why = "shift-out-of-range";
    return false;
  }
  return true;
}

Pass::Retrieval Pass::retrieve(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0) {
  const GeometryStamp& s = bank_.stamp;
  const int32_t row0 = s.window_y0() + dy0, col0 = s.window_x0() + dx0;
  if (row0 < std::max(s.window_y0() - s.pad(), 0) || col0 < std::max(s.window_x0() - s.pad(), 0) ||
      row0 + H_ > std::min(s.window_y0() + H_ + s.pad(), s.canvas_h()) ||
      col0 + W_ > std::min(s.window_x0() + W_ + s.pad(), s.canvas_w()))
    throw std::runtime_error("reference: read outside the window +/- pad");
  const size_t hw = static_cast<size_t>(H_) * W_;
  auto at = [&](int32_t y, int32_t x) { return static_cast<size_t>(row0 + y) * s.canvas_w() + col0 + x; };
  std::vector<float> mask(hw), sy[3];
  for (auto& p : sy) p.resize(hw);
  float sum = 0.0f;
  for (int32_t y = 0; y < H_; ++y)
    for (int32_t x = 0; x < W_; ++x) {
      const float R = rgb[at(y, x) * 3], G = rgb[at(y, x) * 3 + 1], B = rgb[at(y, x) * 3 + 2];
      const float p = pi[at(y, x)];
      sy[0][y * W_ + x] = R / 255.0f;
      sy[1][y * W_ + x] = G / 255.0f;
      sy[2][y * W_ + x] = B / 255.0f;
      const float r = R * 0.299f, g = G * 0.587f, b = B * 0.114f;
      const float luma = (r + g) + b;
      const bool t = p / 255.0f > 0.5f && luma >= static_cast<float>(cfg_.luma_min) &&
                     std::fabs(G - R) < static_cast<float>(cfg_.rg_max);
      mask[y * W_ + x] = t ? 1.0f : 0.0f;
      sum = sum + mask[y * W_ + x];
    }
  if (sum < static_cast<float>(cfg_.min_mask_px))
    for (int32_t y = 0; y < H_; ++y)
      for (int32_t x = 0; x < W_; ++x) mask[y * W_ + x] = pi[at(y, x)] / 255.0f > 0.5f ? 1.0f : 0.0f;
  if (have_prev_)
    for (size_t i = 0; i < hw; ++i) mask[i] = std::max(mask[i], prev_mask_[i] * static_cast<float>(cfg_.mask_decay));
  prev_mask_ = mask;
  have_prev_ = true;
  float dn = 0.0f;
  for (float v : mask) dn += v;
  dn = std::max(dn, 1.0f);

  // The pooled stage, every term from its formula.
  std::vector<float> ps[3], pm = pool(mask, H_, W_, 4);
  for (int c = 0; c < 3; ++c) {
    ps[c] = pool(sy[c], H_, W_, 4);
    for (float& v : ps[c]) v = h(v);
  }
  for (float& v : pm) v = h(v);
  float pn = 0.0f;
  for (float v : pm) pn += v;
  pn = std::max(pn, 0.0001f);
  const int32_t n = bank_.n;
  Retrieval out;
  out.pooled.resize(n);
  out.exact.assign(n, 0.0f);
  const size_t P = pm.size();
  for (int32_t q = 0; q < n; ++q) {
    const std::vector<float>& pd = pooledDonor_[q];
    float acc = 0.0f;
    for (size_t i = 0; i < P; ++i) {
      float d[3];
      for (int c = 0; c < 3; ++c) d[c] = std::fabs(h(pd[c * P + i] - ps[c][i]));
      const float mean = h(((d[0] + d[1]) + d[2]) / 3.0f);
      acc += h(mean * pm[i]);
    }
    out.pooled[q] = h(acc) / pn;
  }
  const std::vector<int32_t> order = ascending(out.pooled);
  const int32_t sl = std::min(n, cfg_.kshort);
  for (int32_t i = 0; i < sl; ++i) {
    const int32_t q = order[i];
    const int32_t oy = std::clamp(dy_[q] + s.pad(), 0, 2 * s.pad()), ox = std::clamp(dx_[q] + s.pad(), 0, 2 * s.pad());
    float acc = 0.0f;
    for (int32_t y = 0; y < H_; ++y)
      for (int32_t x = 0; x < W_; ++x) {
        const float w = mask[y * W_ + x];
        if (w == 0.0f) continue;
        float d[3];
        for (int c = 0; c < 3; ++c) {
          bool cov;
          const float dv = byteHalf_[donorByte(q, oy, ox, y, x, c, cov)];
          const float sv = byteHalf_[rgb[at(y, x) * 3 + c]];
          d[c] = std::fabs(h(dv - sv));
        }
        acc += h(((d[0] + d[1]) + d[2]) / 3.0f) * w;
      }
    out.exact[q] = acc / dn;
  }

  // Selection.
  std::vector<float> shortList(sl);
  for (int32_t i = 0; i < sl; ++i) shortList[i] = out.exact[order[i]];
  const std::vector<int32_t> rank = ascending(shortList);
  const int32_t c = std::min(sl, cfg_.cut);
  const int32_t best = order[rank[0]];
  const double a0 = bank_.aperture[best];
  const double tol = std::max(a0, 1e-6) * cfg_.aperture_tol;
  for (int32_t i = 0; i < c && static_cast<int32_t>(out.donors.size()) < cfg_.K; ++i) {
    const int32_t q = order[rank[i]];
    if (std::fabs(bank_.aperture[q] - a0) <= tol) out.donors.push_back(q);
  }
  if (out.donors.empty()) out.donors.push_back(best);
  while (static_cast<int32_t>(out.donors.size()) < cfg_.K) out.donors.push_back(out.donors.back());
  return out;
}

bool Pass::push(int32_t frame, const uint8_t* rgb, const uint8_t* pi, const int32_t* fixed, Emitted& out) {
  const size_t px = static_cast<size_t>(bank_.stamp.canvas_w()) * bank_.stamp.canvas_h();
  Held in;
  in.frame = frame;
  in.rgb.assign(rgb, rgb + 3 * px);
  in.pi.assign(pi, pi + px);
  in.ok = shift(pi, fixed, in.dy, in.dx, in.why);
  if (in.ok) in.donors = retrieve(rgb, pi, in.dy, in.dx).donors;
  const bool emitted = held_;
  if (held_) emit(pending_, in.ok ? &in.donors : nullptr, out);
  pending_ = std::move(in);
  held_ = true;
  return emitted;
}

bool Pass::flush(Emitted& out) {
  if (!held_) return false;
  emit(pending_, nullptr, out);
  held_ = false;
  return true;
}

void Pass::emit(const Held& p, const std::vector<int32_t>* next, Emitted& out) {
  out = Emitted{};
  if (!p.ok) {
    out.skipped = true;
    out.reason = p.why;
    return;
  }
  const GeometryStamp& s = bank_.stamp;
  const int32_t K = cfg_.K;
  std::vector<int32_t> cur, nxt, curOnly, merged;
  for (int32_t i = 0; i < static_cast<int32_t>(p.donors.size()) && i < K; ++i) cur.push_back(p.donors[i]);
  if (next && cfg_.lookahead_on)
    for (int32_t i = 0; i < static_cast<int32_t>(next->size()) && i < cfg_.lookahead; ++i) nxt.push_back((*next)[i]);
  for (int32_t q : cur)
    if (!has(nxt, q)) curOnly.push_back(q);
  if (!prev_sel_.empty() && prev_sel_frame_ == p.frame - 1) {
    merged = prev_sel_;
    for (int32_t q : nxt)
      if (!has(prev_sel_, q)) merged.push_back(q);
    for (int32_t q : curOnly)
      if (!has(prev_sel_, q)) merged.push_back(q);
  } else {
    merged = nxt;
    for (int32_t q : curOnly) merged.push_back(q);
  }
  if (static_cast<int32_t>(merged.size()) > K) merged.resize(std::max(K, 0));
  const int32_t m = static_cast<int32_t>(merged.size());
  const size_t hw = static_cast<size_t>(H_) * W_;
  auto canvasAt = [&](int32_t y, int32_t x) { return static_cast<size_t>(s.window_y0() + y) * s.canvas_w() + s.window_x0() + x; };

  std::vector<int32_t> oy(m), ox(m);
  std::vector<float> cand(static_cast<size_t>(m) * 3 * hw, 0.0f);
  for (int32_t i = 0; i < m; ++i) {
    const int32_t q = merged[i];
    oy[i] = std::clamp(dy_[q] + s.pad() - p.dy, 0, 2 * s.pad());
    ox[i] = std::clamp(dx_[q] + s.pad() - p.dx, 0, 2 * s.pad());
    for (int c = 0; c < 3; ++c)
      for (int32_t y = 0; y < H_; ++y)
        for (int32_t x = 0; x < W_; ++x) {
          bool cov;
          const uint8_t v = donorByte(q, oy[i], ox[i], y, x, c, cov);
          if (cov) cand[(static_cast<size_t>(i) * 3 + c) * hw + y * W_ + x] = v / 255.0f;
        }
  }
  std::vector<uint8_t> mask(hw, 0);
  for (int32_t y = 0; y < H_; ++y)
    for (int32_t x = 0; x < W_; ++x) {
      const bool band = y >= s.band_r0() && y < s.band_r1() && x >= s.band_c0() && x < s.band_c1();
      bool strip = false;
      if (y < s.band_r0() && x >= s.band_c0() && x < s.band_c1() && p.pi[canvasAt(y, x)] != 0) {
        strip = true;
        for (int32_t i = 0; i < m; ++i) {
          bool cov;
          donorByte(merged[i], oy[i], ox[i], y, x, 0, cov);
          strip = strip && cov;
        }
      }
      mask[y * W_ + x] = band || strip ? 1 : 0;
    }
  std::vector<float> synth(3 * hw);
  for (int c = 0; c < 3; ++c)
    for (int32_t y = 0; y < H_; ++y)
      for (int32_t x = 0; x < W_; ++x) synth[c * hw + y * W_ + x] = p.rgb[canvasAt(y, x) * 3 + c] / 255.0f;

  // The head.
  const int32_t h2 = H_ / 2, w2 = W_ / 2;
  const size_t p2 = static_cast<size_t>(h2) * w2;
  std::vector<float> sp[3];
  for (int c = 0; c < 3; ++c) sp[c] = pool(std::vector<float>(synth.begin() + c * hw, synth.begin() + (c + 1) * hw), H_, W_, 2);
  std::vector<float> feats(static_cast<size_t>(m) * 7 * p2);
  for (int32_t i = 0; i < m; ++i) {
    std::vector<float> cp[3];
    for (int c = 0; c < 3; ++c) {
      const auto b = cand.begin() + (static_cast<size_t>(i) * 3 + c) * hw;
      cp[c] = pool(std::vector<float>(b, b + hw), H_, W_, 2);
    }
    float* f = feats.data() + static_cast<size_t>(i) * 7 * p2;
    for (size_t k = 0; k < p2; ++k) {
      for (int c = 0; c < 3; ++c) {
        f[c * p2 + k] = cp[c][k];
        f[(3 + c) * p2 + k] = sp[c][k];
      }
      f[6 * p2 + k] = ((std::fabs(cp[0][k] - sp[0][k]) + std::fabs(cp[1][k] - sp[1][k])) + std::fabs(cp[2][k] - sp[2][k])) / 3.0f;
    }
  }
  const std::vector<float> a0 = conv3x3(feats, m, 7, h2, w2, head_.cand0_w, head_.cand0_b, 16, true);
  const std::vector<float> a1 = conv3x3(a0, m, 16, h2, w2, head_.cand2_w, head_.cand2_b, 16, true);
  const std::vector<float> lg = conv3x3(a1, m, 16, h2, w2, head_.cand4_w, head_.cand4_b, 1, false);
  std::vector<float> up(static_cast<size_t>(m) * hw);
  auto src = [](int32_t i, int32_t n, int32_t& lo, int32_t& hi, float& f) {
    float v = (static_cast<float>(i) + 0.5f) * 0.5f - 0.5f;
    if (v < 0.0f) v = 0.0f;
    lo = static_cast<int32_t>(std::floor(v));
    hi = std::min(lo + 1, n - 1);
    f = v - static_cast<float>(lo);
  };
  for (int32_t i = 0; i < m; ++i)
    for (int32_t y = 0; y < 2 * h2; ++y)
      for (int32_t x = 0; x < 2 * w2; ++x) {
        int32_t ylo, yhi, xlo, xhi;
        float fy, fx;
        src(y, h2, ylo, yhi, fy);
        src(x, w2, xlo, xhi, fx);
        const float* L = lg.data() + static_cast<size_t>(i) * p2;
        const float top = L[ylo * w2 + xlo] + (L[ylo * w2 + xhi] - L[ylo * w2 + xlo]) * fx;
        const float bot = L[yhi * w2 + xlo] + (L[yhi * w2 + xhi] - L[yhi * w2 + xlo]) * fx;
        up[static_cast<size_t>(i) * hw + y * W_ + x] = top + fy * (bot - top);
      }
  std::vector<float> wts(static_cast<size_t>(m + 1) * hw, 0.0f);
  for (size_t k = 0; k < hw; ++k) {
    float mx = -1e30f;
    for (int32_t i = 0; i < m; ++i)
      if (up[i * hw + k] > mx) mx = up[i * hw + k];
    std::vector<float> e(m);
    float sum = 0.0f;
    for (int32_t i = 0; i < m; ++i) {
      e[i] = expf(up[i * hw + k] - mx);
      sum += e[i];
    }
    for (int32_t i = 0; i < m; ++i) wts[i * hw + k] = e[i] / sum;
  }
  std::vector<float> blended(3 * hw);
  for (int c = 0; c < 3; ++c)
    for (size_t k = 0; k < hw; ++k) {
      if (!mask[k]) {
        blended[c * hw + k] = synth[c * hw + k];
        continue;
      }
      float acc = 0.0f;
      for (int32_t i = 0; i < m; ++i) acc += wts[i * hw + k] * cand[(static_cast<size_t>(i) * 3 + c) * hw + k];
      blended[c * hw + k] = acc;
    }

  // Carried donors: the largest total weight first.
  std::vector<float> score(m);
  for (int32_t i = 0; i < m; ++i) {
    float t = 0.0f;
    for (size_t k = 0; k < hw; ++k) t += wts[i * hw + k];
    score[i] = -t;
  }
  const std::vector<int32_t> sel = ascending(score);
  prev_sel_.clear();
  for (int32_t j = 0; j < std::min(cfg_.hysteresis, m); ++j) prev_sel_.push_back(merged[sel[j]]);
  prev_sel_frame_ = p.frame;

  out.rgb.resize(hw * 3);
  for (int32_t y = 0; y < H_; ++y)
    for (int32_t x = 0; x < W_; ++x) {
      const float a = p.pi[canvasAt(y, x)] / 255.0f;
      for (int c = 0; c < 3; ++c) {
        const size_t k = static_cast<size_t>(y) * W_ + x;
        const float l = (1.0f - a) * synth[c * hw + k];
        const float r = a * blended[c * hw + k];
        const float v = std::min(std::max(l + r, 0.0f), 1.0f);
        out.rgb[k * 3 + c] = static_cast<uint8_t>(std::nearbyint(v * 255.0f));
      }
    }
  out.n = m;
  out.merged = merged;
  out.own = p.donors;
  out.weights = wts;
  out.blend = blended;
  if (next) out.next = *next;
}

}  // namespace le::test::teethref
