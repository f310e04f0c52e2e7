// A message: its header list, loading one over an older one, and composing
// one: what goes out reads back the same, hostile header values cannot start
// a field, and every failed write fails the message.
#include "mime/mail_message.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "mime/encoded_words.h"
#include "mime/mime_composer.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "stream/mapped_file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;

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

// Every field as "name|data", one per line.
std::string Dump(const MailMessage& message) {
  std::string out;
  for (const HeaderEntry& entry : message.Headers()) out += entry.name + "|" + entry.data + "\n";
  return out;
}

TEST(MailMessageHeaderTest, AppendKeepsDataExactlyAndFieldsAreFoundByIdIndexOrName) {
  MailMessage message = Filled();
  // Nothing without data or a name.
  EXPECT_EQ(message.AppendHeader(nullptr, kFieldSubject) + message.AppendHeader("x", kFieldCustom) +
                message.AppendHeader("x", 22) + message.AppendHeader("x", -1),
            0);
  EXPECT_EQ(message.AppendHeader(" =?gb2312?B?1tA=?=\t", kFieldFrom), 1);
  EXPECT_EQ(message.AppendHeader("", kFieldAll), 1);
  // A custom name gets one space, and is found only with it.
  EXPECT_EQ(Dump(message),
            "Received:|r1\nSubject:|s\nReceived:|r2\nX-Test: |t\nX-Other: |o\n"
            "From:| =?gb2312?B?1tA=?=\t\n" +
                std::string(HeaderFieldText(kFieldAll)) + "|\n");
  EXPECT_EQ(std::tuple(message.CountHeaders(kFieldAll), message.CountHeaders(kFieldReceived),
                       message.CountHeaders(kFieldCustom), message.CountHeaders(kFieldTo)),
            std::tuple(7, 2, 2, 0));
  // Out of range is none; a custom name is found in any case, only with its space.
  auto value = [](const std::string* found) { return (found ? *found : "-") + ","; };
  EXPECT_EQ(value(message.HeaderValue(kFieldReceived, 1)) +
                value(message.HeaderValue(kFieldReceived, 2)) +
                value(message.HeaderValue(kFieldAll, -1)) +
                value(message.HeaderValue(kFieldAll, 7)) + value(message.CustomHeaderName(2)) +
                value(message.HeaderValueByName("x-TEST: ", 0)) +
                value(message.HeaderValueByName("X-Test:", 0)) +
                value(message.HeaderValueByName("X-Test: ", 1)) +
                value(message.HeaderValueByName(nullptr, 0)),
            "r2,-,-,-,-,t,-,-,-,");
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
  const std::tuple<int32_t, const char*, std::string> cases[] = {
      {kFieldReceived, nullptr, "s t o"},
      {kFieldCustom, "x-test: ", "r1 s r2 o"},
      {kFieldCustom, "X-Other:", "r1 s r2 t o"},
      {kFieldCustom, nullptr, ""},
      {kFieldAll, nullptr, ""},
      {kFieldTo, nullptr, "r1 s r2 t o"}};
  for (const auto& [id, name, left] : cases) {
    MailMessage message = Filled();
    EXPECT_EQ(message.RemoveHeaders(id, name), 1);
    std::string values;
    for (int k = 0; const std::string* found = message.HeaderValue(kFieldAll, k); ++k)
      values += (k ? " " : "") + *found;
    EXPECT_EQ(values, left) << id << " " << (name ? name : "");
  }
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
  EXPECT_EQ(Dump(message), "From:|a@example.com\nSubject:|top only\n");
  EXPECT_TRUE(message.AttachmentFiles().empty());
  EXPECT_EQ(message.Charset(), "");

  FileDataSource nested(std::filesystem::path(__FILE__).parent_path() / "../data/mail/nested.eml");
  ASSERT_EQ(message.Load(nested), kMimeOk);
  ASSERT_EQ(message.AttachmentCount(), 2);
  EXPECT_EQ(*message.AttachmentName(1), "doc.pdf");
  EXPECT_EQ(message.AttachmentName(2), message.AttachmentName(-1));
  EXPECT_EQ(message.AttachmentName(2), nullptr);
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

const std::string kGbBody = "\xC3\xF7\xCC\xEC\xBF\xAA\xBB\xE1\xA1\xA3\r\n\r\n\xC7\xEB\r\n";

// Writes the message into dir/out.eml and gives its bytes, which must end
// with CRLF and hold no bare CR or LF.
std::string Compose(const MailMessage& message, const TempDir& dir) {
  FileDataSource target(dir / "out.eml");
  EXPECT_EQ(message.Write(target), kMimeOk);
  std::string bytes = ReadFile(dir / "out.eml");
  std::ptrdiff_t pairs = 0;  // as many as there are CRs and LFs
  for (size_t at = 0; (at = bytes.find("\r\n", at)) != std::string::npos; at += 2) ++pairs;
  EXPECT_EQ(std::tuple(std::count(bytes.begin(), bytes.end(), '\r'),
                       std::count(bytes.begin(), bytes.end(), '\n'), bytes.ends_with("\r\n")),
            std::tuple(pairs, pairs, true));
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
  std::string binary, from, to;
  for (int i = 0; i < 40 * 256; ++i) binary += static_cast<char>(i);
  for (int i = 0; i < 30; ++i) to += (i ? ", user" : "user") + std::to_string(i) + "@example.com";
  const std::string gbName = "\xD6\xD0\xCE\xC4.txt";
  test::WriteFile(dir / "data.bin", binary);
  test::WriteFile(dir / gbName, "report\r\n");
  ASSERT_EQ(EncodeWords("\xD5\xC5\xC8\xFD", "gb2312", 'B', from), kEncodeOk);
  MailMessage message;
  message.SetCharset("gb2312");
  message.SetTextBody(kGbBody);
  message.AppendHeader((from += "<zhang@mail.example.org>").c_str(), kFieldFrom);
  message.AppendHeader(to.c_str(), kFieldTo);
  message.AppendHeader("1", kFieldCustom, "X-Priority:");
  message.AppendHeader(std::string(120, 'u').c_str(), kFieldCustom, "X-Long:");
  message.AddAttachmentFile(dir / "data.bin");
  message.AddAttachmentFile(dir / gbName);
  const std::string bytes = Compose(message, dir);
  EXPECT_NE(bytes.find("\r\nX-Priority: 1\r\n"), std::string::npos);
  // Long fields fold at whitespace: past 78 characters only a line without a second blank.
  for (size_t begin = 0, end; begin < bytes.find("\r\n\r\n"); begin = end + 2) {
    end = bytes.find("\r\n", begin);
    const std::string line = bytes.substr(begin, end - begin);
    EXPECT_TRUE(line.size() <= 78 || line.find_first_of(" \t", line.find(' ') + 1) == line.npos)
        << line;
  }
  MailMessage back = Reload(dir);
  EXPECT_EQ(*back.HeaderValue(kFieldFrom, 0) + *back.HeaderValue(kFieldTo, 0), from + to);
  EXPECT_EQ(*back.HeaderValueByName("X-Priority: ", 0) + *back.HeaderValueByName("X-Long: ", 0),
            "1" + std::string(120, 'u'));
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
