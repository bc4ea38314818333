#include "tessera/compose_v2_structure.h"

#include <exception>
#include <stdexcept>

#include "tessera/base64.h"
#include "tessera/json.h"

namespace le::tessera {

namespace {

using json::JVal;

const std::string kLabel = "lip_template.v1.json compose_v2";

int findStructure(const std::string& templateText, const std::string& graphKey, std::vector<uint8_t>& structure,
                  std::string& sourceSha, std::string& error, std::string* structureSha) {
  JVal root;
  try {
    root = json::JParser(templateText).document();
  } catch (const std::runtime_error& e) {
    error = "lip_template.v1.json is not parseable JSON (" + std::string(e.what()) + ")";
    return -1;
  }
  if (root.kind != JVal::kObject) {
    error = "lip_template.v1.json is not a JSON object";
    return -1;
  }
  const JVal* block = root.find("compose_v2");
  if (!block) return 0;
  if (block->kind != JVal::kObject) {
    error = kLabel + " is not a JSON object";
    return -1;
  }
  const JVal* schema = block->find("schema");
  if (!schema || schema->kind != JVal::kString) {
    error = kLabel + " schema (absent) is not 'compose-v2-structure-v1'";
    return -1;
  }
  if (schema->str != "compose-v2-structure-v1") {
    error = kLabel + " schema '" + schema->str + "' is not 'compose-v2-structure-v1'";
    return -1;
  }
  const JVal* graphs = block->find("graphs");
  if (!graphs || graphs->kind != JVal::kObject) {
    error = kLabel + " carries no `graphs` object";
    return -1;
  }
  const JVal* entry = graphs->find(graphKey);
  if (!entry) return 0;
  const std::string where = kLabel + ".graphs." + graphKey;
  if (entry->kind != JVal::kObject) {
    error = where + " is not a JSON object";
    return -1;
  }

  const JVal* source = entry->find("source_sha256");
  if (!source || source->kind != JVal::kString || !isSha256Hex(source->str)) {
    error = where + ".source_sha256 is not 64 lowercase hex";
    return -1;
  }
  const JVal* text = entry->find("structure");
  if (!text || text->kind != JVal::kString || text->str.empty()) {
    error = where + ".structure is not a non-empty string";
    return -1;
  }
  // Optional: absent, null and "" all mean that the template names no hash
  // of the structure's own bytes.
  const JVal* own = entry->find("structure_sha256");
  const bool ownGiven = own && own->kind != JVal::kNull && !(own->kind == JVal::kString && own->str.empty());
  if (ownGiven && (own->kind != JVal::kString || !isSha256Hex(own->str))) {
    error = where + ".structure_sha256 is not 64 lowercase hex";
    return -1;
  }

  std::string words;
  if (!b64DecodeStrict(text->str, structure, words)) {
    structure.clear();
    error = where + ".structure: " + words;
    return -1;
  }
  sourceSha = source->str;
  if (structureSha && ownGiven) *structureSha = own->str;
  return 1;
}

}  // namespace

bool isSha256Hex(const std::string& s) {
  if (s.size() != 64) return false;
  for (const char c : s) {
    if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'))) return false;
  }
  return true;
}

int composeV2StructureFromTemplate(const std::string& templateText, const std::string& graphKey,
                                   std::vector<uint8_t>& structure, std::string& sourceSha, std::string& error,
                                   std::string* structureSha) {
  structure.clear();
  sourceSha.clear();
  error.clear();
  if (structureSha) structureSha->clear();
  try {
    return findStructure(templateText, graphKey, structure, sourceSha, error, structureSha);
  } catch (const std::exception& e) {
    // Only resource failures get here; the caller's contract is a code.
    structure.clear();
    sourceSha.clear();
    if (structureSha) structureSha->clear();
    error = e.what();
    return -1;
  }
}

}  // namespace le::tessera
