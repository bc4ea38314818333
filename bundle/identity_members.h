// The check, made at load, that the renderer will have a warp prior.
#pragma once

#include "bundle/manifest.h"

namespace le {

// Refuses a bundle whose warp prior the identity loader could not find: a
// raw prior stored under a name other than P.f16, or neither raw form
// (P.f16, fs_red.f16) and no movie form (the manifest's P_hevc member).
void ensureIdentityMembers(const Manifest& manifest);

}  // namespace le
