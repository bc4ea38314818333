// One graph of the motion pipeline: an ONNX Runtime session that reads
// caller buffers as its inputs, in graph order and with the shapes the graph
// declares, and writes its one output straight into a caller buffer.
#pragma once

#include <onnxruntime_cxx_api.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace le::motion {

// Intra-op threads as given, one inter-op thread, every graph optimisation;
// no spinning unless LE_ORT_SPIN begins with "1".
void sessionOptions(Ort::SessionOptions& options, int threads);

// The execution provider an ep text names: "" none (the CPU provider), a
// text beginning with "coreml" the CoreML provider (compute units from what
// follows its seventh character: "cpu", "gpu", "ane", else all) with its
// compiled models under cacheDir. Throws "le_motion: unknown ep '<ep>'" for
// any other text, and ONNX Runtime's reason where it has no such provider.
void appendProvider(Ort::SessionOptions& options, const std::string& ep, const std::string& cacheDir);

class Net {
 public:
  Net(Ort::Env& env, const std::string& path, const Ort::SessionOptions& options);

  // Runs the graph: inputs[i], sizes[i] floats, is its input i, with the
  // declared shape (a dimension below 1 taken as 1); out, outCount floats,
  // is its output 0 with outShape. A size that differs from the declared
  // shape throws before anything runs. Tensors over the same buffers as the
  // last run are reused.
  void run(const float* const* inputs, const size_t* sizes, size_t count, float* out, size_t outCount,
           const std::vector<int64_t>& outShape);

 private:
  std::string path_;
  Ort::Session session_{nullptr};
  std::vector<std::string> inNames_;
  std::vector<const char*> inPtrs_;
  std::vector<std::vector<int64_t>> inShapes_;
  std::vector<size_t> inFloats_;
  std::string outName_;
  const char* outPtr_ = nullptr;
  Ort::MemoryInfo mem_{nullptr};
  Ort::RunOptions runOptions_{nullptr};
  std::vector<const float*> boundIn_;
  float* boundOut_ = nullptr;
  std::vector<Ort::Value> inValues_;
  Ort::Value outValue_{nullptr};
};

}  // namespace le::motion
