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
#pragma once

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
  // reference, 1 bicubic, 2 bilinear) and LE_PASTE_KSIZE (may lower ksize).
  Paste(std::vector<uint8_t> mask, int side, const Unsharp& u);

  // Composes a (3, side, side) planar crop, times scale, into the W x H RGB
  // frame in place at M = {a, b, tx, c, d, ty} (crop to frame). A singular
  // M, or one that places the crop off the frame, leaves the frame as it is.
  void composite(const float* crop, float scale, const float* M, uint8_t* frame, int W, int H);

  // The stages of composite, exposed for tests.
  void fillPlanes(const float* crop, float scale);
  void unsharpPlane(std::vector<float>& plane);
  void compositeTail(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id, double itx,
                     double ity);

  int side() const { return side_; }
  int ksize() const { return ksize_; }
  int padSide() const { return padSide_; }
  int fastMode() const { return fastMode_; }
  const std::vector<float>& gauss() const { return gauss_; }
  const std::vector<float>& plane(int c) const { return planes_[c]; }

 private:
  void compositeTailInterp(uint8_t* frame, int W, int x0, int x1, int y0, int y1, double ib, double id, double itx,
                           double ity);

  int side_;
  int ksize_;
  int padSide_;
  float amount_;
  // 0 reference Lanczos, 1 bicubic, 2 bilinear.
  int fastMode_ = 0;
  std::vector<uint8_t> mask_;
  std::vector<float> gauss_;
  std::vector<float> lanc_;   // 32 phases x 8 taps
  std::vector<float> bil_;    // 32 phases x 2 taps
  std::vector<float> cubic_;  // 32 phases x 4 taps
  std::vector<float> planes_[3];
  std::vector<float> padded_;
  std::vector<float> hblur_;
  std::vector<float> rgbx_;  // planes interleaved per pixel, a fourth lane of 0
  // Column tables of the inverse mapping; they only grow.
  std::vector<int> adelta_;
  std::vector<int> bdelta_;
};

}  // namespace le
