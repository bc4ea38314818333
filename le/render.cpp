// The render entry points of a context: a face crop rendered on the caller's
// thread through the context's renderer (built on first need, so that a host
// that only reads frames never loads a graph), and the last crop pasted into
// a finished frame.
#include <cstdint>
#include <memory>

#include "le/boundary.h"
#include "le/context.h"
#include "le/le.h"

using le::boundary::Family;

namespace {

size_t rgbaBytes(const le_ctx* ctx) {
  return static_cast<size_t>(ctx->manifest.W) * static_cast<size_t>(ctx->manifest.H) * 4;
}

// The step both RGBA variants share once their render has succeeded.
int pasteRgba(le_ctx* ctx, int si, uint8_t* out, size_t outBytes, const char* tooSmall) {
  if (!out || outBytes < rgbaBytes(ctx)) {
    le::boundary::storeFixed(Family::Context, tooSmall);
    return 0;
  }
  const uint8_t* rgb = le_paste_last(ctx, si);
  if (!rgb) return 0;
  const size_t pixels = static_cast<size_t>(ctx->manifest.W) * static_cast<size_t>(ctx->manifest.H);
  for (size_t p = 0; p < pixels; ++p) {
    out[4 * p] = rgb[3 * p];
    out[4 * p + 1] = rgb[3 * p + 1];
    out[4 * p + 2] = rgb[3 * p + 2];
    out[4 * p + 3] = 255;
  }
  return 1;
}

}  // namespace

extern "C" {

LE_API const float* le_render_kp_crop(le_ctx* ctx, int si, const float* ks, const float* kd) {
  le::boundary::clear(Family::Context);
  if (si < 0 || !ctx || !ks || !kd || si >= ctx->manifest.NT) {
    le::boundary::storeFixed(Family::Context, "le_render_kp_crop: bad args");
    return nullptr;
  }
  return le::boundary::run(Family::Context, "le_render_kp_crop", static_cast<const float*>(nullptr), [&] {
    if (!ctx->renderer)
      ctx->renderer = std::make_unique<le::Renderer>(ctx->manifest, *ctx->identity, ctx->model_key, ctx->threads,
                                                     ctx->ep);
    const float* crop = ctx->renderer->render(&si, ks, kd, 1);
    ctx->last_crop = crop;
    return crop;
  });
}

LE_API const float* le_render_drive_crop(le_ctx* ctx, int frame) {
  le::boundary::clear(Family::Context);
  if (!ctx || frame < 0 || frame >= ctx->drive.frames) {
    le::boundary::storeFixed(Family::Context, "le_render_drive_crop: bad frame index");
    return nullptr;
  }
  const size_t row = static_cast<size_t>(frame) * 63;
  return le_render_kp_crop(ctx, ctx->drive.si[static_cast<size_t>(frame)], ctx->drive.xs.data() + row,
                           ctx->drive.xd.data() + row);
}

LE_API const uint8_t* le_paste_last(le_ctx* ctx, int si) {
  le::boundary::clear(Family::Context);
  if (!ctx || si < 0 || !ctx->last_crop || si >= ctx->manifest.NT) {
    le::boundary::storeFixed(Family::Context, "le_paste_last: bad args / no prior render");
    return nullptr;
  }
  return le::boundary::run(Family::Context, "le_paste_last", static_cast<const uint8_t*>(nullptr), [&] {
    uint8_t* out = ctx->frame_rgb.data();
    ctx->cursor->pullAt(si, out);
    ctx->paste->composite(ctx->last_crop, 255.0f, ctx->identity->M(si), out, ctx->manifest.W, ctx->manifest.H);
    return static_cast<const uint8_t*>(out);
  });
}

LE_API int le_render_drive_rgba(le_ctx* ctx, int frame, uint8_t* out, size_t out_bytes) {
  le::boundary::clear(Family::Context);
  if (!ctx) return 0;
  if (!le_render_drive_crop(ctx, frame)) return 0;
  return pasteRgba(ctx, ctx->drive.si[static_cast<size_t>(frame)], out, out_bytes,
                   "le_render_drive_rgba: out buffer too small");
}

LE_API int le_render_kp_rgba(le_ctx* ctx, int si, const float* ks, const float* kd, uint8_t* out,
                             size_t out_bytes) {
  le::boundary::clear(Family::Context);
  if (!ctx) return 0;
  if (!le_render_kp_crop(ctx, si, ks, kd)) return 0;
  return pasteRgba(ctx, si, out, out_bytes, "le_render_kp_rgba: out buffer too small");
}

}  // extern "C"
