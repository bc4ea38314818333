#include "director/rewrites/warp_fuse.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "director/rewrites/gridsample_fast.h"  // kKestrovaDomain
#include "director/rewrites/head_cubic.h"
#include "director/rewrites/node_writer.h"
#include "director/rewrites/warp_block.h"

namespace le {

namespace {

constexpr int64_t kMaxUpscale = 64;

// The graph as the fusions walk it.
struct FzGraph {
  std::vector<WdNode> nodes;
  FzConsts known;
  std::unordered_map<std::string, size_t> producer;
  std::unordered_map<std::string, std::vector<size_t>> consumers;

  const WdNode* producerOf(const std::string& t) const {
    const auto p = producer.find(t);
    return p == producer.end() ? nullptr : &nodes[p->second];
  }
  size_t indexOf(const WdNode* n) const { return static_cast<size_t>(n - nodes.data()); }
  bool isConst(const std::string& t) const { return !t.empty() && known.consts.count(t); }
  // The one node that reads t, when t is read by exactly one node and is not
  // a graph output; else null.
  const WdNode* soleReader(const std::string& t) const {
    const auto c = consumers.find(t);
    if (c == consumers.end() || c->second.size() != 1 || known.outputs.count(t)) return nullptr;
    return &nodes[c->second[0]];
  }
  bool floats(const std::string& t, std::vector<float>& out) const {
    return isConst(t) && hcTensorFloats(known.consts.at(t), out);
  }
  // An int64 list from a constant INT64 tensor: raw_data, 8 little-endian
  // bytes a value (a short tail ignored), else int64_data.
  bool int64s(const WdNode& n, size_t input, std::vector<int64_t>& out) const {
    out.clear();
    if (input >= n.inputs.size() || !isConst(n.inputs[input])) return false;
    GsReader r(known.consts.at(n.inputs[input]));
    GsField f;
    uint64_t type = 0;
    bool raw = false;
    std::vector<int64_t> raws, listed;
    while (r.next(f)) {
      if (f.number == 2 && f.wire == kGsVarint) {
        type = f.value;
      } else if (f.number == 9 && f.wire == kGsLength) {
        raw = true;
        raws.clear();
        for (size_t off = 0; off + 8 <= f.payload.size; off += 8) {
          int64_t v;
          std::memcpy(&v, f.payload.data + off, 8);
          raws.push_back(v);
        }
      } else if (f.number == 7 && f.wire == kGsVarint) {
        listed.push_back(static_cast<int64_t>(f.value));
      } else if (f.number == 7 && f.wire == kGsLength) {
        GsReader packed(f.payload);
        while (!packed.done()) listed.push_back(static_cast<int64_t>(packed.varint()));
      }
    }
    if (type != 7) return false;
    out = raw ? raws : listed;
    return true;
  }
};

uint64_t dataType(GsSlice tensor) {
  GsReader r(tensor);
  GsField f;
  uint64_t type = 0;
  while (r.next(f))
    if (f.number == 2 && f.wire == kGsVarint) type = f.value;
  return type;
}

std::string textAttr(const WdNode& n, const char* name, bool& present) {
  const std::vector<GsAttr> attrs = gsReadAttrs(n.body);
  const GsAttr* a = gsFindAttr(attrs, name);
  present = a != nullptr;
  return a && a->hasS ? a->s : std::string();
}

int64_t intAttr(const WdNode& n, const char* name) {
  const std::vector<GsAttr> attrs = gsReadAttrs(n.body);
  const GsAttr* a = gsFindAttr(attrs, name);
  return a ? a->i : 0;
}

bool positiveZero(float v) { return v == 0.0f && !std::signbit(v); }

// The grid fusion, walking up from the warp's grid.
struct GridFusion {
  int64_t upH = 0, upW = 0;
  std::string flow, base;
  std::vector<size_t> remove;  // Add, Transpose, Resize
};

std::string fuseGrid(const FzGraph& g, const WdNode& warp, bool verify, GridFusion& out) {
  const WdNode* add = g.producerOf(warp.inputs[1]);
  if (!add || add->opType != "Add" || add->inputs.size() != 2) return "the grid is not an Add";
  const bool c0 = g.isConst(add->inputs[0]), c1 = g.isConst(add->inputs[1]);
  if (c0 == c1) return "the grid Add does not take exactly one constant";
  const std::string& base = add->inputs[c0 ? 0 : 1];
  const std::string& moving = add->inputs[c0 ? 1 : 0];
  const GsSlice baseTensor = g.known.consts.at(base);
  if (dataType(baseTensor) != 1) return "the base grid is not FLOAT";
  const std::vector<int64_t> bd = hcTensorDims(baseTensor);
  if (!((bd.size() == 4 && bd[0] == 1 && bd[3] == 2) || (bd.size() == 3 && bd[2] == 2)))
    return "the base grid is not [H,W,2]";
  const WdNode* transpose = g.producerOf(moving);
  if (!transpose || transpose->opType != "Transpose") return "the grid Add does not read a Transpose";
  std::vector<int64_t> perm;
  if (!fzAttrInts(*transpose, "perm", perm) || perm != std::vector<int64_t>{0, 2, 3, 1})
    return "the Transpose is not NCHW->NHWC";
  const WdNode* resize = transpose->inputs.empty() ? nullptr : g.producerOf(transpose->inputs[0]);
  if (!resize || resize->opType != "Resize") return "the Transpose does not read a Resize";
  bool present = false;
  if (textAttr(*resize, "mode", present) != "linear") return "the Resize is not linear";
  const std::string ctm = textAttr(*resize, "coordinate_transformation_mode", present);
  if (!ctm.empty() && ctm != "half_pixel") return "the Resize is not half_pixel";
  if (intAttr(*resize, "antialias") != 0) return "the Resize antialiases";
  std::vector<float> scales;
  if (resize->inputs.size() != 3 || resize->inputs[2].empty() || !g.floats(resize->inputs[2], scales) ||
      scales.size() != 4)
    return "the Resize does not take constant scales (and no sizes)";
  if (!resize->inputs[1].empty()) return "the Resize takes an roi";
  auto integral = [](float s) { return s == std::floor(s) && s >= 1.0f && s <= static_cast<float>(kMaxUpscale); };
  if (scales[0] != 1.0f || scales[1] != 1.0f || !integral(scales[2]) || !integral(scales[3]))
    return "the Resize scales are not [1,1,integral,integral]";
  if (!verify) {
    if (g.soleReader(resize->outputs[0]) != transpose) return "the Resize output has another reader";
    if (g.soleReader(transpose->outputs[0]) != add) return "the Transpose output has another reader";
    if (g.soleReader(warp.inputs[1]) != &warp) return "the grid has another reader";
    out.remove = {g.indexOf(add), g.indexOf(transpose), g.indexOf(resize)};
  }
  out.upH = static_cast<int64_t>(scales[2]);
  out.upW = static_cast<int64_t>(scales[3]);
  out.flow = resize->inputs[0];
  out.base = base;
  return "";
}

// The exit fusion, walking down from the warp's output.
struct ExitFusion {
  std::string output;          // the Clip's
  std::vector<size_t> remove;  // Slice, Clip
};

std::string fuseExit(const FzGraph& g, const WdNode& warp, ExitFusion& out) {
  const WdNode* slice = g.soleReader(warp.outputs[0]);
  if (!slice || slice->opType != "Slice") return "the warp output is not read by one Slice";
  std::vector<int64_t> starts, ends, axes, steps;
  if (slice->inputs.size() < 3 || !g.int64s(*slice, 1, starts) || !g.int64s(*slice, 2, ends))
    return "the Slice bounds are not constant";
  if (!g.int64s(*slice, 3, axes) || axes != std::vector<int64_t>{1}) return "the Slice is not on axis 1";
  if (slice->inputs.size() >= 5 && !slice->inputs[4].empty() &&
      (!g.int64s(*slice, 4, steps) || steps != std::vector<int64_t>{1}))
    return "the Slice steps are not 1";
  if (starts != std::vector<int64_t>{0} || ends.size() != 1 || ends[0] < 3)
    return "the Slice is not [0, >=3) on the 3-channel output (not an identity)";
  const WdNode* clip = slice->outputs.empty() ? nullptr : g.soleReader(slice->outputs[0]);
  if (!clip || clip->opType != "Clip") return "the Slice is not read by one Clip";
  std::vector<float> lo, hi;
  if (clip->inputs.size() != 3 || !g.floats(clip->inputs[1], lo) || !g.floats(clip->inputs[2], hi) ||
      lo.size() != 1 || hi.size() != 1 || !positiveZero(lo[0]) || hi[0] != 1.0f || clip->outputs.empty())
    return "the Clip is not (0, 1)";
  out.output = clip->outputs[0];
  out.remove = {g.indexOf(slice), g.indexOf(clip)};
  return "";
}

// The keypoint subtraction from the identity grid: Sub(const [1,1,H,W,C],
// tensor).
bool isKeypointSub(const FzGraph& g, const WdNode& n) {
  if (n.opType != "Sub" || !n.domain.empty() || n.inputs.size() != 2 || n.outputs.size() != 1) return false;
  if (!g.isConst(n.inputs[0]) || g.isConst(n.inputs[1])) return false;
  const GsSlice c = g.known.consts.at(n.inputs[0]);
  const std::vector<int64_t> d = hcTensorDims(c);
  std::vector<float> v;
  return d.size() == 5 && d[0] == 1 && d[1] == 1 && hcTensorFloats(c, v) &&
         static_cast<int64_t>(v.size()) == d[2] * d[3] * d[4];
}

}  // namespace

bool fzAttrInts(const GsNodeInfo& node, const char* name, std::vector<int64_t>& out) {
  out.clear();
  bool found = false;
  GsReader r(node.body);
  GsField f;
  while (r.next(f)) {
    if (f.number != 5 || f.wire != kGsLength || gsFirstStr(f.payload, 1) != name) continue;
    found = true;
    out.clear();  // the last attribute of the name wins
    GsReader a(f.payload);
    GsField v;
    while (a.next(v)) {
      if (v.number != 8) continue;
      if (v.wire == kGsVarint) {
        out.push_back(static_cast<int64_t>(v.value));
      } else if (v.wire == kGsLength) {
        GsReader packed(v.payload);
        while (!packed.done()) out.push_back(static_cast<int64_t>(packed.varint()));
      }
    }
  }
  return found;
}

size_t rewriteWarpFuse(GsBytes& bytes, bool verify, WarpFuseCensus* census, std::string& why) {
  const GsSlice graph = gsGraphOf(bytes);
  if (graph.empty()) {
    why = "no graph";
    return 0;
  }
  FzGraph g;
  wdReadNodes(graph, g.nodes);
  for (const GsInitializer& init : gsReadInitializers(graph)) g.known.consts.emplace(init.name, init.body);
  {
    GsReader r(graph);
    GsField f;
    while (r.next(f))
      if (f.number == 12 && f.wire == kGsLength) g.known.outputs.insert(gsFirstStr(f.payload, 1));
  }
  const WdNode* warp = nullptr;
  size_t warps = 0;
  for (size_t i = 0; i < g.nodes.size(); ++i) {
    const WdNode& n = g.nodes[i];
    if (const GsSlice v = hcConstValue(n); !v.empty()) g.known.consts.emplace(n.outputs[0], v);
    for (const std::string& in : n.inputs) {
      auto& list = g.consumers[in];
      if (!in.empty() && (list.empty() || list.back() != i)) list.push_back(i);
    }
    for (const std::string& out : n.outputs)
      if (!out.empty()) g.producer.emplace(out, i);
    if (n.opType == "WarpDirector" && n.domain == kKestrovaDomain) {
      ++warps;
      warp = &n;
    }
  }
  if (warps > 1) {
    why = "more than one WarpDirector";
    return 0;
  }
  if (!warp || warp->inputs.size() != 2 || warp->outputs.size() != 1) {
    why = "no com.kestrova::WarpDirector(P_rgb, grid) in this graph (the warp node did not fire)";
    return 0;
  }

  GridFusion grid;
  ExitFusion exit;
  WarpFuseCensus c;
  c.gridReason = fuseGrid(g, *warp, verify, grid);
  c.exitReason = fuseExit(g, *warp, exit);
  c.grid = c.gridReason.empty();
  c.exit = c.exitReason.empty();
  std::vector<uint8_t> sub(g.nodes.size(), 0), removeFlag(g.nodes.size(), 0);
  for (size_t i = 0; i < g.nodes.size(); ++i)
    if (isKeypointSub(g, g.nodes[i])) {
      sub[i] = 1;
      ++c.subs;
    }
  if (c.subs == 0) c.subsReason = "no Sub(const [1,1,H,W,C], tensor)";
  if (!c.grid && !c.exit && c.subs == 0) {
    why = "nothing to fuse: grid (" + c.gridReason + "), exit (" + c.exitReason + "), subs (" + c.subsReason + ")";
    if (census) *census = c;
    return 0;
  }

  std::unordered_set<std::string> removedTensors;
  for (const std::vector<size_t>* list : {&grid.remove, &exit.remove})
    for (size_t i : *list) {
      removeFlag[i] = 1;
      ++c.nodes;
      removedTensors.insert(g.nodes[i].outputs.begin(), g.nodes[i].outputs.end());
    }
  if (c.exit) removedTensors.insert(warp->outputs[0]);
  const size_t at = g.indexOf(warp);

  GsBytes out;
  out.reserve(graph.size + 256);
  GsReader r(graph);
  GsField f;
  size_t index = 0;
  while (r.next(f)) {
    if (f.number == 13 && f.wire == kGsLength && removedTensors.count(gsFirstStr(f.payload, 1))) continue;
    if (f.number != 1 || f.wire != kGsLength) {
      gsPutRaw(out, f.raw);
      continue;
    }
    const size_t i = index++;
    const WdNode& n = g.nodes[i];
    if (removeFlag[i]) continue;
    if (sub[i]) {
      fzNode(out, "SubBcastKHWC", kKestrovaDomain, n.inputs, n.outputs[0], n.name + "_khwc", {});
    } else if (i == at && (c.grid || c.exit)) {
      GsBytes attrs;
      std::vector<std::string> inputs = warp->inputs;
      if (c.grid) {
        inputs = {warp->inputs[0], grid.flow, grid.base};
        if (verify) inputs.push_back(warp->inputs[1]);
        hcAttrI(attrs, "up_h", grid.upH);
        hcAttrI(attrs, "up_w", grid.upW);
        hcAttrI(attrs, "clip", c.exit);
        hcAttrI(attrs, "verify", verify ? 1 : 0);
      } else {
        hcAttrI(attrs, "clip", 1);
      }
      fzNode(out, "WarpDirectorFused", kKestrovaDomain, inputs, c.exit ? exit.output : warp->outputs[0],
             "le_warp_director_fused", attrs);
    } else {
      gsPutRaw(out, f.raw);
    }
  }
  bytes = gsModelWithGraph(gsSliceOf(bytes), out);
  if (census) *census = c;
  why.clear();
  // Under verify the grid fusion removes no node, so a graph where only it
  // happened counts no node and no Sub; it was rewritten all the same, and
  // 0 would tell the load that it was not.
  return std::max<size_t>(c.nodes + static_cast<size_t>(c.subs), 1);
}

}  // namespace le
