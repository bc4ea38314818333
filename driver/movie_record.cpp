#include "driver/movie_record.h"

#include <algorithm>
#include <array>

namespace le::driver {

namespace {

// AVC profiles whose records carry the chroma format after the parameter
// sets; any other profile is 4:2:0 by definition.
constexpr std::array<int, 13> kChromaProfiles = {44, 83, 86, 100, 110, 118, 122, 128, 134, 135, 138, 139, 144};

std::size_t be16(const uint8_t* p) { return static_cast<std::size_t>(p[0]) << 8 | p[1]; }

int avccChroma(const uint8_t* rec, std::size_t len) {
  if (len < 7) return -1;
  if (std::find(kChromaProfiles.begin(), kChromaProfiles.end(), rec[1]) == kChromaProfiles.end()) return 1;
  const int n_sps = rec[5] & 31;
  std::size_t p = 6;
  if (len != 7) {
    for (int k = 0; k < n_sps && p + 1 < len; ++k) p += 2 + be16(rec + p);
  }
  if (p >= len) return -1;
  const int n_pps = rec[p];
  std::size_t q = p + 1;
  for (int k = 0; k < n_pps && q + 1 < len; ++k) q += 2 + be16(rec + q);
  if (q >= len) return -1;
  return rec[q] & 3;
}

}  // namespace

int recordChromaFormat(RecordKind kind, const uint8_t* rec, std::size_t len) {
  switch (kind) {
    case RecordKind::Hvcc:
      return len > 16 ? rec[16] & 3 : -1;
    case RecordKind::Avcc:
      return avccChroma(rec, len);
    case RecordKind::None:
      break;
  }
  return -1;
}

RecordKind recordKindOf(const AVCodecParameters* par) {
  const uint8_t* x = par->extradata;
  const int n = par->extradata_size;
  if (!x || n < 1) return RecordKind::None;
  // Parameter sets in band start with an Annex B start code; a record starts
  // with its configuration version.
  const bool annexB = (n >= 3 && x[0] == 0 && x[1] == 0 && x[2] == 1) ||
                      (n >= 4 && x[0] == 0 && x[1] == 0 && x[2] == 0 && x[3] == 1);
  if (annexB) return RecordKind::None;
  if (par->codec_id == AV_CODEC_ID_HEVC) return RecordKind::Hvcc;
  if (par->codec_id == AV_CODEC_ID_H264) return RecordKind::Avcc;
  return RecordKind::None;
}

}  // namespace le::driver
