#include "mime/mail_message.h"

#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <string>

#include "mime/encoded_words.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;

std::string CorpusPath(const std::string& name) {
  return (std::filesystem::path(__FILE__).parent_path().parent_path() / "data" / "mail" / name)
      .string();
}

int LoadText(MailMessage& message, const std::string& text) {
  BufferDataSource source(static_cast<int64_t>(text.size()));
  source.Open(DataSource::kOpenWrite);
  source.Write(text.data(), static_cast<int>(text.size()));
  return message.Load(source);
}

TEST(HeaderFieldTest, NamesTheTwentyTwoIdsAndNothingElse) {
  EXPECT_STREQ(HeaderFieldText(kFieldAll), "All Fields ");
  EXPECT_STREQ(HeaderFieldText(kFieldMessageId), "Message-ID:");
  EXPECT_STREQ(HeaderFieldText(kFieldSubject), "Subject:");
  EXPECT_STREQ(HeaderFieldText(kFieldContentType), "Content-Type:");
  EXPECT_STREQ(HeaderFieldText(kFieldCustom), "Custom");
  for (int32_t id = 1; id <= 20; ++id) {
    std::string text = HeaderFieldText(id);
    EXPECT_EQ(text.back(), ':') << id;
    EXPECT_EQ(HeaderFieldIdOfName(text.substr(0, text.size() - 1)), id);
  }
  EXPECT_EQ(HeaderFieldText(22), nullptr);
  EXPECT_EQ(HeaderFieldText(-1), nullptr);

  EXPECT_EQ(HeaderFieldIdOfName("sUBJECT"), kFieldSubject);
  EXPECT_EQ(HeaderFieldIdOfName("Subject:"), kFieldCustom);  // names come without the colon
  EXPECT_EQ(HeaderFieldIdOfName("X-Priority"), kFieldCustom);
  EXPECT_EQ(HeaderFieldIdOfName("All Fields"), kFieldCustom);
  EXPECT_EQ(HeaderFieldIdOfName("Custom"), kFieldCustom);
}

TEST(MailMessageHeaderTest, CustomNameGetsOneSpaceAndIsFoundOnlyWithIt) {
  MailMessage message;
  ASSERT_EQ(message.AppendHeader("yes", kFieldCustom, "X-Test:"), 1);
  ASSERT_EQ(message.AppendHeader("again", kFieldCustom, "X-Other: "), 1);
  EXPECT_EQ(*message.CustomHeaderName(0), "X-Test: ");
  EXPECT_EQ(*message.CustomHeaderName(1), "X-Other: ");  // already had its space
  EXPECT_EQ(message.CustomHeaderName(2), nullptr);

  EXPECT_EQ(*message.HeaderValueByName("X-Test: ", 0), "yes");
  EXPECT_EQ(*message.HeaderValueByName("x-TEST: ", 0), "yes");
  EXPECT_EQ(message.HeaderValueByName("X-Test:", 0), nullptr);
  EXPECT_EQ(message.HeaderValueByName("X-Test", 0), nullptr);
  EXPECT_EQ(message.HeaderValueByName("X-Test: ", 1), nullptr);
  EXPECT_EQ(message.HeaderValueByName(nullptr, 0), nullptr);
}

TEST(MailMessageHeaderTest, AppendRefusesMissingDataNamesAndUnknownIds) {
  MailMessage message;
  EXPECT_EQ(message.AppendHeader(nullptr, kFieldSubject), 0);
  EXPECT_EQ(message.AppendHeader("x", kFieldCustom, nullptr), 0);
  EXPECT_EQ(message.AppendHeader("x", 22), 0);
  EXPECT_EQ(message.AppendHeader("x", -1), 0);
  EXPECT_EQ(message.CountHeaders(kFieldAll), 0);

  // Values are kept exactly, empty ones too.
  EXPECT_EQ(message.AppendHeader("", kFieldSubject), 1);
  EXPECT_EQ(message.AppendHeader(" =?gb2312?B?1tA=?=\t", kFieldFrom), 1);
  EXPECT_EQ(*message.HeaderValue(kFieldSubject, 0), "");
  EXPECT_EQ(*message.HeaderValue(kFieldFrom, 0), " =?gb2312?B?1tA=?=\t");
  EXPECT_EQ(message.Headers()[0].name, "Subject:");
}

