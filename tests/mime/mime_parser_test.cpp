#include "mime/mime_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "base/limits.h"
#include "mime/content_params.h"
#include "mime/encoded_words.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::ReadFile;
using test::TempDir;
using test::WriteFile;

std::string CorpusPath(const std::string& name) {
  return (std::filesystem::path(__FILE__).parent_path().parent_path() / "data" / "mail" / name)
      .string();
}

ParsedMessage ParseFile(const std::string& path) {
  FileDataSource source(path);
  ParsedMessage message;
  EXPECT_EQ(ParseMessage(source, message), kMimeOk) << path;
  return message;
}

ParsedMessage ParseCorpus(const std::string& name) {
  return ParseFile(CorpusPath(name));
}

ParsedMessage ParseText(const std::string& text) {
  BufferDataSource source(static_cast<int64_t>(text.size()));
  source.Open(DataSource::kOpenWrite);
  source.Write(text.data(), static_cast<int>(text.size()));
  ParsedMessage message;
  EXPECT_EQ(ParseMessage(source, message), kMimeOk);
  return message;
}

// The attachment contents the corpus generator writes: count bytes of
// (i * mul + add) mod 256.
std::string Pattern(int count, int mul, int add) {
  std::string bytes;
  for (int i = 0; i < count; ++i) bytes += static_cast<char>((i * mul + add) & 0xFF);
  return bytes;
}

// Decodes an attachment into a file and gives the file's bytes; the size
// the decoder reports must be the file's.
std::string Saved(const MessageAttachment& attachment) {
  TempDir dir;
  std::string path = dir / "attachment";
  int64_t size = attachment.content->SaveTo(path);
  std::string bytes = ReadFile(path);
  EXPECT_EQ(size, static_cast<int64_t>(bytes.size()));
  return bytes;
}

const HeaderEntry* Field(const ParsedMessage& message, const std::string& name) {
  for (const HeaderEntry& entry : message.headers) {
    if (entry.name == name) return &entry;
  }
  return nullptr;
}

const std::string kPlainGb =
    "\xC3\xF7\xCC\xEC\xC9\xCF\xCE\xE7\xBE\xC5\xB5\xE3\xBF\xAA\xBB\xE1\xA1\xA3\r\n"
    "\xC7\xEB\xD7\xBC\xCA\xB1\xB2\xCE\xBC\xD3\xA1\xA3\r\n";

TEST(MimeParserTest, AlternativeBodiesKeepTheirOwnCharsetsAndBytes) {
  ParsedMessage message = ParseCorpus("alternative-gb2312-utf8.eml");
  ASSERT_TRUE(message.textBody);
  EXPECT_EQ(message.textBody->text, kPlainGb);
  EXPECT_EQ(message.textBody->charset, "gb2312");
  ASSERT_TRUE(message.htmlBody);
  EXPECT_EQ(message.htmlBody->text,
            "<html><body><p>\xE6\x98\x8E\xE5\xA4\xA9\xE4\xB8\x8A\xE5\x8D\x88\xE4\xB9\x9D\xE7\x82"
            "\xB9\xE5\xBC\x80\xE4\xBC\x9A\xE3\x80\x82</p><p>\xE8\xAF\xB7\xE5\x87\x86\xE6\x97\xB6"
            "\xE5\x8F\x82\xE5\x8A\xA0\xE3\x80\x82</p></body></html>\r\n");
  EXPECT_EQ(message.htmlBody->charset, "utf-8");
  EXPECT_TRUE(message.attachments.empty());
  // The top-level type names no charset, so the text body's stands for it.
  EXPECT_EQ(message.charset, "gb2312");
}

