// The pinned ONNX Runtime is found, linked and loaded.
#include <onnxruntime_c_api.h>

#include "director/ort_version.h"
#include "tests/support/test_support.h"

TEST(OnnxRuntime, LoadsThePinnedVersion) {
  EXPECT_EQ(le::ortVersionText(), "1.29.0");
  // The headers the engine compiles against match the library it loads.
  EXPECT_NE(OrtGetApiBase()->GetApi(ORT_API_VERSION), nullptr);
}
