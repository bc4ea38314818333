// The manifest loader through le_create: the key scanner's choices and every
// refusal, word for word as a host reads them from le_last_error().
#include <filesystem>
#include <string>

#include "bundle/manifest.h"
#include "bundle/manifest_key.h"
#include "le/le.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

std::string manifestCase(const std::string& name) { return dataPath("manifests/" + name); }

// Opens a bundle that must be refused and returns the stored text.
std::string refusal(const std::string& path) {
  le_ctx* ctx = le_create(path.c_str(), "render", 1, nullptr);
  EXPECT_EQ(ctx, nullptr) << path << " opened";
  le_destroy(ctx);
  return le_last_error();
}

// Manifest variants carry no other members: what they open to is read
// through the loader itself.
struct Opened {
  le::Manifest m;
  explicit Opened(const std::string& path) : m(le::loadManifest(path, 0)) {}
};

// Byte position of the value that follows `needle` in the case's manifest.
size_t valuePos(const std::string& name, const std::string& needle) {
  const std::string text = le::test::readFile(manifestCase(name) + "/manifest.json");
  const size_t at = text.find(needle);
  EXPECT_NE(at, std::string::npos) << needle;
  return at + needle.size();
}

std::string ambiguousText(const std::string& key, const std::string& list, int count) {
  return "le_create: manifest: key \"" + key + "\" is AMBIGUOUS — " + std::to_string(count) + " scalar occurrences (" +
         list +
         "). A loader that picks one silently installs a number nobody checks. Rename the colliding key (a nested "
         "block must not reuse a name the bundle loader reads: NT/frame_count, H, W, crop/crop_size, amount, sigma, "
         "ksize, frames, M_src_w/paste_source_width, M_src_h/paste_source_height), or produce the bundle with the "
         "legacy manifest layout.";
}

TEST(ManifestScanner, RootKeyWinsOverNestedKeyOfTheSameName) {
  Opened o(manifestCase("nested_h_beside_root"));
  EXPECT_EQ(o.m.H, 48);
}

TEST(ManifestScanner, TwoRootScalarsAreAmbiguousWithTheirBytePositions) {
  const std::string list = "byte " + std::to_string(valuePos("two_root_h", "\"H\": ")) + ", byte " +
                           std::to_string(valuePos("two_root_h", "\"H\": 48, \"H\": "));
  EXPECT_EQ(refusal(manifestCase("two_root_h")), ambiguousText("H", list, 2));
}

TEST(ManifestScanner, KeyOnlyInsideNestedBlocks) {
  const std::string list = "byte " + std::to_string(valuePos("h_nested_twice", "{\"H\": ")) + ", byte " +
                           std::to_string(valuePos("h_nested_twice", "\"tessera\": {\"H\": "));
  EXPECT_EQ(refusal(manifestCase("h_nested_twice")), ambiguousText("H", list, 2));
  Opened once(manifestCase("h_nested_once"));
  EXPECT_EQ(once.m.H, 40);
}

TEST(ManifestScanner, KeyTextInsideAStringNeverCounts) {
  Opened o(manifestCase("key_in_string"));
  EXPECT_EQ(o.m.H, 48);
  EXPECT_EQ(o.m.W, 64);
}

TEST(ManifestScanner, ObjectValuesAreNoScalarHits) {
  EXPECT_EQ(refusal(manifestCase("h_object_only")), "le_create: manifest: missing key H");
  const std::string text = R"({"H": {"a": 1}, "x": [1, {"H": 2}], "H": 3})";
  const auto hits = le::manifest_key::keyHits(text, "H");
  ASSERT_EQ(hits.size(), 3u);
  EXPECT_EQ(hits[0].depth, 1);
  EXPECT_EQ(hits[0].scalar, 0);
  EXPECT_EQ(hits[1].depth, 3);
  EXPECT_EQ(hits[1].scalar, 1);
  EXPECT_EQ(le::manifest_key::scalarValuePos(text, "H"), text.rfind('3'));
}

TEST(ManifestScanner, EscapesAndTextEnds) {
  using le::manifest_key::keyHits;
  // An escaped quote does not close the string; a key is compared unescaped.
  EXPECT_TRUE(keyHits(R"({"a\"H": 1})", "H").empty());
  EXPECT_EQ(keyHits(R"({"a\"H": 1})", "a\\\"H").size(), 1u);
  // A value at the very end of the text is recorded as not scalar.
  const auto end = keyHits(R"({"H":   )", "H");
  ASSERT_EQ(end.size(), 1u);
  EXPECT_EQ(end[0].scalar, 0);
  EXPECT_EQ(end[0].pos, 8u);
  // An unterminated string ends the scan.
  EXPECT_TRUE(keyHits(R"({"x": "open, "H": 1})", "H").empty());
  EXPECT_EQ(le::manifest_key::scalarValuePos("{}", "H"), le::manifest_key::kNotFound);
}

TEST(ManifestFields, AliasesAndMissingKeys) {
  Opened alias(manifestCase("frame_count_alias"));
  EXPECT_EQ(alias.m.NT, 4);
  Opened crop(manifestCase("crop_size_alias"));
  EXPECT_EQ(crop.m.crop, 32);
  EXPECT_EQ(refusal(manifestCase("no_nt")), "le_create: manifest: missing key NT/frame_count");
  EXPECT_EQ(refusal(manifestCase("no_agent")), "le_create: manifest: missing key agent");
  EXPECT_EQ(refusal(manifestCase("no_sigma")), "le_create: manifest: missing key sigma");
  EXPECT_EQ(refusal(manifestCase("absent_marker_h")), "le_create: manifest: missing key H");
  EXPECT_EQ(refusal(manifestCase("unterminated_agent")), "le_create: manifest: bad string agent");
}

