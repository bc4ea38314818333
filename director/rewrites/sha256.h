// SHA-256 of the published algorithm (FIPS 180-4), small and self-contained:
// it binds a compose structure to the one member file it was cut for, so it
// has to agree with every other implementation bit for bit.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

namespace le {

class Sha256 {
 public:
  Sha256();
  void update(const void* data, size_t size);
  // The 32-byte digest. The object is spent afterwards.
  std::array<uint8_t, 32> finish();

 private:
  void block(const uint8_t* p);

  std::array<uint32_t, 8> h_;
  std::array<uint8_t, 64> buf_{};
  size_t used_ = 0;
  uint64_t total_ = 0;
};

// 64 lower-case hexadecimal characters.
std::string sha256Hex(const void* data, size_t size);

}  // namespace le
