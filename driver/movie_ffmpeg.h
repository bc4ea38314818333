// What the two movie sources share of FFmpeg: owning handles, the opening of
// a member and its first video stream, the decoder, demuxer rewinds, and the
// texts of codes and statuses.
//
// How the platform operations the movie sources were designed around map
// onto FFmpeg:
//   the asset and its video tracks     avformat_open_input, the streams in
//                                      file order, avformat_find_stream_info
//   a track's size and descriptions    the stream's AVCodecParameters
//   a reader (restartable here)        the AVFormatContext; a seek or rewind
//                                      repositions it with av_seek_frame
//   compressed samples                 av_read_frame packets
//   the decompression session          an AVCodecContext, fed by
//                                      avcodec_send_packet; each frame it
//                                      gives back (avcodec_receive_frame) is
//                                      what the output callback received
//   flushing delayed frames            sending the end of the stream and
//                                      taking frames until AVERROR_EOF
//   a decoded surface                  the AVFrame: its pixel format (the
//                                      surface type), size and planes
#pragma once

#include <cstdint>
#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

namespace le::driver::ff {

struct FormatClose {
  void operator()(AVFormatContext* f) const { avformat_close_input(&f); }
};
struct CodecFree {
  void operator()(AVCodecContext* c) const { avcodec_free_context(&c); }
};
struct FrameFree {
  void operator()(AVFrame* f) const { av_frame_free(&f); }
};
struct PacketFree {
  void operator()(AVPacket* p) const { av_packet_free(&p); }
};
using Format = std::unique_ptr<AVFormatContext, FormatClose>;
using Codec = std::unique_ptr<AVCodecContext, CodecFree>;
using Frame = std::unique_ptr<AVFrame, FrameFree>;
using Packet = std::unique_ptr<AVPacket, PacketFree>;

// FFmpeg's words for a status.
std::string describe(int status);

// Opens the member, and with `probe` reads its stream information too; null
// (and *status set) when FFmpeg can't make a container of it.
Format openInput(const std::string& path, bool probe, int* status);

// Index of the first video stream in file order, or -1.
int firstVideoStream(const AVFormatContext* f);

// The stored sample entry's four-character code, high byte first (the byte
// order in which it is written in the file), from the stream's codec tag;
// 0 where the container stores none.
uint32_t subtypeOf(const AVCodecParameters* par);

// The codec tag FFmpeg keeps for a code given high byte first.
uint32_t codecTagOf(uint32_t code);

// A code's four bytes, high byte first, stopping at a zero byte.
std::string fourcc(uint32_t code);
// The same four bytes with each byte below 32 or at 127 and above as "?".
std::string fourccStr(uint32_t code);

// A decoder for par with `threads` decoding threads (frame and slice
// threading; 1 decodes on the calling thread alone), opened. Detected
// bitstream errors, and pictures whose stored hash doesn't match, fail the
// decode rather than being concealed, and the
// decoder's own log lines are kept below FFmpeg's default level: the
// sources report failures in their own sentences. Null and *status on
// failure.
Codec openDecoder(const AVCodecParameters* par, int threads, int* status);

// Repositions the demuxer at the stream's first stored sample. Returns
// FFmpeg's status.
int rewindToFirstSample(AVFormatContext* f, int stream);

// True for a decoded frame that the decoder marked as damaged.
inline bool damaged(const AVFrame* f) { return (f->flags & AV_FRAME_FLAG_CORRUPT) != 0 || f->decode_error_flags != 0; }

}  // namespace le::driver::ff
