// Reading lip_template.v1.json: what a valid template installs, the variants
// that are accepted, and every refusal word for word (each generated case
// differs from the valid template in one respect).
#include <stdexcept>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tessera/lip_contour.h"
#include "tests/support/test_support.h"

namespace {

using le::tessera::LipContour;

constexpr int32_t kCanvas = 32;

std::string lipData(const std::string& rel) { return le::test::readFile(le::test::dataPath("lip/" + rel)); }

template <class Fn>
std::string refusal(Fn&& fn) {
  try {
    fn();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  ADD_FAILURE() << "not refused";
  return {};
}

TEST(LipTemplate, MapTemplateInstallsTheMap) {
  const LipContour c = LipContour::fromTemplateJson(lipData("contour/map.json"), kCanvas);
  EXPECT_EQ(c.canvas, kCanvas);
  EXPECT_EQ(c.feather, 2.5f);
  EXPECT_EQ(c.nv, 8);
  ASSERT_EQ(c.u_canon.size(), 16u);
  EXPECT_EQ(c.u_canon[0], -1.1);
  EXPECT_EQ(c.u_canon[13], 0.9);
  EXPECT_EQ(c.lip_idx, (std::vector<int32_t>{17, 18, 19, 20}));
  EXPECT_EQ(c.mapWidth, 8);
  EXPECT_EQ(c.W.size(), 16u * 8u);
  EXPECT_EQ(c.b.size(), 16u);
}

TEST(LipTemplate, DefaultsAndTruncation) {
  const LipContour e = LipContour::fromTemplateJson(lipData("contour/extents.json"), kCanvas);
  EXPECT_EQ(e.lip_idx, (std::vector<int32_t>{17, 18, 19, 20}));
  EXPECT_TRUE(e.W.empty());
  EXPECT_EQ(e.mapWidth, 0);
  // canvas 32.75 and anchor 16.9 truncate; edge 5 is not a string.
  const LipContour i = LipContour::fromTemplateJson(lipData("contour/idx.json"), kCanvas);
  EXPECT_EQ(i.lip_idx, (std::vector<int32_t>{16, 17, 18, 19, 20}));
  EXPECT_EQ(i.feather, 1.75f);
}

TEST(LipTemplate, AcceptedVariants) {
  for (const char* name : {"edge_number", "edge_missing", "canvas_fraction", "map_canvas_missing",
                           "map_lip_idx_missing", "anchors_9_with_map", "no_lip_idx"}) {
    SCOPED_TRACE(name);
    const LipContour c = LipContour::fromTemplateJson(lipData(std::string("accept/") + name + ".json"), kCanvas);
    EXPECT_EQ(c.lip_idx, (std::vector<int32_t>{17, 18, 19, 20}));
    EXPECT_EQ(c.mapWidth, 8);
  }
  // A template with a compose_v2 block reads as the same contour.
  EXPECT_EQ(LipContour::fromTemplateJson(lipData("compose_v2/template.json"), kCanvas).W,
            LipContour::fromTemplateJson(lipData("contour/map.json"), kCanvas).W);
}

TEST(LipTemplate, RefusesAnotherComposeCanvas) {
  EXPECT_EQ(refusal([] { LipContour::fromTemplateJson(lipData("contour/map.json"), 48); }),
            "lip_template.v1.json: was baked on a 32 canvas but this bundle composes on 48 — refusing to deform a "
            "polygon onto a canvas it does not name");
}

struct RefusalCase {
  const char* name;
  const char* words;  // behind "lip_template.v1.json: "
};

// CTest names carry the case, not the bytes of the struct.
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }


class LipTemplateRefusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(LipTemplateRefusal, WordForWord) {
  const std::string text = lipData(std::string("refuse/") + GetParam().name + ".json");
  EXPECT_EQ(refusal([&] { LipContour::fromTemplateJson(text, kCanvas); }),
            std::string("lip_template.v1.json: ") + GetParam().words);
}

const char* const kNotPositive = ", which is not positive";
const std::string kFeatherZero = std::string("declares feather_px 0") + kNotPositive;
const std::string kFeatherNeg = std::string("declares feather_px -1.5") + kNotPositive;

INSTANTIATE_TEST_SUITE_P(
    Cases, LipTemplateRefusal,
    ::testing::Values(
        RefusalCase{"not_json", "is not parseable JSON (teeth: bad JSON number)"},
        RefusalCase{"not_object", "is not a JSON object"},
        RefusalCase{"format_missing", "carries no string `format`"},
        RefusalCase{"format_number", "carries no string `format`"},
        RefusalCase{"format_other",
                    "declares format 'lip-template-v2', not 'lip-template-v1' — this runtime cannot read it"},
        RefusalCase{"edge_inward",
                    "declares edge 'inward', and the contour feather is OUTWARD — refusing to serve a mask this "
                    "runtime does not compute"},
        RefusalCase{"canvas_missing", "carries no numeric `canvas`"},
        RefusalCase{"canvas_string", "carries no numeric `canvas`"},
        RefusalCase{"canvas_other",
                    "was baked on a 64 canvas but this bundle composes on 32 — refusing to deform a polygon onto a "
                    "canvas it does not name"},
        RefusalCase{"feather_missing", "carries no numeric `feather_px`"},
        RefusalCase{"feather_string", "carries no numeric `feather_px`"},
        RefusalCase{"feather_zero", kFeatherZero.c_str()},
        RefusalCase{"feather_negative", kFeatherNeg.c_str()},
        RefusalCase{"u_canon_missing", "carries no non-empty `u_canon` array"},
        RefusalCase{"u_canon_empty", "carries no non-empty `u_canon` array"},
        RefusalCase{"u_canon_object", "carries no non-empty `u_canon` array"},
        RefusalCase{"u_canon_row_3", "u_canon row 2 is not a 2-vector — this is not an nv x 2 template"},
        RefusalCase{"u_canon_row_scalar", "u_canon row 5 is not a 2-vector — this is not an nv x 2 template"},
        RefusalCase{"lip_idx_number", "carries a `lip_idx` that is not a non-empty array"},
        RefusalCase{"lip_idx_empty", "carries a `lip_idx` that is not a non-empty array"},
        RefusalCase{"lip_idx_21", "lip_idx names keypoint row 21, and a kd row is 0..20"},
        RefusalCase{"lip_idx_negative", "lip_idx names keypoint row -1, and a kd row is 0..20"},
        RefusalCase{"map_array", "lip_map is not a JSON object"},
        RefusalCase{"map_schema_other",
                    "lip_map declares schema 'lip-map-v2', not 'lip-map-v1' — this runtime cannot evaluate it"},
        RefusalCase{"map_schema_missing",
                    "lip_map declares schema '?', not 'lip-map-v1' — this runtime cannot evaluate it"},
        RefusalCase{"map_kind_other", "lip_map kind is not 'anchor-linear'"},
        RefusalCase{"map_kind_missing", "lip_map kind is not 'anchor-linear'"},
        RefusalCase{"map_lip_idx_9", "lip_map lip_idx is not 1..8 kd rows"},
        RefusalCase{"map_lip_idx_empty", "lip_map lip_idx is not 1..8 kd rows"},
        RefusalCase{"map_lip_idx_number", "lip_map lip_idx is not 1..8 kd rows"},
        RefusalCase{"map_lip_idx_fraction", "lip_map lip_idx names a row outside 0..20"},
        RefusalCase{"map_lip_idx_21", "lip_map lip_idx names a row outside 0..20"},
        RefusalCase{"map_lip_idx_string", "lip_map lip_idx names a row outside 0..20"},
        RefusalCase{"map_w_missing", "lip_map carries no W/b arrays"},
        RefusalCase{"map_b_object", "lip_map carries no W/b arrays"},
        RefusalCase{"map_w_short", "lip_map W/b have 15/16 rows, not 2*nv=16"},
        RefusalCase{"map_b_long", "lip_map W/b have 16/17 rows, not 2*nv=16"},
        RefusalCase{"map_w_row_narrow", "lip_map W row 3 is not 8 wide"},
        RefusalCase{"map_w_row_scalar", "lip_map W row 0 is not 8 wide"},
        RefusalCase{"map_w_string", "lip_map carries a non-finite coefficient"},
        RefusalCase{"map_b_null", "lip_map carries a non-finite coefficient"},
        RefusalCase{"map_w_infinite", "lip_map carries a non-finite coefficient"},
        RefusalCase{"map_b_infinite", "lip_map carries a non-finite coefficient"},
        RefusalCase{"map_canvas_other", "lip_map was fitted on another canvas than this bundle composes on"},
        RefusalCase{"map_canvas_string", "lip_map was fitted on another canvas than this bundle composes on"},
        RefusalCase{"anchors_9", "lip_idx names 9 anchor rows, and the contour deforms from 1 to 8"}),
    [](const ::testing::TestParamInfo<RefusalCase>& p) { return std::string(p.param.name); });

TEST(LipContourChecks, ConstructorAndAttachMapRefuseWhatThePolygonCannotServe) {
  const double u[4] = {1, 0, -1, 0};
  const int32_t rows[9] = {12, 13, 14, 15, 16, 17, 18, 19, 20};
  const int32_t bad[2] = {17, 21};
  EXPECT_EQ(refusal([&] { LipContour(16, 2.0f, u, 2, rows, 9); }),
            "lip_template.v1.json: lip_idx names 9 anchor rows, and the contour deforms from 1 to 8");
  EXPECT_EQ(refusal([&] { LipContour(16, 2.0f, u, 2, bad, 2); }),
            "lip_template.v1.json: lip_idx names keypoint row 21, and a kd row is 0..20");
  EXPECT_EQ(refusal([&] { LipContour(16, 0.0f, u, 2, rows, 4); }),
            "lip_template.v1.json: declares feather_px 0, which is not positive");
  EXPECT_EQ(refusal([&] { LipContour(16, 2.0f, u, 0, rows, 4); }),
            "lip_template.v1.json: carries no non-empty `u_canon` array");

  LipContour c(16, 2.0f, u, 2, rows, 4);
  const std::vector<double> W(4 * 6, 0.5), b(4, 0.0);
  const std::string shape = "lip_template.v1.json: lip_map shape does not match the template";
  EXPECT_EQ(refusal([&] { c.attachMap(W.data(), b.data(), 3, 6, rows, 3); }), shape);  // rows != 2 * nv
  EXPECT_EQ(refusal([&] { c.attachMap(W.data(), b.data(), 4, 6, rows, 4); }), shape);  // cols != 2 * nIdx
  EXPECT_EQ(refusal([&] { c.attachMap(W.data(), b.data(), 4, 18, rows, 9); }), shape);
  EXPECT_TRUE(c.W.empty());
  c.attachMap(W.data(), b.data(), 4, 6, rows + 6, 3);
  EXPECT_EQ(c.lip_idx, (std::vector<int32_t>{18, 19, 20}));
  EXPECT_EQ(c.mapWidth, 6);
}

}  // namespace
