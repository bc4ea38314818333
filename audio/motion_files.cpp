#include "audio/motion_files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
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
  std::string bytes;
  char buf[65536];
  size_t got;
  while ((got = std::fread(buf, 1, sizeof buf, f.get())) > 0) bytes.append(buf, got);
  if (std::ferror(f.get())) throw std::runtime_error("short read " + path);
  const size_t count = bytes.size() / sizeof(float);
  if (count != n || bytes.size() % sizeof(float) != 0)
    throw std::runtime_error(path + ": " + std::to_string(count) + " floats, expected " + std::to_string(n));
  std::vector<float> v(n);
  if (n) std::memcpy(v.data(), bytes.data(), n * sizeof(float));
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
