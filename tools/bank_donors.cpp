#include "tools/bank_donors.h"

#include <cstdio>
#include <filesystem>
#include <stdexcept>
#include <vector>

#include "bundle/file_util.h"
#include "bundle/imx.h"
#include "bundle/members.h"
#include "driver/image_io.h"
#include "driver/movie_ffmpeg.h"
#include "tessera/json.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

namespace le::tools {

namespace {

using le::tessera::json::JVal;
namespace ff = le::driver::ff;

[[noreturn]] void refuse(const std::string& text) { throw std::runtime_error(text); }

// What the sidecar says about the track: how many donors, which slot each
// track frame fills, the stored patch size and the stated pixel format.
struct Bank {
  std::string track;
  int n = 0;
  std::vector<int> order;
  int band_w = 0, band_h = 0;
  std::string pix_fmt;
};

const JVal* objectMember(const JVal* v, const char* key) {
  const JVal* m = v ? v->find(key) : nullptr;
  return m && m->kind == JVal::kObject ? m : nullptr;
}

std::string slotName(const JVal* members, const char* key, const char* fallback) {
  const std::string s = members ? le::tessera::json::optStr(*members, key, "") : "";
  return s.empty() ? fallback : s;
}

Bank readBank(const std::string& dir) {
  JVal manifest;
  const std::string manifestPath = dir + "/manifest.json";
  if (canOpen(manifestPath)) manifest = le::tessera::json::parseJson(readFile(manifestPath), manifestPath);
  const JVal* tessera = objectMember(&manifest, "tessera");
  const JVal* members = objectMember(tessera, "members");
  Bank bank;
  const std::string trackName = slotName(members, "bank_track", "tessera_bank.v1.mp4");
  const std::string sidecar = slotName(members, "bank_sidecar", "tessera_bank.v1.json");
  bank.track = resolveMember(dir, trackName);
  const std::string sidecarPath = resolveMember(dir, sidecar);
  if (!canOpen(bank.track)) refuse("" + dir + " carries no teeth bank track (" + trackName + ")");
  if (!canOpen(sidecarPath)) refuse("" + dir + " carries no teeth bank sidecar (" + sidecar + ")");
  const JVal side = le::tessera::json::parseJson(readFile(sidecarPath), sidecar);
  const std::string format = le::tessera::json::optStr(side, "format", "");
  if (format != "tessera_bank.v1")
    refuse(sidecar + " declares format '" + format +
           "', not 'tessera_bank.v1' — this reader does not know that generation and will not guess at its keys.");
  const JVal* geometry = objectMember(&side, "geometry");
  if (!geometry) refuse(sidecar + " carries no `geometry` stamp");
  const std::string name = sidecar + ".geometry";
  const auto stamp = [&](const char* key) {
    return static_cast<int>(le::tessera::json::reqNum(*geometry, key, name));
  };
  const int margin = stamp("shift_margin");
  bank.band_h = stamp("band_r1") - stamp("band_r0") + 2 * margin;
  bank.band_w = stamp("band_c1") - stamp("band_c0") + 2 * margin;
  if (bank.band_w < 1 || bank.band_h < 1)
    refuse("teeth stamp yields a non-positive stored patch (" + std::to_string(bank.band_w) + "x" +
           std::to_string(bank.band_h) + ")");
  bank.n = static_cast<int>(le::tessera::json::reqNum(side, "n_donors", sidecar));
  if (bank.n < 1) refuse(sidecar + " says n_donors=" + std::to_string(bank.n));
  if (bank.n > 1024)
    refuse(sidecar + " carries n_donors=" + std::to_string(bank.n) + ", over the cap of 1024 — rebuild the bank.");
  const JVal* order = side.find("track_order");
  if (!order || order->kind != JVal::kArray || static_cast<int>(order->arr.size()) != bank.n)
    refuse(sidecar + " says n_donors=" + std::to_string(bank.n) + " but its track_order doesn't hold as many entries");
  std::vector<bool> seen(static_cast<size_t>(bank.n), false);
  for (size_t i = 0; i < order->arr.size(); ++i) {
    const int v = static_cast<int>(order->arr[i].num);
    if (v < 0 || v >= bank.n)
      refuse(sidecar + " track_order[" + std::to_string(i) + "]=" + std::to_string(v) + " is outside [0," +
             std::to_string(bank.n) + ")");
    if (seen[static_cast<size_t>(v)])
      refuse(sidecar + " track_order is not a permutation (reference " + std::to_string(v) + " appears twice)");
    seen[static_cast<size_t>(v)] = true;
    bank.order.push_back(v);
  }
  bank.pix_fmt = tessera ? le::tessera::json::optStr(*tessera, "bank_pix_fmt", "") : "";
  if (bank.pix_fmt.empty()) {
    const JVal* codec = objectMember(&side, "codec");
    bank.pix_fmt = codec ? le::tessera::json::optStr(*codec, "pix_fmt", "") : "";
  }
  if (bank.pix_fmt.empty())
    refuse(dir + ": neither manifest.tessera.bank_pix_fmt nor " + sidecar +
           ".codec.pix_fmt states the reference track's pixel format. A decoder handed no format negotiates one, "
           "and the one it settles on is 4:2:0 — lossy chroma on reference pixels IS the borrow degrading. Refusing "
           "rather than letting it guess.");
  return bank;
}

// An 8-bit RGB layout, packed or planar, with or without alpha.
const AVPixFmtDescriptor* rgbLayout(int format) {
  const AVPixFmtDescriptor* d = av_pix_fmt_desc_get(static_cast<AVPixelFormat>(format));
  if (!d || !(d->flags & AV_PIX_FMT_FLAG_RGB) || (d->flags & (AV_PIX_FMT_FLAG_PAL | AV_PIX_FMT_FLAG_BITSTREAM)) ||
      d->nb_components < 3)
    return nullptr;
  for (int c = 0; c < 3; ++c)
    if (d->comp[c].depth != 8 || d->comp[c].shift != 0) return nullptr;
  return d;
}

// The frame's R, G, B bytes, row by row, from any rgbLayout: component c
// of pixel x lies in plane comp[c].plane at x * step + offset.
void copyRgb(const AVFrame& f, const AVPixFmtDescriptor& d, uint8_t* rgb) {
  for (int y = 0; y < f.height; ++y)
    for (int c = 0; c < 3; ++c) {
      const AVComponentDescriptor& k = d.comp[c];
      const uint8_t* row = f.data[k.plane] + static_cast<std::ptrdiff_t>(y) * f.linesize[k.plane] + k.offset;
      uint8_t* out = rgb + static_cast<size_t>(y) * static_cast<size_t>(f.width) * 3 + c;
      for (int x = 0; x < f.width; ++x) out[3 * x] = row[x * k.step];
    }
}

std::string formatName(int format) {
  const char* n = av_get_pix_fmt_name(static_cast<AVPixelFormat>(format));
  return n ? n : "none";
}

}  // namespace

int writeBankDonors(const std::string& bundle, const std::string& outdir) {
  const std::string dir = resolveBundlePath(bundle);
  const Bank bank = readBank(dir);
  if (!rgbLayout(av_get_pix_fmt(bank.pix_fmt.c_str())))
    refuse("the bank states pixel format '" + bank.pix_fmt +
           "', not an 8-bit RGB layout — donor bytes from anything else need a colour conversion the bank doesn't "
           "define. Refusing.");
  int status = 0;
  ff::Format format = ff::openInput(bank.track, true, &status);
  const int stream = format ? ff::firstVideoStream(format.get()) : -1;
  if (stream < 0) refuse("" + bank.track + " has no video track");
  ff::Codec codec = ff::openDecoder(format->streams[stream]->codecpar, 1, &status);
  if (!codec) refuse("FFmpeg cannot decode " + bank.track + " — " + ff::describe(status));
  const size_t frameBytes = static_cast<size_t>(bank.band_w) * static_cast<size_t>(bank.band_h) * 3;
  std::vector<uint8_t> donors(frameBytes * static_cast<size_t>(bank.n));
  ff::Frame frame(av_frame_alloc());
  ff::Packet packet(av_packet_alloc());
  int got = 0;
  for (;;) {
    int r = avcodec_receive_frame(codec.get(), frame.get());
    if (r == 0) {
      const AVPixFmtDescriptor* layout = rgbLayout(frame->format);
      if (!layout)
        refuse("" + bank.track + " decodes to " + formatName(frame->format) +
               ", not an 8-bit RGB layout — donor bytes from it need a colour conversion the bank doesn't define. "
               "Refusing.");
      if (frame->width != bank.band_w || frame->height != bank.band_h)
        refuse("" + bank.track + " frame " + std::to_string(got) + " is " + std::to_string(frame->width) +
               "x" + std::to_string(frame->height) + ", the geometry stamp says " + std::to_string(bank.band_w) +
               "x" + std::to_string(bank.band_h));
      if (got >= bank.n)
        refuse("" + bank.track + " carries more frames than n_donors=" + std::to_string(bank.n));
      copyRgb(*frame, *layout, donors.data() + frameBytes * static_cast<size_t>(bank.order[static_cast<size_t>(got)]));
      av_frame_unref(frame.get());
      ++got;
      continue;
    }
    if (r == AVERROR_EOF) break;
    if (r != AVERROR(EAGAIN)) refuse("" + bank.track + " decode fault: " + ff::describe(r));
    r = av_read_frame(format.get(), packet.get());
    if (r == AVERROR_EOF) {
      avcodec_send_packet(codec.get(), nullptr);
      continue;
    }
    if (r < 0) refuse("" + bank.track + " read fault: " + ff::describe(r));
    if (packet->stream_index == stream) r = avcodec_send_packet(codec.get(), packet.get());
    av_packet_unref(packet.get());
    if (r < 0) refuse("" + bank.track + " decode fault: " + ff::describe(r));
  }
  if (got != bank.n)
    refuse("" + bank.track + " carries " + std::to_string(got) + " frames, the sidecar says n_donors=" +
           std::to_string(bank.n));
  std::filesystem::create_directories(outdir);
  for (int i = 0; i < bank.n; ++i) {
    char name[32];
    std::snprintf(name, sizeof name, "/donor_%04d.png", i);
    le::writePNG(outdir + name, donors.data() + frameBytes * static_cast<size_t>(i), bank.band_w, bank.band_h);
  }
  return bank.n;
}

}  // namespace le::tools
