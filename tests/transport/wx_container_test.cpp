// The wire layer and the record container on it: counted strings, the block
// cipher, the codec's three framings, record files, requests parsed into nodes
// and read back through paths and row cursors, and the entry log.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "support/temp_dir.h"
#include "transport/counted_string.h"
#include "transport/wx_cipher.h"
#include "transport/wx_codec.h"
#include "transport/wx_entry_log.h"
#include "transport/wx_node_ref.h"
#include "transport/wx_query.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

using namespace std::literals;
using test::ReadFile;

std::string FromHex(std::string_view hex) {
  std::string out;
  for (size_t i = 0; i + 1 < hex.size(); i += 2) {
    out.push_back(static_cast<char>(std::stoi(std::string(hex.substr(i, 2)), nullptr, 16)));
  }
  return out;
}
std::string Random(size_t size, unsigned seed) {
  std::mt19937 random(seed);
  std::string bytes(size, '\0');
  for (char& c : bytes) c = static_cast<char>(random());
  return bytes;
}
std::string Cipher(const wxCipher& cipher, std::string in, int direction) {
  std::string out(in.size(), '\0');
  auto bytes = [](std::string& s) { return reinterpret_cast<uint8_t*>(s.data()); };
  EXPECT_TRUE(cipher.CipherBuffer(bytes(out), bytes(in), in.size(), direction));
  return out;
}

TEST(CountedStringTest, WritesTheShortestFormAndReadsWithinWhatIsAvailable) {
  // Read from a heap copy of exactly these bytes; a length stops at a
  // non-digit ("21xhello"), the field keeps its width.
  struct Case {
    std::string text;
    size_t size;
    std::optional<std::string_view> data;
  } cases[] = {{"13a\0bc"s, 5, "a\0b"sv},  {"209123456789rest", 12, "123456789"},
               {"200", 3, std::nullopt},   {"21xhello", 4, "h"},
               {"15ab", 4, "ab"},          {"31", 2, std::nullopt},
               {"9", 1, std::nullopt},     {"9999999999xy", 12, "xy"},
               {"03abc", 0, std::nullopt}, {"a3abc", 0, std::nullopt},
               {":3abc", 0, std::nullopt}, {"\0003abc"s, 0, std::nullopt},
               {"", 0, std::nullopt}};
  for (const Case& c : cases) {
    SCOPED_TRACE(c.text);
    auto exact = std::make_unique<char[]>(c.text.size());
    std::copy(c.text.begin(), c.text.end(), exact.get());
    EXPECT_EQ(CountedString::SizeAt(exact.get(), c.text.size()), c.size);
    EXPECT_EQ(CountedString::DataAt(exact.get(), c.text.size()), c.data);
  }
  EXPECT_EQ(CountedString::SizeAt(nullptr, 0), 0u);
  std::string out = "2";
  CountedString::AppendTo(out, "Command");
  EXPECT_EQ(out, "217Command");
}

