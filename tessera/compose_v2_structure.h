// The compose v2 structures of a lip template: for each director graph, the
// bytes of a small structure graph that the director splices onto it, bound
// by SHA-256 to the graph they were cut for. This reads and checks the JSON
// side; the director does the splice and the binding checks.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace le::tessera {

// Exactly 64 characters of 0-9 and a-f; uppercase is not a hash here.
bool isSha256Hex(const std::string& s);

// The structure of `graphKey` out of the template's "compose_v2" block.
// Returns 1 with `structure`, `sourceSha` and, if wanted, `structureSha`
// (empty when the template gives none) filled; 0 when the template names no
// structure for this graph; -1 with the reason in `error`. All outputs are
// cleared first and stay empty unless 1 is returned. Never throws.
int composeV2StructureFromTemplate(const std::string& templateText, const std::string& graphKey,
                                   std::vector<uint8_t>& structure, std::string& sourceSha, std::string& error,
                                   std::string* structureSha);

}  // namespace le::tessera
