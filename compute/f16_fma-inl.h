// Per-target exact half-precision fused multiply-add on lanes of double, for
// kernels that run a chain of them (the fused convolution backend). Included
// once per target inside foreach_target, so the include guard flips with
// HWY_TARGET_TOGGLE.
//
// The values are halves held in double lanes. One step, s = w * x + acc in
// double, is exact or rounds harmlessly (see half_arith.h), and then rounds
// to half in place with a magic constant: for s in the binade of 2^e
// (e >= -14, the smallest normal binade, which also covers the subnormals),
// M = 1.5 * 2^(e + 42) has a double ulp of 2^(e - 10), the half ulp there,
// so (s + M) - M is s rounded to the half grid, to nearest with ties to even,
// and exactly. A zero result takes the sign of s, as the IEEE rules give it.
//
// The double fused multiply-adds below are plain double arithmetic in
// disguise: w * x and the power of two times 1.5 * 2^42 are exact, so fusing
// them with the add rounds exactly as a separate multiply and add would.
//
// What the magic constant can't do is overflow (a value at or above 65520
// becomes infinity) and non-finite values. The fast step leaves them out;
// either the caller has proved that no value of the chain can reach 2^15
// (from bounds on its inputs), or the step records the largest binade it met
// (kTrack) and any chain that reached 2^15 or met an infinity or NaN is run
// again with the guarded step, which handles all of them. They give the same
// bits wherever the fast one is allowed.
#if defined(LE_COMPUTE_F16_FMA_INL_H_) == defined(HWY_TARGET_TOGGLE)
#ifdef LE_COMPUTE_F16_FMA_INL_H_
#undef LE_COMPUTE_F16_FMA_INL_H_
#else
#define LE_COMPUTE_F16_FMA_INL_H_
#endif

#include <cmath>
#include <cstddef>
#include <cstdint>

#include "compute/f16_ops-inl.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

template <class DD>
struct HalfFmaConsts {
  using V = hn::Vec<DD>;
  V expMask, signMask, minBinade, magic, limit, overflow, inf, nan;
  explicit HalfFmaConsts(DD dd)
      : expMask(hn::BitCast(dd, hn::Set(hn::RebindToUnsigned<DD>(), 0x7ff0000000000000ull))),
        signMask(hn::BitCast(dd, hn::Set(hn::RebindToUnsigned<DD>(), 0x8000000000000000ull))),
        minBinade(hn::Set(dd, 0x1p-14)),
        magic(hn::Set(dd, 0x1.8p42)),
        limit(hn::Set(dd, 0x1p15)),
        overflow(hn::Set(dd, 65520.0)),
        inf(hn::Set(dd, HUGE_VAL)),
        nan(hn::BitCast(dd, hn::Set(hn::RebindToUnsigned<DD>(), 0x7ff8000000000000ull))) {}
};

// acc = half(w * x + acc). kGuard: every value, overflow and NaN included.
// Otherwise the result is only good while every s stays below 2^15 in
// magnitude; kTrack folds the binades (powers of two, +inf for non-finite s)
// into seen with Max, to be checked by HalfFmaNeedsGuard.
template <bool kGuard, bool kTrack, class DD>
HWY_INLINE hn::Vec<DD> HalfFmaStep(DD dd, const HalfFmaConsts<DD>& k, hn::Vec<DD> w, hn::Vec<DD> x,
                                   hn::Vec<DD> acc, hn::Vec<DD>& seen) {
  (void)dd;
  const auto s = hn::MulAdd(w, x, acc);
  const auto binade = hn::And(s, k.expMask);
  if (kTrack) seen = hn::Max(seen, binade);
  const auto scale = hn::Max(binade, k.minBinade);
  const auto t = hn::MulAdd(scale, k.magic, s);
  auto r = hn::Or(hn::NegMulAdd(scale, k.magic, t), hn::And(s, k.signMask));
  if (kGuard) {
    const auto big = hn::Ge(hn::Abs(s), k.overflow);
    r = hn::IfThenElse(big, hn::Or(k.inf, hn::And(s, k.signMask)), r);
    r = hn::IfThenElse(hn::IsNaN(s), k.nan, r);
  }
  return r;
}

// True when the fast steps that folded into seen must be run again guarded.
template <class DD>
HWY_INLINE bool HalfFmaNeedsGuard(DD dd, const HalfFmaConsts<DD>& k, hn::Vec<DD> seen) {
  return !hn::AllTrue(dd, hn::Lt(seen, k.limit));
}

// Halves to double lanes and back; the values are halves, so both are exact.
template <class DD>
HWY_INLINE hn::Vec<DD> HalfToDouble(DD dd, hn::Vec<hn::Rebind<uint16_t, DD>> h) {
  const hn::Rebind<float, DD> df;
  return hn::PromoteTo(dd, WideBits(df, h));
}

template <class DD>
HWY_INLINE hn::Vec<hn::Rebind<uint16_t, DD>> DoubleToHalf(DD dd, hn::Vec<DD> v) {
  (void)dd;
  const hn::Rebind<float, DD> df;
  return F16Bits(df, hn::DemoteTo(df, v));
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#endif  // LE_COMPUTE_F16_FMA_INL_H_
