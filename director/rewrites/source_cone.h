// The cut of the source-cone hoist. Everything in a director graph that
// depends on P_rgb alone gives the same result whenever the same source frame
// comes round: that subgraph, the source cone, ends in one Concat of P_rgb
// with planes derived from it, the boundary. The cut writes two models on the
// wire: a prep model that computes the boundary from P_rgb, and a per-frame
// model that takes the boundary as an input in place of P_rgb.
#pragma once

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include "director/rewrites/wire.h"

namespace le {

inline constexpr const char* kPriorInput = "P_rgb";

// What gsRebuild changes in a graph; everything else goes through raw.
struct GsGraphEdit {
  const uint8_t* removeFlags = nullptr;  // one byte per node, non-zero drops it
  bool dropPrgbInput = false;            // drop the graph input P_rgb
  bool keepOnlyPrgbInput = false;        // drop every graph input but P_rgb
  bool dropOutputs = false;              // drop every graph output
  const char* boundary = nullptr;        // its value_info goes; it is declared anew
  const int64_t* dims = nullptr;         // the boundary's dimensions, or null: symbolic
  int rank = 0;
  int fieldNo = 0;  // the GraphProto field of the new declaration: 11 input, 12 output
};

// The number of Concat nodes that read P_rgb. out gets the first output of
// that node when there is exactly one, and is cleared otherwise.
int findSourceConeBoundary(const GsBytes& bytes, std::string& out);

// Marks in flags (one byte per node) the nodes the boundary depends on,
// Constants excepted, and proves the cone closed: it reads no graph input
// but P_rgb, and nothing outside it reads anything from inside but the
// boundary. False with why otherwise.
bool gsSourceCone(const std::vector<GsNodeInfo>& nodes, const std::unordered_set<std::string>& initializers,
                  const std::unordered_set<std::string>& inputs, const std::string& boundary,
                  std::vector<uint8_t>& flags, std::string& why);

// The prep model: the cone and every Constant, P_rgb its one input, the
// boundary its one output with four symbolic dimensions.
bool buildSourceConePrep(const GsBytes& bytes, const std::string& boundary, GsBytes& out, std::string& why);

// The per-frame model: the graph less the cone, with the boundary an input
// of the given static dimensions in place of P_rgb.
bool buildSourceConePerFrame(const GsBytes& bytes, const std::string& boundary, const int64_t* dims, int rank,
                             GsBytes& out, std::string& why);

// The model with its graph rebuilt as edit says. Initializers all stay.
void gsRebuild(const GsBytes& bytes, const GsGraphEdit& edit, GsBytes& out);

}  // namespace le
