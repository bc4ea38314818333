#include "driver/movie_ffmpeg.h"

extern "C" {
#include <libavutil/log.h>
}

namespace le::driver::ff {

std::string describe(int status) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {};
  if (av_strerror(status, text, sizeof text) < 0) return "error " + std::to_string(status);
  return text;
}

Format openInput(const std::string& path, bool probe, int* status) {
  AVFormatContext* raw = nullptr;
  *status = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (*status < 0) return nullptr;
  Format f(raw);
  if (!probe) return f;
  *status = avformat_find_stream_info(f.get(), nullptr);
  if (*status < 0) return nullptr;
  return f;
}

int firstVideoStream(const AVFormatContext* f) {
  for (unsigned i = 0; i < f->nb_streams; ++i) {
    const AVStream* s = f->streams[i];
    if (s->codecpar->codec_type == AVMEDIA_TYPE_VIDEO && !(s->disposition & AV_DISPOSITION_ATTACHED_PIC))
      return static_cast<int>(i);
  }
  return -1;
}

namespace {

uint32_t byteSwapped(uint32_t t) {
  return (t & 0xffu) << 24 | (t >> 8 & 0xffu) << 16 | (t >> 16 & 0xffu) << 8 | (t >> 24 & 0xffu);
}

}  // namespace

// FFmpeg keeps a tag with its first character in the low byte.
uint32_t subtypeOf(const AVCodecParameters* par) { return byteSwapped(par->codec_tag); }

uint32_t codecTagOf(uint32_t code) { return byteSwapped(code); }

std::string fourcc(uint32_t code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const char c = static_cast<char>(code >> shift & 0xffu);
    if (c == 0) break;
    s += c;
  }
  return s;
}

std::string fourccStr(uint32_t code) {
  std::string s;
  for (int shift = 24; shift >= 0; shift -= 8) {
    const unsigned c = code >> shift & 0xffu;
    s += c < 32 || c >= 127 ? '?' : static_cast<char>(c);
  }
  return s;
}

Codec openDecoder(const AVCodecParameters* par, int threads, int* status) {
  const AVCodec* codec = avcodec_find_decoder(par->codec_id);
  if (!codec) {
    *status = AVERROR_DECODER_NOT_FOUND;
    return nullptr;
  }
  Codec c(avcodec_alloc_context3(codec));
  if (!c) {
    *status = AVERROR(ENOMEM);
    return nullptr;
  }
  *status = avcodec_parameters_to_context(c.get(), par);
  if (*status < 0) return nullptr;
  c->thread_count = threads < 1 ? 1 : threads;
  c->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
  // A picture hash the stream carries is checked too (HEVC stores one per
  // picture when its encoder was asked to).
  c->err_recognition |= AV_EF_EXPLODE | AV_EF_CRCCHECK;
  c->log_level_offset = AV_LOG_TRACE;
  *status = avcodec_open2(c.get(), codec, nullptr);
  if (*status < 0) return nullptr;
  return c;
}

int rewindToFirstSample(AVFormatContext* f, int stream) {
  AVStream* s = f->streams[stream];
  int64_t ts = s->start_time != AV_NOPTS_VALUE ? s->start_time : 0;
  if (avformat_index_get_entries_count(s) > 0) ts = avformat_index_get_entry(s, 0)->timestamp;
  return av_seek_frame(f, stream, ts, AVSEEK_FLAG_BACKWARD);
}

}  // namespace le::driver::ff
