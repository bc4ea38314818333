#include "bundle/drive.h"

#include <stdexcept>
#include <string>

#include "bundle/mapped_file.h"
#include "bundle/members.h"

namespace le {

namespace {

constexpr std::size_t kKpFloats = 63;

template <class T>
std::vector<T> readTable(const Manifest& manifest, const char* member, std::size_t count) {
  const std::string path = resolveMember(manifest.bundle_dir, member);
  std::vector<T> out(count);
  readExact(path, out.data(), count * sizeof(T));
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
