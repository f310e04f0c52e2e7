// The header list of a message, and loading a message over an older one.
#include "mime/mail_message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>

#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

TEST(HeaderFieldTest, EveryTableNameMapsBackToItsIdWithoutCase) {
  for (int32_t id = 1; id <= 20; ++id) {
    std::string name = HeaderFieldText(id);
    ASSERT_TRUE(name.ends_with(":")) << id;
    name.pop_back();
    EXPECT_EQ(HeaderFieldIdOfName(name), id);
    for (char& c : name) c = static_cast<char>(std::isalpha(c) ? c ^ 0x20 : c);
    EXPECT_EQ(HeaderFieldIdOfName(name), id) << name;
  }
  EXPECT_EQ(HeaderFieldText(22), nullptr);
  EXPECT_EQ(HeaderFieldText(-1), nullptr);
  for (const char* name : {"Subject:", "X-Priority", "All Fields", "Custom"})
    EXPECT_EQ(HeaderFieldIdOfName(name), kFieldCustom) << name;
}

// Received r1, Subject s, Received r2, X-Test t, X-Other o.
MailMessage Filled() {
  MailMessage message;
  message.AppendHeader("r1", kFieldReceived);
  message.AppendHeader("s", kFieldSubject);
  message.AppendHeader("r2", kFieldReceived);
  message.AppendHeader("t", kFieldCustom, "X-Test:");
  message.AppendHeader("o", kFieldCustom, "X-Other: ");
  return message;
}

TEST(MailMessageHeaderTest, AppendKeepsDataExactlyAndRefusesWhatHasNoName) {
  MailMessage message = Filled();
  EXPECT_EQ(message.AppendHeader(nullptr, kFieldSubject), 0);
  EXPECT_EQ(message.AppendHeader("x", kFieldCustom), 0);
  EXPECT_EQ(message.AppendHeader("x", 22), 0);
  EXPECT_EQ(message.AppendHeader("x", -1), 0);
  EXPECT_EQ(message.AppendHeader(" =?gb2312?B?1tA=?=\t", kFieldFrom), 1);
  EXPECT_EQ(message.AppendHeader("", kFieldAll), 1);
  EXPECT_EQ(message.CountHeaders(kFieldAll), 7);
  EXPECT_EQ(message.CountHeaders(kFieldReceived), 2);
  EXPECT_EQ(message.CountHeaders(kFieldCustom), 2);
  EXPECT_EQ(message.CountHeaders(kFieldTo), 0);
  EXPECT_EQ(*message.HeaderValue(kFieldFrom, 0), " =?gb2312?B?1tA=?=\t");
  EXPECT_EQ(message.Headers()[1].name, "Subject:");
  EXPECT_EQ(*message.HeaderValue(kFieldReceived, 1), "r2");
  EXPECT_EQ(*message.HeaderValue(kFieldAll, 3), "t");
  EXPECT_EQ(*message.HeaderValue(kFieldAll, 6), "");
  for (auto [id, index] : {std::pair{kFieldReceived, 2}, {kFieldReceived, -1}, {kFieldAll, 7}})
    EXPECT_EQ(message.HeaderValue(id, index), nullptr);
  // A custom name gets one space, and is found only with it.
  EXPECT_EQ(*message.CustomHeaderName(0), "X-Test: ");
  EXPECT_EQ(*message.CustomHeaderName(1), "X-Other: ");
  EXPECT_EQ(message.CustomHeaderName(2), nullptr);
  EXPECT_EQ(*message.HeaderValueByName("x-TEST: ", 0), "t");
  EXPECT_EQ(*message.HeaderValueByName("RECEIVED:", 1), "r2");
  for (const char* name : {"X-Test:", "X-Test", "X-Test: x", (const char*)nullptr})
    EXPECT_EQ(message.HeaderValueByName(name, 0), nullptr);
  EXPECT_EQ(message.HeaderValueByName("X-Test: ", 1), nullptr);
}

