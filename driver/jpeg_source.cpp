#include "driver/jpeg_source.h"

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "driver/image_io.h"

namespace le::driver {

namespace {

class JpgDirSource final : public Source {
 public:
  JpgDirSource(std::string dir, int32_t nt, int32_t w, int32_t h)
      : dir_(std::move(dir)), nt_(nt), w_(w), h_(h), path_(dir_.size() + 32) {}

  int32_t NT() const override { return nt_; }
  int32_t W() const override { return w_; }
  int32_t H() const override { return h_; }

  bool next(uint8_t* dst) override {
    if (pos_ >= nt_) return false;
    // The path is built in a buffer sized once, so a frame costs no allocation.
    std::snprintf(path_.data(), path_.size(), "%s/frame_%06d.jpg", dir_.c_str(), pos_);
    int iw = 0, ih = 0;
    const uint8_t* rgb = decoder_.decode(path_.data(), &iw, &ih);
    if (iw != w_ || ih != h_)
      throw std::runtime_error("le_driver: " + std::string(path_.data()) + " is " + std::to_string(iw) + "x" +
                               std::to_string(ih) + ", the manifest says " + std::to_string(w_) + "x" +
                               std::to_string(h_) + " — refusing");
    std::memcpy(dst, rgb, frameBytes());
    ++pos_;
    return true;
  }

  void rewind() override { pos_ = 0; }

  void seek(int32_t i) override {
    if (i < 0 || i >= nt_) throw std::runtime_error("le_driver: seek outside the member");
    pos_ = i;
  }

  std::string name() const override { return "jpg/stb"; }
  std::size_t residentBytes() const override { return 0; }

 private:
  std::string dir_;
  int32_t nt_, w_, h_;
  int32_t pos_ = 0;  // the next frame to read
  std::vector<char> path_;
  ImageDecoder decoder_;
};

}  // namespace

std::unique_ptr<Source> openJpgDir(const std::string& dir, int NT, int W, int H) {
  return std::make_unique<JpgDirSource>(dir, NT, W, H);
}

}  // namespace le::driver
