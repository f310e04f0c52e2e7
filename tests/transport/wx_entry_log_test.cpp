#include "transport/wx_entry_log.h"

#include <gtest/gtest.h>

#include <string>

#include "transport/counted_string.h"
#include "transport/wx_query.h"

namespace corvane {
namespace {

using namespace std::string_literals;

TEST(EntryLogTest, RecordsNothingUntilSwitchedOn) {
  wxEntryLog log;
  EXPECT_FALSE(log.IsRecording());
  log.AddEntryText(2, "Status", "fail");
  log.Record(2, "16Status", "14fail");
  EXPECT_EQ(log.TotalLength(), 0u);
  EXPECT_EQ(log.Serialize(), "");

  log.SetRecording(true);
  log.AddEntryText(2, "Status", "fail");
  log.SetRecording(false);
  log.AddEntryText(2, "Log", "dropped");
  EXPECT_EQ(log.Serialize(), "216Status14fail");
}

TEST(EntryLogTest, UnknownCommandAnswerHasTheWireForm) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(1, "sysRESPONSE", "aResponse");
  log.AddEntryText(2, "Command", "Frobnicate");
  log.AddEntryText(2, "Status", "fail");
  log.AddEntryText(2, "Log", "Unknow command");
  log.AddEntryText(5, "0", std::nullopt);
  const std::string expected =
      "1211sysRESPONSE19aResponse"
      "217Command210Frobnicate"
      "216Status14fail"
      "213Log214Unknow command"
      "5110"
      "10";
  EXPECT_EQ(log.TotalLength(), expected.size());
  EXPECT_EQ(log.EntryCount(), 5u);
  EXPECT_EQ(log.Serialize(), expected);
  // Serializing empties the log.
  EXPECT_EQ(log.TotalLength(), 0u);
  EXPECT_EQ(log.Serialize(), "");
}

TEST(EntryLogTest, AbsentAndEmptyTextsAreBothWrittenAsZeroLength) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(5, std::nullopt, std::nullopt);
  log.AddEntryText(2, "", "");
  EXPECT_EQ(log.Serialize(), "51010"s + "21010");
}

TEST(EntryLogTest, LengthsNeedingSeveralDigitsAreCountedExactly) {
  wxEntryLog log;
  log.SetRecording(true);
  std::string big(12345, 'x');
  big[100] = '\0';  // any byte value goes through
  log.AddEntryText(4, "Blob", big);
  EXPECT_EQ(log.TotalLength(), 1u + 6u + 1u + 5u + big.size());
  std::string out = log.Serialize();
  EXPECT_EQ(out.substr(0, 13), "414Blob512345");
  EXPECT_EQ(out.substr(13), big);
}

TEST(EntryLogTest, RecordedCountedStringsAreStoredWellFormed) {
  wxEntryLog log;
  log.SetRecording(true);
  // A leading-zero length is rewritten in the shortest form.
  log.Record(2, "207Command", "14Pop3");
  // An invalid counted string (first byte not "1".."9") and one that claims
  // more bytes than it holds must not swallow the entries behind them.
  log.Record(2, "x", "19cut");
  log.AddEntryText(2, "Next", "ok");
  EXPECT_EQ(log.Serialize(), "217Command14Pop3"s + "21013cut" + "214Next12ok");
}

TEST(EntryLogTest, TagsBeyondTheEntryKindsAreNotRecorded) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(7, "a", "b");
  log.AddEntryText(4294967295u, "a", "b");
  log.AddEntryText(6, "Begin", std::nullopt);
  EXPECT_EQ(log.Serialize(), "615Begin10");
}

TEST(EntryLogTest, QueryRecordsAppliedEntriesOnlyWhileRecording) {
  wxQuery query;
  query.AddEntry(1, "11a", "10");  // no record set yet: nothing happens at all
  EXPECT_EQ(query.Serialize(), "");
  EXPECT_EQ(query.FindNode("a"), nullptr);

  query.AddRecordSet();
  query.AddEntry(1, "11a", "10");
  query.Log().SetRecording(true);
  query.AddEntry(2, "11f", "11v");
  query.AddEntry(9, "11g", "11w");  // unknown kind: neither applied nor recorded
  EXPECT_EQ(query.Serialize(), "211f11v");
  EXPECT_NE(query.FindNode("a"), nullptr);
}

TEST(EntryLogTest, AddRecordSetDiscardsWhatWasRecorded) {
  wxQuery query;
  query.Log().SetRecording(true);
  query.AddRecordSet("first");
  query.AddEntry(1, "11a", "10");
  query.AddRecordSet("second");
  query.AddEntry(1, "11b", "10");
  EXPECT_EQ(query.Serialize(), "111b10");
}

TEST(EntryLogTest, ParsingWhileRecordingReproducesTheRequest) {
  wxEntryLog request;
  request.SetRecording(true);
  request.AddEntryText(1, "sysREQUEST", std::nullopt);
  request.AddEntryText(2, "Command", "ListMail");
  request.AddEntryText(5, "0", std::nullopt);
  request.AddEntryText(1, "sysPARAMETER", "aParam");
  request.AddEntryText(3, "Ids", "1,,3");
  request.AddEntryText(4, "Data", "\x01\x00\xff"s);
  request.AddEntryText(6, "Begin", std::nullopt);
  request.AddEntryText(6, "End", std::nullopt);
  request.AddEntryText(5, "0", std::nullopt);
  const std::string bytes = request.Serialize();

  wxQuery query;
  query.AddRecordSet();
  query.Log().SetRecording(true);
  ASSERT_TRUE(query.Parse(bytes));
  EXPECT_EQ(query.Serialize(), bytes);
}

}  // namespace
}  // namespace corvane
