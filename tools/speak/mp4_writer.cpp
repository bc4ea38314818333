#include "tools/speak/mp4_writer.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <stdexcept>
#include <vector>

namespace le::speak {

namespace {

std::string avError(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

}  // namespace

struct Mp4Writer::Impl {
  std::string path;
  int w = 0, h = 0;
  AVFormatContext* fmt = nullptr;
  AVCodecContext* venc = nullptr;
  AVCodecContext* aenc = nullptr;
  AVStream* vst = nullptr;
  AVStream* ast = nullptr;
  SwsContext* sws = nullptr;
  AVFrame* vframe = nullptr;
  AVFrame* aframe = nullptr;
  AVPacket* pkt = nullptr;
  std::vector<float> pending;  // audio waiting for a whole AAC frame
  int64_t vpts = 0, apts = 0;
  bool finished = false;

  void fail(const std::string& what, int rc) {
    throw std::runtime_error("cannot write " + path + ": " + what + (rc < 0 ? " (" + avError(rc) + ")" : ""));
  }

  void drain(AVCodecContext* enc, AVStream* st) {
    for (;;) {
      const int rc = avcodec_receive_packet(enc, pkt);
      if (rc == AVERROR(EAGAIN) || rc == AVERROR_EOF) return;
      if (rc < 0) fail("encoding failed", rc);
      av_packet_rescale_ts(pkt, enc->time_base, st->time_base);
      pkt->stream_index = st->index;
      const int wr = av_interleaved_write_frame(fmt, pkt);
      if (wr < 0) fail("muxing failed", wr);
    }
  }

  void sendAudio(int n) {
    av_frame_make_writable(aframe);
    float* dst = reinterpret_cast<float*>(aframe->data[0]);
    for (int i = 0; i < n; ++i) dst[i] = pending[static_cast<size_t>(i)];
    for (int i = n; i < aenc->frame_size; ++i) dst[i] = 0.0f;
    aframe->nb_samples = aenc->frame_size;
    aframe->pts = apts;
    apts += aenc->frame_size;
    pending.erase(pending.begin(), pending.begin() + n);
    if (avcodec_send_frame(aenc, aframe) < 0) fail("audio encoding failed", -1);
    drain(aenc, ast);
  }

