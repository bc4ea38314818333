// The warp prior as a movie: FFmpeg demuxes the compressed samples and this
// source drives the decoder itself, because the prior must arrive as
// lossless 4:4:4, the same prior every other reader of the bundle sees. The
// stored record's chroma format is checked at opening, every sample's
// presentation time is scanned so that a frame's index is its rank in
// presentation order, and each frame is converted to planar halves with the
// integer formula of prior_convert.h.
//
// The demanded surface, "x444", is full-resolution 4:4:4 YUV whose top 8
// bits of each sample are taken: FFmpeg's yuv444p (8 bits) or yuv444p10le
// (10 bits, the value shifted down by 2). Any other surface is refused.
#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "driver/movie_ffmpeg.h"
#include "driver/movie_record.h"
#include "driver/movie_source.h"
#include "driver/prior_convert.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace le::driver {

namespace {

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

constexpr uint32_t kHev1 = 0x68657631, kHvc1 = 0x68766331, kAvc1 = 0x61766331, kAvc3 = 0x61766333;

struct ParamsFree {
  void operator()(AVCodecParameters* p) const { avcodec_parameters_free(&p); }
};

class FfPriorSource final : public Source {
 public:
  FfPriorSource(std::string path, int32_t nt, int32_t crop)
      : path_(std::move(path)),
        nt_(nt),
        w_(crop),
        h_(crop),
        lut_(priorHalfTable()),
        frame_(av_frame_alloc()),
        packet_(av_packet_alloc()) {
    if (!frame_ || !packet_) throw std::bad_alloc();
    const auto w = static_cast<std::size_t>(w_ > 0 ? w_ : 0);
    y_row_.resize(w);
    u_row_.resize(w);
    v_row_.resize(w);
  }

  // Opening, in the order the checks run.
  void openMember(int threads) {
    int status = 0;
    format_ = ff::openInput(path_, true, &status);
    stream_ = format_ ? ff::firstVideoStream(format_.get()) : -1;
    if (stream_ < 0) refuse("le_driver: " + path_ + " has no video track — refusing");
    const AVCodecParameters* fd = format_->streams[stream_]->codecpar;
    if (fd->codec_id == AV_CODEC_ID_NONE) refuse("le_driver: " + path_ + " carries no format description — refusing");
    const int fd_w = fd->width, fd_h = fd->height;
    const int chroma = recordChromaFormat(recordKindOf(fd), fd->extradata,
                                          static_cast<std::size_t>(fd->extradata_size > 0 ? fd->extradata_size : 0));
    if (chroma >= 0 && chroma != 3)
      refuse("le_driver: " + path_ + " is chroma_format_idc " + std::to_string(chroma) +
             " and a warp prior must be 3 (4:4:4). Playing it would RESAMPLE the chroma to a full-resolution "
             "surface, which is a different prior from the one every other plane reads. REFUSING rather than "
             "serving an identity member through an interpolator.");
    if (fd_w != w_ || fd_h != h_)
      refuse("le_driver: " + path_ + " is " + std::to_string(fd_w) + "x" + std::to_string(fd_h) +
             ", the manifest says " + std::to_string(w_) + "x" + std::to_string(h_) +
             " — refusing to rescale an identity member");
    scanPresentationTimes();
    // Retag: the decoder is built from a copy of the stored parameters whose
    // tag names the configuration record form; the file isn't touched.
    const uint32_t sub = ff::subtypeOf(fd);
    const uint32_t tag = sub == kHev1 || sub == kHvc1 ? kHvc1 : sub == kAvc1 || sub == kAvc3 ? kAvc1 : sub;
    std::unique_ptr<AVCodecParameters, ParamsFree> rebuilt(avcodec_parameters_alloc());
    status = rebuilt ? avcodec_parameters_copy(rebuilt.get(), fd) : AVERROR(ENOMEM);
    if (status < 0)
      refuse("le_driver: could not rebuild the format description for " + path_ + " (subtype '" +
             ff::fourccStr(sub) + "', status " + std::to_string(status) + ") — refusing");
    rebuilt->codec_tag = ff::codecTagOf(tag);
    codec_ = ff::openDecoder(rebuilt.get(), threads, &status);
    if (!codec_)
      refuse("le_driver: FFmpeg will not open " + path_ + " as '" + ff::fourccStr(tag) +
             "' into an 'x444' surface (status " + std::to_string(status) +
             "). This plane cannot play the warp prior the download door serves. REFUSING to create a session.");
    openReader();
  }

  int32_t NT() const override { return nt_; }
  int32_t W() const override { return w_; }
  int32_t H() const override { return h_; }
  std::size_t frameBytes() const override {
    return static_cast<std::size_t>(w_) * static_cast<std::size_t>(h_) * 6;
  }

