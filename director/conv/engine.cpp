// The engine's load: the file read whole, the initializers proved to be the
// m4b topology, the layers packed, the fixed tensors kept, and the workers.
#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "compute/half.h"
#include "compute/threads.h"
#include "director/conv/engine.h"
#include "director/conv/m4b_topology.h"
#include "director/conv/onnx_model.h"

namespace le::conv {

namespace {

std::vector<uint8_t> readFile(const std::string& path) {
  std::vector<uint8_t> bytes;
  const ReadResult r = readWholeFile(path, bytes);
  if (r == ReadResult::kCannotOpen) throw std::runtime_error("le_conv: cannot open " + path);
  if (r == ReadResult::kShortRead) throw std::runtime_error("le_conv: short read " + path);
  return bytes;
}

struct LayerShape {
  const char* name;
  int H, W, Cin, CinP, Cout, k;
  bool relu;
};

// The network's convolutions in order: output size, input channels (and as
// stored), output channels, kernel, activation.
constexpr LayerShape kLayers[kLayerCount] = {
    {"pre", 32, 32, 85, 88, 96, 1, true},        {"e0", 32, 32, 96, 96, 96, 3, true},
    {"e1", 16, 16, 96, 96, 144, 3, true},        {"e2", 8, 8, 144, 144, 192, 3, true},
    {"d1", 16, 16, 336, 336, 144, 3, true},      {"d0", 32, 32, 240, 240, 96, 3, true},
    {"ref", 64, 64, 96, 96, 48, 3, true},        {"maskocc", 64, 64, 48, 48, 23, 3, false},
    {"corr0", 256, 256, 7, 8, 24, 3, true},      {"corr1", 256, 256, 24, 24, 24, 3, true},
    {"corr2", 256, 256, 24, 24, 12, 3, false},   {"tile0", 256, 208, 7, 8, 32, 3, true},
    {"tile1", 256, 208, 32, 32, 32, 3, true},    {"tile2", 256, 208, 32, 32, 32, 3, true},
    {"tile3", 256, 208, 32, 32, 3, 3, false},
};

// Weight and bias initializers of each layer but pre (drifting names) and
// maskocc (two tensors joined).
const char* const kWeightNames[kLayerCount][2] = {
    {nullptr, nullptr},
    {"s.e0.conv.weight", "s.e0.conv.bias"},
    {"s.e1.conv.weight", "s.e1.conv.bias"},
    {"s.e2.conv.weight", "s.e2.conv.bias"},
    {"s.d1.conv.weight", "s.d1.conv.bias"},
    {"s.d0.conv.weight", "s.d0.conv.bias"},
    {"s.ref.conv.weight", "s.ref.conv.bias"},
    {nullptr, nullptr},
    {"s.corr.0.conv.weight", "s.corr.0.conv.bias"},
    {"s.corr.1.conv.weight", "s.corr.1.conv.bias"},
    {"s.corr.2.weight", "s.corr.2.bias"},
    {"s.tile.0.conv.weight", "s.tile.0.conv.bias"},
    {"s.tile.1.conv.weight", "s.tile.1.conv.bias"},
    {"s.tile.2.conv.weight", "s.tile.2.conv.bias"},
    {"s.tile.3.weight", "s.tile.3.bias"},
};

}  // namespace

void Scratch::alloc() {
  const auto halves = [](std::vector<uint16_t>& v, size_t rows, size_t cols, size_t channels) {
    v.assign(rows * cols * channels, 0);
  };
  halves(x0, 32, 32, 88);
  halves(p0, 34, 34, 96);
  halves(e0, 32, 32, 96);
  halves(e0p, 18, 18, 96);
  halves(e1, 16, 16, 144);
  halves(e1p, 10, 10, 144);
  halves(e2, 8, 8, 192);
  halves(d1in, 18, 18, 336);
  halves(d1, 16, 16, 144);
  halves(d0in, 34, 34, 240);
  halves(d0, 32, 32, 96);
  halves(refin, 66, 66, 96);
  halves(refout, 66, 66, 48);
  mo.assign(64 * 64 * 24, 0.0f);
  halves(occ512, 512, 512, 1);
  halves(warped, 3, 512, 512);
  halves(blended, 3, 512, 512);
  halves(corrIn, 258, 258, 8);
  halves(corrA, 258, 258, 24);
  halves(corrB, 258, 258, 24);
  halves(corrOut, 256, 256, 16);
  halves(tileIn, 258, 210, 8);
  halves(tileA, 258, 210, 32);
  halves(tileB, 258, 210, 32);
  halves(tileOut, 256, 208, 8);
  ready = true;
}

Engine::Engine(const std::string& path, int threads) {
  OnnxModel model;
  {
    const std::vector<uint8_t> bytes = readFile(path);
    model = readOnnxModel({bytes.data(), bytes.size()});
  }  // the file's bytes go; the weights stay as floats until packed
  if (model.batch < 1) throw std::runtime_error("le_conv: pooled64 input not found");
  batch_ = model.batch;
  M4bNames names;
  std::string why;
  if (!m4bResolve(model.shapes(), names, &why))
    throw std::runtime_error("le_conv: this graph is not the fused m4b topology this kernel implements (" + why +
                             ") — use ORT for it");

  for (int i = 0; i < kLayerCount; ++i) {
    const LayerShape& shape = kLayers[i];
    ConvLayer& L = layers_[static_cast<size_t>(i)];
    L.name = shape.name;
    L.H = shape.H;
    L.W = shape.W;
    L.Cin = shape.Cin;
    L.CinP = shape.CinP;
    L.Cout = shape.Cout;
    L.kH = L.kW = shape.k;
    L.relu = shape.relu;
    std::vector<float> w, b;
    if (i == kPre) {
      w = model.get(names.preWeight).data;
      b = model.get(names.preBias).data;
    } else if (i == kMaskOcc) {
      // 22 mask channels, then the occlusion as channel 22.
      w = model.get("s.mask.weight").data;
      b = model.get("s.mask.bias").data;
      const OnnxInitializer& ow = model.get("s.occ.weight");
      const OnnxInitializer& ob = model.get("s.occ.bias");
      w.insert(w.end(), ow.data.begin(), ow.data.end());
      b.insert(b.end(), ob.data.begin(), ob.data.end());
    } else {
      w = model.get(kWeightNames[i][0]).data;
      b = model.get(kWeightNames[i][1]).data;
    }
    packConv(L, w.data(), w.size(), b.data(), b.size());
  }

  grid32_ = model.get(names.grid32).data;
  grid64_ = model.get("s.grid64").data;
  feather_ = model.get("s.feather").data;
  wmlp0w_ = model.get("s.wmlp.0.weight").data;
  wmlp0b_ = model.get("s.wmlp.0.bias").data;
  wmlp2w_ = model.get("s.wmlp.2.weight").data;
  wmlp2b_ = model.get("s.wmlp.2.bias").data;
  {
    const std::vector<float>& basis = model.get(names.basis).data;
    constexpr size_t kCols = 196608;
    basis_.resize(basis.size());
    for (size_t r = 0; r < 64; ++r)
      for (size_t col = 0; col < kCols; ++col) {
        const size_t j = col / 16, q = col % 16;
        basis_[(j * 64 + r) * 16 + q] = f32ToF16(basis[r * kCols + col]);
      }
  }
  lin512from64_.init(512, 64);
  lin512from256_.init(512, 256);
  lin64from32_.init(64, 32);
  const auto B = static_cast<size_t>(batch_);
  gridAdd_.assign(B * 64 * 64 * 2, 0.0f);
  occ_.assign(B * 64 * 64, 0.0f);
  w64_.assign(B * 64, 0.0f);
  w64h_.assign(((B + 3) & ~size_t{3}) * 64, 0);
  basisImg_.assign(B * 3 * 256 * 256, 0);

  if (threads <= 0) threads = pool::threads();
  if (threads > batch_) threads = std::max(batch_, 1);
  scratch_.resize(static_cast<size_t>(threads));
  pool_ = std::make_unique<Pool>(threads);
  if (const char* dir = std::getenv("LE_CONV_DUMP")) dumpDir_ = dir;
}

Engine::~Engine() = default;

}  // namespace le::conv
