// The teeth members through the C interface a host uses: the slots, the
// carriage, the checked record and its values against what the generator
// wrote, every refusal word for word in the caller's buffer, the reorder of
// decoded track frames, and the geometry stamp's coherence checks.
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "bundle/manifest.h"
#include "le/le_tessera.h"
#include "tessera/teeth_members.h"
#include "tests/support/test_support.h"

namespace {

using le::test::dataPath;

std::string teeth(const std::string& rel) { return dataPath("teeth/" + rel); }

template <class T>
std::vector<T> expectArray(const std::string& name) {
  const std::string bytes = le::test::readFile(teeth("expect/" + name));
  std::vector<T> out(bytes.size() / sizeof(T));
  std::memcpy(out.data(), bytes.data(), out.size() * sizeof(T));
  return out;
}

// A members handle that closes itself.
struct Members {
  explicit Members(const std::string& dir) {
    h = le_tessera_members_open(dir.c_str(), err, sizeof err);
  }
  ~Members() { le_tessera_members_close(h); }
  Members(const Members&) = delete;
  Members& operator=(const Members&) = delete;
  le_tessera_members* h = nullptr;
  char err[4096] = "untouched";
};

struct Carriage {
  explicit Carriage(const std::string& dir) : h(le_tessera_carriage_open(dir.c_str())) {}
  ~Carriage() { le_tessera_carriage_close(h); }
  Carriage(const Carriage&) = delete;
  Carriage& operator=(const Carriage&) = delete;
  le_tessera_carriage* h;
};

std::string missingText(const std::string& list, int carried, bool declared) {
  return "missing teeth member(s): " + list + " — carries " + std::to_string(carried) + " of 4" +
         (declared ? " and declares a manifest.tessera block the members do not keep" : "") +
         ". ONE predicate (owner ruling 2026-09-06): all four members present = ARMED on every plane; any missing = "
         "REFUSED on every plane. The borrow is a SWITCH, not a gradient — there is no rendering mode that proceeds "
         "without them (vespera-2 IS borrowed teeth). Re-stage the bundle with the bank builder.";
}

TEST(TeethSlots, FourSlotsInOrder) {
  EXPECT_EQ(le_tessera_slot_count(), 4);
  EXPECT_STREQ(le_tessera_slot_key(0), "bank_track");
  EXPECT_STREQ(le_tessera_slot_key(1), "bank_sidecar");
  EXPECT_STREQ(le_tessera_slot_key(2), "head_weights");
  EXPECT_STREQ(le_tessera_slot_key(3), "head_config");
  EXPECT_EQ(le_tessera_slot_key(-1), nullptr);
  EXPECT_EQ(le_tessera_slot_key(4), nullptr);
}

TEST(TeethMembers, ValuesReadBackAsTheGeneratorWroteThem) {
  const std::string dir = teeth("bundle");
  Members m(dir);
  ASSERT_NE(m.h, nullptr) << m.err;
  EXPECT_STREQ(m.err, "");
  const int32_t n = le_tessera_members_n_donors(m.h);
  ASSERT_EQ(n, 5);

  const std::vector<double> cent = expectArray<double>("cent.f64");
  const std::vector<double> aperture = expectArray<double>("aperture.f64");
  const std::vector<double> canon = expectArray<double>("c_canon.f64");
  const std::vector<int32_t> stamp = expectArray<int32_t>("stamp.i32");
  ASSERT_EQ(cent.size(), 10u);
  EXPECT_EQ(std::memcmp(le_tessera_members_cent(m.h), cent.data(), cent.size() * 8), 0);
  EXPECT_EQ(std::memcmp(le_tessera_members_aperture(m.h), aperture.data(), aperture.size() * 8), 0);
  EXPECT_EQ(std::memcmp(le_tessera_members_c_canon(m.h), canon.data(), 16), 0);
  EXPECT_EQ(std::vector<int32_t>(le_tessera_members_stamp(m.h), le_tessera_members_stamp(m.h) + 12), stamp);

  const std::string pt = le::test::readFile(dir + "/tessera_head.v1.pt");
  ASSERT_EQ(le_tessera_members_head_pt_len(m.h), static_cast<int32_t>(pt.size()));
  EXPECT_EQ(std::memcmp(le_tessera_members_head_pt(m.h), pt.data(), pt.size()), 0);
  EXPECT_EQ(le_tessera_members_head_json(m.h), le::test::readFile(dir + "/tessera_head.v1.json"));
  EXPECT_EQ(le_tessera_members_manifest_json(m.h), le::test::readFile(dir + "/manifest.json"));
  EXPECT_EQ(le_tessera_members_bank_track_path(m.h), dir + "/tessera_bank.v1.mp4");
  EXPECT_STREQ(le_tessera_members_bank_container(m.h), "mp4");
  EXPECT_STREQ(le_tessera_members_bank_codec(m.h), "libx264rgb");
  EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m.h), "rgb24");
  EXPECT_STREQ(le_tessera_members_bank_packing(m.h), "rgb24_frames");
  // band 2..8 x 2..14 grown by a margin of 2 on every side.
  EXPECT_EQ(le_tessera_members_band_w(m.h), 16);
  EXPECT_EQ(le_tessera_members_band_h(m.h), 10);
  EXPECT_EQ(le_tessera_members_band_bytes(m.h), int64_t{5} * 10 * 16 * 3);

  // The C++ record holds the same, and the order the generator wrote.
  const le::TesseraAttachInputs in = le::loadTesseraMembers(dir);
  EXPECT_EQ(in.track_order, expectArray<int32_t>("track_order.i32"));
  EXPECT_EQ(in.cent, cent);
  EXPECT_EQ(in.stamp.v[le::GeometryStamp::kShiftMargin], 2);
  le::Manifest manifest;
  manifest.bundle_dir = dir;
  EXPECT_EQ(le::loadTesseraMembers(manifest).head_pt, in.head_pt);
}

