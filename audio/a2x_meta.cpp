#include "audio/a2x_meta.h"

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

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

A2xMeta readA2xMeta(const std::string& text) {
  A2xMeta m;
  m.h = a2xMetaInt(text, "h", 256);
  m.window = a2xMetaInt(text, "window", -1);
  m.left = a2xMetaInt(text, "left", -1);
  if (m.window < 0 || m.left < 0) throw std::runtime_error("meta lacks causal window/left (not a streaming a2x)");
  m.layers = a2xMetaInt(text, "layers", 6);
  if (m.h < 1 || m.layers < 0)
    throw std::runtime_error("a2x_meta.json declares h=" + std::to_string(m.h) + " and layers=" +
                             std::to_string(m.layers) + "; the encoder needs a width of 1 or more and 0 or more layers");
  // The reach is added to frame indices as an int: a reach of days of audio
  // is no streaming model, and a larger one would overflow that arithmetic.
  const int64_t ahead = int64_t{m.window} * m.layers, behind = int64_t{m.left} * m.layers;
  if (ahead > kMaxA2xReach || behind > kMaxA2xReach)
    throw std::runtime_error("a2x_meta.json declares window=" + std::to_string(m.window) + ", left=" +
                             std::to_string(m.left) + " and layers=" + std::to_string(m.layers) +
                             "; an encoder that reaches more than " + std::to_string(kMaxA2xReach) +
                             " frames ahead or behind is not a streaming model");
  m.windowLayers = static_cast<int>(ahead);
  m.leftLayers = static_cast<int>(behind);
  m.width = a2xMetaBool(text, "width", false);
  m.silencePrime = a2xMetaInt(text, "silence_prime", 0);
  return m;
}

}  // namespace le
