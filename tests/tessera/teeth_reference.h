// A plain scalar teeth pass written from its definition, with no knowledge
// of the engine's code: every half rounding goes through the scalar
// reference of the compute tests, every score is computed pixel by pixel
// from the formula (no difference table, no pixel list, no vector kernel),
// every convolution is the textbook loop, and nothing runs on a second
// thread. The tests hold TeethPass to it byte for byte; the teeth benchmark
// times it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tessera/head_weights.h"
#include "tessera/serve_config.h"
#include "tessera/teeth_members.h"

namespace le::test::teethref {

struct Emitted {
  std::vector<uint8_t> rgb;  // H x W x 3; empty when skipped
  bool skipped = false;
  std::string reason;
  int32_t n = 0;
  std::vector<int32_t> merged;  // the donors blended, in merge order
  std::vector<int32_t> own;     // the frame's own retrieval
  std::vector<int32_t> next;    // the next frame's, empty when it had none
  std::vector<float> weights;   // (n + 1) x H x W, the synth plane last
  std::vector<float> blend;     // 3 x H x W
};

class Pass {
 public:
  Pass(const BankData& bank, const tessera::HeadWeights& head, const tessera::ServeConfig& cfg);

  // One frame's retrieval, with both stages' scores (exact: 0 outside the
  // short list). Updates the carried teeth mask.
  struct Retrieval {
    std::vector<float> pooled, exact;
    std::vector<int32_t> donors;
  };
  Retrieval retrieve(const uint8_t* rgb, const uint8_t* pi, int32_t dy0, int32_t dx0);
  // The shift of a frame: false with the reason when it can't be placed.
  bool shift(const uint8_t* pi, const int32_t* fixed, int32_t& dy, int32_t& dx, std::string& why) const;

  bool push(int32_t frame, const uint8_t* rgb, const uint8_t* pi, const int32_t* fixed, Emitted& out);
  bool flush(Emitted& out);

  // The donors carried into the next frame, and the frame they came from.
  const std::vector<int32_t>& carried() const { return prev_sel_; }

 private:
  struct Held {
    int32_t frame = 0;
    std::vector<uint8_t> rgb, pi;
    std::vector<int32_t> donors;
    int32_t dy = 0, dx = 0;
    bool ok = false;
    std::string why;
  };
  uint8_t donorByte(int32_t q, int32_t oy, int32_t ox, int32_t y, int32_t x, int c, bool& covered) const;
  void emit(const Held& h, const std::vector<int32_t>* next, Emitted& out);

  BankData bank_;
  tessera::HeadWeights head_;
  tessera::ServeConfig cfg_;
  int32_t H_, W_, SH_, SW_;
  std::vector<int32_t> dy_, dx_;
  float byteHalf_[256];
  std::vector<std::vector<float>> pooledDonor_;  // per donor, 3 planes of the pooled canonical window, as halves
  std::vector<float> prev_mask_;
  bool have_prev_ = false;
  bool held_ = false;
  Held pending_;
  std::vector<int32_t> prev_sel_;
  int32_t prev_sel_frame_ = -2;
};

}  // namespace le::test::teethref
