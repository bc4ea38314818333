// The lip contour against the generator's plain reference (polygon, box,
// scanline mask and feathered canvas, bit for bit) on a set of keypoint rows,
// and hand-sized polygons whose masks follow from the rules directly.
#include <algorithm>
#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tessera/lip_contour.h"
#include "tests/support/test_support.h"

namespace {

using le::tessera::Box;
using le::tessera::LipContour;

constexpr int32_t kCanvas = 32;
constexpr size_t kKpFloats = 63;
constexpr size_t kPlane = size_t{kCanvas} * kCanvas;

template <class T>
std::vector<T> lipArray(const std::string& rel) {
  const std::string bytes = le::test::readFile(le::test::dataPath("lip/contour/" + rel));
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

// One template with the reference results for every keypoint row.
struct Expected {
  LipContour contour;
  std::vector<float> kp;
  std::vector<double> poly;
  std::vector<Box> boxes;
  std::vector<std::vector<uint8_t>> masks;
  std::vector<float> canvases;

  size_t rows() const { return kp.size() / kKpFloats; }
  const float* row(size_t r) const { return kp.data() + r * kKpFloats; }
  const double* polyOf(size_t r) const { return poly.data() + r * 2 * static_cast<size_t>(contour.nv); }
  const float* canvasOf(size_t r) const { return canvases.data() + r * kPlane; }
};

Expected load(const std::string& name) {
  Expected e{LipContour::fromTemplateJson(le::test::readFile(le::test::dataPath("lip/contour/" + name + ".json")),
                                          kCanvas)};
  e.kp = lipArray<float>("kp.f32");
  e.poly = lipArray<double>(name + ".poly.f64");
  e.canvases = lipArray<float>(name + ".contour.f32");
  const std::vector<int32_t> b = lipArray<int32_t>(name + ".box.i32");
  const std::vector<uint8_t> masks = lipArray<uint8_t>(name + ".mask.u8");
  size_t at = 0;
  for (size_t r = 0; r * 4 < b.size(); ++r) {
    const Box bx{b[4 * r], b[4 * r + 1], b[4 * r + 2], b[4 * r + 3]};
    const size_t n = bx.empty() ? 0 : static_cast<size_t>(bx.width()) * static_cast<size_t>(bx.height());
    e.boxes.push_back(bx);
    e.masks.emplace_back(masks.begin() + static_cast<std::ptrdiff_t>(at),
                         masks.begin() + static_cast<std::ptrdiff_t>(at + n));
    at += n;
  }
  EXPECT_EQ(at, masks.size());
  EXPECT_EQ(e.boxes.size(), e.rows());
  EXPECT_EQ(e.poly.size(), e.rows() * 2 * static_cast<size_t>(e.contour.nv));
  EXPECT_EQ(e.canvases.size(), e.rows() * kPlane);
  return e;
}

bool sameBits(const float* a, const float* b, size_t n) { return std::memcmp(a, b, n * sizeof(float)) == 0; }

class LipContourReference : public ::testing::TestWithParam<const char*> {};

TEST_P(LipContourReference, PolygonBoxMaskAndContourMatchBitForBit) {
  Expected e = load(GetParam());
  ASSERT_GE(e.rows(), 9u);
  std::vector<double> poly(2 * static_cast<size_t>(e.contour.nv));
  std::vector<float> canvas(kPlane);
  for (size_t r = 0; r < e.rows(); ++r) {
    SCOPED_TRACE("row " + std::to_string(r));
    e.contour.polygon(e.row(r), poly.data());
    for (size_t k = 0; k < poly.size(); ++k) EXPECT_EQ(poly[k], e.polyOf(r)[k]) << "coordinate " << k;
    const Box bx = e.contour.box(poly.data());
    const Box& want = e.boxes[r];
    EXPECT_EQ(std::vector<int32_t>({bx.x0, bx.y0, bx.x1, bx.y1}),
              std::vector<int32_t>({want.x0, want.y0, want.x1, want.y1}));
    std::vector<uint8_t> mask(e.masks[r].size(), 7);
    if (!bx.empty()) e.contour.fillScanline(poly.data(), bx, mask.data());
    EXPECT_EQ(mask, e.masks[r]);
    std::fill(canvas.begin(), canvas.end(), -3.0f);  // every pixel must be written
    e.contour.contourF32Canvas(e.row(r), canvas.data());
    EXPECT_TRUE(sameBits(canvas.data(), e.canvasOf(r), kPlane));
  }
}

TEST_P(LipContourReference, ScratchReuseInAnyOrderGivesTheSameCanvases) {
  Expected e = load(GetParam());
  std::vector<float> canvas(kPlane);
  for (size_t pass = 0; pass < 2; ++pass) {
    for (size_t k = 0; k < e.rows(); ++k) {
      const size_t r = e.rows() - 1 - k;  // large boxes before small ones, then again
      e.contour.contourF32Canvas(e.row(r), canvas.data());
      EXPECT_TRUE(sameBits(canvas.data(), e.canvasOf(r), kPlane)) << "row " << r << " pass " << pass;
    }
  }
}

TEST_P(LipContourReference, ContourWritesOnlyItsBox) {
  Expected e = load(GetParam());
  std::vector<double> poly(2 * static_cast<size_t>(e.contour.nv));
  std::vector<float> canvas(kPlane);
  for (size_t r = 0; r < e.rows(); ++r) {
    e.contour.polygon(e.row(r), poly.data());
    const Box bx = e.contour.box(poly.data());
    std::fill(canvas.begin(), canvas.end(), -3.0f);
    e.contour.contourF32(poly.data(), bx, canvas.data());
    for (int32_t y = 0; y < kCanvas; ++y) {
      for (int32_t x = 0; x < kCanvas; ++x) {
        const size_t i = static_cast<size_t>(y) * kCanvas + static_cast<size_t>(x);
        const bool inBox = x >= bx.x0 && x < bx.x1 && y >= bx.y0 && y < bx.y1;
        ASSERT_EQ(canvas[i], inBox ? e.canvasOf(r)[i] : -3.0f) << "row " << r << " at " << x << "," << y;
      }
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Templates, LipContourReference, ::testing::Values("map", "extents", "idx"));

// Rows of the generated set, in the generator's order.
constexpr size_t kRowOffCanvas = 4, kRowCoincideX = 5, kRowFlatY = 6;

// Coordinates of the set pixels of a box mask.
std::vector<std::pair<int32_t, int32_t>> setPixels(const std::vector<uint8_t>& mask, const Box& bx) {
  std::vector<std::pair<int32_t, int32_t>> out;
  for (int32_t y = 0; y < bx.height(); ++y) {
    for (int32_t x = 0; x < bx.width(); ++x) {
      const uint8_t v = mask[static_cast<size_t>(y * bx.width() + x)];
      EXPECT_TRUE(v == 0 || v == 255);
      if (v) out.emplace_back(x, y);
    }
  }
  return out;
}

TEST(LipContourShapes, DegenerateExtentsStillPaintTheOutline) {
  Expected e = load("extents");
  std::vector<double> poly(2 * static_cast<size_t>(e.contour.nv));

  // Anchors that coincide in x: every vertex on one column.
  e.contour.polygon(e.row(kRowCoincideX), poly.data());
  Box bx = e.contour.box(poly.data());
  std::vector<uint8_t> mask(static_cast<size_t>(bx.width() * bx.height()));
  e.contour.fillScanline(poly.data(), bx, mask.data());
  auto px = setPixels(mask, bx);
  ASSERT_GE(px.size(), 2u);
  for (const auto& p : px) EXPECT_EQ(p.first, px[0].first);

  // Anchors on one row: no edge spans a row and the outline is the mask.
  e.contour.polygon(e.row(kRowFlatY), poly.data());
  bx = e.contour.box(poly.data());
  mask.assign(static_cast<size_t>(bx.width() * bx.height()), 0);
  e.contour.fillScanline(poly.data(), bx, mask.data());
  px = setPixels(mask, bx);
  ASSERT_GE(px.size(), 2u);
  for (size_t i = 0; i < px.size(); ++i) {
    EXPECT_EQ(px[i].second, px[0].second);
    EXPECT_EQ(px[i].first, px[0].first + static_cast<int32_t>(i));  // one unbroken run
  }

  // A mouth off the canvas has an empty box and an all-zero contour.
  e.contour.polygon(e.row(kRowOffCanvas), poly.data());
  EXPECT_TRUE(e.contour.box(poly.data()).empty());
  std::vector<float> canvas(kPlane, 5.0f);
  e.contour.contourF32Canvas(e.row(kRowOffCanvas), canvas.data());
  EXPECT_TRUE(std::all_of(canvas.begin(), canvas.end(), [](float v) { return v == 0.0f; }));
}

// A contour from numbers on a 16 canvas, with no map: anchors are rows 0
// and 1 of the keypoint set.
LipContour small(const std::vector<double>& u) {
  const int32_t idx[2] = {0, 1};
  return LipContour(16, 1.5f, u.data(), static_cast<int32_t>(u.size() / 2), idx, 2);
}

TEST(LipContourShapes, ExtentsPolygonFromExactAnchors) {
  LipContour c = small({1, 0, 0, 1, -1, 0, 0, -1});
  float kp[63] = {};
  kp[0] = -0.5f;  // px 4, py 8
  kp[3] = 0.5f;   // px 12, py 10
  kp[4] = 0.25f;
  double poly[8];
  c.polygon(kp, poly);
  // ax 8, ay 9, sx 4, sy 1.
  const double want[8] = {12, 9, 8, 10, 4, 9, 8, 8};
  for (int k = 0; k < 8; ++k) EXPECT_EQ(poly[k], want[k]) << k;
  const Box bx = c.box(poly);  // margin 3.5
  EXPECT_EQ(std::vector<int32_t>({bx.x0, bx.y0, bx.x1, bx.y1}), std::vector<int32_t>({0, 4, 16, 15}));

  // A map: b, then W times the anchor offsets in order, then the mean.
  const double W[4 * 4] = {1, 0, 0, 0, 0, 0.5, 0, 0, 0, 0, 0, 0, 0, 0, 0.25, 2};
  const double b[4] = {0.125, -1, 3, 0};
  c = small({1, 0, 0, 1});
  const int32_t idx[2] = {0, 1};
  c.attachMap(W, b, 4, 4, idx, 2);
  c.polygon(kp, poly);
  // d = (-4, -1, 4, 1).
  EXPECT_EQ(poly[0], 0.125 - 4 + 8);
  EXPECT_EQ(poly[1], -1 - 0.5 + 9);
  EXPECT_EQ(poly[2], 3 + 8.0);
  EXPECT_EQ(poly[3], 0 + 1 + 2 + 9.0);
}

std::vector<uint8_t> fill(LipContour& c, const std::vector<double>& poly, const Box& bx) {
  std::vector<uint8_t> mask(static_cast<size_t>(bx.width() * bx.height()), 9);
  c.fillScanline(poly.data(), bx, mask.data());
  return mask;
}

TEST(LipContourShapes, ScanlineFillOfHandPolygons) {
  LipContour c = small({0, 0, 0, 0, 0, 0, 0, 0});
  const Box bx{0, 0, 8, 7};
  // An axis-aligned rectangle fills its pixels, both borders included.
  std::vector<uint8_t> mask = fill(c, {2, 2, 6, 2, 6, 5, 2, 5}, bx);
  for (int32_t y = 0; y < 7; ++y) {
    for (int32_t x = 0; x < 8; ++x) {
      EXPECT_EQ(mask[static_cast<size_t>(y * 8 + x)], (x >= 2 && x <= 6 && y >= 2 && y <= 5) ? 255 : 0) << x << "," << y;
    }
  }
  // The same rectangle in box coordinates one pixel to the right and down.
  const Box shifted{1, 1, 9, 8};
  mask = fill(c, {2, 2, 6, 2, 6, 5, 2, 5}, shifted);
  EXPECT_EQ(mask[static_cast<size_t>(1 * 8 + 1)], 255);
  EXPECT_EQ(mask[static_cast<size_t>(4 * 8 + 5)], 255);
  EXPECT_EQ(mask[static_cast<size_t>(5 * 8 + 5)], 0);
  // Vertices on a .5 tie round to the even integer: 2.5 to 2, 3.5 to 4.
  mask = fill(c, {2.5, 3.5, 2.5, 3.5, 2.5, 3.5, 2.5, 3.5}, bx);
  EXPECT_EQ(setPixels(mask, bx), (std::vector<std::pair<int32_t, int32_t>>{{2, 4}}));
  mask = fill(c, {5.5, 0.5, 5.5, 0.5, 5.5, 0.5, 5.5, 0.5}, bx);
  EXPECT_EQ(setPixels(mask, bx), (std::vector<std::pair<int32_t, int32_t>>{{6, 0}}));
  // A polygon that leaves the box is clipped to it.
  mask = fill(c, {-3, -3, 20, -3, 20, 20, -3, 20}, bx);
  EXPECT_TRUE(std::all_of(mask.begin(), mask.end(), [](uint8_t v) { return v == 255; }));
}

TEST(LipContourShapes, FeatherIsOneInsideAndFallsOutward) {
  LipContour c = small({0, 0, 0, 0, 0, 0, 0, 0});
  const std::vector<double> poly = {6, 6, 9, 6, 9, 9, 6, 9};
  const Box bx = c.box(poly.data());
  std::vector<float> canvas(16 * 16, -1.0f);
  c.contourF32(poly.data(), bx, canvas.data());
  auto at = [&](int x, int y) { return canvas[static_cast<size_t>(y * 16 + x)]; };
  EXPECT_EQ(at(6, 6), 1.0f);
  EXPECT_EQ(at(9, 7), 1.0f);
  // One axial step out: t = 1 - 0.955 / 1.5, alpha = t * t * (3 - 2t).
  const float t = 1.0f - 0.955f / 1.5f;
  EXPECT_EQ(at(10, 7), t * t * (3.0f - (t + t)));
  EXPECT_EQ(at(5, 7), at(10, 7));
  EXPECT_EQ(at(7, 10), at(10, 7));
  // Two axial steps (1.91) are beyond a feather of 1.5.
  EXPECT_EQ(at(11, 7), 0.0f);
  EXPECT_EQ(at(0, 0), -1.0f);  // outside the box: untouched
}

}  // namespace
