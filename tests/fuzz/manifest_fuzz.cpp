// The manifest: its key scanner over arbitrary text, then the whole loader
// over a bundle directory holding the input as manifest.json, at the native
// canvas and at every output height the text could name.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "bundle/manifest.h"
#include "bundle/manifest_key.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

namespace mk = le::manifest_key;

// Every key the loader asks the scanner for.
const char* const kKeys[] = {"format", "agent",   "NT",        "frame_count",        "H",
                             "W",      "crop",    "crop_size", "amount",             "sigma",
                             "ksize",  "frames",  "M_src_w",   "paste_source_width", "M_src_h",
                             "paste_source_height", "outputs",   "width",      "height", "driver_mp4"};

void scan(const std::string& text) {
  for (const char* key : kKeys) {
    for (const mk::KeyHit& h : mk::keyHits(text, key)) {
      FUZZ_CHECK(h.pos <= text.size());
      FUZZ_CHECK(!h.scalar || h.pos < text.size());
    }
    try {
      const size_t pos = mk::scalarValuePos(text, key);
      FUZZ_CHECK(pos == mk::kNotFound || pos < text.size());
      mk::stringValue(text, key);
    } catch (const std::runtime_error&) {
      // AMBIGUOUS: a refusal.
    }
  }
}

// Decimal keys of the text ("360": ...), the heights an "outputs" block may
// publish; at most four distinct ones.
std::vector<int> heightsNamed(const std::string& text) {
  std::vector<int> heights;
  for (size_t i = 0; i < text.size() && heights.size() < 4; ++i) {
    if (text[i] != '"') continue;
    size_t j = i + 1;
    long v = 0;
    while (j < text.size() && j - i <= 9 && text[j] >= '0' && text[j] <= '9') v = v * 10 + (text[j++] - '0');
    if (j == i + 1 || j >= text.size() || text[j] != '"') continue;
    const int h = static_cast<int>(v);
    bool seen = false;
    for (int k : heights) seen = seen || k == h;
    if (!seen) heights.push_back(h);
  }
  return heights;
}

void checkServed(const le::Manifest& m, int height) {
  FUZZ_CHECK(m.NT > 0 && m.H > 0 && m.W > 0 && m.crop > 0);
  FUZZ_CHECK(m.M_src_w >= 1 && m.M_src_h >= 1);
  if (m.output_height != 0) {
    FUZZ_CHECK(m.output_height == height);
    FUZZ_CHECK(m.W % 2 == 0 && m.H % 2 == 0 && std::min(m.W, m.H) == height);
    FUZZ_CHECK(!m.driver_mp4.empty() && m.driver_mp4[0] != '.');
    FUZZ_CHECK(m.driver_mp4.find_first_of("/\\") == std::string::npos);
  }
}

void load(const std::string& dir, int height) {
  try {
    checkServed(le::loadManifest(dir, height), height);
  } catch (const std::runtime_error& e) {
    // A manifest without a paste-space stamp is served under the legacy
    // override; the rest of the loader still has to hold.
    if (std::string(e.what()).find("declares no paste-space stamp") == std::string::npos) return;
    ::setenv("VESPERA2_MSRC_MISSING_OK", "1", 1);
    try {
      checkServed(le::loadManifest(dir, height), height);
    } catch (const std::runtime_error&) {
    }
    ::unsetenv("VESPERA2_MSRC_MISSING_OK");
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static const std::string dir = [] {
    const std::string d = le::fuzz::privateDir();
    ::unsetenv("VESPERA2_MSRC_MISSING_OK");
    // The drivers the generated manifests publish.
    for (const char* name : {"driver_360.mp4", "driver_405.mp4", "driver_406.mp4", "driver_270.mp4"})
      le::fuzz::writeFile(d + "/" + name, "driver");
    return d;
  }();
  const std::string text(le::fuzz::asText(data, size));
  scan(text);
  le::fuzz::writeFile(dir + "/manifest.json", text);
  load(dir, 0);
  for (int height : heightsNamed(text)) load(dir, height);
  return 0;
}
