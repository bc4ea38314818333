// IMX containers: where they unpack, the cache marker, rebuilds, broken
// containers word for word, and concurrent opens.
#include <fcntl.h>
#include <sys/stat.h>
#include <utime.h>

#include <atomic>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bundle/imx.h"
#include "le/le.h"
#include "tests/support/test_support.h"

namespace {

namespace fs = std::filesystem;
using le::test::dataPath;
using le::test::readFile;

// A scratch directory holding a copy of one generated container.
struct Scratch {
  le::test::TempDir tmp;
  std::string copy(const std::string& name, const std::string& as = "") {
    const std::string to = tmp / (as.empty() ? name : as);
    fs::copy_file(dataPath("containers/" + name), to);
    return to;
  }
};

std::string resolveError(const std::string& path) {
  try {
    le::resolveBundlePath(path);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  ADD_FAILURE() << path << " resolved";
  return {};
}

std::string expectedMarker(const std::string& container) {
  struct stat st {};
  EXPECT_EQ(::lstat(container.c_str(), &st), 0);
  const long long ns = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  return "imx-unwrapped.v2 " + fs::path(container).filename().string() + " " + std::to_string(st.st_size) + " " +
         std::to_string(ns) + " " + std::to_string(st.st_ino);
}

TEST(ImxNaming, ContainerUnpacksBesideItselfAndMatchesTheBundle) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  std::string dir;
  const std::string err = le::test::captureStderr([&] { dir = le::resolveBundlePath(c); });
  EXPECT_EQ(dir, s.tmp / "sample.lebundle");
  EXPECT_EQ(err, "[le] unwrapped " + c + " -> " + dir + "\n");
  EXPECT_EQ(le::test::listFiles(dir), le::test::listFiles(dataPath("sample")));
  for (const std::string& f : le::test::listFiles(dir))
    EXPECT_EQ(readFile(dir + "/" + f), readFile(dataPath("sample/" + f))) << f;
  EXPECT_EQ(readFile(dir + ".imx_unwrapped"), expectedMarker(c));
  // Payloads in any order give the same directory.
  const std::string r = s.copy("sample_reversed.imx");
  const std::string rdir = le::resolveBundlePath(r);
  for (const std::string& f : le::test::listFiles(dataPath("sample")))
    EXPECT_EQ(readFile(rdir + "/" + f), readFile(dataPath("sample/" + f))) << f;
}

TEST(ImxNaming, PathForms) {
  Scratch s;
  s.copy("sample.imx", "x.imx");
  // The name without its suffix finds the container.
  EXPECT_EQ(le::resolveBundlePath(s.tmp / "x"), s.tmp / "x.lebundle");
  EXPECT_EQ(le::resolveBundlePath(s.tmp / "x/"), s.tmp / "x.lebundle");
  // A plain directory with a neighbouring container and no marker: the directory wins, as given.
  fs::create_directory(s.tmp / "y");
  s.copy("sample.imx", "y.imx");
  EXPECT_EQ(le::resolveBundlePath(s.tmp / "y//"), s.tmp / "y//");
  // Any name with the magic and version 2 is a container.
  const std::string bin = s.copy("plain.bin");
  EXPECT_EQ(le::resolveBundlePath(bin), bin + ".lebundle");
  EXPECT_TRUE(le::test::exists(bin + ".lebundle/only.bin"));
  // A name that already ends in .lebundle keeps it once.
  EXPECT_EQ(le::resolveBundlePath(s.copy("y.lebundle.imx")), s.tmp / "y.lebundle");
  // The unwrapped directory of a container named so leads back to it.
  EXPECT_EQ(le::resolveBundlePath(s.tmp / "y.lebundle"), s.tmp / "y.lebundle");
  // Version 1 is not a container here: the path falls through unchanged.
  const std::string v1 = s.copy("version1.imx");
  EXPECT_FALSE(le::isImxV2File(v1));
  EXPECT_EQ(le::resolveBundlePath(v1), v1);
  EXPECT_FALSE(le::test::exists(s.tmp / "version1.lebundle"));
  EXPECT_EQ(le::resolveBundlePath(""), "");
  EXPECT_EQ(le::resolveBundlePath(s.tmp / "nothing"), s.tmp / "nothing");
}

TEST(ImxNaming, UnwrapRootFromTheEnvironment) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  le::test::TempDir root;
  le::test::ScopedEnv env("LE_IMX_UNWRAP_ROOT", (root.path() + "///").c_str());
  EXPECT_EQ(le::resolveBundlePath(c), root / "sample.lebundle");
  EXPECT_TRUE(le::test::exists(root / "sample.lebundle.imx_unwrapped"));
  EXPECT_FALSE(le::test::exists(s.tmp / "sample.lebundle"));
}

