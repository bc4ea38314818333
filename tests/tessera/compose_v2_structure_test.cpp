// The compose v2 block of the lip template: entries decoded against the
// generator's own base64, the "no structure" answers, every refusal word for
// word, and the strict base64 decoder on its own.
#include <cstdint>
#include <ostream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tessera/base64.h"
#include "tessera/compose_v2_structure.h"
#include "tests/support/test_support.h"

namespace {

using le::tessera::b64DecodeStrict;
using le::tessera::composeV2StructureFromTemplate;
using le::tessera::isSha256Hex;

std::string composeData(const std::string& rel) {
  return le::test::readFile(le::test::dataPath("lip/compose_v2/" + rel));
}

// The outputs of one call, primed with junk so that clearing shows.
struct Read {
  int rc = 99;
  std::vector<uint8_t> structure{1, 2, 3};
  std::string source = "junk";
  std::string error = "junk";
  std::string own = "junk";
};

Read read(const std::string& text, const std::string& graph, bool wantOwn = true) {
  Read r;
  r.rc = composeV2StructureFromTemplate(text, graph, r.structure, r.source, r.error, wantOwn ? &r.own : nullptr);
  return r;
}

TEST(ComposeV2Structure, EntriesDecodeToTheirBytes) {
  const std::string text = composeData("template.json");
  for (const char* graph : {"b1", "b2", "b3", "b4"}) {
    SCOPED_TRACE(graph);
    const std::string bin = composeData(std::string(graph) + ".bin");
    const Read r = read(text, graph);
    EXPECT_EQ(r.rc, 1);
    EXPECT_EQ(r.error, "");
    EXPECT_EQ(r.structure, std::vector<uint8_t>(bin.begin(), bin.end()));
    EXPECT_EQ(r.source, composeData(std::string(graph) + ".source"));
    EXPECT_EQ(r.own, composeData(std::string(graph) + ".sha"));  // empty when null, "" or absent
    const Read noOwn = read(text, graph, false);
    EXPECT_EQ(noOwn.rc, 1);
    EXPECT_EQ(noOwn.own, "junk");
  }
  EXPECT_EQ(composeData("b1.sha").size(), 64u);
}

TEST(ComposeV2Structure, NoStructureForThisGraphIsZeroWithNoError) {
  for (const Read& r : {read(composeData("template.json"), "b9"),
                        read(composeData("template.json"), "B1"),
                        read(le::test::readFile(le::test::dataPath("lip/contour/map.json")), "b1")}) {
    EXPECT_EQ(r.rc, 0);
    EXPECT_EQ(r.error, "");
    EXPECT_TRUE(r.structure.empty());
    EXPECT_EQ(r.source, "");
    EXPECT_EQ(r.own, "");
  }
}

struct RefusalCase {
  const char* name;
  const char* error;
};

// CTest names carry the case, not the bytes of the struct.
void PrintTo(const RefusalCase& c, std::ostream* os) { *os << c.name; }


class ComposeV2Refusal : public ::testing::TestWithParam<RefusalCase> {};

TEST_P(ComposeV2Refusal, WordForWordWithEmptyOutputs) {
  const Read r = read(composeData(std::string("refuse/") + GetParam().name + ".json"), "b1");
  EXPECT_EQ(r.rc, -1);
  EXPECT_EQ(r.error, GetParam().error);
  EXPECT_TRUE(r.structure.empty());
  EXPECT_EQ(r.source, "");
  EXPECT_EQ(r.own, "");
}

#define LABEL "lip_template.v1.json compose_v2"
#define ENTRY LABEL ".graphs.b1"

INSTANTIATE_TEST_SUITE_P(
    Cases, ComposeV2Refusal,
    ::testing::Values(
        RefusalCase{"not_json", "lip_template.v1.json is not parseable JSON (teeth: bad JSON number)"},
        RefusalCase{"not_object", "lip_template.v1.json is not a JSON object"},
        RefusalCase{"block_string", LABEL " is not a JSON object"},
        RefusalCase{"schema_other", LABEL " schema 'compose-v2-structure-v2' is not 'compose-v2-structure-v1'"},
        RefusalCase{"schema_missing", LABEL " schema (absent) is not 'compose-v2-structure-v1'"},
        RefusalCase{"schema_number", LABEL " schema (absent) is not 'compose-v2-structure-v1'"},
        RefusalCase{"graphs_missing", LABEL " carries no `graphs` object"},
        RefusalCase{"graphs_array", LABEL " carries no `graphs` object"},
        RefusalCase{"entry_array", ENTRY " is not a JSON object"},
        RefusalCase{"source_missing", ENTRY ".source_sha256 is not 64 lowercase hex"},
        RefusalCase{"source_upper", ENTRY ".source_sha256 is not 64 lowercase hex"},
        RefusalCase{"source_short", ENTRY ".source_sha256 is not 64 lowercase hex"},
        RefusalCase{"source_non_hex", ENTRY ".source_sha256 is not 64 lowercase hex"},
        RefusalCase{"structure_missing", ENTRY ".structure is not a non-empty string"},
        RefusalCase{"structure_empty", ENTRY ".structure is not a non-empty string"},
        RefusalCase{"structure_number", ENTRY ".structure is not a non-empty string"},
        RefusalCase{"structure_sha_number", ENTRY ".structure_sha256 is not 64 lowercase hex"},
        RefusalCase{"structure_sha_long", ENTRY ".structure_sha256 is not 64 lowercase hex"},
        RefusalCase{"structure_sha_upper", ENTRY ".structure_sha256 is not 64 lowercase hex"},
        RefusalCase{"structure_length", ENTRY ".structure: base64 length 3 is not a multiple of 4"},
        RefusalCase{"structure_pad_inside", ENTRY ".structure: base64 padding is not at the end"},
        RefusalCase{"structure_pad_misplaced", ENTRY ".structure: base64 padding is not at the end"},
        RefusalCase{"structure_pad_bits", ENTRY ".structure: base64 tail carries non-zero padding bits (not canonical)"},
        RefusalCase{"structure_alphabet", ENTRY ".structure: base64 carries a byte outside the standard alphabet at 4"},
        RefusalCase{"structure_url_safe", ENTRY ".structure: base64 carries a byte outside the standard alphabet at 3"}),
    [](const ::testing::TestParamInfo<RefusalCase>& p) { return std::string(p.param.name); });

#undef ENTRY
#undef LABEL

std::string decodeError(const std::string& text) {
  std::vector<uint8_t> out{9};
  std::string error;
  EXPECT_FALSE(b64DecodeStrict(text, out, error)) << text;
  EXPECT_TRUE(out.empty());
  return error;
}

std::vector<uint8_t> decode(const std::string& text) {
  std::vector<uint8_t> out{9};
  std::string error = "junk";
  EXPECT_TRUE(b64DecodeStrict(text, out, error)) << text << ": " << error;
  EXPECT_EQ(error, "");
  return out;
}

TEST(Base64Strict, CanonicalTextsDecode) {
  EXPECT_EQ(decode("QQ=="), std::vector<uint8_t>{0x41});
  EXPECT_EQ(decode("QUE="), (std::vector<uint8_t>{0x41, 0x41}));
  EXPECT_EQ(decode("+/8A"), (std::vector<uint8_t>{0xFB, 0xFF, 0x00}));
  EXPECT_EQ(decode("AAAAzw=="), (std::vector<uint8_t>{0, 0, 0, 0xCF}));
  EXPECT_TRUE(decode("").empty());
}

TEST(Base64Strict, EveryRefusalWordForWord) {
  EXPECT_EQ(decodeError("QR=="), "base64 tail carries non-zero padding bits (not canonical)");
  EXPECT_EQ(decodeError("QUF="), "base64 tail carries non-zero padding bits (not canonical)");
  EXPECT_EQ(decodeError("Q==="), "base64 carries a byte outside the standard alphabet at 1");
  EXPECT_EQ(decodeError("=QQQ"), "base64 carries a byte outside the standard alphabet at 0");
  EXPECT_EQ(decodeError("QUFB QQ="), "base64 carries a byte outside the standard alphabet at 4");
  EXPECT_EQ(decodeError("QQ=A"), "base64 padding is not at the end");
  EXPECT_EQ(decodeError("QUE=QUFB"), "base64 padding is not at the end");
  EXPECT_EQ(decodeError("QUFBQ"), "base64 length 5 is not a multiple of 4");
}

TEST(Sha256Hex, LowercaseOnlyAndExactly64) {
  const std::string ok(64, 'a');
  EXPECT_TRUE(isSha256Hex(ok));
  EXPECT_TRUE(isSha256Hex("0123456789abcdef0123456789abcdef0123456789abcdef0123456789abcdef"));
  EXPECT_FALSE(isSha256Hex(std::string(64, 'A')));
  EXPECT_FALSE(isSha256Hex(std::string(63, 'a')));
  EXPECT_FALSE(isSha256Hex(std::string(65, 'a')));
  EXPECT_FALSE(isSha256Hex(std::string(63, 'a') + "g"));
  EXPECT_FALSE(isSha256Hex(""));
}

}  // namespace
