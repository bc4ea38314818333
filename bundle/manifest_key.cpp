#include "bundle/manifest_key.h"

#include <stdexcept>

namespace le::manifest_key {

namespace {

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

std::string ambiguous(std::string_view key, const std::vector<KeyHit>& hits) {
  std::string list;
  for (const KeyHit& h : hits) {
    if (!list.empty()) list += ", ";
    list += "byte " + std::to_string(h.pos);
  }
  return "manifest: key \"" + std::string(key) + "\" is AMBIGUOUS — " +
         std::to_string(hits.size()) + " scalar occurrences (" + list +
         "). A loader that picks one silently installs a number nobody checks. Rename the colliding "
         "key (a nested block must not reuse a name the bundle loader reads: NT/frame_count, H, W, "
         "crop/crop_size, amount, sigma, ksize, frames, M_src_w/paste_source_width, "
         "M_src_h/paste_source_height), or produce the bundle with the legacy manifest layout.";
}

}  // namespace

std::vector<KeyHit> keyHits(std::string_view text, std::string_view key) {
  std::vector<KeyHit> hits;
  const size_t n = text.size();
  int32_t depth = 0;
  for (size_t i = 0; i < n; ++i) {
    const char c = text[i];
    const char folded = static_cast<char>(static_cast<unsigned char>(c) & ~0x20u);
    if (folded == '[') {  // '[' or '{'
      ++depth;
      continue;
    }
    if (folded == ']') {  // ']' or '}'
      --depth;
      continue;
    }
    if (c != '"') continue;
    size_t close = i + 1;
    while (close < n && text[close] != '"') close += (text[close] == '\\') ? 2 : 1;
    if (close >= n) break;  // unterminated string: nothing more to scan
    size_t after = close + 1;
    while (after < n && isSpace(text[after])) ++after;
    if (after < n && text[after] == ':' && text.substr(i + 1, close - i - 1) == key) {
      size_t v = after + 1;
      while (v < n && isSpace(text[v])) ++v;
      const bool scalar = v < n && text[v] != '[' && text[v] != '{';
      hits.push_back(KeyHit{v, depth, static_cast<uint8_t>(scalar ? 1 : 0)});
    }
    i = close;  // string values are walked over the same way and never count
  }
  return hits;
}

size_t scalarValuePos(std::string_view text, std::string_view key) {
  std::vector<KeyHit> scalars, roots;
  for (const KeyHit& h : keyHits(text, key)) {
    if (!h.scalar) continue;
    scalars.push_back(h);
    if (h.depth == 1) roots.push_back(h);
  }
  if (roots.size() == 1) return roots[0].pos;
  if (roots.size() >= 2) throw std::runtime_error(ambiguous(key, roots));
  if (scalars.size() >= 2) throw std::runtime_error(ambiguous(key, scalars));
  if (scalars.size() == 1) return scalars[0].pos;
  return kNotFound;
}

std::string stringValue(std::string_view text, std::string_view key) {
  const size_t pos = scalarValuePos(text, key);
  if (pos == kNotFound || text[pos] != '"') return {};
  const size_t close = text.find('"', pos + 1);
  return close == std::string_view::npos ? std::string() : std::string(text.substr(pos + 1, close - pos - 1));
}

}  // namespace le::manifest_key
