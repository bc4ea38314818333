// The head config member (tessera_head.v1.json) read into the serve config.
#include <stdexcept>

#include "tessera/serve_config.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  try {
    le::tessera::ServeConfig::fromHeadMemberJson(std::string(le::fuzz::asText(data, size)));
  } catch (const std::runtime_error&) {
  }
  return 0;
}
