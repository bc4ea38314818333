#include "driver/movie_source.h"

#include <stdexcept>

namespace le::driver {

namespace {

[[noreturn]] void noMovieDecoder(const std::string& path, const char* what) {
  throw std::runtime_error("le_driver: cannot play " + path + " (" + what +
                           "): this build of the engine has no movie decoder yet — movie members arrive with "
                           "FFmpeg playback. REFUSING rather than playing nothing.");
}

}  // namespace

std::unique_ptr<Source> openMp4(const std::string& path, int /*NT*/, int /*W*/, int /*H*/) {
  noMovieDecoder(path, "driver movie");
}

std::unique_ptr<Source> openPriorHevc(const std::string& path, int /*NT*/, int /*crop*/) {
  noMovieDecoder(path, "warp prior movie");
}

}  // namespace le::driver

namespace le {

std::string movieDecoderBuild() { return "none (no movie decoder in this build)"; }

}  // namespace le
