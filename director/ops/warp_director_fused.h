// WarpDirectorFused: the warp with its grid computation (upsampled flow plus
// base) and its exit clip inside one node, and the VERIFY report that
// compares the node's grid with ONNX Runtime's own.
#pragma once

#include <cstdint>
#include <string>

namespace le {

// True for the frames after which VERIFY reports: the 1st, the 30th and
// every 300th.
bool warpVerifyDue(uint64_t frames);

// The VERIFY report line, newline included.
std::string warpVerifyLine(uint64_t frames, uint64_t floats, bool servedFma, uint64_t servedDiffs,
                           uint64_t otherDiffs);

}  // namespace le
