// The movie forms of the driver (target_frames.mp4, a published output's
// driver_mp4) and of the warp prior (P_hevc.mov).
//
// This build has no movie decoder yet: it arrives with the issue that plays
// these members through FFmpeg. Until then both openers refuse with a
// sentence that names the member, so that a bundle which only carries a
// movie is refused at load instead of played wrongly.
#pragma once

#include <memory>
#include <string>

#include "driver/source.h"

namespace le::driver {

// The driver video at `path`, RGB24 frames of W x H. Throws a refusal.
std::unique_ptr<Source> openMp4(const std::string& path, int NT, int W, int H);

// The warp prior at `path`, planar half-float frames of crop x crop. Throws
// a refusal.
std::unique_ptr<Source> openPriorHevc(const std::string& path, int NT, int crop);

}  // namespace le::driver

namespace le {

// A description of the movie decoder this library was built with.
std::string movieDecoderBuild();

}  // namespace le
