// The movie forms of the driver (target_frames.mp4, a published output's
// driver_mp4) and of the warp prior (P_hevc.mov), played in place through
// FFmpeg's libavformat and libavcodec.
//
// The decoders of these codecs give the same planes on every machine, and
// the planes become frames through the engine's own conversions (the
// yuv420RowToRgb24 kernel for the driver, an integer formula for the prior),
// so a movie's frames are defined bit for bit. Nothing is rescaled or
// resampled: a member that doesn't match its manifest, or that decodes to
// any other pixel layout than the one asked for, is refused with a sentence
// that says what was found.
//
// next, rewind and seek run on the cursor's decoder thread alone; a source
// holds no lock. The bundle's sources decode on that thread alone too: one
// thread keeps a 1280x720 driver well ahead of 25 frames a second, the cores
// belong to the renderer, and every access to a frame stays visible to a
// ThreadSanitizer build (FFmpeg's frame threads hand frames over through
// atomics inside libavcodec, which such a build can't see). The forms with a
// thread count give the decoder FFmpeg's frame and slice threads, for
// measurement; the frames are the same bytes at any count.
#pragma once

#include <memory>
#include <string>

#include "driver/source.h"

namespace le::driver {

// The driver video at `path`: 8-bit 4:2:0 YUV (H.264, HEVC or any codec
// FFmpeg decodes to that layout), delivered as RGB24 frames of W x H.
// Throws a runtime error on refusal.
std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H);
std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H, int threads);

// The warp prior at `path`: full-resolution 4:4:4 YUV of 8 or 10 bits, whose
// top 8 bits of each sample are converted into planar half-float frames of
// crop x crop (the layout of one P.f16 row). Frames are served in
// presentation order, whatever order the samples are stored in. Throws a
// runtime error on refusal.
std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int crop);
std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int crop, int threads);

}  // namespace le::driver

namespace le {

// A description of the movie decoder this library was built with and runs
// against (FFmpeg's library versions).
std::string movieDecoderBuild();

}  // namespace le
