#include "director/rewrites/compose_v2_splice.h"

#include <set>
#include <unordered_set>

#include "director/rewrites/sha256.h"

namespace le {

namespace {

using NameSet = std::unordered_set<std::string>;

std::string first12(const std::string& hex) { return hex.substr(0, 12); }

void addAll(NameSet& set, const std::vector<std::string>& names) { set.insert(names.begin(), names.end()); }

// What the walk over the structure's graph learns.
struct StructureWalk {
  size_t nodeCount = 0;
  std::vector<GsSlice> nodes;  // in order; a placeholder's slot holds the member node
  NameSet reads, produced, initializers, inputs;
  size_t insertAt = 0;  // where the member initializers go, as an offset in the graph payload
};

// Everything after the structure's own hash; wire errors propagate to the
// caller, which reports them as unreadable protobuf.
bool splice(GsBytes& model, const GsBytes& structure, std::string& err, const std::string& sourceSha, int* canvas,
            int* batch) {
  auto fail = [&](const std::string& sentence) {
    err = sentence;
    return false;
  };

  // One graph, one binding.
  size_t graphCount = 0;
  GsSlice sGraph;
  bool hasBinding = false;
  std::string binding;
  {
    GsReader r(gsSliceOf(structure));
    GsField f;
    while (r.next(f)) {
      if (f.number == 7) {
        if (graphCount++ == 0) sGraph = f.payload;
      } else if (f.number == 14 && f.wire == kGsLength && !hasBinding &&
                 gsFirstStr(f.payload, 1) == kSourceShaKey) {
        hasBinding = true;
        binding = gsFirstStr(f.payload, 2);
      }
    }
  }
  if (graphCount != 1)
    return fail("compose v2 splice: the structure carries " + std::to_string(graphCount) +
                " graph fields (one expected)");
  if (!hasBinding) return fail("compose v2 splice: the structure names no source member (compose_v2.source_sha256)");

  // The template's binding and the member's own bytes must agree.
  if (!sourceSha.empty() && sourceSha != binding)
    return fail("compose v2 splice: the template says the structure is for member " + first12(sourceSha) +
                " and the structure itself says " + first12(binding) +
                " — refusing a structure whose two bindings disagree");
  const std::string memberSha = sha256Hex(model.data(), model.size());
  if (memberSha != binding)
    return fail("compose v2 structure was built for member " + first12(binding) + ", not " + first12(memberSha) +
                " — refusing to splice a stale structure");

  // The member's nodes and initializers.
  const GsSlice mGraph = gsGraphOf(model);
  if (mGraph.empty()) return fail("compose v2 splice: the member carries no graph");
  std::vector<GsNodeInfo> mNodes;
  NameSet mInitNames, mInputs;
  gsReadGraph(mGraph, mNodes, mInitNames, mInputs);
  const std::vector<GsInitializer> mInits = gsReadInitializers(mGraph);

  // The structure's graph, placeholders resolved.
  StructureWalk w;
  std::vector<bool> used(mNodes.size(), false);
  bool hasInit = false, hasAbove5 = false;
  size_t afterLastInit = 0, firstAbove5 = 0;
  {
    GsReader r(sGraph);
    GsField f;
    while (r.next(f)) {
      const size_t offset = static_cast<size_t>(f.raw.data - sGraph.data);
      if (f.number == 1 && f.wire == kGsLength) {
        const Cv2Node node = cv2ReadNode(f);
        ++w.nodeCount;
        if (!node.isPlaceholder) {
          w.nodes.push_back(node.raw);
          addAll(w.reads, node.inputs);
          addAll(w.produced, node.outputs);
          continue;
        }
        if (!node.hasK) return fail("compose v2 splice: a MemberNode placeholder carries no `k`");
        if (node.k < 0 || static_cast<uint64_t>(node.k) >= mNodes.size() ||
            node.outputs != mNodes[static_cast<size_t>(node.k)].outputs)
          return fail("compose v2 splice: placeholder " + std::to_string(node.k) + " does not name member node " +
                      std::to_string(node.k));
        // A node's outputs are produced once: a member node spliced twice
        // would only make the graph invalid, at the cost of a copy of it
        // per placeholder.
        if (used[static_cast<size_t>(node.k)])
          return fail("compose v2 splice: placeholder " + std::to_string(node.k) + " names member node " +
                      std::to_string(node.k) + " a second time");
        used[static_cast<size_t>(node.k)] = true;
        const GsNodeInfo& member = mNodes[static_cast<size_t>(node.k)];
        w.nodes.push_back(member.raw);
        addAll(w.reads, member.inputs);
        addAll(w.produced, member.outputs);
      } else {
        if (f.number == 5 && f.wire == kGsLength) {
          w.initializers.insert(gsFirstStr(f.payload, 8));
          hasInit = true;
          afterLastInit = offset + f.raw.size;
        } else if (f.number == 11 && f.wire == kGsLength) {
          w.inputs.insert(gsFirstStr(f.payload, 1));
        }
        if (f.number > 5 && !hasAbove5) {
          hasAbove5 = true;
          firstAbove5 = offset;
        }
      }
    }
  }
  w.insertAt = hasInit ? afterLastInit : hasAbove5 ? firstAbove5 : sGraph.size;

  // Member weights come along only where something reads them: this is
  // how the ellipse end of the graph loses its weights.
  std::vector<GsSlice> carried;
  {
    NameSet taken;
    for (const GsInitializer& init : mInits) {
      if (!w.reads.count(init.name) || w.initializers.count(init.name) || !taken.insert(init.name).second) continue;
      carried.push_back(init.raw);
    }
  }

  // Every name read must be carried by someone.
  std::set<std::string> missing;
  for (const std::string& name : w.reads)
    if (!name.empty() && !w.initializers.count(name) && !mInitNames.count(name) && !w.inputs.count(name) &&
        !w.produced.count(name))
      missing.insert(name);
  if (!missing.empty()) {
    std::string list;
    size_t listed = 0;
    for (auto it = missing.begin(); it != missing.end() && listed < 3; ++it, ++listed)
      list += (listed ? ", '" : "'") + *it + "'";
    return fail("compose v2 splice: " + list + " are read but neither member nor structure carries them");
  }

  // The new graph: the structure's fields in order, nodes from the
  // resolved list, the member weights as one run at the insertion point.
  GsBytes graph;
  graph.reserve(sGraph.size + mGraph.size + 64);
  {
    auto putCarried = [&] {
      for (const GsSlice& raw : carried) gsPutRaw(graph, raw);
    };
    GsReader r(sGraph);
    GsField f;
    size_t nodeIndex = 0;
    bool inserted = false;
    while (r.next(f)) {
      if (!inserted && static_cast<size_t>(f.raw.data - sGraph.data) == w.insertAt) {
        putCarried();
        inserted = true;
      }
      gsPutRaw(graph, f.number == 1 && f.wire == kGsLength ? w.nodes[nodeIndex++] : f.raw);
    }
    if (!inserted) putCarried();
  }

  // The member's top level, its graph replaced.
  GsBytes spliced = gsModelWithGraph(gsSliceOf(model), graph);

  // Self-check on a fresh read.
  size_t nodes = 0, left = 0;
  {
    GsReader r(gsGraphOf(spliced));
    GsField f;
    while (r.next(f)) {
      if (f.number != 1 || f.wire != kGsLength) continue;
      ++nodes;
      if (cv2ReadNode(f).isPlaceholder) ++left;
    }
  }
  if (nodes != w.nodeCount || left != 0)
    return fail("compose v2 splice self-check: " + std::to_string(nodes) + " nodes (" +
                std::to_string(w.nodeCount) + " expected), " + std::to_string(left) + " placeholder(s) left");

  // A compose v2 graph takes the lip contour as a rank-4 input.
  int64_t first = 0, last = 0;
  int rank = 0;
  ldInputDims(gsSliceOf(graph), kLipInputName, first, last, rank);
  if (rank != 4 || !w.inputs.count(kLipInputName))
    return fail("compose v2 splice self-check: the spliced graph declares no rank-4 " + std::string(kLipInputName) +
                " input — not a compose v2 graph");
  if (canvas) *canvas = static_cast<int>(last);
  if (batch) *batch = static_cast<int>(first);
  model.swap(spliced);
  return true;
}

}  // namespace

Cv2Node cv2ReadNode(const GsField& field) {
  GsNodeInfo info = gsReadNode(field);
  Cv2Node node;
  node.raw = info.raw;
  node.inputs = std::move(info.inputs);
  node.outputs = std::move(info.outputs);
  node.opType = std::move(info.opType);
  node.domain = std::move(info.domain);
  node.isPlaceholder = node.opType == kMemberNodeOp && node.domain == kMemberNodeDomain;
  if (node.isPlaceholder) {
    const std::vector<GsAttr> attrs = gsReadAttrs(info.body);
    if (const GsAttr* k = gsFindAttr(attrs, "k"); k && k->hasI) {
      node.hasK = true;
      node.k = k->i;
    }
  }
  return node;
}

void ldInputDims(GsSlice graph, const std::string& name, int64_t& first, int64_t& last, int& rank) {
  first = last = 0;
  rank = 0;
  GsReader r(graph);
  GsField f;
  while (r.next(f)) {
    if (f.number != 11 || f.wire != kGsLength || gsFirstStr(f.payload, 1) != name) continue;
    // ValueInfoProto.type -> TypeProto.tensor_type -> shape -> dim.
    GsSlice shape;
    GsReader vi(f.payload);
    GsField g;
    while (vi.next(g)) {
      if (g.number != 2 || g.wire != kGsLength) continue;
      GsReader type(g.payload);
      GsField t;
      while (type.next(t)) {
        if (t.number != 1 || t.wire != kGsLength) continue;
        GsReader tensor(t.payload);
        GsField s;
        while (tensor.next(s))
          if (s.number == 2 && s.wire == kGsLength) shape = s.payload;
      }
    }
    GsReader dims(shape);
    GsField d;
    while (dims.next(d)) {
      if (d.number != 1 || d.wire != kGsLength) continue;
      int64_t value = 0;
      GsReader dim(d.payload);
      GsField v;
      while (dim.next(v))
        if (v.number == 1 && v.wire == kGsVarint) value = static_cast<int64_t>(v.value);
      if (rank == 0) first = value;
      last = value;
      ++rank;
    }
    return;
  }
}

bool spliceComposeV2(GsBytes& model, const GsBytes& structure, std::string& err, const std::string& sourceSha,
                     int* canvas, int* batch, const std::string& structureSha) {
  err.clear();
  if (canvas) *canvas = 0;
  if (batch) *batch = 0;
  // The structure's own bytes, when the template names their hash.
  if (!structureSha.empty()) {
    const std::string computed = sha256Hex(structure.data(), structure.size());
    if (computed != structureSha) {
      err = "compose v2 structure bytes hash to " + first12(computed) + ", not the " + first12(structureSha) +
            " the template names — refusing a structure whose own bytes moved";
      return false;
    }
  }
  try {
    return splice(model, structure, err, sourceSha, canvas, batch);
  } catch (const GsWireError& e) {
    err = "compose v2 splice: unreadable protobuf (" + std::string(e.what()) + ")";
    return false;
  }
}

}  // namespace le
