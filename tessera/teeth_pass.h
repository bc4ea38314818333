// The teeth pass on the CPU: for every rendered frame, find the bank's donors
// whose teeth look most like the teeth the renderer synthesised, blend them
// through the learned head and compose the result with the synthesised mouth.
//
// Per frame: derive the frame's shift from pi; read the synthesised window at
// that shift; find the teeth pixels; score every donor on a pooled window;
// score the best `kshort` on the full-resolution teeth pixels; keep the best
// `cut` within the winner's aperture tolerance; pad to exactly K donors. A
// frame is emitted one frame late, when its successor's donors are known, so
// that the two can be merged.
//
// Every score and every pixel has one defined result: half precision is IEEE
// binary16 rounded to nearest even, products are rounded before they are
// added, sums run in a fixed order, and the work is cut across threads only
// where each slice writes its own outputs. Only expf comes from the C library.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "tessera/box.h"
#include "tessera/geometry_stamp.h"
#include "tessera/head_weights.h"
#include "tessera/serve_config.h"
#include "tessera/teeth_members.h"

namespace le::tessera {

// One emitted frame.
struct FrameResult {
  std::vector<uint8_t> rgb;  // the window, H x W x 3 interleaved; empty for a skipped frame
  bool skipped = false;
  std::string reason;  // "empty-pi" or "shift-out-of-range" for a skipped frame
  int32_t n = 0;       // donors blended, repeats included
  // Mean and largest weight of the synth plane under the head mask; a result
  // reused across frames keeps the last values when a frame sets none.
  float synth_mean = -1.0f;
  float synth_max = -1.0f;
};

// Where a pass's time went, in milliseconds summed over its frames.
struct PhaseTimes {
  double prepare = 0.0;    // teeth mask, carry, pooling of the frame
  double pooled = 0.0;     // pooled score of every donor, and its ranking
  double exact = 0.0;      // exact score of the short list
  double select = 0.0;     // aperture selection
  double gather = 0.0;     // merge, candidates, head mask, synth planes
  double convs = 0.0;      // head input and its three convolutions
  double blend = 0.0;      // upsampling, softmax and blend
  double compose = 0.0;    // statistics, carried donors, compose
  uint64_t retrievals = 0;
  uint64_t emits = 0;
};

// The synth plane's weights over all emitted frames.
struct SynthWeightStats {
  uint64_t frames = 0;
  uint64_t pixels = 0;
  double sum = 0.0;  // sum of the per-frame means
  double peak = 0.0;
};

// One output index of the head's upsampling by 2 (bilinear, half-pixel
// centres): the two input indices it reads and the fraction between them.
struct UpsampleTap {
  int32_t lo, hi;
  float f;
};

class TeethPass {
 public:
  // Refuses an incoherent stamp, a bank whose arrays disagree with its donor
  // count, a kshort below 1 and an odd window.
  TeethPass(const BankData& bank, const HeadWeights& head, const ServeConfig& cfg);
  virtual ~TeethPass() = default;
  TeethPass(const TeethPass&) = delete;
  TeethPass& operator=(const TeethPass&) = delete;

  // ---- the frame protocol: one caller, frames numbered consecutively ----
  // rgb is a canvas of RGB bytes, pi its mask; shift is null or dy, dx. True
  // when `result` was filled with the frame pushed before this one.
  bool push(int32_t frame, const uint8_t* rgb, const uint8_t* pi, const int32_t* shift, FrameResult& result);
  // Emits the frame still held; true when there was one.
  bool flush(FrameResult& result);

  // ---- retrieval ----
  // The frame's donors, best first: exactly K entries, the last chosen one
  // repeated when fewer qualify. The list lives until the next call.
  const std::vector<int32_t>& retrieve(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0);
  // The shift that moves the bank's canonical centroid onto this frame's:
  // `fixed` (dy, dx) when given, else from pi's centroid. False with "empty-pi"
  // or "shift-out-of-range" in `why`.
  bool deriveShift(const uint8_t* pi, const int32_t* fixed, int32_t& dy, int32_t& dx, std::string& why) const;
  // The donors' windows at a frame's shift, H x W x 3 bytes each, zero where
  // the stored patch doesn't reach.
  void gatherWindowsU8(const std::vector<int32_t>& donors, int32_t dy0, int32_t dx0, std::vector<uint8_t>& out) const;
  // Donor q's canonical window as three planes of H x W halves of byte / 255;
  // 0 where uncovered.
  void canonicalWindowF16(int32_t q, uint16_t* out) const;
  // Throws unless an H x W read at (row, col) lies inside cpuReadRect.
  void checkSynthRead(int32_t row, int32_t col, const char* what) const;
  // The window grown by pad on every side, clipped to the canvas: the only
  // canvas bytes the pass ever reads.
  Box cpuReadRect() const;
  // T[a][b] = |f16(h(b) - h(a))| with h(v) = f16(v / 255): a synthesised byte
  // against a donor byte. 256 x 256, built once per process.
  static const float* dTable();

