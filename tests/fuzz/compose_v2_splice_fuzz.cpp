// The compose v2 splice of a structure onto a member graph. The input is
//   flags (1 byte) | member length (u32, little-endian) | member | structure
// The structure is bound to its member by SHA-256, which no mutation finds
// by chance: flag bit 0 puts a binding to this member in front of the
// structure's own fields (the first binding is the one read), so that the
// splice is reached past its hash checks. Bit 1 passes that binding as the
// template's source hash, bit 2 the structure's own hash as the template's
// structure hash.
#include <algorithm>
#include <string>

#include "director/rewrites/compose_v2_splice.h"
#include "director/rewrites/sha256.h"
#include "tests/fuzz/fuzz_support.h"
#include "tests/fuzz/graph_checks.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace le;
  if (size < 1) return 0;
  const uint8_t flags = data[0];
  ++data;
  --size;
  const size_t memberSize = std::min<size_t>(fuzz::takeU32(data, size), size);
  const GsBytes member(data, data + memberSize);
  GsBytes structure;
  const std::string memberSha = sha256Hex(member.data(), member.size());
  if (flags & 1) {
    GsBytes entry;
    gsPutStr(entry, 1, kSourceShaKey);
    gsPutStr(entry, 2, memberSha);
    gsPutLen(structure, 14, entry);
  }
  structure.insert(structure.end(), data + memberSize, data + size);
  const std::string sourceSha = (flags & 2) ? memberSha : std::string();
  const std::string structureSha = (flags & 4) ? sha256Hex(structure.data(), structure.size()) : std::string();

  GsBytes model = member;
  std::string err = "not cleared";
  int canvas = -1, batch = -1;
  const bool spliced = spliceComposeV2(model, structure, err, sourceSha, &canvas, &batch, structureSha);
  if (!spliced) {
    FUZZ_CHECK(model == member);
    FUZZ_CHECK(!err.empty() && err != "not cleared");
    FUZZ_CHECK(canvas == 0 && batch == 0);
    return 0;
  }
  FUZZ_CHECK(err.empty());
  // Each member node and initializer comes along at most once, in the place
  // of a structure field: the result is no larger than the two inputs.
  FUZZ_CHECK(model.size() <= member.size() + structure.size() + 16);
  // The spliced model reads whole and still declares the lip input.
  fuzz::walkMessage(gsSliceOf(model));
  int64_t first = 0, last = 0;
  int rank = 0;
  ldInputDims(gsGraphOf(model), kLipInputName, first, last, rank);
  FUZZ_CHECK(rank == 4 && canvas == static_cast<int>(last) && batch == static_cast<int>(first));
  FUZZ_CHECK(fuzz::countNodes(model, [](const GsNodeInfo& n) {
               return n.opType == kMemberNodeOp && n.domain == kMemberNodeDomain;
             }) == 0);
  return 0;
}
