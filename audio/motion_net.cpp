#include "audio/motion_net.h"

#include <cstdlib>
#include <stdexcept>
#include <unordered_map>

namespace le::motion {

namespace {

const char* computeUnits(const std::string& unit) {
  if (unit == "cpu") return "CPUOnly";
  if (unit == "gpu") return "CPUAndGPU";
  if (unit == "ane") return "CPUAndNeuralEngine";
  return "ALL";
}

}  // namespace

void sessionOptions(Ort::SessionOptions& options, int threads) {
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  const char* spin = std::getenv("LE_ORT_SPIN");
  if (!spin || spin[0] != '1') options.AddConfigEntry("session.intra_op.allow_spinning", "0");
}

void appendProvider(Ort::SessionOptions& options, const std::string& ep, const std::string& cacheDir) {
  if (ep.empty()) return;
  if (ep.rfind("coreml", 0) != 0) throw std::runtime_error("le_motion: unknown ep '" + ep + "'");
  const std::string unit = ep.size() > 7 ? ep.substr(7) : "";
  // Where this runtime was built without the provider this throws its own
  // reason, and the pipeline is not created.
  options.AppendExecutionProvider("CoreML", {{"ModelFormat", "MLProgram"},
                                             {"MLComputeUnits", computeUnits(unit)},
                                             {"ModelCacheDirectory", cacheDir}});
}

Net::Net(Ort::Env& env, const std::string& path, const Ort::SessionOptions& options)
    : path_(path),
      session_(env, path.c_str(), options),
      mem_(Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault)),
      runOptions_() {
  Ort::AllocatorWithDefaultOptions allocator;
  const size_t n = session_.GetInputCount();
  for (size_t i = 0; i < n; ++i) {
    inNames_.emplace_back(session_.GetInputNameAllocated(i, allocator).get());
    const Ort::TypeInfo info = session_.GetInputTypeInfo(i);
    if (info.GetONNXType() != ONNX_TYPE_TENSOR ||
        info.GetTensorTypeAndShapeInfo().GetElementType() != ONNX_TENSOR_ELEMENT_DATA_TYPE_FLOAT)
      throw std::runtime_error(path + ": input '" + inNames_.back() + "' is not a float tensor");
    std::vector<int64_t> shape = info.GetTensorTypeAndShapeInfo().GetShape();
    size_t floats = 1;
    for (int64_t& d : shape) {
      if (d < 1) d = 1;
      floats *= static_cast<size_t>(d);
    }
    inShapes_.push_back(std::move(shape));
    inFloats_.push_back(floats);
  }
  for (const std::string& s : inNames_) inPtrs_.push_back(s.c_str());
  if (session_.GetOutputCount() < 1) throw std::runtime_error(path + ": the graph has no output");
  outName_ = session_.GetOutputNameAllocated(0, allocator).get();
  outPtr_ = outName_.c_str();
}

void Net::run(const float* const* inputs, const size_t* sizes, size_t count, float* out, size_t outCount,
              const std::vector<int64_t>& outShape) {
  if (count != inNames_.size())
    throw std::runtime_error(path_ + ": the graph has " + std::to_string(inNames_.size()) + " inputs, the pipeline feeds " +
                             std::to_string(count));
  for (size_t i = 0; i < count; ++i)
    if (sizes[i] != inFloats_[i])
      throw std::runtime_error(path_ + ": input '" + inNames_[i] + "' declares " + std::to_string(inFloats_[i]) +
                               " floats, the pipeline feeds " + std::to_string(sizes[i]));
  bool same = boundOut_ == out && boundIn_.size() == count;
  for (size_t i = 0; same && i < count; ++i) same = boundIn_[i] == inputs[i];
  if (!same) {
    inValues_.clear();
    for (size_t i = 0; i < count; ++i)
      inValues_.push_back(Ort::Value::CreateTensor<float>(mem_, const_cast<float*>(inputs[i]), sizes[i],
                                                          inShapes_[i].data(), inShapes_[i].size()));
    outValue_ = Ort::Value::CreateTensor<float>(mem_, out, outCount, outShape.data(), outShape.size());
    boundIn_.assign(inputs, inputs + count);
    boundOut_ = out;
  }
  session_.Run(runOptions_, inPtrs_.data(), inValues_.data(), count, &outPtr_, &outValue_, 1);
}

}  // namespace le::motion