TEST(MimeParserTest, KeepsHeaderFieldsRawAndInMessageOrder) {
  ParsedMessage message = ParseCorpus("alternative-gb2312-utf8.eml");
  std::vector<std::string> names;
  std::vector<int32_t> ids;
  for (const HeaderEntry& entry : message.headers) {
    names.push_back(entry.name);
    ids.push_back(entry.id);
  }
  EXPECT_EQ(names,
            (std::vector<std::string>{
                "Return-Path: ", "Received:", "Received:", "From:", "To:", "Subject:", "Date:",
                "Message-ID:", "MIME-Version:", "Content-Type:", "X-Priority: ", "X-Mailer:"}));
  EXPECT_EQ(
      ids, (std::vector<int32_t>{kFieldCustom, kFieldReceived, kFieldReceived, kFieldFrom, kFieldTo,
                                 kFieldSubject, kFieldDate, kFieldMessageId, kFieldMimeVersion,
                                 kFieldContentType, kFieldCustom, kFieldXMailer}));
  EXPECT_EQ(Field(message, "Subject:")->data, "=?gb2312?B?u+HS6c2o1qo=?=");
  // Unfolded: the line break goes, the whitespace after it stays.
  EXPECT_EQ(Field(message, "To:")->data,
            "li@example.net, =?utf-8?Q?=E6=9D=8E=E5=9B=9B?= <li4@example.net>");
  EXPECT_EQ(Field(message, "Content-Type:")->data,
            "multipart/alternative;\tboundary=\"----=_NextPart_000_0001\"");
  EXPECT_EQ(Field(message, "X-Priority: ")->data, "3");
  EXPECT_EQ(message.headers[1].data,
            "from mx.example.com by mail.example.net; Tue, 5 Jan 2010 08:30:02 +0800");

  DecodedText from = DecodeEncodedWords(Field(message, "From:")->data);
  EXPECT_EQ(from.text, "\xD5\xC5\xC8\xFD <zhang@example.com>");
  EXPECT_EQ(from.charset, "gb2312");
}

TEST(MimeParserTest, ChineseSubjectsDecodeToTheirOwnCharsets) {
  ParsedMessage big5 = ParseCorpus("big5-subject.eml");
  DecodedText subject = DecodeEncodedWords(Field(big5, "Subject:")->data);
  EXPECT_EQ(subject.text, "\xB0\xEA\xBB\x79\xBD\xD2\xB5\x7B");
  EXPECT_EQ(subject.charset, "big5");
  ASSERT_TRUE(big5.textBody);
  EXPECT_EQ(big5.textBody->text, "\xB0\xEA\xBB\x79\xBD\xD2\xB5\x7B\r\n");
  EXPECT_EQ(big5.charset, "big5");

  ParsedMessage hz = ParseCorpus("hz-subject.eml");
  subject = DecodeEncodedWords(Field(hz, "Subject:")->data);
  EXPECT_EQ(subject.text, "~{VPND~} HZ");
  EXPECT_EQ(subject.charset, "hz-gb-2312");
  EXPECT_EQ(hz.textBody->text, "~{VPND~} in HZ\r\n");
  EXPECT_EQ(hz.textBody->charset, "hz-gb-2312");
}

TEST(MimeParserTest, HtmlOnlyMessageHasNoTextBody) {
  ParsedMessage message = ParseCorpus("html-only.eml");
  EXPECT_FALSE(message.textBody);
  ASSERT_TRUE(message.htmlBody);
  EXPECT_EQ(message.htmlBody->text, "Hello<br>World <b>\xD6\xD0\xCE\xC4</b>\r\n");
  EXPECT_EQ(message.htmlBody->charset, "gb2312");
  EXPECT_TRUE(message.attachments.empty());
}

TEST(MimeParserTest, ExtendedNamesComeBackAsOneEncodedWord) {
  ParsedMessage message = ParseCorpus("attachment-rfc2231.eml");
  ASSERT_TRUE(message.textBody);
  EXPECT_EQ(message.textBody->text, "See attached.");
  ASSERT_EQ(message.attachments.size(), 2u);

  const MessageAttachment& report = message.attachments[0];
  ASSERT_TRUE(report.name);
  DecodedText name = DecodeEncodedWords(*report.name);
  EXPECT_EQ(name.text, "\xD6\xD0\xCE\xC4\xB1\xA8\xB8\xE6.bin");  // continued over three pieces
  EXPECT_EQ(name.charset, "gb2312");
  EXPECT_EQ(report.contentType, "application/octet-stream");
  EXPECT_EQ(Saved(report), Pattern(3000, 7, 3));

  // An ASCII name needs no word even when sent in the extended form.
  const MessageAttachment& pdf = message.attachments[1];
  EXPECT_EQ(pdf.name, "report 2010.pdf");
  EXPECT_EQ(pdf.contentType, "application/pdf");
  EXPECT_EQ(Saved(pdf), Pattern(700, 11, 5));
}

TEST(MimeParserTest, EncodedWordNamesStayEncoded) {
  ParsedMessage message = ParseCorpus("attachment-rfc2047.eml");
  ASSERT_TRUE(message.textBody);
  EXPECT_EQ(message.textBody->text, "\xB8\xBD\xBC\xFE\xCA\xC7\xD5\xD5\xC6\xAC\xA1\xA3\r\n");
  ASSERT_EQ(message.attachments.size(), 2u);
  EXPECT_EQ(message.attachments[0].name, "=?gb2312?B?1dXGrC5qcGc=?=");
  EXPECT_EQ(message.attachments[0].contentType, "image/jpeg");
  EXPECT_EQ(Saved(message.attachments[0]), Pattern(5000, 13, 1));
  // A text part marked as an attachment is one, not a second body.
  EXPECT_EQ(message.attachments[1].name, "=?utf-8?Q?=E6=96=87=E4=BB=B6_1.txt?=");
  EXPECT_EQ(DecodeEncodedWords(*message.attachments[1].name).text,
            "\xE6\x96\x87\xE4\xBB\xB6 1.txt");
  EXPECT_EQ(Saved(message.attachments[1]), "plain attachment text");
}

