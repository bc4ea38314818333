// Which Highway targets get a copy of the kernels. Every translation unit
// that compiles kernels includes this first, before any Highway header, so
// that all of them build the same set.
//
// - AVX2 (with F16C): the copy that runs on the machines the engine is built
//   and tested on. Its half conversions are the processor's instructions.
// - SCALAR: Highway's static baseline with the default x86-64 flags (g++ 12.2
//   counts as too old for EMU128), so it cannot be left out; a processor
//   without AVX2 lands here. Its half conversions are the exact integer
//   routines of half_soft.h.
// - SSSE3 and SSE4 are left out: Highway 1.0.3 converts halves there in
//   software that truncates and loses infinities and NaNs, and processors
//   that stop at SSE4 are not worth a third set of conversions.
// - AVX3 (AVX-512) is left out although the kernels are written for any lane
//   count: no machine that builds and tests the engine has AVX-512, and a
//   copy whose bits no test has checked has no place in a build that promises
//   the same bits on every target. Take it off this list where the tests can
//   run it; they force every compiled target the processor supports in turn.
#pragma once

#ifndef HWY_DISABLED_TARGETS
#define HWY_DISABLED_TARGETS (HWY_SSSE3 | HWY_SSE4 | HWY_AVX3 | HWY_AVX3_DL)
#endif
