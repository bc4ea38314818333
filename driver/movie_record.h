// The chroma format that a movie's stored decoder configuration record
// declares, read before any sample is decoded so that a warp prior with
// subsampled chroma is refused at opening.
#pragma once

#include <cstddef>
#include <cstdint>

extern "C" {
#include <libavcodec/codec_par.h>
}

namespace le::driver {

// The record forms the check reads: an HEVC configuration record ("hvcC")
// or an AVC one ("avcC").
enum class RecordKind { None, Hvcc, Avcc };

// chroma_format_idc as the record states it, or -1 where the record tells
// nothing and the check passes: an hvcC of 16 bytes or fewer, an avcC
// shorter than 7 bytes, or an avcC of a high profile whose walk runs off
// the end. An avcC of any other profile counts as 1 (4:2:0).
int recordChromaFormat(RecordKind kind, const uint8_t* rec, std::size_t len);

// The record a stream's parameters carry: the extradata of an HEVC or H.264
// stream stored with its configuration record (as MP4 and QuickTime do),
// None for a stream whose parameter sets travel in band.
RecordKind recordKindOf(const AVCodecParameters* par);

}  // namespace le::driver
