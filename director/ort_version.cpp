#include "director/ort_version.h"

#include <onnxruntime_c_api.h>

namespace le {

std::string ortVersionText() {
  const OrtApiBase* base = OrtGetApiBase();
  const char* v = base ? base->GetVersionString() : nullptr;
  return v ? std::string(v) : std::string();
}

}  // namespace le
