// The context behind the le_ctx handle: everything loaded from one bundle.
// Sessions hold a plain pointer to it and are destroyed first. The context
// has no lock of its own; the cursor guards itself.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "bundle/drive.h"
#include "bundle/identity.h"
#include "bundle/manifest.h"
#include "director/renderer.h"
#include "driver/cursor.h"
#include "le/le.h"
#include "paste/paste.h"

// Members are released in reverse order of declaration: the cursor's decoder
// thread is joined before the identity's mappings go.
struct le_ctx {
  le::Manifest manifest;
  std::unique_ptr<le::Identity> identity;  // mapped tensors, paste matrices M
  le::Drive drive;                         // the idle loop tables
  std::unique_ptr<le::Renderer> renderer;  // built on first need (le_render_*)
  std::unique_ptr<le::Paste> paste;
  int threads = 1;        // worker threads handed to the renderer
  std::string ep;         // execution provider name; empty selects the default
  std::string model_key;  // selects the director graph "model_<key>.onnx"
  std::unique_ptr<le::DriverCursor> cursor;  // driver video
  std::vector<uint8_t> frame_rgb;            // W x H x 3: what le_paste_last composes into
  const float* last_crop = nullptr;          // the latest successful render; not owned
};
