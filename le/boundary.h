// The road every exported function travels from the C boundary to the work:
// clear the family's error string, run the work inside a catch of the
// standard exception base, and turn an exception into "<function>: <what>"
// plus the function's failure value. Nothing ever propagates to the caller.
#pragma once

#include <exception>
#include <string>
#include <utility>

namespace le::boundary {

// One thread-local error string per family.
enum class Family { Context, Utterance, Stream, A2x, Motion, Fca, Count };

std::string& errorOf(Family f) noexcept;

inline void clear(Family f) noexcept { errorOf(f).clear(); }

// Stores a text; losing it to an allocation failure must not escape.
inline void store(Family f, const char* fn, const char* what) noexcept {
  try {
    std::string& e = errorOf(f);
    e.assign(fn);
    e.append(": ");
    e.append(what);
  } catch (...) {
    errorOf(f).clear();
  }
}

// Stores a fixed sentence (argument refusals) as it stands.
inline void storeFixed(Family f, const char* text) noexcept {
  try {
    errorOf(f).assign(text);
  } catch (...) {
    errorOf(f).clear();
  }
}

template <class R, class Work>
R run(Family f, const char* fn, R failure, Work&& work) noexcept {
  try {
    return std::forward<Work>(work)();
  } catch (const std::exception& e) {
    store(f, fn, e.what());
  } catch (...) {
    store(f, fn, "unknown failure");
  }
  return failure;
}

}  // namespace le::boundary
