// Pi, the compose mask of the unified compose: the soft region of the
// square compose canvas, derived from one frame's 21 keypoints, inside which
// the rendered mouth may be replaced. The neural graph composes its alpha
// with the same geometry and the bank's donors were placed against it, so
// this reproduces it on the CPU from the manifest's numbers, bit for bit.
//
// All mask arithmetic is single precision with every product rounded before
// it is added (the build never contracts to fused multiply-adds), means sum
// in lip_idx order, and division is true division.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "tessera/box.h"

namespace le::tessera {

// An ellipse of the mask family: centre and half axes in normalised canvas
// coordinates, and k = sqrt(rx * ry) * 256, the steepness of its ramp.
struct EllParams {
  float cx = 0.0f;
  float cy = 0.0f;
  float rx = 0.0f;
  float ry = 0.0f;
  float k = 0.0f;
};

class UnifiedPi {
 public:
  // Runs body over [begin, end) ranges that together cover [0, count).
  using ParallelFor =
      std::function<void(int32_t count, const std::function<void(int32_t begin, int32_t end)>& body)>;

  // The lip geometries a bank can have been built with, in table order.
  struct CorpusRow {
    const char* name;
    float pad_x;
    float pad_y;
    float down;
  };
  static const std::array<CorpusRow, 3>& corpusRows();

  // Parses the manifest's `unified` block for a canvas of side `canvas`.
  // Throws on every refusal; JSON reader failures pass through.
  static UnifiedPi fromManifestJson(const std::string& manifestText, int32_t canvas);

  // As fromManifestJson, with the lip geometry replaced by the corpus row
  // whose canonical centroid over the bundle's own source frames (`rows`
  // keypoint rows of xsTarget) lies nearest the bank's cCanon, if that one
  // is near enough and clearly nearest. Its name goes to *corpusName.
  static UnifiedPi corpusFromManifestJson(const std::string& manifestText, int32_t canvas, const float* xsTarget,
                                          int32_t rows, const double* cCanon, std::string* corpusName,
                                          const ParallelFor& parallel);

  // The decision of corpusFromManifestJson given each row's distance d from
  // cCanon, in table order: the index of the row to use, or a refusal.
  static size_t pickCorpusRow(const std::array<double, 3>& d, const double* cCanon);

  // Masks over the whole S*S canvas; kp is one keypoint row of 63 floats.
  void ellMask(const float* kp, float padX, float padY, float minRx, float minRy, float scale, float down,
               float* out) const;
  void lipMask(const float* kp, float* out) const;
  float propTeethGate(const float* kp, float* out) const;  // returns the gate
  void piU8(const float* kp, uint8_t* out) const;

  EllParams lipParams(const float* kp) const;
  EllParams gateParams(const float* kp, float& gate) const;

  // The pixels outside which the ellipse is zero, within the canvas.
  Box ellBox(const EllParams& params) const;
  // The union of both ellipses' boxes: pi is zero outside it.
  Box supportBox(const float* kp) const;

  // piU8, computed only inside the support box; the rest is cleared.
  void piU8Boxed(const float* kp, uint8_t* out) const;
  // min(pi, contour) quantised, inside `box` and the support box; the rest
  // is cleared. contour is an S*S float canvas.
  void piU8ShrunkBy(const float* kp, const float* contour, const Box& box, uint8_t* out) const;

  // Centroid of the pixels of 128 and more, each of weight 1; false when no
  // pixel counts. The boxed form looks only inside the box.
  bool piU8Centroid(const uint8_t* pi, double& x, double& y) const;
  bool piU8Centroid(const uint8_t* pi, const Box& box, double& x, double& y) const;

  // piU8Boxed, its centroid, and the whole-pixel shift from cCanon (x, y) to
  // it. False, with dy and dx untouched, when pi is empty.
  bool piU8AndShift(const float* kp, const double* cCanon, uint8_t* out, int32_t& dy, int32_t& dx) const;

  // Mean pi centroid over `rows` frames of keypoints, in frame order;
  // refuses when no frame has one. parallel may be empty.
  void canonicalCentroid(const float* xs, int32_t rows, double& x, double& y, const ParallelFor& parallel) const;

  int32_t canvas = 0;  // S
  std::string mode;    // "prop"
  bool corner_recovery = false;
  float prop_gate_scale = 0.0f;
  std::vector<int32_t> lip_idx;
  float pad_x = 0.0f;
  float pad_y = 0.0f;
  float down = 0.0f;
  std::vector<float> xs;  // pixel grid, S entries: float((2i)/(S-1) - 1) in double
  std::vector<float> ys;  // the same values

 private:
  struct LipStats {
    float mx, my, ax, ay;
  };
  LipStats stats(const float* kp) const;
  float cornerScale(const float* kp, const LipStats& s) const;
  Box clipped(const Box& b) const;
  float piAt(const EllParams& lip, const EllParams& gate, float g, int32_t r, int32_t c) const;
  void piInBox(const float* kp, const Box& box, uint8_t* out) const;
};

// 0..255 of a mask value: clamped to [0, 1], times 255, rounded to nearest
// with ties to even.
uint8_t quantiseU8(float p);

}  // namespace le::tessera
