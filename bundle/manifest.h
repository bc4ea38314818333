// The bundle's manifest.json, read into the value every loader takes.
#pragma once

#include <cstdint>
#include <string>

namespace le {

struct Manifest {
  std::string bundle_dir;  // directory every member is resolved against
  std::string agent;       // the avatar's name
  int32_t NT = 0;          // source frames
  int32_t H = 0;           // output canvas height, pixels
  int32_t W = 0;           // output canvas width, pixels
  int32_t M_src_w = 0;     // canvas width that M was authored on
  int32_t M_src_h = 0;     // canvas height that M was authored on
  int32_t crop = 0;        // side of the square rendered face crop
  float amount = 0.0f;     // unsharp amount
  float sigma = 0.0f;      // unsharp sigma
  int32_t ksize = 0;       // unsharp kernel size
  int32_t frames = 0;      // rows of the drive tables
  std::string lip_template_json;  // text of lip_template.v1.json, empty if absent
  int32_t output_height = 0;      // published height being served; 0 = native canvas
  std::string driver_mp4;         // driver member of a published output; empty = native

  // resolveMember of "model_" + key + ".onnx".
  std::string modelPath(const std::string& key) const;
};

// Reads and checks the manifest of a bundle directory or container. A height
// of 0 serves the native canvas; another height selects a published output of
// the "outputs" block. Throws a refusal sentence; no partial value survives.
Manifest loadManifest(const std::string& path, int32_t outputHeight);

}  // namespace le
