// The driver video as a directory of JPEG frames "frame_%06d.jpg", decoded
// one frame per next() through stb_image.
#pragma once

#include <memory>
#include <string>

#include "driver/source.h"

namespace le::driver {

// A JpgDirSource over `dir`, whose frames must each be W x H.
std::unique_ptr<Source> openJpgDir(const std::string& dir, int NT, int W, int H);

}  // namespace le::driver
