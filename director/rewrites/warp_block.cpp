#include "director/rewrites/warp_block.h"

#include <unordered_map>
#include <unordered_set>

#include "director/rewrites/gridsample_fast.h"
#include "director/rewrites/node_writer.h"
#include "director/rewrites/source_cone.h"

namespace le {

namespace {

bool isGridSample(const WdNode& n) { return n.opType == "GridSample" || n.opType == "GridSampleFast"; }

// The GridSample at the cone's tip: its index, or why there is none.
bool findTipSampler(const std::vector<WdNode>& nodes, const std::string& boundary, size_t& at, std::string& why) {
  size_t found = 0;
  for (size_t i = 0; i < nodes.size(); ++i) {
    const WdNode& n = nodes[i];
    if (!isGridSample(n) || n.inputs.size() < 2 || n.inputs[0] != boundary) continue;
    if (found++ == 1) {
      why = "two GridSamples on the cone's tip";
      return false;
    }
    at = i;
  }
  if (found == 0) {
    why = "no GridSample consuming '" + boundary + "'";
    return false;
  }
  return true;
}

// The block as flags over the nodes: the sampler, every Slice of its output,
// and to a fixed point every Mul, Sub and Add that reads a value of the
// block. values gets the outputs of all but the sampler.
std::vector<uint8_t> blockFlags(const std::vector<WdNode>& nodes, size_t sampler,
                                std::unordered_set<std::string>& values) {
  std::vector<uint8_t> flags(nodes.size(), 0);
  flags[sampler] = 1;
  const std::string& gsOut = nodes[sampler].outputs[0];
  for (size_t i = 0; i < nodes.size(); ++i)
    if (nodes[i].opType == "Slice" && !nodes[i].inputs.empty() && nodes[i].inputs[0] == gsOut) {
      flags[i] = 1;
      values.insert(nodes[i].outputs.begin(), nodes[i].outputs.end());
    }
  for (bool grew = true; grew;) {
    grew = false;
    for (size_t i = 0; i < nodes.size(); ++i) {
      const WdNode& n = nodes[i];
      if (flags[i] || (n.opType != "Mul" && n.opType != "Sub" && n.opType != "Add")) continue;
      for (const std::string& in : n.inputs)
        if (values.count(in)) {
          flags[i] = 1;
          values.insert(n.outputs.begin(), n.outputs.end());
          grew = true;
          break;
        }
    }
  }
  return flags;
}

std::vector<std::string> graphOutputs(GsSlice graph) {
  std::vector<std::string> names;
  GsReader r(graph);
  GsField f;
  while (r.next(f))
    if (f.number == 12 && f.wire == kGsLength) names.push_back(gsFirstStr(f.payload, 1));
  return names;
}

}  // namespace

void wdReadNodes(GsSlice graph, std::vector<WdNode>& out) {
  gsForEachNode(graph, [&](const GsNodeInfo& n) { out.push_back(n); });
}

bool findWarpBlock(const GsBytes& bytes, WarpBlock* out, std::string& why) {
  if (!out) {
    why = "no out param";
    return false;
  }
  const GsSlice graph = gsGraphOf(bytes);
  if (graph.empty()) {
    why = "no graph";
    return false;
  }
  std::string boundary;
  if (findSourceConeBoundary(bytes, boundary) != 1 || boundary.empty()) {
    why = std::string("not one Concat consuming ") + kPriorInput;
    return false;
  }
  std::vector<WdNode> nodes;
  wdReadNodes(graph, nodes);
  size_t at = 0;
  if (!findTipSampler(nodes, boundary, at, why)) return false;
  const WdNode& gs = nodes[at];
  // GridSampleFast is bilinear, border and align_corners=0 by definition.
  if (gs.opType == "GridSample" && !gsIsRewritableGridSample(gs)) {
    why = "the fused GridSample is not bilinear/border/align_corners=0";
    return false;
  }
  if (gs.outputs.empty() || gs.outputs[0].empty()) {
    why = "the fused GridSample has no output";
    return false;
  }
  std::unordered_set<std::string> values;
  const std::vector<uint8_t> flags = blockFlags(nodes, at, values);

  std::unordered_set<std::string> exits;
  for (size_t i = 0; i < nodes.size(); ++i)
    if (!flags[i])
      for (const std::string& in : nodes[i].inputs)
        if (values.count(in)) exits.insert(in);
  for (const std::string& name : graphOutputs(graph))
    if (values.count(name)) exits.insert(name);
  exits.erase(gs.outputs[0]);
  if (exits.size() != 1) {
    why = "the recombination has " + std::to_string(exits.size()) + " exits, not 1";
    return false;
  }

  const std::string& grid = gs.inputs[1];
  bool produced = false;
  for (const WdNode& n : nodes)
    for (const std::string& o : n.outputs) produced = produced || (!grid.empty() && o == grid);
  if (!produced) {
    why = "the grid has no producer";
    return false;
  }
  out->boundary = boundary;
  out->grid = grid;
  out->exit = *exits.begin();
  out->nodes = 0;
  for (uint8_t f : flags) out->nodes += f;
  return true;
}

size_t rewriteWarpBlockToCustomOp(GsBytes& bytes, std::string& why) {
  WarpBlock block;
  if (!findWarpBlock(bytes, &block, why)) return 0;
  const GsSlice graph = gsGraphOf(bytes);
  std::vector<WdNode> nodes;
  wdReadNodes(graph, nodes);
  size_t at = 0;
  if (!findTipSampler(nodes, block.boundary, at, why)) {
    why = "the GridSample moved between passes";
    return 0;
  }
  std::unordered_set<std::string> values;
  const std::vector<uint8_t> inBlock = blockFlags(nodes, at, values);

  // The dead-node pass. What the graph gives out, the exit and the new
  // node's two inputs stay live; a node none of whose outputs is live goes,
  // and with it, round by round, the cone and everything else that only the
  // block read.
  std::vector<uint8_t> kept(nodes.size());
  for (size_t i = 0; i < nodes.size(); ++i) kept[i] = !inBlock[i];
  std::unordered_set<std::string> keep;
  for (const std::string& name : graphOutputs(graph)) keep.insert(name);
  keep.insert({block.exit, kPriorInput, block.grid});
  for (bool dropped = true; dropped;) {
    dropped = false;
    std::unordered_set<std::string> live = keep;
    for (size_t i = 0; i < nodes.size(); ++i)
      if (kept[i]) live.insert(nodes[i].inputs.begin(), nodes[i].inputs.end());
    for (size_t i = 0; i < nodes.size(); ++i) {
      if (!kept[i]) continue;
      bool used = false;
      for (const std::string& o : nodes[i].outputs) used = used || (!o.empty() && live.count(o));
      if (!used) {
        kept[i] = 0;
        dropped = true;
      }
    }
  }
  size_t removed = 0;
  for (uint8_t k : kept) removed += k ? 0 : 1;

  GsBytes g;
  g.reserve(graph.size + 128);
  GsReader r(graph);
  GsField f;
  size_t index = 0;
  while (r.next(f)) {
    if (f.number == 1 && f.wire == kGsLength) {
      const size_t i = index++;
      if (i == at)  // in the GridSample's place, which keeps the order topological
        fzNode(g, "WarpDirector", kKestrovaDomain, {kPriorInput, block.grid}, block.exit, "le_warp_director", {});
      else if (kept[i])
        gsPutRaw(g, f.raw);
    } else if (!(f.number == 13 && f.wire == kGsLength && gsFirstStr(f.payload, 1) == block.boundary)) {
      gsPutRaw(g, f.raw);
    }
  }
  bytes = gsModelWithGraph(gsSliceOf(bytes), g, gsOpsetImportIfMissing(bytes, kKestrovaDomain));
  why.clear();
  return removed;
}

}  // namespace le
