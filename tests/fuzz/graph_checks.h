// What the ONNX harnesses check of the wire reader and of every load-time
// rewrite, whatever the bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

#include "director/rewrites/wire.h"

namespace le::fuzz {

// Reads every field of a message and, to a depth of 8, every
// length-delimited payload as a message of its own and as packed varints
// (a payload may as well be a string: its wire errors are passed over).
// Each field's raw encoding must lie in the message and hold its payload.
// Wire errors of the message itself propagate.
void walkMessage(GsSlice message, int depth = 0);

// Nodes of the model's graph that pred accepts.
size_t countNodes(const GsBytes& model, const std::function<bool(const GsNodeInfo&)>& pred);

// Runs a load-time rewrite on a copy of the input. It must leave the bytes
// untouched, with a reason, when it returns 0 or meets a wire error. When it
// returns n > 0 the result must read back whole, carry exactly
// nodesAdded(n) more nodes than before (0 for a rewrite in place), and give
// nothing more to do on a second run. Returns what the rewrite returned, 0
// after a wire error; out (if not null) gets the rewritten bytes.
using Rewrite = std::function<size_t(GsBytes&, std::string*)>;
size_t checkRewrite(const uint8_t* data, size_t size, const Rewrite& rewrite,
                    const std::function<long(size_t)>& nodesAdded, GsBytes* out = nullptr);
inline size_t checkRewrite(const uint8_t* data, size_t size, const Rewrite& rewrite, long nodesAdded) {
  return checkRewrite(data, size, rewrite, [nodesAdded](size_t) { return nodesAdded; });
}

}  // namespace le::fuzz
