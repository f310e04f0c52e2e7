#include "mime/mime_composer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime/encoded_words.h"
#include "mime/mail_message.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "stream/mapped_file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

const std::string kGbBody =
    "\xC3\xF7\xCC\xEC\xC9\xCF\xCE\xE7\xBE\xC5\xB5\xE3\xBF\xAA\xBB\xE1\xA1\xA3\r\n"
    "\r\n\xC7\xEB\xD7\xBC\xCA\xB1\xB2\xCE\xBC\xD3\xA1\xA3\r\n";

std::string Encoded(const std::string& text, const std::string& charset) {
  std::string out;
  EXPECT_EQ(EncodeWords(text, charset, 'B', out), kEncodeOk);
  return out;
}

// Writes the message into a file, checks what every written message must
// be, and gives the bytes.
std::string Compose(const MailMessage& message, const TempDir& dir) {
  FileDataSource target(dir / "out.eml");
  EXPECT_EQ(message.Write(target), kMimeOk);
  std::string bytes = ReadFile(dir / "out.eml");
  EXPECT_GE(bytes.size(), 2u);
  EXPECT_EQ(bytes.substr(bytes.size() - 2), "\r\n");
  for (size_t i = 0; i < bytes.size(); ++i) {
    if (bytes[i] == '\n') {
      EXPECT_TRUE(i > 0 && bytes[i - 1] == '\r') << "bare LF at " << i;
    } else if (bytes[i] == '\r') {
      EXPECT_TRUE(i + 1 < bytes.size() && bytes[i + 1] == '\n') << "bare CR at " << i;
    }
  }
  return bytes;
}

MailMessage Reload(const TempDir& dir) {
  MailMessage message;
  FileDataSource source(dir / "out.eml");
  EXPECT_EQ(message.Load(source), kMimeOk);
  return message;
}

std::vector<std::string> HeaderLines(const std::string& bytes) {
  std::vector<std::string> lines;
  std::string header = bytes.substr(0, bytes.find("\r\n\r\n") + 2);
  for (size_t begin = 0; begin < header.size();) {
    size_t end = header.find("\r\n", begin);
    lines.push_back(header.substr(begin, end - begin));
    begin = end + 2;
  }
  return lines;
}

TEST(MimeComposerTest, GbBodyAndAttachmentsSurviveTheRoundTrip) {
  TempDir dir;
  std::string binary;
  for (int round = 0; round < 40; ++round) {
    for (int byte = 0; byte < 256; ++byte) binary += static_cast<char>(byte);
  }
  WriteFile(dir / "data.bin", binary);
  const std::string gbName = "\xD6\xD0\xCE\xC4\xB1\xA8\xB8\xE6.txt";
  WriteFile(dir / gbName, "report\r\n");

  MailMessage message;
  message.SetCharset("gb2312");
  message.SetTextBody(kGbBody);
  const std::string from = Encoded("\xD5\xC5\xC8\xFD", "gb2312") + "<zhang@example.com>";
  const std::string subject = Encoded("\xBB\xE1\xD2\xE9\xCD\xA8\xD6\xAA", "gb2312");
  message.AppendHeader(from.c_str(), kFieldFrom);
  message.AppendHeader("li@example.net,wang@example.net", kFieldTo);
  message.AppendHeader(subject.c_str(), kFieldSubject);
  message.AppendHeader("text/plain; charset=\"gb2312\"", kFieldContentType);
  message.AppendHeader("1", kFieldCustom, "X-Priority:");
  message.AppendHeader("zhang@example.com", kFieldCustom, "Disposition-Notification-To:");
  message.AddAttachmentFile(dir / "data.bin");
  message.AddAttachmentFile(dir / gbName);
  std::string bytes = Compose(message, dir);
  EXPECT_NE(bytes.find("\r\nX-Priority: 1\r\n"), std::string::npos);
  EXPECT_NE(bytes.find("Content-Type: multipart/mixed"), std::string::npos);

  MailMessage back = Reload(dir);
  EXPECT_EQ(*back.HeaderValue(kFieldFrom, 0), from);
  EXPECT_EQ(*back.HeaderValue(kFieldTo, 0), "li@example.net,wang@example.net");
  EXPECT_EQ(*back.HeaderValue(kFieldSubject, 0), subject);
  EXPECT_EQ(*back.HeaderValueByName("X-Priority: ", 0), "1");
  EXPECT_EQ(*back.HeaderValueByName("disposition-notification-to: ", 0), "zhang@example.com");
  EXPECT_EQ(back.CountHeaders(kFieldContentType), 1);
  EXPECT_EQ(back.CountHeaders(kFieldMimeVersion), 1);
  ASSERT_TRUE(back.TextBody());
  EXPECT_EQ(back.TextBody()->text, kGbBody);
  EXPECT_EQ(back.TextBody()->charset, "gb2312");

  ASSERT_EQ(back.AttachmentCount(), 2);
  EXPECT_EQ(*back.AttachmentName(0), "data.bin");
  DecodedText name = DecodeEncodedWords(*back.AttachmentName(1));
  EXPECT_EQ(name.text, gbName);
  EXPECT_EQ(name.charset, "gb2312");
  EXPECT_EQ(back.SaveAttachment(0, dir / "data.out"), static_cast<int64_t>(binary.size()));
  EXPECT_EQ(ReadFile(dir / "data.out"), binary);
  EXPECT_EQ(back.SaveAttachment(1, dir / "report.out"), 8);
  EXPECT_EQ(ReadFile(dir / "report.out"), "report\r\n");
}

