// The student's blend product "/s2/blend" was exported as a plain MatMul by
// older students. As MatMul the graph aborts Apple's MPSGraph compiler on
// every CoreML unit that includes the GPU; as Gemm with its defaults (alpha 1,
// beta 1, no transposition, no third input) it is the same product.
#pragma once

#include <cstddef>
#include <string>

#include "director/rewrites/wire.h"

namespace le {

inline constexpr const char* kStudentBlendName = "/s2/blend";

// True if the node is the student blend MatMul that Gemm replaces exactly; on
// false, why (if given) says what keeps it.
bool gsIsStudentBlendMatMul(const GsNodeInfo& node, std::string* why = nullptr);

// Rewrites the blend node's op type in place. Returns the count; 0 leaves
// bytes untouched, with the cause in reason if given.
size_t normaliseStudentBlend(GsBytes& bytes, std::string* reason = nullptr);

}  // namespace le
