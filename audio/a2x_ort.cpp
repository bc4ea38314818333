#include "audio/a2x_ort.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "director/diag.h"

namespace le {

namespace {

bool envIs(const char* name, const char* value) {
  const char* v = std::getenv(name);
  return v && std::strcmp(v, value) == 0;
}

}  // namespace

OrtLoggingLevel a2xOrtLogLevel() { return engineQuiet() ? ORT_LOGGING_LEVEL_ERROR : ORT_LOGGING_LEVEL_WARNING; }

void a2xSessionOptions(Ort::SessionOptions& options, int threads, const char* tag) {
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  le_a2x_maybe_cuda(options, tag);
}

void le_a2x_maybe_cuda(Ort::SessionOptions& options, const char* tag) {
  // The encoder and decoder are small and sequential: only the speech
  // frontend is worth a GPU.
  if (!envIs("LE_A2X_CUDA", "1") || !tag || std::strcmp(tag, "w2v") != 0) return;
  const char* memText = std::getenv("LE_A2X_CUDA_MEM_MIB");
  const long long asked = memText ? std::atoll(memText) : 0;
  const size_t mem = asked > 0 ? static_cast<size_t>(asked) : 3072;
  try {
    Ort::CUDAProviderOptions cuda;
    const std::string bytes = std::to_string(static_cast<unsigned long long>(mem) << 20);
    cuda.Update({{"device_id", "0"},
                 {"arena_extend_strategy", "kSameAsRequested"},
                 {"gpu_mem_limit", bytes},
                 {"cudnn_conv_use_max_workspace", "0"},
                 {"use_tf32", "0"}});
    options.AppendExecutionProvider_CUDA_V2(*cuda);
    std::fprintf(diag_stream(), "[le_a2x] CUDA EP appended (%s, V2: no-max-workspace, mem<=%zuMiB)\n", tag, mem);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "[le_a2x] CUDA EP append failed (%s): %s -- falling back to CPU\n", tag, oneLine(e.what()).c_str());
  }
}

bool le_a2x_is_fp16_fusion_refusal(const char* what) {
  return what && std::strstr(what, "Gelu") && std::strstr(what, "float16");
}

Ort::Session le_a2x_open_session(Ort::Env& env, const char* path, Ort::SessionOptions& options) {
  try {
    return Ort::Session(env, path, options);
  } catch (const std::exception& e) {
    if (!le_a2x_is_fp16_fusion_refusal(e.what())) throw;
  }
  std::fprintf(stderr,
               "[le_a2x] %s: ORT's level-2 Gelu fusion produced a float16 com.microsoft.Gelu this runtime has no CPU "
               "kernel for; reopening at ORT_ENABLE_BASIC\n",
               path);
  options.SetGraphOptimizationLevel(ORT_ENABLE_BASIC);
  return Ort::Session(env, path, options);
}

std::string oneLine(const char* what) {
  std::string s = what ? what : "";
  for (char& c : s)
    if (c == '\n' || c == '\r') c = ' ';
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
  return s;
}

const Ort::MemoryInfo& cpuMemory() {
  static const Ort::MemoryInfo info = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  return info;
}

std::string outputName(const Ort::Session& session, size_t i) {
  Ort::AllocatorWithDefaultOptions allocator;
  return session.GetOutputNameAllocated(i, allocator).get();
}

std::vector<int64_t> outputShape(const Ort::Session& session, size_t i) {
  const Ort::TypeInfo info = session.GetOutputTypeInfo(i);
  if (info.GetONNXType() != ONNX_TYPE_TENSOR) return {};
  return info.GetTensorTypeAndShapeInfo().GetShape();
}

bool hasInput(const Ort::Session& session, const char* name) {
  Ort::AllocatorWithDefaultOptions allocator;
  for (size_t i = 0, n = session.GetInputCount(); i < n; ++i)
    if (std::strcmp(session.GetInputNameAllocated(i, allocator).get(), name) == 0) return true;
  return false;
}

}  // namespace le
