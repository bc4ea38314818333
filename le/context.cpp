#include "le/context.h"

#include <memory>

#include "bundle/identity_members.h"
#include "compute/threads.h"
#include "le/boundary.h"
#include "le/le.h"

using le::boundary::Family;

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
    // The identity tensors need a warp prior; a bundle without one is refused
    // here rather than when the first frame is rendered.
    le::ensureIdentityMembers(ctx->manifest);
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
