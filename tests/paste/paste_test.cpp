// The paste against the plain reference, byte for byte, on several
// geometries, masks and kernel sizes, on every compiled target; its tables;
// its settings and refusals.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "paste/paste.h"
#include "paste/paste_tables.h"
#include "tests/compute/targets.h"
#include "tests/paste/paste_reference.h"
#include "tests/support/test_support.h"

namespace {

using le::test::ScopedEnv;

constexpr int kW = 96, kH = 72;

std::vector<uint8_t> softMask(int side) {
  // A feathered disc: 255 inside, a ramp across the edge, 0 outside.
  std::vector<uint8_t> m(side * side);
  const float c = (side - 1) * 0.5f, r = side * 0.42f, feather = side * 0.12f;
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x) {
      const float d = std::hypot(x - c, y - c);
      const float v = std::clamp((r - d) / feather, 0.0f, 1.0f);
      m[y * side + x] = static_cast<uint8_t>(v * 255.0f + 0.5f);
    }
  return m;
}

std::vector<uint8_t> hardMask(int side) {
  std::vector<uint8_t> m(side * side, 0);
  for (int y = side / 8; y < side - side / 8; ++y)
    for (int x = side / 6; x < side - side / 5; ++x) m[y * side + x] = 255;
  return m;
}

std::vector<float> randomCrop(int side, unsigned seed) {
  std::mt19937 rng(seed);
  // Unclipped, as a renderer hands it over: a little below 0 and above 1.
  std::uniform_real_distribution<float> u(-0.08f, 1.08f);
  std::vector<float> crop(3 * side * side);
  for (auto& v : crop) v = u(rng);
  return crop;
}

std::vector<uint8_t> randomFrame(unsigned seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> f(kW * kH * 3);
  for (auto& v : f) v = static_cast<uint8_t>(rng() & 0xff);
  return f;
}

le::test::PasteTables tablesOf(const le::Paste& p) {
  return {p.gauss(), le::paste::lanczosTable(), le::paste::bilinearTable(), le::paste::cubicTable()};
}

struct Geometry {
  const char* name;
  float M[6];
};

// crop -> frame transforms: a placement, shrink, enlarge, rotation, and
// crops hanging over each edge of the frame.
const Geometry kGeometries[] = {
    {"translate", {1.0f, 0.0f, 20.0f, 0.0f, 1.0f, 11.0f}},
    {"scale_0.75", {0.75f, 0.0f, 30.37f, 0.0f, 0.75f, 17.81f}},
    {"scale_1.2", {1.2f, 0.0f, 12.5f, 0.0f, 1.2f, 9.25f}},
    {"rotate", {1.0453f, -0.3204f, 33.1f, 0.3204f, 1.0453f, 2.7f}},
    {"over_left_top", {1.1f, 0.05f, -14.3f, -0.05f, 1.1f, -9.6f}},
    {"over_right_bottom", {0.9f, 0.0f, 75.2f, 0.0f, 0.9f, 51.4f}},
};

void expectSameAsReference(int side, int ksize, float sigma, float amount, const std::vector<uint8_t>& mask,
                           unsigned seed) {
  le::Paste paste(mask, side, le::Unsharp{amount, sigma, ksize});
  const auto tables = tablesOf(paste);
  const auto crop = randomCrop(side, seed);
  for (const Geometry& g : kGeometries) {
    SCOPED_TRACE(g.name);
    auto mine = randomFrame(seed + 1);
    auto ref = mine;
    const auto before = mine;
    paste.composite(crop.data(), 255.0f, g.M, mine.data(), kW, kH);
    le::test::referencePaste(mask, side, amount, tables, paste.fastMode(), crop.data(), 255.0f, g.M, ref.data(), kW,
                             kH);
    ASSERT_EQ(mine, ref);
    EXPECT_NE(mine, before) << "the geometry pasted nothing, so it checks nothing";
  }
}

TEST(PasteBytes, LanczosOnEveryGeometryAndTarget) {
  le::test::forEachTarget([] {
    expectSameAsReference(32, 7, 1.5f, 0.6f, softMask(32), 1);
    expectSameAsReference(32, 7, 1.5f, 0.6f, hardMask(32), 2);
  });
}

TEST(PasteBytes, KernelSizes3To15) {
  le::test::forEachTarget([] {
    for (int k = 3; k <= 15; k += 2) {
      SCOPED_TRACE("ksize " + std::to_string(k));
      expectSameAsReference(40, k, 0.3f * k, 0.8f, softMask(40), 10 + k);
    }
  });
}

