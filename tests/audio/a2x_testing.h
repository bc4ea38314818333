// Shared helpers of the speech tests: the generated clips, and a host that
// drives an le_a2x through its C interface the way the live session does.
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "le/le_a2x.h"
#include "tests/audio/wav.h"

namespace le::test {

// A generated clip under <data>/audio/clips.
std::vector<float> clip(const std::string& name);

// Everything a stream handed out.
struct Pulled {
  std::vector<int> rows;
  std::vector<float> xs, xd;
  int total = 0;
  bool operator==(const Pulled& o) const;  // bit for bit
};

// Pushes pcm in consecutive pushes of the given sizes (the list repeats
// until the clip is out), taking every row the stream offers after each push
// (avail, then pull), then finishes and drains. onPush, if set, sees the
// samples pushed so far and the rows pulled so far after each push's rows
// were taken.
Pulled stream(le_a2x* a, const std::vector<float>& pcm, const std::vector<int>& sizes,
              const std::function<void(long long pushed, int pulled)>& onPush = {});

// Creates an object or fails the current test with le_a2x_last_error().
le_a2x* createOrFail(const std::string& bundle, int threads = 1);

// <data>/audio/<rel>.
std::string audioPath(const std::string& rel);

}  // namespace le::test
