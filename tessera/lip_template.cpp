// Reading lip_template.v1.json. A template that doesn't say exactly what
// this runtime computes is refused at load: the contour is what the viewer
// sees of the mouth, so nothing in it is guessed or adapted.
#include <cmath>
#include <cstddef>
#include <string>
#include <vector>

#include "tessera/json.h"
#include "tessera/lip_contour.h"
#include "tessera/lip_template_words.h"

namespace le::tessera {

namespace {

using json::JVal;

const std::vector<int32_t> kDefaultLipIdx = {17, 18, 19, 20};

bool isNumber(const JVal* v) { return v && v->kind == JVal::kNumber; }

// The learned map, checked; absent members keep the defaults.
struct MapRead {
  std::vector<int32_t> lipIdx = kDefaultLipIdx;
  std::vector<double> W;
  std::vector<double> b;
  int32_t rows = 0;
  int32_t cols = 0;
};

MapRead readLipMap(const JVal& map, int32_t nv, int32_t canvas) {
  if (map.kind != JVal::kObject) refuseLipTemplate("lip_map is not a JSON object");
  const std::string schema = json::optStr(map, "schema", "?");
  if (schema != "lip-map-v1") {
    refuseLipTemplate("lip_map declares schema '" + schema + "', not 'lip-map-v1' — this runtime cannot evaluate it");
  }
  if (json::optStr(map, "kind", "") != "anchor-linear") refuseLipTemplate("lip_map kind is not 'anchor-linear'");

  MapRead out;
  if (const JVal* idx = map.find("lip_idx")) {
    if (idx->kind != JVal::kArray || idx->arr.empty() || idx->arr.size() > LipContour::kMaxAnchors) {
      refuseLipTemplate("lip_map lip_idx is not 1..8 kd rows");
    }
    out.lipIdx.clear();
    for (const JVal& e : idx->arr) {
      // A map was fitted on whole rows: a fraction or a string is not a row.
      if (e.kind != JVal::kNumber || e.num != std::trunc(e.num) || e.num < 0 || e.num >= LipContour::kKpRows) {
        refuseLipTemplate("lip_map lip_idx names a row outside 0..20");
      }
      out.lipIdx.push_back(static_cast<int32_t>(e.num));
    }
  }

  const JVal* w = map.find("W");
  const JVal* b = map.find("b");
  if (!w || !b || w->kind != JVal::kArray || b->kind != JVal::kArray) refuseLipTemplate("lip_map carries no W/b arrays");
  const size_t rows = 2 * static_cast<size_t>(nv);
  if (w->arr.size() != rows || b->arr.size() != rows) {
    refuseLipTemplate("lip_map W/b have " + std::to_string(w->arr.size()) + "/" + std::to_string(b->arr.size()) +
                      " rows, not 2*nv=" + std::to_string(rows));
  }
  const size_t cols = 2 * out.lipIdx.size();
  for (size_t r = 0; r < rows; ++r) {
    const JVal& row = w->arr[r];
    if (row.kind != JVal::kArray || row.arr.size() != cols) {
      refuseLipTemplate("lip_map W row " + std::to_string(r) + " is not " + std::to_string(cols) + " wide");
    }
  }
  auto coefficient = [](const JVal& v) {
    if (v.kind != JVal::kNumber || !std::isfinite(v.num)) refuseLipTemplate("lip_map carries a non-finite coefficient");
    return v.num;
  };
  out.W.reserve(rows * cols);
  for (const JVal& row : w->arr) {
    for (const JVal& v : row.arr) out.W.push_back(coefficient(v));
  }
  out.b.reserve(rows);
  for (const JVal& v : b->arr) out.b.push_back(coefficient(v));

  if (const JVal* c = map.find("canvas")) {
    if (!isNumber(c) || std::trunc(c->num) != static_cast<double>(canvas)) {
      refuseLipTemplate("lip_map was fitted on another canvas than this bundle composes on");
    }
  }
  out.rows = static_cast<int32_t>(rows);
  out.cols = static_cast<int32_t>(cols);
  return out;
}

}  // namespace

LipContour LipContour::fromTemplateJson(const std::string& text, int32_t canvas) {
  JVal root;
  try {
    root = json::JParser(text).document();
  } catch (const std::runtime_error& e) {
    refuseLipTemplate("is not parseable JSON (" + std::string(e.what()) + ")");
  }
  if (root.kind != JVal::kObject) refuseLipTemplate("is not a JSON object");

  const JVal* format = root.find("format");
  if (!format || format->kind != JVal::kString) refuseLipTemplate("carries no string `format`");
  if (format->str != "lip-template-v1") {
    refuseLipTemplate("declares format '" + format->str + "', not 'lip-template-v1' — this runtime cannot read it");
  }
  const JVal* edge = root.find("edge");
  if (edge && edge->kind == JVal::kString && edge->str != "outward") {
    refuseLipTemplate("declares edge '" + edge->str +
                      "', and the contour feather is OUTWARD — refusing to serve a mask this runtime does not compute");
  }

  const JVal* baked = root.find("canvas");
  if (!isNumber(baked)) refuseLipTemplate("carries no numeric `canvas`");
  const double bakedCanvas = std::trunc(baked->num);
  if (bakedCanvas != static_cast<double>(canvas)) {
    refuseLipTemplate("was baked on a " + numberText(bakedCanvas) + " canvas but this bundle composes on " +
                      std::to_string(canvas) + " — refusing to deform a polygon onto a canvas it does not name");
  }

  const JVal* featherPx = root.find("feather_px");
  if (!isNumber(featherPx)) refuseLipTemplate("carries no numeric `feather_px`");
  if (!(featherPx->num > 0.0)) {
    refuseLipTemplate("declares feather_px " + numberText(featherPx->num) + ", which is not positive");
  }

  const JVal* uc = root.find("u_canon");
  if (!uc || uc->kind != JVal::kArray || uc->arr.empty()) refuseLipTemplate("carries no non-empty `u_canon` array");
  std::vector<double> uCanon;
  uCanon.reserve(2 * uc->arr.size());
  for (size_t i = 0; i < uc->arr.size(); ++i) {
    const JVal& row = uc->arr[i];
    if (row.kind != JVal::kArray || row.arr.size() != 2) {
      refuseLipTemplate("u_canon row " + std::to_string(i) + " is not a 2-vector — this is not an nv x 2 template");
    }
    uCanon.push_back(row.arr[0].num);
    uCanon.push_back(row.arr[1].num);
  }
  const int32_t nVertices = static_cast<int32_t>(uc->arr.size());

  std::vector<int32_t> lipIdx = kDefaultLipIdx;
  if (const JVal* idx = root.find("lip_idx")) {
    if (idx->kind != JVal::kArray || idx->arr.empty()) {
      refuseLipTemplate("carries a `lip_idx` that is not a non-empty array");
    }
    lipIdx.clear();
    for (const JVal& e : idx->arr) {
      const double row = std::trunc(e.num);
      if (!(row >= 0.0 && row < LipContour::kKpRows)) {
        refuseLipTemplate("lip_idx names keypoint row " + numberText(row) + ", and a kd row is 0..20");
      }
      lipIdx.push_back(static_cast<int32_t>(row));
    }
  }

  const JVal* mapJson = root.find("lip_map");
  if (!mapJson) {
    return LipContour(canvas, static_cast<float>(featherPx->num), uCanon.data(), nVertices, lipIdx.data(),
                      static_cast<int32_t>(lipIdx.size()));
  }
  // The map deforms from its own anchors, so the template's row list only
  // has to be valid, not to fit the polygon step.
  const MapRead map = readLipMap(*mapJson, nVertices, canvas);
  const int32_t nIdx = static_cast<int32_t>(map.lipIdx.size());
  LipContour contour(canvas, static_cast<float>(featherPx->num), uCanon.data(), nVertices, map.lipIdx.data(), nIdx);
  contour.attachMap(map.W.data(), map.b.data(), map.rows, map.cols, map.lipIdx.data(), nIdx);
  return contour;
}

}  // namespace le::tessera
