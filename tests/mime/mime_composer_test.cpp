// Composing a message: what goes out reads back the same, hostile header
// values cannot start a field, and every failed write fails the message.
#include "mime/mime_composer.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "mime/encoded_words.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "stream/mapped_file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;

const std::string kGbBody = "\xC3\xF7\xCC\xEC\xBF\xAA\xBB\xE1\xA1\xA3\r\n\r\n\xC7\xEB\r\n";

// Writes the message into dir/out.eml and gives its bytes, which must end
// with CRLF and hold no bare CR or LF.
std::string Compose(const MailMessage& message, const TempDir& dir) {
  FileDataSource target(dir / "out.eml");
  EXPECT_EQ(message.Write(target), kMimeOk);
  std::string bytes = ReadFile(dir / "out.eml");
  EXPECT_TRUE(bytes.ends_with("\r\n"));
  for (size_t i = 0; i < bytes.size(); ++i) {
    const bool pairs = bytes[i] == '\n'   ? i > 0 && bytes[i - 1] == '\r'
                       : bytes[i] == '\r' ? i + 1 < bytes.size() && bytes[i + 1] == '\n'
                                          : true;
    EXPECT_TRUE(pairs) << "a bare line end at " << i;
  }
  return bytes;
}

MailMessage Reload(const TempDir& dir) {
  MailMessage message;
  FileDataSource source(dir / "out.eml");
  EXPECT_EQ(message.Load(source), kMimeOk);
  return message;
}

TEST(MimeComposerTest, HeadersBodyAndAttachmentsReadBackTheSameWithWhatWasMissing) {
  TempDir dir;
  std::string binary, from;
  for (int i = 0; i < 40 * 256; ++i) binary += static_cast<char>(i);
  const std::string gbName = "\xD6\xD0\xCE\xC4.txt";
  test::WriteFile(dir / "data.bin", binary);
  test::WriteFile(dir / gbName, "report\r\n");
  ASSERT_EQ(EncodeWords("\xD5\xC5\xC8\xFD", "gb2312", 'B', from), kEncodeOk);
  MailMessage message;
  message.SetCharset("gb2312");
  message.SetTextBody(kGbBody);
  message.AppendHeader((from += "<zhang@mail.example.org>").c_str(), kFieldFrom);
  message.AppendHeader("1", kFieldCustom, "X-Priority:");
  message.AddAttachmentFile(dir / "data.bin");
  message.AddAttachmentFile(dir / gbName);
  EXPECT_NE(Compose(message, dir).find("\r\nX-Priority: 1\r\n"), std::string::npos);
  MailMessage back = Reload(dir);
  EXPECT_EQ(*back.HeaderValue(kFieldFrom, 0), from);
  EXPECT_EQ(*back.HeaderValueByName("X-Priority: ", 0), "1");
  EXPECT_EQ(back.TextBody()->text, kGbBody);
  EXPECT_EQ(back.TextBody()->charset, "gb2312");
  ASSERT_EQ(back.AttachmentCount(), 2);
  EXPECT_EQ(*back.AttachmentName(0), "data.bin");
  EXPECT_EQ(DecodeEncodedWords(*back.AttachmentName(1)).text, gbName);
  EXPECT_EQ(back.SaveAttachment(0, dir / "data.out"), static_cast<int64_t>(binary.size()));
  EXPECT_TRUE(ReadFile(dir / "data.out") == binary);
  // Date, Message-ID and MIME-Version were missing, so they were added.
  EXPECT_GT(back.HeaderValue(kFieldDate, 0)->size(), 20u);
  EXPECT_TRUE(back.HeaderValue(kFieldMessageId, 0)->starts_with("<"));
  EXPECT_TRUE(back.HeaderValue(kFieldMessageId, 0)->ends_with("@mail.example.org>"));
  EXPECT_EQ(*back.HeaderValue(kFieldMimeVersion, 0), "1.0");
}

