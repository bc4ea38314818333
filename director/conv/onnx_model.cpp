#include "director/conv/onnx_model.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>

namespace le::conv {

namespace {

// ONNX field numbers (onnx.proto).
constexpr uint32_t kGraphInitializer = 5, kGraphInput = 11;
constexpr uint32_t kTensorDims = 1, kTensorDataType = 2, kTensorFloatData = 4, kTensorName = 8, kTensorRawData = 9;
constexpr uint32_t kValueInfoName = 1, kValueInfoType = 2;
constexpr uint32_t kTypeTensor = 1, kTensorTypeShape = 2, kShapeDim = 1, kDimValue = 1;
constexpr int32_t kFloat = 1;

// A repeated int64 field, packed or not.
void appendInts(const GsField& f, std::vector<int64_t>& out) {
  if (f.wire == kGsVarint) {
    out.push_back(static_cast<int64_t>(f.value));
  } else if (f.wire == kGsLength) {
    GsReader packed(f.payload);
    while (!packed.done()) out.push_back(static_cast<int64_t>(packed.varint()));
  }
}

// The first dim_value of an input's tensor shape, or 0.
int64_t firstDim(GsSlice valueInfo) {
  GsReader r(valueInfo);
  GsField f;
  while (r.next(f)) {
    if (f.number != kValueInfoType || f.wire != kGsLength) continue;
    GsReader type(f.payload);
    GsField t;
    while (type.next(t)) {
      if (t.number != kTypeTensor || t.wire != kGsLength) continue;
      GsReader tensor(t.payload);
      GsField s;
      while (tensor.next(s)) {
        if (s.number != kTensorTypeShape || s.wire != kGsLength) continue;
        GsReader shape(s.payload);
        GsField d;
        while (shape.next(d)) {
          if (d.number != kShapeDim || d.wire != kGsLength) continue;
          GsReader dim(d.payload);
          GsField v;
          while (dim.next(v))
            if (v.number == kDimValue && v.wire == kGsVarint) return static_cast<int64_t>(v.value);
          return 0;  // the first dimension is symbolic
        }
      }
    }
  }
  return 0;
}

struct RawTensor {
  std::string name;
  std::vector<int64_t> dims;
  int32_t dataType = 0;
  GsSlice raw;
  bool hasRaw = false;
  std::vector<GsField> floats;  // float_data fields, packed or single
};

RawTensor readTensor(GsSlice body, bool withData) {
  RawTensor t;
  GsReader r(body);
  GsField f;
  while (r.next(f)) {
    if (f.number == kTensorDims) {
      appendInts(f, t.dims);
    } else if (f.number == kTensorDataType && f.wire == kGsVarint) {
      t.dataType = static_cast<int32_t>(f.value);
    } else if (f.number == kTensorName && f.wire == kGsLength) {
      t.name = f.payload.str();
    } else if (withData && f.number == kTensorRawData && f.wire == kGsLength) {
      t.raw = f.payload;
      t.hasRaw = true;
    } else if (withData && f.number == kTensorFloatData) {
      t.floats.push_back(f);
    }
  }
  return t;
}

// The number of elements dims ask for; UINT64_MAX when that passes what a
// 64-bit count holds (and so any file). A negative dimension counts as 0.
uint64_t elementCount(const std::vector<int64_t>& dims) {
  uint64_t count = 1;
  bool over = false;
  for (const int64_t d : dims) {
    if (d <= 0) return 0;
    over = over || __builtin_mul_overflow(count, static_cast<uint64_t>(d), &count);
  }
  return over ? UINT64_MAX : count;
}

template <class Visit>
void forEachGraphField(GsSlice model, Visit&& visit) {
  GsReader r(gsGraphOf(model));
  GsField f;
  while (r.next(f))
    if (f.wire == kGsLength) visit(f);
}

}  // namespace

ReadResult readWholeFile(const std::string& path, std::vector<uint8_t>& bytes) {
  std::FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return ReadResult::kCannotOpen;
  // A directory opens too, and reports the largest offset as its size.
  struct stat st;
  bool ok = ::fstat(fileno(f), &st) == 0 && S_ISREG(st.st_mode);
  long size = -1;
  if (ok && std::fseek(f, 0, SEEK_END) == 0) size = std::ftell(f);
  ok = ok && size >= 0 && std::fseek(f, 0, SEEK_SET) == 0;
  if (ok) {
    bytes.resize(static_cast<size_t>(size));
    ok = std::fread(bytes.data(), 1, bytes.size(), f) == bytes.size();
  }
  std::fclose(f);
  return ok ? ReadResult::kOk : ReadResult::kShortRead;
}

TensorShapes readTensorShapes(GsSlice model) {
  TensorShapes out;
  forEachGraphField(model, [&](const GsField& f) {
    if (f.number != kGraphInitializer) return;
    RawTensor t = readTensor(f.payload, false);
    out.names.push_back(std::move(t.name));
    out.dims.push_back(std::move(t.dims));
  });
  return out;
}

const OnnxInitializer& OnnxModel::get(const std::string& name) const {
  for (const OnnxInitializer& i : initializers)
    if (i.name == name) return i;
  throw std::runtime_error("onnx: missing initializer " + name);
}

TensorShapes OnnxModel::shapes() const {
  TensorShapes out;
  for (const OnnxInitializer& i : initializers) {
    out.names.push_back(i.name);
    out.dims.push_back(i.dims);
  }
  return out;
}

OnnxModel readOnnxModel(GsSlice model) {
  OnnxModel m;
  forEachGraphField(model, [&](const GsField& f) {
    if (f.number == kGraphInput) {
      if (gsFirstStr(f.payload, kValueInfoName) == "pooled64" && m.batch == 0) {
        const int64_t b = firstDim(f.payload);
        if (b >= 1 && b <= 1 << 20) m.batch = static_cast<int>(b);
      }
      return;
    }
    if (f.number != kGraphInitializer) return;
    RawTensor t = readTensor(f.payload, true);
    if (t.dataType != kFloat) throw std::runtime_error("onnx: non-fp32 initializer " + t.name);
    const uint64_t count = elementCount(t.dims);
    OnnxInitializer init;
    init.name = t.name;
    init.dims = t.dims;
    init.dataType = t.dataType;
    if (t.hasRaw) {
      // Compared as a count first: count * 4 wraps for dimensions that no
      // file holds, and would then ask for their memory.
      if (count > t.raw.size / 4 || t.raw.size != count * 4)
        throw std::runtime_error("onnx: raw size mismatch " + t.name);
      init.data.resize(static_cast<size_t>(count));
      if (count) std::memcpy(init.data.data(), t.raw.data, t.raw.size);
    } else {
      for (const GsField& ff : t.floats) {
        if (ff.wire == kGsFixed32) {
          float v;
          std::memcpy(&v, ff.payload.data, 4);
          init.data.push_back(v);
        } else if (ff.wire == kGsLength && ff.payload.size % 4 == 0 && ff.payload.size > 0) {
          const size_t n = ff.payload.size / 4;
          const size_t at = init.data.size();
          init.data.resize(at + n);
          std::memcpy(init.data.data() + at, ff.payload.data, ff.payload.size);
        }
      }
      if (init.data.size() != count) throw std::runtime_error("onnx: no data for " + t.name);
    }
    m.initializers.push_back(std::move(init));
  });
  return m;
}

}  // namespace le::conv