TEST(MailMessageHeaderTest, JoinFailsWhenTheTotalReachesTheSize) {
  MailMessage message = Filled();
  char buffer[16];
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 5), 1);
  EXPECT_STREQ(buffer, "r1r2");
  std::memset(buffer, 'z', sizeof buffer);
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 4), 0);
  EXPECT_STREQ(buffer, "r1");  // what was copied before the failure stays
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, nullptr, 8), 0);
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 0), 0);
  EXPECT_EQ(message.JoinHeaderValues(kFieldTo, buffer, 16), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(message.JoinedHeaderValues(kFieldAll), "r1sr2to");
  EXPECT_EQ(message.JoinedHeaderValues(kFieldReceived, 4), std::nullopt);
  EXPECT_EQ(message.JoinedHeaderValues(kFieldTo), std::nullopt);
  MailMessage longSubject;  // the operations' 4095-byte join: 4094 bytes fit, 4095 do not
  longSubject.AppendHeader(std::string(4094, 's').c_str(), kFieldSubject);
  EXPECT_EQ(longSubject.JoinedHeaderValues(kFieldSubject)->size(), 4094u);
  longSubject.AppendHeader("s", kFieldSubject);
  EXPECT_EQ(longSubject.JoinedHeaderValues(kFieldSubject), std::nullopt);
}

TEST(MailMessageHeaderTest, RemovesByIdByNameOrEverything) {
  struct Case {
    int32_t id;
    const char* name;
    int left;
  };
  for (const Case& c : {Case{kFieldReceived, nullptr, 3}, Case{kFieldCustom, "x-test: ", 4},
                        Case{kFieldCustom, "X-Other:", 5}, Case{kFieldCustom, nullptr, 0},
                        Case{kFieldAll, nullptr, 0}, Case{kFieldTo, nullptr, 5}}) {
    MailMessage message = Filled();
    EXPECT_EQ(message.RemoveHeaders(c.id, c.name), 1);
    EXPECT_EQ(message.CountHeaders(kFieldAll), c.left) << c.id << " " << (c.name ? c.name : "");
  }
  MailMessage message = Filled();
  message.RemoveHeaders(kFieldCustom, "X-TEST: ");
  EXPECT_EQ(*message.CustomHeaderName(0), "X-Other: ");
  EXPECT_EQ(*message.HeaderValue(kFieldAll, 2), "r2");
}

TEST(MailMessageTest, LoadReplacesTheWholeMessageAndAFailedLoadEmptiesIt) {
  MailMessage message = Filled();
  message.SetCharset("utf-8");
  message.SetTextBody("old");
  EXPECT_EQ(message.AddAttachmentFile(""), kMimeAttachFailed);
  EXPECT_EQ(message.AddAttachmentFile("/a/b.bin"), 0);
  EXPECT_EQ(message.AttachmentFiles(), std::vector<std::string>{"/a/b.bin"});
  const std::string top = "From: a@example.com\r\nSubject: top only\r\n";
  BufferDataSource source(static_cast<int64_t>(top.size()));
  source.Open(DataSource::kOpenWrite);
  source.Write(top.data(), static_cast<int>(top.size()));
  ASSERT_EQ(message.Load(source), kMimeOk);
  EXPECT_EQ(message.CountHeaders(kFieldAll), 2);
  EXPECT_EQ(message.HeaderValueByName("X-Test: ", 0), nullptr);
  EXPECT_TRUE(message.AttachmentFiles().empty());
  EXPECT_EQ(message.Charset(), "");

  FileDataSource nested(std::filesystem::path(__FILE__).parent_path() / "../data/mail/nested.eml");
  ASSERT_EQ(message.Load(nested), kMimeOk);
  ASSERT_EQ(message.AttachmentCount(), 2);
  EXPECT_EQ(*message.AttachmentName(1), "doc.pdf");
  EXPECT_EQ(message.AttachmentName(2), nullptr);
  EXPECT_EQ(message.AttachmentName(-1), nullptr);
  test::TempDir dir;
  for (int twice = 0; twice < 2; ++twice) EXPECT_EQ(message.SaveAttachment(1, dir / "d"), 1200);
  EXPECT_EQ(std::filesystem::file_size(dir / "d"), 1200u);  // written over, not appended to
  EXPECT_EQ(message.SaveAttachment(2, dir / "none"), -1);
  EXPECT_EQ(message.SaveAttachment(0, dir / "no-such-dir/logo.png"), -1);
  FileDataSource missing(dir / "absent.eml");
  EXPECT_EQ(message.Load(missing), kMimeSourceOpenFailed);
  EXPECT_EQ(message.CountHeaders(kFieldAll) + message.AttachmentCount(), 0);
  EXPECT_FALSE(message.TextBody());
}

}  // namespace
}  // namespace corvane
