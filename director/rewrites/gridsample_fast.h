// Standard GridSample nodes become com.kestrova::GridSampleFast, the engine's
// own bilinear border-clamped kernel. Only nodes whose attributes say exactly
// that sampling are moved; every other GridSample stays standard.
#pragma once

#include <cstddef>
#include <string>

#include "director/rewrites/wire.h"

namespace le {

inline constexpr const char* kKestrovaDomain = "com.kestrova";

// True if a node of the model's graph is GridSampleFast in the custom domain,
// that is, if the graph can't run without the custom op registered.
bool graphHasBakedGridSampleFast(const GsBytes& bytes);

// True if the node is a GridSample that GridSampleFast computes exactly. All
// attributes are read before the decision; on false, why (if given) says what
// keeps the node standard.
bool gsIsRewritableGridSample(const GsNodeInfo& node, std::string* why = nullptr);

// Rewrites every such node in place and imports the custom domain if the
// model doesn't yet. Returns the count; 0 leaves bytes untouched, with the
// cause in reason if given. Wire errors throw and leave bytes untouched.
size_t rewriteGridSampleToFast(GsBytes& bytes, std::string* reason = nullptr);

}  // namespace le
