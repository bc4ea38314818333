// The last numeric stage of a frame: sharpen the rendered face crop with an
// unsharp mask, warp it into the driver frame by the inverse of the bundle's
// 2x3 transform M, and blend it in place through a feathered mask.
//
// Every byte is defined: single-precision arithmetic in the written order,
// products rounded before they are added, the warp in the fixed-point
// inverse mapping of 10 fractional bits and 32 sub-pixel phases, the mask
// rounded to 8 bits, and the blend truncated to a byte. Each output element
// is computed within one slice of le::pool in a fixed order, so the result
// does not depend on the thread count.
//
// Only the crop pixels that can reach the frame are sharpened: those within
// the taps of a nonzero mask byte (fixed per Paste) and within reach of the
// frame's bounding box (per frame). Every other pixel would be multiplied by
// a mask weight of 0, so leaving it out changes no byte.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace le {

// The manifest's unsharp parameters.
struct Unsharp {
  float amount = 0.0f;  // strength of the unsharp mask
  float sigma = 0.0f;   // Gaussian standard deviation, crop pixels
  int ksize = 0;        // Gaussian taps; odd
};

class Paste {
 public:
  // mask: side*side bytes, row-major. Reads LE_PASTE_FAST (0 Lanczos
  // reference, 1 bicubic, 2 bilinear), LE_PASTE_KSIZE (may lower ksize) and
  // LE_PASTE_METAL ("verify" asks for the GPU executor checked against the
  // CPU body).
  Paste(std::vector<uint8_t> mask, int side, const Unsharp& u);

  // Composes a (3, side, side) planar crop, times scale, into the W x H RGB
  // frame in place at M = {a, b, tx, c, d, ty} (crop to frame). A singular
  // M, or one that places the crop off the frame, leaves the frame as it is.
  void composite(const float* crop, float scale, const float* M, uint8_t* frame, int W, int H);

  int side() const { return side_; }
  int ksize() const { return ksize_; }
  int padSide() const { return padSide_; }
  int fastMode() const { return fastMode_; }
  // 0 CPU only, 1 GPU executor where one can be made, 2 the same checked
  // against the CPU body. Falls to 0 for good at the first frame of a build
  // that has no GPU executor, as this one.
  int metalMode() const { return metalMode_; }
  const std::vector<float>& gauss() const { return gauss_; }

 private:
  // Crop pixels [x0, x1) x [y0, y1).
  struct Rect {
    int x0, y0, x1, y1;
    bool empty() const { return x0 >= x1 || y0 >= y1; }
  };

  Rect frameReach(int x0, int x1, int y0, int y1, double ia, double ib, double ic, double id, double itx,
                  double ity) const;
  // Scales and sharpens the crop over r into rgbx_ (reference) or planes_.
  void sharpen(const float* crop, float scale, const Rect& r);
  // Warp and blend over the frame's bounding box.
  void compositeTail(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id, double itx,
                     double ity);
  void compositeTailInterp(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id, double itx,
                           double ity);
  float* hblurRow(int c, int y) { return hblur_.data() + (static_cast<size_t>(c) * side_ + y) * hstride_; }

  int side_;
  int ksize_;
  int padSide_;
  float amount_;
  // 0 reference Lanczos, 1 bicubic, 2 bilinear.
  int fastMode_ = 0;
  int metalMode_ = 1;
  bool metalTried_ = false;
  std::vector<uint8_t> mask_;
  // The mask inside a zero border of one pixel, for the warp's row kernel.
  std::vector<uint8_t> maskBorder_;
  // The crop pixels that some nonzero mask byte's taps reach.
  Rect maskReach_;
  std::vector<float> gauss_;
  std::vector<float> lanc_;   // 32 phases x 8 taps
  std::vector<float> bil_;    // 32 phases x 2 taps
  std::vector<float> cubic_;  // 32 phases x 4 taps
  // Horizontally blurred plane rows, 3 planes of side rows, hstride_ apart.
  std::vector<float> hblur_;
  int hstride_;
  // Reference mode: the sharpened crop in the warp's pair-rows (see
  // simd::WarpSource) inside a zero border of 4 pixels, side + 8 pixels of
  // 8 floats a pair-row.
  std::vector<float> rgbx_;
  // Bicubic and bilinear modes: the sharpened planes.
  std::vector<float> planes_[3];
  // Column tables of the inverse mapping, with spare entries for whole
  // vectors; they only grow.
  std::vector<int> adelta_;
  std::vector<int> bdelta_;
};

}  // namespace le
