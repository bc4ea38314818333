// Preloaded into a test process to make std::thread::hardware_concurrency()
// report LE_TEST_FAKE_CORES cores (glibc's get_nprocs is what libstdc++
// asks), so that the pool can be run at 4 and 8 threads on a smaller machine.
#include <cstdlib>

extern "C" __attribute__((visibility("default"))) int get_nprocs() {
  const char* text = std::getenv("LE_TEST_FAKE_CORES");
  return text ? std::atoi(text) : 8;
}
