// The refusal of a bundle whose director would still compose the ellipse:
// this engine renders compose v2 only, and the avatar's owner needs to be told
// how to get the current file.
#pragma once

#include <string>

#include "bundle/manifest.h"

namespace le {

// Prints "[le] ERROR: <text>" to stderr and throws std::runtime_error
// "Renderer: <text>", the text naming the identity, the graph and reason.
[[noreturn]] void refuseLegacyCompose(const Manifest& manifest, const std::string& name, const std::string& reason);

}  // namespace le
