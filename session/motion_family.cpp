#include "session/motion_family.h"

#include "le/le_a2x.h"
#include "le/le_motion.h"

namespace le::session {

namespace {

le_a2x* A(void* m) { return static_cast<le_a2x*>(m); }
le_motion* M(void* m) { return static_cast<le_motion*>(m); }

}  // namespace

const MotionFamily& a2xFamily() {
  static const MotionFamily f{
      "le_a2x",
      [](const char* dir, int threads, const char*) -> void* { return le_a2x_create(dir, threads); },
      [](void* m) { le_a2x_destroy(A(m)); },
      [](void* m, int v) { le_a2x_set_eager(A(m), v); },
      [](void* m, int si, int dir, int loop) { le_a2x_reset(A(m), si, dir, loop); },
      [](void* m, const float* pcm, int n) { le_a2x_push(A(m), pcm, n); },
      [](void* m) { le_a2x_finish(A(m)); },
      [](void* m) { return le_a2x_avail(A(m)); },
      [](void* m, int* si, float* xs, float* xd, int n) { return le_a2x_pull(A(m), si, xs, xd, n); },
      [](void* m) { return le_a2x_total(A(m)); },
      [] { return le_a2x_last_error(); },
  };
  return f;
}

const MotionFamily& motionFamily() {
  static const MotionFamily f{
      "le_motion",
      [](const char* dir, int threads, const char* ep) -> void* { return le_motion_create(dir, threads, ep); },
      [](void* m) { le_motion_destroy(M(m)); },
      [](void* m, int v) { le_motion_set_eager(M(m), v); },
      [](void* m, int si, int dir, int loop) { le_motion_reset(M(m), si, dir, loop); },
      // Audio after the end of an utterance is refused by the pipeline; the
      // session goes on without it.
      [](void* m, const float* pcm, int n) { le_motion_push(M(m), pcm, n); },
      [](void* m) { le_motion_finish(M(m)); },
      [](void* m) { return le_motion_avail(M(m)); },
      [](void* m, int* si, float* xs, float* xd, int n) { return le_motion_pull(M(m), si, xs, xd, n); },
      [](void* m) { return le_motion_total(M(m)); },
      [] { return le_motion_last_error(); },
  };
  return f;
}

}  // namespace le::session
