// The teeth JSON reader: values and document order, its forgiving corners,
// and every parser failure word for word.
#include <cmath>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "tessera/json.h"

namespace {

using le::tessera::json::JParser;
using le::tessera::json::JVal;
using le::tessera::json::optStr;
using le::tessera::json::parseJson;
using le::tessera::json::reqNum;

JVal parse(const std::string& text) { return JParser(text).document(); }

std::string parseError(const std::string& text) {
  try {
    parse(text);
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  ADD_FAILURE() << "parsed: " << text;
  return {};
}

TEST(JsonValues, KindsAndFieldsOfEachValue) {
  const JVal v = parse(" \t\r\n{\"n\": -2.5e1, \"s\": \"x\", \"t\": true, \"f\": false, \"z\": null, \"a\": [1, [], {}]}");
  ASSERT_EQ(v.kind, JVal::kObject);
  ASSERT_EQ(v.obj.size(), 6u);
  const char* order[] = {"n", "s", "t", "f", "z", "a"};
  for (size_t i = 0; i < 6; ++i) EXPECT_EQ(v.obj[i].first, order[i]);
  EXPECT_EQ(v.req("n").kind, JVal::kNumber);
  EXPECT_EQ(v.req("n").num, -25.0);
  EXPECT_EQ(v.req("s").str, "x");
  EXPECT_TRUE(v.req("t").b);
  EXPECT_EQ(v.req("f").kind, JVal::kBool);
  EXPECT_FALSE(v.req("f").b);
  EXPECT_EQ(v.req("z").kind, JVal::kNull);
  const JVal& a = v.req("a");
  ASSERT_EQ(a.arr.size(), 3u);
  EXPECT_EQ(a.arr[1].kind, JVal::kArray);
  EXPECT_EQ(a.arr[2].kind, JVal::kObject);
  // Fields of another kind keep their zero values.
  EXPECT_EQ(v.req("s").num, 0.0);
  EXPECT_EQ(a.num, 0.0);
  EXPECT_EQ(v.req("n").str, "");
  EXPECT_TRUE(v.req("n").arr.empty());
}

TEST(JsonValues, DuplicateKeysAreKeptAndLookupsFindTheFirst) {
  const JVal v = parse("{\"k\": 1, \"K\": 2, \"k\": 3}");
  ASSERT_EQ(v.obj.size(), 3u);
  EXPECT_EQ(v.obj[2].second.num, 3.0);
  EXPECT_EQ(v.req("k").num, 1.0);
  EXPECT_EQ(v.find("K")->num, 2.0);
  EXPECT_EQ(v.find("missing"), nullptr);
  EXPECT_EQ(parse("[1]").find("k"), nullptr);
}

TEST(JsonValues, NumbersAreWhateverStrtodReads) {
  EXPECT_TRUE(std::isinf(parse("1e999").num));
  EXPECT_EQ(parse("0x10").num, 16.0);
  EXPECT_EQ(parse("[7,\f8]").arr[1].num, 8.0);  // strtod passes over its own white space
  EXPECT_EQ(parse(".5").num, 0.5);
}

TEST(JsonStrings, EscapesAndTheForgivingCorners) {
  EXPECT_EQ(parse(R"("a\nb\tc\rd\be\ff\/g\"h\\i\q")").str, "a\nb\tc\rd\be\ff/g\"h\\iq");
  EXPECT_EQ(parse(R"("caf\u00e9!")").str, "caf?!");
  EXPECT_EQ(parse(R"("\u12")").str, "?12");  // fewer than four follow: nothing skipped
  EXPECT_EQ(parse("\"unterminated").str, "unterminated");
  EXPECT_EQ(parse("\"ends in \\").str, "ends in ");
}

TEST(JsonStrings, LiteralsMissingColonsAndTrailingText) {
  EXPECT_TRUE(parse("truex").b);
  EXPECT_EQ(parse("nullable").kind, JVal::kNull);
  EXPECT_EQ(parse("{\"a\" 1}").req("a").num, 1.0);
  EXPECT_EQ(parse("{} not looked at [").kind, JVal::kObject);
  EXPECT_EQ(parse("1 2").num, 1.0);
}

TEST(JsonErrors, ParserFailuresWordForWord) {
  EXPECT_EQ(parseError(""), "teeth: JSON truncated");
  EXPECT_EQ(parseError(" \n\t"), "teeth: JSON truncated");
  EXPECT_EQ(parseError("["), "teeth: JSON truncated");
  EXPECT_EQ(parseError("{"), "teeth: JSON truncated");
  EXPECT_EQ(parseError("{\"a\":"), "teeth: JSON truncated");
  EXPECT_EQ(parseError("[1, 2,]"), "teeth: bad JSON number");
  EXPECT_EQ(parseError("-"), "teeth: bad JSON number");
  EXPECT_EQ(parseError("tru"), "teeth: bad JSON number");
  EXPECT_EQ(parseError("[1 2]"), "teeth: malformed JSON array");
  EXPECT_EQ(parseError("[1"), "teeth: malformed JSON array");
  EXPECT_EQ(parseError("[true1]"), "teeth: malformed JSON array");
  EXPECT_EQ(parseError("[1\v]"), "teeth: malformed JSON array");  // only tab, LF, CR and blank are white space
  EXPECT_EQ(parseError("{\"a\": 1 \"b\": 2}"), "teeth: malformed JSON object");
  EXPECT_EQ(parseError("{\"a\": 1"), "teeth: malformed JSON object");
}

TEST(JsonErrors, NestingIsBoundedAndNotTheStack) {
  const std::string deep = std::string(256, '[') + std::string(256, ']');
  EXPECT_EQ(parse(deep).arr.size(), 1u);
  EXPECT_EQ(parseError(std::string(257, '[') + std::string(257, ']')), "teeth: JSON nests deeper than 256 levels");
  EXPECT_EQ(parseError(std::string(1000000, '[')), "teeth: JSON nests deeper than 256 levels");
  std::string objects;
  for (int i = 0; i < 300; ++i) objects += "{\"a\": ";
  EXPECT_EQ(parseError(objects), "teeth: JSON nests deeper than 256 levels");
}

TEST(JsonHelpers, ParseJsonNamesTheMember) {
  try {
    parseJson("[1,]", "tessera_head.v1.json");
    FAIL() << "parsed";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "teeth: tessera_head.v1.json is not readable JSON: teeth: bad JSON number");
  }
  EXPECT_EQ(parseJson(" [3]", "x").arr[0].num, 3.0);
}

TEST(JsonHelpers, ReqOptStrAndReqNum) {
  const JVal v = parse(R"({"s": "text", "n": 4.5, "ns": "4.5", "z": null})");
  EXPECT_EQ(optStr(v, "s", "fb"), "text");
  EXPECT_EQ(optStr(v, "n", "fb"), "fb");
  EXPECT_EQ(optStr(v, "absent", "fb"), "fb");
  EXPECT_EQ(reqNum(v, "n", "head"), 4.5);
  try {
    v.req("S");
    FAIL() << "found";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "teeth: member JSON lacks key 'S'");
  }
  for (const char* key : {"ns", "z", "absent"}) {
    try {
      reqNum(v, key, "tessera_head.v1.json");
      FAIL() << key;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()), std::string("teeth: tessera_head.v1.json lacks numeric '") + key + "'");
    }
  }
}

}  // namespace