// Expected outputs printed by tests/transport/cipher_reference.py, a bit-by-bit
// model written from the cipher's definition (and checked there against the
// published DES example with the standard conventions switched back on, which
// this cipher must not reproduce: 85e813540f0ab405 for the first vector).
// Triple mode with the gateway key is held to the model by the codec's vectors.
// Keys are zero-filled, cut to sixteen and lose bit 7, not bit 0; E D E with
// one key is E, since D inverts. Blocks are enciphered on their own, in groups
// and then singly, and any direction but 1 deciphers.
TEST(WxCipherTest, MatchesTheReferenceModelForAnyKeyBlockByBlock) {
  for (auto [key, plain, wire] :
       {std::tuple{"\x13\x34\x57\x79\x9B\xBC\xDF\xF1"s, "0123456789abcdef", "d172a2135bdccb97"},
        {std::string(8, '\0'), "0000000000000000", "acec93d9a7c03c98"}}) {
    EXPECT_EQ(Cipher(wxCipher(key), FromHex(plain), 1), FromHex(wire)) << plain;
    EXPECT_EQ(Cipher(wxCipher(key), FromHex(wire), 0), FromHex(plain)) << plain;
  }
  EXPECT_FALSE(wxCipher("12345678").tripleMode());
  EXPECT_TRUE(wxCipher("123456789").tripleMode());
  for (auto [a, b, same] : {std::tuple{"ab"s, "ab\0\0\0\0\0\0"s, true},
                            {"123456789", "123456789\0\0\0\0\0\0\0"s, true},
                            {"0123456789abcdefEXTRA", "0123456789abcdef", true},
                            {"0123456789abcdef", "0123456789abcdeX", false},
                            {"mnopqrstmnopqrst", "mnopqrst", true},
                            {"mnopqrst", "\xednopqrst", true},
                            {"mnopqrst", "lnopqrst", false}}) {
    for (int direction : {0, 1}) {
      EXPECT_EQ(Cipher(wxCipher(a), "Two blocks of data!", direction) ==
                    Cipher(wxCipher(b), "Two blocks of data!", direction),
                same)
          << a << " / " << b;
    }
  }
  for (const char* key : {"mnopqrst", "mnopqrst%@517ghj"}) {
    const wxCipher cipher(key);
    const std::string plain = Random(37 * 8, 7), whole = Cipher(cipher, plain, 1);
    for (size_t pos = 0; pos < plain.size(); pos += 8) {
      EXPECT_EQ(Cipher(cipher, plain.substr(pos, 8), 1), whole.substr(pos, 8)) << pos;
    }
    EXPECT_EQ(Cipher(cipher, whole, 0), plain);
    EXPECT_EQ(Cipher(cipher, whole, 7), plain);
  }
}

// A part block is enciphered as if zero-filled, and nothing past the
// input's length is written.
TEST(WxCipherTest, PartBlocksAndBadCallsAreBounded) {
  const wxCipher& cipher = wxCipher::Gateway();
  std::string in = "ABCDEFGHxyz", out(16, '\xEE');
  auto* o = reinterpret_cast<uint8_t*>(out.data());
  const auto* i = reinterpret_cast<const uint8_t*>(in.data());
  ASSERT_TRUE(cipher.CipherBuffer(o, i, in.size(), 1));
  EXPECT_EQ(out,
            Cipher(cipher, in + std::string(5, '\0'), 1).substr(0, 11) + "\xEE\xEE\xEE\xEE\xEE");
  EXPECT_FALSE(cipher.CipherBuffer(o, i, 0, 1));
  EXPECT_FALSE(cipher.CipherBuffer(nullptr, i, 8, 1));
  EXPECT_FALSE(cipher.CipherBuffer(o, nullptr, 8, 0));
}

struct Result {
  std::optional<std::string> bytes;
  int32_t length = -12345;  // left alone unless Transform sets it
  bool operator==(const Result&) const = default;
};

Result Transform(std::string_view in, int direction, bool brew = false) {
  wxCodec codec;
  codec.brewMode = brew;
  Result r;
  r.bytes = codec.Transform(in.data(), static_cast<int32_t>(in.size()), &r.length, direction);
  return r;
}

// Gateway-enciphered "ABCDEFGH" whose pad count byte says `count`.
std::string WithPadCount(char count) {
  std::string wire = wxCodec::Encode("ABCDEFGH");
  wire.back() = count;
  return wire;
}

