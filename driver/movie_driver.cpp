// The driver video as a movie: FFmpeg demuxes and decodes the member, and
// each 8-bit 4:2:0 frame becomes RGB24 through le::simd::yuv420RowToRgb24.
#include <cstdint>
#include <stdexcept>
#include <string>

#include "compute/simd.h"
#include "driver/movie_ffmpeg.h"
#include "driver/movie_source.h"

extern "C" {
#include <libavutil/mathematics.h>
#include <libavutil/pixdesc.h>
}

namespace le::driver {

namespace {

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

class FfSource final : public Source {
 public:
  FfSource(std::string path, int32_t nt, int32_t w, int32_t h)
      : path_(std::move(path)), nt_(nt), w_(w), h_(h), frame_(av_frame_alloc()), packet_(av_packet_alloc()) {
    if (!frame_ || !packet_) throw std::bad_alloc();
  }

  // Opening, in the order the checks run.
  void openMember(int threads) {
    int status = 0;
    format_ = ff::openInput(path_, true, &status);
    stream_ = format_ ? ff::firstVideoStream(format_.get()) : -1;
    if (stream_ < 0) refuse("le_driver: " + path_ + " has no video track");
    track_ = format_->streams[stream_];
    const AVCodecParameters* par = track_->codecpar;
    if (par->width != w_ || par->height != h_)
      refuse("le_driver: " + path_ + " is " + std::to_string(par->width) + "x" + std::to_string(par->height) +
             ", the manifest says " + std::to_string(w_) + "x" + std::to_string(h_) +
             " — refusing to rescale the driver");
    // The shortest frame period the stream declares: its frame duration is
    // value / timescale seconds.
    AVRational rate = track_->r_frame_rate;
    if (rate.num < 1 || rate.den < 1) rate = track_->avg_frame_rate;
    duration_value_ = rate.den;
    duration_scale_ = rate.num;
    if (duration_value_ < 1 || duration_scale_ < 1) refuse("le_driver: " + path_ + " has no frame duration");
    const double frame_s = frameSeconds();
    double track_s = 0.0;
    if (track_->duration != AV_NOPTS_VALUE)
      track_s = static_cast<double>(track_->duration) * av_q2d(track_->time_base);
    else if (format_->duration != AV_NOPTS_VALUE)
      track_s = static_cast<double>(format_->duration) / AV_TIME_BASE;
    const int64_t est = cutToInteger(track_s / frame_s + 0.5);
    if (frame_s > 0.0 && est >= 1 && est != nt_)
      refuse("le_driver: " + path_ + " carries ~" + std::to_string(est) + " frames, the manifest says NT=" +
             std::to_string(nt_) + " — member/manifest mismatch, refusing");
    range_start_ = track_->start_time != AV_NOPTS_VALUE ? track_->start_time : 0;
    frame_ticks_ = av_rescale_q(duration_value_, AVRational{1, static_cast<int>(duration_scale_)}, track_->time_base);
    codec_ = ff::openDecoder(par, threads, &status);
    if (!codec_) refuse("le_driver: cannot read " + path_ + " — " + ff::describe(status));
    open(0);
  }

  int32_t NT() const override { return nt_; }
  int32_t W() const override { return w_; }
  int32_t H() const override { return h_; }

  bool next(uint8_t* dst) override {
    for (;;) {
      if (!held_ && !decodeOne()) return false;
      held_ = false;
      const int64_t pts = presentationTime();
      // Frames that end before the start of the range asked for are the
      // decode from the key frame up to it.
      if (keep_from_ != AV_NOPTS_VALUE && pts != AV_NOPTS_VALUE && pts <= keep_from_ - frame_ticks_) {
        av_frame_unref(frame_.get());
        continue;
      }
      const AVFrame& f = *frame_;
      if (f.format != AV_PIX_FMT_YUV420P)
        refuse("le_driver: FFmpeg returned surface " + surfaceName(f.format) + " for " + path_ +
               ", not y420 — refusing rather than pasting onto a different pixel domain");
      if (f.width != w_ || f.height != h_) refuse("le_driver: " + path_ + " changed size mid-stream");
      if (check_first_) {
        check_first_ = false;
        if (pts == AV_NOPTS_VALUE)
          refuse("le_driver: " + path_ + " delivered frame without a time where " + std::to_string(pos_) +
                 " was asked for");
        const double at_s = (static_cast<double>(pts) - static_cast<double>(range_start_)) * av_q2d(track_->time_base);
        const int64_t idx = cutToInteger(at_s / frameSeconds() + 0.5);
        if (idx != pos_)
          refuse("le_driver: " + path_ + " delivered frame " + std::to_string(idx) + " where " + std::to_string(pos_) +
                 " was asked for");
      }
      if (f.linesize[1] != f.linesize[2]) refuse("le_driver: y420 chroma planes with unequal strides");
      const std::size_t row_bytes = static_cast<std::size_t>(w_) * 3;
      for (int r = 0; r < h_; ++r) {
        le::simd::yuv420RowToRgb24(f.data[0] + static_cast<std::ptrdiff_t>(r) * f.linesize[0],
                                   f.data[1] + static_cast<std::ptrdiff_t>(r / 2) * f.linesize[1],
                                   f.data[2] + static_cast<std::ptrdiff_t>(r / 2) * f.linesize[2], w_, 1,
                                   dst + static_cast<std::size_t>(r) * row_bytes);
      }
      av_frame_unref(frame_.get());
      ++pos_;
      return true;
    }
  }

  void rewind() override { open(0); }

