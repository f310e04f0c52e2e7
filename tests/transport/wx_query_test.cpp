// The record container: requests parsed into nodes, read back through paths
// and row cursors, and the entry log that serializes them.
#include "transport/wx_query.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "transport/counted_string.h"
#include "transport/wx_entry_log.h"
#include "transport/wx_node_ref.h"

namespace corvane {
namespace {

using namespace std::string_literals;

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
// order (row methods move the cursor): "path=value", or the path alone when
// it must give nothing.
TEST_F(QueryTest, ExpressionsReadWhatTheEntriesBuilt) {
  const std::string q511(511, 'q');
  // A "wxQUERY" node "q" with rows, and a plain node that has rows too.
  auto rows = [](const std::string& content) {
    return Open("q", "wxQUERY") + Open("rows", "wxRECORDSET") + content + kClose + kClose +
           Open("plain") + Open("wxRECORDSET") + Field("Row0", "x") + kClose + kClose;
  };
  const struct {
    const char* name;
    std::string entries;
    std::vector<std::string> checks;
  } cases[] = {
      {"request",
       kListMail,
       {"sysREQUEST.Command=ListMail", "sysREQUEST.Login=bob", "sysREQUEST.Pwd",
        "aParam.Charset=gb2312", "sysPARAMETER.Ids[0]", "sysPARAMETER.Ids[1]=7",
        "sysPARAMETER.Ids[2]", "sysPARAMETER.Ids[03]=9", "sysPARAMETER.Ids[4]",
        "sysPARAMETER.Ids[x]", "sysPARAMETER.Ids[1", "sysPARAMETER.Ids", "sysREQUEST", "",
        ".Command", "sysREQUEST.", "nothing.Command", ".sysREQUEST..Command=ListMail",
        "sysREQUEST.\0Command"s}},
      {"fields",
       Open("n") + Field("Port", "110") + Field("Port", "995") + Field("Empty", "") +
           Field("Login", "bob\0evil"s) + Field("Lead", "\0x"s) + Field("Name\0junk"s, "v") +
           Entry('3', "To", "a\0b,c"s) + Entry('3', "Edge", ",x,") + Entry('3', "Again", "1,2") +
           Entry('3', "Again", "4"),
       {"n.Port=995", "n.Empty", "n.Login=bob", "n.Lead=", "n.Name=v", "n.To[1]=a", "n.To[2]=c",
        "n.To", "n.Edge[1]", "n.Edge[2]=x", "n.Edge[3]", "n.Again[1]=4", "n.Again[2]"}},
      {"nesting and children",
       Open("parent") + Open("kid", "aKid") + Field("Deep", "yes") + kClose + Open("kid2") +
           kClose + Field("Link", "other") + Field("Dead", "nowhere") + kClose + Open("other") +
           Field("Where", "there") + kClose + Open("shared", "x") + Field("By", "name") + kClose +
           Open("first", "shared") + Field("By", "value") + kClose,
       {"parent.kid.Deep=yes", "parent.aKid.Deep=yes", "parent.Link.Where=there",
        "parent.Dead.Where", "kid.Deep", "shared.By=name", "x.By=name"}},
      {"values that are paths",
       Open("r") + Field("Login", "bob") + Field("User", "r.Login") +
           Field("Host", "mail.example.org") + Field("Loop", "r.Loop") + Field("PingA", "r.PingB") +
           Field("PingB", "r.PingA") + Entry('3', "Who", "r.Login,plain") +
           Field("Long", std::string(600, 'q')) + Field("Exact", q511) + Field("Ref", "r.Long"),
       {"r.User=bob", "r.Who[1]=bob", "r.Who[2]=plain", "r.Host=mail.example.org", "r.Loop=r.Loop",
        "r.Long=" + q511, "r.Exact=" + q511, "r.Ref=" + q511}},
      {"current node moves",
       Open("a") + kClose + Open("b") + kClose + Entry('0', "", "a") + Entry('6', "Begin") +
           Field("OnB", "1") + Entry('6', "End") + Field("OnA", "1") + Entry('6', "begin") +
           Entry('6', "") + Field("Still", "yes") + kClose + Field("Lost", "x") +
           Entry('3', "Lost", "x") + kClose + Open("top") + Open("mid") + Open("leaf") + kClose +
           kClose + kClose + Entry('0', "set", "top..mid.leaf.") + Field("Found", "yes") +
           Entry('0', "set", "top.nothing") + Field("Gone", "x") + Entry('0', "set", "top") +
           Entry('0', "set", "") + Field("Gone", "x") + Entry('6', "End") + Field("Gone", "x"),
       {"b.OnB=1", "a.OnA=1", "a.OnB", "a.Still=yes", "a.Lost", "b.Lost", "top.mid.leaf.Found=yes",
        "top.Gone"}},
      {"hostile bytes",
       Open("n") + Entry('7', Open("ghost"), Open("ghost")) + Field("After", "1") +
           Entry('/', "x", "y") + Entry('\xff', "x", "y") + Entry('\0', "x", "y") + "2x" + "1010" +
           Field("Last", "2") + "2" + "9999999999Command",
       {"n.After=1", "n.Last=2", "ghost.After", "n.Command"}},
      {"rows",
       rows(Field("Row0", "15alice10213a@example.org") + Field("Row1", "13bob") +
            Field("Row3", "13dan")),
       {"q.Count()=2",    "q.t_Pointer",      "q.Field(1)",    "q.First()=1",
        "q.t_Pointer=1",  "q.Field(1)=alice", "q.Field(2)",    "q.Field(3)=a@example.org",
        "q.Field(4)",     "q.Field(0)",       "q.Next()=1",    "q.t_Pointer=2",
        "q.Field(1)=bob", "q.Next()=0",       "q.t_Pointer=3", "q.Field(1)",
        "q.First()=1",    "q.t_Pointer=1",    "plain.First()", "plain.t_Pointer",
        "q.Count(",       "q.Last()",         "q.count()",     "q.Count()trailing=2"}},
      {"one row",
       rows(Field("Row0", "13one")),
       {"q.First()=1", "q.Field(1)=one", "q.Next()=0", "q.Count()=1"}},
      {"no rows", rows(""), {"q.First()=0", "q.t_Pointer=1", "q.Count()=0", "q.Field(1)"}},
      {"hostile cursors",
       rows(Field("Row0", "13abc")) + Entry('0', "", "q") + Field("t_Pointer", "-2147483648"),
       {"q.Field(1)", "q.Next()=0"}},
      {"huge cursor",
       rows(Field("Row0", "13abc")) + Entry('0', "", "q") + Field("t_Pointer", "99999999999"),
       {"q.Next()=0", "q.Field(1)"}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    query_.AddRecordSet();
    ASSERT_TRUE(Parse(c.entries));
    for (const std::string& check : c.checks) {
      size_t equals = check.find('=');
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
  std::vector<std::pair<std::string, uint32_t>> seen;
  for (const auto& entry : Records().Index()) seen.emplace_back(*entry.node->Name(), entry.depth);
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, uint32_t>>{
                      {"a", 0}, {"b", 1}, {"c", 2}, {"d", 1}, {"e", 0}}));
  wxNode* a = query_.FindNode("a");
  ASSERT_EQ(a->ChildCount(), 2u);
  EXPECT_EQ(a->Children()[1]->Name(), "d");
  EXPECT_EQ(a->Children()[0]->Children()[0]->Parent(), a->Children()[0]);
  EXPECT_TRUE(a->IsClosed());
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
  ASSERT_EQ(a->FieldCount(), 1u);
  EXPECT_EQ(a->Fields()[0].name, "keep");
  EXPECT_NE(a->FindMultiField("0multi"), nullptr);
  ASSERT_EQ(a->Children()[0]->FieldCount(), 1u);
  EXPECT_EQ(a->Children()[0]->Fields()[0].name, "x0");
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
      "1211sysRESPONSE19aResponse213Log214Unknow command5110"
      "10"
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

// Requests come off the network: nothing in them may crash the parser, make
// it read past the bytes it was given, or invent data.
TEST(QueryParseTest, EveryTruncationOfARequestParsesToPrefixesOfItsData) {
  const std::vector<std::pair<std::string, std::string>> real = {
      {"Command", "ListMail"}, {"Pop3", "pop.example.org"}, {"Login", "bob"}};
  for (size_t length = 0; length <= kListMail.size(); ++length) {
    wxQuery query;
    query.AddRecordSet();
    ASSERT_TRUE(ParseExact(query, std::string_view(kListMail).substr(0, length)));
    wxNode* node = query.FindNode("sysREQUEST");
    for (const auto& field : node ? node->Fields() : std::vector<wxNode::Field>{}) {
      bool matches = !field.name && !field.value;  // cut right behind its tag
      for (const auto& [name, value] : real) {
        matches = matches || (field.name && name.starts_with(*field.name) &&
                              (!field.value || value.starts_with(*field.value)));
      }
      EXPECT_TRUE(matches) << "length " << length;
    }
  }
  wxQuery query;
  query.AddRecordSet();
  EXPECT_TRUE(query.Parse(nullptr, 0));
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
  EXPECT_TRUE(stream.Append("abc"));
  EXPECT_TRUE(stream.Append(""));
  EXPECT_FALSE(stream.Append("defgh"));  // one past the capacity
  EXPECT_TRUE(stream.Append("de"));
  EXPECT_TRUE(stream.Append("\0f"s));  // exactly at it
  EXPECT_FALSE(stream.Append("g"));
  EXPECT_EQ(stream.Size(), 7u);
  EXPECT_EQ(stream.ChunkCount(), 3u);
  char buffer[8] = {};
  EXPECT_EQ(stream.Read(buffer, 4), 4u);
  EXPECT_EQ(std::string(buffer, 4), "abcd");
  EXPECT_EQ(stream.Read(buffer, 8), 3u);
  EXPECT_EQ(std::string(buffer, 3), "e\0f"s);
  EXPECT_EQ(stream.Read(buffer, 8), 0u);
  stream.Rewind();
  EXPECT_EQ(stream.Read(buffer, 2), 2u);
  EXPECT_EQ(stream.Contents(), "abcde\0f"s);
  stream.Clear();
  EXPECT_EQ(stream.Size(), 0u);
  EXPECT_TRUE(stream.Append("1234567"));
}

}  // namespace
}  // namespace corvane
