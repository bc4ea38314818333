// The teeth pass made fit for a stream of rendered frames: what a session
// holds. It quantises a rendered canvas to bytes, computes the delivery mask
// and the shift from the frame's keypoints, runs the pass (on a GPU road
// where one exists, on the CPU otherwise), and writes the window that comes
// back one frame later into the caller's canvas as a delta, so that every
// pixel the pass didn't change keeps its float value exactly.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tessera/lip_contour.h"
#include "tessera/metal_teeth.h"
#include "tessera/teeth_pass.h"
#include "tessera/unified_pi.h"

namespace le::tessera {

class StreamBorrow : public TeethPass {
 public:
  // `pi` is the bank's pi geometry (UnifiedPi::corpusFromManifestJson) and
  // `templateJson` the text of lip_template.v1.json, empty when the bundle
  // carries none: the delivery mask is then pi's ellipse. Throws on a
  // non-square canvas, a pi on another canvas and a template it can't read.
  StreamBorrow(const BankData& bank, const HeadWeights& head, const ServeConfig& cfg, const UnifiedPi& pi,
               const std::string& templateJson);
  ~StreamBorrow() override;

  // canvas: three planes of S x S floats, R, G, B, nominally in [0, 1]; kp:
  // the frame's 63 keypoint floats. True when `result` holds the frame
  // pushed before this one.
  bool push(const float* canvas, const float* kp, FrameResult& result);
  // The same for S x S pixels of 4 bytes: R, G, B and one that is ignored.
  bool pushRgba(const uint8_t* rgba, const float* kp, FrameResult& result);
  // Emits the frame still held; true when there was one.
  bool flush(FrameResult& result);

  // Writes a result's window into a planar canvas of side S: each pixel
  // moves by the difference between the result's byte and the canvas's own
  // quantisation, so an unchanged byte leaves the float as it was (clamped
  // to [0, 1]). A skipped result leaves the canvas untouched.
  static void writeWindowDelta(float* canvas, int32_t S, const FrameResult& result, const GeometryStamp& stamp);
  static void writeWindowDeltaRgba(uint8_t* rgba, int32_t S, const FrameResult& result, const GeometryStamp& stamp);

  // "metal" with a GPU road, else "cpu".
  const char* backend() const { return gpu_ ? "metal" : "cpu"; }
  // No host-side split is measured: false, and nothing written.
  bool hostSplit(double*) const { return false; }
  // The synth plane's weight statistics, from whichever road runs.
  SynthWeightStats synthW() const { return gpu_ ? gpu_->synthW() : synthStats(); }
  // The part of the canvas quantised per frame; empty for all of it.
  Box roi() const { return Box{roi_c0_, roi_r0_, roi_c1_, roi_r1_}; }

 private:
  bool pushSynth(const float* kp, FrameResult& result);

  std::unique_ptr<MetalTeeth> gpu_;
  UnifiedPi pi_;
  std::unique_ptr<LipContour> lip_;
  std::array<double, 2> c_canon_{};
  int32_t canvas_ = 0;
  int32_t frame_ = 0;
  std::vector<uint8_t> rgb_;   // S x S x 3, the quantised canvas
  std::vector<uint8_t> mask_;  // S x S, this frame's delivery mask
  int32_t roi_r0_ = 0, roi_r1_ = 0, roi_c0_ = 0, roi_c1_ = 0;
};

}  // namespace le::tessera