  // ---- what the pass holds ----
  const GeometryStamp& stamp() const { return stamp_; }
  const SynthWeightStats& synthStats() const { return stats_; }
  const PhaseTimes& phaseTimes() const { return times_; }
  // The last pooled and exact scores (exact only for the short list; 0
  // elsewhere): for tests and diagnostics.
  const std::vector<float>& pooledScores() const { return pooled_; }
  const std::vector<float>& exactScores() const { return exact_; }
  // The last emitted frame's head output: (m + 1) x H x W weights, the synth
  // plane last, and the 3 x H x W blend, for tests and diagnostics.
  const std::vector<float>& lastWeights() const { return weights_; }
  const std::vector<float>& lastBlend() const { return blended_; }

 private:
  // One frame waiting for its successor.
  struct Pending {
    int32_t frame = 0;
    std::vector<uint8_t> rgb;  // a copy of the canvas
    std::vector<uint8_t> pi;   // a copy of its mask
    std::vector<int32_t> donors;
    int32_t dy = 0, dx = 0;
    bool ok = false;
    std::string why;
  };

  // The per-frame working set of retrieval.
  struct RetrieveWork {
    std::vector<float> synth;       // 3 x H x W, byte / 255
    std::vector<float> mask;        // H x W
    std::vector<uint16_t> pool_synth;  // 3 x P
    std::vector<uint16_t> pool_mask;   // P
    std::vector<float> pooled_f;    // 4 x P scratch of the pooling
    float dn = 1.0f, pn = 1.0f;
    int32_t row_lo = 0, row_hi = 0;
    int32_t row0 = 0, col0 = 0;
    const uint8_t* rgb = nullptr;   // the canvas being retrieved
  };
  // This frame's mask pixels, for the exact stage; `ws` is padded with zeros
  // to a multiple of 64 so that the vector kernel runs whole blocks.
  struct MaskList {
    std::vector<int32_t> ys, xs;
    std::vector<uint8_t> rs, gs, bs;
    std::vector<float> ws;
    int32_t count = 0;
  };

  void buildIndex();
  void retrievePrepare(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0);
  void buildMaskList();
  float exactTermFromList(int32_t q) const;
  float exactTermFromBand(int32_t q) const;
  void retrieveSelect();
  static void stableArgsort(const std::vector<float>& values, std::vector<int32_t>& order);

  void emit(const Pending& p, const std::vector<int32_t>* next, FrameResult& result);
  void mergeDonors(const Pending& p, const std::vector<int32_t>* next);
  void headForward(int32_t m);

  // Stored row and column of window pixel (0, 0) for a donor read at offsets
  // (oy, ox).
  int32_t storedRow(int32_t oy) const { return oy + stamp_.shift_margin() - stamp_.pad() - stamp_.band_r0(); }
  int32_t storedCol(int32_t ox) const { return ox + stamp_.shift_margin() - stamp_.pad() - stamp_.band_c0(); }
  int32_t clampOffset(int32_t v) const;
  bool covers(int32_t oy, int32_t ox, int32_t y, int32_t x) const;

  GeometryStamp stamp_;
  ServeConfig cfg_;
  HeadWeights head_;
  int32_t n_ = 0;
  std::vector<uint8_t> refs_;
  std::vector<int32_t> dy_, dx_;
  std::vector<double> aperture_;
  double c_canon_x_ = 0.0, c_canon_y_ = 0.0;
  int32_t H_ = 0, W_ = 0, ph_ = 0, pw_ = 0;
  int32_t SH_ = 0, SW_ = 0;
  std::vector<uint16_t> index_;     // n x 3 x P pooled canonical donors
  std::vector<uint8_t> band_mask_;  // H x W
  std::vector<float> prev_mask_;
  bool prev_mask_valid_ = false;
  bool use_exact_list_ = true;

  RetrieveWork work_;
  MaskList list_;
  std::vector<float> pooled_, exact_, short_;
  std::vector<int32_t> order_, rank_, chosen_;

  // Emission.
  bool has_pending_ = false;
  Pending pending_, incoming_;
  std::vector<int32_t> prev_sel_;
  int32_t prev_sel_frame_ = -2;
  SynthWeightStats stats_;
  PhaseTimes times_;
  std::vector<int32_t> cur_, nxt_, cur_only_, merged_;
  std::vector<int32_t> koy_, kox_;  // merged donors' offsets at the frame's shift
  std::vector<uint8_t> gathered_;   // m x H x W x 3
  std::vector<float> cand_;         // m x 3 x H x W
  std::vector<uint8_t> head_mask_;  // H x W
  std::vector<float> synth_planes_;  // 3 x H x W
  std::vector<float> synth_pool_;    // 3 x h2 x w2
  std::vector<float> feats_;        // m x 7 x h2 x w2
  std::vector<float> act0_, act1_;  // m x 16 x h2 x w2
  std::vector<float> logits_;       // m x h2 x w2
  std::vector<float> up_;           // m x H x W
  std::vector<UpsampleTap> taps_x_;  // the upsampling's taps along a row
  std::vector<float> weights_;      // (m + 1) x H x W
  std::vector<float> blended_;      // 3 x H x W
  std::vector<float> scores_;
  std::vector<int32_t> sel_order_;
};

}  // namespace le::tessera
