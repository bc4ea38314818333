// Running a check once per compiled kernel target that this processor can
// execute, plus the baseline copy that dispatch falls back to, with dispatch
// forced to that target.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "compute/simd.h"
#include "hwy/targets.h"

namespace le::test {

// Compiled targets the processor supports, best first, then the fallback
// copy (Highway's static baseline), which runs anywhere.
inline std::vector<std::int64_t> targetsToTest() {
  hwy::SetSupportedTargetsForTest(0);
  const std::int64_t compiled = le::simd::compiledTargets();
  const std::int64_t runnable = compiled & hwy::SupportedTargets();
  std::vector<std::int64_t> out;
  for (std::int64_t rest = runnable; rest != 0; rest &= rest - 1) out.push_back(rest & -rest);
  const std::int64_t fallback = compiled & (HWY_SCALAR | HWY_EMU128);
  if (fallback != 0 && (runnable & fallback) == 0) out.push_back(fallback & -fallback);
  return out;
}

// Forces dispatch to `bit`; restores normal detection when destroyed.
class ForcedTarget {
 public:
  explicit ForcedTarget(std::int64_t bit) {
    hwy::SetSupportedTargetsForTest(bit);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
  }
  ~ForcedTarget() {
    hwy::SetSupportedTargetsForTest(0);
    hwy::GetChosenTarget().Update(hwy::SupportedTargets());
  }
  ForcedTarget(const ForcedTarget&) = delete;
  ForcedTarget& operator=(const ForcedTarget&) = delete;
};

// Runs check() with dispatch forced to each target in turn; a failure names
// the target.
template <class Check>
void forEachTarget(Check&& check) {
  for (const std::int64_t bit : targetsToTest()) {
    ForcedTarget forced(bit);
    SCOPED_TRACE(std::string("target ") + le::simd::targetName(bit));
    ASSERT_EQ(le::simd::dispatchedTarget(), bit) << "dispatch did not reach the forced target";
    check();
    if (::testing::Test::HasFatalFailure()) return;
  }
}

}  // namespace le::test
