#include "tessera/base64.h"

#include <utility>

namespace le::tessera {

namespace {

int digit(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

bool fail(std::vector<uint8_t>& out, std::string& error, std::string words) {
  out.clear();
  error = std::move(words);
  return false;
}

}  // namespace

bool b64DecodeStrict(const std::string& text, std::vector<uint8_t>& out, std::string& error) {
  out.clear();
  error.clear();
  const size_t n = text.size();
  if (n % 4 != 0) return fail(out, error, "base64 length " + std::to_string(n) + " is not a multiple of 4");
  out.reserve(n / 4 * 3);
  for (size_t g = 0; g < n; g += 4) {
    const bool last = g + 4 == n;
    uint32_t group = 0;
    int pads = 0;
    for (size_t k = 0; k < 4; ++k) {
      const char c = text[g + k];
      group <<= 6;
      // A pad may only close the last group: "xx==" or "xxx=".
      if (c == '=' && k >= 2) {
        if (!last || (k == 2 && text[g + 3] != '=')) return fail(out, error, "base64 padding is not at the end");
        ++pads;
        continue;
      }
      const int v = digit(c);
      if (v < 0) return fail(out, error, "base64 carries a byte outside the standard alphabet at " + std::to_string(g + k));
      group |= static_cast<uint32_t>(v);
    }
    const uint32_t leftover = pads == 2 ? 0xFFFFu : pads == 1 ? 0xFFu : 0u;
    if (group & leftover) return fail(out, error, "base64 tail carries non-zero padding bits (not canonical)");
    out.push_back(static_cast<uint8_t>(group >> 16));
    if (pads < 2) out.push_back(static_cast<uint8_t>(group >> 8));
    if (pads < 1) out.push_back(static_cast<uint8_t>(group));
  }
  return true;
}

}  // namespace le::tessera
