// The manifest's key scanner. The manifest is kept as text and keys are found
// by one pass that tracks bracket depth, so that a key occurring twice is an
// error rather than a silent choice, and keys of the same name inside nested
// blocks are told apart from root keys.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace le::manifest_key {

struct KeyHit {
  uint64_t pos;    // byte position of the first character of the value
  int32_t depth;   // bracket depth at the key; 1 for keys of the root object
  uint8_t scalar;  // 1 if the value does not begin with '[' or '{'
};

constexpr size_t kNotFound = std::string_view::npos;

// Every occurrence of `key` as an object key, in text order.
std::vector<KeyHit> keyHits(std::string_view text, std::string_view key);

// The byte position of the one scalar value of `key`, or kNotFound. A single
// root-level hit wins over nested ones; otherwise two or more candidates are
// refused as AMBIGUOUS.
size_t scalarValuePos(std::string_view text, std::string_view key);

// The text of the one scalar value of `key` when it is a string (up to the
// next double quote, no unescaping); empty when the key is absent or its
// value is not a string. Ambiguity is refused as above.
std::string stringValue(std::string_view text, std::string_view key);

}  // namespace le::manifest_key
