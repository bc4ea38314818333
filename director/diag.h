// Where load-time diagnostics go. An operator who asked for a quiet engine
// gets none of them; refusals and fallbacks still go to standard error,
// because they change what the engine serves.
#pragma once

#include <cstdio>

namespace le {

// True when KESTROVA_ENGINE_QUIET is exactly "1" and KESTROVA_DEBUG is not
// exactly "1".
bool engineQuiet();

// stderr, or, while engineQuiet(), a stream on /dev/null opened once per
// process and never closed (stderr if it can't be opened).
std::FILE* diag_stream();

}  // namespace le
