// The manifest's `unified` block read into the pi geometry, then the pi mask
// of that geometry for a mouth and for a garbage keypoint set.
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessera/unified_pi.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

constexpr int32_t kCanvas = 32;  // the generated bundles' crop

std::vector<std::vector<float>> keypointSets() {
  std::vector<float> mouth(63, 0.0f), garbage(63);
  const float corners[4][2] = {{-0.2f, 0.3f}, {0.2f, 0.3f}, {0.0f, 0.22f}, {0.0f, 0.4f}};
  for (int i = 0; i < 4; ++i) {
    mouth[(17 + i) * 3] = corners[i][0];
    mouth[(17 + i) * 3 + 1] = corners[i][1];
  }
  const float odd[] = {1e30f, -1e30f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                       -3.0f, 7.5f};
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = odd[i % (sizeof odd / sizeof odd[0])];
  return {mouth, garbage};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<std::vector<float>> kps = keypointSets();
  using le::tessera::UnifiedPi;
  UnifiedPi pi;
  try {
    pi = UnifiedPi::fromManifestJson(std::string(le::fuzz::asText(data, size)), kCanvas);
  } catch (const std::runtime_error&) {
    return 0;
  }
  FUZZ_CHECK(pi.canvas == kCanvas && !pi.lip_idx.empty());
  for (int32_t row : pi.lip_idx) FUZZ_CHECK(row >= 0 && row < 21);
  std::vector<uint8_t> whole(kCanvas * kCanvas), boxed(kCanvas * kCanvas);
  for (const std::vector<float>& kp : kps) {
    pi.piU8(kp.data(), whole.data());
    pi.piU8Boxed(kp.data(), boxed.data());
    // pi is zero outside its support box, so both ways agree.
    FUZZ_CHECK(whole == boxed);
  }
  return 0;
}
