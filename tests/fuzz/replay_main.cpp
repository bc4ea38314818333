// Drives a fuzz harness without libFuzzer, so that the ordinary gcc build
// and its test suite keep every harness alive: each input file named on the
// command line (or found in a named directory) goes through
// LLVMFuzzerTestOneInput once, then a bounded number of deterministic
// mutations of those inputs. The coverage-guided runs are scripts/fuzz.sh's.
//
//   <harness> [--mutations=N] [--seed=S] [--quiet-stderr] PATH...
//
// A crash, a sanitizer report or a broken property aborts; before it does,
// the input that caused it is written to crash-<harness> in the working
// directory so that it can be replayed and kept as a regression input.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tests/fuzz/fuzz_support.h"

extern "C" void __sanitizer_set_death_callback(void (*callback)(void)) __attribute__((weak));
extern "C" void __sanitizer_set_report_fd(void* fd) __attribute__((weak));

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

constexpr size_t kMaxMutatedSize = size_t{1} << 20;

// The input being run, for the crash handlers.
const Bytes* g_current = nullptr;
std::string g_crashPath;
int g_reportFd = 2;

void say(const char* text) {
  if (::write(g_reportFd, text, std::strlen(text)) < 0) return;
}

void dumpCurrent() {
  static bool dumped = false;
  if (dumped || !g_current) return;
  dumped = true;
  const int fd = ::open(g_crashPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return;
  const bool ok = ::write(fd, g_current->data(), g_current->size()) == static_cast<ssize_t>(g_current->size());
  ::close(fd);
  if (!ok) return;
  say("replay: the failing input is in ");
  say(g_crashPath.c_str());
  say("\n");
}

void onSignal(int sig) {
  dumpCurrent();
  ::signal(sig, SIG_DFL);
  ::raise(sig);
}

// An exception that escaped a harness: say which before the abort.
void onTerminate() {
  say("replay: uncaught exception");
  if (const std::exception_ptr e = std::current_exception()) {
    try {
      std::rethrow_exception(e);
    } catch (const std::exception& x) {
      say(": ");
      say(x.what());
    } catch (...) {
    }
  }
  say("\n");
  std::abort();
}

void run(const Bytes& input) {
  g_current = &input;
  LLVMFuzzerTestOneInput(input.data(), input.size());
  g_current = nullptr;
}

Bytes readAll(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// splitmix64: the same mutations on every machine and every run.
struct Rng {
  uint64_t s;
  uint64_t next() {
    uint64_t z = (s += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
  }
  size_t below(size_t n) { return n ? static_cast<size_t>(next() % n) : 0; }
};

// Bytes that steer the readers here: structure of JSON, protobuf varint
// edges, base64 padding, digits and signs.
constexpr uint8_t kInteresting[] = {0x00, 0x01, 0x7F, 0x80, 0xFF, '"', '\\', '{', '}', '[', ']', ':',
                                    ',',  '-',  '0',  '9',  'e',  '.', ' ',  '=', '/', 'u'};

void mutate(Bytes& d, const std::vector<Bytes>& corpus, Rng& r) {
  const size_t steps = 1 + r.below(4);
  for (size_t step = 0; step < steps; ++step) {
    const size_t pos = r.below(d.size() + 1);
    switch (r.below(8)) {
      case 0:
        if (pos < d.size()) d[pos] ^= static_cast<uint8_t>(1u << r.below(8));
        break;
      case 1:
        if (pos < d.size()) d[pos] = kInteresting[r.below(sizeof kInteresting)];
        break;
      case 2:
        if (pos < d.size()) d[pos] = static_cast<uint8_t>(d[pos] + (r.below(2) ? 1 : -1));
        break;
      case 3:
        for (size_t n = 1 + r.below(4); n > 0; --n)
          d.insert(d.begin() + static_cast<ptrdiff_t>(pos), static_cast<uint8_t>(r.next()));
        break;
      case 4:
        if (pos < d.size())
          d.erase(d.begin() + static_cast<ptrdiff_t>(pos),
                  d.begin() + static_cast<ptrdiff_t>(pos + 1 + r.below(std::min<size_t>(16, d.size() - pos))));
        break;
      case 5:
        d.resize(r.below(d.size() + 1));
        break;
      case 6: {  // a range of this input, repeated elsewhere in it
        if (d.empty()) break;
        const size_t from = r.below(d.size());
        const size_t len = 1 + r.below(std::min<size_t>(64, d.size() - from));
        const Bytes piece(d.begin() + static_cast<ptrdiff_t>(from), d.begin() + static_cast<ptrdiff_t>(from + len));
        d.insert(d.begin() + static_cast<ptrdiff_t>(std::min(pos, d.size())), piece.begin(), piece.end());
        break;
      }
      default: {  // a range of another input
        const Bytes& other = corpus[r.below(corpus.size())];
        if (other.empty()) break;
        const size_t from = r.below(other.size());
        const size_t len = 1 + r.below(std::min<size_t>(256, other.size() - from));
        d.insert(d.begin() + static_cast<ptrdiff_t>(pos), other.begin() + static_cast<ptrdiff_t>(from),
                 other.begin() + static_cast<ptrdiff_t>(from + len));
        break;
      }
    }
  }
  if (d.size() > kMaxMutatedSize) d.resize(kMaxMutatedSize);
}

}  // namespace

int main(int argc, char** argv) {
  size_t mutations = 0;
  uint64_t seed = 1;
  bool quiet = false;
  std::vector<fs::path> files;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg.rfind("--mutations=", 0) == 0) {
      mutations = std::strtoull(arg.c_str() + 12, nullptr, 10);
    } else if (arg.rfind("--seed=", 0) == 0) {
      seed = std::strtoull(arg.c_str() + 7, nullptr, 10);
    } else if (arg == "--quiet-stderr") {
      quiet = true;
    } else if (fs::is_directory(arg)) {
      std::vector<fs::path> found;
      for (const auto& e : fs::recursive_directory_iterator(arg))
        if (e.is_regular_file()) found.push_back(e.path());
      std::sort(found.begin(), found.end());
      files.insert(files.end(), found.begin(), found.end());
    } else if (fs::is_regular_file(arg)) {
      files.emplace_back(arg);
    } else {
      std::fprintf(stderr, "replay: %s is neither a file nor a directory\n", arg.c_str());
      return 2;
    }
  }
  if (files.empty()) {
    std::fprintf(stderr, "replay: no inputs: name a corpus file or directory\n");
    return 2;
  }

  g_crashPath = "crash-" + fs::path(argv[0]).filename().string();
  if (quiet) {
    // The readers' own diagnostics go nowhere; reports still reach the
    // original standard error.
    std::fflush(stderr);
    g_reportFd = ::dup(2);
    const int null = ::open("/dev/null", O_WRONLY);
    if (g_reportFd < 0 || null < 0 || ::dup2(null, 2) < 0) return 2;
    ::close(null);
    if (__sanitizer_set_report_fd) __sanitizer_set_report_fd(reinterpret_cast<void*>(static_cast<intptr_t>(g_reportFd)));
    le::fuzz::setReportFd(g_reportFd);
  }
  std::set_terminate(onTerminate);
  // The handlers run on a stack of their own, so that a recursion that ran
  // off the main stack still gets its input written out.
  static std::vector<char> altStack(1 << 16);
  stack_t ss{};
  ss.ss_sp = altStack.data();
  ss.ss_size = altStack.size();
  ::sigaltstack(&ss, nullptr);
  struct sigaction sa {};
  sa.sa_handler = onSignal;
  sa.sa_flags = SA_ONSTACK;
  for (int sig : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) ::sigaction(sig, &sa, nullptr);
  if (__sanitizer_set_death_callback) __sanitizer_set_death_callback(dumpCurrent);

  std::vector<Bytes> corpus;
  corpus.reserve(files.size());
  for (const fs::path& f : files) {
    corpus.push_back(readAll(f));
    run(corpus.back());
  }
  Rng rng{seed};
  Bytes scratch;
  for (size_t i = 0; i < mutations; ++i) {
    scratch = corpus[i % corpus.size()];
    mutate(scratch, corpus, rng);
    run(scratch);
  }
  std::printf("replay: %zu corpus inputs and %zu mutations ran clean\n", corpus.size(), mutations);
  return 0;
}