TEST(WxCodecTest, EnciphersAsTheReferenceModelWithZeroPadAndAClearPadCount) {
  for (auto [plain, wireHex] : {std::pair{"1210sysREQUEST10", "efdb0fbad861ef82cd0f534eac93925500"},
                                {"1210sysREQUEST10217Command18ListMail",
                                 "efdb0fbad861ef82cd0f534eac939255bbd3ff1829d4abe1c6d6644fae12df"
                                 "60a7dbceb078ad77e704"},
                                {"A", "0c7f96138a9d05b607"}}) {
    EXPECT_EQ(wxCodec::Encode(plain), FromHex(wireHex)) << plain;
    EXPECT_EQ(wxCodec::Decode(FromHex(wireHex)), plain);
  }
  EXPECT_EQ(wxCodec::Decode(WithPadCount(static_cast<char>(200))), "");
  EXPECT_EQ(wxCodec::Decode(WithPadCount(3)), "ABCDE");
}

TEST(WxCodecTest, RapidBrewAndBadInputAnswerAsTheirMarkersAndCountsSay) {
  const struct {
    std::string in;
    int direction;
    bool brew;
    Result out;
  } cases[] = {
      {"rapidABC", wxCodec::kEncode, false, {"rapidBCD", 8}},  // the marker is kept, not doubled
      {"rapidBCD", wxCodec::kDecode, false, {"ABC", 3}},
      {"rapid\xff\x00"s, wxCodec::kEncode, false, {"rapid\x00\x01"s, 7}},  // bytes wrap
      {"rapid\x00\x01"s, wxCodec::kDecode, false, {"\xff\x00"s, 2}},
      {"rapid", wxCodec::kDecode, false, {"", 0}},
      {"ABC", wxCodec::kEncode, true, {"brewBCD", 7}},
      {"XXXXBCD", wxCodec::kDecode, true, {"ABC", 3}},  // the brew marker is not checked
      {"rapidA", wxCodec::kEncode, true, {"brewsbqjeB", 10}},
      {"br", wxCodec::kDecode, true, {"", -2}},
      {"", wxCodec::kEncode, false, {}},
      {"\0"s, wxCodec::kDecode, false, {std::nullopt, 0}},  // nothing left for the cipher
      // The zero pad stays behind the data, so it reads as zero-terminated.
      {wxCodec::Encode("A"), wxCodec::kDecode, false, {"A\0\0\0\0\0\0\0\x07"s, 1}},
      // A bogus pad count is returned as computed.
      {WithPadCount(static_cast<char>(200)), wxCodec::kDecode, false, {"ABCDEFGH\xC8"s, 8 - 200}},
      {WithPadCount(3), wxCodec::kDecode, false, {"ABCDEFGH\x03"s, 5}},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Transform(c.in, c.direction, c.brew), c.out) << c.in;
  }
  EXPECT_EQ(wxCodec::Encode("Rapid").size(), 9u);  // enciphered
  EXPECT_EQ(wxCodec::Encode("rapi").size(), 9u);   // too short to hold the marker
  wxCodec codec;
  int32_t length = -12345;
  EXPECT_FALSE(codec.Transform(nullptr, 8, &length, wxCodec::kEncode));
  EXPECT_FALSE(codec.Transform("ABCDEFGH", -1, &length, wxCodec::kDecode));
  EXPECT_FALSE(codec.Transform("ABCDEFGH", 8, nullptr, wxCodec::kEncode));
  EXPECT_EQ(length, -12345);
  // The part block behind whole blocks is deciphered as if zero-filled and
  // cut, never read or written past the input.
  Result cut = Transform(wxCodec::Encode("ABCDEFGHIJKLMNOP").substr(0, 12) + '\0', 0);
  ASSERT_TRUE(cut.bytes);
  EXPECT_EQ(cut.length, 12);
  EXPECT_EQ(cut.bytes->substr(0, 8) + std::to_string(cut.bytes->size()), "ABCDEFGH13");
  for (size_t size = 2; size < 9; ++size) {
    EXPECT_EQ(Transform(std::string(size, '\x01'), 0).length, static_cast<int32_t>(size) - 2);
  }
}

