// The grid of the fused warp, computed inside the node: the upsampled flow
// (ONNX Runtime's linear Resize with half-pixel coordinates, reproduced table
// for table) plus the base grid, and the clip that ends the fused node.
#pragma once

#include <cstdint>
#include <vector>

namespace le {

// Index and weight tables of a linear half-pixel resize from inW x inH to
// outW x outH, per output column (x0, x1, dx1, dx2) and row (y0, y1, dy1, dy2).
struct WarpFlowTables {
  int inW = 0, inH = 0, outW = 0, outH = 0;
  float scaleW = 0, scaleH = 0;
  std::vector<int> x0, x1, y0, y1;
  std::vector<float> dx1, dx2, dy1, dy2;
};

void warpFlowTables(int inW, int inH, int outW, int outH, float scaleW, float scaleH, WarpFlowTables& tables);

// Grid rows rowBegin..rowEnd-1 of grid [outH,outW,2] from flow [2,inH,inW]
// and base [outH,outW,2]: plane 0 gives x, plane 1 y. fma selects the form
// whose three later terms are fused multiply-adds; the other rounds each
// product before adding, in the same order.
void warpFlowGridRows(const float* flow, const float* base, float* grid, const WarpFlowTables& tables,
                      int rowBegin, int rowEnd, bool fma);

// Which form equals ONNX Runtime's own grid on this platform.
bool warpFlowOrtFmaForm();

// Rows rowBegin..rowEnd-1 of the three planes of buf [3,H,W]: a value <= 0
// becomes +0, a value >= 1 becomes 1, anything else (NaN too) stays.
void warpClip01Rows(float* buf, int64_t W, int64_t H, int64_t rowBegin, int64_t rowEnd);

}  // namespace le
