#include "tessera/json.h"

#include <cstdlib>
#include <cstring>
#include <stdexcept>

namespace le::tessera::json {

namespace {

bool startsWith(const char* p, const char* end, const char* word) {
  const size_t n = std::strlen(word);
  return static_cast<size_t>(end - p) >= n && std::memcmp(p, word, n) == 0;
}

}  // namespace

JVal::JVal() = default;

const JVal* JVal::find(const std::string& key) const {
  for (const auto& member : obj) {
    if (member.first == key) return &member.second;
  }
  return nullptr;
}

const JVal& JVal::req(const std::string& key) const {
  const JVal* v = find(key);
  if (!v) throw std::runtime_error("teeth: member JSON lacks key '" + key + "'");
  return *v;
}

void JParser::ws() {
  while (p < end && (*p == ' ' || *p == '\t' || *p == '\n' || *p == '\r')) ++p;
}

JVal JParser::document() {
  ws();
  return val();
}

JVal JParser::val() {
  ws();
  if (p >= end) throw std::runtime_error("teeth: JSON truncated");
  JVal v;
  if (*p == '"') {
    v.kind = JVal::kString;
    v.str = strv();
    return v;
  }
  if (*p == '[' || *p == '{') {
    if (++depth > kMaxDepth) throw std::runtime_error("teeth: JSON nests deeper than 256 levels");
    JVal nested = *p == '[' ? arrv() : objv();
    --depth;
    return nested;
  }
  // The literal words are taken on their own; what follows them is the
  // caller's to judge (a "truex" reads as true followed by junk).
  if (startsWith(p, end, "true")) {
    v.kind = JVal::kBool;
    v.b = true;
    p += 4;
    return v;
  }
  if (startsWith(p, end, "false")) {
    v.kind = JVal::kBool;
    p += 5;
    return v;
  }
  if (startsWith(p, end, "null")) {
    p += 4;
    return v;
  }
  char* stop = nullptr;
  const double d = std::strtod(p, &stop);
  if (stop == p) throw std::runtime_error("teeth: bad JSON number");
  v.kind = JVal::kNumber;
  v.num = d;
  p = stop;
  return v;
}

std::string JParser::strv() {
  // The opening quote is passed over untested: objv reads a key this way
  // whatever it starts with.
  if (p < end) ++p;
  std::string s;
  while (p < end && *p != '"') {
    char c = *p++;
    if (c == '\\') {
      if (p >= end) break;
      c = *p++;
      switch (c) {
        case 'b': c = '\b'; break;
        case 'f': c = '\f'; break;
        case 'n': c = '\n'; break;
        case 'r': c = '\r'; break;
        case 't': c = '\t'; break;
        case 'u':
          // No member needs more than ASCII; a code point reads as '?'.
          c = '?';
          if (end - p >= 4) p += 4;
          break;
        default: break;
      }
    }
    s.push_back(c);
  }
  if (p < end) ++p;  // the closing quote
  return s;
}

JVal JParser::objv() {
  ++p;  // '{'
  JVal v;
  v.kind = JVal::kObject;
  ws();
  if (p < end && *p == '}') {
    ++p;
    return v;
  }
  for (;;) {
    ws();
    std::string key = strv();
    ws();
    if (p < end && *p == ':') ++p;
    JVal member = val();
    v.obj.emplace_back(std::move(key), std::move(member));
    ws();
    if (p < end && *p == ',') {
      ++p;
      continue;
    }
    if (p < end && *p == '}') {
      ++p;
      return v;
    }
    throw std::runtime_error("teeth: malformed JSON object");
  }
}

JVal JParser::arrv() {
  ++p;  // '['
  JVal v;
  v.kind = JVal::kArray;
  ws();
  if (p < end && *p == ']') {
    ++p;
    return v;
  }
  for (;;) {
    v.arr.push_back(val());
    ws();
    if (p < end && *p == ',') {
      ++p;
      continue;
    }
    if (p < end && *p == ']') {
      ++p;
      return v;
    }
    throw std::runtime_error("teeth: malformed JSON array");
  }
}

JVal parseJson(const std::string& text, const std::string& name) {
  try {
    return JParser(text).document();
  } catch (const std::runtime_error& e) {
    throw std::runtime_error("teeth: " + name + " is not readable JSON: " + e.what());
  }
}

std::string optStr(const JVal& obj, const std::string& key, const std::string& fallback) {
  const JVal* v = obj.find(key);
  return v && v->kind == JVal::kString ? v->str : fallback;
}

double reqNum(const JVal& obj, const std::string& key, const std::string& name) {
  const JVal* v = obj.find(key);
  if (!v || v->kind != JVal::kNumber) throw std::runtime_error("teeth: " + name + " lacks numeric '" + key + "'");
  return v->num;
}

}  // namespace le::tessera::json
