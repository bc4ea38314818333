#include "tests/motion/motion_testing.h"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/session/session_testing.h"
#include "tests/support/test_support.h"

namespace le::test {

std::string speakingBundle() { return dataPath("motion/bundles/speaking"); }

std::vector<float> clipFloats(const std::string& name, size_t n) {
  const std::vector<int16_t> pcm = clip(name);
  std::vector<float> out(std::min(n, pcm.size()));
  for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<float>(pcm[i]) * 3.0517578e-5f;
  return out;
}

MotionHandle::MotionHandle(const std::string& dir, int threads, const char* ep) {
  m = le_motion_create(dir.c_str(), threads, ep);
  if (!m) ADD_FAILURE() << le_motion_last_error();
}

MotionHandle::~MotionHandle() { le_motion_destroy(m); }

int pullAvailable(le_motion* m, Rows& rows) {
  const int a = le_motion_avail(m);
  if (a < 1) return 0;
  const size_t at = rows.size();
  rows.si.resize(at + static_cast<size_t>(a));
  rows.xs.resize((at + static_cast<size_t>(a)) * 63);
  rows.xd.resize((at + static_cast<size_t>(a)) * 63);
  const int got = le_motion_pull(m, rows.si.data() + at, rows.xs.data() + at * 63, rows.xd.data() + at * 63, a);
  rows.si.resize(at + static_cast<size_t>(std::max(got, 0)));
  rows.xs.resize(rows.si.size() * 63);
  rows.xd.resize(rows.si.size() * 63);
  return got;
}

PlainGraph::PlainGraph(const std::string& path) : env_(ORT_LOGGING_LEVEL_ERROR, "test") {
  Ort::SessionOptions o;
  o.SetIntraOpNumThreads(1);
  o.SetInterOpNumThreads(1);
  o.SetGraphOptimizationLevel(ORT_ENABLE_ALL);
  session_ = Ort::Session(env_, path.c_str(), o);
  Ort::AllocatorWithDefaultOptions a;
  for (size_t i = 0; i < session_.GetInputCount(); ++i) in_.emplace_back(session_.GetInputNameAllocated(i, a).get());
  for (size_t i = 0; i < session_.GetOutputCount(); ++i)
    out_.emplace_back(session_.GetOutputNameAllocated(i, a).get());
}

std::vector<float> PlainGraph::run(const std::vector<std::vector<float>*>& inputs,
                                   const std::vector<std::vector<int64_t>>& shapes) {
  return runAll(inputs, shapes)[0];
}

std::vector<std::vector<float>> PlainGraph::runAll(const std::vector<std::vector<float>*>& inputs,
                                                   const std::vector<std::vector<int64_t>>& shapes) {
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<Ort::Value> values;
  std::vector<const char*> names, outs;
  for (size_t i = 0; i < inputs.size(); ++i) {
    values.push_back(Ort::Value::CreateTensor<float>(mem, inputs[i]->data(), inputs[i]->size(), shapes[i].data(),
                                                     shapes[i].size()));
    names.push_back(in_[i].c_str());
  }
  for (const std::string& o : out_) outs.push_back(o.c_str());
  std::vector<Ort::Value> r =
      session_.Run(Ort::RunOptions{nullptr}, names.data(), values.data(), values.size(), outs.data(), outs.size());
  std::vector<std::vector<float>> got;
  for (const Ort::Value& v : r) {
    const float* p = v.GetTensorData<float>();
    got.emplace_back(p, p + v.GetTensorTypeAndShapeInfo().GetElementCount());
  }
  return got;
}

}  // namespace le::test
