#include "transport/wx_cipher.h"

#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

namespace corvane {
namespace {

std::vector<uint8_t> FromHex(std::string_view hex) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<uint8_t>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

std::vector<uint8_t> Bytes(std::string_view text) {
  return {text.begin(), text.end()};
}

std::vector<uint8_t> Cipher(const wxCipher& cipher, std::vector<uint8_t> in, int direction) {
  std::vector<uint8_t> out(in.size());
  EXPECT_TRUE(cipher.CipherBuffer(out.data(), in.data(), in.size(), direction));
  return out;
}

std::vector<uint8_t> RandomBytes(std::mt19937& random, size_t size) {
  std::vector<uint8_t> out(size);
  for (auto& b : out) b = static_cast<uint8_t>(random());
  return out;
}

// Expected outputs printed by tests/transport/cipher_reference.py, a bit-by-bit
// model written from the cipher's definition (and checked there against the
// published DES example with the standard conventions switched back on).
struct Vector {
  std::string_view key;  // raw key bytes
  std::string_view plainHex;
  std::string_view cipherHex;
};

const Vector kVectors[] = {
    // Single mode, 8-byte keys.
    {"\x13\x34\x57\x79\x9B\xBC\xDF\xF1", "0123456789abcdef", "d172a2135bdccb97"},
    {std::string_view("\0\0\0\0\0\0\0\0", 8), "0000000000000000", "acec93d9a7c03c98"},
    // Triple mode with the gateway key.
    {wxCipher::kGatewayKey, "0000000000000000", "123edb8274596963"},
    {wxCipher::kGatewayKey, "3132333435363738", "e11c32840d0976a7"},  // "12345678"
    {wxCipher::kGatewayKey, "436f6d6d616e6400", "2cb87d0cc624a803"},  // "Command\0"
};

TEST(WxCipherTest, MatchesReferenceModelBothWays) {
  for (const Vector& v : kVectors) {
    SCOPED_TRACE(v.plainHex);
    const wxCipher cipher(v.key);
    EXPECT_EQ(Cipher(cipher, FromHex(v.plainHex), 1), FromHex(v.cipherHex));
    EXPECT_EQ(Cipher(cipher, FromHex(v.cipherHex), 0), FromHex(v.plainHex));
  }
}

TEST(WxCipherTest, DoesNotReproduceStandardDes) {
  // The published DES examples for these keys and blocks.
  const wxCipher fips(std::string_view("\x13\x34\x57\x79\x9B\xBC\xDF\xF1"));
  EXPECT_NE(Cipher(fips, FromHex("0123456789abcdef"), 1), FromHex("85e813540f0ab405"));
  const wxCipher zero(std::string_view("\0\0\0\0\0\0\0\0", 8));
  EXPECT_NE(Cipher(zero, FromHex("0000000000000000"), 1), FromHex("8ca64de9c1b123a7"));
}

TEST(WxCipherTest, KeyLengthSelectsTripleMode) {
  EXPECT_FALSE(wxCipher("").tripleMode());
  EXPECT_FALSE(wxCipher("12345678").tripleMode());
  EXPECT_TRUE(wxCipher("123456789").tripleMode());
  EXPECT_TRUE(wxCipher::Gateway().tripleMode());
  EXPECT_TRUE(wxCipher("0123456789abcdefEXTRA").tripleMode());
}

TEST(WxCipherTest, ShortAndLongKeysAreZeroFilledOrCut) {
  const std::vector<uint8_t> block = Bytes("SomeData");
  EXPECT_EQ(Cipher(wxCipher("ab"), block, 1),
            Cipher(wxCipher(std::string_view("ab\0\0\0\0\0\0", 8)), block, 1));
  EXPECT_EQ(Cipher(wxCipher("123456789"), block, 1),
            Cipher(wxCipher(std::string_view("123456789\0\0\0\0\0\0\0", 16)), block, 1));
  EXPECT_EQ(Cipher(wxCipher("0123456789abcdefEXTRA"), block, 1),
            Cipher(wxCipher("0123456789abcdef"), block, 1));
  EXPECT_NE(Cipher(wxCipher("0123456789abcdef"), block, 1),
            Cipher(wxCipher("0123456789abcdeX"), block, 1));
}

TEST(WxCipherTest, TripleModeWithEqualHalvesIsSingleMode) {
  // E(k) D(k) E(k) is E(k): a check that the middle pass truly inverts.
  const std::vector<uint8_t> data = Bytes("Two blocks of data here!");
  EXPECT_EQ(Cipher(wxCipher("mnopqrstmnopqrst"), data, 1), Cipher(wxCipher("mnopqrst"), data, 1));
  EXPECT_EQ(Cipher(wxCipher("mnopqrstmnopqrst"), data, 0), Cipher(wxCipher("mnopqrst"), data, 0));
}

TEST(WxCipherTest, KeyBytesLoseTheirTopBitNotTheirLowest) {
  // Bits are numbered from the least significant, so the eight bits the key
  // schedule drops are each byte's most significant bit.
  const std::vector<uint8_t> block = Bytes("12345678");
  std::string top = "mnopqrst";
  for (char& c : top) c = static_cast<char>(c | 0x80);
  EXPECT_EQ(Cipher(wxCipher("mnopqrst"), block, 1), Cipher(wxCipher(top), block, 1));
  EXPECT_NE(Cipher(wxCipher("mnopqrst"), block, 1), Cipher(wxCipher("lnopqrst"), block, 1));
}

TEST(WxCipherTest, ManyBlocksMatchBlockByBlockAndRoundTrip) {
  std::mt19937 random(7);
  for (const char* key : {"mnopqrst", "mnopqrst%@517ghj"}) {
    const wxCipher cipher(key);
    // 37 blocks: several groups processed together plus single blocks after.
    const std::vector<uint8_t> plain = RandomBytes(random, 37 * 8);
    const std::vector<uint8_t> whole = Cipher(cipher, plain, 1);
    for (size_t pos = 0; pos < plain.size(); pos += 8) {
      std::vector<uint8_t> one(plain.begin() + pos, plain.begin() + pos + 8);
      EXPECT_EQ(Cipher(cipher, one, 1),
                std::vector<uint8_t>(whole.begin() + pos, whole.begin() + pos + 8));
    }
    EXPECT_EQ(Cipher(cipher, whole, 0), plain);
    EXPECT_NE(whole, plain);
  }
}

TEST(WxCipherTest, AnyDirectionButOneDeciphers) {
  const wxCipher& cipher = wxCipher::Gateway();
  const std::vector<uint8_t> data = Bytes("ABCDEFGH");
  EXPECT_EQ(Cipher(cipher, data, 7), Cipher(cipher, data, 0));
  EXPECT_NE(Cipher(cipher, data, 7), Cipher(cipher, data, 1));
}

TEST(WxCipherTest, PartBlockIsZeroFilledAndWrittenOnlyAsFarAsTheLength) {
  const wxCipher& cipher = wxCipher::Gateway();
  const std::vector<uint8_t> in = Bytes("ABCDEFGHxyz");  // one block and 3 bytes
  std::vector<uint8_t> out(16, 0xEE);
  ASSERT_TRUE(cipher.CipherBuffer(out.data(), in.data(), in.size(), 1));
  const std::vector<uint8_t> expected =
      Cipher(cipher, Bytes(std::string_view("ABCDEFGHxyz\0\0\0\0\0", 16)), 1);
  EXPECT_TRUE(std::equal(out.begin(), out.begin() + 11, expected.begin()));
  EXPECT_EQ(out[11], 0xEE);
  EXPECT_EQ(out[15], 0xEE);
}

TEST(WxCipherTest, RefusesNullBuffersAndZeroLength) {
  const wxCipher& cipher = wxCipher::Gateway();
  uint8_t in[8] = {1, 2, 3, 4, 5, 6, 7, 8};
  uint8_t out[8] = {};
  EXPECT_FALSE(cipher.CipherBuffer(out, in, 0, 1));
  EXPECT_FALSE(cipher.CipherBuffer(nullptr, in, 8, 1));
  EXPECT_FALSE(cipher.CipherBuffer(out, nullptr, 8, 0));
  EXPECT_EQ(std::vector<uint8_t>(out, out + 8), std::vector<uint8_t>(8, 0));
}

}  // namespace
}  // namespace corvane