  bool next(uint8_t* dst) override {
    for (;;) {
      if (!failure_.empty()) refuse("le_driver: " + path_ + ": " + failure_);
      if (Pending* p = waiting(next_out_)) {
        std::memcpy(dst, p->bytes.data(), frameBytes());
        p->index = -1;
        ++next_out_;
        return true;
      }
      if (next_out_ >= nt_) return false;
      if (drained_)
        refuse("le_driver: " + path_ + " never delivered frame " + std::to_string(next_out_) + " (" +
               std::to_string(waitingCount()) + " frames waiting out of order) — refusing to serve a prior with a "
               "hole in it");
      int r = avcodec_receive_frame(codec_.get(), frame_.get());
      if (r == 0) {
        const bool direct = onFrame(dst);
        av_frame_unref(frame_.get());
        if (direct) {
          ++next_out_;
          return true;
        }
        continue;
      }
      if (r == AVERROR_EOF) {  // every frame the decoder held has come out
        drained_ = true;
        continue;
      }
      if (r != AVERROR(EAGAIN)) {
        failure_ = "FFmpeg returned " + std::to_string(r) + " decoding a frame";
        continue;
      }
      r = av_read_frame(format_.get(), packet_.get());
      if (r == AVERROR_EOF) {  // flush: the frames the decoder still holds come out
        r = avcodec_send_packet(codec_.get(), nullptr);
        if (r < 0 && r != AVERROR_EOF) failure_ = "FFmpeg returned " + std::to_string(r) + " decoding a frame";
        continue;
      }
      if (r < 0)
        refuse("le_driver: " + path_ + " read fault at sample " + std::to_string(samples_fed_) + ": " +
               ff::describe(r));
      if (packet_->stream_index != stream_ || packet_->size == 0) {
        av_packet_unref(packet_.get());
        continue;
      }
      if (packet_->flags & AV_PKT_FLAG_CORRUPT) {
        av_packet_unref(packet_.get());
        refuse("le_driver: " + path_ + " read fault at sample " + std::to_string(samples_fed_) + ": " +
               ff::describe(AVERROR_INVALIDDATA));
      }
      r = avcodec_send_packet(codec_.get(), packet_.get());
      av_packet_unref(packet_.get());
      ++samples_fed_;
      if (r < 0)
        refuse("le_driver: " + path_ + ": FFmpeg refused sample " + std::to_string(samples_fed_) + " (status " +
               std::to_string(r) + ")");
    }
  }

  void rewind() override {
    avcodec_flush_buffers(codec_.get());  // frames still held are dropped with the reorder store
    for (Pending& p : reorder_) p.index = -1;
    failure_.clear();
    openReader();
  }

  void seek(int32_t i) override {
    if (i < 0 || i >= nt_) refuse("le_driver: seek outside the member");
    if (i < next_out_) rewind();
    if (scratch_.size() < frameBytes()) scratch_.resize(frameBytes());
    while (next_out_ < i) {
      if (!next(scratch_.data()))
        refuse("le_driver: " + path_ + " ended at frame " + std::to_string(next_out_) + " while seeking to " +
               std::to_string(i));
    }
  }

  std::string name() const override { return "hevc444/ffmpeg x444"; }
  std::size_t residentBytes() const override {
    return static_cast<std::size_t>(w_) * static_cast<std::size_t>(h_) * 36 + 4 * frameBytes();
  }

 private:
  // A decoded frame that came out ahead of its turn. Slots are kept and
  // reused, so a stream that reorders the same way every loop allocates
  // nothing after the first.
  struct Pending {
    int32_t index = -1;  // -1: a free slot
    std::vector<uint8_t> bytes;
  };

  Pending* waiting(int32_t index) {
    for (Pending& p : reorder_)
      if (p.index == index) return &p;
    return nullptr;
  }

  std::size_t waitingCount() const {
    return static_cast<std::size_t>(
        std::count_if(reorder_.begin(), reorder_.end(), [](const Pending& p) { return p.index >= 0; }));
  }

  // The samples' presentation times, read without decoding through a reader
  // of its own; a frame's index is its time's rank.
  void scanPresentationTimes() {
    int status = 0;
    ff::Format scan = ff::openInput(path_, false, &status);
    if (!scan) refuse("le_driver: cannot read " + path_ + " — " + ff::describe(status));
    const int stream = ff::firstVideoStream(scan.get());
    std::vector<int64_t> times;
    while (stream >= 0 && av_read_frame(scan.get(), packet_.get()) >= 0) {
      if (packet_->stream_index == stream && packet_->size > 0) times.push_back(packet_->pts);
      av_packet_unref(packet_.get());
    }
    if (static_cast<int64_t>(times.size()) != nt_)
      refuse("le_driver: " + path_ + " carries " + std::to_string(times.size()) + " samples, the manifest says NT=" +
             std::to_string(nt_) + " — member/manifest mismatch, refusing");
    std::vector<int64_t> sorted = times;
    std::sort(sorted.begin(), sorted.end());
    for (int32_t i = 0; i < nt_; ++i) pts_to_frame_[sorted[static_cast<std::size_t>(i)]] = i;
    if (static_cast<int64_t>(pts_to_frame_.size()) != nt_)
      refuse("le_driver: " + path_ + " carries duplicate presentation times — refusing to guess the frame order");
  }

