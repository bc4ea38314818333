// Regressions of what fuzzing the readers found, each on the input (or the
// shape of input) that showed it. The inputs that the harnesses found are
// also kept under regressions/ and replayed by the Fuzz.* tests.
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "audio/a2x_meta.h"
#include "bundle/manifest.h"
#include "director/conv/onnx_model.h"
#include "director/rewrites/compose_v2_splice.h"
#include "director/rewrites/head_cubic.h"
#include "tessera/box.h"
#include "tessera/lip_contour.h"
#include "tessera/unified_pi.h"
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

// A published output whose long side passes the even and aspect tests but
// no int holds: the conversion to the canvas fields was undefined.
TEST(FuzzFindings, PublishedOutputBeyondInt32IsRefused) {
  le::test::TempDir dir;
  le::test::writeFile(dir / "driver.mp4", "driver");
  le::test::writeFile(dir / "manifest.json",
                      R"({"format": "le-bundle-v0", "agent": "a", "NT": 1, "H": 1, "W": 2147483647, "crop": 1,
                          "amount": 0, "sigma": 1, "ksize": 3, "frames": 1, "M_src_w": 1, "M_src_h": 1,
                          "outputs": {"2": {"width": 4294967294, "height": 2, "driver_mp4": "driver.mp4"}}})");
  EXPECT_EQ(errorOf([&] { le::loadManifest(dir.path(), 2); }),
            dir.path() + "/manifest.json outputs.2 declares 4294967294.000000x2.000000 — a side that no 32-bit "
                         "integer holds cannot be served");
}

// A lip vertex far off the canvas (a template's u_canon of 1e9, a garbage
// keypoint) made the outline walk every edge to its end, up to two million
// steps each, on every frame: a template of 400 such vertices cost seconds a
// frame. The walk now covers only the box, and paints exactly what the whole
// walk paints there: the mask in a box is the crop of the mask in a box that
// holds the whole polygon, where nothing is skipped.
TEST(FuzzFindings, FarLipVerticesCostTheBoxAndPaintWhatTheWholeWalkPaints) {
  const double u[8] = {};
  const int32_t row[] = {17};
  le::tessera::LipContour c(64, 1.0f, u, 4, row, 1);
  const double poly[] = {-1500.0, 20.5, 1800.0, -900.0, 35.0, 2500.0, -40.0, 10.0};
  const le::tessera::Box whole{-1600, -1000, 1900, 2600};
  std::vector<uint8_t> all(static_cast<size_t>(whole.width()) * whole.height());
  c.fillScanline(poly, whole, all.data());
  size_t painted = 0;
  for (const le::tessera::Box& b : {le::tessera::Box{0, 0, 64, 64}, le::tessera::Box{-20, 5, 40, 70},
                                     le::tessera::Box{100, -300, 180, -250}, le::tessera::Box{-1500, 19, -1490, 23},
                                     le::tessera::Box{30, 2400, 40, 2500}, le::tessera::Box{1700, -900, 1801, -800}}) {
    std::vector<uint8_t> part(static_cast<size_t>(b.width()) * b.height());
    c.fillScanline(poly, b, part.data());
    for (int32_t y = 0; y < b.height(); ++y)
      for (int32_t x = 0; x < b.width(); ++x) {
        const uint8_t expected = all[static_cast<size_t>(y + b.y0 - whole.y0) * whole.width() + (x + b.x0 - whole.x0)];
        ASSERT_EQ(part[static_cast<size_t>(y) * b.width() + x], expected) << "box at " << b.x0 << "," << b.y0;
        painted += expected != 0;
      }
  }
  EXPECT_GT(painted, 1000u);

  // The template that took seconds a frame.
  const std::string far = le::test::readFile(std::string(LE_FUZZ_REGRESSIONS) + "/lip_template/far_vertices.json");
  le::tessera::LipContour t = le::tessera::LipContour::fromTemplateJson(far, 32);
  std::vector<float> kp(63, 0.0f), canvas(32 * 32);
  for (int i = 0; i < 4; ++i) kp[(17 + i) * 3] = 0.1f * static_cast<float>(i);
  t.contourF32Canvas(kp.data(), canvas.data());
  EXPECT_EQ(t.nv, 400);
}

// The head cubic rewrite took the channel count from the Conv weight's dims
// alone: a 23 KB graph whose weight declared a million input channels (its
// 432 bytes unchanged) made it write 400 MiB of depthwise weight, three
// times over on the way. A weight must store what its channels need.
TEST(FuzzFindings, HeadCubicChannelsMustBeStoredInTheWeight) {
  const std::string file = le::test::readFile(le::test::dataPath("fuzz/head_cubic/weight_short_of_channels.onnx"));
  le::GsBytes bytes(file.begin(), file.end());
  const le::GsBytes before = bytes;
  std::string reason;
  EXPECT_EQ(le::rewriteHeadCubicResize(bytes, &reason), 0u);
  EXPECT_EQ(reason, "the Conv after the Resize reads 1048576 channels and its weight stores 432 bytes");
  EXPECT_EQ(bytes, before);
}