TEST(ImxCache, MarkedDirectoryIsReusedAndAChangedContainerRebuilds) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  const std::string dir = le::resolveBundlePath(c);
  le::test::writeFile(dir + "/sentinel", "kept while the marker holds");
  EXPECT_EQ(le::test::captureStderr([&] { EXPECT_EQ(le::resolveBundlePath(c), dir); }), "");
  EXPECT_TRUE(le::test::exists(dir + "/sentinel"));
  // Passing the unwrapped directory itself re-checks its container too.
  EXPECT_EQ(le::resolveBundlePath(dir), dir);

  // Touching the container's modification time forces a rebuild.
  struct timespec times[2] = {{0, UTIME_OMIT}, {1234567890, 123456789}};
  ASSERT_EQ(::utimensat(AT_FDCWD, c.c_str(), times, 0), 0);
  EXPECT_NE(le::test::captureStderr([&] { le::resolveBundlePath(c); }), "");
  EXPECT_FALSE(le::test::exists(dir + "/sentinel"));
  EXPECT_EQ(readFile(dir + ".imx_unwrapped"), expectedMarker(c));
  EXPECT_NE(expectedMarker(c).find(" 1234567890123456789 "), std::string::npos);

  // Replacing the file (new inode and size) rebuilds with the new members.
  fs::remove(c);
  fs::copy_file(dataPath("containers/zero_length.imx"), c);
  le::resolveBundlePath(c);
  EXPECT_TRUE(le::test::exists(dir + "/empty.bin"));
  EXPECT_FALSE(le::test::exists(dir + "/P.f16"));

  // A marker that doesn't match, or surrounded by blanks, is judged by content.
  le::test::writeFile(dir + ".imx_unwrapped", " \t" + expectedMarker(c) + "\r\n");
  le::test::writeFile(dir + "/sentinel", "x");
  le::resolveBundlePath(c);
  EXPECT_TRUE(le::test::exists(dir + "/sentinel"));
  le::test::writeFile(dir + ".imx_unwrapped", "imx-unwrapped.v2 other");
  le::resolveBundlePath(c);
  EXPECT_FALSE(le::test::exists(dir + "/sentinel"));
}

TEST(ImxCache, StaleFileOrLinkInPlaceOfTheDirectoryIsReplaced) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  le::test::TempDir elsewhere;
  le::test::writeFile(elsewhere / "precious", "must survive");
  fs::create_directory_symlink(elsewhere.path(), s.tmp / "sample.lebundle");
  const std::string dir = le::resolveBundlePath(c);
  EXPECT_TRUE(fs::is_directory(fs::symlink_status(dir)));
  EXPECT_EQ(readFile(elsewhere / "precious"), "must survive");
}

TEST(ImxMembers, EmptyZeroLengthAndSyntheticManifest) {
  Scratch s;
  const std::string empty = le::resolveBundlePath(s.copy("empty.imx"));
  EXPECT_TRUE(le::test::isDir(empty));
  EXPECT_TRUE(le::test::listFiles(empty).empty());
  EXPECT_TRUE(le::test::exists(empty + ".imx_unwrapped"));
  const std::string zero = le::resolveBundlePath(s.copy("zero_length.imx"));
  EXPECT_EQ(readFile(zero + "/empty.bin"), "");
  EXPECT_EQ(readFile(zero + "/nested/deeper/one.bin"), "1");
  const std::string synth = le::resolveBundlePath(s.copy("synthetic_manifest.imx"));
  EXPECT_EQ(le::test::listFiles(synth), std::vector<std::string>{"data.bin"});
}

TEST(ImxRefusals, BrokenContainersWordForWord) {
  Scratch s;
  const auto check = [&](const std::string& name, const std::string& tail) {
    const std::string c = s.copy(name);
    EXPECT_EQ(resolveError(c), c + tail) << name;
    EXPECT_FALSE(le::test::exists(le::imxMarkerPath(c))) << name;
  };
  check("truncated_toc.imx", ": truncated TOC at member 1");
  check("truncated_name.imx", ": truncated member name at 1");
  check("truncated_offsets.imx", ": truncated TOC offsets at member b.bin");
  check("truncated_payload.imx", ": truncated payload for member a.bin");
  check("seek_beyond.imx", ": cannot seek to member a.bin");
  check("unsafe_dotdot.imx", ": refusing unsafe member name 'a/../b'");
  check("unsafe_absolute.imx", ": refusing unsafe member name '/etc/x'");
  check("unsafe_backslash.imx", ": refusing unsafe member name '\\x'");
  check("unsafe_dots.imx", ": refusing unsafe member name 'a..b'");
  check("unsafe_empty.imx", ": refusing unsafe member name ''");
  check("unsafe_nul.imx", ": refusing unsafe member name 'a");
  // A refused container leaves no half-written member behind.
  EXPECT_FALSE(le::test::exists(s.tmp / "truncated_payload.lebundle/a.bin"));
  EXPECT_FALSE(le::test::exists(s.tmp / "truncated_payload.lebundle/a.bin.part"));
  // Files that are not containers at all fall through as paths.
  for (const char* name : {"bad_magic.imx", "short_header.imx", "version3.imx"}) {
    const std::string c = s.copy(name);
    EXPECT_FALSE(le::isImxV2File(c));
    EXPECT_EQ(le::resolveBundlePath(c), c);
  }
}

