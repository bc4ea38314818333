// Run-time target queries: target(), targetName(), compiledTargets(),
// dispatchedTarget().
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/simd_target.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {

// The copy that dispatch reaches tells which target it was compiled for.
int64_t Target() { return HWY_TARGET; }

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"
#include "hwy/targets.h"

namespace le::simd {

HWY_EXPORT(Target);

const char* targetName(std::int64_t bit) {
  // Highway's spelling. The bit values differ between Highway versions, so
  // each name is tied to the macro of the version we build against; targets
  // this version does not know have no macro and cannot occur.
  struct Named {
    std::int64_t bit;
    const char* name;
  };
  static const Named kNames[] = {
#ifdef HWY_AVX3_SPR
      {HWY_AVX3_SPR, "AVX3_SPR"},
#endif
#ifdef HWY_AVX3_ZEN4
      {HWY_AVX3_ZEN4, "AVX3_ZEN4"},
#endif
      {HWY_AVX3_DL, "AVX3_DL"},
      {HWY_AVX3, "AVX3"},
      {HWY_AVX2, "AVX2"},
      {HWY_SSE4, "SSE4"},
      {HWY_SSSE3, "SSSE3"},
#ifdef HWY_SSE2
      {HWY_SSE2, "SSE2"},
#endif
#ifdef HWY_NEON_BF16
      {HWY_NEON_BF16, "NEON_BF16"},
#endif
      {HWY_NEON, "NEON"},
#ifdef HWY_NEON_WITHOUT_AES
      {HWY_NEON_WITHOUT_AES, "NEON_WITHOUT_AES"},
#endif
      {HWY_SVE2_128, "SVE2_128"},
      {HWY_SVE_256, "SVE_256"},
      {HWY_SVE2, "SVE2"},
      {HWY_SVE, "SVE"},
      {HWY_RVV, "RVV"},
      {HWY_PPC8, "PPC8"},
      {HWY_WASM_EMU256, "WASM_EMU256"},
      {HWY_WASM, "WASM"},
      {HWY_EMU128, "EMU128"},
      {HWY_SCALAR, "SCALAR"},
  };
  for (const Named& n : kNames) {
    if (n.bit == bit) return n.name;
  }
  return "Unknown";
}

const char* target() {
  const std::int64_t all = hwy::SupportedTargets();
  return targetName(all & -all);
}

std::int64_t compiledTargets() { return HWY_TARGETS; }

std::int64_t dispatchedTarget() { return HWY_DYNAMIC_DISPATCH(Target)(); }

}  // namespace le::simd
#endif  // HWY_ONCE