TEST(WxRecordFileTest, PlainRecordsAreCountedStringsReadInTurn) {
  test::TempDir dir;
  wxRecordFile file(dir / "account.dat");
  EXPECT_TRUE(file.AtEnd());
  EXPECT_FALSE(file.ReadRecord());
  EXPECT_FALSE(file.AppendRecord(""));
  EXPECT_FALSE(std::filesystem::exists(dir / "account.dat"));
  for (std::string record : {"hello"s, std::string(12, 'w'), "a\0b"s}) {
    EXPECT_TRUE(file.AppendRecord(record));
  }
  EXPECT_EQ(ReadFile(dir / "account.dat"), "15hello212wwwwwwwwwwww13a\0b"s);
  wxRecordFile reader(dir / "account.dat");
  std::string read;  // each record, then whether the file had ended
  for (int i = 0; i < 4; ++i) {
    read += reader.ReadRecord().value_or("<none>");
    read += reader.AtEnd() ? "$" : "|";
  }
  EXPECT_EQ(read, "hello|wwwwwwwwwwww|a\0b$<none>$"s);
  ASSERT_TRUE(file.AppendRecord("later"));  // a reader sees what is appended later
  EXPECT_FALSE(reader.AtEnd());
  EXPECT_EQ(reader.ReadRecord(), "later");
  // Counting starts at the read offset and still rewinds to the start.
  EXPECT_EQ(reader.CountRecords(), 0);
  EXPECT_EQ(reader.CountRecords(), 4);
  EXPECT_EQ(reader.ReadRecord(), "hello");
  EXPECT_FALSE(wxRecordFile(dir / "no-such-dir/account.dat").AppendRecord("data"));
  wxRecordFile directory(dir.path());  // opens, holds nothing, and ends
  EXPECT_TRUE(directory.AtEnd());
  EXPECT_EQ(directory.CountRecords(), 0);
}

// A damaged or cut record ends the file; enciphered records hold codec output
// and one that does not decode reads as empty.
TEST(WxRecordFileTest, EncipheredRecordsHoldCodecOutputAndDamageEndsTheFile) {
  test::TempDir dir;
  std::string bogus = wxCodec::Encode("ABCDEFGH");
  bogus.back() = static_cast<char>(100);  // a pad count larger than the data
  const std::string path = dir / "account.dat", cipherTail = CountedString::Encode(bogus);
  for (std::string tail :
       {cipherTail, "19wor"s, "2"s, "31"s, "9"s, "x5hello13def"s, "013def"s, "1x13def"s}) {
    SCOPED_TRACE(tail);
    const bool encipher = tail == cipherTail;
    std::filesystem::remove(path);
    const std::string first = encipher ? "1210sysACCOUNT10214Login19alice@example.org" : "hello";
    wxRecordFile writer(path);
    writer.SetEncipher(encipher);
    ASSERT_TRUE(writer.AppendRecord(first));
    test::WriteFile(path, ReadFile(path) + "10" + tail);  // an empty record counts as none
    wxRecordFile file(path);
    file.SetEncipher(encipher);
    EXPECT_EQ(ReadFile(path),
              CountedString::Encode(encipher ? wxCodec::Encode(first) : first) + "10" + tail);
    EXPECT_EQ(file.CountRecords(), 1);
    EXPECT_EQ(file.ReadRecord(), first);
    EXPECT_EQ(file.ReadRecord(), "");
    EXPECT_EQ(file.ReadRecord(), encipher ? std::optional(""s) : std::nullopt);
    EXPECT_FALSE(file.ReadRecord());
    EXPECT_TRUE(file.AtEnd());
    // Without the cipher switched on, records read as stored.
    EXPECT_EQ(wxRecordFile(path).ReadRecord(), encipher ? wxCodec::Encode(first) : first);
  }
}

std::string Entry(char tag, std::string_view name, std::string_view value = {}) {
  return tag + CountedString::Encode(name) + CountedString::Encode(value);
}
std::string Open(std::string_view name, std::string_view value = {}) {
  return Entry('1', name, value);
}
std::string Field(std::string_view name, std::string_view value) {
  return Entry('2', name, value);
}
const std::string kClose = Entry('5', "");

