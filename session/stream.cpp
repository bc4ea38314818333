// Opening a batch session: the context (director key "render"), the delta
// model from the bundle's fca_stream.onnx, and xs_target.bin. Both paths
// are formed from the bundle directory as the host gave it.
#include "session/stream.h"

#include <fstream>
#include <stdexcept>

#include "bundle/members.h"

namespace le {

namespace {

// At least count floats from the front of the file; empty if it has fewer
// or can't be read.
std::vector<float> readAtLeast(const std::string& path, size_t count) {
  std::ifstream f(path, std::ios::binary);
  std::vector<float> v(count);
  if (!f || !f.read(reinterpret_cast<char*>(v.data()), static_cast<std::streamsize>(count * sizeof(float))))
    return {};
  return v;
}

}  // namespace

std::unique_ptr<le_stream> createStream(const char* bundleDir, const char* w2vPath, int threads, int lag, float gain,
                                        std::string* refusal) {
  if (lag < 0) throw std::runtime_error("lag must be 0 or more, got " + std::to_string(lag));
  auto s = std::make_unique<le_stream>();
  s->ctx = le_create(bundleDir, "render", threads, "");
  if (!s->ctx) {
    *refusal = std::string("le_create: ") + le_last_error();
    return nullptr;
  }
  s->nt = le_nt(s->ctx);
  s->w = le_width(s->ctx);
  s->h = le_height(s->ctx);
  s->crop = le_crop(s->ctx);
  const std::string dir = bundleDir;
  s->fca = le_fca_create(w2vPath, (dir + "/fca_stream.onnx").c_str(), threads);
  if (!s->fca) {
    *refusal = std::string("le_fca_create: ") + le_fca_last_error();
    return nullptr;
  }
  s->xs_target = readAtLeast(resolveMember(dir, "xs_target.bin"), static_cast<size_t>(s->nt) * 63);
  if (s->xs_target.empty()) {
    *refusal = "le_stream_create: cannot read xs_target.bin (NT*63 f32)";
    return nullptr;
  }
  s->lag = lag;
  s->gain = gain;
  return s;
}

}  // namespace le

le_stream::~le_stream() {
  le_fca_destroy(fca);
  le_destroy(ctx);
}
