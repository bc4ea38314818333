// IMX containers: a bundle shipped as one file. The engine reads members by
// path, so a container is unpacked once into a directory beside it (or under
// LE_IMX_UNWRAP_ROOT) and that directory is the bundle from then on. A marker
// file written last, holding the container's name, size, modification time
// and inode, lets a later open reuse the directory and makes a replaced
// container rebuild it.
#pragma once

#include <string>

namespace le {

// The directory to use as the bundle for a path that names a bundle
// directory, a container (with or without its ".imx"), or an unwrapped
// container's directory. Throws on a bad container.
std::string resolveBundlePath(const std::string& path);

// True for a regular file that starts with the IMX magic and version 2.
bool isImxV2File(const std::string& path);

// Where a container unpacks to, and its marker file.
std::string imxUnwrapDir(const std::string& containerPath);
std::string imxMarkerPath(const std::string& containerPath);

}  // namespace le
