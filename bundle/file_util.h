// Small POSIX file helpers shared by the bundle loaders.
#pragma once

#include <string>

namespace le {

// The whole file; throws "cannot open <path>" or "short read <path>".
std::string readFile(const std::string& path);

// True if the file can be opened for reading.
bool canOpen(const std::string& path);

// True if stat succeeds.
bool pathExists(const std::string& path);

bool isDirectory(const std::string& path);
bool isRegularFile(const std::string& path);

// Trailing slashes removed, keeping at least one character ("/" stays "/").
std::string stripTrailingSlashes(std::string s);

// The part after the last slash, and the part before it ("." if none).
std::string baseName(const std::string& path);
std::string dirName(const std::string& path);

}  // namespace le
