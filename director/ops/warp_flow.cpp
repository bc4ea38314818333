#include "director/ops/warp_flow.h"

#include <cmath>

namespace le {

namespace {

void axisTable(int in, int out, float scale, std::vector<int>& i0v, std::vector<int>& i1v, std::vector<float>& d1,
               std::vector<float>& d2) {
  i0v.resize(static_cast<size_t>(out));
  i1v.resize(static_cast<size_t>(out));
  d1.resize(static_cast<size_t>(out));
  d2.resize(static_cast<size_t>(out));
  const float last = static_cast<float>(in - 1);
  for (int i = 0; i < out; ++i) {
    float s = scale == 1.0f ? static_cast<float>(i) : (static_cast<float>(i) + 0.5f) / scale - 0.5f;
    s = s < 0.0f ? 0.0f : (s > last ? last : s);
    const int si = static_cast<int>(s);
    const int i0 = si < in - 1 ? si : in - 1;
    const int i1 = i0 + 1 < in - 1 ? i0 + 1 : in - 1;
    const size_t k = static_cast<size_t>(i);
    i0v[k] = i0;
    i1v[k] = i1;
    if (si >= in - 1) {
      d1[k] = 0.5f;
      d2[k] = 0.5f;
    } else {
      d1[k] = std::fabs(s - static_cast<float>(i0));
      d2[k] = std::fabs(s - static_cast<float>(i1));
    }
  }
}

}  // namespace

void warpFlowTables(int inW, int inH, int outW, int outH, float scaleW, float scaleH, WarpFlowTables& tables) {
  tables.inW = inW;
  tables.inH = inH;
  tables.outW = outW;
  tables.outH = outH;
  tables.scaleW = scaleW;
  tables.scaleH = scaleH;
  axisTable(inW, outW, scaleW, tables.x0, tables.x1, tables.dx1, tables.dx2);
  axisTable(inH, outH, scaleH, tables.y0, tables.y1, tables.dy1, tables.dy2);
}

void warpFlowGridRows(const float* flow, const float* base, float* grid, const WarpFlowTables& t, int rowBegin,
                      int rowEnd, bool fma) {
  const int64_t inPlane = static_cast<int64_t>(t.inW) * t.inH;
  for (int plane = 0; plane < 2; ++plane) {
    const float* F = flow + plane * inPlane;
    for (int y = rowBegin; y < rowEnd; ++y) {
      const float* r0 = F + static_cast<int64_t>(t.y0[static_cast<size_t>(y)]) * t.inW;
      const float* r1 = F + static_cast<int64_t>(t.y1[static_cast<size_t>(y)]) * t.inW;
      const float dy1 = t.dy1[static_cast<size_t>(y)], dy2 = t.dy2[static_cast<size_t>(y)];
      for (int x = 0; x < t.outW; ++x) {
        const size_t k = static_cast<size_t>(x);
        const int x0 = t.x0[k], x1 = t.x1[k];
        const float dx1 = t.dx1[k], dx2 = t.dx2[k];
        float v = (dy2 * dx1) * r0[x1];
        if (fma) {
          v = std::fma(dy2 * dx2, r0[x0], v);
          v = std::fma(dy1 * dx2, r1[x0], v);
          v = std::fma(dy1 * dx1, r1[x1], v);
        } else {
          v = v + (dy2 * dx2) * r0[x0];
          v = v + (dy1 * dx2) * r1[x0];
          v = v + (dy1 * dx1) * r1[x1];
        }
        const int64_t at = (static_cast<int64_t>(y) * t.outW + x) * 2 + plane;
        grid[at] = v + base[at];
      }
    }
  }
}

// ONNX Runtime's linear Resize for x86-64 Linux rounds every product before
// adding it; measured against the runtime's own grid, the plain form matches
// it bit for bit and the fused form doesn't (the WarpFlow test holds this).
bool warpFlowOrtFmaForm() { return false; }

void warpClip01Rows(float* buf, int64_t W, int64_t H, int64_t rowBegin, int64_t rowEnd) {
  for (int64_t c = 0; c < 3; ++c)
    for (int64_t i = rowBegin * W; i < rowEnd * W; ++i) {
      float& v = buf[c * H * W + i];
      if (v <= 0.0f)
        v = 0.0f;
      else if (v >= 1.0f)
        v = 1.0f;
    }
}

}  // namespace le
