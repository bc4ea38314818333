// Image files through stb_image and stb_image_write: 8-bit interleaved RGB,
// rows top to bottom, no row padding.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace le {

// Decodes any image stb_image reads into w x h x 3 bytes of RGB. Throws
// "decode failed: <path>" for a file that can't be read or decoded.
std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h);

// Encodes a w x h RGB frame as PNG. Throws "png write failed: <path>".
void writePNG(const std::string& path, const uint8_t* rgb, int w, int h);

// The same decode as loadImageRGB for a thread that decodes frame after
// frame (the driver's decoder thread): the file's bytes and every allocation
// stb_image makes come from buffers that this object keeps and grows, so
// once the buffers have reached the size of the largest frame a decode
// allocates nothing. One thread at a time per object.
class ImageDecoder {
 public:
  ImageDecoder();
  ~ImageDecoder();
  ImageDecoder(const ImageDecoder&) = delete;
  ImageDecoder& operator=(const ImageDecoder&) = delete;

  // The decoded RGB frame, valid until the next decode on this object.
  // Throws "decode failed: <path>".
  const uint8_t* decode(const char* path, int* w, int* h);

  // Bytes the object holds between decodes.
  std::size_t residentBytes() const;
  // How many times the buffers had to grow (every growth is an allocation).
  uint64_t growths() const;

  struct Arena;

 private:
  std::vector<uint8_t> file_;
  std::unique_ptr<Arena> arena_;
};

}  // namespace le
