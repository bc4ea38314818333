// The recorded idle loop: for each row, a source frame index and
// two keypoint sets of 63 floats.
#pragma once

#include <cstdint>
#include <vector>

#include "bundle/manifest.h"

namespace le {

struct Drive {
  std::vector<float> xs;    // frames x 63, source keypoints
  std::vector<float> xd;    // frames x 63, driven keypoints
  std::vector<int32_t> si;  // frames, each in [0, NT)
  int32_t frames = 0;
};

// Reads drive/xs.f32, drive/xd.f32 and drive/si.i32 (through resolveMember)
// as exactly `frames` rows each, then requires every si in [0, NT). Throws
// "cannot open <path>", "size mismatch <path>" or "drive: si out of range".
Drive loadDrive(const Manifest& manifest);

}  // namespace le
