#include "tools/speak/audio_input.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <stdexcept>

namespace le::speak {

namespace {

template <class T, void (*F)(T**)>
struct Freer {
  void operator()(T* p) const { F(&p); }
};
using FormatPtr = std::unique_ptr<AVFormatContext, Freer<AVFormatContext, avformat_close_input>>;
using CodecPtr = std::unique_ptr<AVCodecContext, Freer<AVCodecContext, avcodec_free_context>>;
using FramePtr = std::unique_ptr<AVFrame, Freer<AVFrame, av_frame_free>>;
using PacketPtr = std::unique_ptr<AVPacket, Freer<AVPacket, av_packet_free>>;
using SwrPtr = std::unique_ptr<SwrContext, Freer<SwrContext, swr_free>>;

std::string avError(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

}  // namespace

std::vector<int16_t> readAudio16k(const std::string& path) {
  if (access(path.c_str(), R_OK) != 0) throw std::runtime_error("cannot read the audio file " + path);
  AVFormatContext* raw = nullptr;
  int rc = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
  if (rc < 0) throw std::runtime_error(path + " is not a readable audio file (" + avError(rc) + ")");
  FormatPtr fmt(raw);
  if ((rc = avformat_find_stream_info(fmt.get(), nullptr)) < 0)
    throw std::runtime_error(path + " is not a readable audio file (" + avError(rc) + ")");
  const AVCodec* codec = nullptr;
  const int stream = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_AUDIO, -1, -1, &codec, 0);
  if (stream < 0 || !codec) throw std::runtime_error(path + " holds no audio stream");
  CodecPtr dec(avcodec_alloc_context3(codec));
  avcodec_parameters_to_context(dec.get(), fmt->streams[stream]->codecpar);
  if ((rc = avcodec_open2(dec.get(), codec, nullptr)) < 0)
    throw std::runtime_error(path + ": its audio can't be decoded (" + avError(rc) + ")");

  SwrContext* swr_raw = nullptr;
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  if (dec->ch_layout.nb_channels < 1) av_channel_layout_default(&dec->ch_layout, 1);
  if (swr_alloc_set_opts2(&swr_raw, &mono, AV_SAMPLE_FMT_S16, 16000, &dec->ch_layout, dec->sample_fmt,
                          dec->sample_rate, 0, nullptr) < 0 ||
      swr_init(swr_raw) < 0) {
    swr_free(&swr_raw);
    throw std::runtime_error(path + ": its audio can't be resampled to 16 kHz mono");
  }
  SwrPtr swr(swr_raw);
  std::vector<int16_t> out;
  PacketPtr pkt(av_packet_alloc());
  FramePtr frame(av_frame_alloc());
  auto drain = [&]() {
    while (avcodec_receive_frame(dec.get(), frame.get()) == 0) {
      const int cap = swr_get_out_samples(swr.get(), frame->nb_samples);
      const size_t at = out.size();
      out.resize(at + static_cast<size_t>(cap));
      uint8_t* dst = reinterpret_cast<uint8_t*>(out.data() + at);
      const int got = swr_convert(swr.get(), &dst, cap, const_cast<const uint8_t**>(frame->extended_data),
                                  frame->nb_samples);
      out.resize(at + static_cast<size_t>(got > 0 ? got : 0));
    }
  };
  while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
    if (pkt->stream_index == stream && avcodec_send_packet(dec.get(), pkt.get()) >= 0) drain();
    av_packet_unref(pkt.get());
  }
  avcodec_send_packet(dec.get(), nullptr);
  drain();
  // What the resampler still holds.
  for (;;) {
    const size_t at = out.size();
    out.resize(at + 4096);
    uint8_t* dst = reinterpret_cast<uint8_t*>(out.data() + at);
    const int got = swr_convert(swr.get(), &dst, 4096, nullptr, 0);
    out.resize(at + static_cast<size_t>(got > 0 ? got : 0));
    if (got <= 0) break;
  }
  if (out.empty()) throw std::runtime_error(path + " holds no audio samples");
  return out;
}

std::vector<int16_t> speakText(const std::string& text, const std::string& voice) {
  char tmpl[] = "/tmp/le_speak_XXXXXX";
  const int fd = mkstemp(tmpl);
  if (fd < 0) throw std::runtime_error("cannot make a temporary file for the spoken text");
  close(fd);
  const std::string wav = tmpl;
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("cannot start espeak-ng");
  if (pid == 0) {
    execlp("espeak-ng", "espeak-ng", "-v", voice.c_str(), "-s", "150", "-w", wav.c_str(), text.c_str(),
           static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
    unlink(wav.c_str());
    if (WIFEXITED(status) && WEXITSTATUS(status) == 127)
      throw std::runtime_error("espeak-ng is not installed (Debian package espeak-ng); pass a WAV file with --wav");
    throw std::runtime_error("espeak-ng failed to speak the text");
  }
  try {
    std::vector<int16_t> pcm = readAudio16k(wav);
    unlink(wav.c_str());
    return pcm;
  } catch (...) {
    unlink(wav.c_str());
    throw;
  }
}

}  // namespace le::speak
