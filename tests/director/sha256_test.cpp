// SHA-256 against the published test vectors and against Python's hashlib.
#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "director/rewrites/sha256.h"
#include "tests/support/test_support.h"

namespace {

std::string hexOf(const std::string& s) { return le::sha256Hex(s.data(), s.size()); }

std::vector<uint8_t> pattern(size_t n) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 131 + 7);
  return v;
}

TEST(Sha256, PublishedVectors) {
  EXPECT_EQ(hexOf(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(hexOf("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(hexOf("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  EXPECT_EQ(hexOf(std::string(1000000, 'a')), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256, AgreesWithHashlibAcrossBlockBoundaries) {
  std::istringstream lines(le::test::readFile(le::test::dataPath("graphs/sha256_vectors.txt")));
  size_t n = 0, count = 0;
  std::string want;
  while (lines >> n >> want) {
    const std::vector<uint8_t> data = pattern(n);
    EXPECT_EQ(le::sha256Hex(data.data(), data.size()), want) << n << " bytes";
    ++count;
  }
  EXPECT_GE(count, 18u);
}

TEST(Sha256, StreamingInPiecesGivesTheSameDigest) {
  const std::vector<uint8_t> data = pattern(1000);
  const std::string whole = le::sha256Hex(data.data(), data.size());
  for (size_t piece : {1u, 7u, 63u, 64u, 65u, 333u}) {
    le::Sha256 s;
    for (size_t off = 0; off < data.size(); off += piece)
      s.update(data.data() + off, std::min(piece, data.size() - off));
    static const char kHex[] = "0123456789abcdef";
    std::string hex;
    for (uint8_t b : s.finish()) hex += {kHex[b >> 4], kHex[b & 15]};
    EXPECT_EQ(hex, whole) << "pieces of " << piece;
  }
}

}  // namespace
