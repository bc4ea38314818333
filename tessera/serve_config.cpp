#include "tessera/serve_config.h"

#include <cmath>
#include <stdexcept>

#include "tessera/json.h"
#include "tessera/number.h"

namespace le::tessera {

ServeConfig ServeConfig::fromHeadMemberJson(const std::string& text) {
  const json::JVal root = json::JParser(text).document();
  const json::JVal* retrieval = root.find("retrieval");
  const json::JVal* temporal = root.find("temporal");
  if (!retrieval || retrieval->kind != json::JVal::kObject || !temporal || temporal->kind != json::JVal::kObject) {
    throw std::runtime_error(
        "teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the v1 schema — refusing to serve "
        "defaults");
  }
  ServeConfig c;
  // `num` of a value of another kind is 0: the checks downstream see it.
  c.kshort = truncToI32(retrieval->req("kshort").num);
  c.aperture_tol = retrieval->req("aperture_tol").num;
  c.cut = truncToI32(retrieval->req("cut").num);
  c.K = truncToI32(retrieval->req("K").num);
  c.hysteresis = truncToI32(temporal->req("hysteresis").num);
  c.lookahead = truncToI32(temporal->req("lookahead").num);
  const json::JVal* decode = root.find("decode");
  if (decode && decode->kind == json::JVal::kObject) {
    // The envelope is fixed at 12/255; a member that states another value
    // was trained for something this pass does not compute.
    const json::JVal* clamp = decode->find("envelope_clamp_255");
    if (clamp && !(std::fabs(clamp->num - 12.0) <= 1e-6)) {
      throw std::runtime_error(
          "teeth: member envelope_clamp_255 != the envelope of record (12/255) — the envelope is a gated quantity");
    }
  }
  return c;
}

}  // namespace le::tessera
