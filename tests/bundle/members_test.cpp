// Member names: the canonical spelling of every member, and which file a
// lookup lands on.
#include <string>

#include "bundle/identity_members.h"
#include "bundle/manifest.h"
#include "bundle/members.h"
#include "le/le.h"
#include "tests/support/test_support.h"

namespace {

using le::canonicalMemberName;
using le::test::dataPath;

TEST(MemberNames, TheNineFixedPairs) {
  const std::pair<const char*, const char*> pairs[] = {
      {"P.f16", "source_frames.f16"},          {"P_hevc.mov", "source_frames.hevc"},
      {"a2x_enc_stream.onnx", "audio_motion_encoder.onnx"}, {"a2x_dec.onnx", "audio_motion_decoder.onnx"},
      {"M.f32", "paste_transform.f32"},        {"mask_512.u8", "paste_mask.u8"},
      {"pooled64.f16", "pooled_features.f16"}, {"fs_red.f16", "feature_synth.f16"},
      {"xs_target.bin", "target_keypoints.bin"}};
  for (const auto& [primary, canonical] : pairs) EXPECT_EQ(canonicalMemberName(primary), canonical);
  // Names of the table are matched whole.
  EXPECT_EQ(canonicalMemberName("P.f16.bak"), "P.f16.bak");
  EXPECT_EQ(canonicalMemberName("source_frames.f16"), "source_frames.f16");
}

TEST(MemberNames, DirectorGraphs) {
  EXPECT_EQ(canonicalMemberName("model_b24_fp32.onnx"), "render_model.batch24.fp32.onnx");
  EXPECT_EQ(canonicalMemberName("model_b1.onnx"), "render_model.batch1.onnx");
  EXPECT_EQ(canonicalMemberName("model_b2_x_y.onnx"), "render_model.batch2.x_y.onnx");
  // Nothing between prefix and suffix, or another prefix: no second name.
  EXPECT_EQ(canonicalMemberName("model_b.onnx"), "model_b.onnx");
  EXPECT_EQ(canonicalMemberName("model_render.onnx"), "model_render.onnx");
  EXPECT_EQ(canonicalMemberName("model_b1.onnx.tmp"), "model_b1.onnx.tmp");
}

TEST(MemberNames, DriveTables) {
  EXPECT_EQ(canonicalMemberName("drive/xs.f32"), "idle_loop/source_keypoints.f32");
  EXPECT_EQ(canonicalMemberName("drive/xd.f32"), "idle_loop/driven_keypoints.f32");
  EXPECT_EQ(canonicalMemberName("drive/si.i32"), "idle_loop/source_index.i32");
  EXPECT_EQ(canonicalMemberName("drive/other.tar.gz"), "idle_loop/other.tar.gz");
  EXPECT_EQ(canonicalMemberName("drive/xs"), "idle_loop/source_keypoints");
}

TEST(MemberLookup, PrimaryWinsThenCanonicalThenPrimaryForTheRefusal) {
  le::test::TempDir tmp;
  const std::string d = tmp.path();
  // Absent under both names: the primary, so that a refusal names it.
  EXPECT_EQ(le::resolveMember(d, "a2x_enc_stream.onnx"), d + "/a2x_enc_stream.onnx");
  le::test::writeFile(tmp / "audio_motion_encoder.onnx", "c");
  EXPECT_EQ(le::resolveMember(d, "a2x_enc_stream.onnx"), d + "/audio_motion_encoder.onnx");
  le::test::writeFile(tmp / "a2x_enc_stream.onnx", "p");
  EXPECT_EQ(le::resolveMember(d, "a2x_enc_stream.onnx"), d + "/a2x_enc_stream.onnx");
  // A name without a second name comes back untested.
  EXPECT_EQ(le::resolveMember(d, "nothing.bin"), d + "/nothing.bin");
}

TEST(MemberLookup, CanonicalBundleResolvesEveryMember) {
  const std::string d = dataPath("sample_canonical");
  EXPECT_EQ(le::resolveMember(d, "drive/xs.f32"), d + "/idle_loop/source_keypoints.f32");
  EXPECT_EQ(le::resolveMember(d, "drive/si.i32"), d + "/idle_loop/source_index.i32");
  EXPECT_EQ(le::resolveMember(d, "P.f16"), d + "/source_frames.f16");
  EXPECT_EQ(le::resolveMember(d, "a2x_dec.onnx"), d + "/audio_motion_decoder.onnx");
  EXPECT_EQ(le::loadManifest(d, 0).modelPath("b1_fp32"), d + "/render_model.batch1.fp32.onnx");
}

TEST(MemberLookup, CApiReportsExistenceAndBufferSize) {
  const std::string d = dataPath("sample_canonical");
  const std::string want = d + "/paste_mask.u8";
  std::string buf(want.size() + 1, 'x');
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "mask_512.u8", buf.data(), want.size() + 1), 1);
  EXPECT_STREQ(buf.c_str(), want.c_str());
  EXPECT_STREQ(le_last_error(), "");
  // One byte short: nothing usable is written.
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "mask_512.u8", buf.data(), want.size()), -1);
  EXPECT_EQ(buf[0], '\0');
  char small[512];
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "xs_target.bin", small, sizeof small), 1);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "fs_red.f16", small, sizeof small), 0);
  EXPECT_EQ(std::string(small), d + "/fs_red.f16");
  EXPECT_EQ(le_bundle_resolve_member(nullptr, "a", small, sizeof small), -1);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), nullptr, small, sizeof small), -1);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "a", nullptr, 10), -1);
  EXPECT_EQ(le_bundle_resolve_member(d.c_str(), "a", small, 0), -1);
}

std::string priorRefusal(const std::string& name) {
  const std::string dir = dataPath("priors/" + name);
  le_ctx* ctx = le_create(dir.c_str(), "render", 1, nullptr);
  EXPECT_EQ(ctx, nullptr);
  le_destroy(ctx);
  return le_last_error();
}

TEST(WarpPrior, BundlesThatHaveOne) {
  for (const char* name : {"fs_red_only", "p_rgb_with_fs_red", "hevc_present", "hevc_canonical", "p_canonical"}) {
    const std::string dir = dataPath(std::string("priors/") + name);
    le_ctx* ctx = le_create(dir.c_str(), "render", 1, nullptr);
    EXPECT_NE(ctx, nullptr) << name << ": " << le_last_error();
    le_destroy(ctx);
  }
}

TEST(WarpPrior, EveryRefusalWordForWord) {
  EXPECT_EQ(priorRefusal("p_rgb_other_name"),
            "le_create: this bundle's manifest names its raw warp prior 'P_rgb.f16' (P_rgb) but le::Identity maps the "
            "welded name P.f16 and would find nothing — it maps NOTHING silently and Identity::P(si) is then an offset "
            "from a null pointer. REFUSING rather than rendering off a prior nothing will read.");
  EXPECT_EQ(priorRefusal("no_prior"),
            "le_create: this bundle carries neither P.f16 nor fs_red.f16, and its manifest names no P_hevc member to "
            "play one from — the renderer has no warp prior and le::Identity would hand it a null pointer. REFUSING "
            "to create a session.");
  EXPECT_EQ(priorRefusal("hevc_missing"), "le_create: this bundle's manifest names P_hevc 'prior.mov' and the file is "
                                          "not there (" +
                                              dataPath("priors/hevc_missing") +
                                              "/prior.mov) — the renderer has no warp prior. REFUSING to create a "
                                              "session.");
}

}  // namespace
