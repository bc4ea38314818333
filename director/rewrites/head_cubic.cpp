#include "director/rewrites/head_cubic.h"

#include <bit>
#include <cstring>
#include <unordered_map>
#include <unordered_set>

#include "director/rewrites/node_writer.h"

namespace le {

static_assert(std::endian::native == std::endian::little, "raw_data is little-endian on the wire");

namespace {

constexpr int64_t kMaxChannels = 1048576;

using ConstMap = std::unordered_map<std::string, GsSlice>;

// The attributes of a Resize that decide whether it is the head's cubic x2.
// Empty texts stand for absent ones.
struct HcResizeAttrs {
  std::string mode, coordinateTransform, keepAspectRatio;
  bool hasKeepAspectRatio = false, hasAxes = false;
  int64_t excludeOutside = 0, antialias = 0;
  double cubicCoeffA = -0.75;
};

HcResizeAttrs hcReadAttrs(const GsNodeInfo& node) {
  const std::vector<GsAttr> attrs = gsReadAttrs(node.body);
  auto text = [&](const char* name) {
    const GsAttr* at = gsFindAttr(attrs, name);
    return at && at->hasS ? at->s : std::string();
  };
  auto integer = [&](const char* name) {
    const GsAttr* at = gsFindAttr(attrs, name);
    return at ? at->i : 0;
  };
  HcResizeAttrs r;
  r.mode = text("mode");
  r.coordinateTransform = text("coordinate_transformation_mode");
  r.keepAspectRatio = text("keep_aspect_ratio_policy");
  r.hasKeepAspectRatio = gsFindAttr(attrs, "keep_aspect_ratio_policy") != nullptr;
  r.hasAxes = gsFindAttr(attrs, "axes") != nullptr;
  r.excludeOutside = integer("exclude_outside");
  r.antialias = integer("antialias");
  if (const GsAttr* coeff = gsFindAttr(attrs, "cubic_coeff_a"); coeff && coeff->hasF)
    r.cubicCoeffA = static_cast<double>(coeff->f);
  return r;
}

// Why a Resize is not the head's cubic x2, or "" if it is; a gets its
// cubic_coeff_a.
std::string resizeRefusal(const GsNodeInfo& node, const ConstMap& consts, double& a) {
  const HcResizeAttrs at = hcReadAttrs(node);
  if (at.mode != "cubic") return "its mode is not cubic";
  if (at.coordinateTransform != "half_pixel") return "its coordinate_transformation_mode is not half_pixel";
  if (at.excludeOutside != 0) return "it excludes outside samples";
  if (at.antialias != 0) return "it antialiases";
  if (at.hasAxes) return "it carries an axes attribute";
  if (at.hasKeepAspectRatio && at.keepAspectRatio != "stretch") return "its keep_aspect_ratio_policy is not stretch";
  if (node.inputs.size() != 3) return "it has " + std::to_string(node.inputs.size()) + " inputs, not X, roi, scales";
  if (!node.inputs[1].empty()) return "it reads a roi";
  const auto scales = consts.find(node.inputs[2]);
  std::vector<float> v;
  if (scales == consts.end() || !hcTensorFloats(scales->second, v)) return "its scales are not a FLOAT constant";
  if (v != std::vector<float>{1.0f, 1.0f, 2.0f, 2.0f}) return "its scales are not 1, 1, 2, 2";
  if (node.outputs.size() != 1) return "it has " + std::to_string(node.outputs.size()) + " outputs";
  a = at.cubicCoeffA;
  return "";
}

// The 5-wide window of one output phase: phase 0 samples input i at i-0.25
// (fraction 0.75 from i-1, taps on positions 0..3), phase 1 at i+0.25
// (fraction 0.25 from i, taps on positions 1..4).
void phaseWindows(double a, double win[2][5]) {
  double t0[4], t1[4];
  hcTaps(0.75, a, t0);
  hcTaps(0.25, a, t1);
  for (int i = 0; i < 5; ++i) win[0][i] = win[1][i] = 0.0;
  for (int i = 0; i < 4; ++i) {
    win[0][i] = t0[i];
    win[1][i + 1] = t1[i];
  }
}

}  // namespace

void hcTaps(double s, double a, double out[4]) {
  const double d[4] = {s + 1.0, s, 1.0 - s, 2.0 - s};
  double w[4];
  for (int i = 0; i < 4; ++i) {
    const double x = d[i];
    w[i] = x <= 1.0 ? ((a + 2.0) * x - (a + 3.0)) * x * x + 1.0 : a * (((x - 5.0) * x + 8.0) * x) - 4.0 * a;
  }
  const double sum = w[0] + w[1] + w[2] + w[3];
  for (int i = 0; i < 4; ++i) out[i] = w[i] / sum;
}

GsSlice hcConstValue(const GsNodeInfo& node) {
  if (node.opType != "Constant" || node.outputs.size() != 1) return {};
  for (const GsAttr& at : gsReadAttrs(node.body))
    if (at.name == "value" && at.hasT) return at.t;
  return {};
}

bool hcTensorFloats(GsSlice tensor, std::vector<float>& out) {
  out.clear();
  GsReader r(tensor);
  GsField f;
  uint64_t dataType = 0;
  bool hasRaw = false;
  GsSlice raw;
  std::vector<float> listed;
  while (r.next(f)) {
    if (f.number == 2 && f.wire == kGsVarint) {
      dataType = f.value;
    } else if (f.number == 9 && f.wire == kGsLength) {
      hasRaw = true;
      raw = f.payload;
    } else if (f.number == 4 && (f.wire == kGsFixed32 || f.wire == kGsLength)) {
      for (size_t off = 0; off + 4 <= f.payload.size; off += 4) {
        float v;
        std::memcpy(&v, f.payload.data + off, 4);
        listed.push_back(v);
      }
    }
  }
  if (dataType != 1) return false;
  if (!hasRaw) {
    out = std::move(listed);
    return true;
  }
  if (raw.size % 4) return false;
  out.resize(raw.size / 4);
  if (raw.size) std::memcpy(out.data(), raw.data, raw.size);
  return true;
}

std::vector<int64_t> hcTensorDims(GsSlice tensor) {
  std::vector<int64_t> dims;
  GsReader r(tensor);
  GsField f;
  while (r.next(f)) {
    if (f.number != 1) continue;
    if (f.wire == kGsVarint) {
      dims.push_back(static_cast<int64_t>(f.value));
    } else if (f.wire == kGsLength) {
      GsReader packed(f.payload);
      while (!packed.done()) dims.push_back(static_cast<int64_t>(packed.varint()));
    }
  }
  return dims;
}

uint64_t hcTensorDataBytes(GsSlice tensor) {
  uint64_t bytes = 0;
  GsReader r(tensor);
  GsField f;
  while (r.next(f)) {
    // float_data, int32_data, string_data, int64_data, raw_data, double_data,
    // uint64_data; an unpacked varint counts its one byte at least.
    if (f.number < 4 || f.number > 11 || f.number == 8) continue;
    bytes += f.wire == kGsVarint ? 1 : f.payload.size;
  }
  return bytes;
}

size_t rewriteHeadCubicResize(GsBytes& bytes, std::string* reason) {
  auto refuse = [&](const std::string& why) {
    if (reason) *reason = why;
    return size_t{0};
  };
  const GsSlice graph = gsGraphOf(bytes);
  if (graph.empty()) return refuse("the model carries no graph");
  std::vector<GsNodeInfo> nodes;
  std::unordered_set<std::string> initNames, inputNames;
  gsReadGraph(graph, nodes, initNames, inputNames);
  if (nodes.empty()) return refuse("the graph has no nodes");

  // Known constants, consumers and producers.
  ConstMap consts;
  for (const GsInitializer& init : gsReadInitializers(graph)) consts.emplace(init.name, init.body);
  std::unordered_map<std::string, std::vector<size_t>> consumers;
  std::unordered_map<std::string, size_t> producers;
  for (size_t i = 0; i < nodes.size(); ++i) {
    const GsNodeInfo& n = nodes[i];
    if (const GsSlice value = hcConstValue(n); !value.empty()) consts.emplace(n.outputs[0], value);
    for (const std::string& in : n.inputs) {
      auto& list = consumers[in];
      if (!in.empty() && (list.empty() || list.back() != i)) list.push_back(i);
    }
    for (const std::string& out : n.outputs)
      if (!out.empty()) producers.emplace(out, i);
  }

  // Exactly one candidate Resize.
  size_t found = 0, candidates = 0;
  double a = -0.75;
  std::string firstRefusal;
  for (size_t i = 0; i < nodes.size(); ++i) {
    const GsNodeInfo& n = nodes[i];
    if (n.opType != "Resize") continue;
    double coeff = -0.75;
    // Unlike GridSample and MatMul, a Resize that names "ai.onnx" outright
    // is left alone.
    const std::string why = n.domain.empty() ? resizeRefusal(n, consts, coeff) : "its domain is '" + n.domain + "'";
    if (why.empty()) {
      ++candidates;
      found = i;
      a = coeff;
    } else if (firstRefusal.empty()) {
      firstRefusal = "Resize '" + n.name + "' is not the head's cubic x2: " + why;
    }
  }
  if (candidates == 0) return refuse(firstRefusal.empty() ? "the graph has no Resize node" : firstRefusal);
  if (candidates > 1)
    return refuse(std::to_string(candidates) + " Resize nodes are cubic x2 (exactly one head Resize expected)");
  const GsNodeInfo& resize = nodes[found];

  // Its one consumer is a Conv whose weight fixes the channel count.
  const auto usedBy = consumers.find(resize.outputs[0]);
  const size_t nUsers = usedBy == consumers.end() ? 0 : usedBy->second.size();
  if (nUsers != 1)
    return refuse("the Resize output has " + std::to_string(nUsers) + " consumers (one Conv expected)");
  const GsNodeInfo& conv = nodes[usedBy->second[0]];
  if (conv.opType != "Conv" || conv.inputs.size() < 2)
    return refuse("the Resize feeds a " + conv.opType + ", not a Conv with a weight");
  const auto weight = consts.find(conv.inputs[1]);
  const std::vector<int64_t> wDims =
      weight == consts.end() ? std::vector<int64_t>{} : hcTensorDims(weight->second);
  if (wDims.size() != 4) return refuse("the Conv after the Resize has no constant rank-4 weight");
  const std::vector<GsAttr> convAttrs = gsReadAttrs(conv.body);
  const GsAttr* groupAttr = gsFindAttr(convAttrs, "group");
  const int64_t group = groupAttr ? groupAttr->i : 1;
  if (group < 1) return refuse("the Conv after the Resize has group " + std::to_string(group));
  if (wDims[1] < 1 || wDims[1] > kMaxChannels || group > kMaxChannels ||
      wDims[1] * group > kMaxChannels)
    return refuse("the Conv after the Resize implies a channel count outside 1..1048576");
  const int64_t channels = wDims[1] * group;
  // A Conv over C channels has a weight of at least C values (its output
  // count is a multiple of group), and no data type stores a value in less
  // than half a byte. A weight that stores fewer names channels it doesn't
  // have, and the depthwise weight written for them costs 400 bytes each.
  const uint64_t stored = hcTensorDataBytes(weight->second);
  if (static_cast<uint64_t>(channels) > 2 * stored)
    return refuse("the Conv after the Resize reads " + std::to_string(channels) + " channels and its weight stores " +
                  std::to_string(stored) + " bytes");

  // A per-channel constant [k,1,1] up to 4 producers back must agree.
  std::string walk = resize.inputs[0];
  for (int step = 0; step < 4; ++step) {
    const auto p = producers.find(walk);
    if (p == producers.end() || nodes[p->second].inputs.empty()) break;
    const GsNodeInfo& producer = nodes[p->second];
    bool ended = false;
    for (const std::string& in : producer.inputs) {
      const auto c = consts.find(in);
      if (c == consts.end()) continue;
      const std::vector<int64_t> d = hcTensorDims(c->second);
      if (d.size() != 3 || d[1] != 1 || d[2] != 1) continue;
      if (d[0] != channels)
        return refuse("the channel constant '" + in + "' upstream is [" + std::to_string(d[0]) +
                      ",1,1], and the Conv after the Resize reads " + std::to_string(channels) + " channels");
      ended = true;
      break;
    }
    if (ended) break;
    walk = producer.inputs[0];
  }

  // Names of the new tensors must be free.
  const std::string tag = "rz" + std::to_string(found);
  const std::string pads = tag + "_pads", dwW = tag + "_dw_w", padOut = tag + "_padout",
                    convOut = tag + "_convout";
  for (const GsNodeInfo& n : nodes)
    for (const auto* list : {&n.inputs, &n.outputs})
      for (const std::string& name : *list)
        if (name == pads || name == dwW || name == padOut || name == convOut)
          return refuse("the name " + name + " is already taken");
  const std::string base = resize.name.empty() ? "/Resize" : resize.name;

  // The depthwise weight: every channel alike, each product rounded once.
  double win[2][5];
  phaseWindows(a, win);
  float block[4 * 25];
  for (int p = 0; p < 2; ++p)
    for (int q = 0; q < 2; ++q)
      for (int r = 0; r < 5; ++r)
        for (int k = 0; k < 5; ++k) block[((p * 2 + q) * 5 + r) * 5 + k] = static_cast<float>(win[p][r] * win[q][k]);
  std::vector<float> dw(static_cast<size_t>(channels) * 100);
  for (int64_t c = 0; c < channels; ++c) std::memcpy(dw.data() + c * 100, block, sizeof block);

  // The three nodes take the Resize's place, so the node list stays
  // topologically sorted; the two initializers close the graph.
  const size_t weightBytes = dw.size() * sizeof(float);
  GsBytes newGraph = gsEditNodes(graph, weightBytes + 1024, [&](const GsField&, size_t index, GsBytes& out) {
    if (index != found) return false;
    GsBytes attrs;
    hcAttrS(attrs, "mode", "edge");
    hcNode(out, "Pad", {resize.inputs[0], pads}, padOut, base + "/pad", attrs);
    attrs.clear();
    hcAttrIs(attrs, "dilations", {1, 1});
    hcAttrI(attrs, "group", channels);
    hcAttrIs(attrs, "kernel_shape", {5, 5});
    hcAttrIs(attrs, "pads", {0, 0, 0, 0});
    hcAttrIs(attrs, "strides", {1, 1});
    hcNode(out, "Conv", {padOut, dwW}, convOut, base + "/dwconv", attrs);
    attrs.clear();
    hcAttrI(attrs, "blocksize", 2);
    hcAttrS(attrs, "mode", "CRD");
    hcNode(out, "DepthToSpace", {convOut}, resize.outputs[0], base + "/d2s", attrs);
    return true;
  });
  const int64_t padValues[8] = {0, 0, 2, 2, 0, 0, 2, 2};
  hcInit(newGraph, pads, kOnnxInt64, {8}, padValues, sizeof padValues);
  hcInit(newGraph, dwW, kOnnxFloat, {4 * channels, 1, 5, 5}, dw.data(), weightBytes);
  bytes = gsModelWithGraph(gsSliceOf(bytes), newGraph);
  if (reason) reason->clear();
  return 1;
}

}  // namespace le
