// Milliseconds between laps of the steady clock: the teeth pass keeps where
// its time goes.
#pragma once

#include <chrono>

namespace le::tessera {

class Stopwatch {
 public:
  // Milliseconds since the last lap (or construction), and a new lap.
  double lap() {
    const auto now = std::chrono::steady_clock::now();
    const double ms = std::chrono::duration<double, std::milli>(now - t0_).count();
    t0_ = now;
    return ms;
  }

 private:
  std::chrono::steady_clock::time_point t0_ = std::chrono::steady_clock::now();
};

}  // namespace le::tessera