TEST(TeethMembers, NullHandleGettersAndClose) {
  EXPECT_EQ(le_tessera_members_n_donors(nullptr), 0);
  EXPECT_EQ(le_tessera_members_cent(nullptr), nullptr);
  EXPECT_EQ(le_tessera_members_c_canon(nullptr), nullptr);
  EXPECT_EQ(le_tessera_members_aperture(nullptr), nullptr);
  EXPECT_EQ(le_tessera_members_stamp(nullptr), nullptr);
  EXPECT_EQ(le_tessera_members_head_pt(nullptr), nullptr);
  EXPECT_EQ(le_tessera_members_head_pt_len(nullptr), 0);
  EXPECT_STREQ(le_tessera_members_head_json(nullptr), "");
  EXPECT_STREQ(le_tessera_members_manifest_json(nullptr), "");
  EXPECT_STREQ(le_tessera_members_bank_track_path(nullptr), "");
  EXPECT_STREQ(le_tessera_members_bank_container(nullptr), "");
  EXPECT_STREQ(le_tessera_members_bank_codec(nullptr), "");
  EXPECT_STREQ(le_tessera_members_bank_pix_fmt(nullptr), "");
  EXPECT_STREQ(le_tessera_members_bank_packing(nullptr), "");
  EXPECT_EQ(le_tessera_members_band_w(nullptr), 0);
  EXPECT_EQ(le_tessera_members_band_h(nullptr), 0);
  EXPECT_EQ(le_tessera_members_band_bytes(nullptr), 0);
  le_tessera_members_close(nullptr);
  le_tessera_carriage_close(nullptr);
}

TEST(TeethMembers, OpensFromAContainer) {
  le::test::TempDir root;
  le::test::ScopedEnv env("LE_IMX_UNWRAP_ROOT", root.path().c_str());
  Members m(teeth("bundle.imx"));
  ASSERT_NE(m.h, nullptr) << m.err;
  EXPECT_EQ(le_tessera_members_n_donors(m.h), 5);
  EXPECT_EQ(le_tessera_members_bank_track_path(m.h), root / "bundle.lebundle/tessera_bank.v1.mp4");
  Carriage c(teeth("bundle.imx"));
  EXPECT_EQ(le_tessera_carriage_complete(c.h), 1);
}

