#include "driver/image_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace le {

// A bump allocator behind stb_image's allocation hooks while an ImageDecoder
// decodes. Every block carries a 16-byte header holding its size, so that
// realloc can copy; free is a no-op, and the whole arena is recycled at the
// start of the next decode. When a decode doesn't fit, the rest goes to
// plain malloc and the next decode replaces everything with one block big
// enough for the whole of the last one: that is the warm-up.
struct ImageDecoder::Arena {
  static constexpr std::size_t kHeader = 16;

  uint8_t* block = nullptr;
  std::size_t cap = 0;
  std::size_t used = 0;
  std::vector<void*> overflow;
  std::size_t overflow_bytes = 0;
  uint64_t growths = 0;

  Arena() { overflow.reserve(64); }
  ~Arena() { release(); }

  void release() {
    std::free(block);
    block = nullptr;
    cap = 0;
    for (void* p : overflow) std::free(p);
    overflow.clear();
  }

  void* alloc(std::size_t n) {
    const std::size_t need = kHeader + ((n + 15) & ~std::size_t{15});
    uint8_t* at;
    if (cap - used >= need) {
      at = block + used;
      used += need;
    } else {
      at = static_cast<uint8_t*>(std::malloc(need));
      if (!at) return nullptr;
      overflow.push_back(at);
      overflow_bytes += need;
    }
    std::memcpy(at, &n, sizeof n);
    return at + kHeader;
  }

  void* realloc(void* p, std::size_t n) {
    void* q = alloc(n);
    if (p && q) {
      std::size_t old = 0;
      std::memcpy(&old, static_cast<uint8_t*>(p) - kHeader, sizeof old);
      std::memcpy(q, p, std::min(old, n));
    }
    return q;
  }

  // Called before each decode: the last decode's memory is no longer used.
  void recycle() {
    if (!overflow.empty()) {
      const std::size_t total = used + overflow_bytes;
      release();
      const std::size_t want = (total + 65535) & ~std::size_t{65535};
      block = static_cast<uint8_t*>(std::malloc(want));
      cap = block ? want : 0;
      ++growths;
    }
    used = 0;
    overflow_bytes = 0;
  }
};

namespace {

// The arena of the decode that runs on this thread, if any.
thread_local ImageDecoder::Arena* t_arena = nullptr;

void* stbMalloc(std::size_t n) { return t_arena ? t_arena->alloc(n) : std::malloc(n); }
void stbFree(void* p) {
  if (!t_arena) std::free(p);
}
void* stbRealloc(void* p, std::size_t n) { return t_arena ? t_arena->realloc(p, n) : std::realloc(p, n); }

struct ArenaScope {
  explicit ArenaScope(ImageDecoder::Arena* a) { t_arena = a; }
  ~ArenaScope() { t_arena = nullptr; }
  ArenaScope(const ArenaScope&) = delete;
  ArenaScope& operator=(const ArenaScope&) = delete;
};

}  // namespace

}  // namespace le

#define STBI_MALLOC(sz) le::stbMalloc(sz)
#define STBI_FREE(p) le::stbFree(p)
#define STBI_REALLOC(p, sz) le::stbRealloc(p, sz)
#define STBI_NO_STDIO
#define STB_IMAGE_STATIC
#define STB_IMAGE_IMPLEMENTATION
#include <stb_image.h>

#define STB_IMAGE_WRITE_STATIC
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>

namespace le {

namespace {

// Reads the whole file into buf (grown, never shrunk); false if it can't be
// opened or read.
bool readWhole(const char* path, std::vector<uint8_t>& buf, std::size_t* len) {
  const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat st {};
  bool ok = ::fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size >= 0;
  std::size_t got = 0;
  if (ok) {
    const auto size = static_cast<std::size_t>(st.st_size);
    // Grown with a quarter to spare, so that the next slightly larger frame
    // doesn't allocate again.
    if (buf.size() < size) buf.resize((size + size / 4 + 4095) & ~std::size_t{4095});
    while (got < size) {
      const ssize_t r = ::read(fd, buf.data() + got, size - got);
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      got += static_cast<std::size_t>(r);
    }
    ok = got == size;
  }
  ::close(fd);
  *len = got;
  return ok;
}

[[noreturn]] void decodeFailed(const char* path) { throw std::runtime_error(std::string("decode failed: ") + path); }

}  // namespace

std::vector<uint8_t> loadImageRGB(const std::string& path, int* w, int* h) {
  std::vector<uint8_t> file;
  std::size_t len = 0;
  if (!readWhole(path.c_str(), file, &len) || len > static_cast<std::size_t>(INT32_MAX)) decodeFailed(path.c_str());
  int iw = 0, ih = 0, comp = 0;
  stbi_uc* px = stbi_load_from_memory(file.data(), static_cast<int>(len), &iw, &ih, &comp, 3);
  if (!px) decodeFailed(path.c_str());
  std::vector<uint8_t> out;
  try {
    out.assign(px, px + static_cast<std::size_t>(iw) * static_cast<std::size_t>(ih) * 3);
  } catch (...) {
    stbi_image_free(px);
    throw;
  }
  stbi_image_free(px);
  if (w) *w = iw;
  if (h) *h = ih;
  return out;
}

void writePNG(const std::string& path, const uint8_t* rgb, int w, int h) {
  if (!rgb || w <= 0 || h <= 0 || !stbi_write_png(path.c_str(), w, h, 3, rgb, w * 3))
    throw std::runtime_error("png write failed: " + path);
}

ImageDecoder::ImageDecoder() : arena_(std::make_unique<Arena>()) {}
ImageDecoder::~ImageDecoder() = default;

const uint8_t* ImageDecoder::decode(const char* path, int* w, int* h) {
  std::size_t len = 0;
  const std::size_t before = file_.capacity();
  const bool read = readWhole(path, file_, &len);
  if (file_.capacity() != before) ++arena_->growths;
  if (!read || len > static_cast<std::size_t>(INT32_MAX)) decodeFailed(path);
  arena_->recycle();
  int iw = 0, ih = 0, comp = 0;
  stbi_uc* px;
  {
    const ArenaScope scope(arena_.get());
    px = stbi_load_from_memory(file_.data(), static_cast<int>(len), &iw, &ih, &comp, 3);
  }
  if (!px) decodeFailed(path);
  if (w) *w = iw;
  if (h) *h = ih;
  return px;
}

std::size_t ImageDecoder::residentBytes() const { return file_.capacity() + arena_->cap; }

uint64_t ImageDecoder::growths() const { return arena_->growths; }

}  // namespace le