TEST(MimeParserTest, UuencodedFilesBecomeAttachments) {
  ParsedMessage inBody = ParseCorpus("uuencoded-body.eml");
  ASSERT_TRUE(inBody.textBody);
  EXPECT_EQ(inBody.textBody->text, "Here is the file.\r\n\r\n\r\nRegards\r\n");
  ASSERT_EQ(inBody.attachments.size(), 1u);
  EXPECT_EQ(inBody.attachments[0].name, "data.bin");
  EXPECT_EQ(Saved(inBody.attachments[0]), Pattern(200, 3, 0));

  // A "begin" line that starts no file stays text.
  const std::string prose =
      "To unpack, type:\r\nbegin 644 notes.txt\r\nthen press return.\r\nend\r\n"
      "begin 644 never-ended.bin\r\n#86)C\r\n`\r\n";
  ParsedMessage text = ParseText("Subject: howto\r\n\r\n" + prose);
  EXPECT_EQ(text.textBody->text, prose);
  EXPECT_TRUE(text.attachments.empty());

  ParsedMessage asPart = ParseCorpus("uuencoded-part.eml");
  ASSERT_EQ(asPart.attachments.size(), 1u);
  EXPECT_EQ(asPart.attachments[0].name, "tool.bin");
  EXPECT_EQ(Saved(asPart.attachments[0]), Pattern(500, 5, 9));
}

TEST(MimeParserTest, ForwardedMessageIsOneAttachmentSavedWhole) {
  ParsedMessage message = ParseCorpus("forwarded.eml");
  ASSERT_TRUE(message.textBody);
  EXPECT_EQ(message.textBody->text, "Forwarding the message below.");
  ASSERT_EQ(message.attachments.size(), 1u);
  EXPECT_EQ(message.attachments[0].name, "original.eml");
  EXPECT_EQ(message.attachments[0].contentType, "message/rfc822");

  TempDir dir;
  ASSERT_GT(message.attachments[0].content->SaveTo(dir / "original.eml"), 0);
  ParsedMessage inner = ParseFile(dir / "original.eml");
  EXPECT_EQ(Field(inner, "Subject:")->data, "original topic");
  ASSERT_TRUE(inner.textBody);
  EXPECT_EQ(inner.textBody->text, "The original text.\r\n");
}

TEST(MimeParserTest, FindsBodiesAndAttachmentsThroughNestedMultiparts) {
  ParsedMessage message = ParseCorpus("nested.eml");
  ASSERT_TRUE(message.textBody);
  EXPECT_EQ(message.textBody->text, "Caf\xC3\xA9 menu\r\n");
  EXPECT_EQ(message.textBody->charset, "utf-8");
  ASSERT_TRUE(message.htmlBody);
  EXPECT_EQ(message.htmlBody->text, "<p>Caf\xC3\xA9 <img src=\"cid:logo\"> menu</p>\r\n");
  ASSERT_EQ(message.attachments.size(), 2u);
  EXPECT_EQ(message.attachments[0].name, "logo.png");
  EXPECT_EQ(Saved(message.attachments[0]), Pattern(300, 17, 2));
  EXPECT_EQ(message.attachments[1].name, "doc.pdf");
  EXPECT_EQ(Saved(message.attachments[1]), Pattern(1200, 19, 4));
}

