// The warp prior's cursor on its own, for a host that reads the prior
// without a renderer.
#include <memory>
#include <stdexcept>
#include <string>

#include "bundle/imx.h"
#include "bundle/manifest.h"
#include "driver/cursor.h"
#include "le/boundary.h"
#include "le/le.h"

using le::boundary::Family;

struct le_prior {
  le::Manifest manifest;
  std::unique_ptr<le::DriverCursor> cursor;
  std::string backend;
};

extern "C" {

LE_API le_prior* le_prior_open(const char* bundle_dir, int look, int history) {
  le::boundary::clear(Family::Context);
  if (!bundle_dir) {
    le::boundary::storeFixed(Family::Context, "le_prior_open: NULL bundle_dir");
    return nullptr;
  }
  return le::boundary::run(Family::Context, "le_prior_open", static_cast<le_prior*>(nullptr), [&] {
    auto p = std::make_unique<le_prior>();
    p->manifest = le::loadManifest(le::resolveBundlePath(bundle_dir), 0);
    p->cursor = le::DriverCursor::openPrior(p->manifest, look < 1 ? 2 : look, history < 0 ? 0 : history);
    p->backend = p->cursor->backend;
    return p.release();
  });
}

LE_API size_t le_prior_row_bytes(const le_prior* prior) { return prior ? prior->cursor->frame_bytes : 0; }

LE_API int le_prior_row(le_prior* prior, int si, uint8_t* out, size_t cap) {
  le::boundary::clear(Family::Context);
  if (!prior || !out) {
    le::boundary::storeFixed(Family::Context, "le_prior_row: NULL prior/out");
    return 0;
  }
  return le::boundary::run(Family::Context, "le_prior_row", 0, [&] {
    const size_t bytes = prior->cursor->frame_bytes;
    if (cap < bytes)
      throw std::runtime_error("cap " + std::to_string(cap) + " < row bytes " + std::to_string(bytes));
    prior->cursor->pullAt(si, out);
    return 1;
  });
}

LE_API const char* le_prior_backend(const le_prior* prior) { return prior ? prior->backend.c_str() : ""; }

LE_API void le_prior_close(le_prior* prior) { delete prior; }

}  // extern "C"