TEST(PasteBytes, BicubicAndBilinearModes) {
  for (const char* mode : {"1", "2"}) {
    ScopedEnv fast("LE_PASTE_FAST", mode);
    SCOPED_TRACE(std::string("LE_PASTE_FAST=") + mode);
    expectSameAsReference(32, 5, 1.0f, 0.5f, softMask(32), 30);
  }
}

TEST(PasteBytes, LargerCropAcrossRowSlices) {
  // Over 64 rows, so that the stages are cut into slices when threads allow.
  // Opaque but for a ramp along the edges, so every placement shows.
  std::vector<uint8_t> mask(160 * 160);
  for (int y = 0; y < 160; ++y)
    for (int x = 0; x < 160; ++x) mask[y * 160 + x] = static_cast<uint8_t>(std::min({x, y, 159 - x, 159 - y, 15}) * 17);
  le::test::forEachTarget([&] { expectSameAsReference(160, 9, 2.0f, 0.7f, mask, 40); });
}

// The paste into a W x H frame against the reference, with a check that it
// pasted something, so that the comparison is not vacuous.
void expectSameOn(const std::vector<uint8_t>& mask, int side, int ksize, float amount, const float* M, int W, int H,
                  unsigned seed) {
  le::Paste paste(mask, side, le::Unsharp{amount, 0.4f * ksize, ksize});
  const auto tables = tablesOf(paste);
  const auto crop = randomCrop(side, seed);
  std::mt19937 rng(seed + 1);
  std::vector<uint8_t> mine(static_cast<size_t>(W) * H * 3);
  for (auto& v : mine) v = static_cast<uint8_t>(rng() & 0xff);
  auto ref = mine;
  const auto before = mine;
  paste.composite(crop.data(), 255.0f, M, mine.data(), W, H);
  le::test::referencePaste(mask, side, amount, tables, paste.fastMode(), crop.data(), 255.0f, M, ref.data(), W, H);
  ASSERT_EQ(mine, ref);
  EXPECT_NE(mine, before) << "the geometry pasted nothing, so it checks nothing";
}

// crop -> frame: scale s turned by t radians about the crop's centre, which
// lands at (cx, cy).
std::vector<float> placed(int side, float s, float t, float cx, float cy) {
  const float a = s * std::cos(t), b = -s * std::sin(t), c = -b, d = a, h = side * 0.5f;
  return {a, b, cx - (a * h + b * h), c, d, cy - (c * h + d * h)};
}

TEST(PasteBytes, OddSidesAndKernelsUpToTheReflectionLimit) {
  // Crops and rows whose widths are no multiple of a vector, and a reflected
  // border as wide as the crop allows (ksize / 2 = side - 1).
  le::test::forEachTarget([] {
    for (const int side : {5, 9, 37, 50}) {
      const int kmax = std::min(15, 2 * side - 1);
      for (const int ksize : {3, kmax}) {
        SCOPED_TRACE("side " + std::to_string(side) + " ksize " + std::to_string(ksize));
        const std::vector<uint8_t> full(side * side, 255);
        const float w = kW, h = kH;
        const std::vector<std::vector<float>> geometries = {
            placed(side, 1.0f, 0.0f, w * 0.5f + 0.37f, h * 0.5f + 0.61f),
            placed(side, 2.1f, 0.4f, w * 0.5f, h * 0.5f),
            placed(side, 0.8f, -0.2f, 0.1f * side, h * 0.5f),
            placed(side, 1.3f, 0.0f, w - 0.2f * side, h - 0.3f * side),
        };
        for (const auto& M : geometries) {
          expectSameOn(full, side, ksize, 0.7f, M.data(), kW, kH, 60 + side);
          expectSameOn(softMask(side), side, ksize, 0.7f, M.data(), kW, kH, 70 + side);
        }
      }
    }
  });
}