TEST(MimeParserTest, ReadsBrokenMailAsFarAsItGoes) {
  ParsedMessage cut = ParseCorpus("broken-missing-boundary.eml");
  ASSERT_TRUE(cut.textBody);
  EXPECT_EQ(cut.textBody->text, "Text before the cut.");
  ASSERT_EQ(cut.attachments.size(), 1u);
  EXPECT_EQ(cut.attachments[0].name, "cut.bin");
  std::string partial = Saved(cut.attachments[0]);
  EXPECT_GT(partial.size(), 600u);
  EXPECT_EQ(partial, Pattern(2000, 7, 3).substr(0, partial.size()));

  ParsedMessage mangled = ParseCorpus("broken-base64.eml");
  ASSERT_TRUE(mangled.textBody);
  EXPECT_EQ(mangled.textBody->text, kPlainGb);

  ParsedMessage noColon = ParseCorpus("broken-header-no-colon.eml");
  EXPECT_EQ(Field(noColon, "From:")->data, "zhang@example.com");
  ASSERT_NE(Field(noColon, "Subject:"), nullptr);
  EXPECT_EQ(Field(noColon, "Subject:")->data, "still read");
  EXPECT_EQ(Field(noColon, "To:")->data, "li@example.net");
  EXPECT_EQ(noColon.textBody->text, "Body after a broken header.\r\n");

  ParsedMessage bogus = ParseCorpus("broken-bogus-charset.eml");
  ASSERT_TRUE(bogus.textBody);
  EXPECT_EQ(bogus.textBody->charset, "x-no-such-charset");
  EXPECT_EQ(bogus.textBody->text, "\xD6\xD0\xCE\xC4 \x80\x81\xFE\xFF\r\n");
  DecodedText subject = DecodeEncodedWords(Field(bogus, "Subject:")->data);
  EXPECT_EQ(subject.text, "\xD6\xD0\xCE\xC4");
  EXPECT_EQ(subject.charset, "x-no-such-charset");
  EXPECT_EQ(Field(bogus, "X-Garbage: ")->data, "\x80\xFF\xFE garbage");
}

TEST(MimeParserTest, ReadsHeaderLinesAloneAndTextWithoutHeaders) {
  // The header lines of a TOP answer, without the blank line after them.
  ParsedMessage top = ParseText("From: a@example.com\r\nSubject: hello\r\n\tagain\r\n");
  ASSERT_EQ(top.headers.size(), 2u);
  EXPECT_EQ(top.headers[1].data, "hello\tagain");
  EXPECT_TRUE(top.attachments.empty());

  ParsedMessage bare = ParseText("just some text\r\nand more\r\n");
  EXPECT_TRUE(bare.headers.empty());
  ASSERT_TRUE(bare.textBody);
  EXPECT_EQ(bare.textBody->text, "just some text\r\nand more\r\n");
}

TEST(MimeParserTest, ReportsSourcesThatHoldNoMessage) {
  TempDir dir;
  FileDataSource missing(dir / "absent.eml");
  ParsedMessage message;
  EXPECT_EQ(ParseMessage(missing, message), kMimeSourceOpenFailed);

  WriteFile(dir / "empty.eml", "");
  FileDataSource empty(dir / "empty.eml");
  EXPECT_EQ(ParseMessage(empty, message), kMimeMalformed);
  EXPECT_TRUE(message.headers.empty());
}

TEST(MimeParserTest, ParsesTwentyMegabyteSingleLines) {
  TempDir dir;
  const std::string line(20 * 1024 * 1024, 'x');
  WriteFile(dir / "long-body.eml", "From: a@example.com\r\nSubject: long\r\n\r\n" + line);
  ParsedMessage body = ParseFile(dir / "long-body.eml");
  ASSERT_TRUE(body.textBody);
  EXPECT_EQ(body.textBody->text, line);

  WriteFile(dir / "one-line.eml", line);
  ParsedMessage whole = ParseFile(dir / "one-line.eml");
  ASSERT_TRUE(whole.textBody);
  EXPECT_EQ(whole.textBody->text.size(), line.size());

  // A field that long is hostile: it is cut to 64 KiB and the fields after
  // it are still read.
  WriteFile(dir / "long-header.eml",
            "From: a@example.com\r\nSubject: " + line + "\r\nTo: b@example.com\r\n\r\nbody");
  ParsedMessage header = ParseFile(dir / "long-header.eml");
  ASSERT_NE(Field(header, "Subject:"), nullptr);
  const std::string& subject = Field(header, "Subject:")->data;
  EXPECT_GT(subject.size(), 60000u);
  EXPECT_LE(subject.size(), 64u * 1024);
  EXPECT_EQ(subject, std::string(subject.size(), 'x'));
  ASSERT_NE(Field(header, "To:"), nullptr);
  EXPECT_EQ(Field(header, "To:")->data, "b@example.com");
  EXPECT_EQ(header.textBody->text, "body");

  // So is a header of 300,000 short fields: the first thousand are kept.
  std::string many = "Subject: many\r\n";
  for (int i = 0; i < 300000; ++i) many += "X-A: b\r\n c\r\n";
  ParsedMessage fields = ParseText(many + "To: late@example.com\r\n\r\nbody");
  EXPECT_EQ(fields.headers.size(), limits::kMaxHeaderFields);
  EXPECT_EQ(Field(fields, "Subject:")->data, "many");
  EXPECT_EQ(fields.headers.back().data, "b c");
  EXPECT_EQ(Field(fields, "To:"), nullptr);
  ASSERT_TRUE(fields.textBody);
  EXPECT_EQ(fields.textBody->text, "body");
}

