#include "tests/fuzz/graph_checks.h"

#include <utility>

#include "tests/fuzz/fuzz_support.h"

namespace le::fuzz {

void walkMessage(GsSlice message, int depth) {
  const uint8_t* begin = message.data;
  const uint8_t* end = message.data + message.size;
  GsReader r(message);
  GsField f;
  while (r.next(f)) {
    FUZZ_CHECK(f.raw.size > 0 && f.raw.data >= begin && f.raw.data + f.raw.size <= end);
    FUZZ_CHECK(f.payload.size == 0 ||
               (f.payload.data >= f.raw.data && f.payload.data + f.payload.size == f.raw.data + f.raw.size));
    if (f.wire != kGsLength || depth >= 8) continue;
    try {
      walkMessage(f.payload, depth + 1);
    } catch (const GsWireError&) {
    }
    try {
      GsReader packed(f.payload);
      while (!packed.done()) packed.varint();
    } catch (const GsWireError&) {
    }
  }
}

size_t countNodes(const GsBytes& model, const std::function<bool(const GsNodeInfo&)>& pred) {
  size_t n = 0;
  gsForEachNode(gsGraphOf(model), [&](const GsNodeInfo& node) { n += pred(node) ? 1 : 0; });
  return n;
}

size_t checkRewrite(const uint8_t* data, size_t size, const Rewrite& rewrite,
                    const std::function<long(size_t)>& nodesAdded, GsBytes* out) {
  const GsBytes input(data, data + size);
  GsBytes bytes = input;
  std::string reason;
  size_t count = 0;
  try {
    count = rewrite(bytes, &reason);
  } catch (const GsWireError&) {
    FUZZ_CHECK(bytes == input);
    return 0;
  }
  if (count == 0) {
    FUZZ_CHECK(bytes == input);
    FUZZ_CHECK(!reason.empty());
    return 0;
  }
  FUZZ_CHECK(reason.empty());
  // The rewrite read the whole input without a wire error, so its output,
  // made of that input's fields and well-formed new ones, reads whole too.
  auto all = [](const GsNodeInfo&) { return true; };
  walkMessage(gsSliceOf(bytes));
  FUZZ_CHECK(static_cast<long>(countNodes(bytes, all)) ==
             static_cast<long>(countNodes(input, all)) + nodesAdded(count));
  GsBytes again = bytes;
  std::string why;
  FUZZ_CHECK(rewrite(again, &why) == 0);
  FUZZ_CHECK(again == bytes);
  if (out) *out = std::move(bytes);
  return count;
}

}  // namespace le::fuzz
