#include "director/rewrites/source_cone.h"

#include <cstdio>
#include <unordered_map>

namespace le {

namespace {

// A ValueInfoProto of a float tensor: name, and per axis a dim_value, or a
// dim_param "le_hoist_d<axis>" where no static size is given.
GsBytes floatValueInfo(const std::string& name, const int64_t* dims, int rank) {
  GsBytes shape;
  for (int axis = 0; axis < rank; ++axis) {
    GsBytes dim;
    if (dims && dims[axis] >= 1) {
      gsPutInt(dim, 1, static_cast<uint64_t>(dims[axis]));
    } else {
      char param[32];
      std::snprintf(param, sizeof param, "le_hoist_d%u", static_cast<unsigned>(axis));
      gsPutStr(dim, 2, param);
    }
    gsPutLen(shape, 1, dim);
  }
  GsBytes tensor;
  gsPutInt(tensor, 1, 1);  // elem_type FLOAT
  gsPutLen(tensor, 2, shape);
  GsBytes type;
  gsPutLen(type, 1, tensor);
  GsBytes info;
  gsPutStr(info, 1, name);
  gsPutLen(info, 2, type);
  return info;
}

// The graph read for a cut, with the first checks both cuts share.
struct ConeGraph {
  std::vector<GsNodeInfo> nodes;
  std::unordered_set<std::string> initializers, inputs;
  std::vector<uint8_t> cone;
};

bool readCone(const GsBytes& bytes, const std::string& boundary, ConeGraph& g, std::string& why) {
  const GsSlice graph = gsGraphOf(bytes);
  if (graph.empty()) {
    why = "no graph";
    return false;
  }
  gsReadGraph(graph, g.nodes, g.initializers, g.inputs);
  if (!g.inputs.count(kPriorInput)) {
    why = "no P_rgb input";
    return false;
  }
  return gsSourceCone(g.nodes, g.initializers, g.inputs, boundary, g.cone, why);
}

}  // namespace

int findSourceConeBoundary(const GsBytes& bytes, std::string& out) {
  out.clear();
  int count = 0;
  std::string first;
  gsForEachNode(gsGraphOf(bytes), [&](const GsNodeInfo& node) {
    if (node.opType != "Concat") return;
    for (const std::string& in : node.inputs)
      if (in == kPriorInput) {
        if (count++ == 0 && !node.outputs.empty()) first = node.outputs[0];
        break;
      }
  });
  if (count == 1) out = first;
  return count;
}

bool gsSourceCone(const std::vector<GsNodeInfo>& nodes, const std::unordered_set<std::string>& initializers,
                  const std::unordered_set<std::string>& inputs, const std::string& boundary,
                  std::vector<uint8_t>& flags, std::string& why) {
  std::unordered_map<std::string, size_t> producer;
  for (size_t i = 0; i < nodes.size(); ++i)
    for (const std::string& out : nodes[i].outputs)
      if (!out.empty()) producer.emplace(out, i);

  flags.assign(nodes.size(), 0);
  std::unordered_set<std::string> seen;
  std::vector<std::string> stack{boundary};
  while (!stack.empty()) {
    const std::string name = std::move(stack.back());
    stack.pop_back();
    if (name.empty() || name == kPriorInput || initializers.count(name) || !seen.insert(name).second) continue;
    const auto p = producer.find(name);
    if (p == producer.end()) {
      why = inputs.count(name) ? "cone reads graph input '" + name + "'" : "cone leaf '" + name + "' has no producer";
      return false;
    }
    const GsNodeInfo& node = nodes[p->second];
    if (node.opType == "Constant") continue;  // a leaf, copied to both sides
    flags[p->second] = 1;
    for (const std::string& in : node.inputs) stack.push_back(in);
  }

  std::unordered_set<std::string> inside;
  for (size_t i = 0; i < nodes.size(); ++i)
    if (flags[i])
      for (const std::string& out : nodes[i].outputs) inside.insert(out);
  for (size_t i = 0; i < nodes.size(); ++i) {
    if (flags[i]) continue;
    for (const std::string& in : nodes[i].inputs) {
      if (in == kPriorInput) {
        why = "P_rgb is also read outside the cone by " + nodes[i].opType;
        return false;
      }
      // The boundary is what the per-frame side takes as its input.
      if (in != boundary && !in.empty() && inside.count(in)) {
        why = "cone value '" + in + "' escapes to " + nodes[i].opType;
        return false;
      }
    }
  }
  return true;
}

bool buildSourceConePrep(const GsBytes& bytes, const std::string& boundary, GsBytes& out, std::string& why) {
  ConeGraph g;
  if (!readCone(bytes, boundary, g, why)) return false;
  std::vector<uint8_t> remove(g.nodes.size(), 1);
  bool any = false;
  for (size_t i = 0; i < g.nodes.size(); ++i)
    if (g.cone[i] || g.nodes[i].opType == "Constant") {
      remove[i] = 0;
      any = true;
    }
  if (!any) {
    why = "empty cone";
    return false;
  }
  GsGraphEdit edit;
  edit.removeFlags = remove.data();
  edit.keepOnlyPrgbInput = true;
  edit.dropOutputs = true;
  edit.boundary = boundary.c_str();
  edit.rank = 4;
  edit.fieldNo = 12;
  gsRebuild(bytes, edit, out);
  return true;
}

bool buildSourceConePerFrame(const GsBytes& bytes, const std::string& boundary, const int64_t* dims, int rank,
                             GsBytes& out, std::string& why) {
  ConeGraph g;
  if (!readCone(bytes, boundary, g, why)) return false;
  GsGraphEdit edit;
  edit.removeFlags = g.cone.data();
  edit.dropPrgbInput = true;
  edit.boundary = boundary.c_str();
  edit.dims = dims;
  edit.rank = rank;
  edit.fieldNo = 11;
  gsRebuild(bytes, edit, out);
  return true;
}

void gsRebuild(const GsBytes& bytes, const GsGraphEdit& edit, GsBytes& out) {
  const GsSlice graph = gsGraphOf(bytes);
  const std::string boundary = edit.boundary ? edit.boundary : "";
  GsBytes g;
  g.reserve(graph.size + 256);
  GsReader r(graph);
  GsField f;
  size_t node = 0;
  while (r.next(f)) {
    bool keep = true;
    if (f.wire == kGsLength) {
      switch (f.number) {
        case 1:
          keep = !(edit.removeFlags && edit.removeFlags[node]);
          ++node;
          break;
        case 11: {
          const bool prior = gsFirstStr(f.payload, 1) == kPriorInput;
          keep = prior ? !edit.dropPrgbInput : !edit.keepOnlyPrgbInput;
          break;
        }
        case 12:
          keep = !edit.dropOutputs;
          break;
        case 13:
          keep = gsFirstStr(f.payload, 1) != boundary;
          break;
        default:
          break;
      }
    }
    if (keep) gsPutRaw(g, f.raw);
  }
  gsPutLen(g, static_cast<uint32_t>(edit.fieldNo), floatValueInfo(boundary, edit.dims, edit.rank));
  out = gsModelWithGraph(gsSliceOf(bytes), g);
}

}  // namespace le
