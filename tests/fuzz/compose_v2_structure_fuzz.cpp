// The compose_v2 block of a lip template: every graph entry it names (and
// one it doesn't) read out, checked and base64-decoded. The strict decoder
// also gets the whole input as base64 text, and whatever it accepts must
// be the one canonical spelling of the bytes it gives.
#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "tessera/base64.h"
#include "tessera/compose_v2_structure.h"
#include "tessera/json.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

namespace json = le::tessera::json;

std::string encode(const std::vector<uint8_t>& bytes) {
  static const char kDigits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    const size_t n = std::min<size_t>(3, bytes.size() - i);
    uint32_t group = static_cast<uint32_t>(bytes[i]) << 16;
    if (n > 1) group |= static_cast<uint32_t>(bytes[i + 1]) << 8;
    if (n > 2) group |= bytes[i + 2];
    for (size_t k = 0; k < 4; ++k) out += k <= n ? kDigits[(group >> (18 - 6 * k)) & 63] : '=';
  }
  return out;
}

// The graph keys the block names, at most four, and one it doesn't.
std::vector<std::string> graphKeys(const std::string& text) {
  std::vector<std::string> keys;
  try {
    const json::JVal root = json::JParser(text).document();
    const json::JVal* block = root.find("compose_v2");
    const json::JVal* graphs = block ? block->find("graphs") : nullptr;
    if (graphs)
      for (const auto& entry : graphs->obj)
        if (keys.size() < 4) keys.push_back(entry.first);
  } catch (const std::runtime_error&) {
  }
  keys.push_back("model_absent.onnx");
  return keys;
}

bool isHex64(const std::string& s) { return le::tessera::isSha256Hex(s); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(le::fuzz::asText(data, size));
  for (const std::string& key : graphKeys(text)) {
    std::vector<uint8_t> structure{1};
    std::string sourceSha = "x", error = "x", structureSha = "x";
    const int found =
        le::tessera::composeV2StructureFromTemplate(text, key, structure, sourceSha, error, &structureSha);
    FUZZ_CHECK(found >= -1 && found <= 1);
    if (found == 1) {
      FUZZ_CHECK(error.empty() && !structure.empty() && isHex64(sourceSha));
      FUZZ_CHECK(structureSha.empty() || isHex64(structureSha));
    } else {
      FUZZ_CHECK(structure.empty() && sourceSha.empty() && structureSha.empty());
      FUZZ_CHECK((found == 0) == error.empty());
    }
  }

  std::vector<uint8_t> bytes{1};
  std::string words = "x";
  if (le::tessera::b64DecodeStrict(text, bytes, words)) {
    FUZZ_CHECK(words.empty());
    FUZZ_CHECK(encode(bytes) == text);
  } else {
    FUZZ_CHECK(bytes.empty() && !words.empty());
  }
  return 0;
}
