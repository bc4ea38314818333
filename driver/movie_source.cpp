#include "driver/movie_source.h"

#include <cstdio>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
}

namespace le::driver {

std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H) { return openMp4(path, NT, W, H, 1); }

std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int crop) {
  return openPriorHevc(path, NT, crop, 1);
}

}  // namespace le::driver

namespace le {

namespace {

void appendVersion(char* buf, std::size_t cap, const char* lib, unsigned v) {
  const std::size_t at = std::char_traits<char>::length(buf);
  std::snprintf(buf + at, cap - at, "%s%s %u.%u.%u", at > 8 ? ", " : "", lib, v >> 16, v >> 8 & 0xffu, v & 0xffu);
}

}  // namespace

std::string movieDecoderBuild() {
  char buf[160] = "FFmpeg (";
  appendVersion(buf, sizeof buf, "libavformat", avformat_version());
  appendVersion(buf, sizeof buf, "libavcodec", avcodec_version());
  appendVersion(buf, sizeof buf, "libavutil", avutil_version());
  const std::size_t at = std::char_traits<char>::length(buf);
  std::snprintf(buf + at, sizeof buf - at, ") / 4:4:4 prior surface, in-memory hvc1 retag, engine yuv2rgb kernels");
  return buf;
}

}  // namespace le
