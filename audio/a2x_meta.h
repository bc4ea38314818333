// a2x_meta.json is a handful of keys written by the exporter; it is searched,
// not parsed: the first occurrence of the key in double quotes, the value
// behind the next colon.
#pragma once

#include <string>

namespace le {

// atoi of the text behind the key's colon, or fallback if the key or its
// colon is absent.
int a2xMetaInt(const std::string& text, const char* key, int fallback);

// Spaces and tabs skipped: "true" 1, "false" 0, else atoi(text) != 0;
// fallback if absent.
bool a2xMetaBool(const std::string& text, const char* key, bool fallback);

}  // namespace le
