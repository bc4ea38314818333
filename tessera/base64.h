// Strict base64, as the lip template carries a compose structure: one
// canonical text per byte string, so that a structure's bytes (and the hash
// bound to them) cannot be smuggled in under a second spelling.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::tessera {

// Decodes the standard alphabet, padded to a multiple of 4. On failure
// returns false with `out` empty and the reason in `error`, one of
// "base64 length <n> is not a multiple of 4", "base64 padding is not at the
// end", "base64 tail carries non-zero padding bits (not canonical)" and
// "base64 carries a byte outside the standard alphabet at <i>".
bool b64DecodeStrict(const std::string& text, std::vector<uint8_t>& out, std::string& error);

}  // namespace le::tessera
