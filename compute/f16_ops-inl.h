// Per-target half conversions of whole vectors for the kernels. Included by
// every kernel translation unit once per target (inside foreach_target), so
// the include guard flips with HWY_TARGET_TOGGLE.
#if defined(LE_COMPUTE_F16_OPS_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LE_COMPUTE_F16_OPS_INL_H_
#undef LE_COMPUTE_F16_OPS_INL_H_
#else
#define LE_COMPUTE_F16_OPS_INL_H_
#endif

#include <cstddef>
#include <cstdint>

#include "compute/half_soft.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

// Only the x86 targets with F16C convert in hardware here: the instructions
// round to nearest even, keep subnormals, and quiet a NaN keeping its sign
// and top bits, which is the defined result. Everywhere else Highway 1.0.3
// substitutes a truncating software conversion, so those targets go through
// the exact integer routines lane by lane.
#if (HWY_TARGET == HWY_AVX2 || HWY_TARGET == HWY_AVX3 || HWY_TARGET == HWY_AVX3_DL) && \
    !defined(HWY_DISABLE_F16C)

template <class DF>
HWY_INLINE hn::Vec<hn::Rebind<uint16_t, DF>> F16Bits(DF df, hn::Vec<DF> v) {
  const hn::Rebind<hwy::float16_t, DF> dh;
  const hn::Rebind<uint16_t, DF> du16;
  (void)df;
  return hn::BitCast(du16, hn::DemoteTo(dh, v));
}

template <class DF>
HWY_INLINE hn::Vec<DF> WideBits(DF df, hn::Vec<hn::Rebind<uint16_t, DF>> h) {
  const hn::Rebind<hwy::float16_t, DF> dh;
  return hn::PromoteTo(df, hn::BitCast(dh, h));
}

#else

template <class DF>
HWY_INLINE hn::Vec<hn::Rebind<uint16_t, DF>> F16Bits(DF df, hn::Vec<DF> v) {
  constexpr size_t kN = hn::MaxLanes(DF());
  const hn::Rebind<uint16_t, DF> du16;
  float in[kN];
  uint16_t out[kN];
  hn::StoreU(v, df, in);
  for (size_t j = 0; j < kN; ++j) out[j] = soft::f16(in[j]);
  return hn::LoadU(du16, out);
}

template <class DF>
HWY_INLINE hn::Vec<DF> WideBits(DF df, hn::Vec<hn::Rebind<uint16_t, DF>> h) {
  constexpr size_t kN = hn::MaxLanes(DF());
  const hn::Rebind<uint16_t, DF> du16;
  uint16_t in[kN];
  float out[kN];
  hn::StoreU(h, du16, in);
  for (size_t j = 0; j < kN; ++j) out[j] = soft::wide(in[j]);
  return hn::LoadU(df, out);
}

#endif

// wide(f16(v)): the value rounded to half precision, back in float.
template <class DF>
HWY_INLINE hn::Vec<DF> RoundToHalf(DF df, hn::Vec<DF> v) {
  return WideBits(df, F16Bits(df, v));
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // LE_COMPUTE_F16_OPS_INL_H_
