// The pickle interpreter of a checkpoint's data.pkl. It knows the opcodes a
// state_dict is written with, builds tensors from the one rebuild function
// torch names, and never executes or imitates any other callable.
#include <algorithm>
#include <cstdio>
#include <iterator>
#include <stdexcept>

#include "tessera/head_pt_reader.h"

namespace le::tessera::headpt {

namespace {

// A checkpoint nests a few levels (a tensor's size tuple inside its
// argument tuple); a file that nests deeper is not one, and bounding it keeps
// the release of nested values off a deep recursion.
constexpr int32_t kMaxDepth = 32;
// A blend head's state_dict pickle builds a few hundred values. Memory stays
// in proportion to the file without this bound, but a large file could
// still ask for a hundred times its own size; 65536 values is far past any
// head and caps what a hostile one can make this reader hold at a few MiB.
constexpr size_t kMaxValues = size_t{1} << 16;

[[noreturn]] void refuse(const std::string& words) { throw std::runtime_error(words); }

const std::string& emptyString() {
  static const std::string e;
  return e;
}

enum Op : uint8_t {
  kProto = 0x80, kMark = 0x28, kEmptyTuple = 0x29, kBinInt = 0x4A, kBinInt1 = 0x4B, kBinInt2 = 0x4D,
  kNone = 0x4E, kBinPersId = 0x51, kReduce = 0x52, kBinUnicode = 0x58, kBuild = 0x62, kGlobal = 0x63,
  kBinGet = 0x68, kLongBinGet = 0x6A, kBinPut = 0x71, kLongBinPut = 0x72, kSetItem = 0x73, kTuple = 0x74,
  kSetItems = 0x75, kEmptyDict = 0x7D, kTuple1 = 0x85, kTuple2 = 0x86, kTuple3 = 0x87, kNewTrue = 0x88,
  kNewFalse = 0x89, kStop = 0x2E,
};

}  // namespace

const std::string& PVal::str() const { return s ? *s : emptyString(); }

std::vector<int64_t> PVal::shape() const {
  std::vector<int64_t> out;
  if (!sizes) return out;
  out.reserve(sizes->items.size());
  for (const PRef& d : sizes->items) out.push_back(d->i);
  return out;
}

const uint8_t* Unpickler::take(size_t n) {
  if (static_cast<size_t>(end_ - p_) < n) refuse("teeth: pickle truncated");
  const uint8_t* at = p_;
  p_ += n;
  return at;
}

uint32_t Unpickler::u32() {
  const uint8_t* b = take(4);
  return static_cast<uint32_t>(b[0]) | (static_cast<uint32_t>(b[1]) << 8) | (static_cast<uint32_t>(b[2]) << 16) |
         (static_cast<uint32_t>(b[3]) << 24);
}

PRef Unpickler::pop() {
  if (stack_.empty()) refuse("teeth: pickle pops an empty stack in head .pt");
  PRef v = std::move(stack_.back());
  stack_.pop_back();
  return v;
}

size_t Unpickler::popMark() {
  if (marks_.empty()) refuse("teeth: pickle closes a MARK it never set in head .pt");
  const size_t m = marks_.back();
  marks_.pop_back();
  if (m > stack_.size()) refuse("teeth: pickle closes a MARK above what is left of its stack in head .pt");
  return m;
}

void Unpickler::push(PVal v) {
  if (v.depth > kMaxDepth) refuse("teeth: pickle nests values deeper than 32 levels in head .pt");
  if (++built_ > kMaxValues) refuse("teeth: head .pt pickle builds more than 65536 values — no blend head is that large");
  stack_.push_back(std::make_shared<const PVal>(std::move(v)));
}

// Everything from stack position `from` up becomes one tuple.
void Unpickler::tupleOf(size_t from) {
  PVal t;
  t.kind = PVal::kTuple;
  int32_t inner = 0;
  for (size_t k = from; k < stack_.size(); ++k) inner = std::max(inner, stack_[k]->depth);
  t.depth = inner + 1;
  t.items.assign(std::make_move_iterator(stack_.begin() + static_cast<std::ptrdiff_t>(from)),
                 std::make_move_iterator(stack_.end()));
  stack_.resize(from);
  push(std::move(t));
}

void Unpickler::setItem(const PRef& key, const PRef& value) {
  if (key->kind == PVal::kString && value->kind == PVal::kTensor) state_.emplace_back(key->s, value);
}

void Unpickler::get(uint64_t index, const char* op) {
  if (index >= memoSize_) refuse(std::string("teeth: pickle ") + op + " out of range");
  // An index below the highest put that was never put holds nothing; all
  // such fetches share one value.
  static const PRef nothing = std::make_shared<const PVal>();
  const auto it = memo_.find(index);
  stack_.push_back(it != memo_.end() ? it->second : nothing);
}

void Unpickler::put(uint64_t index) {
  if (stack_.empty()) return;
  if (memo_.size() >= kMaxValues && memo_.find(index) == memo_.end()) {
    refuse("teeth: head .pt pickle builds more than 65536 values — no blend head is that large");
  }
  memo_[index] = stack_.back();
  if (index >= memoSize_) memoSize_ = index + 1;
}

void Unpickler::persistentId() {
  const PRef id = pop();
  if (id->kind != PVal::kTuple || id->items.size() < 5 || id->items[0]->str() != "storage") {
    refuse("teeth: unexpected persistent id in head .pt");
  }
  const std::string& type = id->items[1]->str();
  if (type != "torch FloatStorage") {
    refuse("teeth: head .pt storage is " + type + ", not torch FloatStorage — refusing to reinterpret it");
  }
  PVal storage;
  storage.kind = PVal::kStorage;
  storage.s = id->items[2]->s;
  push(std::move(storage));
}

void Unpickler::reduce() {
  const PRef args = pop();
  const PRef callable = pop();
  const std::string& name = callable->str();
  if (name == "collections OrderedDict") {
    PVal dict;
    dict.kind = PVal::kDict;
    push(std::move(dict));
    return;
  }
  if (name == "torch._utils _rebuild_tensor_v2") {
    if (args->items.size() < 4) refuse("teeth: malformed _rebuild_tensor_v2");
    // (storage, offset, sizes, strides, ...): the strides and the rest are
    // not needed for a contiguous row-major tensor.
    PVal tensor;
    tensor.kind = PVal::kTensor;
    tensor.s = args->items[0]->s;
    tensor.offset = args->items[1]->i;
    tensor.sizes = args->items[2];
    tensor.depth = tensor.sizes->depth + 1;
    push(std::move(tensor));
    return;
  }
  refuse("teeth: head .pt calls " + name + " — this reader refuses code it does not model");
}

void Unpickler::run() {
  while (p_ < end_) {
    const uint8_t op = *p_++;
    switch (op) {
      case kStop:
        return;
      case kProto:
        take(1);
        break;
      case kMark:
        marks_.push_back(stack_.size());
        break;
      case kEmptyTuple: {
        PVal t;
        t.kind = PVal::kTuple;
        push(std::move(t));
        break;
      }
      case kBinInt: {
        PVal v;
        v.kind = PVal::kInt;
        v.i = static_cast<int32_t>(u32());
        push(std::move(v));
        break;
      }
      case kBinInt1: {
        PVal v;
        v.kind = PVal::kInt;
        v.i = *take(1);
        push(std::move(v));
        break;
      }
      case kBinInt2: {
        const uint8_t* b = take(2);
        PVal v;
        v.kind = PVal::kInt;
        v.i = b[0] | (b[1] << 8);
        push(std::move(v));
        break;
      }
      case kNone:
        push(PVal{});
        break;
      case kBinPersId:
        persistentId();
        break;
      case kReduce:
        reduce();
        break;
      case kBinUnicode: {
        const uint32_t n = u32();
        const uint8_t* b = take(n);
        PVal v;
        v.kind = PVal::kString;
        v.s = std::make_shared<const std::string>(reinterpret_cast<const char*>(b), n);
        push(std::move(v));
        break;
      }
      case kBuild:
        break;
      case kGlobal: {
        std::string lines[2];
        for (std::string& line : lines) {
          const uint8_t* start = p_;
          while (p_ < end_ && *p_ != '\n') ++p_;
          if (p_ == end_) refuse("teeth: pickle truncated");
          line.assign(reinterpret_cast<const char*>(start), static_cast<size_t>(p_ - start));
          ++p_;
        }
        PVal v;
        v.kind = PVal::kGlobal;
        v.s = std::make_shared<const std::string>(lines[0] + " " + lines[1]);
        push(std::move(v));
        break;
      }
      case kBinGet:
        get(*take(1), "BINGET");
        break;
      case kLongBinGet:
        get(u32(), "LONG_BINGET");
        break;
      case kBinPut:
        put(*take(1));
        break;
      case kLongBinPut:
        put(u32());
        break;
      case kSetItem: {
        const PRef value = pop();
        const PRef key = pop();
        setItem(key, value);
        break;
      }
      case kTuple:
        tupleOf(popMark());
        break;
      case kSetItems: {
        const size_t mark = popMark();
        for (size_t k = mark; k + 1 < stack_.size(); k += 2) setItem(stack_[k], stack_[k + 1]);
        stack_.resize(mark);
        break;
      }
      case kEmptyDict: {
        PVal d;
        d.kind = PVal::kDict;
        push(std::move(d));
        break;
      }
      case kTuple1:
      case kTuple2:
      case kTuple3: {
        const size_t n = static_cast<size_t>(op - kTuple1) + 1;
        if (stack_.size() < n) refuse("teeth: pickle pops an empty stack in head .pt");
        tupleOf(stack_.size() - n);
        break;
      }
      case kNewTrue:
      case kNewFalse: {
        PVal v;
        v.kind = PVal::kBool;
        v.i = op == kNewTrue ? 1 : 0;
        push(std::move(v));
        break;
      }
      default: {
        char hex[8];
        std::snprintf(hex, sizeof hex, "%02x", op);
        refuse(std::string("teeth: unsupported pickle opcode 0x") + hex + " in head .pt");
      }
    }
  }
}

}  // namespace le::tessera::headpt