TEST(PasteBytes, MasksThatReachOnlyPartOfTheCrop) {
  // Only the crop pixels within the taps of a nonzero mask byte are
  // sharpened; these masks put that region at a corner, along an edge, off
  // centre and at a single pixel.
  const int side = 48;
  const auto maskOf = [&](int x0, int y0, int x1, int y1) {
    std::vector<uint8_t> m(side * side, 0);
    for (int y = y0; y < y1; ++y)
      for (int x = x0; x < x1; ++x) m[y * side + x] = static_cast<uint8_t>(90 + 3 * ((x + y) % 50));
    return m;
  };
  const std::vector<std::vector<uint8_t>> masks = {
      maskOf(0, 0, 1, 1), maskOf(side - 1, side / 2, side, side / 2 + 1), maskOf(side - 3, 0, side, side),
      maskOf(9, 30, 20, 41), maskOf(0, side - 6, side, side),
  };
  const std::vector<std::vector<float>> geometries = {
      placed(side, 1.0f, 0.0f, 48.3f, 36.2f),
      placed(side, 1.2f, 0.3f, 50.0f, 35.0f),
      placed(side, 0.7f, -0.9f, 47.0f, 37.0f),
  };
  le::test::forEachTarget([&] {
    for (size_t i = 0; i < masks.size(); ++i)
      for (size_t g = 0; g < geometries.size(); ++g) {
        SCOPED_TRACE("mask " + std::to_string(i) + " geometry " + std::to_string(g));
        expectSameOn(masks[i], side, 9, 0.9f, geometries[g].data(), kW, kH, 80 + static_cast<unsigned>(i));
      }
  });
}

TEST(PasteBytes, CropsHangingOffTheFrame) {
  // Only the crop pixels that frame pixels can reach are sharpened: crops
  // much larger than the frame, or showing only one corner, rotated or not.
  const int side = 64;
  const std::vector<uint8_t> full(side * side, 255);
  std::vector<uint8_t> edgeRamp(side * side);  // 0 on the outermost ring, rising to 255
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      edgeRamp[y * side + x] = static_cast<uint8_t>(std::min({x, y, side - 1 - x, side - 1 - y, 15}) * 17);
  const float w = kW, h = kH;
  const std::vector<std::vector<float>> geometries = {
      placed(side, 3.0f, 0.0f, w * 0.5f, h * 0.5f),        placed(side, 4.0f, 0.7f, w * 0.3f, h * 0.8f),
      placed(side, 1.0f, 0.0f, -26.5f, -27.25f),           placed(side, 1.0f, 0.0f, w + 27.1f, -25.9f),
      placed(side, 1.1f, 0.785f, -22.0f, h + 22.0f),       placed(side, 0.9f, -0.3f, w + 12.0f, h + 14.0f),
      placed(side, 2.5f, 0.2f, w * 0.5f, -side * 1.1f),
  };
  le::test::forEachTarget([&] {
    for (size_t g = 0; g < geometries.size(); ++g) {
      SCOPED_TRACE("geometry " + std::to_string(g));
      expectSameOn(full, side, 11, 0.6f, geometries[g].data(), kW, kH, 90);
      expectSameOn(edgeRamp, side, 5, 0.6f, geometries[g].data(), kW, kH, 91);
    }
  });
}

TEST(PasteBytes, BicubicAndBilinearOverPartOfTheCrop) {
  // The interpolating modes sample the sharpened planes, which are likewise
  // sharpened only where the mask and the frame reach.
  const int side = 40;
  std::vector<uint8_t> corner(side * side, 0);
  for (int y = side - 9; y < side; ++y)
    for (int x = 0; x < 12; ++x) corner[y * side + x] = 200;
  const std::vector<std::vector<float>> geometries = {
      placed(side, 1.6f, 0.3f, 48.0f, 30.0f),
      placed(side, 3.0f, -0.2f, 70.0f, 10.0f),
      placed(side, 1.0f, 0.0f, 15.5f, 50.25f),
  };
  for (const char* mode : {"1", "2"}) {
    ScopedEnv fast("LE_PASTE_FAST", mode);
    for (size_t g = 0; g < geometries.size(); ++g) {
      SCOPED_TRACE(std::string("LE_PASTE_FAST=") + mode + " geometry " + std::to_string(g));
      expectSameOn(corner, side, 7, 0.8f, geometries[g].data(), kW, kH, 120);
    }
  }
}

TEST(PasteBytes, NarrowFramesAndShortRows) {
  // Frame rows shorter than a vector and of every remainder: the mask
  // weights are found a whole vector of pixels at a time.
  const int side = 24;
  const std::vector<uint8_t> full(side * side, 255);
  le::test::forEachTarget([&] {
    for (const int W : {1, 3, 7, 8, 9, 17})
      for (const int H : {1, 5}) {
        SCOPED_TRACE(std::to_string(W) + "x" + std::to_string(H));
        const auto M = placed(side, 1.3f, 0.2f, W * 0.5f, H * 0.5f);
        expectSameOn(full, side, 5, 0.5f, M.data(), W, H, 100);
      }
  });
}

