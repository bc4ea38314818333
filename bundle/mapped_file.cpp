#include "bundle/mapped_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

namespace le {

namespace {

// Closes the descriptor on every road out.
struct Fd {
  int fd;
  ~Fd() {
    if (fd >= 0) ::close(fd);
  }
};

int openReadOnly(const std::string& path) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw std::runtime_error("cannot open " + path);
  return fd;
}

}  // namespace

MappedFile::MappedFile(const std::string& path, std::size_t expected) {
  const Fd fd{openReadOnly(path)};
  struct stat st {};
  if (::fstat(fd.fd, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size < 0 ||
      static_cast<std::uint64_t>(st.st_size) != expected)
    throw std::runtime_error("size mismatch " + path);
  if (expected == 0) return;  // mmap refuses a length of 0; nothing to map
  void* base = ::mmap(nullptr, expected, PROT_READ, MAP_PRIVATE, fd.fd, 0);
  if (base == MAP_FAILED) throw std::runtime_error("mmap failed " + path);
  base_ = base;
  data_ = static_cast<const std::uint8_t*>(base);
  length_ = expected;
}

MappedFile::~MappedFile() { reset(); }

MappedFile::MappedFile(MappedFile&& other) noexcept
    : data_(std::exchange(other.data_, nullptr)),
      base_(std::exchange(other.base_, nullptr)),
      length_(std::exchange(other.length_, 0)) {}

MappedFile& MappedFile::operator=(MappedFile&& other) noexcept {
  if (this != &other) {
    reset();
    data_ = std::exchange(other.data_, nullptr);
    base_ = std::exchange(other.base_, nullptr);
    length_ = std::exchange(other.length_, 0);
  }
  return *this;
}

void MappedFile::reset() noexcept {
  if (base_) ::munmap(base_, length_);
  data_ = nullptr;
  base_ = nullptr;
  length_ = 0;
}

void readExact(const std::string& path, void* dst, std::size_t bytes) {
  const Fd fd{openReadOnly(path)};
  auto* out = static_cast<std::uint8_t*>(dst);
  std::size_t got = 0;
  // Ask for one byte more than wanted, so that a longer file shows itself
  // without a second pass.
  std::uint8_t extra = 0;
  for (;;) {
    const bool tail = got == bytes;
    std::uint8_t* at = tail ? &extra : out + got;
    const std::size_t want = tail ? 1 : bytes - got;
    const ssize_t r = ::read(fd.fd, at, want);
    if (r < 0 && errno == EINTR) continue;
    if (r < 0) throw std::runtime_error("size mismatch " + path);
    if (r == 0) break;  // end of file
    if (tail) throw std::runtime_error("size mismatch " + path);
    got += static_cast<std::size_t>(r);
  }
  if (got != bytes) throw std::runtime_error("size mismatch " + path);
}

}  // namespace le
