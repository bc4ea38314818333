#include "tessera/geometry_stamp.h"

#include <stdexcept>

#include "tessera/number.h"

namespace le {

const std::array<const char*, GeometryStamp::kFields>& GeometryStamp::keys() {
  static const std::array<const char*, kFields> k = {"canvas_w", "canvas_h", "window_x0", "window_y0",
                                                     "window_w", "window_h", "pad",       "band_r0",
                                                     "band_r1",  "band_c0",  "band_c1",   "shift_margin"};
  return k;
}

int64_t GeometryStamp::storedH() const {
  return int64_t{band_r1()} - band_r0() + 2 * int64_t{shift_margin()};
}

int64_t GeometryStamp::storedW() const {
  return int64_t{band_c1()} - band_c0() + 2 * int64_t{shift_margin()};
}

void GeometryStamp::validate() const {
  // All sums in 64 bits, so that no stamp can overflow its way past a test.
  const int64_t cw = canvas_w(), ch = canvas_h(), x0 = window_x0(), y0 = window_y0();
  const int64_t ww = window_w(), wh = window_h(), p = pad(), sm = shift_margin();
  const int64_t r0 = band_r0(), r1 = band_r1(), c0 = band_c0(), c1 = band_c1();
  std::string faults;
  auto test = [&](bool holds, const char* words) {
    if (holds) return;
    faults += ' ';
    faults += words;
    faults += ';';
  };
  test(ww >= 1 && wh >= 1, "window dims must be positive");
  test(x0 >= 0 && x0 + ww <= cw, "window x-range escapes canvas");
  test(y0 >= 0 && y0 + wh <= ch, "window y-range escapes canvas");
  test(0 <= r0 && r0 < r1 && r1 <= wh, "band rows escape window");
  test(0 <= c0 && c0 < c1 && c1 <= ww, "band cols escape window");
  // A margin of 0 is a band that may not shift at all, and passes.
  test(sm >= 0 && p >= 1, "pad/shift_margin must be positive");
  test(r0 + p - sm >= 0 && r1 + p + sm <= wh + 2 * p, "stored band rows escape patch");
  test(c0 + p - sm >= 0 && c1 + p + sm <= ww + 2 * p, "stored band cols escape patch");
  if (!faults.empty()) throw std::runtime_error("teeth: GeometryStamp incoherent:" + faults);
}

void readStamp(const tessera::json::JVal& obj, const std::string& name, GeometryStamp& stamp) {
  for (int32_t i = 0; i < GeometryStamp::kFields; ++i) {
    stamp.v[i] = tessera::truncToI32(tessera::json::reqNum(obj, GeometryStamp::keys()[i], name));
  }
}

std::string stampStr(const GeometryStamp& stamp) {
  std::string s = "{";
  for (int32_t i = 0; i < GeometryStamp::kFields; ++i) {
    if (i) s += ", ";
    s += GeometryStamp::keys()[i];
    s += '=';
    s += std::to_string(stamp.v[i]);
  }
  s += '}';
  return s;
}

}  // namespace le