  void seek(int32_t i) override {
    if (i < 0 || i >= nt_) refuse("le_driver: seek outside the member");
    if (pos_ != i) open(i);
  }

  std::string name() const override { return "mp4/ffmpeg y420"; }
  std::size_t residentBytes() const override {
    return static_cast<std::size_t>(w_) * static_cast<std::size_t>(h_) * 9;
  }

 private:
  // Repositions the reader so that the next frame is `start`: from the first
  // sample for 0, else from the key frame before the frame's time, with the
  // frames before that time skipped. The first frame after each open is
  // checked against `start`.
  void open(int32_t start) {
    held_ = false;
    av_frame_unref(frame_.get());
    pos_ = start;
    keep_from_ = AV_NOPTS_VALUE;
    if (start == 0) {
      restart(ff::rewindToFirstSample(format_.get(), stream_));
    } else {
      keep_from_ = range_start_ + av_rescale_q(static_cast<int64_t>(duration_value_) * start,
                                               AVRational{1, static_cast<int>(duration_scale_)}, track_->time_base);
      seekBefore(keep_from_);
    }
    check_first_ = true;
  }

  void restart(int status) {
    if (status < 0) refuse("le_driver: cannot start reading " + path_ + " — " + ff::describe(status));
    avcodec_flush_buffers(codec_.get());
  }

  // A seek lands on a key frame at or before the time the index gives, and
  // with frames stored out of presentation order that key frame can still
  // be shown after `target`. Then the seek steps further back, doubling the
  // step, until the first decoded frame is not after the target or the
  // reader is back at the first sample. That frame is held for next().
  void seekBefore(int64_t target) {
    int64_t back = 0;
    for (;;) {
      const int64_t ts = target - back;
      if (ts <= range_start_) {
        restart(ff::rewindToFirstSample(format_.get(), stream_));
        return;
      }
      restart(av_seek_frame(format_.get(), stream_, ts, AVSEEK_FLAG_BACKWARD));
      if (!decodeOne()) return;  // nothing after the key frame: next() finds the end
      const int64_t pts = presentationTime();
      if (pts == AV_NOPTS_VALUE || pts <= target) {
        held_ = true;
        return;
      }
      av_frame_unref(frame_.get());
      back = back == 0 ? 2 * frame_ticks_ : 2 * back;
    }
  }

  double frameSeconds() const { return static_cast<double>(duration_value_) / static_cast<double>(duration_scale_); }

  // Truncation toward zero, held inside the range of the integer so that a
  // nonsense time can't overflow the conversion.
  static int64_t cutToInteger(double v) {
    if (!(v > -1e15)) return v != v ? 0 : -1000000000000000;
    if (v > 1e15) return 1000000000000000;
    return static_cast<int64_t>(v);
  }

  int64_t presentationTime() const {
    return frame_->pts != AV_NOPTS_VALUE ? frame_->pts : frame_->best_effort_timestamp;
  }

  [[noreturn]] void fault(int status) const {
    refuse("le_driver: " + path_ + " decode fault at frame " + std::to_string(pos_) + ": " + ff::describe(status));
  }

  // The next decoded frame into frame_, in presentation order; false at the
  // end of the member. A read or decode error, or a frame the decoder marks
  // as damaged, is the reader's fault.
  bool decodeOne() {
    for (;;) {
      int r = avcodec_receive_frame(codec_.get(), frame_.get());
      if (r == 0) {
        if (ff::damaged(frame_.get())) {
          av_frame_unref(frame_.get());
          fault(AVERROR_INVALIDDATA);
        }
        return true;
      }
      if (r == AVERROR_EOF) return false;
      if (r != AVERROR(EAGAIN)) fault(r);
      r = av_read_frame(format_.get(), packet_.get());
      if (r == AVERROR_EOF) {  // flush: the frames the decoder still holds come out
        r = avcodec_send_packet(codec_.get(), nullptr);
        if (r < 0 && r != AVERROR_EOF) fault(r);
        continue;
      }
      if (r < 0) fault(r);
      if (packet_->stream_index != stream_ || packet_->size == 0) {
        av_packet_unref(packet_.get());
        continue;
      }
      const bool corrupt = (packet_->flags & AV_PKT_FLAG_CORRUPT) != 0;
      r = corrupt ? AVERROR_INVALIDDATA : avcodec_send_packet(codec_.get(), packet_.get());
      av_packet_unref(packet_.get());
      if (r < 0) fault(r);
    }
  }

  static std::string surfaceName(int format) {
    const char* n = av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
    return n ? n : "none";
  }

  std::string path_;
  int32_t nt_, w_, h_;
  ff::Format format_;  // the asset and its reader
  int stream_ = -1;
  AVStream* track_ = nullptr;  // its first video track, owned by format_
  ff::Codec codec_;
  ff::Frame frame_;
  ff::Packet packet_;
  int64_t duration_value_ = 0;  // the frame duration, value / timescale seconds
  int64_t duration_scale_ = 0;
  int64_t range_start_ = 0;   // the track's first presentation time, in its time base
  int64_t frame_ticks_ = 0;   // the frame duration in the track's time base
  int64_t keep_from_ = AV_NOPTS_VALUE;  // start of the range asked for by a seek
  int32_t pos_ = 0;           // the next frame that next() yields
  bool check_first_ = false;  // the next frame's presentation time is to be checked
  bool held_ = false;         // frame_ holds a decoded frame that next() hasn't taken
};

}  // namespace

std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H, int threads) {
  auto s = std::make_unique<FfSource>(path, NT, W, H);
  s->openMember(threads);
  return s;
}

}  // namespace le::driver