TEST(MimeComposerTest, ASinglePartTakesTheListedTextTypeElseOneOfTheCharset) {
  const std::tuple<const char*, const char*, const char*, std::string, const char*> cases[] = {
      {"gb2312", "text/plain; charset=\"gb2312\"", "\xD6\xD0\n",
       "text/plain; charset=\"gb2312\"\r\nContent-Transfer-Encoding: base64\r\n", "\xD6\xD0\r\n"},
      {"us-ascii", "image/png", "one\ntwo",
       "text/plain; charset=\"us-ascii\"\r\nContent-Transfer-Encoding: 7bit\r\n\r\none\r\ntwo\r\n",
       "one\r\ntwo\r\n"}};
  // Given ones are kept, not added again.
  const std::pair<int32_t, const char*> given[] = {{kFieldDate, "Tue, 5 Jan 2010 08:30:00 +0800"},
                                                   {kFieldMessageId, "<given@example.com>"},
                                                   {kFieldMimeVersion, "1.0"}};
  for (const auto& [charset, listed, body, head, readBack] : cases) {
    TempDir dir;
    MailMessage message;
    message.SetCharset(charset);
    message.SetTextBody(body);
    message.AppendHeader(listed, kFieldContentType);
    for (auto [id, value] : given) message.AppendHeader(value, id);
    EXPECT_NE(Compose(message, dir).find("\r\nContent-Type: " + head), std::string::npos)
        << charset;
    MailMessage back = Reload(dir);
    EXPECT_EQ(back.TextBody()->text, readBack);
    for (auto [id, value] : given) EXPECT_EQ(back.JoinedHeaderValues(id), value);
  }
}

// Header lines of the message and its parts that are neither a field nor a
// fold: none may exist.
std::vector<std::string> StrayHeaderLines(const std::string& bytes) {
  std::vector<std::string> stray;
  bool inHeader = true;
  for (size_t begin = 0; begin < bytes.size();) {
    const size_t end = std::min(bytes.find("\r\n", begin), bytes.size());
    const std::string line = bytes.substr(begin, end - begin);
    begin = end + 2;
    if (line.starts_with("--") || line.empty()) {  // a part's header follows a boundary
      inHeader = !line.empty();
    } else if (inHeader && line[0] != ' ' && line[0] != '\t') {
      const size_t colon = line.find(':');
      if (colon == std::string::npos || colon == 0 || line.find_first_of(" \t") < colon)
        stray.push_back(line);
    }
  }
  return stray;
}

TEST(MimeComposerTest, BreaksInHeaderValuesBecomeFoldsAndNulsGo) {
  const std::pair<std::string, std::string> folds[] = {
      {"Hi\r\n.\r\nMAIL FROM:<x@example.org>\r\nDATA",
       "Hi\r\n .\r\n MAIL FROM:<x@example.org>\r\n DATA"},
      {"a\r\n\r\n\r\nBcc: victim@example.com\r\n\r\n", "a\r\n Bcc: victim@example.com"},
      {"\r\na\r.\nb", "a\r\n .\r\n b"},
      {"a\r\n \t \r\n\tb", "a\r\n\tb"},
      {std::string("a\0b\r\n\0.c", 8), "ab\r\n .c"},
      {"x" + std::string(300, '\r') + std::string(300, '\n') + "." + std::string(300, '\0') + "y",
       "x\r\n .y"},
      {"", ""},
      {"plain", "plain"}};
  for (const auto& [value, folded] : folds)
    EXPECT_EQ(FoldedHeaderValue(value), folded) << ::testing::PrintToString(value);

  // Every value a header takes goes through it: the Subject, the charset of
  // the Content-Type and an attachment's name.
  TempDir dir;
  const std::string hostile = "a\r\n\r\nBcc: victim@example.com\r\n.\rb";
  test::WriteFile(dir / hostile, "attached");
  MailMessage message;
  message.SetCharset(hostile);
  message.AppendHeader("li@example.net", kFieldTo);
  message.AppendHeader(hostile.c_str(), kFieldSubject);
  message.SetTextBody("body");
  for (bool attached : {false, true}) {
    if (attached) message.AddAttachmentFile(dir / hostile);
    const std::string bytes = Compose(message, dir);
    EXPECT_NE(bytes.find("\r\nSubject: " + FoldedHeaderValue(hostile) + "\r\n"), bytes.npos);
    EXPECT_NE(bytes.find("charset=\"" + FoldedHeaderValue(hostile) + "\""), bytes.npos);
    EXPECT_EQ(StrayHeaderLines(bytes), std::vector<std::string>()) << bytes;
    MailMessage back = Reload(dir);
    EXPECT_EQ(back.CountHeaders(kFieldBcc), 0);
    EXPECT_EQ(back.TextBody()->text, attached ? "body" : "body\r\n");
    EXPECT_EQ(back.AttachmentCount(), attached ? 1 : 0);
  }
}

