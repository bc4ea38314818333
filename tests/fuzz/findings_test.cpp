// Regressions of what fuzzing the readers found, each on the input (or the
// shape of input) that showed it. The inputs that the harnesses found are
// also kept under regressions/ and replayed by the Fuzz.* tests.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio/a2x_meta.h"
#include "tessera/compose_v2_structure.h"
#include "tessera/json.h"
#include "tessera/lip_contour.h"
#include "tests/support/test_support.h"

namespace {

using le::test::errorOf;

// a2x_meta.json: window * layers overflowed an int when the exporter's
// numbers were large; a reach beyond a week of audio is refused.
TEST(FuzzFindings, A2xMetaReachThatNoFrameCountHoldsIsRefused) {
  EXPECT_EQ(errorOf([] { le::readA2xMeta(R"({"h": 32, "window": 1195817187, "left": 3, "layers": 6})"); }),
            "a2x_meta.json declares window=1195817187, left=3 and layers=6; an encoder that reaches more than "
            "16777216 frames ahead or behind is not a streaming model");
  EXPECT_EQ(errorOf([] { le::readA2xMeta(R"({"window": 0, "left": 8388609, "layers": 2})"); }),
            "a2x_meta.json declares window=0, left=8388609 and layers=2; an encoder that reaches more than "
            "16777216 frames ahead or behind is not a streaming model");
  const le::A2xMeta edge = le::readA2xMeta(R"({"window": 4194304, "left": 2097152, "layers": 4})");
  EXPECT_EQ(edge.windowLayers, 16777216);
  EXPECT_EQ(edge.leftLayers, 8388608);
}

TEST(FuzzFindings, A2xMetaKeysAndTheirOwnRefusals) {
  const le::A2xMeta m = le::readA2xMeta(R"({"window": 2, "left": 3, "width":	true, "silence_prime": 500})");
  EXPECT_EQ(m.h, 256);
  EXPECT_EQ(m.layers, 6);
  EXPECT_EQ(m.windowLayers, 12);
  EXPECT_EQ(m.leftLayers, 18);
  EXPECT_TRUE(m.width);
  EXPECT_EQ(m.silencePrime, 500);
  EXPECT_EQ(errorOf([] { le::readA2xMeta(R"({"h": 32, "left": 3})"); }),
            "meta lacks causal window/left (not a streaming a2x)");
  EXPECT_EQ(errorOf([] { le::readA2xMeta(R"({"h": 0, "window": 0, "left": 3})"); }),
            "a2x_meta.json declares h=0 and layers=6; the encoder needs a width of 1 or more and 0 or more layers");
}

// The JSON reader recursed once per level of nesting: a member of a
// megabyte of '[' ran off the stack. Nesting is bounded now.
TEST(FuzzFindings, JsonNestingIsBounded) {
  const std::string deep(1000000, '[');
  EXPECT_EQ(errorOf([&] { le::tessera::json::parseJson(deep, "tessera_bank.v1.json"); }),
            "teeth: tessera_bank.v1.json is not readable JSON: teeth: JSON nested deeper than 256 levels");
  const std::string objects = [] {
    std::string t;
    for (int i = 0; i < 200000; ++i) t += "{\"a\":";
    return t;
  }();
  EXPECT_EQ(errorOf([&] { le::tessera::json::JParser(objects).document(); }),
            "teeth: JSON nested deeper than 256 levels");

  // 256 levels read, and the count starts over for a sibling.
  const std::string levels255 = std::string(255, '[') + std::string(255, ']');
  const le::tessera::json::JVal v = le::tessera::json::JParser("[" + levels255 + ", " + levels255 + "]").document();
  ASSERT_EQ(v.arr.size(), 2u);
  const std::string levels256 = "[" + levels255 + "]";
  EXPECT_EQ(errorOf([&] { le::tessera::json::JParser("[" + levels256 + "]").document(); }),
            "teeth: JSON nested deeper than 256 levels");
}

TEST(FuzzFindings, DeepLipTemplateIsRefusedNotCrashed) {
  const std::string deep = "{\"format\": " + std::string(300000, '[');
  EXPECT_EQ(errorOf([&] { le::tessera::LipContour::fromTemplateJson(deep, 32); }),
            "lip_template.v1.json: is not parseable JSON (teeth: JSON nested deeper than 256 levels)");
  std::vector<uint8_t> structure;
  std::string source, error;
  EXPECT_EQ(le::tessera::composeV2StructureFromTemplate(deep, "model_b1.onnx", structure, source, error, nullptr), -1);
  EXPECT_EQ(error, "lip_template.v1.json is not parseable JSON (teeth: JSON nested deeper than 256 levels)");
}

}  // namespace
