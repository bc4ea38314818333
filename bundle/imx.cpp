#include "bundle/imx.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <vector>

#include "bundle/file_util.h"
#include "bundle/imx_format.h"

namespace le {

namespace {

using File = std::unique_ptr<FILE, int (*)(FILE*)>;

File openFile(const std::string& path, const char* mode) { return File(std::fopen(path.c_str(), mode), &std::fclose); }

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

bool endsWith(std::string_view s, std::string_view p) {
  return s.size() >= p.size() && s.substr(s.size() - p.size()) == p;
}

constexpr size_t kCopyBuffer = size_t{8} << 20;
constexpr uint64_t kSyntheticManifestMax = uint64_t{4} << 20;

// Unwraps run one at a time in a process, so two contexts opened at once on
// one container do the work once.
std::mutex& unwrapMutex() {
  static std::mutex m;
  return m;
}

// mkdir -p with mode 0755; an existing directory counts as success.
bool makeDirs(const std::string& dir) {
  if (isDirectory(dir)) return true;
  for (size_t i = 1; i <= dir.size(); ++i) {
    if (i < dir.size() && dir[i] != '/') continue;
    const std::string prefix = dir.substr(0, i);
    if (::mkdir(prefix.c_str(), 0755) != 0 && errno != EEXIST) return false;
  }
  return isDirectory(dir);
}

std::string trimBlanks(const std::string& s) {
  const char* blanks = " \t\n\r";
  const size_t b = s.find_first_not_of(blanks);
  if (b == std::string::npos) return {};
  return s.substr(b, s.find_last_not_of(blanks) - b + 1);
}

bool markerMatches(const std::string& marker, const std::string& expected) {
  try {
    return trimBlanks(readFile(marker)) == expected;
  } catch (const std::exception&) {
    return false;
  }
}

struct Member {
  std::string name;
  uint64_t offset;
  uint64_t size;
};

bool safeName(const std::string& name) {
  return !name.empty() && name[0] != '/' && name[0] != '\\' && name.find("..") == std::string::npos &&
         name.find('\0') == std::string::npos;
}

std::vector<Member> readTable(FILE* f, const std::string& path) {
  unsigned char head[imx::kHeaderBytes];
  if (std::fread(head, 1, sizeof head, f) != sizeof head || std::memcmp(head, imx::kMagic, 4) != 0)
    refuse(path + ": not an IMX\\0 container");
  const uint16_t version = imx::le16(head + 4);
  if (version != imx::kVersion) refuse(path + ": unsupported IMX container version " + std::to_string(version));
  const uint16_t count = imx::le16(head + 6);
  std::vector<Member> table;
  table.reserve(count);
  for (uint32_t i = 0; i < count; ++i) {
    unsigned char b[16];
    if (std::fread(b, 1, 2, f) != 2) refuse(path + ": truncated TOC at member " + std::to_string(i));
    Member m{std::string(imx::le16(b), '\0'), 0, 0};
    if (std::fread(m.name.data(), 1, m.name.size(), f) != m.name.size())
      refuse(path + ": truncated member name at " + std::to_string(i));
    if (std::fread(b, 1, 16, f) != 16) refuse(path + ": truncated TOC offsets at member " + m.name);
    m.offset = imx::le64(b);
    m.size = imx::le64(b + 8);
    table.push_back(std::move(m));
  }
  return table;
}

bool seekTo(FILE* f, uint64_t offset) {
  return offset <= static_cast<uint64_t>(INT64_MAX) && ::fseeko(f, static_cast<off_t>(offset), SEEK_SET) == 0;
}

// A manifest the packer made up for a bare set of members carries this
// text; it is not written out, so the bundle's own files decide.
bool isSyntheticManifest(FILE* f, const Member& m) {
  if (m.name != "manifest.json" || m.size < 1 || m.size > kSyntheticManifestMax) return false;
  std::string bytes(static_cast<size_t>(m.size), '\0');
  if (!seekTo(f, m.offset) || std::fread(bytes.data(), 1, bytes.size(), f) != bytes.size()) return false;
  return bytes.find("_imx_synthetic_manifest") != std::string::npos;
}

// Removes a ".part" file unless the member was placed.
struct PartGuard {
  std::string path;
  bool placed = false;
  ~PartGuard() {
    if (!placed) ::unlink(path.c_str());
  }
};

void materialise(FILE* in, const std::string& path, const Member& m, const std::string& outDir, char* buffer) {
  const std::string target = outDir + "/" + m.name;
  const std::string parent = dirName(target);
  if (!makeDirs(parent)) refuse("cannot create " + parent);
  if (!seekTo(in, m.offset)) refuse(path + ": cannot seek to member " + m.name);
  PartGuard part{target + ".part"};
  File out = openFile(part.path, "wb");
  if (!out) refuse("cannot write " + part.path);
  for (uint64_t left = m.size; left > 0;) {
    const size_t chunk = static_cast<size_t>(std::min<uint64_t>(left, kCopyBuffer));
    if (std::fread(buffer, 1, chunk, in) != chunk) refuse(path + ": truncated payload for member " + m.name);
    if (std::fwrite(buffer, 1, chunk, out.get()) != chunk) refuse("short write materialising " + target);
    left -= chunk;
  }
  const bool flushed = std::fflush(out.get()) == 0;
  const bool closed = std::fclose(out.release()) == 0;
  if (!flushed || !closed) refuse("flush failed materialising " + target);
  if (std::rename(part.path.c_str(), target.c_str()) != 0) refuse("cannot place member " + target);
  part.placed = true;
}

void writeMarker(const std::string& marker, const std::string& line) {
  File f = openFile(marker, "wb");
  if (!f) refuse("cannot write unwrap marker " + marker);
  const bool written = std::fwrite(line.data(), 1, line.size(), f.get()) == line.size();
  const bool flushed = std::fflush(f.get()) == 0;
  const bool closed = std::fclose(f.release()) == 0;
  if (!written || !flushed || !closed) {
    ::unlink(marker.c_str());
    refuse("short write on unwrap marker " + marker);
  }
}

std::string unwrapOnce(const std::string& path) {
  std::lock_guard<std::mutex> lock(unwrapMutex());
  const std::string outDir = imxUnwrapDir(path);
  const std::string marker = outDir + imx::kMarkerSuffix;

  struct stat st {};
  if (::lstat(path.c_str(), &st) != 0) refuse("cannot stat container " + path);
  const long long mtimeNs = static_cast<long long>(st.st_mtim.tv_sec) * 1000000000LL + st.st_mtim.tv_nsec;
  const std::string expected = std::string(imx::kMarkerTag) + " " + baseName(path) + " " +
                               std::to_string(st.st_size) + " " + std::to_string(mtimeNs) + " " +
                               std::to_string(st.st_ino);
  if (isDirectory(outDir) && markerMatches(marker, expected)) return outDir;

  // Stale or unmarked: the directory is a cache with no other owner.
  ::unlink(marker.c_str());
  std::error_code ec;
  std::filesystem::remove_all(outDir, ec);
  if (!makeDirs(outDir)) refuse("cannot create unwrap dir " + outDir);

  File in = openFile(path, "rb");
  if (!in) refuse("cannot open container " + path);
  const std::vector<Member> table = readTable(in.get(), path);
  // Left uncleared: a payload is read into it before it is written out, and
  // a small bundle then touches only the pages that it fills.
  const std::unique_ptr<char[]> buffer(new char[kCopyBuffer]);
  for (const Member& m : table) {
    if (!safeName(m.name)) refuse(path + ": refusing unsafe member name '" + m.name + "'");
    if (isSyntheticManifest(in.get(), m)) continue;
    materialise(in.get(), path, m, outDir, buffer.get());
  }
  in.reset();
  // The marker goes last, so a crash or a refusal leaves none and the next
  // open starts over.
  writeMarker(marker, expected);
  std::fprintf(stderr, "[le] unwrapped %s -> %s\n", path.c_str(), outDir.c_str());
  return outDir;
}

}  // namespace

bool isImxV2File(const std::string& path) {
  if (path.empty() || !isRegularFile(path)) return false;
  File f = openFile(path, "rb");
  unsigned char head[imx::kHeaderBytes];
  if (!f || std::fread(head, 1, sizeof head, f.get()) != sizeof head) return false;
  return std::memcmp(head, imx::kMagic, 4) == 0 && imx::le16(head + 4) == imx::kVersion;
}

std::string imxUnwrapDir(const std::string& containerPath) {
  std::string stem = baseName(containerPath);
  if (endsWith(stem, ".imx")) stem.resize(stem.size() - 4);
  if (!endsWith(stem, ".lebundle")) stem += ".lebundle";
  const char* env = std::getenv("LE_IMX_UNWRAP_ROOT");
  const std::string root = stripTrailingSlashes((env && *env) ? std::string(env) : dirName(containerPath));
  return root + "/" + stem;
}

std::string imxMarkerPath(const std::string& containerPath) {
  return imxUnwrapDir(containerPath) + imx::kMarkerSuffix;
}

std::string resolveBundlePath(const std::string& path) {
  if (path.empty()) return path;
  const std::string bare = stripTrailingSlashes(path);
  if (isDirectory(path) && !pathExists(bare + imx::kMarkerSuffix)) return path;
  if (endsWith(path, ".imx") && isImxV2File(path)) return unwrapOnce(path);
  if (isImxV2File(bare + ".imx")) return unwrapOnce(bare + ".imx");
  if (isImxV2File(path)) return unwrapOnce(path);
  return path;
}

}  // namespace le
