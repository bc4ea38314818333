// The fused convolution backend: a hand-written replacement for ONNX
// Runtime for one graph, the fused m4b director at crop 512, with its
// half-precision arithmetic exact on every target this build compiles.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le {

class ConvBackend {
 public:
  virtual ~ConvBackend();
  virtual int batch() const = 0;
  // pooled and prior: n pointers to halves, 64 x 32 x 32 channel-first and
  // 3 x 512 x 512 planes. kpSource and kpDriving: n rows of 63 floats. out
  // receives n x 3 x 512 x 512 floats as planes. 1 <= n <= batch(), else
  // throws "le_conv: bad n". One caller at a time.
  virtual void render(const uint16_t* const* pooled, const uint16_t* const* prior, const float* kpSource,
                      const float* kpDriving, int n, float* out) = 0;

  // True where this build has an exact road for the backend's half
  // arithmetic. Every target compiled here has one: halves run in double
  // lanes, rounded once per operation (compute/half_arith.h).
  static bool available();
  // Whether the file's initializers are the m4b topology. Throws nothing: a
  // file that can't be read or parsed is simply not supported.
  static bool graphSupported(const std::string& path);
  // Loads and packs the graph's weights; threads <= 0 means
  // le::pool::threads(). Throws a refusal for anything but the m4b graph.
  static std::unique_ptr<ConvBackend> create(const std::string& path, int threads);
};

}  // namespace le
