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
// The vertical pass keeps one row of sums on the stack.
constexpr int kMaxSide = 1024;

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
  // This build has no GPU executor (LE_PASTE_METAL has nothing to engage or
  // verify); the CPU body below is the whole paste.

  gauss_ = paste::gaussTaps(ksize_, u.sigma);
  lanc_ = paste::lanczosTable();
  bil_ = paste::bilinearTable();
  cubic_ = paste::cubicTable();
  const size_t plane = static_cast<size_t>(side_) * side_;
  for (auto& p : planes_) p.assign(plane, 0.0f);
  padded_.assign(static_cast<size_t>(padSide_) * padSide_, 0.0f);
  hblur_.assign(padded_.size(), 0.0f);
  rgbx_.assign(plane * 4, 0.0f);
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

  const size_t cols = static_cast<size_t>(x1 - x0 + 1);
  if (adelta_.size() < cols) {
    adelta_.resize(cols);
    bdelta_.resize(cols);
  }
  for (int x = x0; x <= x1; ++x) {
    adelta_[x - x0] = rintToInt(ia * x * 1024.0);
    bdelta_[x - x0] = rintToInt(ic * x * 1024.0);
  }

  static std::once_flag logged;
  std::call_once(logged, [&] {
    std::fprintf(stderr, "[le-paste] executor=%s (side=%d, ksize=%d, threads=%d) — %dx%d frame\n", "cpu", side_,
                 ksize_, pool::threads(), W, H);
  });

  fillPlanes(crop, scale);
  for (auto& p : planes_) unsharpPlane(p);
  compositeTail(frame, W, x0, x1, y0, y1, ib, id, itx, ity);
}

void Paste::fillPlanes(const float* crop, float scale) {
  const size_t plane = static_cast<size_t>(side_) * side_;
  for (int c = 0; c < 3; ++c) {
    const float* src = crop + c * plane;
    float* dst = planes_[c].data();
    for (size_t i = 0; i < plane; ++i) dst[i] = src[i] * scale;
  }
}

void Paste::unsharpPlane(std::vector<float>& plane) {
  const int S = side_, P = padSide_, K = ksize_, pad = ksize_ / 2;
  const float* src = plane.data();
  float* padded = padded_.data();
  pool::parallelRange(static_cast<size_t>(P), kGrain, [&](size_t lo, size_t hi) {
    for (size_t r = lo; r < hi; ++r) {
      const float* row = src + static_cast<size_t>(reflect101(static_cast<int>(r) - pad, S)) * S;
      float* out = padded + r * P;
      for (int x = 0; x < pad; ++x) out[x] = row[reflect101(x - pad, S)];
      std::memcpy(out + pad, row, sizeof(float) * S);
      for (int x = pad + S; x < P; ++x) out[x] = row[reflect101(x - pad, S)];
    }
  });

  // Flat over the whole padded buffer: the sums that run over a row's end
  // land in columns that are never read.
  std::fill(hblur_.begin(), hblur_.end(), 0.0f);
  float* hblur = hblur_.data();
  const float* g = gauss_.data();
  pool::parallelRange(static_cast<size_t>(P) * P - K + 1, kGrain, [&](size_t lo, size_t hi) {
    for (int i = 0; i < K; ++i) {
      const float gi = g[i];
      const float* in = padded + i;
      for (size_t j = lo; j < hi; ++j) hblur[j] += gi * in[j];
    }
  });

  if (S > kMaxSide) throw std::runtime_error("paste: side > 1024");
  const float keep = amount_ + 1.0f;
  const float amount = amount_;
  float* dst = plane.data();
  pool::parallelRange(static_cast<size_t>(S), kGrain, [&](size_t lo, size_t hi) {
    float acc[kMaxSide];
    for (size_t r = lo; r < hi; ++r) {
      std::fill(acc, acc + S, 0.0f);
      for (int i = 0; i < K; ++i) {
        const float gi = g[i];
        const float* in = hblur + (r + i) * P;
        for (int x = 0; x < S; ++x) acc[x] += gi * in[x];
      }
      float* row = dst + r * S;
      for (int x = 0; x < S; ++x) {
        const float v = row[x] * keep - acc[x] * amount;
        row[x] = v > 0.0f ? (v < 255.0f ? v : 255.0f) : 0.0f;  // NaN as 0
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
  const size_t S = static_cast<size_t>(side_);
  float* rgbx = rgbx_.data();
  pool::parallelRange(S, kGrain, [&](size_t lo, size_t hi) {
    for (size_t i = lo * S; i < hi * S; ++i) {
      rgbx[4 * i] = planes_[0][i];
      rgbx[4 * i + 1] = planes_[1][i];
      rgbx[4 * i + 2] = planes_[2][i];
      rgbx[4 * i + 3] = 0.0f;
    }
  });
  pool::parallelRange(static_cast<size_t>(y1 - y0 + 1), kGrain, [&](size_t lo, size_t hi) {
    for (size_t r = lo; r < hi; ++r) {
      const int y = y0 + static_cast<int>(r);
      const int X0 = paste::add32(rintToInt((ib * y + itx) * 1024.0), 16);
      const int Y0 = paste::add32(rintToInt((id * y + ity) * 1024.0), 16);
      simd::pasteLanczos8Row(rgbx, side_, mask_.data(), lanc_.data(), bil_.data(), adelta_.data(), bdelta_.data(),
                             X0, Y0, x0, x1, frame + static_cast<size_t>(y) * 3 * W);
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
