// The teeth family reports into a buffer the caller passes, not into a
// thread-local string: at most size - 1 bytes of the text and a NUL, and
// nothing at all for a null buffer or a size below 1.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace le::boundary {

inline void writeErrorBuffer(char* buf, int size, const char* text) noexcept {
  if (!buf || size < 1) return;
  const size_t n = std::min(std::strlen(text), static_cast<size_t>(size) - 1);
  std::memcpy(buf, text, n);
  buf[n] = '\0';
}

}  // namespace le::boundary
