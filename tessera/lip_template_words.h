// Shared by the lip template's reader and the contour's own checks: a
// refusal names the file it came from, and numbers read back as JSON wrote
// them.
#pragma once

#include <charconv>
#include <stdexcept>
#include <string>

namespace le::tessera {

[[noreturn]] inline void refuseLipTemplate(const std::string& words) {
  throw std::runtime_error("lip_template.v1.json: " + words);
}

// The shortest text that reads back as v: 512 as "512", -1.5 as "-1.5".
inline std::string numberText(double v) {
  char buf[64];
  const std::to_chars_result r = std::to_chars(buf, buf + sizeof buf, v);
  return std::string(buf, r.ptr);
}

}  // namespace le::tessera
