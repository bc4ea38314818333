// How retrieval and the temporal logic of the teeth pass run: the numbers of
// the head_config member, tessera_head.v1.json, and the fixed values beside
// them.
#pragma once

#include <cstdint>
#include <string>

namespace le::tessera {

struct ServeConfig {
  // From the member; every one of these keys is required, so the defaults
  // apply only to a value built without it.
  int32_t kshort = 512;       // donors that survive the pooled stage
  double aperture_tol = 0.3;  // relative aperture window
  int32_t cut = 96;           // exact-ranked donors looked at
  int32_t K = 64;             // donors that reach the head
  int32_t hysteresis = 8;     // donors carried into the next frame
  int32_t lookahead = 8;      // donors taken from the next frame's retrieval
  // Fixed: not in the member at all.
  double luma_min = 100.0;   // teeth-pixel test
  double rg_max = 25.0;      // teeth-pixel test
  int32_t min_mask_px = 32;  // teeth-pixel fallback
  double mask_decay = 0.6;   // temporal mask carry
  bool lookahead_on = true;  // emit

  // Reads the member's text; throws on every refusal, and passes the JSON
  // reader's own failures through.
  static ServeConfig fromHeadMemberJson(const std::string& text);
};

}  // namespace le::tessera
