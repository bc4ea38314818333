// The stored ZIP directory of a PyTorch checkpoint. torch writes ZIP_STORED
// entries, so an entry's bytes are its data and nothing is inflated here.
#include <stdexcept>

#include "tessera/head_pt_reader.h"

namespace le::tessera::headpt {

namespace {

constexpr uint32_t kEndSignature = 0x06054B50;
constexpr uint32_t kCentralSignature = 0x02014B50;
constexpr size_t kEndSize = 22;
constexpr size_t kCentralSize = 46;
constexpr size_t kLocalSize = 30;

uint16_t u16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
uint32_t u32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

[[noreturn]] void refuse(const char* words) { throw std::runtime_error(words); }

}  // namespace

std::vector<ZipEntry> readZipDirectory(const uint8_t* bytes, size_t size) {
  if (size < kEndSize) refuse("teeth: head .pt is not a zip");
  // Backward from the last place the end record fits, so that trailing
  // bytes after it do no harm.
  size_t end = size - kEndSize;
  while (u32(bytes + end) != kEndSignature) {
    if (end == 0) refuse("teeth: head .pt has no zip EOCD");
    --end;
  }
  const uint32_t count = u16(bytes + end + 10);
  // 64-bit offsets throughout: no sum of 32-bit fields can wrap.
  uint64_t at = u32(bytes + end + 16);
  std::vector<ZipEntry> entries;
  for (uint32_t e = 0; e < count; ++e) {
    if (at + kCentralSize > size || u32(bytes + at) != kCentralSignature) {
      refuse("teeth: head .pt central directory is malformed");
    }
    const uint8_t* c = bytes + at;
    if (u16(c + 10) != 0) {
      refuse("teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member");
    }
    const uint64_t compressed = u32(c + 20);
    const uint64_t uncompressed = u32(c + 24);
    const uint64_t nameLen = u16(c + 28);
    const uint64_t extraLen = u16(c + 30);
    const uint64_t commentLen = u16(c + 32);
    const uint64_t local = u32(c + 42);
    if (local + kLocalSize > size) refuse("teeth: head .pt local header out of range");
    const uint64_t data = local + kLocalSize + u16(bytes + local + 26) + u16(bytes + local + 28);
    const uint64_t length = uncompressed != 0 ? uncompressed : compressed;
    if (data + length > size) refuse("teeth: head .pt entry out of range");
    if (at + kCentralSize + nameLen > size) refuse("teeth: head .pt central directory is malformed");
    ZipEntry entry;
    entry.name.assign(reinterpret_cast<const char*>(c + kCentralSize), static_cast<size_t>(nameLen));
    entry.offset = static_cast<size_t>(data);
    entry.size = static_cast<size_t>(length);
    entries.push_back(std::move(entry));
    at += kCentralSize + nameLen + extraLen + commentLen;
  }
  return entries;
}

}  // namespace le::tessera::headpt