TEST(MailMessageHeaderTest, CountsAndReadsByIdInInsertionOrder) {
  MailMessage message;
  EXPECT_EQ(message.CountHeaders(kFieldAll), 0);
  EXPECT_EQ(message.HeaderValue(kFieldAll, 0), nullptr);
  message.AppendHeader("r1", kFieldReceived);
  message.AppendHeader("subject", kFieldSubject);
  message.AppendHeader("r2", kFieldReceived);
  message.AppendHeader("3", kFieldCustom, "X-Priority:");
  EXPECT_EQ(message.CountHeaders(kFieldAll), 4);
  EXPECT_EQ(message.CountHeaders(kFieldReceived), 2);
  EXPECT_EQ(message.CountHeaders(kFieldCustom), 1);
  EXPECT_EQ(message.CountHeaders(kFieldTo), 0);
  EXPECT_EQ(*message.HeaderValue(kFieldReceived, 1), "r2");
  EXPECT_EQ(message.HeaderValue(kFieldReceived, 2), nullptr);
  EXPECT_EQ(*message.HeaderValue(kFieldAll, 2), "r2");
  EXPECT_EQ(*message.HeaderValue(kFieldAll, 3), "3");
  EXPECT_EQ(message.HeaderValue(kFieldReceived, -1), nullptr);
}

TEST(MailMessageHeaderTest, JoinFailsWhenTheTotalReachesTheSize) {
  MailMessage message;
  message.AppendHeader("abc", kFieldReceived);
  message.AppendHeader("Subject", kFieldSubject);
  message.AppendHeader("defg", kFieldReceived);

  char buffer[16];
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 8), 1);
  EXPECT_STREQ(buffer, "abcdefg");
  std::memset(buffer, 'z', sizeof buffer);
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 7), 0);
  EXPECT_STREQ(buffer, "abc");  // what was copied before the failure stays

  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, nullptr, 8), 0);
  EXPECT_EQ(message.JoinHeaderValues(kFieldReceived, buffer, 0), 0);
  EXPECT_EQ(message.JoinHeaderValues(kFieldTo, buffer, 16), 0);
  EXPECT_STREQ(buffer, "");
  EXPECT_EQ(message.JoinHeaderValues(kFieldAll, buffer, 16), 1);
  EXPECT_STREQ(buffer, "abcSubjectdefg");

  EXPECT_EQ(message.JoinedHeaderValues(kFieldReceived, 8), "abcdefg");
  EXPECT_EQ(message.JoinedHeaderValues(kFieldReceived, 7), std::nullopt);
  EXPECT_EQ(message.JoinedHeaderValues(kFieldTo), std::nullopt);
  // The mail operations' 4095-byte join: 4094 bytes fit, 4095 do not.
  MailMessage longSubject;
  longSubject.AppendHeader(std::string(4094, 's').c_str(), kFieldSubject);
  EXPECT_EQ(longSubject.JoinedHeaderValues(kFieldSubject)->size(), 4094u);
  longSubject.AppendHeader("s", kFieldSubject);
  EXPECT_EQ(longSubject.JoinedHeaderValues(kFieldSubject), std::nullopt);
}

TEST(MailMessageHeaderTest, RemovesByIdByNameOrEverything) {
  auto filled = [] {
    MailMessage message;
    message.AppendHeader("r1", kFieldReceived);
    message.AppendHeader("s", kFieldSubject);
    message.AppendHeader("r2", kFieldReceived);
    message.AppendHeader("t", kFieldCustom, "X-Test:");
    message.AppendHeader("o", kFieldCustom, "X-Other:");
    return message;
  };

  MailMessage byId = filled();
  EXPECT_EQ(byId.RemoveHeaders(kFieldReceived), 1);
  EXPECT_EQ(byId.CountHeaders(kFieldAll), 3);
  EXPECT_EQ(byId.CountHeaders(kFieldReceived), 0);

  MailMessage byName = filled();
  EXPECT_EQ(byName.RemoveHeaders(kFieldCustom, "x-test: "), 1);
  EXPECT_EQ(byName.CountHeaders(kFieldAll), 4);
  EXPECT_EQ(*byName.CustomHeaderName(0), "X-Other: ");
  byName.RemoveHeaders(kFieldCustom, "X-Other:");  // without its space: no match
  EXPECT_EQ(byName.CountHeaders(kFieldCustom), 1);

  // The custom id without a name does not restrict the removal.
  MailMessage customWithoutName = filled();
  EXPECT_EQ(customWithoutName.RemoveHeaders(kFieldCustom), 1);
  EXPECT_EQ(customWithoutName.CountHeaders(kFieldAll), 0);

  MailMessage all = filled();
  EXPECT_EQ(all.RemoveHeaders(kFieldAll), 1);
  EXPECT_EQ(all.CountHeaders(kFieldAll), 0);
  EXPECT_EQ(all.RemoveHeaders(kFieldAll), 1);  // also on an empty list
}

