// What the fused convolution backend reads of an ONNX file: the shapes it
// checks the topology on before choosing itself, then every initializer's
// float data and the batch. Whatever the bytes, what is read is what they
// hold: no initializer has more floats than the input has room for, and one
// that is read has exactly the floats its dimensions ask for.
#include <stdexcept>

#include "director/conv/m4b_topology.h"
#include "director/conv/onnx_model.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le::conv;
  const le::GsSlice bytes{data, size};
  bool topology = false;
  try {
    const TensorShapes shapes = readTensorShapes(bytes);
    FUZZ_CHECK(shapes.names.size() == shapes.dims.size());
    M4bNames names;
    std::string why;
    topology = m4bResolve(shapes, names, &why);
    FUZZ_CHECK(topology == why.empty());
    if (topology) FUZZ_CHECK(!names.preWeight.empty() && !names.preBias.empty() && !names.grid32.empty());
  } catch (const le::GsWireError&) {
  }
  try {
    const OnnxModel model = readOnnxModel(bytes);
    size_t floats = 0;
    for (const OnnxInitializer& init : model.initializers) {
      uint64_t count = 1;
      bool over = false, zero = false;
      for (const int64_t d : init.dims) {
        zero = zero || d <= 0;
        over = over || __builtin_mul_overflow(count, static_cast<uint64_t>(d < 0 ? 0 : d), &count);
      }
      FUZZ_CHECK(zero ? init.data.empty() : !over && init.data.size() == count);
      floats += init.data.size();
    }
    FUZZ_CHECK(floats <= size / 4);
    FUZZ_CHECK(model.batch >= 0);
    M4bNames names;
    std::string why;
    // The shapes read with the data are the shapes read without it.
    FUZZ_CHECK(m4bResolve(model.shapes(), names, &why) == topology);
  } catch (const std::runtime_error&) {
    // A refusal (a wire error among them).
  }
  return 0;
}
