#include "compute/threads.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

namespace le::pool {

int threadsFrom(const char* core, const char* paste, unsigned hw) {
  const char* text = (core && *core) ? core : paste;
  if (!text || !*text) return hw == 0 ? 4 : static_cast<int>(std::min(4u, hw));
  const int v = std::atoi(text);
  if (hw != 0 && v > 0 && static_cast<unsigned>(v) > hw) return static_cast<int>(hw);
  return std::max(v, 1);
}

int threads() {
  // The default is 4, not the core count: the engine shares the machine
  // with its host.
  static const int n = threadsFrom(std::getenv("LE_CORE_THREADS"), std::getenv("LE_PASTE_THREADS"),
                                   std::thread::hardware_concurrency());
  return n;
}

}  // namespace le::pool
