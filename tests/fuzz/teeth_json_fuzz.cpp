// The teeth members' JSON reader over arbitrary text, and the lookups its
// callers make on what it returns.
#include <stdexcept>
#include <string>

#include "tessera/json.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

using le::tessera::json::JVal;

// Visits the tree as a caller would; returns the number of values.
size_t visit(const JVal& v) {
  size_t n = 1;
  FUZZ_CHECK(v.kind >= JVal::kNull && v.kind <= JVal::kObject);
  if (v.kind != JVal::kArray) FUZZ_CHECK(v.arr.empty());
  if (v.kind != JVal::kObject) FUZZ_CHECK(v.obj.empty());
  for (const JVal& e : v.arr) n += visit(e);
  for (const auto& [key, member] : v.obj) {
    FUZZ_CHECK(v.find(key) != nullptr);
    n += visit(member);
  }
  return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  namespace json = le::tessera::json;
  const std::string text(le::fuzz::asText(data, size));
  try {
    const JVal root = json::parseJson(text, "fuzz.json");
    // Every value takes at least one byte of the text.
    FUZZ_CHECK(visit(root) <= text.size());
    for (const char* key : {"format", "version", "canvas", "frames", "schema"}) {
      json::optStr(root, key, "");
      try {
        json::reqNum(root, key, "fuzz.json");
        root.req(key);
      } catch (const std::runtime_error&) {
      }
    }
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(std::string(e.what()).rfind("teeth: fuzz.json is not readable JSON: teeth: ", 0) == 0);
  }
  return 0;
}
