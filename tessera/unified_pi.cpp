// The pi masks, their support box, centroid and shift.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <stdexcept>

#include "tessera/number.h"
#include "tessera/unified_pi.h"

namespace le::tessera {

namespace {

// The smooth ramp of an ellipse at normalised distance d: 0 outside the
// edge, rising over 10 units of k to 1.
inline float ramp(float k, float d) {
  float t = k * (1.0f - d) / 10.0f;
  t = std::min(std::max(t, 0.0f), 1.0f);
  return t * t * (3.0f - (t + t));
}

inline float ellipseAt(const EllParams& e, float x, float y) {
  const float u = (x - e.cx) / e.rx;
  const float v = (y - e.cy) / e.ry;
  return ramp(e.k, std::sqrt(v * v + u * u));
}

// A box edge from a double; anything that is no pixel of the canvas
// (NaN included) lands on the nearest canvas edge.
int32_t edge(double v, int32_t s) {
  if (!(v > 0.0)) return 0;
  if (v > static_cast<double>(s)) return s;
  return static_cast<int32_t>(v);
}

}  // namespace

uint8_t quantiseU8(float p) {
  if (!(p == p)) return 0;  // only keypoints that are themselves NaN get here
  p = std::min(std::max(p, 0.0f), 1.0f);
  const float v = p * 255.0f;
  const float f = std::floor(v);
  const float e = v - f;
  int32_t q = static_cast<int32_t>(f);
  if (e > 0.5f) q += 1;
  else if (e == 0.5f) q += q & 1;
  return static_cast<uint8_t>(q);
}

UnifiedPi::LipStats UnifiedPi::stats(const float* kp) const {
  float sx = 0.0f, sy = 0.0f;
  for (const int32_t r : lip_idx) {
    sx += kp[3 * r];
    sy += kp[3 * r + 1];
  }
  const float n = static_cast<float>(lip_idx.size());
  LipStats s{sx / n, sy / n, 0.0f, 0.0f};
  for (const int32_t r : lip_idx) {
    s.ax = std::max(s.ax, std::fabs(kp[3 * r] - s.mx));
    s.ay = std::max(s.ay, std::fabs(kp[3 * r + 1] - s.my));
  }
  return s;
}

// The scale that grows the lip ellipse until its farthest lip keypoint lies
// at about the half level of the ramp, never below 1.
float UnifiedPi::cornerScale(const float* kp, const LipStats& s) const {
  const float rx = std::max(s.ax + pad_x, 0.1f);
  const float ry = std::max(s.ay + pad_y, 0.1f);
  const float cy = s.my + down;
  float m = 0.0f;
  for (const int32_t r : lip_idx) {
    const float a = (kp[3 * r] - s.mx) / rx;
    const float b = (kp[3 * r + 1] - cy) / ry;
    m = std::max(m, std::sqrt(a * a + b * b));
  }
  return std::max(5.0f / (std::sqrt(rx * ry) * 256.0f) + m, 1.0f);
}

void UnifiedPi::ellMask(const float* kp, float padX, float padY, float minRx, float minRy, float scale, float dn,
                        float* out) const {
  const LipStats s = stats(kp);
  float rx = std::max(s.ax + padX, minRx);
  float ry = std::max(s.ay + padY, minRy);
  if (scale != 1.0f) {
    rx *= scale;
    ry *= scale;
  }
  const EllParams e{s.mx, s.my + dn, rx, ry, std::sqrt(rx * ry) * 256.0f};
  const size_t side = static_cast<size_t>(canvas);
  for (size_t r = 0; r < side; ++r)
    for (size_t c = 0; c < side; ++c) out[r * side + c] = ellipseAt(e, xs[c], ys[r]);
}

void UnifiedPi::lipMask(const float* kp, float* out) const {
  const float scale = corner_recovery ? cornerScale(kp, stats(kp)) : 1.0f;
  ellMask(kp, pad_x, pad_y, 0.1f, 0.1f, scale, down, out);
}

float UnifiedPi::propTeethGate(const float* kp, float* out) const {
  ellMask(kp, 0.0f, 0.0f, 0.004f, 0.004f, prop_gate_scale, 0.0f, out);
  float g = 0.0f;
  gateParams(kp, g);
  const size_t n = static_cast<size_t>(canvas) * static_cast<size_t>(canvas);
  for (size_t i = 0; i < n; ++i) out[i] = out[i] * g;
  return g;
}

void UnifiedPi::piU8(const float* kp, uint8_t* out) const { piInBox(kp, Box{0, 0, canvas, canvas}, out); }

EllParams UnifiedPi::lipParams(const float* kp) const {
  const LipStats s = stats(kp);
  float rx = std::max(s.ax + pad_x, 0.1f);
  float ry = std::max(s.ay + pad_y, 0.1f);
  if (corner_recovery) {
    const float scale = cornerScale(kp, s);
    if (scale != 1.0f) {
      rx *= scale;
      ry *= scale;
    }
  }
  return EllParams{s.mx, s.my + down, rx, ry, std::sqrt(rx * ry) * 256.0f};
}

EllParams UnifiedPi::gateParams(const float* kp, float& gate) const {
  const LipStats s = stats(kp);
  // How far the mouth is open: 0 at a half spread of 0.02 or less, 1 from
  // 0.03 on.
  float t = (s.ay - 0.02f) / 0.01f;
  t = std::min(std::max(t, 0.0f), 1.0f);
  gate = t * t * (3.0f - (t + t));
  const float rx = std::max(s.ax, 0.004f) * prop_gate_scale;
  const float ry = std::max(s.ay, 0.004f) * prop_gate_scale;
  return EllParams{s.mx, s.my, rx, ry, std::sqrt(rx * ry) * 256.0f};
}

Box UnifiedPi::ellBox(const EllParams& e) const {
  const int32_t s = canvas;
  if (s < 2) return Box{0, 0, s, s};
  const double h = (static_cast<double>(s) - 1.0) * 0.5;
  auto lower = [&](double c, double r) { return edge(std::max(std::floor(h * ((c - r) + 1.0)), 1.0) - 1.0, s); };
  auto upper = [&](double c, double r, int32_t lo) {
    return std::max(edge(std::min(std::ceil(h * ((c + r) + 1.0)) + 2.0, static_cast<double>(s)), s), lo);
  };
  // The ellipse reaches |r| either way: a negative prop_gate_scale turns
  // both gate radii negative, and the mask, which sees only their squares
  // and their product, draws the ellipse of their magnitudes.
  const double rx = std::fabs(static_cast<double>(e.rx)), ry = std::fabs(static_cast<double>(e.ry));
  Box b;
  b.x0 = lower(e.cx, rx);
  b.y0 = lower(e.cy, ry);
  b.x1 = upper(e.cx, rx, b.x0);
  b.y1 = upper(e.cy, ry, b.y0);
  return b;
}

Box UnifiedPi::supportBox(const float* kp) const {
  float g = 0.0f;
  const Box a = ellBox(lipParams(kp));
  const Box b = ellBox(gateParams(kp, g));
  return Box{std::min(a.x0, b.x0), std::min(a.y0, b.y0), std::max(a.x1, b.x1), std::max(a.y1, b.y1)};
}

Box UnifiedPi::clipped(const Box& b) const {
  Box c{std::max(b.x0, 0), std::max(b.y0, 0), std::min(b.x1, canvas), std::min(b.y1, canvas)};
  if (c.x1 < c.x0) c.x1 = c.x0;
  if (c.y1 < c.y0) c.y1 = c.y0;
  return c;
}

float UnifiedPi::piAt(const EllParams& lip, const EllParams& gate, float g, int32_t r, int32_t c) const {
  return std::max(ellipseAt(lip, xs[c], ys[r]), ellipseAt(gate, xs[c], ys[r]) * g);
}

// Each pixel of the box as lipMask and propTeethGate give it, without
// their canvases: both ellipses in one sweep.
void UnifiedPi::piInBox(const float* kp, const Box& b, uint8_t* out) const {
  float g = 0.0f;
  const EllParams lip = lipParams(kp);
  const EllParams gate = gateParams(kp, g);
  const size_t side = static_cast<size_t>(canvas);
  for (int32_t r = b.y0; r < b.y1; ++r)
    for (int32_t c = b.x0; c < b.x1; ++c) out[r * side + c] = quantiseU8(piAt(lip, gate, g, r, c));
}

void UnifiedPi::piU8Boxed(const float* kp, uint8_t* out) const {
  std::memset(out, 0, static_cast<size_t>(canvas) * static_cast<size_t>(canvas));
  piInBox(kp, clipped(supportBox(kp)), out);
}

void UnifiedPi::piU8ShrunkBy(const float* kp, const float* contour, const Box& box, uint8_t* out) const {
  const size_t side = static_cast<size_t>(canvas);
  std::memset(out, 0, side * side);
  const Box s = supportBox(kp);
  const Box b = clipped(Box{std::max(s.x0, box.x0), std::max(s.y0, box.y0), std::min(s.x1, box.x1),
                            std::min(s.y1, box.y1)});
  if (b.empty()) return;
  float g = 0.0f;
  const EllParams lip = lipParams(kp);
  const EllParams gate = gateParams(kp, g);
  for (int32_t r = b.y0; r < b.y1; ++r) {
    for (int32_t c = b.x0; c < b.x1; ++c) {
      const size_t i = r * side + c;
      if (!(contour[i] > 0.0f)) continue;
      out[i] = quantiseU8(std::min(contour[i], piAt(lip, gate, g, r, c)));
    }
  }
}

bool UnifiedPi::piU8Centroid(const uint8_t* pi, double& x, double& y) const {
  return piU8Centroid(pi, Box{0, 0, canvas, canvas}, x, y);
}

bool UnifiedPi::piU8Centroid(const uint8_t* pi, const Box& box, double& x, double& y) const {
  const Box b = clipped(box);
  const size_t side = static_cast<size_t>(canvas);
  double sx = 0.0, sy = 0.0, n = 0.0;
  for (int32_t r = b.y0; r < b.y1; ++r) {
    for (int32_t c = b.x0; c < b.x1; ++c) {
      if (pi[r * side + c] < 128) continue;
      sx += c;
      sy += r;
      n += 1.0;
    }
  }
  if (n == 0.0) return false;
  x = sx / n;
  y = sy / n;
  return true;
}

bool UnifiedPi::piU8AndShift(const float* kp, const double* cCanon, uint8_t* out, int32_t& dy, int32_t& dx) const {
  const Box box = supportBox(kp);
  piU8Boxed(kp, out);
  double x = 0.0, y = 0.0;
  if (!piU8Centroid(out, box, x, y)) return false;
  dy = roundToI32(y - cCanon[1]);
  dx = roundToI32(x - cCanon[0]);
  return true;
}

void UnifiedPi::canonicalCentroid(const float* xsRows, int32_t rows, double& x, double& y,
                                  const ParallelFor& parallel) const {
  struct Slot {
    bool has = false;
    double x = 0.0, y = 0.0;
  };
  std::vector<Slot> slots(static_cast<size_t>(std::max(rows, 0)));
  const size_t plane = static_cast<size_t>(canvas) * static_cast<size_t>(canvas);
  auto body = [&](int32_t begin, int32_t end) {
    std::vector<uint8_t> scratch(plane);  // one per range: ranges share nothing else
    for (int32_t f = begin; f < end; ++f) {
      Slot& s = slots[static_cast<size_t>(f)];
      piU8(xsRows + static_cast<size_t>(f) * 63, scratch.data());
      s.has = piU8Centroid(scratch.data(), s.x, s.y);
    }
  };
  if (parallel) parallel(rows, body);
  else body(0, rows);
  double sx = 0.0, sy = 0.0;
  size_t n = 0;
  for (const Slot& s : slots) {
    if (!s.has) continue;
    sx += s.x;
    sy += s.y;
    ++n;
  }
  if (n == 0) {
    throw std::runtime_error(
        "teeth-pi: pi is empty on every source frame — cannot derive the canonical centroid this bundle's frame is "
        "identified by");
  }
  x = sx / static_cast<double>(n);
  y = sy / static_cast<double>(n);
}

}  // namespace le::tessera
