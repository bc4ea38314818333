#include "director/diag.h"

#include <cstdlib>
#include <cstring>

namespace le {

namespace {

bool envIs(const char* name, const char* value) {
  const char* v = std::getenv(name);
  return v && std::strcmp(v, value) == 0;
}

}  // namespace

bool engineQuiet() { return envIs("KESTROVA_ENGINE_QUIET", "1") && !envIs("KESTROVA_DEBUG", "1"); }

std::FILE* diag_stream() {
  if (!engineQuiet()) return stderr;
  static std::FILE* const sink = std::fopen("/dev/null", "w");
  return sink ? sink : stderr;
}

}  // namespace le
