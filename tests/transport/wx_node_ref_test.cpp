#include "transport/wx_node_ref.h"

#include <gtest/gtest.h>

#include <string>

#include "transport/counted_string.h"
#include "transport/wx_query.h"

namespace corvane {
namespace {

using namespace std::string_literals;

std::string Entry(char tag, std::string_view name, std::string_view value = {}) {
  return tag + CountedString::Encode(name) + CountedString::Encode(value);
}

class NodeRefTest : public ::testing::Test {
 protected:
  void SetUp() override { query_.AddRecordSet(); }

  void Load(const std::string& bytes) { ASSERT_TRUE(query_.Parse(bytes)); }
  wxNodeRef Root(std::string_view name) { return wxNodeRef(query_, query_.FindNode(name)); }
  std::optional<std::string> Evaluate(std::string_view expression) {
    return wxNodeRef(query_, nullptr).Evaluate(expression);
  }

  wxQuery query_;
};

TEST_F(NodeRefTest, MissingNodesAndFieldsReadAsNothing) {
  Load(Entry('1', "n") + Entry('2', "Empty", "") + Entry('3', "List", "a"));
  wxNodeRef none(query_, nullptr);
  EXPECT_FALSE(none);
  EXPECT_FALSE(none.GetValue("Empty").has_value());
  EXPECT_FALSE(none.GetValueAt("List", 1).has_value());
  EXPECT_EQ(none.FindChild("x"), nullptr);
  EXPECT_EQ(none.ValueCount("List"), 0u);

  wxNodeRef node = Root("n");
  ASSERT_TRUE(node);
  EXPECT_FALSE(node.GetValue("Empty").has_value());
  EXPECT_FALSE(node.GetValue("Absent").has_value());
  // Single-valued and multi-valued fields are separate lists.
  EXPECT_FALSE(node.GetValue("List").has_value());
  EXPECT_FALSE(node.GetValueAt("Empty", 1).has_value());
}

TEST_F(NodeRefTest, GetValueAtCountsFromOne) {
  Load(Entry('1', "n") + Entry('3', "To", "first,second,,fourth"));
  wxNodeRef node = Root("n");
  EXPECT_FALSE(node.GetValueAt("To", 0).has_value());
  EXPECT_FALSE(node.GetValueAt("To", -1).has_value());
  EXPECT_EQ(node.GetValueAt("To", 1), "first");
  EXPECT_EQ(node.GetValueAt("To", 2), "second");
  EXPECT_FALSE(node.GetValueAt("To", 3).has_value());
  EXPECT_EQ(node.GetValueAt("To", 4), "fourth");
  EXPECT_FALSE(node.GetValueAt("To", 5).has_value());
}

TEST_F(NodeRefTest, ValuesReadAsZeroTerminatedText) {
  Load(Entry('1', "n") + Entry('2', "Login", "bob\0evil"s) + Entry('2', "Lead", "\0x"s) +
       Entry('2', "Name\0junk"s, "v") + Entry('3', "To", "a\0b,c"s));
  wxNodeRef node = Root("n");
  EXPECT_EQ(node.GetValue("Login"), "bob");
  EXPECT_EQ(node.GetValue("Lead"), "");
  EXPECT_EQ(node.GetValue("Name"), "v");
  EXPECT_EQ(node.GetValueAt("To", 1), "a");
  EXPECT_EQ(node.GetValueAt("To", 2), "c");
}

TEST_F(NodeRefTest, FindChildByNameValueOrReferringField) {
  Load(Entry('1', "parent") + Entry('1', "kid", "aKid") + Entry('5', "") + Entry('1', "kid2") +
       Entry('5', "") + Entry('2', "Link", "other") + Entry('2', "Dead", "nowhere") +
       Entry('5', "") + Entry('1', "other") + Entry('2', "Where", "there") + Entry('5', ""));
  wxNodeRef parent = Root("parent");
  wxNode* kid = parent.FindChild("kid");
  ASSERT_NE(kid, nullptr);
  EXPECT_EQ(parent.FindChild("aKid"), kid);
  EXPECT_EQ(parent.FindChild("kid2"), parent.Node()->Children()[1]);
  EXPECT_EQ(parent.FindChild("Link"), query_.FindNode("other"));
  EXPECT_EQ(parent.FindChild("Dead"), nullptr);
  EXPECT_EQ(parent.FindChild("missing"), nullptr);
  // Through a referring field in a path as well.
  EXPECT_EQ(Evaluate("parent.Link.Where"), "there");
}

TEST_F(NodeRefTest, EvaluateFollowsDottedPaths) {
  Load(Entry('1', "sysREQUEST") + Entry('2', "Command", "ListMail") + Entry('1', "inner") +
       Entry('2', "Deep", "yes") + Entry('3', "Many", "x,y") + Entry('5', "") + Entry('5', ""));
  EXPECT_EQ(Evaluate("sysREQUEST.Command"), "ListMail");
  EXPECT_EQ(Evaluate("sysREQUEST.inner.Deep"), "yes");
  EXPECT_EQ(Evaluate(".sysREQUEST..inner.Deep"), "yes");
  EXPECT_EQ(Evaluate("sysREQUEST.inner.Many[2]"), "y");
  EXPECT_EQ(Evaluate("sysREQUEST.inner.Many[02]"), "y");
  EXPECT_FALSE(Evaluate("sysREQUEST.inner.Many[3]").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST.inner.Many[x]").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST.inner.Many[1").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST.Missing").has_value());
  EXPECT_FALSE(Evaluate("nothing.Command").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST").has_value());
  EXPECT_FALSE(Evaluate("").has_value());
  EXPECT_FALSE(Evaluate(".Command").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST.").has_value());
  EXPECT_FALSE(Evaluate("sysREQUEST.\0inner.Deep"s).has_value());
}

TEST_F(NodeRefTest, ValuesThatArePathsReadAsWhatTheyName) {
  Load(Entry('1', "sysREQUEST") + Entry('2', "Login", "bob") + Entry('5', "") +
       Entry('1', "sysPARAMETER") + Entry('2', "User", "sysREQUEST.Login") +
       Entry('2', "Host", "mail.example.org") + Entry('2', "Loop", "sysPARAMETER.Loop") +
       Entry('2', "PingA", "sysPARAMETER.PingB") + Entry('2', "PingB", "sysPARAMETER.PingA") +
       Entry('3', "Who", "sysREQUEST.Login,plain") + Entry('5', ""));
  wxNodeRef parameters = Root("sysPARAMETER");
  EXPECT_EQ(parameters.GetValue("User"), "bob");
  EXPECT_EQ(parameters.GetValueAt("Who", 1), "bob");
  EXPECT_EQ(parameters.GetValueAt("Who", 2), "plain");
  // A dotted value that names nothing is kept as it is.
  EXPECT_EQ(parameters.GetValue("Host"), "mail.example.org");
  // Values that name themselves, directly or in a ring, end without running
  // away and give back a path text.
  auto loop = parameters.GetValue("Loop");
  ASSERT_TRUE(loop.has_value());
  EXPECT_EQ(*loop, "sysPARAMETER.Loop");
  auto ping = parameters.GetValue("PingA");
  ASSERT_TRUE(ping.has_value());
  EXPECT_TRUE(*ping == "sysPARAMETER.PingA" || *ping == "sysPARAMETER.PingB") << *ping;
}

TEST_F(NodeRefTest, EvaluatedResultsAreCutTo511Bytes) {
  const std::string longText(600, 'q');
  Load(Entry('1', "n") + Entry('2', "Long", longText) +
       Entry('2', "Exact", longText.substr(0, 511)) + Entry('2', "Ref", "n.Long"));
  EXPECT_EQ(Root("n").GetValue("Long"), longText);
  EXPECT_EQ(Evaluate("n.Long"), longText.substr(0, 511));
  EXPECT_EQ(Evaluate("n.Exact"), longText.substr(0, 511));
  // A value reached through a path is cut the same way.
  EXPECT_EQ(Root("n").GetValue("Ref"), longText.substr(0, 511));
}

class RowCursorTest : public NodeRefTest {
 protected:
  // A "wxQUERY" node "q" whose row node holds the given rows.
  void LoadRows(const std::string& rows) {
    Load(Entry('1', "q", "wxQUERY") + Entry('1', "rows", "wxRECORDSET") + rows + Entry('5', "") +
         Entry('5', "") + Entry('1', "plain") + Entry('1', "wxRECORDSET") +
         Entry('2', "Row0", "x") + Entry('5', "") + Entry('5', ""));
  }
  std::optional<std::string> Cursor() { return Root("q").GetValue("t_Pointer"); }
};

TEST_F(RowCursorTest, CountStopsAtTheFirstMissingRow) {
  LoadRows(Entry('2', "Row0", "a") + Entry('2', "Row1", "b") + Entry('2', "Row3", "d"));
  EXPECT_EQ(Evaluate("q.Count()"), "2");
}

TEST_F(RowCursorTest, FirstAndNextWalkTheRows) {
  LoadRows(Entry('2', "Row0", "a") + Entry('2', "Row1", "b"));
  EXPECT_FALSE(Cursor().has_value());
  EXPECT_EQ(Evaluate("q.First()"), "1");
  EXPECT_EQ(Cursor(), "1");
  EXPECT_EQ(Evaluate("q.Next()"), "1");
  EXPECT_EQ(Cursor(), "2");
  EXPECT_EQ(Evaluate("q.Next()"), "0");
  EXPECT_EQ(Cursor(), "3");
  EXPECT_EQ(Evaluate("q.First()"), "1");
  EXPECT_EQ(Cursor(), "1");
}

TEST_F(RowCursorTest, EmptyRowSetAnswersZero) {
  LoadRows("");
  EXPECT_EQ(Evaluate("q.First()"), "0");
  EXPECT_EQ(Cursor(), "1");
  EXPECT_EQ(Evaluate("q.Count()"), "0");
  EXPECT_FALSE(Evaluate("q.Field(1)").has_value());
}

TEST_F(RowCursorTest, FieldReadsAColumnOfTheCurrentRow) {
  LoadRows(Entry('2', "Row0", "15alice10213a@example.org") + Entry('2', "Row1", "13bob"));
  // No row is current before First.
  EXPECT_FALSE(Evaluate("q.Field(1)").has_value());
  Evaluate("q.First()");
  EXPECT_EQ(Evaluate("q.Field(1)"), "alice");
  EXPECT_FALSE(Evaluate("q.Field(2)").has_value());  // an empty column is absent
  EXPECT_EQ(Evaluate("q.Field(3)"), "a@example.org");
  EXPECT_FALSE(Evaluate("q.Field(4)").has_value());
  EXPECT_FALSE(Evaluate("q.Field(0)").has_value());
  Evaluate("q.Next()");
  EXPECT_EQ(Evaluate("q.Field(1)"), "bob");
  Evaluate("q.Next()");
  EXPECT_FALSE(Evaluate("q.Field(1)").has_value());
}

TEST_F(RowCursorTest, MethodsNeedAQueryNodeAndWellFormedCalls) {
  LoadRows(Entry('2', "Row0", "a"));
  // "plain" has a row node but is no "wxQUERY" node.
  EXPECT_FALSE(Evaluate("plain.First()").has_value());
  EXPECT_FALSE(Root("plain").GetValue("t_Pointer").has_value());
  EXPECT_FALSE(Evaluate("q.Count(").has_value());
  EXPECT_FALSE(Evaluate("q.Last()").has_value());
  EXPECT_FALSE(Evaluate("q.count()").has_value());
  EXPECT_EQ(Evaluate("q.Count()trailing"), "1");
}

TEST_F(RowCursorTest, HostileCursorValuesDoNotOverflow) {
  LoadRows(Entry('2', "Row0", "13abc"));
  Load(Entry('0', "", "q") + Entry('2', "t_Pointer", "-2147483648"));
  EXPECT_FALSE(Evaluate("q.Field(1)").has_value());
  EXPECT_EQ(Evaluate("q.Next()"), "0");
  Load(Entry('0', "", "q") + Entry('2', "t_Pointer", "99999999999"));
  EXPECT_EQ(Evaluate("q.Next()"), "0");
  EXPECT_FALSE(Evaluate("q.Field(1)").has_value());
}

}  // namespace
}  // namespace corvane
