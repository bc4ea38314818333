// The motion directory's files: little-endian float32 tables whose length
// is part of the contract, a meta.json searched rather than parsed, and the
// debugging dumps written under LE_MOTION_DUMP.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace le::motion {

// Exactly n floats from path. Throws "cannot open <path>", "short read
// <path>", or "<path>: <count> floats, expected <n>".
std::vector<float> readFloats(const std::string& path, size_t n);

// atof of the text behind the colon that follows the quoted key. A required
// key that is absent throws "meta.json: missing <key>"; an optional one
// gives fallback. A key with no colon behind it throws "meta.json: bad
// <key>".
double metaNumber(const std::string& text, const char* key, bool required, double fallback = 0.0);

// Writes (or appends) count floats to dir/name; throws "cannot write <path>".
void writeFloats(const std::string& dir, const char* name, const float* data, size_t count, bool append);

}  // namespace le::motion
