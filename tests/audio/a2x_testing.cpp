#include "tests/audio/a2x_testing.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tests/audio/wav.h"
#include "tests/support/test_support.h"

namespace le::test {

std::string audioPath(const std::string& rel) { return dataPath("audio/" + rel); }

std::vector<float> clip(const std::string& name) { return readWav(audioPath("clips/" + name)); }

bool Pulled::operator==(const Pulled& o) const {
  return rows == o.rows && total == o.total && xs.size() == o.xs.size() && xd.size() == o.xd.size() &&
         std::memcmp(xs.data(), o.xs.data(), xs.size() * sizeof(float)) == 0 &&
         std::memcmp(xd.data(), o.xd.data(), xd.size() * sizeof(float)) == 0;
}

Pulled stream(le_a2x* a, const std::vector<float>& pcm, const std::vector<int>& sizes,
              const std::function<void(long long, int)>& onPush) {
  Pulled out;
  auto take = [&] {
    for (int n; (n = le_a2x_avail(a)) > 0;) {
      const size_t at = out.rows.size();
      out.rows.resize(at + static_cast<size_t>(n));
      out.xs.resize((at + static_cast<size_t>(n)) * 63);
      out.xd.resize((at + static_cast<size_t>(n)) * 63);
      const int got = le_a2x_pull(a, out.rows.data() + at, out.xs.data() + at * 63, out.xd.data() + at * 63, n);
      EXPECT_EQ(got, n) << le_a2x_last_error();
      out.rows.resize(at + static_cast<size_t>(got));
      out.xs.resize((at + static_cast<size_t>(got)) * 63);
      out.xd.resize((at + static_cast<size_t>(got)) * 63);
      if (got < 1) return;
    }
  };
  size_t pushed = 0, k = 0;
  while (pushed < pcm.size()) {
    const size_t n = std::min(static_cast<size_t>(sizes[k++ % sizes.size()]), pcm.size() - pushed);
    EXPECT_EQ(le_a2x_push(a, pcm.data() + pushed, static_cast<int>(n)), 1);
    pushed += n;
    take();
    if (onPush) onPush(static_cast<long long>(pushed), static_cast<int>(out.rows.size()));
  }
  le_a2x_finish(a);
  out.total = le_a2x_total(a);
  // After the end every frame drains; a stream that stops short fails here
  // rather than looping.
  for (int guard = 0; static_cast<int>(out.rows.size()) < out.total && guard < out.total + 16; ++guard) take();
  EXPECT_EQ(static_cast<int>(out.rows.size()), out.total) << le_a2x_last_error();
  return out;
}

le_a2x* createOrFail(const std::string& bundle, int threads) {
  le_a2x* a = le_a2x_create(bundle.c_str(), threads);
  EXPECT_NE(a, nullptr) << le_a2x_last_error();
  return a;
}

}  // namespace le::test
