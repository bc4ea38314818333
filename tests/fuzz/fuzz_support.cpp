#include "tests/fuzz/fuzz_support.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <stdexcept>

namespace le::fuzz {

namespace {

std::string g_dir;
int g_reportFd = 2;

void removePrivateDir() {
  if (!g_dir.empty()) removeTree(g_dir);
}

}  // namespace

void checkFailed(const char* file, int line, const char* what) {
  ::dprintf(g_reportFd, "%s:%d: fuzz property broken: %s\n", file, line, what);
  std::abort();
}

void setReportFd(int fd) { g_reportFd = fd; }

std::string privateDir() {
  if (g_dir.empty()) {
    // Memory-backed when the machine has it: the container harness makes
    // and removes directories on every input.
    const char* tmp = std::getenv("TMPDIR");
    const std::string root = tmp && *tmp ? tmp : ::access("/dev/shm", W_OK | X_OK) == 0 ? "/dev/shm" : "/tmp";
    std::string pattern = root + "/le-fuzz-XXXXXX";
    if (!::mkdtemp(pattern.data())) {
      std::perror("mkdtemp");
      std::abort();
    }
    g_dir = pattern;
    std::atexit(removePrivateDir);
  }
  return g_dir;
}

void writeFile(const std::string& path, std::string_view bytes) {
  std::FILE* f = std::fopen(path.c_str(), "wb");
  const bool written = f && std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  const bool closed = f && std::fclose(f) == 0;
  if (!written || !closed) {
    std::fprintf(stderr, "fuzz harness: cannot write %s\n", path.c_str());
    std::abort();
  }
}

void removeTree(const std::string& path) {
  std::error_code ec;
  std::filesystem::remove_all(path, ec);
}

uint32_t takeU32(const uint8_t*& data, size_t& size) {
  if (size < 4) return 0;
  const uint32_t v = static_cast<uint32_t>(data[0]) | static_cast<uint32_t>(data[1]) << 8 |
                     static_cast<uint32_t>(data[2]) << 16 | static_cast<uint32_t>(data[3]) << 24;
  data += 4;
  size -= 4;
  return v;
}

}  // namespace le::fuzz