TEST(TeethMembers, AcceptedVariants) {
  {
    Members m(teeth("accept/no_block"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_STREQ(le_tessera_members_bank_container(m.h), "mp4");
    EXPECT_STREQ(le_tessera_members_bank_packing(m.h), "rgb24_frames");
    EXPECT_STREQ(le_tessera_members_bank_codec(m.h), "libx264rgb");
    EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m.h), "rgb24");
  }
  {
    Members m(teeth("accept/block_not_object"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_STREQ(le_tessera_members_bank_container(m.h), "mp4");
  }
  {
    const std::string dir = teeth("accept/meta_json");
    Members m(dir);
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_manifest_json(m.h), le::test::readFile(dir + "/meta.json"));
  }
  {
    const std::string dir = teeth("accept/renamed");
    Members m(dir);
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_bank_track_path(m.h), dir + "/bank/track.mkv");
  }
  {
    Members m(teeth("accept/manifest_overrides"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_STREQ(le_tessera_members_bank_container(m.h), "mkv");
    EXPECT_STREQ(le_tessera_members_bank_packing(m.h), "rgb24_planes");
    EXPECT_STREQ(le_tessera_members_bank_codec(m.h), "ffv1");
    EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m.h), "gbrp");
  }
  {
    // An empty codec is no refusal; an empty pixel format would be.
    Members m(teeth("accept/codec_from_manifest_only"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_STREQ(le_tessera_members_bank_codec(m.h), "");
    EXPECT_STREQ(le_tessera_members_bank_pix_fmt(m.h), "rgb24");
  }
  {
    Members m(teeth("accept/n_1024"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_n_donors(m.h), 1024);
    EXPECT_EQ(le_tessera_members_band_bytes(m.h), int64_t{1024} * 10 * 16 * 3);
  }
  {
    // 3.9 donors read as 3, and order entries truncate toward zero.
    const le::TesseraAttachInputs in = le::loadTesseraMembers(teeth("accept/n_fraction"));
    EXPECT_EQ(in.n_donors, 3);
    EXPECT_EQ(in.track_order, (std::vector<int32_t>{2, 0, 1}));
  }
  {
    Members m(teeth("accept/shift_zero"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_band_w(m.h), 12);
    EXPECT_EQ(le_tessera_members_band_h(m.h), 6);
  }
  {
    // pad 2.9 in the sidecar and 2.1 in the manifest are both 2.
    Members m(teeth("accept/fractional_stamp"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_stamp(m.h)[6], 2);
  }
  {
    Members m(teeth("accept/no_manifest_geometry"));
    ASSERT_NE(m.h, nullptr) << m.err;
    EXPECT_EQ(le_tessera_members_stamp(m.h)[4], 15);
  }
  {
    Members m(teeth("accept/empty_track"));
    ASSERT_NE(m.h, nullptr) << m.err;
  }
}

struct RefusalCase {
  const char* name;
  std::string words;  // "{bundle}" stands for the case's directory
};

std::vector<RefusalCase> refusalCases() {
  const std::string pixFmt =
      "{bundle}: neither manifest.tessera.bank_pix_fmt nor tessera_bank.v1.json.codec.pix_fmt states the reference "
      "track's pixel format. A decoder handed no format negotiates one, and the one it settles on is 4:2:0 — lossy "
      "chroma on reference pixels IS the borrow degrading. Refusing rather than letting it guess.";
  const std::string arrays = "tessera_bank.v1.json lacks one of track_order/cent/aperture/c_canon as an array";
  const std::string format =
      "', not 'tessera_bank.v1' — this reader does not know that generation and will not guess at its keys.";
  const std::string stamp = "{canvas_w=32, canvas_h=32, window_x0=8, window_y0=16, window_w=16, window_h=10, pad=2, "
                            "band_r0=2, band_r1=8, band_c0=2, band_c1=14, shift_margin=2}";
  auto disagree = [&](const std::string& manifestStamp) {
    return "teeth geometry DISAGREES between the manifest and the bank sidecar — manifest " + manifestStamp +
           " vs tessera_bank.v1.json " + stamp +
           "; refusing to place a window on a rectangle the two halves of the bundle do not agree on.";
  };
  return {
      {"missing_track", missingText("bank_track (tessera_bank.v1.mp4)", 3, true)},
      {"missing_two_no_block",
       missingText("head_weights (tessera_head.v1.pt), head_config (tessera_head.v1.json)", 2, false)},
      {"missing_all_renamed",
       missingText("bank_track (other/tessera_bank.v1.mp4), bank_sidecar (other/tessera_bank.v1.json), head_weights "
                   "(other/tessera_head.v1.pt), head_config (other/tessera_head.v1.json)",
                   0, true)},
      // An unparsable manifest declares nothing: its renaming is not read.
      {"manifest_not_json_missing", missingText("head_config (tessera_head.v1.json)", 3, false)},
      {"no_manifest",
       "{bundle} carries no manifest.json or meta.json — the compose descriptor (unified.pi) the pass places its "
       "window by lives there, and placing a borrow window without it is guessing."},
      {"manifest_not_json", "teeth: {bundle}/manifest.json is not readable JSON: teeth: bad JSON number"},
      {"sidecar_not_json", "teeth: tessera_bank.v1.json is not readable JSON: teeth: malformed JSON object"},
      {"sidecar_deep", "teeth: tessera_bank.v1.json is not readable JSON: teeth: JSON nests deeper than 256 levels"},
      {"sidecar_empty", "teeth: tessera_bank.v1.json is not readable JSON: teeth: JSON truncated"},
      {"format_other", "tessera_bank.v1.json declares format 'tessera_bank.v2" + format},
      {"format_missing", "tessera_bank.v1.json declares format '" + format},
      {"format_number", "tessera_bank.v1.json declares format '" + format},
      {"geometry_missing", "tessera_bank.v1.json carries no `geometry` stamp"},
      {"geometry_array", "tessera_bank.v1.json carries no `geometry` stamp"},
      {"geometry_key_missing", "teeth: tessera_bank.v1.json.geometry lacks numeric 'pad'"},
      {"geometry_key_string", "teeth: tessera_bank.v1.json.geometry lacks numeric 'band_r1'"},
      {"manifest_geometry_key_missing", "teeth: manifest.tessera.geometry lacks numeric 'shift_margin'"},
      {"stamps_differ", disagree("{canvas_w=32, canvas_h=32, window_x0=8, window_y0=16, window_w=17, window_h=10, "
                                 "pad=2, band_r0=2, band_r1=8, band_c0=2, band_c1=14, shift_margin=2}")},
      {"stamps_differ_last", disagree("{canvas_w=32, canvas_h=32, window_x0=8, window_y0=16, window_w=16, "
                                      "window_h=10, pad=2, band_r0=2, band_r1=8, band_c0=2, band_c1=14, "
                                      "shift_margin=1}")},
      {"band_empty", "teeth stamp yields a non-positive stored patch (12x0)"},
      {"band_negative", "teeth stamp yields a non-positive stored patch (-8x10)"},
      {"band_huge",
       "teeth stamp yields a stored patch (104x4000000004) of more than 2147483647 bytes per donor — no bank holds "
       "frames that large"},
      {"band_huge_both",
       "teeth stamp yields a stored patch (4000000004x4000000004) of more than 2147483647 bytes per donor — no bank "
       "holds frames that large"},
      {"n_zero", "tessera_bank.v1.json says n_donors=0"},
      {"n_negative", "tessera_bank.v1.json says n_donors=-3"},
      {"n_1025",
       "tessera_bank.v1.json carries n_donors=1025, over the owner's cap of 1024 (ruling 2026-08-28). This reader "
       "REFUSES rather than capping: the selector is the bank's BUILD-time cap selector, and a second one here would "
       "change which donors reach the mouth while every count-based check stayed green. Rebuild the bank."},
      {"n_missing", "teeth: tessera_bank.v1.json lacks numeric 'n_donors'"},
      {"n_string", "teeth: tessera_bank.v1.json lacks numeric 'n_donors'"},
      {"aperture_missing", arrays},
      {"cent_object", arrays},
      {"c_canon_number", arrays},
      {"count_mismatch",
       "tessera_bank.v1.json says n_donors=5 but carries track_order=4, cent=5, aperture=6 — a count mismatch "
       "silently mis-orders the donors."},
      {"c_canon_triple", "tessera_bank.v1.json c_canon is not a pair"},
      {"order_out_of_range", "tessera_bank.v1.json track_order[2]=5 is outside [0,5)"},
      {"order_negative", "tessera_bank.v1.json track_order[1]=-1 is outside [0,5)"},
      {"order_repeat",
       "tessera_bank.v1.json track_order is not a permutation (reference 1 appears twice) — the inverse permutation "
       "would leave a reference slot never written and the pass would blend uninitialised memory into a real mouth."},
      // A string entry reads as 0 and collides with the true 0.
      {"order_string",
       "tessera_bank.v1.json track_order is not a permutation (reference 0 appears twice) — the inverse permutation "
       "would leave a reference slot never written and the pass would blend uninitialised memory into a real mouth."},
      {"cent_not_pair", "tessera_bank.v1.json cent[2] is not an (x,y) pair"},
      {"cent_scalar", "tessera_bank.v1.json cent[0] is not an (x,y) pair"},
      {"no_pix_fmt", pixFmt},
      {"no_codec_block", pixFmt},
      {"pix_fmt_not_string", pixFmt},
      {"head_config_is_dir", "teeth: short read {bundle}/tessera_head.v1.json"},
  };
}

std::string withBundle(std::string words, const std::string& dir) {
  const std::string mark = "{bundle}";
  for (size_t at; (at = words.find(mark)) != std::string::npos;) words.replace(at, mark.size(), dir);
  return words;
}

TEST(TeethMembers, EveryRefusalWordForWordInTheCallersBuffer) {
  for (const RefusalCase& c : refusalCases()) {
    SCOPED_TRACE(c.name);
    const std::string dir = teeth(std::string("refuse/") + c.name);
    ASSERT_TRUE(le::test::isDir(dir));
    Members m(dir);
    EXPECT_EQ(m.h, nullptr);
    EXPECT_EQ(std::string(m.err), withBundle(c.words, dir));
  }
}

TEST(TeethMembers, MissingMemberCarriesTheListOfSlotKeys) {
  try {
    le::loadTesseraMembers(teeth("refuse/missing_two_no_block"));
    ADD_FAILURE() << "not refused";
  } catch (const le::MissingTesseraMember& e) {
    EXPECT_EQ(e.missing, (std::vector<std::string>{"head_weights", "head_config"}));
  }
}

TEST(TeethMembers, ErrorBufferIsNeverWrittenPastItsSize) {
  const std::string dir = teeth("refuse/n_zero");
  char buf[32];
  std::memset(buf, 'X', sizeof buf);
  EXPECT_EQ(le_tessera_members_open(dir.c_str(), buf, 10), nullptr);
  EXPECT_EQ(std::string(buf), "tessera_b");  // 9 bytes and the terminator
  for (size_t i = 10; i < sizeof buf; ++i) EXPECT_EQ(buf[i], 'X') << i;

  std::memset(buf, 'X', sizeof buf);
  EXPECT_EQ(le_tessera_members_open(dir.c_str(), buf, 1), nullptr);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(buf[1], 'X');
  for (const int size : {0, -5}) {
    std::memset(buf, 'X', sizeof buf);
    EXPECT_EQ(le_tessera_members_open(dir.c_str(), buf, size), nullptr);
    EXPECT_EQ(buf[0], 'X');
  }
  EXPECT_EQ(le_tessera_members_open(dir.c_str(), nullptr, 100), nullptr);

  char wide[64];
  EXPECT_EQ(le_tessera_members_open(nullptr, wide, sizeof wide), nullptr);
  EXPECT_STREQ(wide, "le_tessera_members_open: null bundle_dir");
  EXPECT_EQ(le_tessera_members_open(nullptr, nullptr, 0), nullptr);
}

TEST(TeethMembers, ReorderPutsTrackFramesInDonorOrder) {
  Members m(teeth("bundle"));
  ASSERT_NE(m.h, nullptr) << m.err;
  const size_t total = static_cast<size_t>(le_tessera_members_band_bytes(m.h));
  const size_t frame = total / 5;
  std::vector<uint8_t> track(total), donor(total, 0xEE);
  for (size_t i = 0; i < total; ++i) track[i] = static_cast<uint8_t>((i / frame) * 40 + i % 37);
  char err[64] = "untouched";
  ASSERT_EQ(le_tessera_members_reorder(m.h, track.data(), donor.data(), err, sizeof err), 0) << err;
  const std::vector<int32_t> order = expectArray<int32_t>("track_order.i32");
  for (size_t i = 0; i < order.size(); ++i) {
    EXPECT_EQ(std::memcmp(donor.data() + static_cast<size_t>(order[i]) * frame, track.data() + i * frame, frame), 0)
        << "track frame " << i;
  }

  for (int nulls = 0; nulls < 3; ++nulls) {
    std::strcpy(err, "untouched");
    EXPECT_EQ(le_tessera_members_reorder(nulls == 0 ? nullptr : m.h, nulls == 1 ? nullptr : track.data(),
                                         nulls == 2 ? nullptr : donor.data(), err, sizeof err),
              1);
    EXPECT_STREQ(err, "le_tessera_members_reorder: null argument");
  }
  EXPECT_EQ(le_tessera_members_reorder(nullptr, nullptr, nullptr, nullptr, 0), 1);
}

TEST(TeethMembers, ReorderRefusesARecordThatDoesNotHoldTogether) {
  le::TesseraAttachInputs in = le::loadTesseraMembers(teeth("bundle"));
  std::vector<uint8_t> track(static_cast<size_t>(in.n_donors) * in.band_w * in.band_h * 3, 1);
  std::vector<uint8_t> donor(track.size(), 0);
  auto refusal = [&] { return le::test::errorOf([&] { le::reorderTrackToDonor(in, track.data(), donor.data()); }); };
  EXPECT_EQ(le::test::errorOf([&] { le::reorderTrackToDonor(in, nullptr, donor.data()); }), "teeth: null band buffer");
  EXPECT_EQ(le::test::errorOf([&] { le::reorderTrackToDonor(in, track.data(), nullptr); }), "teeth: null band buffer");
  le::TesseraAttachInputs shortOrder = in;
  shortOrder.track_order.pop_back();
  EXPECT_EQ(le::test::errorOf([&] { le::reorderTrackToDonor(shortOrder, track.data(), donor.data()); }),
            "teeth: track_order does not match n_donors");
  le::TesseraAttachInputs flat = in;
  flat.band_h = 0;
  EXPECT_EQ(le::test::errorOf([&] { le::reorderTrackToDonor(flat, track.data(), donor.data()); }),
            "teeth: zero reference stride");
  // A hand-made order that points outside the bank writes nothing at all.
  in.track_order[3] = 9;
  EXPECT_EQ(refusal(), "teeth: track_order does not match n_donors");
  EXPECT_EQ(donor, std::vector<uint8_t>(donor.size(), 0));
}

TEST(TeethCarriage, CompleteBundle) {
  const std::string dir = teeth("bundle");
  Carriage c(dir);
  ASSERT_NE(c.h, nullptr);
  EXPECT_EQ(le_tessera_carriage_complete(c.h), 1);
  EXPECT_EQ(le_tessera_carriage_declared(c.h), 1);
  EXPECT_EQ(le_tessera_carriage_missing_count(c.h), 0);
  EXPECT_EQ(le_tessera_carriage_missing(c.h, 0), nullptr);
  EXPECT_EQ(std::string(le_tessera_carriage_path(c.h, "bank_track")), dir + "/tessera_bank.v1.mp4");
  const char* sidecar = le_tessera_carriage_path(c.h, "bank_sidecar");
  EXPECT_EQ(std::string(sidecar), dir + "/tessera_bank.v1.json");
  EXPECT_EQ(std::string(le_tessera_carriage_path(c.h, "head_weights")), dir + "/tessera_head.v1.pt");
  EXPECT_EQ(std::string(le_tessera_carriage_path(c.h, "head_config")), dir + "/tessera_head.v1.json");
  EXPECT_STREQ(le_tessera_carriage_path(c.h, "bank"), "");
  EXPECT_STREQ(le_tessera_carriage_path(c.h, nullptr), "");
  EXPECT_STREQ(le_tessera_carriage_path(nullptr, "bank_track"), "");
  EXPECT_EQ(le_tessera_carriage_complete(nullptr), 0);
  EXPECT_EQ(le_tessera_carriage_declared(nullptr), 0);
  EXPECT_EQ(le_tessera_carriage_missing_count(nullptr), 0);
  EXPECT_EQ(le_tessera_carriage_missing(nullptr, 0), nullptr);

  const le::TesseraCarriage cpp = le::tesseraCarriage(dir);
  EXPECT_EQ(cpp.planes, (std::vector<std::string>{"cpu", "gpu"}));
  EXPECT_EQ(le::test::errorOf([&] { cpp.path("bank"); }), "teeth: no such member slot 'bank'");
}

TEST(TeethCarriage, MissingMembersAndWhatTheManifestDeclares) {
  {
    Carriage c(teeth("refuse/missing_track"));
    EXPECT_EQ(le_tessera_carriage_complete(c.h), 0);
    EXPECT_EQ(le_tessera_carriage_declared(c.h), 1);
    ASSERT_EQ(le_tessera_carriage_missing_count(c.h), 1);
    EXPECT_STREQ(le_tessera_carriage_missing(c.h, 0), "bank_track");
    EXPECT_EQ(le_tessera_carriage_missing(c.h, 1), nullptr);
    EXPECT_EQ(le_tessera_carriage_missing(c.h, -1), nullptr);
    // The path is resolved whether or not the file is there.
    EXPECT_EQ(std::string(le_tessera_carriage_path(c.h, "bank_track")),
              teeth("refuse/missing_track") + "/tessera_bank.v1.mp4");
  }
  {
    // Without a manifest the default names alone decide.
    Carriage c(teeth("refuse/no_manifest"));
    EXPECT_EQ(le_tessera_carriage_complete(c.h), 1);
    EXPECT_EQ(le_tessera_carriage_declared(c.h), 0);
  }
  for (const char* notDeclared : {"refuse/manifest_not_json", "accept/block_not_object", "accept/no_block"}) {
    Carriage c(teeth(notDeclared));
    EXPECT_EQ(le_tessera_carriage_declared(c.h), 0) << notDeclared;
    EXPECT_EQ(le_tessera_carriage_complete(c.h), 1) << notDeclared;
  }
  {
    // Renamed slots; an empty name and a number keep the defaults, and only
    // string planes are kept.
    const std::string dir = teeth("accept/renamed");
    const le::TesseraCarriage c = le::tesseraCarriage(dir);
    EXPECT_TRUE(c.complete);
    EXPECT_EQ(c.slots[0], "bank/track.mkv");
    EXPECT_EQ(c.slots[1], "bank/side.json");
    EXPECT_EQ(c.slots[2], "tessera_head.v1.pt");
    EXPECT_EQ(c.slots[3], "tessera_head.v1.json");
    EXPECT_EQ(c.paths[1], dir + "/bank/side.json");
    EXPECT_EQ(c.planes, (std::vector<std::string>{"cpu", "gpu"}));
    le::Manifest manifest;
    manifest.bundle_dir = dir;
    EXPECT_EQ(le::tesseraCarriage(manifest).paths, c.paths);
  }
  {
    // An empty file is present.
    Carriage c(teeth("accept/empty_track"));
    EXPECT_EQ(le_tessera_carriage_complete(c.h), 1);
  }
}

TEST(TeethCarriage, ABundleThatCannotBeLookedAtMissesEverything) {
  EXPECT_EQ(le_tessera_carriage_open(nullptr), nullptr);
  le::test::TempDir root;
  le::test::ScopedEnv env("LE_IMX_UNWRAP_ROOT", root.path().c_str());
  for (const std::string& path : {root / "absent", dataPath("containers/truncated_toc.imx")}) {
    SCOPED_TRACE(path);
    Carriage c(path);
    ASSERT_NE(c.h, nullptr);
    EXPECT_EQ(le_tessera_carriage_complete(c.h), 0);
    EXPECT_EQ(le_tessera_carriage_declared(c.h), 0);
    ASSERT_EQ(le_tessera_carriage_missing_count(c.h), 4);
    for (int i = 0; i < 4; ++i) EXPECT_STREQ(le_tessera_carriage_missing(c.h, i), le_tessera_slot_key(i));
  }
  // A container that cannot be unpacked leaves no paths at all.
  Carriage broken(dataPath("containers/truncated_toc.imx"));
  EXPECT_STREQ(le_tessera_carriage_path(broken.h, "bank_track"), "");
  Carriage absent(root / "absent");
  EXPECT_EQ(std::string(le_tessera_carriage_path(absent.h, "bank_track")), root / "absent/tessera_bank.v1.mp4");
}

// The stamp of the teeth bundle: a 16x10 window at (8, 16) on a 32 canvas.
le::GeometryStamp goodStamp() {
  le::GeometryStamp s;
  s.v = {32, 32, 8, 16, 16, 10, 2, 2, 8, 2, 14, 2};
  return s;
}

TEST(GeometryStamp, CoherentStampsPass) {
  EXPECT_NO_THROW(goodStamp().validate());
  le::GeometryStamp s = goodStamp();
  s.v[le::GeometryStamp::kShiftMargin] = 0;  // no shift at all is allowed
  EXPECT_NO_THROW(s.validate());
  // The band may fill the window and the stored patch the padded window.
  s = goodStamp();
  s.v = {32, 32, 0, 0, 32, 32, 2, 0, 32, 0, 32, 2};
  EXPECT_NO_THROW(s.validate());
  EXPECT_EQ(le::stampStr(goodStamp()),
            "{canvas_w=32, canvas_h=32, window_x0=8, window_y0=16, window_w=16, window_h=10, pad=2, band_r0=2, "
            "band_r1=8, band_c0=2, band_c1=14, shift_margin=2}");
}

TEST(GeometryStamp, EachTestNamesItsFault) {
  using G = le::GeometryStamp;
  const std::string head = "teeth: GeometryStamp incoherent: ";
  struct Case {
    G::Field field;
    int32_t value;
    const char* words;
  };
  const Case cases[] = {
      {G::kWindowW, 0, "window dims must be positive; band cols escape window; stored band cols escape patch;"},
      {G::kWindowX0, -1, "window x-range escapes canvas;"},
      {G::kCanvasW, 23, "window x-range escapes canvas;"},
      {G::kWindowY0, 23, "window y-range escapes canvas;"},
      {G::kBandR1, 11, "band rows escape window; stored band rows escape patch;"},
      {G::kBandR0, 8, "band rows escape window;"},
      {G::kBandC0, -1, "band cols escape window; stored band cols escape patch;"},
      {G::kBandC1, 17, "band cols escape window; stored band cols escape patch;"},
      {G::kShiftMargin, -1, "pad/shift_margin must be positive;"},
      {G::kPad, 0, "pad/shift_margin must be positive;"},
      {G::kShiftMargin, 5, "stored band rows escape patch; stored band cols escape patch;"},
  };
  for (const Case& c : cases) {
    le::GeometryStamp s = goodStamp();
    s.v[c.field] = c.value;
    EXPECT_EQ(le::test::errorOf([&] { s.validate(); }), head + c.words) << G::keys()[c.field] << "=" << c.value;
  }
}

TEST(GeometryStamp, SeveralFaultsInTableOrderAndNoOverflow) {
  le::GeometryStamp s;
  s.v = {10, 10, -1, 0, 0, 12, 0, 5, 20, -3, 0, -2};
  EXPECT_EQ(le::test::errorOf([&] { s.validate(); }),
            "teeth: GeometryStamp incoherent: window dims must be positive; window x-range escapes canvas; window "
            "y-range escapes canvas; band rows escape window; band cols escape window; pad/shift_margin must be "
            "positive; stored band rows escape patch; stored band cols escape patch;");
  // Sums that would wrap in 32 bits are still caught.
  s.v = {INT32_MAX, INT32_MAX, INT32_MAX, 0, INT32_MAX, 1, 1, 0, 1, 0, 1, 0};
  EXPECT_EQ(le::test::errorOf([&] { s.validate(); }), "teeth: GeometryStamp incoherent: window x-range escapes canvas;");
  s.v = {1, INT32_MAX, 0, 0, 1, INT32_MAX, 1, INT32_MAX - 1, INT32_MAX, 0, 1, INT32_MAX - 1};
  EXPECT_EQ(le::test::errorOf([&] { s.validate(); }),
            "teeth: GeometryStamp incoherent: stored band rows escape patch; stored band cols escape patch;");
}

}  // namespace
