// How corvane-cli shows an answer: the tree, listing rows split with --rows,
// JSON, and the status it exits by.
#include "cli/answer_printer.h"

#include <gtest/gtest.h>

#include "transport/counted_string.h"
#include "transport/response_entries.h"
#include "transport/wx_entry_log.h"

namespace corvane::cli {
namespace {

std::string Row(std::initializer_list<std::string_view> parts) {
  std::string row;
  for (std::string_view part : parts) CountedString::AppendTo(row, part);
  return row;
}

TEST(AnswerPrinter, RowsAreSplitOnlyWhenWhollyCountedStrings) {
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(kEntryOpenRecord, "sysRESPONSE", "aResponse");
  log.AddEntryText(kEntryField, "Status", "success");
  log.AddEntryText(kEntryCloseRecord, std::nullopt, std::nullopt);
  log.AddEntryText(kEntryOpenRecord, "sysPARAMETER", "aParam");
  for (auto [name, value] : std::initializer_list<std::pair<const char*, std::string>>{
           {"Row0", Row({"id1", "", "Subject | with bar", "2023-11-14 22:13", "1"})},
           {"Row1", Row({"id2", "only"}).substr(0, 9)},  // the last string cut short
           {"Row2", Row({"single"})},                    // one string is no row
           {"Row3", Row({"", "x"})},
           {"Body", "12 apples"},    // starts like a counted string
           {"Log", "209abcdefghi"},  // leading zeros: not the gateway's form
           {"Status", "fail"}}) {    // not the first record's
    log.AddEntryText(kEntryField, name, value);
  }
  const std::string answer = log.Serialize();
  EXPECT_EQ(RenderAnswer(answer, false, true),
            "sysRESPONSE (aResponse)\n  Status = success\nsysPARAMETER (aParam)\n"
            "  Row0 = id1 |  | Subject | with bar | 2023-11-14 22:13 | 1\n"
            "  Row1 = 13id214on\n  Row2 = 16single\n  Row3 =  | x\n  Body = 12 apples\n"
            "  Log = 209abcdefghi\n  Status = fail\n");
  // Without --rows, and in JSON, values are the bytes as sent.
  EXPECT_NE(RenderAnswer(answer, false).find("  Row0 = 13id110218Subject | with bar"),
            std::string::npos);
  EXPECT_NE(RenderAnswer(answer, true, true).find("\"Row0\":\"13id110218Subject | with bar"),
            std::string::npos);
  EXPECT_EQ(AnswerStatus(answer), "success");
  // A status nested in the first record is not its own.
  EXPECT_EQ(AnswerStatus("1212sysPARAMETER16aParam115inner10216Status16nested"), std::nullopt);
  EXPECT_EQ(AnswerStatus("garbage"), std::nullopt);
}

}  // namespace
}  // namespace corvane::cli
