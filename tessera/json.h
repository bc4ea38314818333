// The small JSON reader of the teeth members, the lip template and the
// manifest blocks the teeth pass reads. It builds a whole tree and keeps
// object members in document order. It is forgiving where those files never
// go (no UTF-16, a missing colon is passed over) and leaves the checks that
// matter to its callers, which know what each key must hold.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace le::tessera::json {

struct JVal {
  enum Kind : int32_t { kNull = 0, kBool = 1, kNumber = 2, kString = 3, kArray = 4, kObject = 5 };

  // Only the field of the value's own kind is set; the others keep their
  // zero values, so `num` of a string or an array reads 0.0.
  Kind kind = kNull;
  bool b = false;
  double num = 0.0;
  std::string str;
  std::vector<JVal> arr;
  std::vector<std::pair<std::string, JVal>> obj;  // document order, duplicates kept

  // Defined where JVal is complete: clang with libstdc++ would otherwise ask
  // whether the member pair is default-constructible while JVal isn't yet.
  JVal();

  // The first member named `key` (exact, case-sensitive); throws
  // "teeth: member JSON lacks key '<key>'" when there is none.
  const JVal& req(const std::string& key) const;
  // The first member named `key`, or null.
  const JVal* find(const std::string& key) const;
};

// A cursor over [p, end). The character at `end` must be readable and NUL
// (as std::string guarantees): numbers go to strtod, which stops there.
struct JParser {
  // Arrays and objects nest at most this deep: the reader recurses, and a
  // member an author ships must not be able to exhaust the stack.
  static constexpr int32_t kMaxDepth = 256;

  const char* p;
  const char* end;
  int32_t depth = 0;

  explicit JParser(const std::string& text) : p(text.c_str()), end(text.c_str() + text.size()) {}

  // Leading white space, then one value; text behind it is not looked at.
  // Failures throw std::runtime_error with the parser's own words.
  JVal document();

  void ws();
  JVal val();
  std::string strv();
  JVal objv();
  JVal arrv();
};

// A whole document; a parser failure becomes
// "teeth: <name> is not readable JSON: <parser message>".
JVal parseJson(const std::string& text, const std::string& name);

// The member's string if `key` exists and holds a string, else `fallback`.
std::string optStr(const JVal& obj, const std::string& key, const std::string& fallback);

// The member's number; throws "teeth: <name> lacks numeric '<key>'".
double reqNum(const JVal& obj, const std::string& key, const std::string& name);

}  // namespace le::tessera::json