// Parses from a heap copy of exactly `bytes.size()` bytes, so that any read
// past the end is caught by the address sanitizer.
bool ParseExact(wxQuery& query, std::string_view bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return query.Parse(copy.get(), bytes.size());
}

// A request as the gateway receives it once deciphered.
const std::string kListMail =
    Open("sysREQUEST") + Field("Command", "ListMail") + Field("Pop3", "pop.example.org") +
    Field("Login", "bob") + Entry('5', "0") + Open("sysPARAMETER", "aParam") +
    Entry('3', "Ids", "7,,9") + Field("Charset", "gb2312") + Entry('5', "0");

class QueryTest : public ::testing::Test {
 protected:
  void SetUp() override { query_.AddRecordSet(); }
  bool Parse(std::string_view bytes) { return ParseExact(query_, bytes); }
  wxNodeRef Root(std::string_view name) { return wxNodeRef(query_, query_.FindNode(name)); }
  std::optional<std::string> Evaluate(std::string_view expression) {
    return wxNodeRef(query_, nullptr).Evaluate(expression);
  }
  wxRecordSet& Records() { return *query_.CurrentRecordSet(); }

  wxQuery query_;
};

// Each case: the entries of a fresh container, then expressions evaluated in
// order (row methods move the cursor), split at "|": "path=value", or the path
// alone when it must give nothing.
TEST_F(QueryTest, ExpressionsReadWhatTheEntriesBuilt) {
  const std::string q511(511, 'q');
  // A "wxQUERY" node "q" with rows, and a plain node that has rows too.
  auto rows = [](const std::string& content) {
    return Open("q", "wxQUERY") + Open("rows", "wxRECORDSET") + content + kClose + kClose +
           Open("plain") + Open("wxRECORDSET") + Field("Row0", "x") + kClose + kClose;
  };
  const std::pair<std::string, std::string> cases[] = {
      {kListMail,
       "sysREQUEST.Command=ListMail|sysREQUEST.Login=bob|sysREQUEST.Pwd|aParam.Charset=gb2312|"
       "sysPARAMETER.Ids[0]|sysPARAMETER.Ids[1]=7|sysPARAMETER.Ids[2]|sysPARAMETER.Ids[03]=9|"
       "sysPARAMETER.Ids[4]|sysPARAMETER.Ids[x]|sysPARAMETER.Ids[1|sysPARAMETER.Ids|sysREQUEST||"
       ".Command|sysREQUEST.|nothing.Command|.sysREQUEST..Command=ListMail|sysREQUEST.\0Command"s},
      {Open("n") + Field("Port", "110") + Field("Port", "995") + Field("Empty", "") +
           Field("Login", "bob\0evil"s) + Field("Lead", "\0x"s) + Field("Name\0junk"s, "v") +
           Entry('3', "To", "a\0b,c"s) + Entry('3', "Edge", ",x,") + Entry('3', "Again", "1,2") +
           Entry('3', "Again", "4"),
       "n.Port=995|n.Empty|n.Login=bob|n.Lead=|n.Name=v|n.To[1]=a|n.To[2]=c|n.To|n.Edge[1]|"
       "n.Edge[2]=x|n.Edge[3]|n.Again[1]=4|n.Again[2]"},
      {Open("parent") + Open("kid", "aKid") + Field("Deep", "yes") + kClose + Open("kid2") +
           kClose + Field("Link", "other") + Field("Dead", "nowhere") +
           Field("Both\0x"s, "nowhere") + Field("Both", "other") + kClose + Open("other") +
           Field("Where", "there") + kClose + Open("shared", "x") + Field("By", "name") + kClose +
           Open("first", "shared") + Field("By", "value") + kClose,
       "parent.kid.Deep=yes|parent.aKid.Deep=yes|parent.Link.Where=there|parent.Dead.Where|"
       "parent.Both.Where|"
       "kid.Deep|shared.By=name|x.By=name"},
      {Open("r") + Field("Login", "bob") + Field("User", "r.Login") +
           Field("Host", "mail.example.org") + Field("Loop", "r.Loop") + Field("PingA", "r.PingB") +
           Field("PingB", "r.PingA") + Entry('3', "Who", "r.Login,plain") +
           Field("Long", std::string(600, 'q')) + Field("Exact", q511) + Field("Ref", "r.Long"),
       "r.User=bob|r.Who[1]=bob|r.Who[2]=plain|r.Host=mail.example.org|r.Loop=r.Loop|r.Long=" +
           q511 + "|r.Exact=" + q511 + "|r.Ref=" + q511},
      {Open("a") + kClose + Open("b") + kClose + Entry('0', "", "a") + Entry('6', "Begin") +
           Field("OnB", "1") + Entry('6', "End") + Field("OnA", "1") + Entry('6', "begin") +
           Entry('6', "") + Field("Still", "yes") + kClose + Field("Lost", "x") +
           Entry('3', "Lost", "x") + kClose + Open("top") + Open("mid") + Open("leaf") + kClose +
           kClose + kClose + Entry('0', "set", "top..mid.leaf.") + Field("Found", "yes") +
           Entry('0', "set", "top.nothing") + Field("Gone", "x") + Entry('0', "set", "top") +
           Entry('0', "set", "") + Field("Gone", "x") + Entry('6', "End") + Field("Gone", "x"),
       "b.OnB=1|a.OnA=1|a.OnB|a.Still=yes|a.Lost|b.Lost|top.mid.leaf.Found=yes|top.Gone"},
      {Open("n") + Entry('7', Open("ghost"), Open("ghost")) + Field("After", "1") +
           Entry('/', "x", "y") + Entry('\xff', "x", "y") + Entry('\0', "x", "y") + "2x" + "1010" +
           Field("Last", "2") + "2" + "9999999999Command",
       "n.After=1|n.Last=2|ghost.After|n.Command"},
      {rows(Field("Row0", "15alice10213a@example.org") + Field("Row1", "13bob") +
            Field("Row3", "13dan")),
       "q.Count()=2|q.t_Pointer|q.Field(1)|q.First()=1|q.t_Pointer=1|q.Field(1)=alice|q.Field(2)|"
       "q.Field(3)=a@example.org|q.Field(4)|q.Field(0)|q.Next()=1|q.t_Pointer=2|q.Field(1)=bob|"
       "q.Next()=0|q.t_Pointer=3|q.Field(1)|q.First()=1|q.t_Pointer=1|plain.First()|"
       "plain.t_Pointer|q.Count(|q.Last()|q.count()|q.Count()trailing=2"},
      {rows(Field("Row0", "13one")), "q.First()=1|q.Field(1)=one|q.Next()=0|q.Count()=1"},
      {rows(""), "q.First()=0|q.t_Pointer=1|q.Count()=0|q.Field(1)"},
      {rows(Field("Row0", "13abc")) + Entry('0', "", "q") + Field("t_Pointer", "-2147483648"),
       "q.Field(1)|q.Next()=0"},
      {rows(Field("Row0", "13abc")) + Entry('0', "", "q") + Field("t_Pointer", "99999999999"),
       "q.Next()=0|q.Field(1)"},
  };
  for (const auto& [entries, checks] : cases) {
    query_.AddRecordSet();
    ASSERT_TRUE(Parse(entries));
    for (size_t at = 0, end; at <= checks.size(); at = end + 1) {
      end = std::min(checks.find('|', at), checks.size());
      const std::string check = checks.substr(at, end - at);
      const size_t equals = check.find('=');
      EXPECT_EQ(Evaluate(check.substr(0, equals)), equals == std::string::npos
                                                       ? std::nullopt
                                                       : std::optional(check.substr(equals + 1)))
          << check;
    }
  }
}

