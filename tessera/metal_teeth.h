// The seam of a GPU teeth pass. A stream holds one when a GPU road can run
// the pass, and runs the CPU pass of TeethPass otherwise; whatever runs
// behind it honours the same frame protocol and gives the CPU road's donors
// and pixels.
#pragma once

#include <cstdint>
#include <memory>

#include "tessera/teeth_pass.h"

namespace le::tessera {

class MetalTeeth {
 public:
  virtual ~MetalTeeth() = default;
  // As TeethPass::push and TeethPass::flush.
  virtual bool push(int32_t frame, const uint8_t* rgb, const uint8_t* pi, const int32_t* shift,
                    FrameResult& result) = 0;
  virtual bool flush(FrameResult& result) = 0;
  // The synth plane's weight statistics of this pass.
  virtual SynthWeightStats synthW() const = 0;
  virtual double wallMs() const = 0;
  virtual double gpuMs() const = 0;
  virtual int64_t frames() const = 0;
  // Six per-stage GPU times, or null when they weren't asked for.
  virtual const double* kernelSplit() const = 0;

  // A GPU pass built from `pass`, or null when no GPU can be used; a null
  // answer prints nothing, and the stream runs on the CPU.
  static std::unique_ptr<MetalTeeth> create(const TeethPass& pass);
};

}  // namespace le::tessera
