#include "transport/wx_codec.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

namespace corvane {
namespace {

std::string FromHex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}

struct Result {
  std::optional<std::string> bytes;
  int32_t length = -12345;  // left alone unless Transform sets it
};

Result Transform(std::string_view in, int direction, bool brew = false) {
  wxCodec codec;
  codec.brewMode = brew;
  Result r;
  r.bytes = codec.Transform(in.data(), static_cast<int32_t>(in.size()), &r.length, direction);
  return r;
}

// Wire forms printed by tests/transport/cipher_reference.py.
TEST(WxCodecTest, EncodesEntryLogsAsTheReferenceModelDoes) {
  const struct {
    std::string_view plain;
    std::string_view wireHex;
  } cases[] = {
      {"1210sysREQUEST10", "efdb0fbad861ef82cd0f534eac93925500"},
      {"1210sysREQUEST10217Command18ListMail",
       "efdb0fbad861ef82cd0f534eac939255bbd3ff1829d4abe1c6d6644fae12df60a7dbceb078ad77e704"},
      {"A", "0c7f96138a9d05b607"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.plain);
    EXPECT_EQ(wxCodec::Encode(c.plain), FromHex(c.wireHex));
    EXPECT_EQ(wxCodec::Decode(FromHex(c.wireHex)), c.plain);
  }
}

TEST(WxCodecTest, PadsToWholeBlocksWithACountByteInTheClear) {
  Result full = Transform("ABCDEFGH", wxCodec::kEncode);
  ASSERT_TRUE(full.bytes);
  EXPECT_EQ(full.length, 9);
  EXPECT_EQ(full.bytes->size(), 9u);
  EXPECT_EQ(full.bytes->back(), 0);

  Result one = Transform("A", wxCodec::kEncode);
  ASSERT_TRUE(one.bytes);
  EXPECT_EQ(one.length, 9);
  EXPECT_EQ(one.bytes->back(), 7);

  Result seventeen = Transform(std::string(17, 'x'), wxCodec::kEncode);
  ASSERT_TRUE(seventeen.bytes);
  EXPECT_EQ(seventeen.length, 25);
  EXPECT_EQ(seventeen.bytes->back(), 7);

  Result back = Transform(*full.bytes, wxCodec::kDecode);
  ASSERT_TRUE(back.bytes);
  EXPECT_EQ(back.length, 8);
  EXPECT_EQ(back.bytes->substr(0, 8), "ABCDEFGH");
  back = Transform(*one.bytes, wxCodec::kDecode);
  ASSERT_TRUE(back.bytes);
  EXPECT_EQ(back.length, 1);
  EXPECT_EQ(back.bytes->substr(0, 1), "A");
}

TEST(WxCodecTest, DecodedDataReadsAsZeroTerminated) {
  Result r = Transform(wxCodec::Encode("Command"), wxCodec::kDecode);
  ASSERT_TRUE(r.bytes);
  EXPECT_EQ(r.length, 7);
  EXPECT_EQ(std::strlen(r.bytes->c_str()), 7u);
  // Full blocks: the clear pad count 0 is the terminator.
  r = Transform(wxCodec::Encode("12345678"), wxCodec::kDecode);
  ASSERT_TRUE(r.bytes);
  EXPECT_EQ(std::strlen(r.bytes->c_str()), 8u);
}

TEST(WxCodecTest, IdenticalBlocksEncipherIdentically) {
  const std::string aligned = "SameText12345678SameText";
  const std::string ecb = wxCodec::Encode(aligned);
  EXPECT_EQ(ecb.substr(0, 8), ecb.substr(16, 8));
  EXPECT_NE(ecb.substr(0, 8), ecb.substr(8, 8));
  EXPECT_NE(ecb.substr(0, 8), aligned.substr(0, 8));
}

TEST(WxCodecTest, RoundTripsRandomPayloads) {
  std::mt19937 random(42);
  std::vector<size_t> sizes;
  for (size_t n = 1; n <= 100; ++n) sizes.push_back(n);
  sizes.push_back(16 * 1024);
  sizes.push_back(20480);
  for (size_t size : sizes) {
    std::string plain(size, '\0');
    for (char& c : plain) c = static_cast<char>(random());
    plain[0] = 'x';  // never a "rapid" marker by chance
    Result wire = Transform(plain, wxCodec::kEncode);
    ASSERT_TRUE(wire.bytes) << size;
    ASSERT_EQ(static_cast<size_t>(wire.length), (size + 7) / 8 * 8 + 1) << size;
    Result back = Transform(*wire.bytes, wxCodec::kDecode);
    ASSERT_TRUE(back.bytes) << size;
    ASSERT_EQ(back.length, static_cast<int32_t>(size));
    ASSERT_EQ(back.bytes->substr(0, size), plain) << size;
  }
}

TEST(WxCodecTest, NothingComesOfEmptyOrMissingInput) {
  Result r = Transform("", wxCodec::kEncode);
  EXPECT_FALSE(r.bytes);
  EXPECT_EQ(r.length, -12345);

  wxCodec codec;
  int32_t length = -12345;
  EXPECT_FALSE(codec.Transform(nullptr, 8, &length, wxCodec::kEncode));
  EXPECT_FALSE(codec.Transform("ABCDEFGH", -1, &length, wxCodec::kDecode));
  EXPECT_EQ(length, -12345);
  EXPECT_FALSE(codec.Transform("ABCDEFGH", 8, nullptr, wxCodec::kEncode));
  EXPECT_EQ(wxCodec::Encode(""), "");
  EXPECT_EQ(wxCodec::Decode(""), "");
}

TEST(WxCodecTest, RapidMarkerIsReplacedAndShifted) {
  Result enc = Transform("rapidABC", wxCodec::kEncode);
  ASSERT_TRUE(enc.bytes);
  EXPECT_EQ(*enc.bytes, "rapidBCD");
  EXPECT_EQ(enc.length, 8);

  Result dec = Transform("rapidBCD", wxCodec::kDecode);
  ASSERT_TRUE(dec.bytes);
  EXPECT_EQ(dec.bytes, "ABC");
  EXPECT_EQ(dec.length, 3);

  // Byte values wrap around.
  EXPECT_EQ(wxCodec::Encode(std::string("rapid\xff\x00", 7)), std::string("rapid\x00\x01", 7));
  EXPECT_EQ(wxCodec::Decode(std::string("rapid\x00\x01", 7)), std::string("\xff\x00", 2));

  // Encoding keeps the marker, decoding drops it.
  EXPECT_EQ(wxCodec::Decode(wxCodec::Encode("rapidList")), "List");
}

TEST(WxCodecTest, RapidMarkerMustBeExact) {
  Result bare = Transform("rapid", wxCodec::kDecode);
  ASSERT_TRUE(bare.bytes);
  EXPECT_EQ(bare.length, 0);
  EXPECT_EQ(wxCodec::Encode("Rapid").size(), 9u);  // enciphered
  EXPECT_EQ(wxCodec::Encode("rapi").size(), 9u);   // too short to hold the marker
}

TEST(WxCodecTest, BrewModeShiftsBehindItsMarker) {
  Result enc = Transform("ABC", wxCodec::kEncode, true);
  ASSERT_TRUE(enc.bytes);
  EXPECT_EQ(*enc.bytes, "brewBCD");
  EXPECT_EQ(enc.length, 7);

  Result dec = Transform("brewBCD", wxCodec::kDecode, true);
  ASSERT_TRUE(dec.bytes);
  EXPECT_EQ(dec.bytes, "ABC");
  EXPECT_EQ(dec.length, 3);

  // The marker is not checked, and brew wins over a "rapid" input.
  dec = Transform("XXXXBCD", wxCodec::kDecode, true);
  EXPECT_EQ(dec.bytes, "ABC");
  enc = Transform("rapidA", wxCodec::kEncode, true);
  EXPECT_EQ(enc.bytes, "brewsbqjeB");

  // Input shorter than the marker leaves a negative length and no bytes.
  dec = Transform("br", wxCodec::kDecode, true);
  ASSERT_TRUE(dec.bytes);
  EXPECT_EQ(dec.length, -2);
  EXPECT_TRUE(dec.bytes->empty());
}

TEST(WxCodecTest, BogusPadCountIsReturnedAsComputed) {
  std::string wire = wxCodec::Encode("ABCDEFGH");
  wire.back() = static_cast<char>(200);
  Result r = Transform(wire, wxCodec::kDecode);
  ASSERT_TRUE(r.bytes);
  EXPECT_EQ(r.length, 8 - 200);
  EXPECT_EQ(r.bytes->substr(0, 8), "ABCDEFGH");
  EXPECT_EQ(wxCodec::Decode(wire), "");

  wire.back() = 3;
  EXPECT_EQ(wxCodec::Decode(wire), "ABCDE");
}

TEST(WxCodecTest, DecodeOfOneByteIsACipherFailure) {
  // The cipher gets no bytes to work on.
  Result r = Transform(std::string_view("\0", 1), wxCodec::kDecode);
  EXPECT_FALSE(r.bytes);
  EXPECT_EQ(r.length, 0);
}

TEST(WxCodecTest, DecodeOfPartBlocksStaysInsideTheInput) {
  // The whole blocks still decipher; the part block behind them is deciphered
  // as if zero-filled and cut, never read or written past the input.
  const std::string wire = wxCodec::Encode("ABCDEFGHIJKLMNOP");  // 16 + 1
  std::string cut = wire.substr(0, 12) + std::string(1, '\0');
  Result r = Transform(cut, wxCodec::kDecode);
  ASSERT_TRUE(r.bytes);
  EXPECT_EQ(r.bytes->size(), 13u);
  EXPECT_EQ(r.length, 12);
  EXPECT_EQ(r.bytes->substr(0, 8), "ABCDEFGH");

  for (size_t size = 2; size < 9; ++size) {
    Result small = Transform(std::string(size, '\x01'), wxCodec::kDecode);
    ASSERT_TRUE(small.bytes);
    EXPECT_EQ(small.length, static_cast<int32_t>(size) - 2);
  }
}

}  // namespace
}  // namespace corvane
