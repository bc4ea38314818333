#include "bundle/manifest.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/manifest_key.h"
#include "bundle/members.h"

namespace le {

namespace {

using manifest_key::kNotFound;
using manifest_key::KeyHit;

// The value manifests use for "no value here".
constexpr double kAbsent = -1e300;

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

std::string fmt(const char* f, auto... args) {
  const int n = std::snprintf(nullptr, 0, f, args...);
  std::string s(static_cast<size_t>(n), '\0');
  std::snprintf(s.data(), s.size() + 1, f, args...);
  return s;
}

const char* findKey(const std::string& text, const char* key) {
  const size_t pos = manifest_key::scalarValuePos(text, key);
  if (pos == kNotFound) refuse(std::string("manifest: missing key ") + key);
  return text.c_str() + pos;
}

// The text between the first two double quotes from the value on, with no
// unescaping.
std::string strField(const std::string& text, const char* key) {
  const char* v = findKey(text, key);
  const char* open = std::strchr(v, '"');
  const char* close = open ? std::strchr(open + 1, '"') : nullptr;
  if (!close) refuse(std::string("manifest: bad string ") + key);
  return std::string(open + 1, close);
}

// strtod of a key's value, or kAbsent when the key is not there.
double numOrAbsent(const std::string& text, const char* key) {
  const size_t pos = manifest_key::scalarValuePos(text, key);
  return pos == kNotFound ? kAbsent : std::strtod(text.c_str() + pos, nullptr);
}

double numField(const std::string& text, const char* key) {
  const double v = numOrAbsent(text, key);
  if (v == kAbsent) refuse(std::string("manifest: missing key ") + key);
  return v;
}

double numFieldEither(const std::string& text, const char* first, const char* second) {
  double v = numOrAbsent(text, first);
  if (v == kAbsent) v = numOrAbsent(text, second);
  if (v == kAbsent) refuse(std::string("manifest: missing key ") + first + "/" + second);
  return v;
}

// Integer fields take the value truncated toward zero. A value no 32-bit
// integer can hold is refused rather than wrapped or clamped.
int32_t toI32(double v, const char* key) {
  const double t = std::trunc(v);
  if (!(t >= std::numeric_limits<int32_t>::min() && t <= std::numeric_limits<int32_t>::max()))
    refuse(std::string("manifest: ") + key + " is not a 32-bit integer");
  return static_cast<int32_t>(t);
}

// The text of the one root-level object under `key`, or empty if there is
// none.
std::string rootObject(const std::string& text, const std::string& key, const std::string& label) {
  size_t count = 0;
  KeyHit hit{};
  for (const KeyHit& h : manifest_key::keyHits(text, key))
    if (h.depth == 1) {
      ++count;
      hit = h;
    }
  if (count == 0) return {};
  if (count >= 2)
    refuse(label + ": key \"" + key + "\" occurs " + std::to_string(count) +
           " times — refusing to guess which output was published");
  const std::string notObject = label + ": \"" + key + "\" is not a JSON object";
  if (hit.scalar || hit.pos >= text.size()) refuse(notObject);
  int depth = 0;
  for (size_t i = hit.pos; i < text.size(); ++i) {
    const char c = text[i];
    if (c == '"') {
      ++i;
      while (i < text.size() && text[i] != '"') i += (text[i] == '\\') ? 2 : 1;
      if (i >= text.size()) break;
    } else if (c == '[' || c == '{') {
      ++depth;
    } else if (c == ']' || c == '}') {
      if (--depth == 0) return text.substr(hit.pos, i - hit.pos + 1);
    }
  }
  refuse(notObject);
}

double entryNum(const std::string& entry, const char* key, const std::string& label) {
  const size_t pos = manifest_key::scalarValuePos(entry, key);
  const char* start = pos == kNotFound ? nullptr : entry.c_str() + pos;
  char* end = nullptr;
  const double v = start ? std::strtod(start, &end) : 0.0;
  if (!start || end == start) refuse(label + " carries no numeric \"" + key + "\"");
  return v;
}

bool isWholeEven(double v) { return std::isfinite(v) && std::trunc(v) == v && std::fmod(v, 2.0) == 0.0; }

// Steps 8 and 9 of loading: select the published output of `height`.
void selectOutput(Manifest& m, const std::string& text, int32_t height) {
  const std::string& dir = m.bundle_dir;
  const std::string label = dir + "/manifest.json outputs." + std::to_string(height);
  const std::string outputs = rootObject(text, "outputs", dir + "/manifest.json");
  const std::string entry = outputs.empty() ? std::string() : rootObject(outputs, std::to_string(height), label);
  if (entry.empty()) {
    std::fprintf(stderr,
                 "[le] WARNING output height %d was asked for, but %s/manifest.json publishes no "
                 "outputs.%d — serving the bundle's native %dx%d canvas\n",
                 height, dir.c_str(), height, m.W, m.H);
    return;
  }
  const double width = entryNum(entry, "width", label);
  const double outH = entryNum(entry, "height", label);
  if (!isWholeEven(width) || !isWholeEven(outH) || width < 1 || std::fmin(width, outH) != height)
    refuse(label + fmt(" declares %fx%f", width, outH) +
           " — it must be an even WxH whose short side is the key it is published under");
  // The short side is the asked height; the long one still has to be a size
  // the canvas fields hold.
  if (std::fmax(width, outH) > std::numeric_limits<int32_t>::max())
    refuse(label + fmt(" declares %fx%f", width, outH) + " — a side that no 32-bit integer holds cannot be served");
  // Whole numbers in this range multiply exactly in long double.
  if (static_cast<long double>(m.H) * width != static_cast<long double>(m.W) * outH)
    refuse(label + fmt(" is %.0fx%.0f, not the native %dx%d canvas's aspect", width, outH, m.W, m.H) +
           " — the paste would stretch the face");
  const std::string driver = manifest_key::stringValue(entry, "driver_mp4");
  if (driver.empty() || driver[0] == '.' || driver.find_first_of("/\\") != std::string::npos)
    refuse(label + " names no usable driver_mp4 member (\"" + driver + "\")");
  if (!canOpen(resolveMember(dir, driver)))
    refuse(label + " publishes " + driver + " and it is not in " + dir +
           " — this output was asked for and its driver is missing. REFUSING to create a session.");
  const int32_t w = static_cast<int32_t>(width), h = static_cast<int32_t>(outH);
  std::fprintf(stderr, "[le] output %dx%d (outputs.%d: %s) — the bundle's native canvas is %dx%d\n", w, h,
               height, driver.c_str(), m.W, m.H);
  m.W = w;
  m.H = h;
  m.output_height = height;
  m.driver_mp4 = driver;
}

}  // namespace

std::string Manifest::modelPath(const std::string& key) const {
  return resolveMember(bundle_dir, "model_" + key + ".onnx");
}

Manifest loadManifest(const std::string& path, int32_t outputHeight) {
  Manifest m;
  m.bundle_dir = resolveBundlePath(path);
  const std::string& dir = m.bundle_dir;
  const std::string text = readFile(dir + "/manifest.json");

  if (strField(text, "format") != "le-bundle-v0") refuse("not an le-bundle-v0: " + dir);
  m.agent = strField(text, "agent");
  m.NT = toI32(numFieldEither(text, "NT", "frame_count"), "NT");
  m.H = toI32(numField(text, "H"), "H");
  m.W = toI32(numField(text, "W"), "W");
  m.crop = toI32(numFieldEither(text, "crop", "crop_size"), "crop");
  m.amount = static_cast<float>(numField(text, "amount"));
  m.sigma = static_cast<float>(numField(text, "sigma"));
  m.ksize = toI32(numField(text, "ksize"), "ksize");
  m.frames = toI32(numField(text, "frames"), "frames");
  if (m.NT <= 0 || m.H <= 0 || m.W <= 0 || m.crop <= 0) refuse("manifest: bad dims");

  // The paste-space stamp: the canvas M was authored on. Its two names may
  // be mixed, one per side.
  double sw = numOrAbsent(text, "M_src_w");
  if (sw == kAbsent) sw = numOrAbsent(text, "paste_source_width");
  double sh = numOrAbsent(text, "M_src_h");
  if (sh == kAbsent) sh = numOrAbsent(text, "paste_source_height");
  if (sw == kAbsent || sh == kAbsent) {
    const char* ok = std::getenv("VESPERA2_MSRC_MISSING_OK");
    if (!ok || std::strcmp(ok, "1") != 0)
      refuse(dir +
             "/manifest.json declares no paste-space stamp (M_src_w/M_src_h, aka "
             "paste_source_width/height) — the canvas is " +
             std::to_string(m.W) + "x" + std::to_string(m.H) +
             ", so M cannot be placed: absence is not evidence that M was authored at that size. "
             "Re-stamp the bundle (models/vespera-2/inference/backfill_msrc.py), or set "
             "VESPERA2_MSRC_MISSING_OK=1 to restore the legacy assumption.");
    std::fprintf(stderr,
                 "[le] WARNING VESPERA2_MSRC_MISSING_OK=1: %s/manifest.json carries no paste-space stamp; "
                 "ASSUMING M was authored on this %dx%d canvas. If it was not, the face pastes off-target "
                 "and nothing will say so.\n",
                 dir.c_str(), m.W, m.H);
    sw = m.W;
    sh = m.H;
  }
  m.M_src_w = toI32(sw, "M_src_w");
  m.M_src_h = toI32(sh, "M_src_h");
  if (m.M_src_w < 1 || m.M_src_h < 1) refuse("manifest: bad paste-space stamp (M_src_w/M_src_h must be > 0)");

  const std::string lip = resolveMember(dir, "lip_template.v1.json");
  if (canOpen(lip)) m.lip_template_json = readFile(lip);

  if (outputHeight == 0) return m;
  if (outputHeight < 0)
    refuse("loadManifest: output height must be >= 0 (asked for " + std::to_string(outputHeight) + ")");
  if (outputHeight == std::min(m.H, m.W)) return m;
  selectOutput(m, text, outputHeight);
  return m;
}

}  // namespace le
