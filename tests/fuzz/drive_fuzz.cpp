// The drive tables as the manifest in the input asks for them: a bundle
// directory holding the input as manifest.json beside three-row tables
// (source frames 0, 1 and 2). Whatever "frames" and "NT" say, a table is
// read only when the file holds exactly the rows named, and every source
// frame index that comes back lies in [0, NT).
#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle/drive.h"
#include "bundle/manifest.h"
#include "tests/fuzz/fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    const std::string d = le::fuzz::privateDir();
    std::filesystem::create_directories(d + "/drive");
    ::unsetenv("VESPERA2_MSRC_MISSING_OK");
    const std::vector<float> kp(3 * 63, 0.25f);
    const std::string table(reinterpret_cast<const char*>(kp.data()), kp.size() * sizeof(float));
    le::fuzz::writeFile(d + "/drive/xs.f32", table);
    le::fuzz::writeFile(d + "/drive/xd.f32", table);
    const int32_t si[3] = {0, 1, 2};
    le::fuzz::writeFile(d + "/drive/si.i32", std::string(reinterpret_cast<const char*>(si), sizeof si));
    return d;
  }();
  le::fuzz::writeFile(dir + "/manifest.json", le::fuzz::asText(data, size));
  le::Manifest m;
  try {
    m = le::loadManifest(dir, 0);
  } catch (const std::runtime_error&) {
    return 0;
  }
  try {
    const le::Drive d = le::loadDrive(m);
    FUZZ_CHECK(m.frames == 3 && d.frames == 3);
    FUZZ_CHECK(d.xs.size() == 3 * 63 && d.xd.size() == 3 * 63 && d.si.size() == 3);
    for (const int32_t s : d.si) FUZZ_CHECK(s >= 0 && s < m.NT);
  } catch (const std::runtime_error&) {
  }
  return 0;
}
