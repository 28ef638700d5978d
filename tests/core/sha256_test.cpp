// SHA-256, HMAC-SHA256 (the published RFC 4231 vectors), PBKDF2 and the hex helpers.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "core/sha256.h"

namespace qx {
namespace {

std::string Hex(const Sha256Digest& d) {
  return HexEncode(std::string_view(reinterpret_cast<const char*>(d.data()), d.size()));
}

TEST(Sha256Test, KnownDigests) {
  EXPECT_EQ(Hex(Sha256::Hash("")),
            "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
  EXPECT_EQ(Hex(Sha256::Hash("abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(Hex(Sha256::Hash("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq")),
            "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
  // Fed in uneven pieces, across block boundaries.
  Sha256 h;
  const std::string million(1'000'000, 'a');
  for (size_t at = 0; at < million.size();) {
    const size_t n = std::min<size_t>(777, million.size() - at);
    h.Update(million.data() + at, n);
    at += n;
  }
  EXPECT_EQ(Hex(h.Final()), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
}

TEST(Sha256Test, HmacMatchesPublishedVectors) {
  EXPECT_EQ(Hex(HmacSha256(std::string(20, '\x0b'), "Hi There")),
            "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7");
  EXPECT_EQ(Hex(HmacSha256("Jefe", "what do ya want for nothing?")),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
  EXPECT_EQ(Hex(HmacSha256(std::string(20, '\xaa'), std::string(50, '\xdd'))),
            "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe");
  std::string key;
  for (char c = 1; c <= 25; ++c) key.push_back(c);
  EXPECT_EQ(Hex(HmacSha256(key, std::string(50, '\xcd'))),
            "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b");
  // A key longer than one block is hashed first; so is a message longer than one block.
  EXPECT_EQ(Hex(HmacSha256(std::string(131, '\xaa'),
                           "Test Using Larger Than Block-Size Key - Hash Key First")),
            "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54");
  EXPECT_EQ(Hex(HmacSha256(std::string(131, '\xaa'),
                           "This is a test using a larger than block-size key and a larger than "
                           "block-size data. The key needs to be hashed before being used by the "
                           "HMAC algorithm.")),
            "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2");
}

TEST(Sha256Test, Pbkdf2MatchesPublishedVectors) {
  EXPECT_EQ(HexEncode(Pbkdf2HmacSha256("password", "salt", 1, 32)),
            "120fb6cffcf8b32c43e7225256c4f837a86548c92ccc35480805987cb70be17b");
  EXPECT_EQ(HexEncode(Pbkdf2HmacSha256("password", "salt", 4096, 32)),
            "c5e478d59288c841aa530db6845c4c8d962893a001ce4e11a4963873aa98134a");
  // More than one output block.
  EXPECT_EQ(HexEncode(Pbkdf2HmacSha256("passwd", "salt", 1, 64)),
            "55ac046e56e3089fec1691c22544b605f94185216dde0465e68b9d57c20dacbc"
            "49ca9cccf179b645991664b39d77ef317c71b845b1e30bd509112041d3a19783");
}

TEST(Sha256Test, HexAndComparison) {
  std::string out;
  EXPECT_TRUE(HexDecode("00ff7A", out));
  EXPECT_EQ(out, std::string("\x00\xff\x7a", 3));
  EXPECT_FALSE(HexDecode("abc", out));
  EXPECT_FALSE(HexDecode("zz", out));
  EXPECT_TRUE(ConstantTimeEquals("abc", "abc"));
  EXPECT_FALSE(ConstantTimeEquals("abc", "abd"));
  EXPECT_FALSE(ConstantTimeEquals("abc", "abcd"));
}

}  // namespace
}  // namespace qx
