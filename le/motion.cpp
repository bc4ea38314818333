// The le_motion C family: each call that can fail clears the family's error
// string, checks its arguments in one test, and runs the work on the
// boundary road.
#include "audio/motion.h"
#include "le/boundary.h"
#include "le/le_motion.h"

using le::boundary::Family;

extern "C" {

LE_API le_motion* le_motion_create(const char* motion_dir, int threads, const char* ep) {
  le::boundary::clear(Family::Motion);
  if (!motion_dir) {
    le::boundary::storeFixed(Family::Motion, "le_motion_create: NULL motion_dir");
    return nullptr;
  }
  return le::boundary::run(Family::Motion, "le_motion_create", static_cast<le_motion*>(nullptr),
                           [&] { return le::createMotion(motion_dir, threads, ep).release(); });
}

LE_API void le_motion_destroy(le_motion* m) { delete m; }

LE_API const char* le_motion_last_error(void) { return le::boundary::errorOf(Family::Motion).c_str(); }

LE_API int le_motion_nt(const le_motion* m) { return m ? m->nt : 0; }

LE_API void le_motion_reset(le_motion* m, int start, int dir, int loop) {
  if (m) m->reset(start, dir, loop);
}

LE_API int le_motion_push(le_motion* m, const float* pcm, int n) {
  le::boundary::clear(Family::Motion);
  if (!m || !pcm || n < 0 || m->finished) {
    le::boundary::storeFixed(Family::Motion, "le_motion_push: bad args / already finished");
    return 0;
  }
  return le::boundary::run(Family::Motion, "le_motion_push", 0, [&] {
    m->push(pcm, n);
    return 1;
  });
}

LE_API void le_motion_finish(le_motion* m) {
  if (!m || m->finished) return;
  le::boundary::clear(Family::Motion);
  le::boundary::run(Family::Motion, "le_motion_finish", 0, [&] {
    m->finish();
    return 0;
  });
}

LE_API int le_motion_avail(le_motion* m) {
  le::boundary::clear(Family::Motion);
  if (!m) return 0;
  return le::boundary::run(Family::Motion, "le_motion_avail", 0, [&] { return m->avail(); });
}

LE_API int le_motion_total(const le_motion* m) { return m ? m->total : -1; }

LE_API void le_motion_set_eager(le_motion* m, int v) {
  if (m) m->eager = v;
}

LE_API int le_motion_pull(le_motion* m, int* rows, float* xs, float* xd, int max) {
  le::boundary::clear(Family::Motion);
  if (!m || !xs || !xd || max < 1) {
    le::boundary::storeFixed(Family::Motion, "le_motion_pull: bad args");
    return 0;
  }
  return le::boundary::run(Family::Motion, "le_motion_pull", 0, [&] { return m->pull(rows, xs, xd, max); });
}

}  // extern "C"