TEST(PasteBytes, SliverTransformSharpensTheWholeCrop) {
  // The crop squashed to a sliver: the inverse mapping is so steep that the
  // reach of the frame's box is not worked out; the whole crop is sharpened.
  const int side = 20;
  const float M[6] = {1.0f, 0.0f, 10.0f, 0.0f, 9e-7f, 0.0f};
  le::test::forEachTarget([&] { expectSameOn(std::vector<uint8_t>(side * side, 255), side, 5, 0.5f, M, kW, kH, 110); });
}

TEST(PasteCases, IdentityWithFullMaskAndNoSharpeningCopiesTheCrop) {
  const int side = 24;
  le::Paste paste(std::vector<uint8_t>(side * side, 255), side, le::Unsharp{0.0f, 1.0f, 5});
  const auto crop = randomCrop(side, 5);
  auto frame = randomFrame(6);
  const float M[6] = {1, 0, 0, 0, 1, 0};
  paste.composite(crop.data(), 255.0f, M, frame.data(), kW, kH);
  for (int y = 0; y < side; ++y)
    for (int x = 0; x < side; ++x)
      for (int c = 0; c < 3; ++c) {
        const float v = crop[(c * side + y) * side + x] * 255.0f;
        const auto want = static_cast<uint8_t>(v > 0 ? (v < 255 ? v : 255) : 0);
        ASSERT_EQ(frame[(y * kW + x) * 3 + c], want) << y << "," << x << "," << c;
      }
}

TEST(PasteCases, NothingChangesWhereNothingIsPasted) {
  const int side = 32;
  const auto crop = randomCrop(side, 7);
  const auto original = randomFrame(8);
  const auto unchanged = [&](le::Paste& p, const float* M) {
    auto f = original;
    p.composite(crop.data(), 255.0f, M, f.data(), kW, kH);
    return f == original;
  };
  le::Paste paste(softMask(side), side, le::Unsharp{0.5f, 1.0f, 5});
  const float singular[6] = {1, 2, 5, 2, 4, 5};
  const float offFrame[6] = {1, 0, 500, 0, 1, 10};
  const float nan[6] = {NAN, 0, 5, 0, 1, 5};
  EXPECT_TRUE(unchanged(paste, singular));
  EXPECT_TRUE(unchanged(paste, offFrame));
  EXPECT_TRUE(unchanged(paste, nan));
  le::Paste empty(std::vector<uint8_t>(side * side, 0), side, le::Unsharp{0.5f, 1.0f, 5});
  const float place[6] = {1, 0, 10, 0, 1, 10};
  EXPECT_TRUE(unchanged(empty, place));
}

TEST(PasteTables, LanczosPhasesAndSums) {
  const auto lanc = le::paste::lanczosTable();
  ASSERT_EQ(lanc.size(), 256u);
  for (int t = 0; t < 8; ++t) EXPECT_EQ(lanc[t], t == 3 ? 1.0f : 0.0f);
  const double pi = 3.14159265358979323846;
  const auto sinc = [&](double x) { return x == 0 ? 1.0 : std::sin(pi * x) / (pi * x); };
  for (int i = 1; i < 32; ++i) {
    double sum = 0, want[8], wsum = 0;
    for (int t = 0; t < 8; ++t) {
      EXPECT_NE(lanc[8 * i + t], 0.0f) << "phase " << i << " tap " << t;
      sum += lanc[8 * i + t];
      const double x = i / 32.0 + 3 - t;  // distance from the tap, in pixels
      want[t] = sinc(x) * sinc(x / 4);
      wsum += want[t];
    }
    EXPECT_NEAR(sum, 1.0, 1e-6);
    for (int t = 0; t < 8; ++t) EXPECT_NEAR(lanc[8 * i + t], want[t] / wsum, 2e-7) << i << "," << t;
  }
}