TEST_F(QueryTest, NodesNestAreIndexedInOpeningOrderAndCloseWithTheirEntries) {
  ASSERT_TRUE(Parse(Open("a") + Open("b") + Open("c") + kClose + kClose + Open("d") + kClose +
                    kClose + Open("e") + Entry('4', "Data", "\x00\x01"s) + Entry('4', "Data", "") +
                    Entry('4', "Other", "z") + Entry('4', "Data", "\r\n"s) +
                    Field("Long", std::string(600, 'q'))));
  std::string seen;
  for (const auto& entry : Records().Index())
    seen += *entry.node->Name() + std::to_string(entry.depth);
  EXPECT_EQ(seen, "a0b1c2d1e0");
  EXPECT_EQ(query_.FindNode("a")->Children()[0]->Children()[0]->Parent()->Name(), "b");
  EXPECT_EQ(Records().Roots().size(), 2u);
  EXPECT_EQ(Records().CurrentNode(), query_.FindNode("e"));
  EXPECT_EQ(Root("e").GetBinary("Data"), "\x00\x01\r\n"s);
  EXPECT_EQ(Root("e").GetBinary("Other"), "z");
  EXPECT_EQ(Root("e").GetValue("Long"), std::string(600, 'q'));  // cut only through a path
  EXPECT_FALSE(Root("e").GetBinary("Missing"));
  EXPECT_EQ(Root("a").ValueCount("x"), 0u);
}