TEST(MimeParserTest, SurvivesHostileNesting) {
  std::string message = "Subject: deep\r\nContent-Type: multipart/mixed; boundary=b0\r\n\r\n";
  const int depth = 2000;
  for (int i = 1; i <= depth; ++i) {
    message += "--b" + std::to_string(i - 1) + "\r\nContent-Type: multipart/mixed; boundary=b" +
               std::to_string(i) + "\r\n\r\n";
  }
  message += "--b" + std::to_string(depth) +
             "\r\nContent-Type: application/octet-stream; name=\"deep.bin\"\r\n\r\nx\r\n";
  ParsedMessage parsed = ParseText(message);
  EXPECT_EQ(Field(parsed, "Subject:")->data, "deep");
  EXPECT_TRUE(parsed.attachments.empty());  // too deep to be mail
}

// What one parse gives, in short: the text body, the attachment count and
// the decoded size of the first attachment.
std::string Summary(const std::string& name) {
  FileDataSource source(CorpusPath(name));
  ParsedMessage message;
  if (ParseMessage(source, message) != kMimeOk || !message.textBody) return "failed";
  TempDir dir;
  int64_t size =
      message.attachments.empty() ? 0 : message.attachments[0].content->SaveTo(dir / "first");
  return message.textBody->text + "|" + std::to_string(message.attachments.size()) + "|" +
         std::to_string(size);
}

TEST(MimeParserTest, ParsesOnSeveralThreadsAtOnce) {
  const std::vector<std::string> names = {"alternative-gb2312-utf8.eml",
                                          "attachment-rfc2231.eml",
                                          "attachment-rfc2047.eml",
                                          "nested.eml",
                                          "forwarded.eml",
                                          "broken-missing-boundary.eml"};
  std::vector<std::string> expected;
  for (const std::string& name : names) expected.push_back(Summary(name));

  constexpr int kRounds = 10;
  std::vector<std::vector<std::string>> results(8);
  std::vector<std::thread> threads;
  for (auto& result : results) {
    threads.emplace_back([&names, &result] {
      for (int round = 0; round < kRounds; ++round) {
        for (const std::string& name : names) result.push_back(Summary(name));
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const auto& result : results) {
    ASSERT_EQ(result.size(), names.size() * kRounds);
    for (size_t i = 0; i < result.size(); ++i) EXPECT_EQ(result[i], expected[i % names.size()]);
  }
}

TEST(HeaderParameterTest, ReadsQuotedPlainAndBrokenValues) {
  const std::string field =
      "attachment; size=12; FileName=\"a \\\"quoted\\\" name.txt\"; name=plain with spaces ;x=";
  EXPECT_EQ(FieldMainValue(field), "attachment");
  EXPECT_EQ(FindHeaderParameter(field, "filename")->value, "a \"quoted\" name.txt");
  // "name" is not found inside "FileName".
  EXPECT_EQ(FindHeaderParameter(field, "name")->value, "plain with spaces");
  EXPECT_EQ(FindHeaderParameter(field, "x")->value, "");
  EXPECT_FALSE(FindHeaderParameter(field, "missing"));
  EXPECT_EQ(FindHeaderParameter("text/plain; charset=\"gb2312", "charset")->value, "gb2312");
  EXPECT_EQ(FindHeaderParameter("a; name=\"\xD6\xD0.txt\"", "name")->value, "\xD6\xD0.txt");
  EXPECT_EQ(FindHeaderParameter("a; q=\"x;y\"; name=n", "name")->value, "n");
}

TEST(HeaderParameterTest, JoinsExtendedAndContinuedValues) {
  HeaderParameter extended =
      *FindHeaderParameter("a; name=\"plain\"; name*=utf-8'en'%E6%96%87 %zz", "name");
  EXPECT_EQ(extended.value, "\xE6\x96\x87 %zz");
  EXPECT_EQ(extended.charset, "utf-8");

  // Pieces may come out of order; a gap ends the value.
  HeaderParameter continued = *FindHeaderParameter(
      "a; name*1=\"two\"; name*0*=gb2312''%D6%D0; name*2*=%41; name*4=lost", "name");
  EXPECT_EQ(continued.value, "\xD6\xD0twoA");
  EXPECT_EQ(continued.charset, "gb2312");

  EXPECT_EQ(FindHeaderParameter("a; name*=%41%42", "name")->value, "AB");
}

}  // namespace
}  // namespace corvane