TEST(MimeComposerTest, SinglePartKeepsTheListedContentType) {
  TempDir dir;
  MailMessage message;
  message.SetCharset("gb2312");
  message.SetTextBody(kGbBody);
  message.AppendHeader("li@example.net", kFieldTo);
  message.AppendHeader("text/plain; charset=\"gb2312\"", kFieldContentType);
  std::string bytes = Compose(message, dir);
  EXPECT_NE(bytes.find("\r\nContent-Type: text/plain; charset=\"gb2312\"\r\n"), std::string::npos);
  EXPECT_NE(bytes.find("\r\nContent-Transfer-Encoding: base64\r\n"), std::string::npos);
  EXPECT_EQ(Reload(dir).TextBody()->text, kGbBody);

  // Without a listed type the charset makes one; plain ASCII travels as it is.
  MailMessage ascii;
  ascii.SetCharset("us-ascii");
  ascii.SetTextBody("line one\nline two\n");
  bytes = Compose(ascii, dir);
  EXPECT_NE(bytes.find("\r\nContent-Type: text/plain; charset=\"us-ascii\"\r\n"),
            std::string::npos);
  EXPECT_NE(bytes.find("\r\nContent-Transfer-Encoding: 7bit\r\n\r\nline one\r\nline two\r\n"),
            std::string::npos);
  EXPECT_EQ(Reload(dir).TextBody()->text, "line one\r\nline two\r\n");
}

TEST(MimeComposerTest, AddsDateMessageIdAndVersionOnlyWhenMissing) {
  TempDir dir;
  MailMessage bare;
  bare.AppendHeader("Sender <sender@mail.example.org>", kFieldFrom);
  Compose(bare, dir);
  MailMessage added = Reload(dir);
  EXPECT_EQ(added.CountHeaders(kFieldDate), 1);
  EXPECT_FALSE(added.HeaderValue(kFieldDate, 0)->empty());
  ASSERT_EQ(added.CountHeaders(kFieldMessageId), 1);
  const std::string& id = *added.HeaderValue(kFieldMessageId, 0);
  EXPECT_EQ(id.front(), '<');
  EXPECT_NE(id.find("@mail.example.org>"), std::string::npos) << id;
  EXPECT_EQ(*added.HeaderValue(kFieldMimeVersion, 0), "1.0");
  EXPECT_TRUE(added.TextBody());

  MailMessage given;
  given.AppendHeader("Tue, 5 Jan 2010 08:30:00 +0800", kFieldDate);
  given.AppendHeader("<given@example.com>", kFieldMessageId);
  given.AppendHeader("1.0", kFieldMimeVersion);
  Compose(given, dir);
  MailMessage kept = Reload(dir);
  EXPECT_EQ(kept.CountHeaders(kFieldDate), 1);
  EXPECT_EQ(*kept.HeaderValue(kFieldDate, 0), "Tue, 5 Jan 2010 08:30:00 +0800");
  EXPECT_EQ(kept.CountHeaders(kFieldMessageId), 1);
  EXPECT_EQ(*kept.HeaderValue(kFieldMessageId, 0), "<given@example.com>");
  EXPECT_EQ(kept.CountHeaders(kFieldMimeVersion), 1);
}

