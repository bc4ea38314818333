#include "le/boundary.h"

namespace le::boundary {

std::string& errorOf(Family f) noexcept {
  thread_local std::string texts[static_cast<int>(Family::Count)];
  return texts[static_cast<int>(f)];
}

}  // namespace le::boundary
