#include <cstdio>
#include <vector>

#include "director/coreml/coreml_director.h"
#include "director/rewrites/sha256.h"

namespace le {

bool sha256File(const std::string& path, std::string& out) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  Sha256 h;
  std::vector<unsigned char> chunk(size_t{1} << 20);
  size_t got = 0;
  while ((got = std::fread(chunk.data(), 1, chunk.size(), f)) > 0) h.update(chunk.data(), got);
  const bool ok = std::ferror(f) == 0;
  std::fclose(f);
  if (!ok) return false;
  static const char* const kHex = "0123456789abcdef";
  out.clear();
  for (const uint8_t b : h.finish()) {
    out.push_back(kHex[b >> 4]);
    out.push_back(kHex[b & 15]);
  }
  return true;
}

}  // namespace le
