#include "director/ops/op_support.h"

namespace le {

std::vector<int64_t> opShape(const Ort::ConstValue& v) { return v.GetTensorTypeAndShapeInfo().GetShape(); }

int64_t opElements(const std::vector<int64_t>& shape) {
  int64_t n = 1;
  for (int64_t d : shape) n *= d;
  return n;
}

std::string opShapeText(const std::vector<int64_t>& shape) {
  std::string s = "[";
  for (size_t i = 0; i < shape.size(); ++i) s += (i ? "," : "") + std::to_string(shape[i]);
  return s + "]";
}

int64_t opAttrIntOr0(const OrtKernelInfo* info, const char* name) {
  int64_t v = 0;
  OrtStatus* st = Ort::GetApi().KernelInfoGetAttribute_int64(info, name, &v);
  if (st != nullptr) {
    Ort::GetApi().ReleaseStatus(st);
    return 0;
  }
  return v;
}

}  // namespace le
