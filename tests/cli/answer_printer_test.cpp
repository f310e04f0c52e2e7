// How corvane-cli shows an answer: the tree, listing rows split with --rows,
// JSON, and the status it exits by.
#include "cli/answer_printer.h"

#include <gtest/gtest.h>

#include "support/command_output.h"
#include "support/temp_dir.h"
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

// --json as a JSON reader (python3's) sees it: UTF-8 text as text, any other
// bytes (GB2312, binary, broken UTF-8) as {"base64": ...}, each value's bytes
// exactly as sent.
TEST(AnswerPrinter, JsonValuesGiveBackTheirExactBytes) {
  const std::pair<const char*, std::string> fields[] = {
      {"Utf8", "caf\xc3\xa9 \xe4\xb8\xad\xf0\x9f\x98\x80"},
      {"Gb2312", "\xd6\xd0\xce\xc4"},
      {"Binary", std::string("\x00\x01\xff\xfe\x80", 5)},
      {"Escaped", "a\"b\\c\r\n\x7f"},
      {"Overlong", "\xc0\xaf"},
      {"Surrogate", "\xed\xa0\x80"},
      {"PastU10FFFF", "\xf4\x90\x80\x80"},
      {"Cut", "caf\xc3"},
      {"One", "\xff"},
      {"Two", "\xff\xfe"},
      {"Empty", ""}};
  wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(kEntryOpenRecord, "sysPARAMETER", "aParam");
  std::string expected;
  for (const auto& [name, value] : fields) {
    log.AddEntryText(kEntryField, name, value);
    std::string hex;
    for (unsigned char c : value)
      hex += "0123456789abcdef"[c >> 4], hex += "0123456789abcdef"[c & 15];
    expected += std::string(name) + " " + hex + "\n";
  }
  log.AddEntryText(kEntryListItem, "Multi", "\xd6\xd0,ok");
  const std::string json = RenderAnswer(log.Serialize(), true);
  EXPECT_NE(json.find("\"Utf8\":\"caf\xc3\xa9 "), std::string::npos) << json;
  test::TempDir dir;
  test::WriteFile(dir / "answer.json", json);
  const test::CommandOutput read = test::RunCommand(
      "python3 -c 'import json, base64, sys\n"
      "d = json.load(open(sys.argv[1], encoding=\"utf-8\"))[\"sysPARAMETER\"]\n"
      "b = lambda v: base64.b64decode(v[\"base64\"]) if isinstance(v, dict) else v.encode()\n"
      "for k, v in d.items():\n"
      "  print(k, b\",\".join(map(b, v)).hex() if isinstance(v, list) else b(v).hex())' " +
      (dir / "answer.json"));
  EXPECT_EQ(read.status, 0) << read.output;
  EXPECT_EQ(read.output, expected + "Multi d6d02c6f6b\n") << json;
}

}  // namespace
}  // namespace corvane::cli
