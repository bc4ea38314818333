#include "session/motion_family.h"

#include "le/le_a2x.h"

namespace le::session {

namespace {

le_a2x* A(void* m) { return static_cast<le_a2x*>(m); }

// The motion pipeline has not joined this build yet: a bundle without the
// streaming encoder gets a session whose warm-up fails with this sentence,
// so idle frames still flow and the host is told why speech can't.
const char* noMotionText() {
  return "le_motion_create: this build has no motion pipeline; the bundle carries no a2x_enc_stream.onnx";
}

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
      [](const char*, int, const char*) -> void* { return nullptr; },
      [](void*) {},
      [](void*, int) {},
      [](void*, int, int, int) {},
      [](void*, const float*, int) {},
      [](void*) {},
      [](void*) { return 0; },
      [](void*, int*, float*, float*, int) { return 0; },
      [](void*) { return -1; },
      [] { return noMotionText(); },
  };
  return f;
}

}  // namespace le::session
