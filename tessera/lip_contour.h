// The lip contour: a polygon that follows the lips, deformed onto each frame
// from the frame's keypoints, rasterised and feathered outward into a soft
// mask. The lip ellipse over-covers the mouth; this is what the viewer gets
// instead, both as the compose graph's `lip_delivery` input and as the cut
// applied to the teeth pass's pi mask.
//
// All polygon work is in double and the alpha is float, with every product
// rounded before it is added, so that the mask has one result bit for bit.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessera/box.h"

namespace le::tessera {

class UnifiedPi;

class LipContour {
 public:
  static constexpr int32_t kMaxAnchors = 8;  // the polygon step holds its anchors in arrays of 8
  static constexpr int32_t kKpRows = 21;     // rows of a keypoint set

  // Refuses a canvas below 1, a feather not above 0, nv below 1, and anchor
  // rows that a keypoint set lacks or the polygon step cannot hold (it takes
  // 1 to 8 rows in 0..20).
  LipContour(int32_t canvas, float feather, const double* uCanon, int32_t nv, const int32_t* lipIdx,
             int32_t nIdx);

  // Parses and checks lip_template.v1.json against the compose canvas;
  // every refusal throws std::runtime_error naming the file.
  static LipContour fromTemplateJson(const std::string& text, int32_t canvas);

  // Installs a learned map: `W` is rows x cols row-major, `b` rows long. It
  // needs rows = 2 * nv, cols = 2 * nIdx and nIdx in 1..8, and replaces
  // `lip_idx` with the map's own anchors.
  void attachMap(const double* W, const double* b, int32_t rows, int32_t cols, const int32_t* lipIdx,
                 int32_t nIdx);

  // 2 * nv doubles, canvas pixels, interleaved x, y, from one keypoint row of
  // 63 floats.
  void polygon(const float* kp, double* out) const;

  // The polygon's bounds widened by the feather and clipped to the canvas.
  Box box(const double* poly) const;

  // box.width() * box.height() bytes: 255 inside the polygon and on its
  // outline, 0 outside.
  void fillScanline(const double* poly, const Box& box, uint8_t* mask);

  // The feathered contour inside `box` of an S*S float canvas; nothing
  // outside the box is written.
  void contourF32(const double* poly, const Box& box, float* canvasOut);

  // Clears an S*S float canvas and writes this frame's contour into it.
  void contourF32Canvas(const float* kp, float* out);

  // The delivered mask: pi cut down by this frame's contour, S*S bytes. The
  // pi must be on this contour's canvas.
  void deliveredU8(const float* kp, const UnifiedPi& pi, uint8_t* out);
  // Cuts an 8-bit pi down to the delivered mask inside `box`; pixels of the
  // box outside the contour's box are cleared. Returns whether any pixel
  // stayed above 0.
  bool shrinkU8InPlace(const float* kp, const Box& box, uint8_t* mask);
  // pi.piU8AndShift, then shrinkU8InPlace over pi's support box: the shift
  // comes from pi's centroid, never from the delivered mask. True only if
  // both found something.
  bool deliveredU8AndShift(const float* kp, const UnifiedPi& pi, const double* cCanon, uint8_t* out, int32_t& dy,
                           int32_t& dx);

  // The model, set by the constructor and attachMap.
  int32_t canvas = 0;            // S, the compose canvas
  float feather = 0.0f;          // feather width in pixels
  int32_t nv = 0;                // polygon vertex count
  std::vector<double> u_canon;   // 2 * nv, interleaved x, y, canonical units
  std::vector<int32_t> lip_idx;  // anchor keypoint rows
  std::vector<double> W;         // 2 * nv rows of mapWidth, row-major; empty without a map
  std::vector<double> b;         // 2 * nv
  int32_t mapWidth = 0;          // 2 * lip_idx.size() with a map

 private:
  struct Edge {
    int64_t ytop;
    int64_t ybot;
    int64_t x;   // 16.16 fixed point at ytop
    int64_t dx;  // 16.16 step per row
  };

  // Scratch reused from frame to frame: one object serves one thread at a
  // time. Each grows to the largest box seen and is never released.
  std::vector<uint8_t> mask_;   // the box's scanline mask
  std::vector<float> dist_;     // the box's chamfer distance
  std::vector<double> poly_;    // this frame's polygon
  std::vector<int64_t> vx_, vy_;  // rounded vertices, box-relative
  std::vector<Edge> edges_;
  std::vector<int64_t> cross_;  // one row's edge crossings
  std::vector<float> canvas_;   // S*S contour for the delivered mask; written only inside a box
};

}  // namespace le::tessera