TEST(PasteTables, GaussBilinearCubic) {
  const auto g = le::paste::gaussTaps(7, 1.5f);
  double sum = 0;
  for (int i = 0; i < 7; ++i) {
    sum += g[i];
    EXPECT_EQ(g[i], g[6 - i]);
    EXPECT_NEAR(g[i] / g[3], std::exp(-(i - 3.0) * (i - 3.0) / (2.0 * 1.5 * 1.5)), 1e-6);
  }
  EXPECT_NEAR(sum, 1.0, 1e-6);
  const auto bil = le::paste::bilinearTable();
  const auto cub = le::paste::cubicTable();
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(bil[2 * i] + bil[2 * i + 1], 1.0f);
    EXPECT_EQ(bil[2 * i + 1], i / 32.0f);
    // Keys' cubic, A = -0.75, at distances 1 + f, f, 1 - f, 2 - f.
    const double f = i / 32.0;
    const auto keys = [](double x) {
      x = std::fabs(x);
      return x <= 1 ? (1.25 * x - 2.25) * x * x + 1 : ((-0.75 * x + 3.75) * x - 6) * x + 3;
    };
    const double want[4] = {keys(1 + f), keys(f), keys(1 - f), keys(2 - f)};
    for (int t = 0; t < 4; ++t) EXPECT_NEAR(cub[4 * i + t], want[t], 1e-6) << i << "," << t;
  }
}

TEST(PasteTables, BilinearWeightsAreExactSteps) {
  // The warp's row kernel works the mask weights out as f/32 and 1 - f/32
  // rather than reading them: the table must hold exactly those.
  const auto bil = le::paste::bilinearTable();
  for (int i = 0; i < 32; ++i) {
    EXPECT_EQ(bil[2 * i + 1], static_cast<float>(i) * (1.0f / 32.0f)) << i;
    EXPECT_EQ(bil[2 * i], 1.0f - static_cast<float>(i) * (1.0f / 32.0f)) << i;
  }
}

TEST(PasteSettings, KernelSizeAndModeVariables) {
  const le::Unsharp u{0.5f, 1.2f, 7};
  const auto mask = softMask(16);
  const auto ksizeWith = [&](const char* v) {
    ScopedEnv e("LE_PASTE_KSIZE", v);
    return le::Paste(mask, 16, u);
  };
  EXPECT_EQ(ksizeWith("9").ksize(), 7);  // never raised
  EXPECT_EQ(ksizeWith("4").ksize(), 7);  // never even
  EXPECT_EQ(ksizeWith("1").ksize(), 7);  // at least 3
  const le::Paste five = ksizeWith("5");
  EXPECT_EQ(five.ksize(), 5);
  EXPECT_EQ(five.padSide(), 16 + 4);
  EXPECT_EQ(five.gauss(), le::paste::gaussTaps(5, 1.2f));
  for (const char* v : {"3", "-1", "x"}) {
    ScopedEnv e("LE_PASTE_FAST", v);
    EXPECT_EQ(le::Paste(mask, 16, u).fastMode(), 0) << v;
  }
  ScopedEnv e("LE_PASTE_FAST", "2");
  ScopedEnv verify("LE_PASTE_METAL", "verify");
  EXPECT_EQ(le::Paste(mask, 16, u).fastMode(), 2);
}

TEST(PasteSettings, Refusals) {
  const auto refusal = [](auto&& make) {
    try {
      make();
    } catch (const std::runtime_error& e) {
      return std::string(e.what());
    }
    return std::string("no refusal");
  };
  EXPECT_EQ(refusal([] { le::Paste(std::vector<uint8_t>(15), 4, le::Unsharp{1, 1, 3}); }), "paste: mask size");
  EXPECT_EQ(refusal([] { le::Paste(std::vector<uint8_t>(16), 4, le::Unsharp{1, 1, 4}); }),
            "paste: ksize must be odd");
  EXPECT_EQ(refusal([] { le::Paste(std::vector<uint8_t>(16), 4, le::Unsharp{1, 0, 3}); }),
            "paste: sigma must be > 0");
  EXPECT_EQ(refusal([] { le::Paste(std::vector<uint8_t>(16), 4, le::Unsharp{1, 1, 9}); }),
            "paste: ksize 9 reaches past a 4-pixel crop");
  const int big = 1025;
  le::Paste huge(std::vector<uint8_t>(big * big, 255), big, le::Unsharp{1, 1, 3});
  std::vector<float> crop(3 * big * big, 0.5f);
  std::vector<uint8_t> frame(kW * kH * 3, 0);
  const float M[6] = {1, 0, 0, 0, 1, 0};
  EXPECT_EQ(refusal([&] { huge.composite(crop.data(), 255.0f, M, frame.data(), kW, kH); }), "paste: side > 1024");
}

}  // namespace
