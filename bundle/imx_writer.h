// Writing IMX containers, for the authoring tools.
#pragma once

#include <cstdint>
#include <string>

namespace le {

struct ImxPackResult {
  uint32_t members = 0;
  uint64_t bytes = 0;  // size of the written container
};

// Packs every regular file under `dir` (sorted by path, '/'-separated names
// relative to dir) into a version 2 container at `file`. The container is
// written beside its final name and renamed into place, so a failure leaves
// no half-written file. Throws a sentence naming the file at fault.
ImxPackResult writeImx(const std::string& dir, const std::string& file);

}  // namespace le
