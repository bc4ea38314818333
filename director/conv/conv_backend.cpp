#include "director/conv/conv_backend.h"

#include <cstdio>
#include <vector>

#include "director/conv/engine.h"
#include "director/conv/m4b_topology.h"
#include "director/conv/onnx_model.h"

namespace le {

ConvBackend::~ConvBackend() = default;

bool ConvBackend::available() { return true; }

bool ConvBackend::graphSupported(const std::string& path) {
  try {
    std::FILE* f = std::fopen(path.c_str(), "rb");
    if (!f) return false;
    long size = -1;
    if (std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
    std::vector<uint8_t> bytes;
    bool ok = size >= 1 && std::fseek(f, 0, SEEK_SET) == 0;
    if (ok) {
      bytes.resize(static_cast<size_t>(size));
      ok = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
    }
    std::fclose(f);
    if (!ok) return false;
    conv::M4bNames names;
    return conv::m4bResolve(conv::readTensorShapes({bytes.data(), bytes.size()}), names, nullptr);
  } catch (const std::exception&) {
    return false;  // a wire error, or no memory for the file
  }
}

std::unique_ptr<ConvBackend> ConvBackend::create(const std::string& path, int threads) {
  return std::make_unique<conv::Engine>(path, threads);
}

}  // namespace le
