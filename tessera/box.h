// A pixel rectangle of the compose canvas, x1 and y1 exclusive. The teeth
// masks work inside boxes like this one so that a frame costs the mouth's
// area, not the canvas's.
#pragma once

#include <cstdint>

namespace le::tessera {

struct Box {
  int32_t x0 = 0;
  int32_t y0 = 0;
  int32_t x1 = 0;
  int32_t y1 = 0;

  int32_t width() const { return x1 - x0; }
  int32_t height() const { return y1 - y0; }
  bool empty() const { return x1 <= x0 || y1 <= y0; }
};

}  // namespace le::tessera
