#include "transport/wx_query.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "transport/counted_string.h"
#include "transport/wx_node_ref.h"

namespace corvane {
namespace {

using namespace std::string_literals;

std::string Entry(char tag, std::string_view name, std::string_view value = {}) {
  return tag + CountedString::Encode(name) + CountedString::Encode(value);
}

// Parses from a heap copy of exactly `bytes.size()` bytes, so that any read
// past the end is caught by the address sanitizer.
bool ParseExact(wxQuery& query, std::string_view bytes) {
  auto copy = std::make_unique<char[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return query.Parse(copy.get(), bytes.size());
}

// A request as the gateway receives it once deciphered.
std::string ListMailRequest() {
  return Entry('1', "sysREQUEST") + Entry('2', "Command", "ListMail") +
         Entry('2', "Pop3", "pop.example.org") + Entry('2', "Login", "bob") + Entry('5', "0") +
         Entry('1', "sysPARAMETER", "aParam") + Entry('3', "Ids", "7,,9") +
         Entry('2', "Charset", "gb2312") + Entry('5', "0");
}

class QueryTest : public ::testing::Test {
 protected:
  void SetUp() override { query_.AddRecordSet(); }

  bool Parse(std::string_view bytes) { return ParseExact(query_, bytes); }
  wxNodeRef Root(std::string_view name) { return wxNodeRef(query_, query_.FindNode(name)); }
  wxRecordSet& Records() { return *query_.CurrentRecordSet(); }

  wxQuery query_;
};

TEST_F(QueryTest, RequestIsReadBackThroughItsRootNodes) {
  ASSERT_TRUE(Parse(ListMailRequest()));
  wxNodeRef request = Root("sysREQUEST");
  ASSERT_TRUE(request);
  EXPECT_EQ(request.GetValue("Command"), "ListMail");
  EXPECT_EQ(request.GetValue("Pop3"), "pop.example.org");
  EXPECT_EQ(request.GetValue("Login"), "bob");
  EXPECT_FALSE(request.GetValue("Pwd").has_value());

  wxNodeRef parameters = Root("sysPARAMETER");
  ASSERT_TRUE(parameters);
  EXPECT_EQ(parameters.GetValue("Charset"), "gb2312");
  EXPECT_EQ(parameters.ValueCount("Ids"), 3u);
  EXPECT_EQ(parameters.GetValueAt("Ids", 1), "7");
  EXPECT_FALSE(parameters.GetValueAt("Ids", 2).has_value());
  EXPECT_EQ(parameters.GetValueAt("Ids", 3), "9");
  // Both roots were closed, so nothing is current any more.
  EXPECT_EQ(Records().CurrentNode(), nullptr);
  EXPECT_TRUE(parameters.Node()->IsClosed());
}

TEST_F(QueryTest, FindNodeLooksAtRootsByNameBeforeValue) {
  ASSERT_TRUE(Parse(Entry('1', "first", "shared") + Entry('1', "child", "inner") + Entry('5', "") +
                    Entry('5', "") + Entry('1', "shared", "other") + Entry('5', "")));
  wxNode* byName = query_.FindNode("shared");
  ASSERT_NE(byName, nullptr);
  EXPECT_EQ(byName->Value(), "other");
  wxNode* byValue = query_.FindNode("other");
  EXPECT_EQ(byValue, byName);
  // Children are not roots.
  EXPECT_EQ(query_.FindNode("child"), nullptr);
  EXPECT_EQ(query_.FindNode("inner"), nullptr);
  EXPECT_EQ(query_.FindNode("absent"), nullptr);
}

TEST_F(QueryTest, FieldsAreUniqueByNameAndKeepTheLastValue) {
  ASSERT_TRUE(Parse(Entry('1', "n") + Entry('2', "Port", "110") + Entry('2', "Host", "h") +
                    Entry('2', "Port", "995") + Entry('2', "Empty", "")));
  wxNode* node = query_.FindNode("n");
  ASSERT_NE(node, nullptr);
  ASSERT_EQ(node->FieldCount(), 3u);
  EXPECT_EQ(node->Fields()[0].name, "Port");
  EXPECT_EQ(node->Fields()[0].value, "995");
  EXPECT_EQ(node->Fields()[1].name, "Host");
  wxNodeRef ref(query_, node);
  EXPECT_EQ(ref.GetValue("Port"), "995");
  // A zero-length value is absent, not empty.
  EXPECT_EQ(node->Fields()[2].name, "Empty");
  EXPECT_FALSE(ref.GetValue("Empty").has_value());
}

TEST_F(QueryTest, MultiValuedFieldsSplitAtEveryComma) {
  ASSERT_TRUE(Parse(Entry('1', "n") + Entry('3', "To", "a,,b") + Entry('3', "Edge", ",x,") +
                    Entry('3', "None", "") + Entry('3', "Again", "1,2,3") +
                    Entry('3', "Again", "4")));
  wxNode* node = query_.FindNode("n");
  ASSERT_NE(node, nullptr);
  const auto* to = node->FindMultiField("To");
  ASSERT_NE(to, nullptr);
  ASSERT_EQ(to->values.size(), 3u);
  EXPECT_EQ(to->values[0], "a");
  EXPECT_FALSE(to->values[1].has_value());
  EXPECT_EQ(to->values[2], "b");

  const auto* edge = node->FindMultiField("Edge");
  ASSERT_NE(edge, nullptr);
  ASSERT_EQ(edge->values.size(), 3u);
  EXPECT_FALSE(edge->values[0].has_value());
  EXPECT_EQ(edge->values[1], "x");
  EXPECT_FALSE(edge->values[2].has_value());

  ASSERT_NE(node->FindMultiField("None"), nullptr);
  EXPECT_TRUE(node->FindMultiField("None")->values.empty());

  // A second entry replaces the values and the count restarts.
  EXPECT_EQ(node->MultiFieldCount(), 4u);
  ASSERT_EQ(node->FindMultiField("Again")->values.size(), 1u);
  EXPECT_EQ(node->FindMultiField("Again")->values[0], "4");
}

TEST_F(QueryTest, BinaryFieldsConcatenateInOrder) {
  const std::string first = "\x00\x01\xff"s;
  const std::string second = "\r\n,\x00"s;
  ASSERT_TRUE(Parse(Entry('1', "n") + Entry('4', "Data", first) + Entry('4', "Other", "z") +
                    Entry('4', "Data", "") + Entry('4', "Data", second)));
  wxNodeRef ref(query_, query_.FindNode("n"));
  EXPECT_EQ(ref.GetBinary("Data"), first + second);
  EXPECT_EQ(ref.GetBinary("Other"), "z");
  EXPECT_FALSE(ref.GetBinary("Missing").has_value());
  EXPECT_EQ(ref.Node()->BinaryFields().size(), 2u);
}

TEST_F(QueryTest, NodesNestAndAreIndexedInOpeningOrder) {
  ASSERT_TRUE(Parse(Entry('1', "a") + Entry('1', "b") + Entry('1', "c") + Entry('5', "") +
                    Entry('5', "") + Entry('1', "d") + Entry('5', "") + Entry('5', "") +
                    Entry('1', "e")));
  const auto& index = Records().Index();
  ASSERT_EQ(index.size(), 5u);
  std::vector<std::pair<std::string, uint32_t>> seen;
  for (const auto& entry : index) seen.emplace_back(*entry.node->Name(), entry.depth);
  EXPECT_EQ(seen, (std::vector<std::pair<std::string, uint32_t>>{
                      {"a", 0}, {"b", 1}, {"c", 2}, {"d", 1}, {"e", 0}}));
  wxNode* a = query_.FindNode("a");
  ASSERT_EQ(a->ChildCount(), 2u);
  EXPECT_EQ(a->Children()[0]->Name(), "b");
  EXPECT_EQ(a->Children()[1]->Name(), "d");
  EXPECT_EQ(a->Children()[0]->Children()[0]->Parent(), a->Children()[0]);
  EXPECT_EQ(Records().Roots().size(), 2u);
  EXPECT_EQ(Records().CurrentNode(), query_.FindNode("e"));
}

TEST_F(QueryTest, EntriesWithoutACurrentNodeAreIgnored) {
  ASSERT_TRUE(Parse(Entry('1', "root") + Entry('5', "") + Entry('2', "Lost", "x") +
                    Entry('3', "Lost", "x,y") + Entry('4', "Lost", "x") + Entry('5', "") +
                    Entry('1', "next")));
  wxNode* root = query_.FindNode("root");
  ASSERT_NE(root, nullptr);
  EXPECT_EQ(root->FieldCount(), 0u);
  EXPECT_EQ(root->MultiFieldCount(), 0u);
  EXPECT_TRUE(root->BinaryFields().empty());
  // The stray close did not disturb the next root either.
  EXPECT_EQ(Records().Roots().size(), 2u);
  EXPECT_EQ(query_.FindNode("next")->Parent(), nullptr);
}

TEST_F(QueryTest, BeginJumpsToTheLastNodeAtTheSameDepthAndEndComesBack) {
  ASSERT_TRUE(Parse(Entry('1', "a") + Entry('5', "") + Entry('1', "b") + Entry('5', "") +
                    Entry('0', "", "a") + Entry('6', "Begin") + Entry('2', "OnB", "1") +
                    Entry('6', "End") + Entry('2', "OnA", "1")));
  wxNodeRef a = Root("a");
  wxNodeRef b = Root("b");
  EXPECT_EQ(b.GetValue("OnB"), "1");
  EXPECT_EQ(a.GetValue("OnA"), "1");
  EXPECT_FALSE(a.GetValue("OnB").has_value());
  EXPECT_EQ(Records().SavedNode(), nullptr);
}

TEST_F(QueryTest, MarksOtherThanBeginAndEndAreIgnored) {
  ASSERT_TRUE(
      Parse(Entry('1', "a") + Entry('6', "begin") + Entry('6', "") + Entry('2', "Still", "yes")));
  EXPECT_EQ(Root("a").GetValue("Still"), "yes");
  // An "End" with nothing saved leaves no current node.
  ASSERT_TRUE(Parse(Entry('6', "End") + Entry('2', "Lost", "x")));
  EXPECT_FALSE(Root("a").GetValue("Lost").has_value());
}

TEST_F(QueryTest, PathEntriesMakeTheNamedNodeCurrent) {
  ASSERT_TRUE(Parse(Entry('1', "top") + Entry('1', "mid") + Entry('1', "leaf") + Entry('5', "") +
                    Entry('5', "") + Entry('5', "") + Entry('0', "set", "top..mid.leaf.") +
                    Entry('2', "Found", "yes")));
  EXPECT_EQ(Records().Name(), "set");
  wxNode* leaf = Records().Index()[2].node.get();
  EXPECT_EQ(Records().CurrentNode(), leaf);
  EXPECT_EQ(wxNodeRef(query_, leaf).GetValue("Found"), "yes");

  // A path that does not resolve, or an absent one, leaves no current node.
  ASSERT_TRUE(Parse(Entry('0', "set", "top.nothing") + Entry('2', "Lost", "x")));
  EXPECT_EQ(Records().CurrentNode(), nullptr);
  ASSERT_TRUE(Parse(Entry('0', "set", "top") + Entry('0', "set", "")));
  EXPECT_EQ(Records().CurrentNode(), nullptr);
  ASSERT_TRUE(Parse(Entry('0', "set", "..")));
  EXPECT_EQ(Records().CurrentNode(), nullptr);
}

TEST_F(QueryTest, PathEntryNamingAnotherRecordSetStopsTheParse) {
  wxQuery query;
  query.AddRecordSet("sysREQUEST");
  query.Log().SetRecording(true);
  EXPECT_FALSE(ParseExact(query, Entry('0', "sysOTHER", "") + Entry('1', "n")));
  EXPECT_EQ(query.FindNode("n"), nullptr);
  EXPECT_TRUE(query.CurrentRecordSet()->Index().empty());
  EXPECT_EQ(query.Serialize(), "");

  // What came before the mismatch stays applied.
  EXPECT_FALSE(
      ParseExact(query, Entry('1', "kept") + Entry('0', "sysREQ", "") + Entry('1', "lost")));
  EXPECT_NE(query.FindNode("kept"), nullptr);
  EXPECT_EQ(query.FindNode("lost"), nullptr);

  // The name is compared over the record set's name only.
  EXPECT_TRUE(ParseExact(query, Entry('0', "sysREQUEST.more", "kept") + Entry('2', "f", "v")));
  EXPECT_EQ(wxNodeRef(query, query.FindNode("kept")).GetValue("f"), "v");
}

TEST_F(QueryTest, FirstPathEntryNamesAnUnnamedRecordSet) {
  ASSERT_TRUE(Parse(Entry('1', "n") + Entry('0', "orders", "n")));
  EXPECT_EQ(Records().Name(), "orders");
  EXPECT_FALSE(Parse(Entry('0', "invoices", "n")));
  EXPECT_TRUE(Parse(Entry('0', "orders", "n")));
}

TEST_F(QueryTest, AddRecordSetPrunesScratchFieldsAndStartsAfresh) {
  ASSERT_TRUE(Parse(Entry('1', "a") + Entry('2', "0tmp", "x") + Entry('2', "keep", "y") +
                    Entry('2', "00", "z") + Entry('3', "0multi", "m") + Entry('1', "b") +
                    Entry('2', "0deep", "x") + Entry('2', "x0", "kept")));
  wxRecordSet* old = query_.CurrentRecordSet();
  wxNode* a = query_.FindNode("a");
  wxNode* b = a->Children()[0];
  query_.AddRecordSet("next");
  EXPECT_EQ(query_.RecordSetCount(), 2u);
  EXPECT_NE(query_.CurrentRecordSet(), old);
  EXPECT_EQ(query_.CurrentRecordSet()->Name(), "next");
  EXPECT_EQ(query_.FindNode("a"), nullptr);

  // The old set's nodes stay valid, without their scratch fields.
  ASSERT_EQ(a->FieldCount(), 1u);
  EXPECT_EQ(a->Fields()[0].name, "keep");
  EXPECT_NE(a->FindMultiField("0multi"), nullptr);
  ASSERT_EQ(b->FieldCount(), 1u);
  EXPECT_EQ(b->Fields()[0].name, "x0");
}

TEST_F(QueryTest, SerializedLogRebuildsTheSameContainer) {
  query_.Log().SetRecording(true);
  const std::string source = ListMailRequest() + Entry('1', "blob") +
                             Entry('4', "Bytes", "\x00\x01"s) + Entry('4', "Bytes", "\x02"s) +
                             Entry('6', "Begin") + Entry('6', "End") + Entry('5', "");
  ASSERT_TRUE(Parse(source));
  std::string bytes = query_.Serialize();
  EXPECT_EQ(bytes, source);

  wxQuery copy;
  copy.AddRecordSet();
  ASSERT_TRUE(ParseExact(copy, bytes));
  const auto& index = copy.CurrentRecordSet()->Index();
  ASSERT_EQ(index.size(), Records().Index().size());
  for (size_t i = 0; i < index.size(); ++i) {
    const wxNode& mine = *Records().Index()[i].node;
    const wxNode& theirs = *index[i].node;
    EXPECT_EQ(theirs.Name(), mine.Name());
    EXPECT_EQ(theirs.Value(), mine.Value());
    EXPECT_EQ(theirs.Depth(), mine.Depth());
    ASSERT_EQ(theirs.FieldCount(), mine.FieldCount());
    for (size_t f = 0; f < mine.Fields().size(); ++f) {
      EXPECT_EQ(theirs.Fields()[f].name, mine.Fields()[f].name);
      EXPECT_EQ(theirs.Fields()[f].value, mine.Fields()[f].value);
    }
    ASSERT_EQ(theirs.MultiFieldCount(), mine.MultiFieldCount());
    for (size_t f = 0; f < mine.MultiFields().size(); ++f) {
      EXPECT_EQ(theirs.MultiFields()[f].values, mine.MultiFields()[f].values);
    }
  }
  EXPECT_EQ(wxNodeRef(copy, copy.FindNode("blob")).GetBinary("Bytes"), "\x00\x01\x02"s);
}

// Requests come off the network: nothing in them may crash the parser, make
// it read past the bytes it was given, or invent data.

TEST_F(QueryTest, EveryTruncationOfARequestParsesToPrefixesOfItsData) {
  const std::string request = ListMailRequest();
  const std::vector<std::pair<std::string, std::string>> real = {
      {"Command", "ListMail"}, {"Pop3", "pop.example.org"}, {"Login", "bob"}};
  for (size_t length = 0; length <= request.size(); ++length) {
    wxQuery query;
    query.AddRecordSet();
    ASSERT_TRUE(ParseExact(query, std::string_view(request).substr(0, length)));
    wxNode* node = query.FindNode("sysREQUEST");
    if (!node) continue;
    for (const auto& field : node->Fields()) {
      // Cut right behind its tag, a field entry has neither name nor value.
      if (!field.name) {
        EXPECT_FALSE(field.value.has_value()) << "length " << length;
        continue;
      }
      bool matches = false;
      for (const auto& [name, value] : real) {
        matches = matches || (name.starts_with(*field.name) &&
                              (!field.value || value.starts_with(*field.value)));
      }
      EXPECT_TRUE(matches) << "length " << length << ": " << *field.name;
    }
  }
}

TEST_F(QueryTest, ParseReadsNoFurtherThanItsLength) {
  const std::string bytes = Entry('1', "n") + Entry('2', "In", "1") + Entry('2', "Out", "2");
  ASSERT_TRUE(query_.Parse(bytes.data(), bytes.size() - Entry('2', "Out", "2").size()));
  EXPECT_EQ(Root("n").GetValue("In"), "1");
  EXPECT_FALSE(Root("n").GetValue("Out").has_value());
  EXPECT_TRUE(query_.Parse(nullptr, 0));
}

TEST_F(QueryTest, LengthsRunningPastTheEndAreCut) {
  ASSERT_TRUE(Parse(Entry('1', "n") + "2" + "9999999999Command"));
  wxNode* node = query_.FindNode("n");
  ASSERT_NE(node, nullptr);
  // The name took every byte that was left, so the value is absent.
  ASSERT_EQ(node->FieldCount(), 1u);
  EXPECT_FALSE(node->Fields()[0].value.has_value());

  for (const std::string tail : {"2", "29", "299", "2999", "2119", "21",
                                 "1"
                                 "9"}) {
    wxQuery query;
    query.AddRecordSet();
    EXPECT_TRUE(ParseExact(query, Entry('1', "n") + tail)) << tail;
  }
}

TEST_F(QueryTest, EntriesWithUnknownTagsAreSteppedOverWhole) {
  // The unknown entry's name and value look like entries themselves; they
  // must be skipped, not replayed.
  const std::string hidden = Entry('1', "ghost");
  ASSERT_TRUE(Parse(Entry('1', "n") + Entry('7', hidden, hidden) + Entry('2', "After", "1") +
                    Entry('/', "x", "y") + Entry('\xff', "x", "y") + Entry('\0', "x", "y") +
                    Entry('2', "Last", "2")));
  EXPECT_EQ(query_.FindNode("ghost"), nullptr);
  EXPECT_EQ(Root("n").GetValue("After"), "1");
  EXPECT_EQ(Root("n").GetValue("Last"), "2");
  EXPECT_EQ(Records().Index().size(), 1u);
}

TEST_F(QueryTest, InvalidCountedStringsReadAsAbsentAndStillAdvance) {
  // "x" is not a digit count: name and value read as absent and take no
  // bytes, so the "x" then starts the next entry, which is stepped over.
  ASSERT_TRUE(Parse(Entry('1', "n") + "2x" + "1010" + Entry('2', "Ok", "1")));
  wxNode* node = query_.FindNode("n");
  ASSERT_EQ(node->FieldCount(), 2u);
  EXPECT_FALSE(node->Fields()[0].name.has_value());
  EXPECT_FALSE(node->Fields()[0].value.has_value());
  EXPECT_EQ(Root("n").GetValue("Ok"), "1");
}

TEST_F(QueryTest, VeryDeepNestingIsBuiltAndTornDownWithoutRecursion) {
  constexpr size_t kDepth = 100000;
  std::string bytes;
  const std::string open = Entry('1', "d");
  for (size_t i = 0; i < kDepth; ++i) bytes += open;
  bytes += Entry('2', "Bottom", "yes");
  for (size_t i = 0; i < kDepth; ++i) bytes += Entry('6', "Begin");
  {
    wxQuery query;
    query.AddRecordSet();
    ASSERT_TRUE(ParseExact(query, bytes));
    const auto& index = query.CurrentRecordSet()->Index();
    ASSERT_EQ(index.size(), kDepth);
    EXPECT_EQ(index.back().depth, kDepth - 1);
    EXPECT_EQ(index.back().node->FindField("Bottom")->value, "yes");
    EXPECT_EQ(query.CurrentRecordSet()->CurrentNode(), index.back().node.get());
  }  // destruction must not overflow the stack
}

TEST(ByteStreamTest, ReadsAcrossChunksAndRewinds) {
  wxByteStream stream;
  EXPECT_TRUE(stream.Append("abc"));
  EXPECT_TRUE(stream.Append(""));
  EXPECT_TRUE(stream.Append("de"));
  EXPECT_TRUE(stream.Append("\0f"s));
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
  EXPECT_EQ(std::string(buffer, 2), "ab");
  EXPECT_EQ(stream.Contents(), "abcde\0f"s);
}

TEST(ByteStreamTest, CapacityRefusesAnAppendThatWouldExceedIt) {
  wxByteStream stream(5);
  EXPECT_TRUE(stream.Append("abc"));
  EXPECT_FALSE(stream.Append("def"));
  EXPECT_EQ(stream.Contents(), "abc");
  EXPECT_TRUE(stream.Append("de"));
  EXPECT_FALSE(stream.Append("f"));
  EXPECT_EQ(stream.Size(), 5u);
  stream.Clear();
  EXPECT_EQ(stream.Size(), 0u);
  EXPECT_TRUE(stream.Append("12345"));
}

}  // namespace
}  // namespace corvane
