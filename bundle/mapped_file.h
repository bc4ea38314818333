// Read-only views of the bundle's raw members: a private read-only mapping
// for the large tensors, and an exact read for the small tables. Both check
// the file's length against what the manifest implies, so that a member of
// the wrong size is refused rather than read short.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace le {

// A private, read-only mapping of a whole file, unmapped with the object.
// The descriptor is closed as soon as the mapping exists.
class MappedFile {
 public:
  MappedFile() = default;
  // Maps `path`, which must be exactly `expected` bytes long. Throws
  // "cannot open <path>", "size mismatch <path>" or "mmap failed <path>".
  // A file of 0 bytes that is expected so gives an empty mapping.
  MappedFile(const std::string& path, std::size_t expected);
  ~MappedFile();
  MappedFile(MappedFile&& other) noexcept;
  MappedFile& operator=(MappedFile&& other) noexcept;
  MappedFile(const MappedFile&) = delete;
  MappedFile& operator=(const MappedFile&) = delete;

  const std::uint8_t* data() const { return data_; }
  std::size_t size() const { return length_; }
  bool empty() const { return base_ == nullptr; }

 private:
  void reset() noexcept;

  // Data pointer, mapped base, length.
  const std::uint8_t* data_ = nullptr;
  void* base_ = nullptr;
  std::size_t length_ = 0;
};

// Reads exactly `bytes` bytes of `path` into `dst` and then requires the end
// of the file, so one byte too many is refused like one too few. Throws
// "cannot open <path>" or "size mismatch <path>".
void readExact(const std::string& path, void* dst, std::size_t bytes);

}  // namespace le
