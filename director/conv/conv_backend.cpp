#include "director/conv/conv_backend.h"

#include <vector>

#include "director/conv/engine.h"
#include "director/conv/m4b_topology.h"
#include "director/conv/onnx_model.h"

namespace le {

ConvBackend::~ConvBackend() = default;

bool ConvBackend::available() { return true; }

bool ConvBackend::graphSupported(const std::string& path) {
  try {
    std::vector<uint8_t> bytes;
    if (conv::readWholeFile(path, bytes) != conv::ReadResult::kOk || bytes.empty()) return false;
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
