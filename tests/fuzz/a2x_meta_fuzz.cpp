// a2x_meta.json: the plain key search and the checked keys that the
// streaming model is built from.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "audio/a2x_meta.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(le::fuzz::asText(data, size));
  for (const char* key : {"h", "window", "left", "layers", "width", "silence_prime", ""}) {
    le::a2xMetaInt(text, key, -7);
    le::a2xMetaBool(text, key, true);
  }
  try {
    const le::A2xMeta m = le::readA2xMeta(text);
    FUZZ_CHECK(m.h >= 1 && m.window >= 0 && m.left >= 0 && m.layers >= 0);
    FUZZ_CHECK(m.windowLayers == int64_t{m.window} * m.layers && m.leftLayers == int64_t{m.left} * m.layers);
  } catch (const std::runtime_error&) {
  }
  return 0;
}