TEST_F(QueryTest, PathEntriesNameTheRecordSetAndAnotherNameStopsTheParse) {
  ASSERT_TRUE(Parse(Open("n") + Entry('0', "orders", "n")));
  EXPECT_EQ(Records().Name(), "orders");
  EXPECT_FALSE(Parse(Entry('0', "invoices", "n")));
  EXPECT_TRUE(Parse(Entry('0', "orders.more", "n") + Field("f", "v")));
  EXPECT_EQ(Root("n").GetValue("f"), "v");
  // What came before the mismatch stays applied, nothing after it is.
  EXPECT_FALSE(Parse(kClose + Open("kept") + Entry('0', "order", "") + Open("lost")));
  EXPECT_NE(query_.FindNode("kept"), nullptr);
  EXPECT_EQ(query_.FindNode("lost"), nullptr);
}

TEST_F(QueryTest, AddRecordSetPrunesScratchFieldsAndDiscardsTheLog) {
  query_.Log().SetRecording(true);
  ASSERT_TRUE(Parse(Open("a") + Field("0tmp", "x") + Field("keep", "y") + Field("00", "z") +
                    Entry('3', "0multi", "m") + Open("b") + Field("0deep", "x") +
                    Field("x0", "kept")));
  wxNode* a = query_.FindNode("a");
  query_.AddRecordSet("next");
  EXPECT_EQ(query_.RecordSetCount(), 2u);
  EXPECT_EQ(Records().Name(), "next");
  EXPECT_EQ(query_.FindNode("a"), nullptr);
  EXPECT_EQ(query_.Serialize(), "");
  // The old set's nodes stay valid, without their scratch fields.
  std::string names;
  for (wxNode* node : {a, a->Children()[0]}) {
    for (const auto& field : node->Fields()) names += *field.name + " ";
  }
  EXPECT_EQ(names, "keep x0 ");
  EXPECT_NE(a->FindMultiField("0multi"), nullptr);
}

