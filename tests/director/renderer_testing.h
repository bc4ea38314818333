// Helpers of the renderer tests: a generated director bundle opened as the
// engine opens it, its inputs for a row of the idle loop, and the composed
// graph run in a plain ONNX Runtime session with nothing of the engine in it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bundle/drive.h"
#include "bundle/identity.h"
#include "bundle/manifest.h"

namespace le::test {

struct DirectorBundle {
  explicit DirectorBundle(const std::string& rel);
  Manifest manifest;
  std::unique_ptr<Identity> identity;
  Drive drive;
};

// The inputs of `rows` (drive rows) as a batch, and "rgb" of the graph at
// graphRel (under the generated data) in a plain CPU session, one thread.
// lip_delivery is the lip template's contour of each driven row.
std::vector<float> plainRender(const DirectorBundle& b, const std::string& graphRel, const std::vector<int>& rows);

float maxAbsDiff(const float* a, const float* b, size_t n);

}  // namespace le::test