TEST(ManifestFields, FormatAndDimensions) {
  const std::string dir = manifestCase("bad_format");
  EXPECT_EQ(refusal(dir), "le_create: not an le-bundle-v0: " + dir);
  EXPECT_EQ(refusal(manifestCase("crop_zero_no_stamp")), "le_create: manifest: bad dims");
  EXPECT_EQ(refusal(manifestCase("nt_negative")), "le_create: manifest: bad dims");
  EXPECT_EQ(refusal(manifestCase("huge_dim")), "le_create: manifest: W is not a 32-bit integer");
  // Integer fields truncate toward zero.
  Opened frac(manifestCase("fractional_dims"));
  EXPECT_EQ(frac.m.NT, 4);
  EXPECT_EQ(frac.m.crop, 32);
}

TEST(ManifestFields, AllValuesReadFromTheSample) {
  const le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  EXPECT_EQ(m.bundle_dir, dataPath("sample"));
  EXPECT_EQ(m.agent, "sample");
  EXPECT_EQ(m.NT, 4);
  EXPECT_EQ(m.H, 48);
  EXPECT_EQ(m.W, 64);
  EXPECT_EQ(m.M_src_w, 64);
  EXPECT_EQ(m.M_src_h, 48);
  EXPECT_EQ(m.crop, 32);
  EXPECT_EQ(m.amount, 0.5f);
  EXPECT_EQ(m.sigma, 1.5f);
  EXPECT_EQ(m.ksize, 7);
  EXPECT_EQ(m.frames, 6);
  EXPECT_EQ(m.output_height, 0);
  EXPECT_TRUE(m.driver_mp4.empty());
  EXPECT_FALSE(m.lip_template_json.empty());  // the sample carries a lip template
  EXPECT_EQ(m.modelPath("b1_fp32"), dataPath("sample") + "/model_b1_fp32.onnx");
}

TEST(ManifestFields, LipTemplateIsReadWhenPresent) {
  le::test::TempDir tmp;
  le::test::copyTree(dataPath("sample"), tmp.path());
  le::test::writeFile(tmp / "lip_template.v1.json", "{\"lip\": 1}");
  EXPECT_EQ(le::loadManifest(tmp.path(), 0).lip_template_json, "{\"lip\": 1}");
}

TEST(ManifestStamp, MissingStampIsRefusedUnlessOverridden) {
  const std::string dir = manifestCase("no_stamp");
  const std::string refused = "le_create: " + dir +
                              "/manifest.json declares no paste-space stamp (M_src_w/M_src_h, aka "
                              "paste_source_width/height) — the canvas is 64x48, so M cannot be placed: absence is "
                              "not evidence that M was authored at that size. Re-stamp the bundle "
                              "(models/vespera-2/inference/backfill_msrc.py), or set VESPERA2_MSRC_MISSING_OK=1 to "
                              "restore the legacy assumption.";
  {
    le::test::ScopedEnv unset("VESPERA2_MSRC_MISSING_OK", nullptr);
    EXPECT_EQ(refusal(dir), refused);
  }
  {
    // The switch is compared as a whole string.
    le::test::ScopedEnv almost("VESPERA2_MSRC_MISSING_OK", "1 ");
    EXPECT_EQ(refusal(dir), refused);
  }
  le::test::ScopedEnv ok("VESPERA2_MSRC_MISSING_OK", "1");
  le::Manifest m;
  const std::string err = le::test::captureStderr([&] { m = le::loadManifest(dir, 0); });
  EXPECT_EQ(m.M_src_w, 64);
  EXPECT_EQ(m.M_src_h, 48);
  EXPECT_EQ(err, "[le] WARNING VESPERA2_MSRC_MISSING_OK=1: " + dir +
                     "/manifest.json carries no paste-space stamp; ASSUMING M was authored on this 64x48 canvas. If "
                     "it was not, the face pastes off-target and nothing will say so.\n");
}

TEST(ManifestStamp, NamesMayBeMixedAndZeroIsABadStamp) {
  const le::Manifest m = le::loadManifest(manifestCase("stamp_mixed_names"), 0);
  EXPECT_EQ(m.M_src_w, 96);
  EXPECT_EQ(m.M_src_h, 72);
  // -1e300 counts as absent, so the alias is taken.
  EXPECT_EQ(le::loadManifest(manifestCase("stamp_absent_marker"), 0).M_src_w, 80);
  EXPECT_EQ(refusal(manifestCase("stamp_zero")),
            "le_create: manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)");
}

TEST(ManifestFiles, MissingAndUnreadableManifest) {
  le::test::TempDir tmp;
  EXPECT_EQ(refusal(tmp.path()), "le_create: cannot open " + tmp.path() + "/manifest.json");
  le::test::TempDir dirInstead;
  std::filesystem::create_directory(dirInstead / "manifest.json");
  EXPECT_EQ(refusal(dirInstead.path()), "le_create: short read " + dirInstead.path() + "/manifest.json");
}

}  // namespace
