// The le_a2x C family: each call clears the family's error string, checks
// its arguments in one test, and runs the work on the boundary road.
#include <cstdlib>
#include <memory>

#include "audio/a2x.h"
#include "audio/w2v_shared.h"
#include "le/boundary.h"
#include "le/le_a2x.h"

using le::boundary::Family;

extern "C" {

LE_API le_a2x* le_a2x_create(const char* bundle, int threads) {
  le::boundary::clear(Family::A2x);
  if (!bundle) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_create: NULL bundle");
    return nullptr;
  }
  return le::boundary::run(Family::A2x, "le_a2x_create", static_cast<le_a2x*>(nullptr),
                           [&] { return le::createA2x(bundle, threads).release(); });
}

LE_API void le_a2x_destroy(le_a2x* a) { delete a; }

LE_API const char* le_a2x_last_error(void) { return le::boundary::errorOf(Family::A2x).c_str(); }

LE_API int le_a2x_nt(const le_a2x* a) { return a ? a->NT : 0; }

LE_API void le_a2x_reset(le_a2x* a, int start, int dir, int loop) {
  le::boundary::clear(Family::A2x);
  if (!a) return;
  le::boundary::run(Family::A2x, "le_a2x_reset", 0, [&] {
    a->reset(start, dir, loop);
    return 0;
  });
}

LE_API int le_a2x_push(le_a2x* a, const float* pcm, int n) {
  le::boundary::clear(Family::A2x);
  if (!a || (n > 0 && !pcm)) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_push: NULL handle or pcm");
    return 0;
  }
  return le::boundary::run(Family::A2x, "le_a2x_push", 0, [&] {
    a->push(pcm, n);
    return 1;
  });
}

LE_API void le_a2x_finish(le_a2x* a) {
  if (a) a->finished = true;
}

LE_API int le_a2x_avail(le_a2x* a) {
  le::boundary::clear(Family::A2x);
  if (!a) return 0;
  return le::boundary::run(Family::A2x, "le_a2x_avail", 0, [&] { return a->avail(); });
}

LE_API int le_a2x_total(le_a2x* a) { return a ? a->total() : -1; }

LE_API int le_a2x_pull_wn(le_a2x* a, int* rows, float* xs, float* xd, float* wn, int max) {
  le::boundary::clear(Family::A2x);
  if (!a || (max > 0 && (!rows || !xs || !xd))) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_pull: NULL handle, rows, xs or xd");
    return 0;
  }
  return le::boundary::run(Family::A2x, "le_a2x_pull", 0, [&] { return a->pull(rows, xs, xd, wn, max); });
}

LE_API int le_a2x_pull(le_a2x* a, int* rows, float* xs, float* xd, int max) {
  return le_a2x_pull_wn(a, rows, xs, xd, nullptr, max);
}

LE_API int le_a2x_width(const le_a2x* a) { return a && a->widthFlag ? 1 : 0; }

LE_API void le_a2x_set_eager(le_a2x* a, int v) {
  if (a) a->eager = v;
}

LE_API int le_a2x_deltas(le_a2x* a, const float* pcm, int n, float* out, int maxFrames) {
  le::boundary::clear(Family::A2x);
  if (!a || (n > 0 && (!pcm || !out))) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_deltas: NULL handle, pcm or out");
    return -1;
  }
  return le::boundary::run(Family::A2x, "le_a2x_deltas", -1, [&] { return a->deltasClip(pcm, n, out, maxFrames); });
}

LE_API int le_a2x_deltas_wn(le_a2x* a, const float* pcm, int n, float* out, float* wn, int maxFrames) {
  le::boundary::clear(Family::A2x);
  if (!a || (n > 0 && !wn)) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_deltas_wn: NULL handle or wn");
    return -1;
  }
  if (!a->widthFlag) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_deltas_wn: encoder declares no wn output");
    return -3;
  }
  const int frames = le_a2x_deltas(a, pcm, n, out, maxFrames);
  for (int i = 0; i < frames; ++i)
    wn[i] = static_cast<size_t>(i) < a->clipWn.size() ? a->clipWn[static_cast<size_t>(i)] : 0.0f;
  return frames;
}

LE_API int le_a2x_preload_w2v(const char* path) {
  le::boundary::clear(Family::A2x);
  const char* p = (path && *path) ? path : std::getenv("W2V_ONNX");
  if (!p || !*p) {
    le::boundary::storeFixed(Family::A2x, "le_a2x_preload_w2v: no path and $W2V_ONNX unset");
    return 0;
  }
  return le::boundary::run(Family::A2x, "le_a2x_preload_w2v", 0, [&] { return le::get_shared_w2v(p, 0) ? 1 : 0; });
}

LE_API int le_a2x_w2v8_lazy(void) { return 1; }

}  // extern "C"
