// The IMX container reader, unwrap included: the input is a container file
// in a private directory, resolved as a bundle. Whatever it holds, nothing
// may be written outside the unwrap directory and its marker, every file in
// that directory is a member the table names (no ".part" file stays behind),
// a refusal leaves no marker, and a finished unwrap is found again through
// its marker.
#include <filesystem>
#include <set>
#include <stdexcept>
#include <string>

#include "bundle/imx.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

namespace fs = std::filesystem;

// The member names of the table, as far as it goes.
std::set<std::string> memberNames(const uint8_t* data, size_t size) {
  std::set<std::string> names;
  if (size < 8) return names;
  const size_t count = data[6] | data[7] << 8;
  size_t at = 8;
  for (size_t i = 0; i < count && at + 2 <= size; ++i) {
    const size_t len = data[at] | data[at + 1] << 8;
    if (at + 2 + len > size) break;
    // "a//b" and "a/./b" land on a/b.
    names.insert(fs::path(std::string(reinterpret_cast<const char*>(data + at + 2), len)).lexically_normal().string());
    at += 2 + len + 16;
  }
  return names;
}

// Regular files under dir, as paths relative to it, that the table doesn't name.
bool strayFiles(const std::string& dir, const std::set<std::string>& names) {
  std::error_code ec;
  if (!fs::is_directory(dir, ec)) return false;
  for (auto it = fs::recursive_directory_iterator(dir, ec); !ec && it != fs::recursive_directory_iterator();
       it.increment(ec))
    if (it->is_regular_file() && !names.count(fs::relative(it->path(), dir).string())) return true;
  return false;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string root = [] {
    ::unsetenv("LE_IMX_UNWRAP_ROOT");
    return le::fuzz::privateDir();
  }();
  const std::string container = root + "/in.imx";
  const std::string outDir = root + "/in.lebundle";
  const std::string marker = outDir + ".imx_unwrapped";
  // A rewritten container of the same size can carry the same modification
  // time to the clock's grain: the marker goes, so every input unwraps.
  le::fuzz::removeTree(marker);
  le::fuzz::writeFile(container, le::fuzz::asText(data, size));

  try {
    // Bytes that are no version 2 container come back as a plain path.
    if (const std::string dir = le::resolveBundlePath(container); dir != container) {
      FUZZ_CHECK(dir == outDir);
      FUZZ_CHECK(fs::exists(marker));
      FUZZ_CHECK(le::resolveBundlePath(container) == outDir);  // the marker holds
    }
  } catch (const std::runtime_error&) {
    FUZZ_CHECK(!fs::exists(marker));
  }
  FUZZ_CHECK(!strayFiles(outDir, memberNames(data, size)));
  // Nothing beside the container, the unwrap directory and its marker.
  for (const auto& e : fs::directory_iterator(root)) {
    const std::string p = e.path().string();
    FUZZ_CHECK(p == container || p == outDir || p == marker);
  }
  le::fuzz::removeTree(outDir);
  return 0;
}
