// The exact half-precision fused multiply-add over arrays: fmaF16. It runs
// the very steps the fused convolution backend chains (f16_fma-inl.h), the
// fast one first and the guarded one where the fast one may not serve, so
// that those steps can be held against an exact reference on any inputs.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/kernels_fma.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include <cstddef>
#include <cstdint>

#include "compute/f16_fma-inl.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

template <class DD>
HWY_INLINE void FmaBlock(DD dd, const HalfFmaConsts<DD>& k, const uint16_t* HWY_RESTRICT a,
                         const uint16_t* HWY_RESTRICT b, const uint16_t* HWY_RESTRICT c,
                         uint16_t* HWY_RESTRICT out) {
  const hn::Rebind<uint16_t, DD> du16;
  const auto va = HalfToDouble(dd, hn::LoadU(du16, a));
  const auto vb = HalfToDouble(dd, hn::LoadU(du16, b));
  const auto vc = HalfToDouble(dd, hn::LoadU(du16, c));
  auto seen = hn::Zero(dd);
  auto r = HalfFmaStep<false, true>(dd, k, va, vb, vc, seen);
  if (HalfFmaNeedsGuard(dd, k, seen)) r = HalfFmaStep<true, false>(dd, k, va, vb, vc, seen);
  hn::StoreU(DoubleToHalf(dd, r), du16, out);
}

}  // namespace

void FmaF16(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b, const uint16_t* HWY_RESTRICT c,
            uint16_t* HWY_RESTRICT out, size_t n) {
  const hn::ScalableTag<double> dd;
  constexpr size_t kN = hn::MaxLanes(dd);
  const HalfFmaConsts<hn::ScalableTag<double>> k(dd);
  size_t i = 0;
  for (; i + kN <= n; i += kN) FmaBlock(dd, k, a + i, b + i, c + i, out + i);
  if (i < n) {
    // The tail through a zero-padded block: the same steps as the main loop.
    uint16_t ta[kN] = {}, tb[kN] = {}, tc[kN] = {}, to[kN];
    for (size_t j = 0; i + j < n; ++j) {
      ta[j] = a[i + j];
      tb[j] = b[i + j];
      tc[j] = c[i + j];
    }
    FmaBlock(dd, k, ta, tb, tc, to);
    for (size_t j = 0; i + j < n; ++j) out[i + j] = to[j];
  }
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"

namespace le::simd {

HWY_EXPORT(FmaF16);

void fmaF16(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* c, std::uint16_t* out,
            std::size_t n) {
  HWY_DYNAMIC_DISPATCH(FmaF16)(a, b, c, out, n);
}

}  // namespace le::simd
#endif  // HWY_ONCE