  void openReader() {
    if (ff::rewindToFirstSample(format_.get(), stream_) < 0) refuse("le_driver: cannot start reading " + path_);
    drained_ = false;
    next_out_ = 0;
    samples_fed_ = 0;
  }

  // A frame the decoder gave back. Never throws: a failure is stored, and
  // the next turn of next() refuses with it. Returns true when the frame was
  // next_out_ and went straight into dst.
  bool onFrame(uint8_t* dst) {
    if (!failure_.empty()) return false;
    const AVFrame& f = *frame_;
    if (ff::damaged(&f)) {
      failure_ = "FFmpeg returned " + std::to_string(AVERROR_INVALIDDATA) + " decoding a frame";
      return false;
    }
    if (!f.data[0]) {
      failure_ = "FFmpeg produced a null image buffer";
      return false;
    }
    if (f.format != AV_PIX_FMT_YUV444P && f.format != AV_PIX_FMT_YUV444P10LE) {
      const char* n = av_get_pix_fmt_name(static_cast<AVPixelFormat>(f.format));
      failure_ = std::string("FFmpeg returned a '") + (n ? n : "none") +
                 "' surface where 'x444' was demanded — any other surface is not the full-resolution 4:4:4 the "
                 "prior was stored in. REFUSING rather than serving a warp prior that is not the one every other "
                 "plane reads.";
      return false;
    }
    if (f.width != w_ || f.height != h_) {
      failure_ = "a frame came back " + std::to_string(f.width) + "x" + std::to_string(f.height) +
                 ", the manifest says " + std::to_string(w_) + "x" + std::to_string(h_) +
                 " — refusing to rescale an identity member";
      return false;
    }
    const auto at = pts_to_frame_.find(f.pts);
    if (f.pts == AV_NOPTS_VALUE || at == pts_to_frame_.end()) {
      failure_ = "a decoded frame carries a presentation time no sample carried — refusing to guess its place in the "
                 "walk";
      return false;
    }
    const int32_t index = at->second;
    const bool direct = index == next_out_;
    uint8_t* out = direct ? dst : slotFor(index);
    convert(f, reinterpret_cast<uint16_t*>(out));
    return direct;
  }

  uint8_t* slotFor(int32_t index) {
    Pending* p = waiting(index);
    if (!p) p = waiting(-1);
    if (!p) p = &reorder_.emplace_back();
    p->index = index;
    if (p->bytes.size() < frameBytes()) p->bytes.resize(frameBytes());
    return p->bytes.data();
  }

  void convert(const AVFrame& f, uint16_t* planes) {
    const std::size_t plane = static_cast<std::size_t>(w_) * static_cast<std::size_t>(h_);
    const bool wide = f.format == AV_PIX_FMT_YUV444P10LE;
    for (int r = 0; r < h_; ++r) {
      const uint8_t* rows[3];
      for (int c = 0; c < 3; ++c) rows[c] = f.data[c] + static_cast<std::ptrdiff_t>(r) * f.linesize[c];
      if (wide) {  // the top 8 of 10 bits
        uint8_t* narrow[3] = {y_row_.data(), u_row_.data(), v_row_.data()};
        for (int c = 0; c < 3; ++c) {
          for (int x = 0; x < w_; ++x) {
            uint16_t word;
            std::memcpy(&word, rows[c] + 2 * x, 2);
            narrow[c][x] = static_cast<uint8_t>(word >> 2);
          }
          rows[c] = narrow[c];
        }
      }
      const std::size_t at = static_cast<std::size_t>(r) * static_cast<std::size_t>(w_);
      yuv444RowToHalf(rows[0], rows[1], rows[2], w_, lut_.data(), planes + at, planes + plane + at,
                      planes + 2 * plane + at);
    }
  }

  std::string path_;
  int32_t nt_, w_, h_;
  std::array<uint16_t, 256> lut_;
  std::vector<uint8_t> y_row_, u_row_, v_row_;  // one row of a 10-bit frame, narrowed
  ff::Format format_;  // the asset and its reader
  int stream_ = -1;
  ff::Codec codec_;    // the decoder, one for life
  ff::Frame frame_;
  ff::Packet packet_;
  std::map<int64_t, int32_t> pts_to_frame_;  // fixed after opening
  std::vector<Pending> reorder_;
  std::string failure_;  // the first failure onFrame saw
  int32_t next_out_ = 0;
  int32_t samples_fed_ = 0;
  bool drained_ = false;  // the reader has ended and every held frame has come out
  std::vector<uint8_t> scratch_;  // the frames a seek walks past
};

}  // namespace

std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int crop, int threads) {
  auto s = std::make_unique<FfPriorSource>(path, NT, crop);
  s->openMember(threads);
  return s;
}

}  // namespace le::driver
