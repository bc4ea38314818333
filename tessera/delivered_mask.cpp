// The delivered mask: the part of pi that the lip contour keeps. Pi decides
// the shift of a frame; the contour only decides which of pi's pixels the
// viewer gets.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "tessera/lip_contour.h"
#include "tessera/unified_pi.h"

namespace le::tessera {

namespace {

Box intersect(const Box& a, const Box& b) {
  Box c{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
  if (c.x1 < c.x0) c.x1 = c.x0;
  if (c.y1 < c.y0) c.y1 = c.y0;
  return c;
}

}  // namespace

void LipContour::deliveredU8(const float* kp, const UnifiedPi& pi, uint8_t* out) {
  if (pi.canvas != canvas) {
    throw std::runtime_error("teeth: the pi canvas " + std::to_string(pi.canvas) + " is not the contour's " +
                             std::to_string(canvas));
  }
  polygon(kp, poly_.data());
  const Box bx = box(poly_.data());
  if (bx.empty()) {
    std::memset(out, 0, static_cast<size_t>(canvas) * static_cast<size_t>(canvas));
    return;
  }
  canvas_.resize(static_cast<size_t>(canvas) * static_cast<size_t>(canvas));
  contourF32(poly_.data(), bx, canvas_.data());
  pi.piU8ShrunkBy(kp, canvas_.data(), bx, out);
}

bool LipContour::shrinkU8InPlace(const float* kp, const Box& workBox, uint8_t* mask) {
  const size_t side = static_cast<size_t>(canvas);
  const Box work = intersect(workBox, Box{0, 0, canvas, canvas});  // only canvas pixels exist
  polygon(kp, poly_.data());
  const Box pbox = box(poly_.data());
  const Box in = intersect(work, pbox);
  if (in.empty()) {
    for (int32_t r = work.y0; r < work.y1; ++r) std::memset(mask + r * side + work.x0, 0, work.width());
    return false;
  }
  canvas_.resize(side * side);
  contourF32(poly_.data(), pbox, canvas_.data());
  bool any = false;
  for (int32_t r = work.y0; r < work.y1; ++r) {
    uint8_t* row = mask + r * side;
    if (r < in.y0 || r >= in.y1) {
      std::memset(row + work.x0, 0, work.width());
      continue;
    }
    std::memset(row + work.x0, 0, in.x0 - work.x0);
    std::memset(row + in.x1, 0, work.x1 - in.x1);
    const float* contour = canvas_.data() + r * side;
    for (int32_t c = in.x0; c < in.x1; ++c) {
      const uint8_t cut = quantiseU8(contour[c]);
      if (row[c] > cut) row[c] = cut;
      any = any || row[c] > 0;
    }
  }
  return any;
}

bool LipContour::deliveredU8AndShift(const float* kp, const UnifiedPi& pi, const double* cCanon, uint8_t* out,
                                     int32_t& dy, int32_t& dx) {
  if (pi.canvas != canvas) {
    throw std::runtime_error("teeth: the pi canvas " + std::to_string(pi.canvas) + " is not the contour's " +
                             std::to_string(canvas));
  }
  const bool centred = pi.piU8AndShift(kp, cCanon, out, dy, dx);
  const bool kept = shrinkU8InPlace(kp, pi.supportBox(kp), out);
  return centred && kept;
}

}  // namespace le::tessera
