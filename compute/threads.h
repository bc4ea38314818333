// The process-wide worker count that sizes every parallel loop and the
// audio models' intra-op threads.
#pragma once

namespace le::pool {

// Read once per process from LE_CORE_THREADS, else LE_PASTE_THREADS, else
// min(4, cores); always 1 or more, and never above the core count when that
// is known. Includes the calling thread.
int threads();

// Parses the setting as threads() does, from given texts; exposed so that
// the rule can be checked without a fresh process per case. A null or empty
// text counts as unset; hw is std::thread::hardware_concurrency().
int threadsFrom(const char* core, const char* paste, unsigned hw);

}  // namespace le::pool
