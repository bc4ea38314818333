// The IMX container layout, shared by the reader and the writer. All integers
// are little-endian.
//
//   header:  'I' 'M' 'X' 0 | u16 version (2) | u16 member count
//   table:   per member: u16 name_len | name bytes | u64 offset | u64 size
//   payload: wherever the table says
#pragma once

#include <cstdint>

namespace le::imx {

constexpr unsigned char kMagic[4] = {'I', 'M', 'X', 0};
constexpr uint16_t kVersion = 2;
constexpr int kHeaderBytes = 8;
constexpr const char* kMarkerSuffix = ".imx_unwrapped";
constexpr const char* kMarkerTag = "imx-unwrapped.v2";

inline uint16_t le16(const unsigned char* p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint64_t le64(const unsigned char* p) {
  uint64_t v = 0;
  for (int i = 7; i >= 0; --i) v = (v << 8) | p[i];
  return v;
}

}  // namespace le::imx
