// Teeth retrieval terms: retrieveTermPooled, retrieveTermExactRange,
// retrieveTermExact.
#include "compute/simd_targets.h"

#undef HWY_TARGET_INCLUDE
#define HWY_TARGET_INCLUDE "compute/kernels_retrieve.cpp"
#include "hwy/foreach_target.h"  // IWYU pragma: keep

#include "compute/f16_ops-inl.h"
#include "hwy/highway.h"

HWY_BEFORE_NAMESPACE();
namespace le::simd::HWY_NAMESPACE {
namespace hn = hwy::HWY_NAMESPACE;

namespace {

// m = wide(f16(((d0 + d1) + d2) / 3)) for the lanes at a, b (three planes,
// `plane` apart), with d[c] = |wide(f16(wide(a) - wide(b)))|.
template <class DF>
HWY_INLINE hn::Vec<DF> MeanAbsDiff(DF df, const uint16_t* HWY_RESTRICT a,
                                   const uint16_t* HWY_RESTRICT b, size_t plane) {
  const hn::Rebind<uint16_t, DF> du16;
  const auto absDiff = [&](size_t c) {
    const auto wa = WideBits(df, hn::LoadU(du16, a + c * plane));
    const auto wb = WideBits(df, hn::LoadU(du16, b + c * plane));
    return hn::Abs(RoundToHalf(df, hn::Sub(wa, wb)));
  };
  const auto s = hn::Add(hn::Add(absDiff(0), absDiff(1)), absDiff(2));
  return RoundToHalf(df, hn::Div(s, hn::Set(df, 3.0f)));
}

// The terms are computed a vector at a time, but the sum keeps one
// accumulator that takes the lanes one after the other, lane 0 first: the
// result is that of the plain loop over ascending elements.
template <class DF>
HWY_INLINE float AddLanes(DF df, hn::Vec<DF> t, size_t count, float acc) {
  constexpr size_t kN = hn::MaxLanes(DF());
  float lanes[kN];
  hn::StoreU(t, df, lanes);
  for (size_t j = 0; j < count; ++j) acc += lanes[j];
  return acc;
}

// Copies lanes [i, i + count) of the three planes of a and b, `plane` apart,
// into zero-padded blocks of kN per plane.
template <size_t kN>
HWY_INLINE void PadPlanes(const uint16_t* a, const uint16_t* b, size_t plane, size_t i,
                          size_t count, uint16_t (&ta)[3 * kN], uint16_t (&tb)[3 * kN]) {
  for (size_t c = 0; c < 3; ++c) {
    for (size_t j = 0; j < count; ++j) {
      ta[c * kN + j] = a[c * plane + i + j];
      tb[c * kN + j] = b[c * plane + i + j];
    }
  }
}

// acc over ascending i in [i0, i1) of term(m, w + i), m the lanes'
// MeanAbsDiff. The remainder runs through the same vector code on
// zero-padded copies, so a tail element meets exactly the operations of a
// main-loop element; AddLanes takes only its real lanes.
template <class DF, class W, class Term>
HWY_INLINE float SumTerms(DF df, const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                          const W* HWY_RESTRICT w, size_t n, size_t i0, size_t i1, Term term) {
  constexpr size_t kN = hn::MaxLanes(DF());
  float acc = 0.0f;
  size_t i = i0;
  for (; i < i1 && i1 - i >= kN; i += kN) acc = AddLanes(df, term(MeanAbsDiff(df, a + i, b + i, n), w + i), kN, acc);
  if (i < i1) {
    const size_t rest = i1 - i;
    uint16_t ta[3 * kN] = {};
    uint16_t tb[3 * kN] = {};
    W tw[kN] = {};
    PadPlanes<kN>(a, b, n, i, rest, ta, tb);
    for (size_t j = 0; j < rest; ++j) tw[j] = w[i + j];
    acc = AddLanes(df, term(MeanAbsDiff(df, ta, tb, kN), tw), rest, acc);
  }
  return acc;
}

}  // namespace

float RetrieveTermPooled(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                         const uint16_t* HWY_RESTRICT w, size_t n) {
  const hn::ScalableTag<float> df;
  const hn::Rebind<uint16_t, decltype(df)> du16;
  return SumTerms(df, a, b, w, n, 0, n, [&](hn::Vec<decltype(df)> m, const uint16_t* wh) {
    return RoundToHalf(df, hn::Mul(m, WideBits(df, hn::LoadU(du16, wh))));
  });
}

float RetrieveTermExactRange(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                             const float* HWY_RESTRICT w, size_t n, size_t i0, size_t i1) {
  const hn::ScalableTag<float> df;
  // A zero weight gives a term of exactly 0 whatever m holds, so that an
  // infinite or NaN difference outside the weighted region adds nothing.
  return SumTerms(df, a, b, w, n, i0, i1, [&](hn::Vec<decltype(df)> m, const float* wp) {
    const auto wf = hn::LoadU(df, wp);
    return hn::IfThenZeroElse(hn::Eq(wf, hn::Zero(df)), hn::Mul(wf, m));
  });
}

float RetrieveTermExact(const uint16_t* HWY_RESTRICT a, const uint16_t* HWY_RESTRICT b,
                        const float* HWY_RESTRICT w, size_t n) {
  return RetrieveTermExactRange(a, b, w, n, 0, n);
}

}  // namespace le::simd::HWY_NAMESPACE
HWY_AFTER_NAMESPACE();

#if HWY_ONCE
#include "compute/simd.h"

namespace le::simd {

HWY_EXPORT(RetrieveTermPooled);
HWY_EXPORT(RetrieveTermExactRange);
HWY_EXPORT(RetrieveTermExact);

float retrieveTermPooled(const std::uint16_t* a, const std::uint16_t* b, const std::uint16_t* w,
                         std::size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermPooled)(a, b, w, n);
}

float retrieveTermExactRange(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                             std::size_t n, std::size_t i0, std::size_t i1) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExactRange)(a, b, w, n, i0, i1);
}

float retrieveTermExact(const std::uint16_t* a, const std::uint16_t* b, const float* w,
                        std::size_t n) {
  return HWY_DYNAMIC_DISPATCH(RetrieveTermExact)(a, b, w, n);
}

}  // namespace le::simd
#endif  // HWY_ONCE
