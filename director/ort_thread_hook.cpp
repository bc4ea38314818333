#include "director/ort_thread_hook.h"

#include <thread>

namespace le {

namespace {

thread_local const OrtThreadHook* t_hook = nullptr;

}  // namespace

void setOrtThreadHookForThisThread(const OrtThreadHook* hook) { t_hook = hook; }

const OrtThreadHook* ortThreadHookOfThisThread() { return t_hook; }

void applyOrtThreadHook(Ort::SessionOptions& options) {
  if (!t_hook) return;
  options.SetCustomCreateThreadFn(ortHookCreateThread);
  options.SetCustomThreadCreationOptions(const_cast<OrtThreadHook*>(t_hook));
  options.SetCustomJoinThreadFn(ortHookJoinThread);
}

OrtCustomThreadHandle ortHookCreateThread(void* options, OrtThreadWorkerFn fn, void* param) {
  const auto* hook = static_cast<const OrtThreadHook*>(options);
  auto* t = new std::thread([hook, fn, param] {
    if (hook && hook->fn) hook->fn(hook->arg);
    fn(param);
  });
  return reinterpret_cast<OrtCustomThreadHandle>(t);
}

void ortHookJoinThread(OrtCustomThreadHandle handle) {
  auto* t = reinterpret_cast<std::thread*>(const_cast<OrtCustomHandleType*>(handle));
  if (!t) return;
  if (t->joinable()) t->join();
  delete t;
}

}  // namespace le
