// The context behind the le_ctx handle: everything loaded from one bundle.
// Sessions hold a plain pointer to it and are destroyed first. The context
// has no lock of its own.
#pragma once

#include <string>

#include "bundle/manifest.h"
#include "le/le.h"

struct le_ctx {
  le::Manifest manifest;
  int threads = 1;        // worker threads handed to the renderer
  std::string ep;         // execution provider name; empty selects the default
  std::string model_key;  // selects the director graph "model_<key>.onnx"
};
