// The audio-to-motion model behind a session, through one pair of names: the
// streaming model (le_a2x) when the bundle carries its encoder, else the
// motion pipeline. The session makes every call but create from its dispatch
// thread, so the table is plain function pointers over an opaque handle.
#pragma once

#include <string>

namespace le::session {

struct MotionFamily {
  const char* name;  // "le_a2x" or "le_motion"
  void* (*create)(const char* dir, int threads, const char* ep);
  void (*destroy)(void* m);
  void (*setEager)(void* m, int v);
  void (*reset)(void* m, int si, int dir, int loop);
  void (*push)(void* m, const float* pcm, int n);
  void (*finish)(void* m);
  int (*avail)(void* m);
  int (*pull)(void* m, int* si, float* xs, float* xd, int n);
  int (*total)(void* m);
  const char* (*lastError)();
};

const MotionFamily& a2xFamily();
const MotionFamily& motionFamily();

}  // namespace le::session
