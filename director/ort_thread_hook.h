// A hook that runs first on every intra-op thread ONNX Runtime starts for a
// session, so that a caller can give those threads what its own threads have
// (a name, a priority, a pool binding). It is set per calling thread: a
// session created on that thread afterwards uses it.
#pragma once

#include <onnxruntime_cxx_api.h>

namespace le {

struct OrtThreadHook {
  void (*fn)(void*) = nullptr;
  void* arg = nullptr;
};

// Stores the hook (not owned; it must outlive every session created with it)
// for sessions later created on this thread; null removes it.
void setOrtThreadHookForThisThread(const OrtThreadHook* hook);

// The hook of this thread, or null.
const OrtThreadHook* ortThreadHookOfThisThread();

// Installs the hook of this thread, if any, as the session's custom thread
// functions; with none set ONNX Runtime's own threads are used.
void applyOrtThreadHook(Ort::SessionOptions& options);

// The custom thread functions: start a thread that runs the hook's function
// (when hook and function are set) and then fn(param); join and free it.
OrtCustomThreadHandle ortHookCreateThread(void* options, OrtThreadWorkerFn fn, void* param);
void ortHookJoinThread(OrtCustomThreadHandle handle);

}  // namespace le
