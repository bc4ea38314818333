#pragma once

#include <string>

namespace le {

// The version text of the ONNX Runtime the library loaded ("1.29.0").
std::string ortVersionText();

}  // namespace le
