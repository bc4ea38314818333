// Shared by the fuzz harnesses of the readers of untrusted bytes. Each
// harness defines LLVMFuzzerTestOneInput; libFuzzer drives it in the clang
// build of scripts/fuzz.sh, and replay_main.cpp drives it over its seed
// corpus in the ordinary test suite.
//
// A harness lets a reader's refusal (std::runtime_error, the kind every
// reader here throws for bad bytes) pass quietly. Anything else escaping a
// reader — an index error, a failed allocation, a crash — is a finding, and
// so is a broken property that the harness checks with FUZZ_CHECK.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

namespace le::fuzz {

// Prints the failed property and aborts, so that both drivers record the
// input that broke it.
[[noreturn]] void checkFailed(const char* file, int line, const char* what);

// Where checkFailed reports: standard error unless the driver moved it.
void setReportFd(int fd);

#define FUZZ_CHECK(cond)                                           \
  do {                                                             \
    if (!(cond)) ::le::fuzz::checkFailed(__FILE__, __LINE__, #cond); \
  } while (0)

// A fresh private directory for this process, made on first use (under
// $TMPDIR, else /dev/shm, else /tmp) and removed at exit. Harnesses that need files (a bundle directory, a container to
// unwrap) work only inside it.
std::string privateDir();

void writeFile(const std::string& path, std::string_view bytes);

// Removes a file or a directory tree; errors are ignored.
void removeTree(const std::string& path);

inline std::string_view asText(const uint8_t* data, size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

// Reads a little-endian u32 from the front of the input and advances it;
// 0 when fewer than four bytes are left.
uint32_t takeU32(const uint8_t*& data, size_t& size);

}  // namespace le::fuzz
