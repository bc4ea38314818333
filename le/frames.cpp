// The frame entry points of a context: driver frames as they are, and a
// caller's crop pasted into one.
#include <cstdint>

#include "le/boundary.h"
#include "le/context.h"
#include "le/le.h"

using le::boundary::Family;

extern "C" {

LE_API int le_drive_frames(const le_ctx* ctx) { return ctx ? ctx->drive.frames : 0; }

LE_API int le_paste_crop(le_ctx* ctx, int si, const float* crop, uint8_t* out, size_t out_bytes) {
  le::boundary::clear(Family::Context);
  if (si < 0 || !ctx || !crop || !out || si >= ctx->manifest.NT ||
      out_bytes < static_cast<size_t>(ctx->manifest.W) * static_cast<size_t>(ctx->manifest.H) * 3) {
    le::boundary::storeFixed(Family::Context, "le_paste_crop: bad args / out too small");
    return 0;
  }
  return le::boundary::run(Family::Context, "le_paste_crop", 0, [&] {
    ctx->cursor->pullAt(si, out);
    ctx->paste->composite(crop, 255.0f, ctx->identity->M(si), out, ctx->manifest.W, ctx->manifest.H);
    return 1;
  });
}

LE_API const uint8_t* le_target_frame(le_ctx* ctx, int si) {
  le::boundary::clear(Family::Context);
  if (!ctx || si < 0 || si >= ctx->manifest.NT) {
    le::boundary::storeFixed(Family::Context, "le_target_frame: bad args");
    return nullptr;
  }
  return le::boundary::run(Family::Context, "le_target_frame", static_cast<const uint8_t*>(nullptr), [&] {
    int got = -1;
    return ctx->cursor->pullAt(si, &got);
  });
}

}  // extern "C"