TEST(EntryLogTest, RecordsWellFormedEntriesOnlyWhileSwitchedOn) {
  wxEntryLog log;
  log.AddEntryText(2, "Status", "fail");
  EXPECT_EQ(log.Serialize(), "");
  log.SetRecording(true);
  log.AddEntryText(1, "sysRESPONSE", "aResponse");
  log.AddEntryText(2, "Log", "Unknow command");
  log.AddEntryText(5, "0", std::nullopt);
  log.AddEntryText(2, "", "");
  log.AddEntryText(7, "a", "b");  // beyond the entry kinds
  log.AddEntryText(4294967295u, "a", "b");
  log.Record(2, "207Command", "14Pop3");  // rewritten in the shortest form
  // An invalid counted string and one claiming more than it holds must not
  // swallow the entries behind them.
  log.Record(6, "x", "19cut");
  std::string big(12345, 'x');
  big[100] = '\0';
  log.AddEntryText(4, "Blob", big);
  const std::string expected =
      "1211sysRESPONSE19aResponse213Log214Unknow command511010"
      "21010217Command14Pop361013cut414Blob512345" +
      big;
  EXPECT_EQ(log.TotalLength(), expected.size());
  EXPECT_EQ(log.EntryCount(), 7u);
  EXPECT_EQ(log.Serialize(), expected);
  EXPECT_EQ(log.TotalLength(), 0u);  // serializing empties the log
  log.SetRecording(false);
  log.AddEntryText(2, "Log", "dropped");
  EXPECT_EQ(log.Serialize(), "");
}

TEST(EntryLogTest, AQueryRecordsWhatItAppliesAndReplaysToTheSameBytes) {
  wxQuery query;
  query.Log().SetRecording(true);
  query.AddEntry(1, "11a", "10");  // no record set yet: nothing happens at all
  EXPECT_EQ(query.Serialize(), "");
  query.AddRecordSet();
  query.AddEntry(9, "11g", "11w");  // unknown kind: neither applied nor recorded
  const std::string source = kListMail + Open("blob") + Entry('4', "Bytes", "\x00\x01"s) +
                             Entry('6', "Begin") + Entry('6', "End") + kClose;
  ASSERT_TRUE(ParseExact(query, source));
  EXPECT_EQ(query.Serialize(), source);
}

TEST(QueryParseTest, VeryDeepNestingIsBuiltAndTornDownWithoutRecursion) {
  constexpr size_t kDepth = 100000;
  std::string bytes;
  for (size_t i = 0; i < kDepth; ++i) bytes += Open("d");
  bytes += Field("Bottom", "yes");
  for (size_t i = 0; i < kDepth; ++i) bytes += Entry('6', "Begin");
  wxQuery query;
  query.AddRecordSet();
  ASSERT_TRUE(ParseExact(query, bytes));
  const auto& index = query.CurrentRecordSet()->Index();
  ASSERT_EQ(index.size(), kDepth);
  EXPECT_EQ(index.back().depth, kDepth - 1);
  EXPECT_EQ(index.back().node->FindField("Bottom")->value, "yes");
  EXPECT_EQ(query.CurrentRecordSet()->CurrentNode(), index.back().node.get());
}  // destruction must not overflow the stack

TEST(ByteStreamTest, ReadsAcrossChunksRewindsAndKeepsItsCapacity) {
  wxByteStream stream(7);
  std::string taken;  // one past the capacity is refused, exactly at it is taken
  for (std::string bytes : {"abc"s, ""s, "defgh"s, "de"s, "\0f"s, "g"s}) {
    taken += stream.Append(bytes) ? '1' : '0';
  }
  EXPECT_EQ(taken + std::to_string(stream.Size()) + std::to_string(stream.ChunkCount()),
            "11011073");
  char buffer[12] = {};
  EXPECT_EQ(stream.Read(buffer, 4), 4u);
  EXPECT_EQ(stream.Read(buffer + 4, 8), 3u);
  EXPECT_EQ(stream.Read(buffer, 8), 0u);
  EXPECT_EQ(std::string(buffer, 7), "abcde\0f"s);
  stream.Rewind();
  EXPECT_EQ(stream.Read(buffer, 2), 2u);
  EXPECT_EQ(stream.Contents(), "abcde\0f"s);
  stream.Clear();
  EXPECT_TRUE(stream.Append("1234567"));
  EXPECT_EQ(stream.Size(), 7u);
}

}  // namespace
}  // namespace corvane
