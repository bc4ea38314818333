// The le_fca C family on the boundary road.
#include <cstdint>

#include "audio/fca.h"
#include "le/boundary.h"
#include "le/le_fca.h"

using le::boundary::Family;

extern "C" {

LE_API le_fca* le_fca_create(const char* w2v_path, const char* fca_path, int threads) {
  le::boundary::clear(Family::Fca);
  return le::boundary::run(Family::Fca, "le_fca_create", static_cast<le_fca*>(nullptr),
                           [&] { return le::createFca(w2v_path, fca_path, threads).release(); });
}

LE_API void le_fca_destroy(le_fca* f) { delete f; }

LE_API const char* le_fca_last_error(void) { return le::boundary::errorOf(Family::Fca).c_str(); }

LE_API int le_fca_deltas(le_fca* f, const float* pcm, int n, float* out, int maxFrames) {
  if (!f || (n > 0 && (!pcm || !out))) {
    le::boundary::storeFixed(Family::Fca, "le_fca_deltas: bad args");
    return -1;
  }
  if (n < 1) {
    le::boundary::clear(Family::Fca);
    return 0;
  }
  // Too small a buffer is the caller's sizing, not a failure of the model:
  // the error text is left as it was.
  const int64_t frames = (static_cast<int64_t>(n) + 639) / 640;
  if (frames > maxFrames) return -1;
  le::boundary::clear(Family::Fca);
  return le::boundary::run(Family::Fca, "le_fca_deltas", -1, [&] { return f->deltas(pcm, n, out); });
}

}  // extern "C"
