// Identity tensors and drive tables: mapped members checked
// against the manifest with their refusals word for word, the prior forms,
// the paste-matrix rescale, and the drive tables.
#include <cstdint>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <sys/stat.h>
#include <vector>

#include "bundle/drive.h"
#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "bundle/mapped_file.h"
#include "driver/cursor.h"
#include "tests/support/test_support.h"

namespace {

using le::test::errorOf;

using le::Identity;
using le::test::dataPath;
using le::test::readFile;

std::string idCase(const std::string& name) { return dataPath("frames/identity/" + name); }

std::string identityError(const std::string& dir) {
  const le::Manifest m = le::loadManifest(dir, 0);
  return errorOf([&] { Identity id(m); });
}

std::string driveError(const std::string& dir) {
  const le::Manifest m = le::loadManifest(dir, 0);
  return errorOf([&] { le::loadDrive(m); });
}

std::vector<float> floatsOf(const std::string& path) {
  const std::string bytes = readFile(path);
  std::vector<float> out(bytes.size() / 4);
  std::memcpy(out.data(), bytes.data(), out.size() * 4);
  return out;
}

uint32_t bitsOf(float f) {
  uint32_t u;
  std::memcpy(&u, &f, 4);
  return u;
}

TEST(Identity, TheSampleMapsEveryRowAtItsOffset) {
  const le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  Identity id(m);
  EXPECT_EQ(id.nt(), 4);
  EXPECT_EQ(id.crop(), 32);
  const std::string pooled = readFile(dataPath("sample/pooled64.f16"));
  const std::string p = readFile(dataPath("sample/P.f16"));
  ASSERT_EQ(pooled.size(), 4u * 131072u);
  ASSERT_EQ(p.size(), 4u * 32u * 32u * 6u);
  for (int si = 0; si < 4; ++si) {
    EXPECT_EQ(std::memcmp(id.pooled64(si), pooled.data() + si * 131072, 131072), 0) << si;
    EXPECT_EQ(std::memcmp(id.P(si), p.data() + si * 32 * 32 * 6, 32 * 32 * 6), 0) << si;
  }
  // Rows differ, so an offset error would show.
  EXPECT_NE(std::memcmp(id.pooled64(0), id.pooled64(1), 131072), 0);
  EXPECT_EQ(id.fsRed(0), nullptr);
  // M_src equals the canvas: M is the file, bit for bit.
  const std::vector<float> file = floatsOf(dataPath("sample/M.f32"));
  ASSERT_EQ(id.m().size(), 24u);
  EXPECT_EQ(std::memcmp(id.m().data(), file.data(), 24 * 4), 0);
  EXPECT_EQ(id.M(2), id.m().data() + 12);
  EXPECT_EQ(id.priorBackend(), "mmap P.f16");
  EXPECT_EQ(id.priorMember(), "");
  EXPECT_EQ(id.priorResidentBytes(), 0u);
  EXPECT_EQ(id.priorSeeks(), 0u);
  id.walkP(3);  // nothing to walk with a mapped prior
}

TEST(Identity, CanonicalNamesLoadTheSameTensors) {
  Identity a(le::loadManifest(dataPath("sample"), 0));
  Identity b(le::loadManifest(dataPath("sample_canonical"), 0));
  EXPECT_EQ(std::memcmp(a.pooled64(3), b.pooled64(3), 131072), 0);
  EXPECT_EQ(std::memcmp(a.P(1), b.P(1), 32 * 32 * 6), 0);
  EXPECT_EQ(a.m(), b.m());
}

TEST(Identity, EveryMemberOfTheWrongLengthIsASizeMismatch) {
  const std::pair<const char*, const char*> cases[] = {
      {"pooled_short", "pooled64.f16"}, {"pooled_long", "pooled64.f16"}, {"p_short", "P.f16"},
      {"p_long", "P.f16"},              {"fs_red_short", "fs_red.f16"},  {"m_short", "M.f32"},
      {"m_long", "M.f32"},
  };
  for (const auto& [name, member] : cases)
    EXPECT_EQ(identityError(idCase(name)), "size mismatch " + idCase(name) + "/" + member) << name;
}

TEST(Identity, AbsentRequiredMembersCannotBeOpened) {
  EXPECT_EQ(identityError(idCase("pooled_missing")), "cannot open " + idCase("pooled_missing") + "/pooled64.f16");
  EXPECT_EQ(identityError(idCase("m_missing")), "cannot open " + idCase("m_missing") + "/M.f32");
}

TEST(Identity, ABundleWithNoPriorIsRefusedFirst) {
  EXPECT_EQ(identityError(dataPath("priors/no_prior")),
            "this bundle carries neither P.f16 nor fs_red.f16, and its manifest names no P_hevc member to play one "
            "from — the renderer has no warp prior and le::Identity would hand it a null pointer. REFUSING to "
            "create a session.");
}

TEST(Identity, BothRawPriorsAreMappedAndTheMappingWins) {
  Identity id(le::loadManifest(idCase("both_priors"), 0));
  EXPECT_EQ(id.priorBackend(), "mmap P.f16");
  for (int si = 0; si < 4; ++si) {
    const auto* row = reinterpret_cast<const uint8_t*>(id.fsRed(si));
    ASSERT_NE(row, nullptr);
    // The generator's marker at each row start: si, 0, 0x5a, 0xa5.
    EXPECT_EQ(row[0], si);
    EXPECT_EQ(row[2], 0x5a);
    EXPECT_EQ(row[3], 0xa5);
    EXPECT_EQ(row[4], 0);
  }
  const auto* pooled = reinterpret_cast<const uint8_t*>(id.pooled64(3));
  EXPECT_EQ(pooled[0], 3);
  EXPECT_EQ(pooled[2], 0x5a);
}

TEST(Identity, ReducedFeaturesOnlyHaveNoPrior) {
  const std::string dir = idCase("fs_red_only");
  Identity id(le::loadManifest(dir, 0));
  EXPECT_EQ(id.priorBackend(), "none");
  EXPECT_EQ(id.priorMember(), "");
  EXPECT_NE(id.fsRed(1), nullptr);
  id.walkP(2);  // nothing to walk
  EXPECT_EQ(errorOf([&] { id.P(0); }),
            "this bundle carries neither a raw P.f16 nor P_hevc.mov (" + dir +
                "/P_hevc.mov) — there is no warp prior to play. REFUSING to create a session.");
}

TEST(Identity, AMoviePriorWaitsForItsFirstUse) {
  for (const auto& [name, member] : {std::pair<const char*, const char*>{"hevc_prior", "P_hevc.mov"},
                                     std::pair<const char*, const char*>{"hevc_prior_named", "prior.mov"}}) {
    const std::string dir = idCase(name);
    Identity id(le::loadManifest(dir, 0));  // loading doesn't open the movie
    EXPECT_EQ(id.priorMember(), dir + "/" + member);
    EXPECT_EQ(id.priorResidentBytes(), 0u);
    EXPECT_EQ(id.priorSeeks(), 0u);
    std::string backend;
    le::test::captureStderr([&] { backend = id.priorBackend(); });
    EXPECT_EQ(backend, "hevc444/ffmpeg x444");
    // The source's own memory and a ring of 14 rows of 32 x 32 x 3 halves.
    EXPECT_EQ(id.priorResidentBytes(), 32u * 32u * 36u + 4u * 6144u + 14u * 6144u);
    for (int si = 0; si < 4; ++si) EXPECT_NE(id.P(si), nullptr);
    EXPECT_EQ(id.priorSeeks(), 0u);  // in order: no seek
    EXPECT_NE(id.P(0), id.P(2));
    EXPECT_EQ(id.priorSeeks(), 0u);  // from history
  }
}

TEST(Identity, AStampOfTwiceTheCanvasHalvesBothRows) {
  Identity id(le::loadManifest(idCase("stamp_double"), 0));
  const std::vector<float> file = floatsOf(idCase("stamp_double") + "/M.f32");
  for (size_t k = 0; k < 24; ++k) EXPECT_EQ(bitsOf(id.m()[k]), bitsOf(file[k] / 2)) << k;
}

TEST(Identity, ARescaleRoundsEachElementOnceFromDouble) {
  const le::Manifest m = le::loadManifest(idCase("stamp_three_halves"), 0);
  ASSERT_EQ(m.M_src_w, 96);
  ASSERT_EQ(m.M_src_h, 72);
  Identity id(m);
  const std::vector<float> file = floatsOf(idCase("stamp_three_halves") + "/M.f32");
  const double sx = 64.0 / 96.0, sy = 48.0 / 72.0;
  int differs_from_single = 0;
  for (size_t f = 0; f < 4; ++f)
    for (size_t k = 0; k < 6; ++k) {
      const float v = file[f * 6 + k];
      const float want = static_cast<float>(static_cast<double>(v) * (k < 3 ? sx : sy));
      EXPECT_EQ(bitsOf(id.M(static_cast<int>(f))[k]), bitsOf(want)) << f << "," << k;
      if (bitsOf(want) != bitsOf(v * static_cast<float>(k < 3 ? sx : sy))) ++differs_from_single;
    }
  EXPECT_GT(differs_from_single, 0) << "the data should tell double from single precision";
}

TEST(Identity, RescaleRefusesAStampBelowOne) {
  const std::string want =
      "le::Identity: manifest carries no paste-space stamp (M_src_w/M_src_h) — refusing to paste M without knowing "
      "the space it was authored in";
  le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  m.M_src_w = 0;
  EXPECT_EQ(errorOf([&] { Identity id(m); }), want);
  m.M_src_w = 64;
  m.M_src_h = -1;
  EXPECT_EQ(errorOf([&] { Identity id(m); }), want);
}

TEST(Identity, APublishedCanvasScalesMFromTheStamp) {
  // A canvas of half the stamp: the Part's 1280x720 on 640x360, in small.
  le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  m.W = 32;
  m.H = 24;
  Identity id(m);
  const std::vector<float> file = floatsOf(dataPath("sample/M.f32"));
  for (size_t k = 0; k < 24; ++k) EXPECT_EQ(bitsOf(id.m()[k]), bitsOf(file[k] / 2)) << k;
}

TEST(Drive, TheSampleTables) {
  const le::Manifest m = le::loadManifest(dataPath("sample"), 0);
  const le::Drive d = le::loadDrive(m);
  EXPECT_EQ(d.frames, 6);
  EXPECT_EQ(d.xs, floatsOf(dataPath("sample/drive/xs.f32")));
  EXPECT_EQ(d.xd, floatsOf(dataPath("sample/drive/xd.f32")));
  EXPECT_EQ(d.xs.size(), 6u * 63u);
  EXPECT_EQ(d.si, (std::vector<int32_t>{0, 1, 2, 3, 0, 1}));
  const le::Drive c = le::loadDrive(le::loadManifest(dataPath("sample_canonical"), 0));
  EXPECT_EQ(c.xs, d.xs);
  EXPECT_EQ(c.xd, d.xd);
  EXPECT_EQ(c.si, d.si);
}

TEST(Drive, TablesOfTheWrongLengthOrAbsent) {
  EXPECT_EQ(driveError(idCase("xs_short")), "size mismatch " + idCase("xs_short") + "/drive/xs.f32");
  EXPECT_EQ(driveError(idCase("xd_long")), "size mismatch " + idCase("xd_long") + "/drive/xd.f32");
  EXPECT_EQ(driveError(idCase("si_long")), "size mismatch " + idCase("si_long") + "/drive/si.i32");
  EXPECT_EQ(driveError(idCase("si_missing")), "cannot open " + idCase("si_missing") + "/drive/si.i32");
}

// The row count is the manifest's word: a "frames" of two billion is
// refused by the length of the table on disk, before any memory is asked
// for it (half a terabyte here, which the allocator would refuse or, with
// overcommit, hand out and let the zero fill exhaust).
TEST(Drive, AFrameCountTheTablesDoNotHoldAllocatesNothing) {
  le::test::TempDir tmp;
  std::string text = readFile(dataPath("sample/manifest.json"));
  const size_t at = text.find("\"frames\": 6");
  ASSERT_NE(at, std::string::npos);
  text.replace(at, 12, "\"frames\": 2000000000");
  le::test::writeFile(tmp / "manifest.json", text);
  for (const char* table : {"drive/xs.f32", "drive/xd.f32", "drive/si.i32"})
    le::test::writeFile(tmp / table, readFile(dataPath(std::string("sample/") + table)));
  EXPECT_EQ(driveError(tmp.path()), "size mismatch " + tmp / "drive/xs.f32");
}

TEST(Drive, EverySourceIndexMustBeAFrame) {
  EXPECT_EQ(driveError(idCase("si_nt")), "drive: si out of range");
  EXPECT_EQ(driveError(idCase("si_negative")), "drive: si out of range");
  const le::Drive d = le::loadDrive(le::loadManifest(idCase("si_nt_minus_1"), 0));
  EXPECT_EQ(d.si, std::vector<int32_t>(6, 3));
}

TEST(Drive, ZeroFramesGiveEmptyTables) {
  const le::Drive d = le::loadDrive(le::loadManifest(idCase("frames_zero"), 0));
  EXPECT_EQ(d.frames, 0);
  EXPECT_TRUE(d.xs.empty());
  EXPECT_TRUE(d.xd.empty());
  EXPECT_TRUE(d.si.empty());
}

TEST(MappedFile, ExactLengthsAndTheRefusals) {
  le::test::TempDir tmp;
  le::test::writeFile(tmp / "f.bin", "abcdef");
  {
    le::MappedFile f(tmp / "f.bin", 6);
    ASSERT_FALSE(f.empty());
    EXPECT_EQ(f.size(), 6u);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(f.data()), 6), "abcdef");
    le::MappedFile g(std::move(f));
    EXPECT_TRUE(f.empty());
    EXPECT_EQ(g.data()[5], 'f');
  }
  EXPECT_EQ(errorOf([&] { le::MappedFile f(tmp / "f.bin", 5); }), "size mismatch " + tmp / "f.bin");
  EXPECT_EQ(errorOf([&] { le::MappedFile f(tmp / "f.bin", 7); }), "size mismatch " + tmp / "f.bin");
  EXPECT_EQ(errorOf([&] { le::MappedFile f(tmp / "none", 7); }), "cannot open " + tmp / "none");
  EXPECT_EQ(errorOf([&] { le::MappedFile f(tmp.path(), 4096); }), "size mismatch " + tmp.path());
  char buf[8];
  EXPECT_EQ(errorOf([&] { le::readExact(tmp / "f.bin", buf, 5); }), "size mismatch " + tmp / "f.bin");
  EXPECT_EQ(errorOf([&] { le::readExact(tmp / "f.bin", buf, 7); }), "size mismatch " + tmp / "f.bin");
  le::readExact(tmp / "f.bin", buf, 6);
  EXPECT_EQ(std::string(buf, 6), "abcdef");
  le::test::writeFile(tmp / "empty.bin", "");
  EXPECT_TRUE(le::MappedFile(tmp / "empty.bin", 0).empty());
}

TEST(MappedFile, AFileTheKernelWontMapIsAnMmapFailure) {
  // No generated file can make mmap fail; a sysfs attribute can: a regular
  // file of 4096 bytes whose file system has no mmap.
  const std::string path = "/sys/kernel/mm/transparent_hugepage/enabled";
  struct stat st {};
  if (::stat(path.c_str(), &st) != 0 || st.st_size != 4096 || !le::test::exists(path))
    GTEST_SKIP() << path << " is not a 4096-byte sysfs attribute here";
  const std::string what = errorOf([&] { le::MappedFile f(path, 4096); });
  if (what == "cannot open " + path) GTEST_SKIP() << path << " can't be opened here";
  EXPECT_EQ(what, "mmap failed " + path);
}

}  // namespace
