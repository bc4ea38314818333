// The head members: the serving configuration, the checkpoint read by the
// engine's own ZIP and pickle readers (values bit for bit against what the
// generator's writer stored, every refusal word for word), and those readers
// on hundreds of seeded corruptions of a valid checkpoint, where the only
// acceptable outcomes are a refusal or a checkpoint that still holds together.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "le/le_tessera.h"
#include "tessera/head_pt_reader.h"
#include "tessera/head_weights.h"
#include "tessera/serve_config.h"
#include "tests/support/test_support.h"
#include "tests/support/xorshift.h"

namespace {

using le::tessera::HeadWeights;
using le::tessera::loadHeadPt;
using le::tessera::ServeConfig;

std::string teeth(const std::string& rel) { return le::test::dataPath("teeth/" + rel); }

std::vector<uint8_t> bytesOf(const std::string& path) {
  const std::string s = le::test::readFile(path);
  return std::vector<uint8_t>(s.begin(), s.end());
}

std::vector<const std::vector<float>*> tensors(const HeadWeights& w) {
  return {&w.cand0_w, &w.cand0_b, &w.cand2_w, &w.cand2_b, &w.cand4_w, &w.cand4_b,
          &w.syn0_w,  &w.syn0_b,  &w.syn2_w,  &w.syn2_b};
}

// The tensors in table order, concatenated, as the generator writes them.
std::vector<float> flat(const HeadWeights& w) {
  std::vector<float> out;
  for (const std::vector<float>* t : tensors(w)) out.insert(out.end(), t->begin(), t->end());
  return out;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
  return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

TEST(HeadWeights, CheckpointsLoadBitForBit) {
  for (const char* name : {"blend16", "blend8", "trailing_bytes", "no_stop", "no_metadata", "long_memo", "unaligned",
                           "two_pickles", "two_storages"}) {
    SCOPED_TRACE(name);
    const HeadWeights w = loadHeadPt(bytesOf(teeth(std::string("head/") + name + ".pt")));
    const std::string want = le::test::readFile(teeth(std::string("head/") + name + ".f32"));
    std::vector<float> expected(want.size() / 4);
    std::memcpy(expected.data(), want.data(), want.size());
    EXPECT_TRUE(sameBits(flat(w), expected));
    EXPECT_EQ(w.params(), std::string(name) == "blend8" ? 3489 : 4082);
  }
}

TEST(HeadWeights, ShapesEnvelopeAndTheSmallerArch) {
  const HeadWeights w = loadHeadPt(bytesOf(teeth("head/blend16.pt")));
  const std::vector<size_t> sizes = {1008, 16, 2304, 16, 144, 1, 432, 16, 144, 1};
  for (size_t t = 0; t < sizes.size(); ++t) EXPECT_EQ(tensors(w)[t]->size(), sizes[t]) << t;
  uint32_t bits = 0;
  std::memcpy(&bits, &w.envelope, 4);
  EXPECT_EQ(bits, 0x3D40C0C1u);
  // The generator's specials: a negative zero and a subnormal survive.
  EXPECT_TRUE(std::signbit(w.cand0_b[3]) && w.cand0_b[3] == 0.0f);
  EXPECT_EQ(w.cand2_b[5], 1e-40f);
  EXPECT_EQ(w.cand4_b[0], 1.5f);

  const HeadWeights small = loadHeadPt(bytesOf(teeth("head/blend8.pt")));
  EXPECT_TRUE(small.syn0_w.empty() && small.syn0_b.empty() && small.syn2_w.empty() && small.syn2_b.empty());
  EXPECT_TRUE(sameBits(small.cand2_w, w.cand2_w));
}

TEST(HeadWeights, TheBundlesHeadLoadsThroughTheMembers) {
  char err[256];
  le_tessera_members* m = le_tessera_members_open(teeth("bundle").c_str(), err, sizeof err);
  ASSERT_NE(m, nullptr) << err;
  const HeadWeights w = loadHeadPt(le_tessera_members_head_pt(m), static_cast<size_t>(le_tessera_members_head_pt_len(m)));
  EXPECT_EQ(w.params(), 4082);
  const ServeConfig c = ServeConfig::fromHeadMemberJson(le_tessera_members_head_json(m));
  EXPECT_EQ(c.K, 8);
  le_tessera_members_close(m);
}

struct Refusal {
  const char* name;
  const char* words;
};

const Refusal kHeadRefusals[] = {
    {"not_zip", "teeth: head .pt is not a zip"},
    {"no_eocd", "teeth: head .pt has no zip EOCD"},
    {"central_offset", "teeth: head .pt central directory is malformed"},
    {"central_count", "teeth: head .pt central directory is malformed"},
    {"name_out_of_range", "teeth: head .pt central directory is malformed"},
    {"deflated",
     "teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member"},
    {"local_out_of_range", "teeth: head .pt local header out of range"},
    {"entry_out_of_range", "teeth: head .pt entry out of range"},
    {"entry_compressed_size_out_of_range", "teeth: head .pt entry out of range"},
    {"no_pkl", "teeth: head .pt has no data.pkl"},
    {"no_entries", "teeth: head .pt has no data.pkl"},
    {"opcode_empty_list", "teeth: unsupported pickle opcode 0x5d in head .pt"},
    {"opcode_appends", "teeth: unsupported pickle opcode 0x65 in head .pt"},
    {"pickle_truncated", "teeth: pickle truncated"},
    {"global_truncated", "teeth: pickle truncated"},
    {"binget_range", "teeth: pickle BINGET out of range"},
    {"long_binget_range", "teeth: pickle LONG_BINGET out of range"},
    {"persid_not_storage", "teeth: unexpected persistent id in head .pt"},
    {"persid_short", "teeth: unexpected persistent id in head .pt"},
    {"storage_double", "teeth: head .pt storage is torch DoubleStorage, not torch FloatStorage — refusing to "
                       "reinterpret it"},
    {"callable_other", "teeth: head .pt calls os system — this reader refuses code it does not model"},
    {"rebuild_short", "teeth: malformed _rebuild_tensor_v2"},
    {"empty_state", "teeth: head .pt state_dict is empty"},
    {"empty_pickle", "teeth: head .pt state_dict is empty"},
    {"stack_underflow", "teeth: pickle pops an empty stack in head .pt"},
    {"tuple_without_mark", "teeth: pickle closes a MARK it never set in head .pt"},
    {"name_twice", "teeth: head .pt names 'cand.0.bias' 2 times — ambiguous"},
    {"name_missing", "teeth: head .pt lacks 'cand.2.bias'"},
    {"syn_partial", "teeth: head .pt lacks 'syn.0.bias'"},
    {"shape_wrong", "teeth: head 'cand.2.weight' has shape [16,16,3,] — not the BlendHead(16) arch"},
    {"shape_scalar", "teeth: head 'syn.2.bias' has shape [] — not the BlendHead(16) arch"},
    {"storage_missing", "teeth: head storage 9 missing"},
    {"storage_small", "teeth: head storage 2 too small"},
    {"storage_offset_past", "teeth: head storage 0 too small"},
};

TEST(HeadWeights, EveryRefusalWordForWord) {
  for (const Refusal& r : kHeadRefusals) {
    SCOPED_TRACE(r.name);
    const std::vector<uint8_t> bytes = bytesOf(teeth(std::string("head/refuse/") + r.name + ".pt"));
    EXPECT_EQ(le::test::errorOf([&] { loadHeadPt(bytes); }), r.words);
  }
  EXPECT_EQ(le::test::errorOf([] { loadHeadPt(nullptr, 100); }), "teeth: head .pt is not a zip");
}

TEST(HeadWeights, PicklesAHostileAuthorCouldWrite) {
  using le::tessera::headpt::Unpickler;
  auto run = [](const std::string& pkl) {
    return le::test::errorOf([&] {
      Unpickler u(reinterpret_cast<const uint8_t*>(pkl.data()), pkl.size());
      u.run();
    });
  };
  // A memo index far beyond any put is only a number: no memory follows it.
  EXPECT_EQ(run(std::string("N") + "r\xff\xff\xff\x7f" + "j\xff\xff\xff\x7f" + "j\xff\xff\xff\xff"),
            "teeth: pickle LONG_BINGET out of range");
  // A mark whose stack has since been popped below it.
  EXPECT_EQ(run("NN(0t"), "teeth: unsupported pickle opcode 0x30 in head .pt");
  EXPECT_EQ(run("NN(st"), "teeth: pickle closes a MARK above what is left of its stack in head .pt");
  EXPECT_EQ(run("\x86"), "teeth: pickle pops an empty stack in head .pt");
  EXPECT_EQ(run("NR"), "teeth: pickle pops an empty stack in head .pt");
  EXPECT_EQ(run("X\xff\xff\xff\xff"), "teeth: pickle truncated");
  EXPECT_EQ(run("J\x01\x02"), "teeth: pickle truncated");
  EXPECT_EQ(run("\x80"), "teeth: pickle truncated");
  // Tuples nested one inside the next, far deeper than any checkpoint.
  EXPECT_EQ(run(")" + std::string(100000, '\x85')), "teeth: pickle nests values deeper than 32 levels in head .pt");
  // A tuple of a hundred thousand copies of one value costs a pointer each.
  std::string wide = "Nq";
  wide += '\0';
  wide += '(';
  for (int i = 0; i < 100000; ++i) {
    wide += 'h';
    wide += '\0';
  }
  wide += "t.";
  EXPECT_EQ(run(wide), "(no exception)");
  // Far more values than a blend head holds.
  EXPECT_EQ(run(std::string(70000, 'N')),
            "teeth: head .pt pickle builds more than 65536 values — no blend head is that large");
}

// xorshift64*: the corruptions are the same on every run.
using Rng = le::test::XorShift64;

uint32_t le32(const std::vector<uint8_t>& b, size_t at) {
  return static_cast<uint32_t>(b[at]) | (static_cast<uint32_t>(b[at + 1]) << 8) |
         (static_cast<uint32_t>(b[at + 2]) << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

void put32(std::vector<uint8_t>& b, size_t at, uint32_t v) {
  for (int k = 0; k < 4; ++k) b[at + static_cast<size_t>(k)] = static_cast<uint8_t>(v >> (8 * k));
}

// Where the structures of the checkpoint lie, found by their signatures and
// by walking the pickle's opcodes, so that corruptions can aim at bytes the
// readers have to interpret.
struct Layout {
  std::vector<size_t> end;      // end records: exactly one
  std::vector<size_t> central;  // central entries
  std::vector<size_t> local;    // local headers
  size_t pickle = 0, pickleEnd = 0;
  std::vector<size_t> opcodes;  // every opcode of the pickle, file offsets
  std::vector<size_t> unicode;  // the BINUNICODE opcodes among them
  std::vector<size_t> binget;   // the BINGET opcodes
  size_t puts = 0;              // memo entries the pickle puts
};

Layout layoutOf(const std::vector<uint8_t>& b) {
  Layout l;
  for (size_t i = 0; i + 4 <= b.size(); ++i) {
    const uint32_t sig = le32(b, i);
    if (sig == 0x06054B50) l.end.push_back(i);
    if (sig == 0x02014B50) l.central.push_back(i);
    if (sig == 0x04034B50) l.local.push_back(i);
  }
  for (const auto& e : le::tessera::headpt::readZipDirectory(b.data(), b.size())) {
    if (e.name == "archive/data.pkl") {
      l.pickle = e.offset;
      l.pickleEnd = e.offset + e.size;
    }
  }
  // Operand lengths of the opcodes a checkpoint is written with.
  for (size_t at = l.pickle; at < l.pickleEnd;) {
    const uint8_t op = b[at];
    l.opcodes.push_back(at);
    size_t next = at + 1;
    switch (op) {
      case 0x80: case 0x4B: case 0x68: case 0x71: next += 1; break;
      case 0x4D: next += 2; break;
      case 0x4A: case 0x6A: case 0x72: next += 4; break;
      case 0x58: next += 4 + le32(b, at + 1); break;
      case 0x63:
        for (int line = 0; line < 2; ++line) {
          while (b[next] != '\n') ++next;
          ++next;
        }
        break;
      default: break;
    }
    if (op == 0x58) l.unicode.push_back(at);
    if (op == 0x68) l.binget.push_back(at);
    if (op == 0x71 || op == 0x72) ++l.puts;
    at = next;
  }
  return l;
}

// Damage that leaves no valid checkpoint: every one must be refused, and
// where the words follow from the damage alone they are checked.
TEST(HeadWeights, SeededCorruptionsOfTheFormatAreAllRefused) {
  const std::vector<uint8_t> good = bytesOf(teeth("head/blend16.pt"));
  const Layout l = layoutOf(good);
  ASSERT_EQ(l.end.size(), 1u);  // so a cut anywhere leaves none
  ASSERT_EQ(l.central.size(), 12u);
  ASSERT_EQ(l.local.size(), 12u);
  ASSERT_GT(l.opcodes.size(), 100u);
  ASSERT_GT(l.unicode.size(), 10u);
  ASSERT_GT(l.binget.size(), 10u);
  ASSERT_LT(l.puts, 255u);  // so BINGET 255 is out of range anywhere

  const uint8_t known[] = {0x80, 0x28, 0x29, 0x4A, 0x4B, 0x4D, 0x4E, 0x51, 0x52, 0x58, 0x62, 0x63, 0x68,
                           0x6A, 0x71, 0x72, 0x73, 0x74, 0x75, 0x7D, 0x85, 0x86, 0x87, 0x88, 0x89, 0x2E};
  Rng rng{0x5EEDC0DEULL};
  constexpr int kRuns = 420;
  int refused = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::vector<uint8_t> b = good;
    std::string words;  // empty: any refusal
    switch (run % 7) {
      case 0:  // cut short anywhere
        b.resize(rng.below(good.size()));
        break;
      case 1: {  // the directory somewhere else
        uint32_t at = static_cast<uint32_t>(rng.next());
        if (rng.below(2)) at = static_cast<uint32_t>(l.central[1 + rng.below(11)] + rng.below(3));
        if (at == l.central[0]) ++at;
        put32(b, l.end[0] + 16, at);
        words = "teeth: head .pt central directory is malformed";
        break;
      }
      case 2: {  // a compression method
        const size_t at = l.central[rng.below(l.central.size())] + 10;
        b[at] = static_cast<uint8_t>(1 + rng.below(255));
        words = "teeth: head .pt entry is DEFLATEd; torch writes ZIP_STORED — refusing to guess at a compressed member";
        break;
      }
      case 3: {  // a local header or an entry's size past the end
        const size_t entry = l.central[rng.below(l.central.size())];
        const uint32_t past = static_cast<uint32_t>(good.size() - 29 + rng.below(1u << 30));
        if (rng.below(2)) {
          put32(b, entry + 42, past);
          words = "teeth: head .pt local header out of range";
        } else {
          put32(b, entry + 24, past);
          words = "teeth: head .pt entry out of range";
        }
        break;
      }
      case 4: {  // an opcode replaced by one the reader does not know
        const size_t at = l.opcodes[rng.below(l.opcodes.size())];
        uint8_t op;
        do op = static_cast<uint8_t>(rng.next()); while (std::find(std::begin(known), std::end(known), op) != std::end(known));
        b[at] = op;
        char hex[8];
        std::snprintf(hex, sizeof hex, "%02x", op);
        words = std::string("teeth: unsupported pickle opcode 0x") + hex + " in head .pt";
        break;
      }
      case 5: {  // a string longer than the pickle
        const size_t at = l.unicode[rng.below(l.unicode.size())];
        put32(b, at + 1, static_cast<uint32_t>(l.pickleEnd - at + rng.below(1u << 31)));
        words = "teeth: pickle truncated";
        break;
      }
      case 6: {  // a memo fetch of an entry never put
        b[l.binget[rng.below(l.binget.size())] + 1] = static_cast<uint8_t>(l.puts + rng.below(256 - l.puts));
        words = "teeth: pickle BINGET out of range";
        break;
      }
    }
    const std::string error = le::test::errorOf([&] { loadHeadPt(b); });
    if (words.empty()) {
      EXPECT_EQ(error.rfind("teeth: head .pt ", 0), 0u) << "run " << run << ": " << error;
    } else {
      EXPECT_EQ(error, words) << "run " << run;
    }
    refused += error.rfind("teeth: ", 0) == 0;
  }
  EXPECT_EQ(refused, kRuns);
}

// Damage anywhere, including bytes a reader never looks at (a stride, a
// date, the version entry): a refusal, or a checkpoint that still holds
// together. Never a crash, a hang or a read outside the file.
TEST(HeadWeights, SeededDamageAnywhereEndsInARefusalOrAWholeCheckpoint) {
  const std::vector<uint8_t> good = bytesOf(teeth("head/blend16.pt"));
  const Layout l = layoutOf(good);
  Rng rng{0xD00DULL};
  constexpr int kRuns = 300;
  int refused = 0, loaded = 0;
  for (int run = 0; run < kRuns; ++run) {
    std::vector<uint8_t> b = good;
    const bool inPickle = run % 2 == 0;
    const size_t from = inPickle ? l.pickle : 0;
    const size_t span = inPickle ? l.pickleEnd - l.pickle : good.size();
    for (size_t k = 1 + rng.below(8); k > 0; --k) {
      const size_t at = from + rng.below(span);
      if (rng.below(3) == 0) {
        for (size_t i = at; i < std::min(at + 4, b.size()); ++i) b[i] = 0xFF;
      } else {
        b[at] ^= static_cast<uint8_t>(1 + rng.below(255));
      }
    }
    try {
      const HeadWeights w = loadHeadPt(b);
      EXPECT_TRUE(w.params() == 4082 || w.params() == 3489) << "run " << run;
      ++loaded;
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()).rfind("teeth: ", 0), 0u) << "run " << run << ": " << e.what();
      ++refused;
    }
  }
  std::printf("[damage] %d runs: %d refused, %d still whole checkpoints\n", kRuns, refused, loaded);
  EXPECT_EQ(refused + loaded, kRuns);
  EXPECT_GT(refused, 0);
}

TEST(HeadWeights, RandomOpcodeStreamsNeverEscapeTheData) {
  // Streams drawn from the opcodes the reader knows, with random operands:
  // every one ends at STOP, at the end, or in a refusal.
  using le::tessera::headpt::Unpickler;
  const uint8_t ops[] = {0x80, 0x28, 0x29, 0x4A, 0x4B, 0x4D, 0x4E, 0x51, 0x52, 0x58, 0x62, 0x63, 0x68,
                         0x6A, 0x71, 0x72, 0x73, 0x74, 0x75, 0x7D, 0x85, 0x86, 0x87, 0x88, 0x89};
  Rng rng{0xFEEDULL};
  int refused = 0;
  for (int run = 0; run < 400; ++run) {
    std::vector<uint8_t> pkl;
    const size_t n = 1 + rng.below(200);
    for (size_t k = 0; k < n; ++k) {
      pkl.push_back(ops[rng.below(sizeof ops)]);
      for (size_t operand = rng.below(4); operand > 0; --operand) pkl.push_back(static_cast<uint8_t>(rng.below(8)));
    }
    try {
      Unpickler u(pkl.data(), pkl.size());
      u.run();
    } catch (const std::runtime_error& e) {
      EXPECT_EQ(std::string(e.what()).rfind("teeth: ", 0), 0u) << e.what();
      ++refused;
    }
  }
  EXPECT_GT(refused, 0);
}

TEST(ServeConfig, ReadsTheMemberAndKeepsTheFixedValues) {
  const ServeConfig c = ServeConfig::fromHeadMemberJson(le::test::readFile(teeth("config/full.json")));
  EXPECT_EQ(c.kshort, 48);
  EXPECT_EQ(c.aperture_tol, 0.25);
  EXPECT_EQ(c.cut, 24);
  EXPECT_EQ(c.K, 8);
  EXPECT_EQ(c.hysteresis, 3);
  EXPECT_EQ(c.lookahead, 2);
  EXPECT_EQ(c.luma_min, 100.0);
  EXPECT_EQ(c.rg_max, 25.0);
  EXPECT_EQ(c.min_mask_px, 32);
  EXPECT_EQ(c.mask_decay, 0.6);
  EXPECT_TRUE(c.lookahead_on);
  const ServeConfig d;  // built without a member
  EXPECT_EQ(d.kshort, 512);
  EXPECT_EQ(d.cut, 96);
  EXPECT_EQ(d.K, 64);
  EXPECT_EQ(d.aperture_tol, 0.3);

  for (const char* name : {"no_decode", "decode_not_object", "decode_without_key", "envelope_close"}) {
    SCOPED_TRACE(name);
    EXPECT_EQ(ServeConfig::fromHeadMemberJson(le::test::readFile(teeth(std::string("config/") + name + ".json"))).K, 8);
  }
  // Truncation toward zero, and a string reads as 0.
  const ServeConfig f = ServeConfig::fromHeadMemberJson(le::test::readFile(teeth("config/fractions.json")));
  EXPECT_EQ(f.kshort, 47);
  EXPECT_EQ(f.cut, -3);
  EXPECT_EQ(f.lookahead, 0);
}

TEST(ServeConfig, EveryRefusalWordForWord) {
  const std::string blocks =
      "teeth: tessera_head.v1 config lacks the retrieval/temporal blocks of the v1 schema — refusing to serve defaults";
  const std::string envelope =
      "teeth: member envelope_clamp_255 != the envelope of record (12/255) — the envelope is a gated quantity";
  const std::pair<const char*, std::string> cases[] = {
      {"envelope_far", envelope},
      {"envelope_string", envelope},
      {"no_retrieval", blocks},
      {"temporal_not_object", blocks},
      {"not_object", blocks},
      {"missing_cut", "teeth: member JSON lacks key 'cut'"},
      {"missing_lookahead", "teeth: member JSON lacks key 'lookahead'"},
      {"not_json", "teeth: JSON truncated"},  // the parser's own words pass through
  };
  for (const auto& [name, words] : cases) {
    SCOPED_TRACE(name);
    const std::string text = le::test::readFile(teeth(std::string("config/refuse/") + name + ".json"));
    EXPECT_EQ(le::test::errorOf([&] { ServeConfig::fromHeadMemberJson(text); }), words);
  }
}

}  // namespace
