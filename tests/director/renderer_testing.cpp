#include "tests/director/renderer_testing.h"

#include <onnxruntime_cxx_api.h>

#include <algorithm>
#include <cmath>

#include "compute/half.h"
#include "tessera/lip_contour.h"
#include "tests/support/test_support.h"

namespace le::test {

DirectorBundle::DirectorBundle(const std::string& rel)
    : manifest(loadManifest(dataPath(rel), 0)),
      identity(std::make_unique<Identity>(manifest)),
      drive(loadDrive(manifest)) {}

std::vector<float> plainRender(const DirectorBundle& b, const std::string& graphRel, const std::vector<int>& rows) {
  static Ort::Env env(ORT_LOGGING_LEVEL_ERROR, "renderer_test");
  const int64_t n = static_cast<int64_t>(rows.size()), crop = b.manifest.crop;
  const size_t plane = static_cast<size_t>(crop * crop);
  std::vector<float> pooled(rows.size() * 65536), prior(rows.size() * 3 * plane), kd(rows.size() * 63),
      ks(rows.size() * 63), lip(rows.size() * plane);
  tessera::LipContour contour = tessera::LipContour::fromTemplateJson(b.manifest.lip_template_json, b.manifest.crop);
  for (size_t r = 0; r < rows.size(); ++r) {
    const auto row = static_cast<size_t>(rows[r]);
    const int si = b.drive.si[row];
    halfToFloat(b.identity->pooled64(si), pooled.data() + r * 65536, 65536);
    halfToFloat(b.identity->P(si), prior.data() + r * 3 * plane, 3 * plane);
    std::copy_n(b.drive.xd.data() + row * 63, 63, kd.data() + r * 63);
    std::copy_n(b.drive.xs.data() + row * 63, 63, ks.data() + r * 63);
    contour.contourF32Canvas(kd.data() + r * 63, lip.data() + r * plane);
  }
  Ort::SessionOptions options;
  options.SetIntraOpNumThreads(1);
  const std::string bytes = readFile(dataPath(graphRel));
  Ort::Session session(env, bytes.data(), bytes.size(), options);
  const Ort::MemoryInfo mem = Ort::MemoryInfo::CreateCpu(OrtArenaAllocator, OrtMemTypeDefault);
  auto tensor = [&](std::vector<float>& data, std::vector<int64_t> shape) {
    return Ort::Value::CreateTensor<float>(mem, data.data(), data.size(), shape.data(), shape.size());
  };
  const char* names[] = {"pooled64", "P_rgb", "kp_driving", "kp_source", "lip_delivery"};
  Ort::Value values[] = {tensor(pooled, {n, 64, 32, 32}), tensor(prior, {n, 3, crop, crop}), tensor(kd, {n, 21, 3}),
                         tensor(ks, {n, 21, 3}), tensor(lip, {n, 1, crop, crop})};
  const char* output = "rgb";
  std::vector<Ort::Value> out = session.Run(Ort::RunOptions{nullptr}, names, values, 5, &output, 1);
  const float* p = out[0].GetTensorData<float>();
  return std::vector<float>(p, p + out[0].GetTensorTypeAndShapeInfo().GetElementCount());
}

float maxAbsDiff(const float* a, const float* b, size_t n) {
  float m = 0.0f;
  for (size_t i = 0; i < n; ++i) m = std::max(m, std::fabs(a[i] - b[i]));
  return m;
}

}  // namespace le::test
