#include "tessera/lip_contour.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>

#include "tessera/lip_template_words.h"

namespace le::tessera {

namespace {

void checkAnchors(const int32_t* lipIdx, int32_t nIdx) {
  if (nIdx < 1 || nIdx > LipContour::kMaxAnchors || !lipIdx) {
    refuseLipTemplate("lip_idx names " + std::to_string(nIdx) + " anchor rows, and the contour deforms from 1 to " +
                      std::to_string(LipContour::kMaxAnchors));
  }
  for (int32_t i = 0; i < nIdx; ++i) {
    if (lipIdx[i] < 0 || lipIdx[i] >= LipContour::kKpRows) {
      refuseLipTemplate("lip_idx names keypoint row " + std::to_string(lipIdx[i]) + ", and a kd row is 0..20");
    }
  }
}

// A box edge as an integer. Only a polygon far off any canvas reaches the
// clamp, and such a box is empty either way; it keeps the conversion defined.
int32_t boxEdge(double v) {
  if (!(v == v)) return 0;
  return static_cast<int32_t>(std::clamp(v, static_cast<double>(INT32_MIN), static_cast<double>(INT32_MAX)));
}

}  // namespace

LipContour::LipContour(int32_t canvasSize, float featherPx, const double* uCanon, int32_t nVertices,
                       const int32_t* lipIdx, int32_t nIdx)
    : canvas(canvasSize), feather(featherPx), nv(nVertices) {
  if (canvas < 1) throw std::runtime_error("lip contour: canvas " + std::to_string(canvas) + " is not a positive size");
  if (!(feather > 0.0f)) refuseLipTemplate("declares feather_px " + numberText(feather) + ", which is not positive");
  if (nv < 1 || !uCanon) refuseLipTemplate("carries no non-empty `u_canon` array");
  checkAnchors(lipIdx, nIdx);
  u_canon.assign(uCanon, uCanon + 2 * static_cast<size_t>(nv));
  lip_idx.assign(lipIdx, lipIdx + nIdx);
  // The per-frame scratch whose size depends only on nv is sized here, so
  // that no frame allocates it.
  poly_.resize(2 * static_cast<size_t>(nv));
  vx_.resize(static_cast<size_t>(nv));
  vy_.resize(static_cast<size_t>(nv));
  edges_.reserve(static_cast<size_t>(nv));
  cross_.reserve(static_cast<size_t>(nv));
}

void LipContour::attachMap(const double* mapW, const double* mapB, int32_t rows, int32_t cols,
                           const int32_t* lipIdx, int32_t nIdx) {
  if (!mapW || !mapB || !lipIdx || nIdx < 1 || nIdx > kMaxAnchors || rows != 2 * nv || cols != 2 * nIdx) {
    refuseLipTemplate("lip_map shape does not match the template");
  }
  for (int32_t i = 0; i < nIdx; ++i) {
    if (lipIdx[i] < 0 || lipIdx[i] >= kKpRows) refuseLipTemplate("lip_map lip_idx names a row outside 0..20");
  }
  W.assign(mapW, mapW + static_cast<size_t>(rows) * static_cast<size_t>(cols));
  b.assign(mapB, mapB + rows);
  lip_idx.assign(lipIdx, lipIdx + nIdx);
  mapWidth = cols;
}

void LipContour::polygon(const float* kp, double* out) const {
  const size_t n = lip_idx.size();
  const double h = static_cast<double>(canvas) * 0.5;
  double px[kMaxAnchors];
  double py[kMaxAnchors];
  double ax = 0.0;
  double ay = 0.0;
  for (size_t i = 0; i < n; ++i) {
    const size_t row = static_cast<size_t>(lip_idx[i]) * 3;
    px[i] = h * (static_cast<double>(kp[row]) + 1.0);
    py[i] = h * (static_cast<double>(kp[row + 1]) + 1.0);
    ax += px[i];
    ay += py[i];
  }
  ax /= static_cast<double>(n);
  ay /= static_cast<double>(n);

  const size_t coords = 2 * static_cast<size_t>(nv);
  if (!W.empty()) {
    double d[2 * kMaxAnchors];
    for (size_t i = 0; i < n; ++i) {
      d[2 * i] = px[i] - ax;
      d[2 * i + 1] = py[i] - ay;
    }
    const size_t width = static_cast<size_t>(mapWidth);
    for (size_t r = 0; r < coords; ++r) {
      const double* wr = W.data() + r * width;
      double acc = b[r];
      for (size_t c = 0; c < width; ++c) acc += wr[c] * d[c];
      acc += (r % 2 == 0) ? ax : ay;
      out[r] = acc;
    }
    return;
  }

  double sx = 0.0;
  double sy = 0.0;
  for (size_t i = 0; i < n; ++i) {
    sx = std::max(sx, std::fabs(px[i] - ax));
    sy = std::max(sy, std::fabs(py[i] - ay));
  }
  sx = std::max(sx, 1e-6);
  sy = std::max(sy, 1e-6);
  for (size_t j = 0; j < coords; j += 2) {
    out[j] = ax + sx * u_canon[j];
    out[j + 1] = ay + sy * u_canon[j + 1];
  }
}

Box LipContour::box(const double* poly) const {
  double minX = poly[0], maxX = poly[0], minY = poly[1], maxY = poly[1];
  for (int32_t j = 1; j < nv; ++j) {
    minX = std::min(minX, poly[2 * j]);
    maxX = std::max(maxX, poly[2 * j]);
    minY = std::min(minY, poly[2 * j + 1]);
    maxY = std::max(maxY, poly[2 * j + 1]);
  }
  // The margin holds the whole feather ramp and the outline's rounding.
  const double m = static_cast<double>(feather) + 2.0;
  const double s = static_cast<double>(canvas);
  const double x0 = std::max(std::floor(minX - m), 0.0);
  const double y0 = std::max(std::floor(minY - m), 0.0);
  const double x1 = std::max(std::min(std::ceil(maxX + m) + 1.0, s), x0);
  const double y1 = std::max(std::min(std::ceil(maxY + m) + 1.0, s), y0);
  return Box{boxEdge(x0), boxEdge(y0), boxEdge(x1), boxEdge(y1)};
}

void LipContour::contourF32Canvas(const float* kp, float* out) {
  polygon(kp, poly_.data());
  const Box bx = box(poly_.data());
  std::fill(out, out + static_cast<size_t>(canvas) * static_cast<size_t>(canvas), 0.0f);
  contourF32(poly_.data(), bx, out);
}

}  // namespace le::tessera
