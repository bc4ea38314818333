#include "le/context.h"

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bundle/members.h"
#include "compute/threads.h"
#include "le/boundary.h"
#include "le/le.h"

using le::boundary::Family;

namespace {

// The compose mask: the first crop x crop bytes of mask_512.u8, a literal
// name whatever the crop.
std::vector<uint8_t> readMask(const le::Manifest& m) {
  const size_t n = static_cast<size_t>(m.crop) * static_cast<size_t>(m.crop);
  std::vector<uint8_t> mask(n);
  FILE* f = std::fopen(le::resolveMember(m.bundle_dir, "mask_512.u8").c_str(), "rb");
  const size_t got = f ? std::fread(mask.data(), 1, n, f) : 0;
  if (f) std::fclose(f);
  if (got != n) throw std::runtime_error("mask read failed");
  return mask;
}

}  // namespace

extern "C" {

LE_API le_ctx* le_create(const char* bundle_dir, const char* model_key, int threads, const char* ep) {
  le::boundary::clear(Family::Context);
  if (!bundle_dir || !model_key) {
    le::boundary::storeFixed(Family::Context, "le_create: NULL bundle_dir/model_key");
    return nullptr;
  }
  return le::boundary::run(Family::Context, "le_create", static_cast<le_ctx*>(nullptr), [&] {
    auto ctx = std::make_unique<le_ctx>();
    ctx->threads = threads < 1 ? le::pool::threads() : threads;
    ctx->ep = ep ? ep : "";
    ctx->model_key = model_key;
    ctx->manifest = le::loadManifest(bundle_dir, 0);
    const le::Manifest& m = ctx->manifest;
    // The identity refuses a bundle without a warp prior here rather than at
    // the first rendered frame.
    ctx->identity = std::make_unique<le::Identity>(m);
    ctx->drive = le::loadDrive(m);
    ctx->paste = std::make_unique<le::Paste>(readMask(m), m.crop, le::Unsharp{m.amount, m.sigma, m.ksize});
    ctx->cursor = le::DriverCursor::open(m, 2, 11);
    ctx->frame_rgb.resize(static_cast<size_t>(m.W) * static_cast<size_t>(m.H) * 3);
    return ctx.release();
  });
}

LE_API void le_destroy(le_ctx* ctx) { delete ctx; }

LE_API const char* le_last_error(void) { return le::boundary::errorOf(Family::Context).c_str(); }

LE_API int le_host_kp_rows(void) { return 21; }

LE_API int le_nt(const le_ctx* ctx) { return ctx ? ctx->manifest.NT : 0; }
LE_API int le_width(const le_ctx* ctx) { return ctx ? ctx->manifest.W : 0; }
LE_API int le_height(const le_ctx* ctx) { return ctx ? ctx->manifest.H : 0; }
LE_API int le_crop(const le_ctx* ctx) { return ctx ? ctx->manifest.crop : 0; }

}  // extern "C"