// The compose v2 splice copied a member node once per placeholder naming
// it: a structure repeating one placeholder made the graph that many copies
// larger (and invalid: a node's outputs are produced once).
TEST(FuzzFindings, SpliceTakesEachMemberNodeOnce) {
  // The harness's input: flags | member length (u32) | member | structure.
  const std::string input = le::test::readFile(le::test::dataPath("fuzz/compose_v2_splice/placeholder_twice.0.bin"));
  ASSERT_GT(input.size(), 5u);
  const size_t memberSize = static_cast<uint8_t>(input[1]) | static_cast<uint8_t>(input[2]) << 8 |
                            static_cast<uint8_t>(input[3]) << 16 | static_cast<size_t>(static_cast<uint8_t>(input[4])) << 24;
  ASSERT_LE(memberSize, input.size() - 5);
  le::GsBytes model(input.begin() + 5, input.begin() + 5 + static_cast<ptrdiff_t>(memberSize));
  const le::GsBytes structure(input.begin() + 5 + static_cast<ptrdiff_t>(memberSize), input.end());
  const le::GsBytes before = model;
  std::string err;
  EXPECT_FALSE(le::spliceComposeV2(model, structure, err, "", nullptr, nullptr, ""));
  EXPECT_EQ(err, "compose v2 splice: placeholder 0 names member node 0 a second time");
  EXPECT_EQ(model, before);
}

// A negative unified.pi.prop_gate_scale draws the gate ellipse of its
// magnitude, but the support box was taken from the signed radii and came
// out empty: the per-frame pi (piU8Boxed) lost the gate that the plain pi
// kept. The box now holds the ellipse the mask draws.
TEST(FuzzFindings, PiSupportBoxHoldsTheGateOfANegativeScale) {
  std::vector<float> kp(63, 0.0f);
  const float lips[4][2] = {{-0.2f, 0.3f}, {0.2f, 0.3f}, {0.0f, 0.22f}, {0.0f, 0.4f}};
  for (int i = 0; i < 4; ++i) {
    kp[(17 + i) * 3] = lips[i][0];
    kp[(17 + i) * 3 + 1] = lips[i][1];
  }
  for (const char* scale : {"-5.85", "-1e300", "5.85"}) {
    const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::fromManifestJson(
        std::string(R"({"unified": {"pi": {"mode": "prop", "prop_gate_scale": )") + scale +
            R"(, "lip_idx": [17, 18, 19, 20], "lip_geom_params": [0.12, 0.08, 0.05]}}})",
        32);
    std::vector<uint8_t> whole(32 * 32), boxed(32 * 32);
    pi.piU8(kp.data(), whole.data());
    pi.piU8Boxed(kp.data(), boxed.data());
    EXPECT_EQ(whole, boxed) << "prop_gate_scale " << scale;
  }
  // The scale's sign doesn't change the mask.
  const auto mask = [&](const char* scale) {
    const le::tessera::UnifiedPi pi = le::tessera::UnifiedPi::fromManifestJson(
        std::string(R"({"unified": {"pi": {"mode": "prop", "prop_gate_scale": )") + scale +
            R"(, "lip_idx": [17, 18, 19, 20], "lip_geom_params": [0.12, 0.08, 0.05]}}})",
        32);
    std::vector<uint8_t> out(32 * 32);
    pi.piU8Boxed(kp.data(), out.data());
    return out;
  };
  EXPECT_EQ(mask("-5.85"), mask("5.85"));
}

// An initializer whose dimensions multiply past 64 bits wrapped its float
// count, and the raw-size check compared the wrapped product: 2^62 floats
// passed for an empty raw_data and were then asked of the allocator. Such
// dimensions are refused, and so are those of a count that wraps to 0.
TEST(FuzzFindings, ConvInitializerDimensionsThatWrapAreRefused) {
  const auto model = [](std::initializer_list<uint64_t> dims) {
    le::GsBytes tensor;
    for (const uint64_t d : dims) le::gsPutInt(tensor, 1, d);
    le::gsPutInt(tensor, 2, 1);  // FLOAT
    le::gsPutStr(tensor, 8, "w");
    le::gsPutLen(tensor, 9, le::GsBytes{});
    le::GsBytes graph;
    le::gsPutLen(graph, 5, tensor);
    le::GsBytes bytes;
    le::gsPutLen(bytes, 7, graph);
    return bytes;
  };
  for (const auto& dims : {std::initializer_list<uint64_t>{uint64_t{1} << 62},
                           std::initializer_list<uint64_t>{uint64_t{1} << 32, uint64_t{1} << 32},
                           std::initializer_list<uint64_t>{uint64_t{1} << 40, uint64_t{1} << 40, 3}}) {
    const le::GsBytes bytes = model(dims);
    EXPECT_EQ(errorOf([&] { le::conv::readOnnxModel({bytes.data(), bytes.size()}); }),
              "onnx: raw size mismatch w");
  }
  // A zero dimension makes an empty tensor, which an empty raw_data holds.
  const le::GsBytes empty = model({uint64_t{1} << 62, 0});
  const le::conv::OnnxModel m = le::conv::readOnnxModel({empty.data(), empty.size()});
  ASSERT_EQ(m.initializers.size(), 1u);
  EXPECT_TRUE(m.initializers[0].data.empty());
}

}  // namespace
