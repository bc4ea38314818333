// The packer writes containers the reader opens back to the same files.
#include <filesystem>
#include <stdexcept>
#include <string>

#include "bundle/imx.h"
#include "bundle/imx_writer.h"
#include "tests/support/test_support.h"

namespace {

namespace fs = std::filesystem;
using le::test::dataPath;
using le::test::readFile;

TEST(ImxWriter, RoundTripOfEveryGeneratedBundle) {
  for (const char* name : {"sample", "sample_canonical", "priors/hevc_present"}) {
    le::test::TempDir tmp;
    const std::string c = tmp / "b.imx";
    const le::ImxPackResult r = le::writeImx(dataPath(name), c);
    const auto files = le::test::listFiles(dataPath(name));
    EXPECT_EQ(r.members, files.size());
    EXPECT_EQ(r.bytes, fs::file_size(c));
    const std::string dir = le::resolveBundlePath(c);
    ASSERT_EQ(le::test::listFiles(dir), files) << name;
    for (const auto& f : files) EXPECT_EQ(readFile(dir + "/" + f), readFile(dataPath(name) + "/" + f));
  }
}

TEST(ImxWriter, SameInputSameBytes) {
  le::test::TempDir tmp;
  le::writeImx(dataPath("sample"), tmp / "a.imx");
  le::writeImx(dataPath("sample"), tmp / "b.imx");
  EXPECT_EQ(readFile(tmp / "a.imx"), readFile(tmp / "b.imx"));
  // The generator's independent writer lays out the same container.
  EXPECT_EQ(readFile(tmp / "a.imx"), readFile(dataPath("containers/sample.imx")));
}

TEST(ImxWriter, RefusesWhatTheReaderWouldRefuse) {
  le::test::TempDir src, out;
  le::test::writeFile(src / "a..b", "x");
  try {
    le::writeImx(src.path(), out / "x.imx");
    ADD_FAILURE() << "packed";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "pack: member name 'a..b' would be refused when the container is opened");
  }
  EXPECT_FALSE(le::test::exists(out / "x.imx"));
  EXPECT_FALSE(le::test::exists(out / "x.imx.part"));
  fs::remove(src / "a..b");
  fs::create_symlink("/etc/hostname", src / "link");
  EXPECT_THROW(le::writeImx(src.path(), out / "x.imx"), std::runtime_error);
  EXPECT_THROW(le::writeImx(src / "missing", out / "x.imx"), std::runtime_error);
}

}  // namespace
