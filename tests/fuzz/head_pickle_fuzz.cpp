// The pickle interpreter of a checkpoint's data.pkl, on arbitrary opcodes,
// and what a caller reads of the state it builds.
#include <stdexcept>

#include "tessera/head_pt_reader.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le::tessera::headpt;
  Unpickler u(data, size);
  try {
    u.run();
  } catch (const std::runtime_error&) {
    return 0;
  }
  for (const auto& [name, value] : u.state()) {
    FUZZ_CHECK(name && value);
    value->str();
    value->shape();
  }
  return 0;
}
