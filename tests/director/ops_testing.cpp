#include "tests/director/ops_testing.h"

#include <onnxruntime_cxx_api.h>

#include <random>

#include "director/ops/custom_ops.h"
#include "tests/support/test_support.h"

// ONNX Runtime 1.29 leaves one small allocation behind for every Ort::Env
// (14 bytes, inside libonnxruntime): not ours to fix.
extern "C" const char* __lsan_default_suppressions() { return "leak:libonnxruntime.so"; }

namespace le::test {

std::vector<OpOutput> runOpGraph(const std::string& graph, const std::vector<OpInput>& inputs,
                                 const std::vector<std::string>& outputs, int threads) {
  static Ort::Env env(ORT_LOGGING_LEVEL_FATAL, "custom_ops_test");  // refusals are expected here
  const std::string model = readFile(dataPath("ops/" + graph + ".onnx"));
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  options.AddConfigEntry("session.intra_op.allow_spinning", "0");
  registerGridSampleFast(options);
  registerInt8ConvVNNI(options);
  Ort::Session session(env, model.data(), model.size(), options);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<Ort::Value> values;
  std::vector<const char*> names;
  for (const OpInput& in : inputs) {
    names.push_back(in.name.c_str());
    if (!in.i8.empty())
      values.push_back(Ort::Value::CreateTensor<int8_t>(mem, const_cast<int8_t*>(in.i8.data()), in.i8.size(),
                                                        in.shape.data(), in.shape.size()));
    else
      values.push_back(Ort::Value::CreateTensor<float>(mem, const_cast<float*>(in.f.data()), in.f.size(),
                                                       in.shape.data(), in.shape.size()));
  }
  std::vector<const char*> outNames;
  for (const std::string& o : outputs) outNames.push_back(o.c_str());
  std::vector<Ort::Value> got = session.Run(Ort::RunOptions{nullptr}, names.data(), values.data(), values.size(),
                                            outNames.data(), outNames.size());
  std::vector<OpOutput> result;
  for (Ort::Value& v : got) {
    OpOutput o;
    o.shape = v.GetTensorTypeAndShapeInfo().GetShape();
    const float* d = v.GetTensorData<float>();
    o.data.assign(d, d + v.GetTensorTypeAndShapeInfo().GetElementCount());
    result.push_back(std::move(o));
  }
  return result;
}

std::vector<float> seededFloats(size_t n, uint32_t seed, float lo, float hi) {
  std::mt19937 rng(seed);
  std::uniform_real_distribution<float> d(lo, hi);
  std::vector<float> v(n);
  for (float& x : v) x = d(rng);
  return v;
}

}  // namespace le::test