TEST(ImxRefusals, UnwrapDirectoryThatCannotBeMade) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  le::test::writeFile(s.tmp / "blocker", "a file where a directory must go");
  le::test::ScopedEnv env("LE_IMX_UNWRAP_ROOT", (s.tmp / "blocker").c_str());
  EXPECT_EQ(resolveError(c), "cannot create unwrap dir " + s.tmp / "blocker/sample.lebundle");
}

TEST(ImxRefusals, MembersThatCollide) {
  Scratch s;
  // A member file where an earlier member made a directory can't be placed,
  // and its ".part" file goes with the refusal.
  const std::string place = s.copy("place_conflict.imx");
  const std::string pdir = le::imxUnwrapDir(place);
  EXPECT_EQ(resolveError(place), "cannot place member " + pdir + "/d");
  EXPECT_FALSE(le::test::exists(pdir + "/d.part"));
  // A member below an earlier member file has no parent directory to go in.
  const std::string parent = s.copy("parent_conflict.imx");
  EXPECT_EQ(resolveError(parent), "cannot create " + le::imxUnwrapDir(parent) + "/f");
  EXPECT_FALSE(le::test::exists(le::imxMarkerPath(parent)));
  // A member whose ".part" file can't be opened.
  const std::string part = s.copy("part_conflict.imx");
  EXPECT_EQ(resolveError(part), "cannot write " + le::imxUnwrapDir(part) + "/x.bin.part");
}

TEST(ImxRefusals, MarkerThatCannotBeWritten) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  const std::string marker = le::imxMarkerPath(c);
  std::filesystem::create_directory(marker);
  EXPECT_EQ(resolveError(c), "cannot write unwrap marker " + marker);
  // Without a marker the directory is never taken as finished.
  std::filesystem::remove(marker);
  EXPECT_NE(le::test::captureStderr([&] { le::resolveBundlePath(c); }), "");
}

TEST(ImxConcurrency, ConcurrentOpensOfOneContainerUnwrapOnce) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  std::atomic<int> opened{0};
  std::string err = le::test::captureStderr([&] {
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i)
      threads.emplace_back([&] {
        le_ctx* ctx = le_create(c.c_str(), "render", 1, nullptr);
        if (ctx && le_width(ctx) == 64) ++opened;
        le_destroy(ctx);
      });
    for (auto& t : threads) t.join();
  });
  EXPECT_EQ(opened.load(), 8);
  size_t lines = 0;
  for (size_t p = err.find("[le] unwrapped"); p != std::string::npos; p = err.find("[le] unwrapped", p + 1)) ++lines;
  EXPECT_EQ(lines, 1u) << err;
}

TEST(ImxCApi, ResolveHandle) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  const std::string want = s.tmp / "sample.lebundle";
  std::string buf(want.size() + 1, 'x');
  EXPECT_EQ(le_bundle_resolve_handle(c.c_str(), buf.data(), want.size() + 1), 1);
  EXPECT_STREQ(buf.c_str(), want.c_str());
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(le_bundle_resolve_handle(c.c_str(), buf.data(), want.size()), -1);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_STREQ(le_last_error(), "le_bundle_resolve_handle: buffer too small");
  const std::string bad = s.copy("truncated_toc.imx");
  EXPECT_EQ(le_bundle_resolve_handle(bad.c_str(), buf.data(), buf.size()), -1);
  EXPECT_EQ(le_last_error(), "le_bundle_resolve_handle: " + bad + ": truncated TOC at member 1");
  // Bad arguments give -1 and no text.
  EXPECT_EQ(le_bundle_resolve_handle(nullptr, buf.data(), buf.size()), -1);
  EXPECT_STREQ(le_last_error(), "");
  EXPECT_EQ(le_bundle_resolve_handle(c.c_str(), buf.data(), 0), -1);
  // The member lookup catches the container's failure too.
  EXPECT_EQ(le_bundle_resolve_member(bad.c_str(), "P.f16", buf.data(), buf.size()), -1);
  EXPECT_EQ(buf[0], '\0');
  EXPECT_EQ(le_last_error(), "le_bundle_resolve_member: " + bad + ": truncated TOC at member 1");
}

TEST(ImxCApi, ContextFromAContainer) {
  Scratch s;
  const std::string c = s.copy("sample.imx");
  le_ctx* ctx = le_create(c.c_str(), "render", 0, nullptr);
  ASSERT_NE(ctx, nullptr) << le_last_error();
  EXPECT_EQ(le_nt(ctx), 4);
  EXPECT_EQ(le_width(ctx), 64);
  EXPECT_EQ(le_height(ctx), 48);
  EXPECT_EQ(le_crop(ctx), 32);
  le_destroy(ctx);
  const std::string bad = s.copy("unsafe_dotdot.imx");
  EXPECT_EQ(le_create(bad.c_str(), "render", 0, nullptr), nullptr);
  EXPECT_EQ(le_last_error(), "le_create: " + bad + ": refusing unsafe member name 'a/../b'");
}

}  // namespace