TEST(MimeComposerTest, LongFieldsFoldAtWhitespaceWithoutChangingThem) {
  TempDir dir;
  std::string to, gb, subject;
  for (int i = 0; i < 30; ++i) to += (i ? ", user" : "user") + std::to_string(i) + "@example.com";
  for (int i = 0; i < 50; ++i) gb += "\xD6\xD0\xCE\xC4";
  ASSERT_EQ(EncodeWords(gb, "gb2312", 'B', subject), kEncodeOk);
  const std::string unbreakable(120, 'u');
  MailMessage message;
  message.AppendHeader(to.c_str(), kFieldTo);
  message.AppendHeader(subject.c_str(), kFieldSubject);
  message.AppendHeader(unbreakable.c_str(), kFieldCustom, "X-Long:");
  const std::string bytes = Compose(message, dir);
  // Past 78 characters only a line of one piece without whitespace to break at.
  const std::string header = bytes.substr(0, bytes.find("\r\n\r\n"));
  for (size_t begin = 0, end; begin < header.size(); begin = end + 2) {
    end = std::min(header.find("\r\n", begin), header.size());
    const std::string line = header.substr(begin, end - begin);
    EXPECT_TRUE(line.size() <= 78 || line.find_first_of(" \t", line.find(' ') + 1) == line.npos)
        << line;
  }
  MailMessage back = Reload(dir);
  EXPECT_EQ(*back.HeaderValue(kFieldTo, 0), to);
  EXPECT_EQ(*back.HeaderValue(kFieldSubject, 0), subject);
  EXPECT_EQ(*back.HeaderValueByName("X-Long: ", 0), unbreakable);
}

TEST(MimeComposerTest, EveryRefusedWriteFailsTheMessage) {
  TempDir dir;
  test::WriteFile(dir / "a.bin", "attached");
  for (bool multipart : {false, true}) {
    SCOPED_TRACE(multipart ? "multipart" : "single part");
    MailMessage message;
    message.AppendHeader("li@example.net", kFieldTo);
    message.AppendHeader("<fixed@example.com>", kFieldMessageId);  // the same size each time
    message.AppendHeader("Tue, 5 Jan 2010 08:30:00 +0800", kFieldDate);
    message.SetTextBody("body\r\n");
    if (multipart) message.AddAttachmentFile(dir / "a.bin");
    MessageComposition composition;
    ASSERT_EQ(composition.Prepare(message), kMimeOk);
    std::string whole;
    int writes = 0;
    ASSERT_EQ(composition.WriteTo([&](std::string_view bytes) {
      whole += bytes;
      return ++writes > 0;
    }),
              kMimeOk);
    ASSERT_GE(writes, 2);  // the header block, then the body
    for (int refused = 1; refused <= writes; ++refused) {
      int write = 0;
      EXPECT_EQ(composition.WriteTo([&](std::string_view) { return ++write != refused; }),
                kMimeTargetWriteFailed)
          << "write " << refused;
    }
    // The same through a data source: too small, not openable, or a temporary mapping.
    BufferDataSource tooSmall(static_cast<int64_t>(whole.size()) - 1);
    EXPECT_EQ(ComposeMessage(message, tooSmall), kMimeTargetWriteFailed);
    FileDataSource nowhere(dir / "no-such-dir/out.eml");
    EXPECT_EQ(ComposeMessage(message, nowhere), kMimeTargetOpenFailed);
    MappedFileDataSource mapped;
    ASSERT_EQ(ComposeMessage(message, mapped), kMimeOk);
    MailMessage back;
    ASSERT_EQ(back.Load(mapped), kMimeOk);
    EXPECT_EQ(back.TextBody()->text, "body\r\n");
  }
  // A file that cannot be opened, or opens and then cannot be read.
  for (const std::string& path : {dir / "missing.bin", std::string("/proc/self/mem")}) {
    MailMessage message;
    message.AddAttachmentFile(path);
    FileDataSource target(dir / "out.eml");
    EXPECT_EQ(message.Write(target), kMimeFileOpenFailed) << path;
  }
  EXPECT_EQ(MessageComposition().WriteTo([](std::string_view) { return true; }),
            kMimeFileOpenFailed);
}

}  // namespace
}  // namespace corvane
