#include "tests/director/graph_testing.h"

#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "director/ops/custom_ops.h"
#include "director/rewrites/head_cubic.h"
#include "tests/support/test_support.h"
#include "tests/support/xorshift.h"

// ONNX Runtime 1.29 leaves one small allocation behind for every Ort::Env
// (14 bytes, inside libonnxruntime): not ours to fix, and it would fail every
// case of this program that runs a session under LeakSanitizer.
extern "C" const char* __lsan_default_suppressions() { return "leak:libonnxruntime.so"; }

namespace le::test {

GsBytes toBytes(const std::string& s) { return GsBytes(s.begin(), s.end()); }

GsBytes graphFile(const std::string& rel) { return toBytes(readFile(dataPath("graphs/" + rel))); }

std::vector<std::string> rawFields(GsSlice message) {
  std::vector<std::string> out;
  GsReader r(message);
  GsField f;
  while (r.next(f)) out.push_back(f.raw.str());
  return out;
}

::testing::AssertionResult sameBytes(const GsBytes& got, const GsBytes& want) {
  const size_t n = std::min(got.size(), want.size());
  const size_t at = static_cast<size_t>(std::mismatch(got.begin(), got.begin() + static_cast<long>(n), want.begin()).first -
                                        got.begin());
  if (at == n && got.size() == want.size()) return ::testing::AssertionSuccess();
  return ::testing::AssertionFailure() << got.size() << " bytes against " << want.size()
                                       << " expected; the first difference is at byte " << at;
}

::testing::AssertionResult sameFields(const std::vector<std::string>& got, const std::vector<std::string>& want) {
  for (size_t i = 0; i < std::min(got.size(), want.size()); ++i)
    if (got[i] != want[i])
      return ::testing::AssertionFailure() << "field " << i << " differs (" << got[i].size() << " bytes against "
                                           << want[i].size() << " expected)";
  if (got.size() != want.size())
    return ::testing::AssertionFailure() << got.size() << " fields against " << want.size() << " expected";
  return ::testing::AssertionSuccess();
}

ModelParts modelParts(const GsBytes& model) {
  ModelParts parts;
  GsReader r(gsSliceOf(model));
  GsField f;
  bool seen = false;
  while (r.next(f)) {
    if (!seen && f.number == 7) {
      seen = true;
      parts.graphAt = parts.top.size();
      parts.graph = rawFields(f.payload);
    }
    parts.top.push_back(f.raw.str());
  }
  if (!seen) throw std::runtime_error("test: the model has no graph");
  return parts;
}

size_t nodeFieldIndex(const std::vector<std::string>& graph, size_t k) {
  for (size_t i = 0; i < graph.size(); ++i)
    if (static_cast<uint8_t>(graph[i][0]) == 0x0A && k-- == 0) return i;
  throw std::runtime_error("test: no such node");
}

std::string lenField(uint32_t number, const GsBytes& payload) {
  GsBytes out;
  gsPutLen(out, number, payload);
  return std::string(out.begin(), out.end());
}

std::vector<float> initializerFloats(const GsBytes& model, const std::string& name) {
  for (const GsInitializer& init : gsReadInitializers(gsGraphOf(model))) {
    std::vector<float> v;
    if (init.name == name && hcTensorFloats(init.body, v)) return v;
  }
  throw std::runtime_error("test: no float initializer " + name);
}

void expectRewriteCases(const std::string& dir, Rewrite rewrite, const std::vector<RewriteCase>& cases) {
  for (const RewriteCase& c : cases) {
    SCOPED_TRACE(dir + "/" + c.file);
    const GsBytes original = graphFile(dir + "/" + c.file + ".onnx");
    GsBytes bytes = original;
    std::string reason = "not cleared";
    EXPECT_EQ(rewrite(bytes, &reason), c.count);
    EXPECT_EQ(reason, c.reason);
    if (c.count == 0) {
      EXPECT_TRUE(sameBytes(bytes, original));
    }
  }
}

DirectorInputs sampleInputs(uint32_t seed) {
  le::test::XorShift64 rng{seed * 0x9E3779B97F4A7C15ull + 1};
  auto unit = [&] { return rng.unit24(); };
  DirectorInputs in;
  in.pooled64.resize(64 * 32 * 32);
  in.prior.resize(3 * 32 * 32);
  in.kpDriving.resize(63);
  in.kpSource.resize(63);
  for (float& v : in.pooled64) v = unit() * 2.0f - 1.0f;
  for (float& v : in.prior) v = unit();
  for (float& v : in.kpDriving) v = unit() * 2.0f - 1.0f;
  for (float& v : in.kpSource) v = unit() * 2.0f - 1.0f;
  return in;
}

std::vector<float> runGraph(const GsBytes& model, const std::vector<NamedTensor>& inputs, const std::string& output,
                            int threads) {
  static Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "rewrites_test");
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(threads);
  options.SetInterOpNumThreads(1);
  registerGridSampleFast(options);
  Ort::Session session(env, model.data(), model.size(), options);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  std::vector<const char*> names;
  std::vector<Ort::Value> values;
  for (const NamedTensor& t : inputs) {
    names.push_back(t.name.c_str());
    values.push_back(Ort::Value::CreateTensor<float>(mem, const_cast<float*>(t.data->data()), t.data->size(),
                                                     t.shape.data(), t.shape.size()));
  }
  const char* out = output.c_str();
  std::vector<Ort::Value> result =
      session.Run(Ort::RunOptions{nullptr}, names.data(), values.data(), values.size(), &out, 1);
  const float* p = result[0].GetTensorData<float>();
  return std::vector<float>(p, p + result[0].GetTensorTypeAndShapeInfo().GetElementCount());
}

std::vector<NamedTensor> directorTensors(const DirectorInputs& in, bool withPrior) {
  std::vector<NamedTensor> t = {{"pooled64", {1, 64, 32, 32}, &in.pooled64},
                                {"kp_driving", {1, 21, 3}, &in.kpDriving},
                                {"kp_source", {1, 21, 3}, &in.kpSource}};
  if (withPrior) t.push_back({"P_rgb", {1, 3, 32, 32}, &in.prior});
  if (!in.lip.empty()) t.push_back({"lip_delivery", {1, 1, 32, 32}, &in.lip});
  return t;
}

std::vector<float> runDirector(const GsBytes& model, const DirectorInputs& in) {
  return runGraph(model, directorTensors(in), "rgb");
}

float maxAbsDiff(const std::vector<float>& a, const std::vector<float>& b) {
  if (a.size() != b.size()) return INFINITY;
  float m = 0.0f;
  for (size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(a[i] - b[i]));
  return m;
}

}  // namespace le::test
