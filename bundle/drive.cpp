#include "bundle/drive.h"

#include <cstring>
#include <stdexcept>
#include <string>

#include "bundle/mapped_file.h"
#include "bundle/members.h"

namespace le {

namespace {

constexpr std::size_t kKpFloats = 63;

// The file's length is checked before anything is allocated: the row count
// is the manifest's word, and a "frames" of two billion must not ask for
// half a terabyte before the 6 KB table on disk refuses it.
template <class T>
std::vector<T> readTable(const Manifest& manifest, const char* member, std::size_t count) {
  const MappedFile file(resolveMember(manifest.bundle_dir, member), count * sizeof(T));
  std::vector<T> out(count);
  if (count) std::memcpy(out.data(), file.data(), count * sizeof(T));
  return out;
}

}  // namespace

Drive loadDrive(const Manifest& manifest) {
  if (manifest.frames < 0)  // no file has a negative length
    throw std::runtime_error("size mismatch " + resolveMember(manifest.bundle_dir, "drive/xs.f32"));
  const auto rows = static_cast<std::size_t>(manifest.frames);
  Drive d;
  d.frames = manifest.frames;
  d.xs = readTable<float>(manifest, "drive/xs.f32", rows * kKpFloats);
  d.xd = readTable<float>(manifest, "drive/xd.f32", rows * kKpFloats);
  d.si = readTable<int32_t>(manifest, "drive/si.i32", rows);
  for (const int32_t s : d.si)
    if (s < 0 || s >= manifest.NT) throw std::runtime_error("drive: si out of range");
  return d;
}

}  // namespace le
