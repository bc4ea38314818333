// The head checkpoint (tessera_head.v1.pt): its stored ZIP directory on the
// raw bytes, then the whole loader, ZIP, pickle and tensors.
#include <stdexcept>

#include "tessera/head_pt_reader.h"
#include "tessera/head_weights.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le::tessera;
  try {
    for (const headpt::ZipEntry& e : headpt::readZipDirectory(data, size))
      FUZZ_CHECK(e.offset <= size && e.size <= size - e.offset);
  } catch (const std::runtime_error&) {
  }
  try {
    const HeadWeights w = loadHeadPt(data, size);
    FUZZ_CHECK(w.params() == 3489 || w.params() == 4082);
  } catch (const std::runtime_error&) {
  }
  return 0;
}