  ~Impl() {
    if (fmt && !(fmt->oformat->flags & AVFMT_NOFILE)) avio_closep(&fmt->pb);
    avformat_free_context(fmt);
    avcodec_free_context(&venc);
    avcodec_free_context(&aenc);
    sws_freeContext(sws);
    av_frame_free(&vframe);
    av_frame_free(&aframe);
    av_packet_free(&pkt);
  }
};

Mp4Writer::Mp4Writer(const std::string& path, int w, int h) : impl_(std::make_unique<Impl>()) {
  Impl& s = *impl_;
  s.path = path;
  s.w = w;
  s.h = h;
  if (w < 2 || h < 2 || w % 2 || h % 2) s.fail("the frame size must be even", -1);
  int rc = avformat_alloc_output_context2(&s.fmt, nullptr, "mp4", path.c_str());
  if (rc < 0 || !s.fmt) s.fail("no MP4 muxer", rc);

  const AVCodec* vc = avcodec_find_encoder_by_name("libx264");
  if (!vc) vc = avcodec_find_encoder(AV_CODEC_ID_H264);
  if (!vc) s.fail("this FFmpeg has no H.264 encoder", -1);
  s.vst = avformat_new_stream(s.fmt, nullptr);
  s.venc = avcodec_alloc_context3(vc);
  s.venc->width = w;
  s.venc->height = h;
  s.venc->pix_fmt = AV_PIX_FMT_YUV420P;
  s.venc->time_base = AVRational{1, 25};
  s.venc->framerate = AVRational{25, 1};
  s.venc->gop_size = 50;
  if (s.fmt->oformat->flags & AVFMT_GLOBALHEADER) s.venc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  av_opt_set(s.venc->priv_data, "preset", "veryfast", 0);
  av_opt_set(s.venc->priv_data, "crf", "20", 0);
  if ((rc = avcodec_open2(s.venc, vc, nullptr)) < 0) s.fail("the H.264 encoder won't open", rc);
  avcodec_parameters_from_context(s.vst->codecpar, s.venc);
  s.vst->time_base = s.venc->time_base;

  const AVCodec* ac = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (!ac) s.fail("this FFmpeg has no AAC encoder", -1);
  s.ast = avformat_new_stream(s.fmt, nullptr);
  s.aenc = avcodec_alloc_context3(ac);
  s.aenc->sample_fmt = AV_SAMPLE_FMT_FLTP;
  s.aenc->sample_rate = 16000;
  AVChannelLayout mono = AV_CHANNEL_LAYOUT_MONO;
  av_channel_layout_copy(&s.aenc->ch_layout, &mono);
  s.aenc->bit_rate = 64000;
  s.aenc->time_base = AVRational{1, 16000};
  if (s.fmt->oformat->flags & AVFMT_GLOBALHEADER) s.aenc->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
  if ((rc = avcodec_open2(s.aenc, ac, nullptr)) < 0) s.fail("the AAC encoder won't open", rc);
  avcodec_parameters_from_context(s.ast->codecpar, s.aenc);
  s.ast->time_base = s.aenc->time_base;

  s.vframe = av_frame_alloc();
  s.vframe->format = AV_PIX_FMT_YUV420P;
  s.vframe->width = w;
  s.vframe->height = h;
  s.aframe = av_frame_alloc();
  s.aframe->format = AV_SAMPLE_FMT_FLTP;
  s.aframe->nb_samples = s.aenc->frame_size;
  av_channel_layout_copy(&s.aframe->ch_layout, &mono);
  s.aframe->sample_rate = 16000;
  if (av_frame_get_buffer(s.vframe, 0) < 0 || av_frame_get_buffer(s.aframe, 0) < 0) s.fail("out of memory", -1);
  s.pkt = av_packet_alloc();
  s.sws = sws_getContext(w, h, AV_PIX_FMT_RGB24, w, h, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr);
  if (!s.sws) s.fail("no RGB to YUV converter", -1);
  if ((rc = avio_open(&s.fmt->pb, path.c_str(), AVIO_FLAG_WRITE)) < 0) s.fail("the file won't open", rc);
  if ((rc = avformat_write_header(s.fmt, nullptr)) < 0) s.fail("the MP4 header", rc);
}

Mp4Writer::~Mp4Writer() = default;

void Mp4Writer::add(const uint8_t* rgb, const int16_t* pcm) {
  Impl& s = *impl_;
  av_frame_make_writable(s.vframe);
  const uint8_t* src[1] = {rgb};
  const int stride[1] = {3 * s.w};
  sws_scale(s.sws, src, stride, 0, s.h, s.vframe->data, s.vframe->linesize);
  s.vframe->pts = s.vpts++;
  if (avcodec_send_frame(s.venc, s.vframe) < 0) s.fail("video encoding failed", -1);
  s.drain(s.venc, s.vst);
  for (int i = 0; i < 640; ++i) s.pending.push_back(static_cast<float>(pcm[i]) / 32768.0f);
  while (static_cast<int>(s.pending.size()) >= s.aenc->frame_size) s.sendAudio(s.aenc->frame_size);
}

void Mp4Writer::finish() {
  Impl& s = *impl_;
  if (s.finished) return;
  s.finished = true;
  if (!s.pending.empty()) s.sendAudio(static_cast<int>(s.pending.size()));
  avcodec_send_frame(s.venc, nullptr);
  s.drain(s.venc, s.vst);
  avcodec_send_frame(s.aenc, nullptr);
  s.drain(s.aenc, s.ast);
  const int rc = av_write_trailer(s.fmt);
  if (rc < 0) s.fail("the MP4 trailer", rc);
}

}  // namespace le::speak
