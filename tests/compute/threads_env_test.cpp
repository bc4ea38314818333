// The process-wide thread count as read from the environment. Run once per
// setting by CTest, each in its own process since the count is read once;
// LE_EXPECT_THREADS holds the count the setting should give on a machine
// with enough cores, capped here at the machine's core count.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "compute/pool.h"

namespace le::test {
namespace {

TEST(ThreadsFromEnvironment, MatchesTheSetting) {
  const char* expect = std::getenv("LE_EXPECT_THREADS");
  ASSERT_NE(expect, nullptr) << "set LE_EXPECT_THREADS";
  const unsigned hw = std::thread::hardware_concurrency();
  int want = std::atoi(expect);
  if (hw != 0) want = std::min(want, static_cast<int>(hw));
  EXPECT_EQ(le::pool::threads(), want);
  // Read once: changing the environment afterwards changes nothing.
  setenv("LE_CORE_THREADS", "1", 1);
  EXPECT_EQ(le::pool::threads(), want);
}

}  // namespace
}  // namespace le::test