// The header lines of the message and of each of its parts that are
// neither a field ("Name: ...") nor a fold, and which must not exist.
std::vector<std::string> StrayHeaderLines(const std::string& bytes) {
  std::vector<std::string> stray;
  bool inHeader = true;
  for (size_t begin = 0; begin < bytes.size();) {
    size_t end = std::min(bytes.find("\r\n", begin), bytes.size());
    std::string line = bytes.substr(begin, end - begin);
    begin = end + 2;
    if (line.starts_with("--")) {  // a part's boundary: its header follows
      inHeader = true;
    } else if (line.empty()) {
      inHeader = false;
    } else if (inHeader && line[0] != ' ' && line[0] != '\t') {
      size_t colon = line.find(':');
      if (colon == std::string::npos || colon == 0 || line.find_first_of(" \t\r\n", 0) < colon) {
        stray.push_back(line);
      }
    }
  }
  return stray;
}

TEST(MimeComposerTest, BreaksInHeaderValuesBecomeFoldsAndNulsGo) {
  // Each value as a Subject (header data ends at a NUL), as the charset of the
  // Content-Type and, where it can name a file, as an attachment name: every
  // run of CR and LF is one fold, NULs are dropped, and no value starts a
  // field or ends a header block.
  struct Case {
    const char* what;
    std::string value;
    std::string folded;
    std::string subject;  // the value up to its first NUL, folded
    bool fileName = true;
  };
  const std::vector<Case> cases = {
      {"CR LF and commands",
       "Hi\r\n.\r\nMAIL FROM:<x@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA",
       "Hi\r\n .\r\n MAIL FROM:<x@example.org>\r\n RCPT TO:<victim@example.org>\r\n DATA",
       "Hi\r\n .\r\n MAIL FROM:<x@example.org>\r\n RCPT TO:<victim@example.org>\r\n DATA"},
      {"empty lines", "a\r\n\r\n\r\nBcc: victim@example.com\r\n\r\n",
       "a\r\n Bcc: victim@example.com", "a\r\n Bcc: victim@example.com"},
      {"lone CR", "a\r.\rb", "a\r\n .\r\n b", "a\r\n .\r\n b"},
      {"lone LF", "a\n.\nb", "a\r\n .\r\n b", "a\r\n .\r\n b"},
      {"blank lines and a fold of its own", "a\r\n \t \r\n\tb", "a\r\n\tb", "a\r\n\tb"},
      {"NUL", std::string("a\0b\r\n\0.c", 8), "ab\r\n .c", "a", false},
      {"a dot", ".", ".", ".", false},
      {"long runs",
       "x" + std::string(300, '\r') + std::string(300, '\n') + "." + std::string(300, '\0') + "y",
       "x\r\n .y", "x\r\n .", false},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    TempDir dir;
    MailMessage message;
    message.SetCharset(c.value);
    message.AppendHeader("li@example.net", kFieldTo);
    message.AppendHeader(c.value.c_str(), kFieldSubject);
    message.SetTextBody("body");
    std::string bytes = Compose(message, dir);
    EXPECT_NE(bytes.find("\r\nSubject: " + c.subject + "\r\n"), std::string::npos)
        << ::testing::PrintToString(bytes);
    EXPECT_NE(bytes.find("\r\nContent-Type: text/plain; charset=\"" + c.folded + "\"\r\n"),
              std::string::npos)
        << ::testing::PrintToString(bytes);
    EXPECT_EQ(bytes.find('\0'), std::string::npos);
    EXPECT_EQ(StrayHeaderLines(bytes), std::vector<std::string>());
    MailMessage back = Reload(dir);
    EXPECT_EQ(back.CountHeaders(kFieldBcc), 0);
    EXPECT_EQ(*back.HeaderValue(kFieldTo, 0), "li@example.net");
    ASSERT_TRUE(back.TextBody());
    EXPECT_EQ(back.TextBody()->text, "body\r\n");  // a message ends with a line end

    if (!c.fileName) continue;
    WriteFile(dir / c.value, "attached");
    message.AddAttachmentFile(dir / c.value);
    bytes = Compose(message, dir);
    EXPECT_EQ(StrayHeaderLines(bytes), std::vector<std::string>())
        << ::testing::PrintToString(bytes);
    back = Reload(dir);
    ASSERT_EQ(back.AttachmentCount(), 1);
    EXPECT_EQ(back.SaveAttachment(0, dir / "saved"), 8);
  }
}

