#include "director/conv/m4b_topology.h"

#include <cctype>

namespace le::conv {

const std::vector<M4bFixed>& kM4bFixed() {
  static const std::vector<M4bFixed> rows = {
      {"s.e0.conv.weight", {96, 96, 3, 3}},   {"s.e0.conv.bias", {96}},
      {"s.e1.conv.weight", {144, 96, 3, 3}},  {"s.e1.conv.bias", {144}},
      {"s.e2.conv.weight", {192, 144, 3, 3}}, {"s.e2.conv.bias", {192}},
      {"s.d1.conv.weight", {144, 336, 3, 3}}, {"s.d1.conv.bias", {144}},
      {"s.d0.conv.weight", {96, 240, 3, 3}},  {"s.d0.conv.bias", {96}},
      {"s.ref.conv.weight", {48, 96, 3, 3}},  {"s.ref.conv.bias", {48}},
      {"s.mask.weight", {22, 48, 3, 3}},      {"s.mask.bias", {22}},
      {"s.occ.weight", {1, 48, 3, 3}},        {"s.occ.bias", {1}},
      {"s.wmlp.0.weight", {128, 255}},        {"s.wmlp.2.weight", {64, 128}},
      {"s.corr.0.conv.weight", {24, 7, 3, 3}}, {"s.corr.0.conv.bias", {24}},
      {"s.corr.1.conv.weight", {24, 24, 3, 3}}, {"s.corr.1.conv.bias", {24}},
      {"s.corr.2.weight", {12, 24, 3, 3}},    {"s.corr.2.bias", {12}},
      {"s.tile.0.conv.weight", {32, 7, 3, 3}}, {"s.tile.0.conv.bias", {32}},
      {"s.tile.1.conv.weight", {32, 32, 3, 3}}, {"s.tile.1.conv.bias", {32}},
      {"s.tile.2.conv.weight", {32, 32, 3, 3}}, {"s.tile.2.conv.bias", {32}},
      {"s.tile.3.weight", {3, 32, 3, 3}},     {"s.tile.3.bias", {3}},
      {"s.grid64", {64, 64, 2}},              {"s.feather", {1, 1, 256, 208}},
      {"s.wmlp.0.bias", {128}},               {"s.wmlp.2.bias", {64}},
  };
  return rows;
}

const M4bDrifting& kM4bPreW() {
  static const M4bDrifting row{"onnx::Conv_313", {96, 85, 1, 1}};
  return row;
}
const M4bDrifting& kM4bGrid32() {
  static const M4bDrifting row{"onnx::Sub_316", {1, 1, 32, 32, 2}};
  return row;
}
const M4bDrifting& kM4bBasis() {
  static const M4bDrifting row{"onnx::MatMul_338", {64, 196608}};
  return row;
}

namespace {

// The index of the first initializer named name, or -1.
long find(const TensorShapes& shapes, const std::string& name) {
  for (size_t i = 0; i < shapes.names.size(); ++i)
    if (shapes.names[i] == name) return static_cast<long>(i);
  return -1;
}

}  // namespace

std::string resolveByShape(const TensorShapes& shapes, const M4bDrifting& row) {
  const long byName = find(shapes, row.name);
  if (byName >= 0 && shapes.dims[static_cast<size_t>(byName)] == row.dims) return row.name;
  std::string found;
  int count = 0;
  for (size_t i = 0; i < shapes.names.size(); ++i) {
    if (shapes.dims[i] != row.dims) continue;
    found = shapes.names[i];
    ++count;
  }
  return count == 1 ? found : std::string();
}

bool m4bResolve(const TensorShapes& shapes, M4bNames& names, std::string* why) {
  const auto fail = [&](const std::string& text) {
    if (why) *why = text;
    return false;
  };
  for (const M4bFixed& row : kM4bFixed()) {
    const long i = find(shapes, row.name);
    if (i < 0) return fail(std::string("missing ") + row.name);
    if (shapes.dims[static_cast<size_t>(i)] != row.dims) return fail(std::string("shape ") + row.name);
  }
  names.preWeight = resolveByShape(shapes, kM4bPreW());
  if (names.preWeight.empty()) return fail("pre weight (96,85,1,1) absent or ambiguous");
  // The exporter numbers values in order, so the bias follows its weight:
  // "..._313" has its bias under "..._314".
  const std::string& w = names.preWeight;
  size_t digits = w.size();
  while (digits > 0 && std::isdigit(static_cast<unsigned char>(w[digits - 1]))) --digits;
  if (digits == w.size() || digits == 0 || w.size() - digits > 18)
    return fail("pre weight name carries no SSA counter");
  names.preBias = w.substr(0, digits) + std::to_string(std::stoll(w.substr(digits)) + 1);
  const long bias = find(shapes, names.preBias);
  if (bias < 0 || shapes.dims[static_cast<size_t>(bias)] != std::vector<int64_t>{96})
    return fail("pre bias " + names.preBias + " absent or not (96)");
  names.grid32 = resolveByShape(shapes, kM4bGrid32());
  if (names.grid32.empty()) return fail("grid32 (1,1,32,32,2) absent or ambiguous");
  names.basis = resolveByShape(shapes, kM4bBasis());
  if (names.basis.empty()) return fail("basis (64,196608) absent or ambiguous");
  return true;
}

}  // namespace le::conv
