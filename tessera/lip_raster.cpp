// Rasterising and feathering the lip polygon inside its box. The outline is
// painted as well as the interior, so that a polygon that degenerates to a
// line or a point (anchors that coincide) still leaves a mask.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "tessera/lip_contour.h"
#include "tessera/round.h"

namespace le::tessera {

namespace {

// A rounded vertex coordinate. Lips lie within a few canvases of the box;
// the clamp only keeps a vertex from a garbage keypoint from overflowing the
// fixed-point edges or running the outline for billions of steps.
int64_t vertexCoord(double v) {
  constexpr double kFar = static_cast<double>(int64_t{1} << 20);
  const double r = roundHalfEven(v);
  if (!(r > -kFar)) return -(int64_t{1} << 20);  // NaN included
  if (r > kFar) return int64_t{1} << 20;
  return static_cast<int64_t>(r);
}

}  // namespace

void LipContour::fillScanline(const double* poly, const Box& bx, uint8_t* mask) {
  const int64_t w = bx.width();
  const int64_t h = bx.height();
  if (w < 1 || h < 1) return;
  std::memset(mask, 0, static_cast<size_t>(w) * static_cast<size_t>(h));
  if (nv == 0) return;

  for (int32_t i = 0; i < nv; ++i) {
    vx_[i] = vertexCoord(poly[2 * i]) - bx.x0;
    vy_[i] = vertexCoord(poly[2 * i + 1]) - bx.y0;
  }

  // Outline: an integer line along every edge, x never falling.
  for (int32_t i = 0; i < nv; ++i) {
    const int32_t j = (i + 1) % nv;
    int64_t x = vx_[i], y = vy_[i], xe = vx_[j], ye = vy_[j];
    if (xe < x) {
      std::swap(x, xe);
      std::swap(y, ye);
    }
    const int64_t dx = xe - x;
    const int64_t dy = ye - y;
    const int64_t ystep = dy < 0 ? -1 : 1;
    const int64_t adx = dx;
    const int64_t ady = dy < 0 ? -dy : dy;
    const int64_t major = std::max(adx, ady);
    const int64_t minor = std::min(adx, ady);
    const bool yMajor = ady > adx;
    int64_t err = major - 2 * minor;
    // Only the steps whose major coordinate lies in the box can paint, and a
    // vertex may lie a million pixels out: the walk starts at the first such
    // step and ends after the last, so that an edge costs the box, not its
    // length. After k steps the minor axis has moved
    // n = ceil((2 minor k - err - 2 minor) / (2 major)) times, since err
    // stays in [-2 minor, 2 major - 2 minor); the skipped steps paint nothing.
    int64_t first = 0, last = major;
    if (!yMajor) {
      first = std::max(first, -x);
      last = std::min(last, w - 1 - x);
    } else if (ystep > 0) {
      first = std::max(first, -y);
      last = std::min(last, h - 1 - y);
    } else {
      first = std::max(first, y - (h - 1));
      last = std::min(last, y);
    }
    if (first > 0 && first <= last) {
      const int64_t num = 2 * minor * first - err - 2 * minor;
      const int64_t den = 2 * major;
      const int64_t moves = num >= 0 ? (num + den - 1) / den : -(-num / den);
      err += 2 * major * moves - 2 * minor * first;
      if (yMajor) {
        y += ystep * first;
        x += moves;
      } else {
        x += first;
        y += ystep * moves;
      }
    }
    for (int64_t k = first; k <= last; ++k) {
      if (x >= 0 && x < w && y >= 0 && y < h) mask[y * w + x] = 255;
      const bool neg = err < 0;
      err -= 2 * minor;
      if (neg) err += 2 * major;
      if (yMajor) {
        y += ystep;
        if (neg) x += 1;
      } else {
        x += 1;
        if (neg) y += ystep;
      }
    }
  }

  // Edge table of the edges that span rows, top end to bottom end.
  edges_.clear();
  int64_t lowTop = INT64_MAX;
  int64_t highBot = INT64_MIN;
  for (int32_t i = 0; i < nv; ++i) {
    const int32_t j = (i + 1) % nv;
    if (vy_[i] == vy_[j]) continue;
    const int32_t top = vy_[i] < vy_[j] ? i : j;
    const int32_t bot = top == i ? j : i;
    Edge e;
    e.ytop = vy_[top];
    e.ybot = vy_[bot];
    e.x = vx_[top] * 65536;
    e.dx = (vx_[bot] * 65536 - e.x) / (e.ybot - e.ytop);
    edges_.push_back(e);
    lowTop = std::min(lowTop, e.ytop);
    highBot = std::max(highBot, e.ybot);
  }
  if (edges_.empty()) return;  // every vertex on one row: the outline is the mask

  // Even-odd spans between the sorted crossings of each row.
  const int64_t yEnd = std::min(h, highBot);
  for (int64_t y = std::max(lowTop, int64_t{0}); y < yEnd; ++y) {
    cross_.clear();
    for (const Edge& e : edges_) {
      if (e.ytop <= y && y < e.ybot) cross_.push_back(e.x + e.dx * (y - e.ytop));
    }
    if (cross_.size() >= 2) std::sort(cross_.begin(), cross_.end());
    uint8_t* row = mask + y * w;
    for (size_t k = 1; k < cross_.size(); k += 2) {
      const int64_t from = std::max((cross_[k - 1] + 65535) >> 16, int64_t{0});
      const int64_t to = std::min(cross_[k] >> 16, w - 1);
      if (from <= to) std::memset(row + from, 255, static_cast<size_t>(to - from + 1));
    }
  }
}

void LipContour::contourF32(const double* poly, const Box& bx, float* canvasOut) {
  if (bx.empty()) return;
  const size_t w = static_cast<size_t>(bx.width());
  const size_t h = static_cast<size_t>(bx.height());
  const size_t n = w * h;
  if (mask_.size() < n) mask_.resize(n);
  if (dist_.size() < n) dist_.resize(n);
  fillScanline(poly, bx, mask_.data());

  // Chamfer distance to the polygon: a is the axial step, b the diagonal.
  constexpr float a = 0.955f;
  constexpr float bd = 1.3693f;
  constexpr float far = 1e10f;
  const uint8_t* m = mask_.data();
  float* d = dist_.data();
  for (size_t y = 0; y < h; ++y) {
    for (size_t x = 0; x < w; ++x) {
      const size_t i = y * w + x;
      if (m[i]) {
        d[i] = 0.0f;
        continue;
      }
      float v = far;
      if (y > 0) {
        v = d[i - w] + a;
        if (x > 0) v = std::min(v, d[i - w - 1] + bd);
        if (x + 1 < w) v = std::min(v, d[i - w + 1] + bd);
      }
      if (x > 0) v = std::min(v, d[i - 1] + a);
      d[i] = v;
    }
  }
  for (size_t y = h; y-- > 0;) {
    for (size_t x = w; x-- > 0;) {
      const size_t i = y * w + x;
      if (m[i]) continue;
      float v = d[i];
      if (y + 1 < h) {
        if (x + 1 < w) v = std::min(v, d[i + w + 1] + bd);
        v = std::min(v, d[i + w] + a);
        if (x > 0) v = std::min(v, d[i + w - 1] + bd);
      }
      if (x + 1 < w) v = std::min(v, d[i + 1] + a);
      d[i] = v;
    }
  }

  // Smoothstep from 1 on the polygon to 0 at `feather` pixels out.
  const size_t s = static_cast<size_t>(canvas);
  for (size_t y = 0; y < h; ++y) {
    float* out = canvasOut + (static_cast<size_t>(bx.y0) + y) * s + static_cast<size_t>(bx.x0);
    for (size_t x = 0; x < w; ++x) {
      float t = 1.0f - d[y * w + x] / feather;
      float alpha = 0.0f;
      if (t > 0.0f) {
        t = std::min(t, 1.0f);
        alpha = t * t * (3.0f - (t + t));
      }
      out[x] = alpha;
    }
  }
}

}  // namespace le::tessera