TEST(MailMessageTest, LoadsHeadersBodiesAndAttachments) {
  MailMessage message;
  FileDataSource source(CorpusPath("attachment-rfc2047.eml"));
  ASSERT_EQ(message.Load(source), kMimeOk);
  EXPECT_EQ(message.JoinedHeaderValues(kFieldSubject), "photo");
  EXPECT_EQ(*message.HeaderValue(kFieldContentType, 0), "multipart/mixed; boundary=\"=_2047_=\"");
  EXPECT_EQ(message.Charset(), "gb2312");
  ASSERT_TRUE(message.TextBody());
  EXPECT_EQ(message.TextBody()->charset, "gb2312");
  EXPECT_FALSE(message.HtmlBody());

  ASSERT_EQ(message.AttachmentCount(), 2);
  DecodedText name = DecodeEncodedWords(*message.AttachmentName(0));
  EXPECT_EQ(name.text, "\xD5\xD5\xC6\xAC.jpg");
  EXPECT_EQ(name.charset, "gb2312");
  EXPECT_EQ(message.AttachmentName(2), nullptr);
  EXPECT_EQ(message.AttachmentName(-1), nullptr);

  TempDir dir;
  EXPECT_EQ(message.SaveAttachment(0, dir / "photo.jpg"), 5000);
  EXPECT_EQ(ReadFile(dir / "photo.jpg").size(), 5000u);
  EXPECT_EQ(message.SaveAttachment(1, dir / "note.txt"), 21);
  EXPECT_EQ(ReadFile(dir / "note.txt"), "plain attachment text");
  // Saving again overwrites rather than appends.
  EXPECT_EQ(message.SaveAttachment(1, dir / "note.txt"), 21);
  EXPECT_EQ(ReadFile(dir / "note.txt").size(), 21u);
  EXPECT_EQ(message.SaveAttachment(2, dir / "none"), -1);
  EXPECT_EQ(message.SaveAttachment(0, dir / "no-such-dir/photo.jpg"), -1);
}

TEST(MailMessageTest, AttachmentWithoutNameHasNone) {
  MailMessage message;
  ASSERT_EQ(LoadText(message,
                     "Subject: x\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n"
                     "--b\r\nContent-Type: text/plain\r\n\r\nbody\r\n"
                     "--b\r\nContent-Type: application/octet-stream\r\n\r\ndata\r\n--b--\r\n"),
            kMimeOk);
  ASSERT_EQ(message.AttachmentCount(), 1);
  EXPECT_EQ(message.AttachmentName(0), nullptr);
  TempDir dir;
  EXPECT_EQ(message.SaveAttachment(0, dir / "a"), 4);
}

TEST(MailMessageTest, LoadReplacesTheWholeMessage) {
  MailMessage message;
  message.AppendHeader("kept?", kFieldCustom, "X-Before:");
  message.SetCharset("utf-8");
  message.AddAttachmentFile("/tmp/file");
  FileDataSource first(CorpusPath("nested.eml"));
  ASSERT_EQ(message.Load(first), kMimeOk);
  EXPECT_EQ(message.HeaderValueByName("X-Before: ", 0), nullptr);
  EXPECT_TRUE(message.AttachmentFiles().empty());
  EXPECT_EQ(message.AttachmentCount(), 2);

  ASSERT_EQ(LoadText(message, "From: a@example.com\r\nSubject: top only\r\n"), kMimeOk);
  EXPECT_EQ(message.CountHeaders(kFieldAll), 2);
  EXPECT_EQ(message.AttachmentCount(), 0);
  EXPECT_FALSE(message.HtmlBody());
  EXPECT_EQ(message.Charset(), "");

  TempDir dir;
  FileDataSource missing(dir / "absent.eml");
  EXPECT_EQ(message.Load(missing), kMimeSourceOpenFailed);
  EXPECT_EQ(message.CountHeaders(kFieldAll), 0);
  EXPECT_FALSE(message.TextBody());
}

TEST(MailMessageTest, CompositionSettersAgreeOnTheCharset) {
  MailMessage message;
  message.SetTextBody("\xD6\xD0");
  message.SetCharset("gb2312");
  EXPECT_EQ(message.TextBody()->charset, "gb2312");
  message.SetCharset("big5");
  message.SetTextBody("\xB0\xEA");
  EXPECT_EQ(message.TextBody()->text, "\xB0\xEA");
  EXPECT_EQ(message.TextBody()->charset, "big5");

  EXPECT_EQ(message.AddAttachmentFile(""), kMimeAttachFailed);
  EXPECT_EQ(message.AddAttachmentFile("/a/b.bin"), 0);
  EXPECT_EQ(message.AttachmentFiles(), std::vector<std::string>{"/a/b.bin"});
}

}  // namespace
}  // namespace corvane
