// Reading the pi geometry from the manifest's `unified` block, and
// identifying which lip geometry a bank was actually built with.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "tessera/json.h"
#include "tessera/lip_template_words.h"
#include "tessera/number.h"
#include "tessera/unified_pi.h"

namespace le::tessera {

namespace {

using json::JVal;

constexpr int32_t kKpRows = 21;
constexpr double kMatchPx = 8.0;  // the best row must lie this close to c_canon
constexpr double kGapPx = 3.0;    // and the second this much farther

[[noreturn]] void refuse(const std::string& words) { throw std::runtime_error(words); }

std::string fixed2(double v) {
  char buf[64];
  std::snprintf(buf, sizeof buf, "%.2f", v);
  return buf;
}

}  // namespace

const std::array<UnifiedPi::CorpusRow, 3>& UnifiedPi::corpusRows() {
  static const std::array<CorpusRow, 3> rows = {{
      {"v1", 0.05f, 0.08f, 0.015f},
      {"v2", 0.10f, 0.08f, 0.074f},
      {"v3", 0.14f, 0.08f, 0.074f},
  }};
  return rows;
}

UnifiedPi UnifiedPi::fromManifestJson(const std::string& manifestText, int32_t canvasSize) {
  if (canvasSize < 1) refuse("teeth-pi: canvas " + std::to_string(canvasSize) + " is not a positive size");
  const JVal root = json::JParser(manifestText).document();
  const JVal* unified = root.find("unified");
  if (!unified) {
    refuse(
        "teeth-pi: manifest has no `unified` block — this bundle predates the unified compose and cannot state the "
        "pi geometry it was baked with; refusing to guess one");
  }
  const JVal& pi = unified->req("pi");
  const JVal& mode = pi.req("mode");
  if (mode.kind != JVal::kString) refuse("teeth-pi: unified.pi.mode is not a string");
  if (mode.str != "prop") {
    refuse("teeth-pi: unified.pi.mode '" + mode.str +
           "' is a compose-mask geometry this port cannot name — fail loud, never adapt (the stamped-geometry rule)");
  }

  UnifiedPi u;
  u.canvas = canvasSize;
  u.mode = mode.str;
  if (const JVal* cr = pi.find("corner_recovery")) {
    if (cr->kind == JVal::kBool) u.corner_recovery = cr->b;
    else if (cr->kind == JVal::kString && cr->str == "lip_landmark_half") u.corner_recovery = true;
    else {
      refuse(
          "teeth-pi: unknown unified.pi.corner_recovery — a compose-mask geometry a consumer cannot name must never "
          "be guessed");
    }
  }
  u.prop_gate_scale = static_cast<float>(pi.req("prop_gate_scale").num);

  const JVal& idx = pi.req("lip_idx");
  if (idx.kind != JVal::kArray || idx.arr.empty()) refuse("teeth-pi: unified.pi.lip_idx is not a non-empty array");
  for (const JVal& e : idx.arr) {
    const int32_t row = truncToI32(e.num);
    // Each row indexes the frame's keypoints; a row the set lacks would be
    // read from beyond it.
    if (row < 0 || row >= kKpRows) {
      refuse("teeth-pi: unified.pi.lip_idx names keypoint row " + std::to_string(row) +
             ", and a keypoint set has rows 0..20");
    }
    u.lip_idx.push_back(row);
  }

  const JVal& geom = pi.req("lip_geom_params");
  if (geom.kind != JVal::kArray || geom.arr.size() != 3 ||
      !std::all_of(geom.arr.begin(), geom.arr.end(), [](const JVal& v) { return v.kind == JVal::kNumber; })) {
    refuse("teeth-pi: unified.pi.lip_geom_params must be [pad_x, pad_y, down]");
  }
  u.pad_x = static_cast<float>(geom.arr[0].num);
  u.pad_y = static_cast<float>(geom.arr[1].num);
  u.down = static_cast<float>(geom.arr[2].num);

  if (const JVal* crop = unified->find("crop")) {
    if (const JVal* c = crop->find("canvas")) {
      const double stated = std::trunc(c->num);
      if (stated != static_cast<double>(canvasSize)) {
        refuse("teeth-pi: engine renders at canvas " + std::to_string(canvasSize) + " but unified.crop.canvas is " +
               numberText(stated));
      }
    }
  }

  u.xs.resize(static_cast<size_t>(canvasSize));
  for (int32_t i = 0; i < canvasSize; ++i) {
    u.xs[static_cast<size_t>(i)] =
        canvasSize == 1 ? -1.0f : static_cast<float>((2.0 * i) / (canvasSize - 1) - 1.0);
  }
  u.ys = u.xs;
  return u;
}

size_t UnifiedPi::pickCorpusRow(const std::array<double, 3>& d, const double* cCanon) {
  std::array<size_t, 3> order = {0, 1, 2};
  // A NaN distance (a NaN c_canon) sorts last and is never near enough.
  auto key = [&](size_t r) { return std::isnan(d[r]) ? HUGE_VAL : d[r]; };
  std::stable_sort(order.begin(), order.end(), [&](size_t a, size_t b) { return key(a) < key(b); });
  std::string summary;
  for (const size_t r : order) summary += std::string(" ") + corpusRows()[r].name + "=" + fixed2(d[r]) + "px";
  const double best = d[order[0]];
  const double second = d[order[1]];
  if (!(best <= kMatchPx)) {
    refuse("teeth-pi: no corpus pi geometry matches this bank's c_canon (" + fixed2(cCanon[0]) + "," +
           fixed2(cCanon[1]) + ") within 8.00px —" + summary +
           " — the bank's pi frame is unknown and donors will NOT be placed against a frame nobody can name");
  }
  if (!(second - best >= kGapPx)) {
    refuse("teeth-pi: corpus pi geometry is AMBIGUOUS (best two within 3.00px) —" + summary +
           " — refusing to guess the bank frame");
  }
  return order[0];
}

UnifiedPi UnifiedPi::corpusFromManifestJson(const std::string& manifestText, int32_t canvasSize,
                                            const float* xsTarget, int32_t rows, const double* cCanon,
                                            std::string* corpusName, const ParallelFor& parallel) {
  if (!xsTarget || rows < 1) {
    refuse(
        "teeth-pi: the corpus frame is identified from the bundle's own xs_target and none was supplied — refusing "
        "to fall back to the stamped geometry, which is the GRAPH's compose field");
  }
  const UnifiedPi stated = fromManifestJson(manifestText, canvasSize);
  std::array<double, 3> d{};
  for (size_t r = 0; r < corpusRows().size(); ++r) {
    UnifiedPi candidate = stated;
    candidate.pad_x = corpusRows()[r].pad_x;
    candidate.pad_y = corpusRows()[r].pad_y;
    candidate.down = corpusRows()[r].down;
    double x = 0.0, y = 0.0;
    candidate.canonicalCentroid(xsTarget, rows, x, y, parallel);
    const double ex = x - cCanon[0];
    const double ey = y - cCanon[1];
    d[r] = std::sqrt(ex * ex + ey * ey);
  }
  const size_t best = pickCorpusRow(d, cCanon);
  UnifiedPi out = stated;
  out.pad_x = corpusRows()[best].pad_x;
  out.pad_y = corpusRows()[best].pad_y;
  out.down = corpusRows()[best].down;
  if (corpusName) *corpusName = corpusRows()[best].name;
  return out;
}

}  // namespace le::tessera
