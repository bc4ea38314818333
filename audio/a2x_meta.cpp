#include "audio/a2x_meta.h"

#include <cstdlib>
#include <cstring>

namespace le {

namespace {

// The text behind the colon that follows the quoted key, or null.
const char* valueOf(const std::string& text, const char* key) {
  const std::string quoted = std::string("\"") + key + "\"";
  const size_t at = text.find(quoted);
  if (at == std::string::npos) return nullptr;
  const size_t colon = text.find(':', at + quoted.size());
  if (colon == std::string::npos) return nullptr;
  return text.c_str() + colon + 1;
}

}  // namespace

int a2xMetaInt(const std::string& text, const char* key, int fallback) {
  const char* v = valueOf(text, key);
  return v ? std::atoi(v) : fallback;
}

bool a2xMetaBool(const std::string& text, const char* key, bool fallback) {
  const char* v = valueOf(text, key);
  if (!v) return fallback;
  while (*v == ' ' || *v == '\t') ++v;
  if (std::strncmp(v, "true", 4) == 0) return true;
  if (std::strncmp(v, "false", 5) == 0) return false;
  return std::atoi(v) != 0;
}

}  // namespace le
