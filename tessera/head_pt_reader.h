// The two readers behind loadHeadPt, apart so that each can be tested on
// its own: the stored ZIP directory of a checkpoint, and the pickle
// interpreter of its data.pkl.
//
// Both take bytes an author ships, so both are written against a hostile
// file: every read is bounds-checked, and every value that a file can
// multiply (strings, tuples, memo entries) is shared rather than copied, so
// that no sequence of opcodes makes memory grow faster than the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace le::tessera::headpt {

struct ZipEntry {
  std::string name;
  size_t offset = 0;  // first byte of the entry's data
  size_t size = 0;    // its length; offset + size lies inside the file
};

// The central directory; refuses a file that is not a stored ZIP.
std::vector<ZipEntry> readZipDirectory(const uint8_t* bytes, size_t size);

struct PVal;
using PRef = std::shared_ptr<const PVal>;
using PStr = std::shared_ptr<const std::string>;

// One pickle value. Values are immutable once built and shared between the
// stack, the memo and the tuples that hold them.
struct PVal {
  enum Kind : int32_t { kNone = 0, kInt = 1, kBool = 2, kString = 3, kTuple = 4, kGlobal = 5, kStorage = 6,
                        kTensor = 7, kDict = 8 };
  Kind kind = kNone;
  int64_t i = 0;
  PStr s;                   // a string; "module name" of a global; the storage key of a storage or tensor
  std::vector<PRef> items;  // a tuple's items
  int64_t offset = 0;       // a tensor's element offset into its storage
  PRef sizes;               // a tensor's size tuple, read into a shape on demand
  int32_t depth = 1;        // nesting of tuples and tensors, bounded

  const std::string& str() const;
  std::vector<int64_t> shape() const;
};

class Unpickler {
 public:
  Unpickler(const uint8_t* data, size_t size) : p_(data), end_(data + size) {}

  // Runs the opcodes to STOP or to the end of the data.
  void run();

  // Every tensor a dict entry named, in the order met.
  const std::vector<std::pair<PStr, PRef>>& state() const { return state_; }

 private:
  const uint8_t* p_;
  const uint8_t* end_;
  std::vector<PRef> stack_;
  std::vector<size_t> marks_;
  std::map<uint64_t, PRef> memo_;  // sparse: an index is only a number in the file
  uint64_t memoSize_ = 0;          // one past the highest index put
  std::vector<std::pair<PStr, PRef>> state_;
  size_t built_ = 0;  // values made so far, bounded

  const uint8_t* take(size_t n);
  uint32_t u32();
  PRef pop();
  size_t popMark();
  void push(PVal v);
  void tupleOf(size_t from);
  void setItem(const PRef& key, const PRef& value);
  void get(uint64_t index, const char* op);
  void put(uint64_t index);
  void persistentId();
  void reduce();
};

}  // namespace le::tessera::headpt
