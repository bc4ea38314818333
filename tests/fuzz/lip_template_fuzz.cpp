// lip_template.v1.json: the template reader and its checks, then the
// contour of the template it accepts, rasterised and feathered on its
// canvas for a mouth, a collapsed keypoint set and a garbage one.
#include <cmath>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessera/json.h"
#include "tessera/lip_contour.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using le::tessera::LipContour;

// The compose canvas: the template's own when it is small (so that the
// contour runs on what the fuzzer writes), else the generated bundles' 32.
int32_t canvasFor(const std::string& text) {
  try {
    const le::tessera::json::JVal root = le::tessera::json::JParser(text).document();
    const le::tessera::json::JVal* c = root.find("canvas");
    if (c && c->kind == le::tessera::json::JVal::kNumber && c->num >= 1.0 && c->num < 65.0)
      return static_cast<int32_t>(c->num);
  } catch (const std::runtime_error&) {
  }
  return 32;
}

std::vector<std::vector<float>> keypointSets() {
  std::vector<float> mouth(63, 0.0f), collapsed(63, 0.1f), garbage(63);
  const float corners[4][2] = {{-0.2f, 0.3f}, {0.2f, 0.3f}, {0.0f, 0.22f}, {0.0f, 0.4f}};
  for (int i = 0; i < 4; ++i) {
    mouth[(17 + i) * 3] = corners[i][0];
    mouth[(17 + i) * 3 + 1] = corners[i][1];
  }
  const float odd[] = {1e30f, -1e30f, std::numeric_limits<float>::quiet_NaN(), std::numeric_limits<float>::infinity(),
                       -3.0f, 7.5f};
  for (size_t i = 0; i < garbage.size(); ++i) garbage[i] = odd[i % (sizeof odd / sizeof odd[0])];
  return {mouth, collapsed, garbage};
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::vector<std::vector<float>> kps = keypointSets();
  const std::string text(le::fuzz::asText(data, size));
  const int32_t canvas = canvasFor(text);
  try {
    LipContour contour = LipContour::fromTemplateJson(text, canvas);
    FUZZ_CHECK(contour.canvas == canvas && contour.nv >= 1 && contour.feather > 0.0f);
    FUZZ_CHECK(contour.u_canon.size() == 2 * static_cast<size_t>(contour.nv));
    FUZZ_CHECK(!contour.lip_idx.empty() && contour.lip_idx.size() <= LipContour::kMaxAnchors);
    for (int32_t row : contour.lip_idx) FUZZ_CHECK(row >= 0 && row < LipContour::kKpRows);
    if (!contour.W.empty()) {
      FUZZ_CHECK(contour.mapWidth == 2 * static_cast<int32_t>(contour.lip_idx.size()));
      FUZZ_CHECK(contour.W.size() == contour.u_canon.size() * static_cast<size_t>(contour.mapWidth));
      FUZZ_CHECK(contour.b.size() == contour.u_canon.size());
    }
    std::vector<float> out(static_cast<size_t>(canvas) * static_cast<size_t>(canvas));
    for (const std::vector<float>& kp : kps) {
      contour.contourF32Canvas(kp.data(), out.data());
      for (float a : out) FUZZ_CHECK(a >= 0.0f && a <= 1.0f);
    }
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(std::string(e.what()).rfind("lip_template.v1.json: ", 0) == 0);
  }
  return 0;
}
