#include "audio/motion_files.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace le::motion {

namespace {

struct FileCloser {
  void operator()(std::FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace

std::vector<float> readFloats(const std::string& path, size_t n) {
  File f(std::fopen(path.c_str(), "rb"));
  if (!f) throw std::runtime_error("cannot open " + path);
  // The length decides before anything is read: a table of the wrong size
  // is refused without holding it in memory, however large it is. A
  // directory opens too, and is no table.
  struct stat st {};
  if (::fstat(fileno(f.get()), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0)
    throw std::runtime_error("short read " + path);
  const auto bytes = static_cast<uint64_t>(st.st_size);
  const uint64_t count = bytes / sizeof(float);
  if (count != n || bytes % sizeof(float) != 0)
    throw std::runtime_error(path + ": " + std::to_string(count) + " floats, expected " + std::to_string(n));
  std::vector<float> v(n);
  if (n && std::fread(v.data(), sizeof(float), n, f.get()) != n) throw std::runtime_error("short read " + path);
  return v;
}

double metaNumber(const std::string& text, const char* key, bool required, double fallback) {
  const std::string quoted = std::string("\"") + key + "\"";
  const size_t at = text.find(quoted);
  if (at == std::string::npos) {
    if (required) throw std::runtime_error(std::string("meta.json: missing ") + key);
    return fallback;
  }
  const size_t colon = text.find(':', at + quoted.size());
  if (colon == std::string::npos) throw std::runtime_error(std::string("meta.json: bad ") + key);
  return std::atof(text.c_str() + colon + 1);
}

void writeFloats(const std::string& dir, const char* name, const float* data, size_t count, bool append) {
  const std::string path = dir + "/" + name;
  File f(std::fopen(path.c_str(), append ? "ab" : "wb"));
  if (!f || (count && std::fwrite(data, sizeof(float), count, f.get()) != count) || std::fflush(f.get()) != 0)
    throw std::runtime_error("cannot write " + path);
}

}  // namespace le::motion