TEST(MimeComposerTest, FoldsLongFieldsAtWhitespaceWithoutChangingThem) {
  TempDir dir;
  std::string to;
  for (int i = 0; i < 30; ++i) to += (i ? ", user" : "user") + std::to_string(i) + "@example.com";
  std::string gb;
  for (int i = 0; i < 50; ++i) gb += "\xD6\xD0\xCE\xC4";
  const std::string subject = Encoded(gb, "gb2312");
  const std::string unbreakable(120, 'u');

  MailMessage message;
  message.AppendHeader(to.c_str(), kFieldTo);
  message.AppendHeader(subject.c_str(), kFieldSubject);
  message.AppendHeader(unbreakable.c_str(), kFieldCustom, "X-Long:");
  std::string bytes = Compose(message, dir);
  // A line may pass 78 characters only when it holds one piece that has no
  // whitespace to break at (the field name stays with the first piece).
  for (const std::string& line : HeaderLines(bytes)) {
    if (line.size() <= 78) continue;
    size_t start = line.front() == ' ' ? 1 : line.find(' ') + 1;
    EXPECT_EQ(line.find_first_of(" \t", start), std::string::npos) << line;
  }
  MailMessage back = Reload(dir);
  EXPECT_EQ(*back.HeaderValue(kFieldTo, 0), to);
  EXPECT_EQ(*back.HeaderValue(kFieldSubject, 0), subject);
  EXPECT_EQ(DecodeEncodedWords(*back.HeaderValue(kFieldSubject, 0)).text, gb);
  EXPECT_EQ(*back.HeaderValueByName("X-Long: ", 0), unbreakable);
}

TEST(MimeComposerTest, WritesIntoAMappedTemporaryFile) {
  MailMessage message;
  message.AppendHeader("li@example.net", kFieldTo);
  message.SetCharset("utf-8");
  message.SetTextBody("caf\xC3\xA9\r\n");
  MappedFileDataSource target;
  ASSERT_EQ(ComposeMessage(message, target), kMimeOk);
  MailMessage back;
  ASSERT_EQ(back.Load(target), kMimeOk);
  EXPECT_EQ(*back.HeaderValue(kFieldTo, 0), "li@example.net");
  EXPECT_EQ(back.TextBody()->text, "caf\xC3\xA9\r\n");
  EXPECT_EQ(back.TextBody()->charset, "utf-8");
}

TEST(MimeComposerTest, ReportsUnreadableAttachmentsAndShortTargets) {
  TempDir dir;
  MailMessage message;
  message.AppendHeader("li@example.net", kFieldTo);
  message.SetTextBody("body");

  BufferDataSource tooSmall(64);
  EXPECT_EQ(message.Write(tooSmall), kMimeTargetWriteFailed);
  FileDataSource nowhere(dir / "no-such-dir/out.eml");
  EXPECT_EQ(message.Write(nowhere), kMimeTargetOpenFailed);

  message.AddAttachmentFile(dir / "missing.bin");
  FileDataSource target(dir / "out.eml");
  EXPECT_EQ(message.Write(target), kMimeFileOpenFailed);
}

}  // namespace
}  // namespace corvane
