// The unified pi geometry against the generator's float32 reference (lip and
// gated ellipses, the 8-bit pi, its support box, centroid and shift, and the
// delivered mask, all bit for bit), the boxed forms against the plain ones on
// seeded rows, the corpus identification, and every refusal of the manifest
// block word for word.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tessera/json.h"
#include "tessera/lip_contour.h"
#include "tessera/unified_pi.h"
#include "tests/support/test_support.h"
#include "tests/support/xorshift.h"

namespace {

using le::tessera::Box;
using le::tessera::LipContour;
using le::tessera::UnifiedPi;

constexpr int32_t kCanvas = 64;
constexpr size_t kPlane = size_t{kCanvas} * kCanvas;
constexpr size_t kKp = 63;

std::string teeth(const std::string& rel) { return le::test::dataPath("teeth/" + rel); }

template <class T>
std::vector<T> arrayOf(const std::string& rel) {
  const std::string bytes = le::test::readFile(teeth(rel));
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

bool sameBits(const float* a, const float* b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

// One geometry's manifest and the reference results for every row.
struct Reference {
  explicit Reference(const std::string& name)
      : pi(UnifiedPi::fromManifestJson(le::test::readFile(teeth("pi/" + name + ".json")), kCanvas)),
        kp(arrayOf<float>("pi/kp.f32")),
        lip(arrayOf<float>("pi/" + name + ".lip.f32")),
        gate(arrayOf<float>("pi/" + name + ".gate.f32")),
        gateValue(arrayOf<float>("pi/" + name + ".gate_value.f32")),
        piU8(arrayOf<uint8_t>("pi/" + name + ".pi.u8")),
        box(arrayOf<int32_t>("pi/" + name + ".box.i32")),
        centroid(arrayOf<double>("pi/" + name + ".centroid.f64")),
        shift(arrayOf<int32_t>("pi/" + name + ".shift.i32")),
        delivered(arrayOf<uint8_t>("pi/" + name + ".delivered.u8")) {}
  UnifiedPi pi;
  std::vector<float> kp, lip, gate, gateValue;
  std::vector<uint8_t> piU8;
  std::vector<int32_t> box;
  std::vector<double> centroid;
  std::vector<int32_t> shift;
  std::vector<uint8_t> delivered;
  size_t rows() const { return kp.size() / kKp; }
  const float* row(size_t r) const { return kp.data() + r * kKp; }
};

class PiReference : public ::testing::TestWithParam<const char*> {};

TEST_P(PiReference, MasksMatchBitForBit) {
  const Reference ref(GetParam());
  ASSERT_EQ(ref.rows(), 10u);
  ASSERT_EQ(ref.lip.size(), ref.rows() * kPlane);
  std::vector<float> lip(kPlane), gate(kPlane);
  std::vector<uint8_t> pi(kPlane), boxed(kPlane, 7);
  for (size_t r = 0; r < ref.rows(); ++r) {
    SCOPED_TRACE("row " + std::to_string(r));
    ref.pi.lipMask(ref.row(r), lip.data());
    EXPECT_TRUE(sameBits(lip.data(), ref.lip.data() + r * kPlane, kPlane));
    const float g = ref.pi.propTeethGate(ref.row(r), gate.data());
    EXPECT_EQ(g, ref.gateValue[r]);
    EXPECT_TRUE(sameBits(gate.data(), ref.gate.data() + r * kPlane, kPlane));
    ref.pi.piU8(ref.row(r), pi.data());
    EXPECT_TRUE(std::equal(pi.begin(), pi.end(), ref.piU8.begin() + static_cast<std::ptrdiff_t>(r * kPlane)));
    ref.pi.piU8Boxed(ref.row(r), boxed.data());
    EXPECT_EQ(boxed, pi);
  }
}

TEST_P(PiReference, SupportBoxCentroidAndShift) {
  const Reference ref(GetParam());
  const double cCanon[2] = {30.4, 38.5};
  ASSERT_EQ(arrayOf<double>("pi/c_canon.f64"), std::vector<double>(cCanon, cCanon + 2));
  std::vector<uint8_t> pi(kPlane);
  for (size_t r = 0; r < ref.rows(); ++r) {
    SCOPED_TRACE("row " + std::to_string(r));
    // The reference box as defined; the engine keeps its edges on the canvas,
    // which visits the same pixels.
    const int32_t* b = ref.box.data() + 4 * r;
    const int32_t x0 = std::min(b[0], kCanvas), y0 = std::min(b[1], kCanvas);
    const Box want{x0, y0, std::max(std::min(b[2], kCanvas), x0), std::max(std::min(b[3], kCanvas), y0)};
    const Box got = ref.pi.supportBox(ref.row(r));
    EXPECT_EQ(std::vector<int32_t>({got.x0, got.y0, got.x1, got.y1}),
              std::vector<int32_t>({want.x0, want.y0, want.x1, want.y1}));

    const double* c = ref.centroid.data() + 3 * r;
    const int32_t* s = ref.shift.data() + 3 * r;
    int32_t dy = -777, dx = -777;
    const bool shifted = ref.pi.piU8AndShift(ref.row(r), cCanon, pi.data(), dy, dx);
    EXPECT_EQ(shifted, c[0] == 1.0);
    double x = -1, y = -1;
    EXPECT_EQ(ref.pi.piU8Centroid(pi.data(), x, y), c[0] == 1.0);
    if (c[0] == 1.0) {
      EXPECT_EQ(x, c[1]);
      EXPECT_EQ(y, c[2]);
      EXPECT_EQ(dy, s[1]);
      EXPECT_EQ(dx, s[2]);
    } else {
      EXPECT_EQ(dy, -777);  // untouched
      EXPECT_EQ(dx, -777);
    }
  }
}

TEST_P(PiReference, DeliveredMaskIsPiCutByTheContour) {
  const Reference ref(GetParam());
  LipContour contour = LipContour::fromTemplateJson(le::test::readFile(teeth("pi/lip_template.v1.json")), kCanvas);
  const double cCanon[2] = {30.4, 38.5};
  std::vector<uint8_t> out(kPlane, 9), pi(kPlane);
  for (size_t r = 0; r < ref.rows(); ++r) {
    SCOPED_TRACE("row " + std::to_string(r));
    const uint8_t* want = ref.delivered.data() + r * kPlane;
    contour.deliveredU8(ref.row(r), ref.pi, out.data());
    EXPECT_TRUE(std::equal(out.begin(), out.end(), want));

    ref.pi.piU8Boxed(ref.row(r), pi.data());
    const bool any = contour.shrinkU8InPlace(ref.row(r), ref.pi.supportBox(ref.row(r)), pi.data());
    EXPECT_TRUE(std::equal(pi.begin(), pi.end(), want));
    EXPECT_EQ(any, std::any_of(want, want + kPlane, [](uint8_t v) { return v > 0; }));

    int32_t dy = -777, dx = -777;
    std::fill(out.begin(), out.end(), 9);
    const bool ok = contour.deliveredU8AndShift(ref.row(r), ref.pi, cCanon, out.data(), dy, dx);
    EXPECT_TRUE(std::equal(out.begin(), out.end(), want));
    // The shift comes from pi's centroid, whatever the contour keeps.
    const int32_t* s = ref.shift.data() + 3 * r;
    EXPECT_EQ(ok, s[0] == 1 && any);
    if (s[0] == 1) {
      EXPECT_EQ(dy, s[1]);
      EXPECT_EQ(dx, s[2]);
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Geometries, PiReference, ::testing::Values("plain", "corner", "wide_idx"));

TEST(UnifiedPi, TheReferenceRowsCoverTheCases) {
  // Clipped at both canvas corners, and one row with no pi at all.
  const Reference ref("plain");
  EXPECT_EQ(ref.box[4 * 4 + 0], 0);
  EXPECT_EQ(ref.box[4 * 5 + 2], kCanvas);
  EXPECT_EQ(ref.centroid[3 * 6], 0.0);
  EXPECT_TRUE(std::all_of(ref.piU8.begin() + 6 * kPlane, ref.piU8.begin() + 7 * kPlane, [](uint8_t v) { return v == 0; }));
}

TEST(UnifiedPi, GateClosedHalfAndOpen) {
  const Reference ref("plain");
  // Rows 0, 1 and 2: a closed mouth (half spread 0.012), half open (0.025)
  // and wide open (0.09).
  EXPECT_EQ(ref.gateValue[0], 0.0f);
  EXPECT_GT(ref.gateValue[1], 0.0f);
  EXPECT_LT(ref.gateValue[1], 1.0f);
  EXPECT_EQ(ref.gateValue[2], 1.0f);
  // With the gate shut pi is the lip ellipse alone.
  std::vector<float> lip(kPlane);
  ref.pi.lipMask(ref.row(0), lip.data());
  std::vector<uint8_t> pi(kPlane);
  ref.pi.piU8(ref.row(0), pi.data());
  for (size_t i = 0; i < kPlane; ++i) ASSERT_EQ(pi[i], le::tessera::quantiseU8(lip[i])) << i;
}

TEST(UnifiedPi, BoxedFormsEqualThePlainOnesOnSeededRows) {
  le::test::XorShift64 rng{0x9E3779B97F4A7C15ULL};
  auto unit = [&] { return rng.unit24(); };
  for (const char* name : {"plain", "corner", "wide_idx"}) {
    const UnifiedPi pi = UnifiedPi::fromManifestJson(le::test::readFile(teeth(std::string("pi/") + name + ".json")),
                                                     kCanvas);
    std::vector<float> kp(kKp);
    std::vector<uint8_t> plain(kPlane), boxed(kPlane);
    for (int run = 0; run < 150; ++run) {
      const float cx = 2.4f * unit() - 1.2f, cy = 2.4f * unit() - 1.2f, spread = 0.5f * unit();
      for (size_t i = 0; i < kKp; ++i) kp[i] = (i % 3 == 0 ? cx : cy) + spread * (2.0f * unit() - 1.0f);
      pi.piU8(kp.data(), plain.data());
      pi.piU8Boxed(kp.data(), boxed.data());
      ASSERT_EQ(boxed, plain) << name << " run " << run;
      // Outside the support box pi is zero.
      const Box b = pi.supportBox(kp.data());
      for (int32_t y = 0; y < kCanvas; ++y) {
        for (int32_t x = 0; x < kCanvas; ++x) {
          if (y < b.y0 || y >= b.y1 || x < b.x0 || x >= b.x1) {
            ASSERT_EQ(plain[static_cast<size_t>(y * kCanvas + x)], 0);
          }
        }
      }
    }
  }
}

TEST(UnifiedPi, QuantiseRoundsTiesToEven) {
  using le::tessera::quantiseU8;
  EXPECT_EQ(quantiseU8(0.5f), 128);  // 127.5
  EXPECT_EQ(quantiseU8(0.0f), 0);
  EXPECT_EQ(quantiseU8(1.0f), 255);
  EXPECT_EQ(quantiseU8(-3.0f), 0);
  EXPECT_EQ(quantiseU8(7.0f), 255);
  EXPECT_EQ(quantiseU8(NAN), 0);
  // A float whose product with 255 is exactly 126.5 rounds down to 126.
  float p = 126.5f / 255.0f;
  for (int k = 0; k < 8 && p * 255.0f != 126.5f; ++k) p = std::nextafter(p, p * 255.0f < 126.5f ? 1.0f : 0.0f);
  ASSERT_EQ(p * 255.0f, 126.5f);
  EXPECT_EQ(quantiseU8(p), 126);
  EXPECT_EQ(quantiseU8(std::nextafter(p, 1.0f)), 127);
}

std::string manifestWith(const std::string& piBlock, const std::string& extra = "") {
  return "{\"format\": \"le-bundle-v0\", \"unified\": {\"pi\": " + piBlock + extra + "}}";
}

const std::string kLipIdx = "\"lip_idx\": [17, 18, 19, 20]";

TEST(UnifiedPi, ManifestBlockValuesAndCornerRecoveryForms) {
  const std::string base = "\"mode\": \"prop\", \"prop_gate_scale\": 0.85, " + kLipIdx +
                           ", \"lip_geom_params\": [0.12, 0.08, 0.05]";
  const UnifiedPi p = UnifiedPi::fromManifestJson(manifestWith("{" + base + "}"), 5);
  EXPECT_EQ(p.canvas, 5);
  EXPECT_EQ(p.mode, "prop");
  EXPECT_FALSE(p.corner_recovery);
  EXPECT_EQ(p.prop_gate_scale, 0.85f);
  EXPECT_EQ(p.lip_idx, (std::vector<int32_t>{17, 18, 19, 20}));
  EXPECT_EQ(p.pad_x, 0.12f);
  EXPECT_EQ(p.pad_y, 0.08f);
  EXPECT_EQ(p.down, 0.05f);
  EXPECT_EQ(p.xs, (std::vector<float>{-1.0f, -0.5f, 0.0f, 0.5f, 1.0f}));
  EXPECT_EQ(p.ys, p.xs);
  for (const char* value : {"\"lip_landmark_half\"", "true"}) {
    EXPECT_TRUE(UnifiedPi::fromManifestJson(manifestWith("{" + base + ", \"corner_recovery\": " + value + "}"), 5)
                    .corner_recovery);
  }
  EXPECT_FALSE(
      UnifiedPi::fromManifestJson(manifestWith("{" + base + ", \"corner_recovery\": false}"), 5).corner_recovery);
  // A string gate scale reads as 0; fractional rows truncate; a matching
  // crop canvas (truncated) passes.
  const UnifiedPi q = UnifiedPi::fromManifestJson(
      manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": \"x\", \"lip_idx\": [17.9, 3], "
                   "\"lip_geom_params\": [0, 0, 0]}",
                   ", \"crop\": {\"canvas\": 5.5}"),
      5);
  EXPECT_EQ(q.prop_gate_scale, 0.0f);
  EXPECT_EQ(q.lip_idx, (std::vector<int32_t>{17, 3}));
}

TEST(UnifiedPi, DegenerateLipAndTinyCanvases) {
  const UnifiedPi p = UnifiedPi::fromManifestJson(
      manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 2, " + kLipIdx + ", \"lip_geom_params\": [0, 0, 0]}"),
      kCanvas);
  std::vector<float> kp(kKp, 0.25f);  // every row on one point
  const le::tessera::EllParams lip = p.lipParams(kp.data());
  EXPECT_EQ(lip.rx, 0.1f);
  EXPECT_EQ(lip.ry, 0.1f);
  EXPECT_EQ(lip.k, std::sqrt(0.1f * 0.1f) * 256.0f);
  float g = -1;
  const le::tessera::EllParams gate = p.gateParams(kp.data(), g);
  EXPECT_EQ(gate.rx, 0.004f * 2.0f);
  EXPECT_EQ(gate.ry, 0.004f * 2.0f);
  EXPECT_EQ(g, 0.0f);

  for (const int32_t s : {1, 2}) {
    const UnifiedPi t = UnifiedPi::fromManifestJson(
        manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, " + kLipIdx + ", \"lip_geom_params\": [0, 0, 0]}"),
        s);
    const std::vector<float> grid = s == 1 ? std::vector<float>{-1.0f} : std::vector<float>{-1.0f, 1.0f};
    EXPECT_EQ(t.xs, grid);
    const Box b = t.supportBox(kp.data());
    if (s == 1) {
      EXPECT_EQ(std::vector<int32_t>({b.x0, b.y0, b.x1, b.y1}), std::vector<int32_t>({0, 0, 1, 1}));
    }
    std::vector<uint8_t> plain(static_cast<size_t>(s * s)), boxed(plain.size(), 5);
    t.piU8(kp.data(), plain.data());
    t.piU8Boxed(kp.data(), boxed.data());
    EXPECT_EQ(boxed, plain);
  }
}

TEST(UnifiedPi, CentroidNeedsAPixelOf128) {
  const Reference ref("plain");
  std::vector<uint8_t> mask(kPlane, 127);
  double x = -1, y = -1;
  EXPECT_FALSE(ref.pi.piU8Centroid(mask.data(), x, y));
  EXPECT_EQ(x, -1);
  mask[3 * kCanvas + 5] = 128;
  mask[7 * kCanvas + 10] = 255;
  EXPECT_TRUE(ref.pi.piU8Centroid(mask.data(), x, y));
  EXPECT_EQ(x, 7.5);
  EXPECT_EQ(y, 5.0);
  // The boxed form sees only its box, clipped to the canvas.
  EXPECT_TRUE(ref.pi.piU8Centroid(mask.data(), Box{8, 0, 1000, 1000}, x, y));
  EXPECT_EQ(x, 10.0);
  EXPECT_FALSE(ref.pi.piU8Centroid(mask.data(), Box{0, 8, 64, 64}, x, y));
}

TEST(UnifiedPi, ACutThatClearsEverythingDeliversNothingWhateverTheCentroid) {
  const Reference ref("plain");
  LipContour contour = LipContour::fromTemplateJson(le::test::readFile(teeth("pi/lip_template.v1.json")), kCanvas);
  // Row 2 opens wide; move the lip anchors of the contour far away by
  // moving rows 17-20 off the canvas after pi has been taken.
  std::vector<float> kp(ref.row(2), ref.row(2) + kKp);
  std::vector<uint8_t> pi(kPlane);
  const double cCanon[2] = {0, 0};
  int32_t dy = 0, dx = 0;
  ASSERT_TRUE(ref.pi.piU8AndShift(kp.data(), cCanon, pi.data(), dy, dx));
  const Box support = ref.pi.supportBox(kp.data());
  std::vector<float> away = kp;
  for (int r = 17; r <= 20; ++r) away[3 * r] += 3.0f;
  EXPECT_FALSE(contour.shrinkU8InPlace(away.data(), support, pi.data()));
  EXPECT_TRUE(std::all_of(pi.begin(), pi.end(), [](uint8_t v) { return v == 0; }));
}

// ---------------------------------------------------------------- corpus

struct CorpusCase {
  std::string manifest;
  int32_t canvas;
  double cCanon[2];
  std::string name, refusal;
};

CorpusCase corpusCase(const std::string& name) {
  const auto v = le::tessera::json::parseJson(le::test::readFile(teeth("corpus/" + name + ".json")), name);
  CorpusCase c;
  c.manifest = v.req("manifest").str;
  c.canvas = static_cast<int32_t>(v.req("canvas").num);
  c.cCanon[0] = v.req("c_canon").arr.at(0).num;
  c.cCanon[1] = v.req("c_canon").arr.at(1).num;
  c.name = le::tessera::json::optStr(v, "name", "");
  c.refusal = le::tessera::json::optStr(v, "refusal", "");
  return c;
}

TEST(UnifiedPiCorpus, IdentifiesTheBanksGeometryOrRefuses) {
  const std::vector<float> xs = arrayOf<float>("corpus/xs_target.f32");
  const int32_t rows = static_cast<int32_t>(xs.size() / kKp);
  ASSERT_EQ(rows, 6);
  // A runner that splits the frames over three threads.
  const UnifiedPi::ParallelFor threads = [](int32_t count, const std::function<void(int32_t, int32_t)>& body) {
    std::vector<std::thread> pool;
    for (int32_t t = 0; t < 3; ++t) pool.emplace_back(body, count * t / 3, count * (t + 1) / 3);
    for (std::thread& th : pool) th.join();
  };
  for (const char* name : {"v1", "v2_or_v3", "far"}) {
    SCOPED_TRACE(name);
    const CorpusCase c = corpusCase(name);
    for (const bool parallel : {false, true}) {
      std::string got = "untouched";
      const std::string error = le::test::errorOf([&] {
        const UnifiedPi pi = UnifiedPi::corpusFromManifestJson(c.manifest, c.canvas, xs.data(), rows, c.cCanon, &got,
                                                               parallel ? threads : UnifiedPi::ParallelFor());
        const auto& row = UnifiedPi::corpusRows()[got == "v1" ? 0 : got == "v2" ? 1 : 2];
        EXPECT_EQ(pi.pad_x, row.pad_x);
        EXPECT_EQ(pi.down, row.down);
        EXPECT_TRUE(pi.corner_recovery);  // the rest of the block stands
      });
      if (c.refusal.empty()) {
        EXPECT_EQ(error, "(no exception)");
        EXPECT_EQ(got, c.name);
      } else {
        EXPECT_EQ(error, c.refusal);
        EXPECT_EQ(got, "untouched");
      }
    }
  }
}

TEST(UnifiedPiCorpus, ThresholdsAreEightPixelsAndAGapOfThree) {
  const double canon[2] = {12.345, 67.891};
  EXPECT_EQ(UnifiedPi::pickCorpusRow({11.00, 7.99, 20.0}, canon), 1u);
  EXPECT_EQ(UnifiedPi::pickCorpusRow({8.0, 11.0, 11.0}, canon), 0u);  // 8.00 itself matches
  EXPECT_EQ(UnifiedPi::pickCorpusRow({9.0, 5.0, 8.0}, canon), 1u);    // a gap of exactly 3.00 passes
  EXPECT_EQ(le::test::errorOf([&] { UnifiedPi::pickCorpusRow({7.99, 10.98, 20.0}, canon); }),
            "teeth-pi: corpus pi geometry is AMBIGUOUS (best two within 3.00px) — v1=7.99px v2=10.98px v3=20.00px — "
            "refusing to guess the bank frame");
  EXPECT_EQ(le::test::errorOf([&] { UnifiedPi::pickCorpusRow({30.0, 8.0001, 12.5}, canon); }),
            "teeth-pi: no corpus pi geometry matches this bank's c_canon (12.35,67.89) within 8.00px — v2=8.00px "
            "v3=12.50px v1=30.00px — the bank's pi frame is unknown and donors will NOT be placed against a frame "
            "nobody can name");
  EXPECT_EQ(le::test::errorOf([&] { UnifiedPi::pickCorpusRow({NAN, NAN, NAN}, canon); }).rfind(
                "teeth-pi: no corpus pi geometry matches", 0),
            0u);
}

TEST(UnifiedPiCorpus, RefusesWithoutSourceFramesOrWithAnEmptyPi) {
  const CorpusCase c = corpusCase("v1");
  const std::string none =
      "teeth-pi: the corpus frame is identified from the bundle's own xs_target and none was supplied — refusing to "
      "fall back to the stamped geometry, which is the GRAPH's compose field";
  std::vector<float> xs(6 * kKp, 0.0f);
  EXPECT_EQ(le::test::errorOf([&] {
              UnifiedPi::corpusFromManifestJson(c.manifest, c.canvas, nullptr, 6, c.cCanon, nullptr, {});
            }),
            none);
  EXPECT_EQ(le::test::errorOf([&] {
              UnifiedPi::corpusFromManifestJson(c.manifest, c.canvas, xs.data(), 0, c.cCanon, nullptr, {});
            }),
            none);
  // Every lip far off the canvas: no frame has a pi pixel.
  for (size_t i = 0; i < xs.size(); ++i) xs[i] = 5.0f;
  EXPECT_EQ(le::test::errorOf([&] {
              UnifiedPi::corpusFromManifestJson(c.manifest, c.canvas, xs.data(), 6, c.cCanon, nullptr, {});
            }),
            "teeth-pi: pi is empty on every source frame — cannot derive the canonical centroid this bundle's frame is "
            "identified by");
}

TEST(UnifiedPi, EveryManifestRefusalWordForWord) {
  const std::string geom = ", \"lip_geom_params\": [0.1, 0.08, 0.074]";
  const std::string ok = "\"mode\": \"prop\", \"prop_gate_scale\": 1, " + kLipIdx + geom;
  const std::string corner =
      "teeth-pi: unknown unified.pi.corner_recovery — a compose-mask geometry a consumer cannot name must never be "
      "guessed";
  const std::string idx = "teeth-pi: unified.pi.lip_idx is not a non-empty array";
  const std::string params = "teeth-pi: unified.pi.lip_geom_params must be [pad_x, pad_y, down]";
  const std::pair<std::string, std::string> cases[] = {
      {"{\"format\": \"le-bundle-v0\"}",
       "teeth-pi: manifest has no `unified` block — this bundle predates the unified compose and cannot state the pi "
       "geometry it was baked with; refusing to guess one"},
      {"[{\"unified\": {}}]",
       "teeth-pi: manifest has no `unified` block — this bundle predates the unified compose and cannot state the pi "
       "geometry it was baked with; refusing to guess one"},
      {"", "teeth: JSON truncated"},
      {"{\"unified\": {\"pi\": }}", "teeth: bad JSON number"},
      {"{\"unified\": {\"crop\": {}}}", "teeth: member JSON lacks key 'pi'"},
      {manifestWith("{\"prop_gate_scale\": 1, " + kLipIdx + geom + "}"), "teeth: member JSON lacks key 'mode'"},
      {manifestWith("{\"mode\": 1}"), "teeth-pi: unified.pi.mode is not a string"},
      {manifestWith("{\"mode\": \"ellipse\"}"),
       "teeth-pi: unified.pi.mode 'ellipse' is a compose-mask geometry this port cannot name — fail loud, never adapt "
       "(the stamped-geometry rule)"},
      {manifestWith("{" + ok + ", \"corner_recovery\": \"lip_landmark_full\"}"), corner},
      {manifestWith("{" + ok + ", \"corner_recovery\": 1}"), corner},
      {manifestWith("{" + ok + ", \"corner_recovery\": null}"), corner},
      {manifestWith("{\"mode\": \"prop\", " + kLipIdx + geom + "}"), "teeth: member JSON lacks key 'prop_gate_scale'"},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1" + geom + "}"), "teeth: member JSON lacks key 'lip_idx'"},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, \"lip_idx\": []" + geom + "}"), idx},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, \"lip_idx\": 17" + geom + "}"), idx},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, \"lip_idx\": [17, 21]" + geom + "}"),
       "teeth-pi: unified.pi.lip_idx names keypoint row 21, and a keypoint set has rows 0..20"},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, \"lip_idx\": [-1]" + geom + "}"),
       "teeth-pi: unified.pi.lip_idx names keypoint row -1, and a keypoint set has rows 0..20"},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, " + kLipIdx + "}"),
       "teeth: member JSON lacks key 'lip_geom_params'"},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, " + kLipIdx + ", \"lip_geom_params\": [1, 2]}"),
       params},
      {manifestWith("{\"mode\": \"prop\", \"prop_gate_scale\": 1, " + kLipIdx + ", \"lip_geom_params\": [1, 2, \"3\"]}"),
       params},
      {manifestWith("{" + ok + "}", ", \"crop\": {\"canvas\": 512}"),
       "teeth-pi: engine renders at canvas 64 but unified.crop.canvas is 512"},
      {manifestWith("{" + ok + "}", ", \"crop\": {\"canvas\": \"64\"}"),
       "teeth-pi: engine renders at canvas 64 but unified.crop.canvas is 0"},
  };
  for (const auto& [text, words] : cases) {
    SCOPED_TRACE(text);
    EXPECT_EQ(le::test::errorOf([&] { UnifiedPi::fromManifestJson(text, kCanvas); }), words);
  }
  // A crop block without a canvas, or a canvas without a crop, checks nothing.
  EXPECT_NO_THROW(UnifiedPi::fromManifestJson(manifestWith("{" + ok + "}", ", \"crop\": {\"size\": 3}"), kCanvas));
  EXPECT_NO_THROW(UnifiedPi::fromManifestJson(manifestWith("{" + ok + "}", ", \"canvas\": 3"), kCanvas));
}

}  // namespace
