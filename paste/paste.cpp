#include "paste/paste.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <mutex>
#include <stdexcept>
#include <string>

#include "compute/pool.h"
#include "paste/paste_kernel.h"
#include "paste/paste_sample.h"
#include "paste/paste_tables.h"

namespace le {

namespace {

constexpr size_t kGrain = 64;
// Rows of the sharpening stages live on the stack.
constexpr int kMaxSide = 1024;
// The zero border around the warp's copy of the crop: the Lanczos taps reach
// 3 pixels before and 4 after a source position of -1 to side - 1.
constexpr int kBorder = 4;

int reflect101(int i, int n) {
  if (i < 0) i = -i;
  if (i >= n) i = 2 * n - 2 - i;
  return i;
}

// rint to a 32-bit int; a value no int can hold saturates rather than being
// undefined (no frame of a sane transform comes near).
int rintToInt(double v) {
  const double r = std::nearbyint(v);
  if (!(r > std::numeric_limits<int>::min())) return std::numeric_limits<int>::min();
  if (!(r < std::numeric_limits<int>::max())) return std::numeric_limits<int>::max();
  return static_cast<int>(r);
}

int envInt(const char* name, bool* set) {
  const char* v = std::getenv(name);
  *set = v != nullptr;
  return v ? std::atoi(v) : 0;
}

}  // namespace

Paste::Paste(std::vector<uint8_t> mask, int side, const Unsharp& u)
    : side_(side), ksize_(u.ksize), padSide_(side + u.ksize - 1), amount_(u.amount), mask_(std::move(mask)) {
  if (side_ < 1 || mask_.size() != static_cast<size_t>(side_) * side_) throw std::runtime_error("paste: mask size");
  if (ksize_ % 2 == 0) throw std::runtime_error("paste: ksize must be odd");
  if (ksize_ < 1) throw std::runtime_error("paste: ksize must be at least 1");
  // A Gaussian of no width has no taps to normalise; such a bundle can't be
  // pasted as it says.
  if (!(u.sigma > 0.0f) || !std::isfinite(u.sigma)) throw std::runtime_error("paste: sigma must be > 0");
  bool set = false;
  const int fast = envInt("LE_PASTE_FAST", &set);
  if (set) fastMode_ = (fast >= 0 && fast <= 2) ? fast : 0;
  const int k = envInt("LE_PASTE_KSIZE", &set);
  // The variable can lower ksize for speed, never raise it past what the
  // bundle was tuned with.
  if (set && k % 2 == 1 && k >= 3 && k <= ksize_) ksize_ = k;
  padSide_ = side_ + ksize_ - 1;
  // The reflected border holds ksize / 2 samples, and reflection can't reach
  // further than the crop is wide.
  if (ksize_ / 2 >= side_)
    throw std::runtime_error("paste: ksize " + std::to_string(ksize_) + " reaches past a " + std::to_string(side_) +
                             "-pixel crop");
  const char* metal = std::getenv("LE_PASTE_METAL");
  if (metal && std::strcmp(metal, "verify") == 0) metalMode_ = 2;
  if (fastMode_ != 0) {
    std::fprintf(stderr,
                 "[le-paste-metal] LE_PASTE_FAST=%d set — Metal covers the lanczos8 reference only; CPU paste\n",
                 fastMode_);
    metalMode_ = 0;
  }

  gauss_ = paste::gaussTaps(ksize_, u.sigma);
  lanc_ = paste::lanczosTable();
  bil_ = paste::bilinearTable();
  cubic_ = paste::cubicTable();

  const int ms = side_ + 2;
  maskBorder_.assign(static_cast<size_t>(ms) * ms + 4, 0);
  int mx0 = side_, my0 = side_, mx1 = -1, my1 = -1;
  for (int y = 0; y < side_; ++y)
    for (int x = 0; x < side_; ++x) {
      const uint8_t v = mask_[static_cast<size_t>(y) * side_ + x];
      maskBorder_[static_cast<size_t>(y + 1) * ms + x + 1] = v;
      if (v == 0) continue;
      mx0 = std::min(mx0, x);
      mx1 = std::max(mx1, x);
      my0 = std::min(my0, y);
      my1 = std::max(my1, y);
    }
  // A weight above 0 needs a nonzero byte at column sxi or sxi + 1, so sxi
  // lies in [mx0 - 1, mx1] and the Lanczos taps in [mx0 - 4, mx1 + 4]; the
  // bicubic and bilinear taps lie within those. The same holds for rows.
  if (mx1 < 0)
    maskReach_ = {0, 0, 0, 0};
  else
    maskReach_ = {std::max(0, mx0 - 4), std::max(0, my0 - 4), std::min(side_, mx1 + 5), std::min(side_, my1 + 5)};

  const auto slackRound = [](int n) { return (n + simd::kPasteSlack - 1) / simd::kPasteSlack * simd::kPasteSlack; };
  hstride_ = slackRound(side_);
  hblur_.assign(static_cast<size_t>(3) * side_ * hstride_, 0.0f);
  const size_t plane = static_cast<size_t>(side_) * side_;
  if (fastMode_ == 0) {
    const size_t bordered = static_cast<size_t>(side_ + 2 * kBorder);
    rgbx_.assign(bordered * bordered * 8, 0.0f);
  } else {
    for (auto& p : planes_) p.assign(plane, 0.0f);
  }
}

void Paste::composite(const float* crop, float scale, const float* M, uint8_t* frame, int W, int H) {
  const float a = M[0], b = M[1], tx = M[2], c = M[3], d = M[4], ty = M[5];
  const double det = static_cast<double>(a) * d - static_cast<double>(b) * c;
  if (det == 0 || !std::isfinite(det)) return;

  const float n = static_cast<float>(side_) + 3.0f;
  float minX = std::numeric_limits<float>::infinity(), maxX = -minX, minY = minX, maxY = -minX;
  for (const float u : {-4.0f, n})
    for (const float v : {-4.0f, n}) {
      const float x = tx + (a * u + b * v);
      const float y = ty + (c * u + d * v);
      minX = std::min(minX, x);
      maxX = std::max(maxX, x);
      minY = std::min(minY, y);
      maxY = std::max(maxY, y);
    }
  if (!std::isfinite(minX) || !std::isfinite(maxX) || !std::isfinite(minY) || !std::isfinite(maxY)) return;
  // Clamp in double before the conversion so that a far-off corner can't
  // overflow an int.
  const auto clampInt = [](double v) { return static_cast<int>(std::clamp(v, -1e9, 1e9)); };
  const int x0 = std::max(0, clampInt(std::floor(minX)));
  const int y0 = std::max(0, clampInt(std::floor(minY)));
  const int x1 = std::min(W - 1, clampInt(std::ceil(maxX)));
  const int y1 = std::min(H - 1, clampInt(std::ceil(maxY)));
  if (x0 > x1 || y0 > y1) return;

  const double inv = 1.0 / det;
  const double ia = inv * d, ib = inv * (-b), ic = inv * (-c), id = inv * a;
  const double itx = -(ia * tx + ib * ty), ity = -(ic * tx + id * ty);

  // The row kernel reads whole vectors of the tables, up to kPasteSlack
  // entries past the last column.
  const size_t cols = static_cast<size_t>(x1 - x0 + 1);
  if (adelta_.size() < cols + simd::kPasteSlack) {
    adelta_.resize(cols + simd::kPasteSlack);
    bdelta_.resize(cols + simd::kPasteSlack);
  }
  for (int x = x0; x <= x1; ++x) {
    adelta_[x - x0] = rintToInt(ia * x * 1024.0);
    bdelta_[x - x0] = rintToInt(ic * x * 1024.0);
  }

  // This build has no GPU executor: the first frame's attempt to make one
  // fails, and the CPU body below is the whole paste from then on. The
  // attempt comes before the executor line so that the line names what runs.
  if (metalMode_ != 0 && !metalTried_) {
    metalTried_ = true;
    std::fprintf(stderr, "[le-paste-metal] init failed — CPU paste fallback\n");
    metalMode_ = 0;
  }

  static std::once_flag logged;
  std::call_once(logged, [&] {
    std::fprintf(stderr, "[le-paste] executor=%s (side=%d, ksize=%d, threads=%d) — %dx%d frame\n",
                 metalMode_ != 0 ? "metal" : "cpu", side_, ksize_, pool::threads(), W, H);
  });

  // The sharpening keeps rows on the stack.
  if (side_ > kMaxSide) throw std::runtime_error("paste: side > 1024");
  const Rect f = frameReach(x0, x1, y0, y1, ia, ib, ic, id, itx, ity);
  const Rect r{std::max(f.x0, maskReach_.x0), std::max(f.y0, maskReach_.y0), std::min(f.x1, maskReach_.x1),
               std::min(f.y1, maskReach_.y1)};
  // No pixel of the box has both a nonzero mask weight and its taps in the
  // frame's reach: nothing would change.
  if (r.empty()) return;
  sharpen(crop, scale, r);
  compositeTail(frame, W, x0, x1, y0, y1, ib, id, itx, ity);
}

Paste::Rect Paste::frameReach(int x0, int x1, int y0, int y1, double ia, double ib, double ic, double id,
                              double itx, double ity) const {
  const Rect whole{0, 0, side_, side_};
  // The source position of a pixel is affine in (x, y), so over the box it
  // is extreme at the corners. The fixed-point mapping lands within 1/1024
  // pixel plus half a phase step of the exact one, so sxi lies within one
  // pixel of the floor of the exact position, and the taps 3 before and 4
  // after that; one more pixel each side is spare.
  double sx[2] = {std::numeric_limits<double>::infinity(), -std::numeric_limits<double>::infinity()};
  double sy[2] = {sx[0], sx[1]};
  // Where a term of the fixed-point mapping reaches about a million pixels,
  // its 32-bit sums may saturate or wrap and land anywhere: only the whole
  // square is a safe answer. Each term, like the sum, is extreme at a corner.
  constexpr double kSafe = 1 << 20;
  const auto safe = [&](double v) { return std::fabs(v) < kSafe; };
  for (const int y : {y0, y1})
    for (const int x : {x0, x1}) {
      const double u = ia * x + ib * y + itx, v = ic * x + id * y + ity;
      if (!safe(ia * x) || !safe(ic * x) || !safe(ib * y + itx) || !safe(id * y + ity) || !safe(u) || !safe(v))
        return whole;
      sx[0] = std::min(sx[0], u);
      sx[1] = std::max(sx[1], u);
      sy[0] = std::min(sy[0], v);
      sy[1] = std::max(sy[1], v);
    }
  const auto lo = [&](double v) { return std::clamp(static_cast<int>(std::floor(v)) - 5, 0, side_); };
  const auto hi = [&](double v) { return std::clamp(static_cast<int>(std::floor(v)) + 7, 0, side_); };
  return {lo(sx[0]), lo(sy[0]), hi(sx[1]), hi(sy[1])};
}

void Paste::sharpen(const float* crop, float scale, const Rect& r) {
  const int S = side_, K = ksize_, pad = ksize_ / 2, n = r.x1 - r.x0;
  const size_t plane = static_cast<size_t>(S) * S;
  // The vertical taps of rows r.y0 .. r.y1 - 1 read the horizontal sums of
  // the plane rows that those rows' reflected neighbourhoods cover: one
  // unbroken run of rows.
  int hy0 = S, hy1 = -1;
  for (int y = r.y0 - pad; y < r.y1 + pad; ++y) {
    const int yy = reflect101(y, S);
    hy0 = std::min(hy0, yy);
    hy1 = std::max(hy1, yy);
  }
  const int hrows = hy1 - hy0 + 1;
  const float* g = gauss_.data();
  pool::parallelRange(static_cast<size_t>(3) * hrows, kGrain, [&](size_t lo, size_t hi) {
    float scratch[3 * kMaxSide + simd::kPasteSlack];
    for (size_t item = lo; item < hi; ++item) {
      const int c = static_cast<int>(item / hrows), y = hy0 + static_cast<int>(item % hrows);
      simd::unsharpRowH(crop + c * plane + static_cast<size_t>(y) * S, S, scale, g, K, r.x0, n, scratch,
                        hblurRow(c, y));
    }
  });

  const float keep = amount_ + 1.0f;
  const size_t stride = static_cast<size_t>(S + 2 * kBorder);
  float* origin = fastMode_ == 0 ? rgbx_.data() + (kBorder * stride + kBorder) * 8 : nullptr;
  pool::parallelRange(static_cast<size_t>(r.y1 - r.y0), kGrain, [&](size_t lo, size_t hi) {
    const float* rows[2 * kMaxSide];
    float sharp[3][kMaxSide];
    for (size_t i = lo; i < hi; ++i) {
      const int y = r.y0 + static_cast<int>(i);
      for (int c = 0; c < 3; ++c) {
        for (int t = 0; t < K; ++t) rows[t] = hblurRow(c, reflect101(y - pad + t, S));
        float* out = origin ? sharp[c] : planes_[c].data() + static_cast<size_t>(y) * S + r.x0;
        simd::unsharpRowV(rows, g, K, crop + c * plane + static_cast<size_t>(y) * S + r.x0, scale, keep, amount_, n,
                          out);
      }
      // Row y is the first half of pair-row y and the second of pair-row y - 1.
      if (origin) {
        float* first = origin + (static_cast<ptrdiff_t>(y) * stride + r.x0) * 8;
        simd::interleaveRgbx(sharp[0], sharp[1], sharp[2], n, first, first - stride * 8 + 4);
      }
    }
  });
}

void Paste::compositeTail(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id, double itx,
                          double ity) {
  if (fastMode_ != 0) {
    compositeTailInterp(frame, W, x0, x1, y0, y1, ib, id, itx, ity);
    return;
  }
  const int stride = side_ + 2 * kBorder;
  const simd::WarpSource src{rgbx_.data() + (static_cast<size_t>(kBorder) * stride + kBorder) * 8,
                             stride,
                             side_,
                             maskBorder_.data(),
                             lanc_.data()};
  pool::parallelRange(static_cast<size_t>(y1 - y0 + 1), kGrain, [&](size_t lo, size_t hi) {
    for (size_t r = lo; r < hi; ++r) {
      const int y = y0 + static_cast<int>(r);
      const int X0 = paste::add32(rintToInt((ib * y + itx) * 1024.0), 16);
      const int Y0 = paste::add32(rintToInt((id * y + ity) * 1024.0), 16);
      simd::pasteLanczos8Row(src, adelta_.data(), bdelta_.data(), X0, Y0, x0, x1,
                             frame + static_cast<size_t>(y) * 3 * W);
    }
  });
}

void Paste::compositeTailInterp(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id,
                                double itx, double ity) {
  const bool cubic = fastMode_ == 1;
  pool::parallelRange(static_cast<size_t>(y1 - y0 + 1), kGrain, [&](size_t lo, size_t hi) {
    for (size_t r = lo; r < hi; ++r) {
      const int y = y0 + static_cast<int>(r);
      const int X0 = paste::add32(rintToInt((ib * y + itx) * 1024.0), 16);
      const int Y0 = paste::add32(rintToInt((id * y + ity) * 1024.0), 16);
      uint8_t* row = frame + static_cast<size_t>(y) * 3 * W;
      for (int x = x0; x <= x1; ++x) {
        paste::Sample s;
        if (!paste::locate(paste::add32(X0, adelta_[x - x0]), paste::add32(Y0, bdelta_[x - x0]), side_, s)) continue;
        const float alpha = paste::maskAlpha(mask_.data(), side_, bil_.data(), s);
        if (alpha <= 0.0f) continue;
        for (int c = 0; c < 3; ++c) {
          const float v = cubic ? paste::cubicSample(planes_[c].data(), side_, cubic_.data(), s)
                                : paste::bilinearSample(planes_[c].data(), side_, bil_.data(), s);
          row[3 * x + c] = paste::blendByte(alpha, v, row[3 * x + c]);
        }
      }
    }
  });
}

}  // namespace le
