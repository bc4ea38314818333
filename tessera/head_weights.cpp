#include "tessera/head_weights.h"

#include <array>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>

#include "tessera/head_pt_reader.h"

namespace le::tessera {

namespace {

using headpt::PRef;
using headpt::PVal;
using headpt::ZipEntry;

struct HeadTensor {
  const char* name;
  std::vector<float> HeadWeights::*field;
  std::array<int64_t, 4> shape;
  size_t dims;
};

// The six `cand` tensors, then the four `syn` ones.
constexpr size_t kCandTensors = 6;
const std::array<HeadTensor, 10>& headTensors() {
  static const std::array<HeadTensor, 10> tensors = {{
      {"cand.0.weight", &HeadWeights::cand0_w, {16, 7, 3, 3}, 4},
      {"cand.0.bias", &HeadWeights::cand0_b, {16}, 1},
      {"cand.2.weight", &HeadWeights::cand2_w, {16, 16, 3, 3}, 4},
      {"cand.2.bias", &HeadWeights::cand2_b, {16}, 1},
      {"cand.4.weight", &HeadWeights::cand4_w, {1, 16, 3, 3}, 4},
      {"cand.4.bias", &HeadWeights::cand4_b, {1}, 1},
      {"syn.0.weight", &HeadWeights::syn0_w, {16, 3, 3, 3}, 4},
      {"syn.0.bias", &HeadWeights::syn0_b, {16}, 1},
      {"syn.2.weight", &HeadWeights::syn2_w, {1, 16, 3, 3}, 4},
      {"syn.2.bias", &HeadWeights::syn2_b, {1}, 1},
  }};
  return tensors;
}

bool endsWith(std::string_view s, std::string_view tail) {
  return s.size() >= tail.size() && s.substr(s.size() - tail.size()) == tail;
}

[[noreturn]] void refuse(const std::string& words) { throw std::runtime_error(words); }

void loadTensor(const HeadTensor& want, const std::vector<std::pair<headpt::PStr, PRef>>& state,
                const std::vector<ZipEntry>& entries, const uint8_t* bytes, HeadWeights& out) {
  size_t named = 0;
  const PVal* first = nullptr;
  for (const auto& [name, value] : state) {
    if (*name != want.name) continue;
    if (!first) first = value.get();
    ++named;
  }
  if (named > 1) refuse(std::string("teeth: head .pt names '") + want.name + "' " + std::to_string(named) +
                        " times — ambiguous");
  if (!first) refuse(std::string("teeth: head .pt lacks '") + want.name + "'");
  if (first->kind != PVal::kTensor) refuse(std::string("teeth: '") + want.name + "' is not a tensor");

  const std::vector<int64_t> shape = first->shape();
  if (shape.size() != want.dims || !std::equal(shape.begin(), shape.end(), want.shape.begin())) {
    std::string dims;
    for (const int64_t d : shape) dims += std::to_string(d) + ",";
    refuse(std::string("teeth: head '") + want.name + "' has shape [" + dims + "] — not the BlendHead(16) arch");
  }
  int64_t count = 1;
  for (const int64_t d : shape) count *= d;  // the table's own shape: small

  const std::string& key = first->str();
  const std::string tail = "/data/" + key;
  const ZipEntry* storage = nullptr;
  for (const ZipEntry& e : entries) {
    if (endsWith(e.name, tail)) {
      storage = &e;
      break;
    }
  }
  if (!storage) refuse("teeth: head storage " + key + " missing");
  // A negative offset would read in front of the entry: it cannot fit.
  const int64_t offset = first->offset;
  const uint64_t need = offset < 0 ? UINT64_MAX : (static_cast<uint64_t>(offset) + static_cast<uint64_t>(count)) * 4;
  if (offset < 0 || storage->size < need) refuse("teeth: head storage " + key + " too small");

  std::vector<float>& dst = out.*want.field;
  dst.resize(static_cast<size_t>(count));
  const uint8_t* src = bytes + storage->offset + static_cast<size_t>(offset) * 4;
  for (size_t k = 0; k < dst.size(); ++k) {
    const uint8_t* b = src + 4 * k;
    const uint32_t bits = static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) |
                          (static_cast<uint32_t>(b[2]) << 16) | (static_cast<uint32_t>(b[3]) << 24);
    std::memcpy(&dst[k], &bits, 4);
  }
}

}  // namespace

int64_t HeadWeights::params() const {
  int64_t n = 0;
  for (const HeadTensor& want : headTensors()) n += static_cast<int64_t>((this->*want.field).size());
  return n;
}

HeadWeights loadHeadPt(const uint8_t* bytes, size_t size) {
  if (!bytes) size = 0;
  const std::vector<ZipEntry> entries = headpt::readZipDirectory(bytes, size);
  const ZipEntry* pickle = nullptr;
  for (const ZipEntry& e : entries)
    if (endsWith(e.name, "/data.pkl")) pickle = &e;  // the last one
  if (!pickle) refuse("teeth: head .pt has no data.pkl");

  headpt::Unpickler unpickler(bytes + pickle->offset, pickle->size);
  unpickler.run();
  const auto& state = unpickler.state();
  if (state.empty()) refuse("teeth: head .pt state_dict is empty");

  HeadWeights w;
  const auto& tensors = headTensors();
  for (size_t t = 0; t < kCandTensors; ++t) loadTensor(tensors[t], state, entries, bytes, w);
  bool anySyn = false;
  for (const auto& entry : state)
    for (size_t t = kCandTensors; t < tensors.size(); ++t) anySyn = anySyn || *entry.first == tensors[t].name;
  if (anySyn) {
    for (size_t t = kCandTensors; t < tensors.size(); ++t) loadTensor(tensors[t], state, entries, bytes, w);
  }
  const int64_t n = w.params();
  if (n != 3489 && n != 4082) {
    refuse("teeth: head has " + std::to_string(n) +
           " params, not the 4,082 of BlendHead(16) nor the 3,489 of BlendHead8(16)");
  }
  return w;
}

}  // namespace le::tessera
