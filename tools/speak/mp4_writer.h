// An MP4 of H.264 video at 25 fps and AAC audio at 16 kHz mono, written with
// FFmpeg's libraries: one video frame and its 640 samples at a time, so that
// picture and sound stay in step by construction.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

namespace le::speak {

class Mp4Writer {
 public:
  // Throws a sentence naming the file on failure. w and h must be even.
  Mp4Writer(const std::string& path, int w, int h);
  ~Mp4Writer();
  Mp4Writer(const Mp4Writer&) = delete;
  Mp4Writer& operator=(const Mp4Writer&) = delete;

  // rgb: w x h x 3 bytes; pcm: the 640 samples that play with the frame.
  void add(const uint8_t* rgb, const int16_t* pcm);
  // Flushes both encoders and writes the trailer.
  void finish();

  struct Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace le::speak
