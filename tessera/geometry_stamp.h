// The geometry stamp: twelve integers that place the mouth window on the
// compose canvas. The bank was cut against it, and every later stage of the
// teeth pass relies on it, so it is read from the bank's own sidecar and
// checked for coherence before a pass is built on it.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "tessera/json.h"

namespace le {

struct GeometryStamp {
  // Index order: the order of the stamp's C array, of its text form and of
  // the attach arguments.
  enum Field : int32_t {
    kCanvasW, kCanvasH, kWindowX0, kWindowY0, kWindowW, kWindowH, kPad,
    kBandR0, kBandR1, kBandC0, kBandC1, kShiftMargin, kFields
  };
  static const std::array<const char*, kFields>& keys();

  std::array<int32_t, kFields> v{};

  int32_t canvas_w() const { return v[kCanvasW]; }
  int32_t canvas_h() const { return v[kCanvasH]; }
  int32_t window_x0() const { return v[kWindowX0]; }
  int32_t window_y0() const { return v[kWindowY0]; }
  int32_t window_w() const { return v[kWindowW]; }
  int32_t window_h() const { return v[kWindowH]; }
  int32_t pad() const { return v[kPad]; }
  int32_t band_r0() const { return v[kBandR0]; }
  int32_t band_r1() const { return v[kBandR1]; }
  int32_t band_c0() const { return v[kBandC0]; }
  int32_t band_c1() const { return v[kBandC1]; }
  int32_t shift_margin() const { return v[kShiftMargin]; }

  // The stored patch of one donor: the band grown by shift_margin on every
  // side. In 64 bits: a stamp that has not been validated may hold any
  // integers.
  int64_t storedH() const;
  int64_t storedW() const;

  // Evaluates every coherence test and throws one std::runtime_error that
  // names all the failures, in a fixed order.
  void validate() const;

  bool operator==(const GeometryStamp& o) const { return v == o.v; }
};

// The twelve keys of `obj`, each read as a number and truncated toward zero;
// a key missing or not a number throws "teeth: <name> lacks numeric '<key>'".
void readStamp(const tessera::json::JVal& obj, const std::string& name, GeometryStamp& stamp);

// "{canvas_w=N, canvas_h=N, ..., shift_margin=N}".
std::string stampStr(const GeometryStamp& stamp);

}  // namespace le
