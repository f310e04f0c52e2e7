// Reading messages: bodies, attachments and raw header fields from the mail
// corpus, broken and hostile mail, and the streams the parts decode through.
#include "mime/mime_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/limits.h"
#include "mime/content_params.h"
#include "mime/encoded_words.h"
#include "mime/gmime_sink_stream.h"
#include "mime/part_decoder.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::TempDir;

ParsedMessage ParseFile(const std::string& path, int expected = kMimeOk) {
  FileDataSource source(path);
  ParsedMessage message;
  EXPECT_EQ(ParseMessage(source, message), expected) << path;
  return message;
}

std::string Corpus(const std::string& name) {
  return std::filesystem::path(__FILE__).parent_path().parent_path() / "data/mail" / name;
}

ParsedMessage ParseText(const std::string& text) {
  BufferDataSource source(static_cast<int64_t>(text.size()));
  source.Open(DataSource::kOpenWrite);
  source.Write(text.data(), static_cast<int>(text.size()));
  ParsedMessage message;
  EXPECT_EQ(ParseMessage(source, message), kMimeOk);
  return message;
}

// The corpus generator's attachment bytes: (i * mul + add) mod 256.
std::string Pattern(int count, int mul, int add) {
  std::string bytes;
  for (int i = 0; i < count; ++i) bytes += static_cast<char>((i * mul + add) & 0xFF);
  return bytes;
}

// The decoded bytes of an attachment, whose size SaveTo must report.
std::string Saved(const MessageAttachment& attachment) {
  TempDir dir;
  const int64_t size = attachment.content->SaveTo(dir / "saved");
  std::string bytes = test::ReadFile(dir / "saved");
  EXPECT_EQ(size, static_cast<int64_t>(bytes.size()));
  return bytes;
}

// All that a message reads as: its fields, its text body, and each
// attachment's name and saved bytes.
std::string Everything(const ParsedMessage& message) {
  std::string all;
  for (const HeaderEntry& entry : message.headers) all += entry.name + entry.data + "\n";
  all += message.textBody.value_or(BodyText{}).text;
  for (const MessageAttachment& attachment : message.attachments)
    all += "\n" + attachment.name.value_or("") + "\n" + Saved(attachment);
  return all;
}

std::string Field(const ParsedMessage& message, const std::string& name) {
  for (const HeaderEntry& entry : message.headers)
    if (entry.name == name) return entry.data;
  return "(none)";
}

const std::string kPlainGb =
    "\xC3\xF7\xCC\xEC\xC9\xCF\xCE\xE7\xBE\xC5\xB5\xE3\xBF\xAA\xBB\xE1\xA1\xA3\r\n"
    "\xC7\xEB\xD7\xBC\xCA\xB1\xB2\xCE\xBC\xD3\xA1\xA3\r\n";

TEST(MimeParserTest, CorpusBodiesAttachmentsAndCharsets) {
  struct Case {
    const char* file;
    std::string text, html, charset;  // "-" for a body that is not there
    std::vector<std::pair<std::string, std::string>> attachments = {};  // decoded name, bytes
  };
  const Case cases[] = {
      {"alternative-gb2312-utf8.eml", kPlainGb,
       "<html><body><p>"
       "\xE6\x98\x8E\xE5\xA4\xA9\xE4\xB8\x8A\xE5\x8D\x88\xE4\xB9\x9D\xE7\x82\xB9\xE5\xBC"
       "\x80\xE4\xBC\x9A\xE3\x80\x82</"
       "p><p>\xE8\xAF\xB7\xE5\x87\x86\xE6\x97\xB6\xE5\x8F\x82\xE5\x8A\xA0"
       "\xE3\x80\x82</p></body></html>\r\n",
       "gb2312"},  // the top-level type names no charset: the text body's stands
      {"big5-subject.eml", "\xB0\xEA\xBB\x79\xBD\xD2\xB5\x7B\r\n", "-", "big5"},
      {"hz-subject.eml", "~{VPND~} in HZ\r\n", "-", "hz-gb-2312"},
      {"html-only.eml", "-", "Hello<br>World <b>\xD6\xD0\xCE\xC4</b>\r\n", "gb2312"},
      {"attachment-rfc2231.eml",
       "See attached.",
       "-",
       "us-ascii",
       {{"\xD6\xD0\xCE\xC4\xB1\xA8\xB8\xE6.bin", Pattern(3000, 7, 3)},
        {"report 2010.pdf", Pattern(700, 11, 5)}}},
      // A text part marked as an attachment is one, not a second body.
      {"attachment-rfc2047.eml",
       "\xB8\xBD\xBC\xFE\xCA\xC7\xD5\xD5\xC6\xAC\xA1\xA3\r\n",
       "-",
       "gb2312",
       {{"\xD5\xD5\xC6\xAC.jpg", Pattern(5000, 13, 1)},
        {"\xE6\x96\x87\xE4\xBB\xB6 1.txt", "plain attachment text"}}},
      {"uuencoded-body.eml",
       "Here is the file.\r\n\r\n\r\nRegards\r\n",
       "-",
       "",
       {{"data.bin", Pattern(200, 3, 0)}}},
      {"nested.eml",
       "Caf\xC3\xA9 menu\r\n",
       "<p>Caf\xC3\xA9 <img src=\"cid:logo\"> menu</p>\r\n",
       "utf-8",
       {{"logo.png", Pattern(300, 17, 2)}, {"doc.pdf", Pattern(1200, 19, 4)}}},
      {"broken-base64.eml", kPlainGb, "-", "gb2312"},
      {"broken-bogus-charset.eml", "\xD6\xD0\xCE\xC4 \x80\x81\xFE\xFF\r\n", "-",
       "x-no-such-charset"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file);
    ParsedMessage message = ParseFile(Corpus(c.file));
    EXPECT_EQ(message.textBody.value_or(BodyText{"-", ""}).text, c.text);
    EXPECT_EQ(message.htmlBody.value_or(BodyText{"-", ""}).text, c.html);
    EXPECT_EQ(message.charset, c.charset);
    ASSERT_EQ(message.attachments.size(), c.attachments.size());
    for (size_t k = 0; k < c.attachments.size(); ++k) {
      EXPECT_EQ(DecodeEncodedWords(message.attachments[k].name.value_or("-")).text,
                c.attachments[k].first);
      EXPECT_TRUE(Saved(message.attachments[k]) == c.attachments[k].second) << k;
    }
  }
  // Words in names stay encoded; a name in the extended form comes back as one word.
  EXPECT_EQ(ParseFile(Corpus("attachment-rfc2047.eml")).attachments[0].name,
            "=?gb2312?B?1dXGrC5qcGc=?=");
  ParsedMessage extended = ParseFile(Corpus("attachment-rfc2231.eml"));
  EXPECT_EQ(DecodeEncodedWords(*extended.attachments[0].name).charset, "gb2312");
  EXPECT_EQ(extended.attachments[1].name, "report 2010.pdf");
  EXPECT_EQ(extended.attachments[1].contentType, "application/pdf");
  ParsedMessage part = ParseFile(Corpus("uuencoded-part.eml"));
  ASSERT_EQ(part.attachments.size(), 1u);
  EXPECT_EQ(part.attachments[0].name, "tool.bin");
  EXPECT_TRUE(Saved(part.attachments[0]) == Pattern(500, 5, 9));
  // A file that cannot be written, for content decoded from the body too.
  EXPECT_EQ(
      ParseFile(Corpus("uuencoded-body.eml")).attachments.at(0).content->SaveTo("/no/such/dir/f"),
      -1);
}

TEST(MimeParserTest, HeaderFieldsStayRawUnfoldedAndInOrder) {
  ParsedMessage message = ParseFile(Corpus("alternative-gb2312-utf8.eml"));
  std::string names;
  for (const HeaderEntry& entry : message.headers) names += entry.name + std::to_string(entry.id);
  EXPECT_EQ(
      names,
      "Return-Path: 21Received:7Received:7From:5To:2Subject:6Date:11Message-ID:1MIME-Version:18"
      "Content-Type:20X-Priority: 21X-Mailer:16");
  EXPECT_EQ(Field(message, "Subject:"), "=?gb2312?B?u+HS6c2o1qo=?=");
  EXPECT_EQ(Field(message, "To:"),
            "li@example.net, =?utf-8?Q?=E6=9D=8E=E5=9B=9B?= <li4@example.net>");
  EXPECT_EQ(Field(message, "Content-Type:"),
            "multipart/alternative;\tboundary=\"----=_NextPart_000_0001\"");
  ParsedMessage broken = ParseFile(Corpus("broken-header-no-colon.eml"));
  EXPECT_EQ(Field(broken, "From:") + Field(broken, "To:") + Field(broken, "Subject:"),
            "zhang@example.comli@example.netstill read");
  EXPECT_EQ(broken.textBody->text, "Body after a broken header.\r\n");
  // The header lines of a TOP answer alone, and text without any header.
  ParsedMessage top = ParseText("From: a@example.com\r\nSubject: hello\r\n\tagain\r\n");
  ASSERT_EQ(top.headers.size(), 2u);
  EXPECT_EQ(top.headers[1].data, "hello\tagain");
  ParsedMessage bare = ParseText("just some text\r\nand more\r\n");
  EXPECT_TRUE(bare.headers.empty());
  EXPECT_EQ(bare.textBody->text, "just some text\r\nand more\r\n");
  // A "begin" line that starts no uuencoded file (no data, a mode of two or
  // five digits, no "end") stays text.
  const std::string prose =
      "type:\r\nbegin 644 a.txt\r\nthen.\r\nend\r\nbegin 64 b.bin\r\n#86)C\r\n`\r\nend\r\n"
      "begin 66666 c.bin\r\n#86)C\r\n`\r\nend\r\nbegin 644 d.bin\r\n#86)C\r\n`\r\n";
  ParsedMessage text = ParseText("Subject: howto\r\n\r\n" + prose);
  EXPECT_EQ(text.textBody->text, prose);
  EXPECT_TRUE(text.attachments.empty());
}

TEST(MimeParserTest, CutMailIsReadAsFarAsItGoesAndEmptySourcesFail) {
  ParsedMessage cut = ParseFile(Corpus("broken-missing-boundary.eml"));
  EXPECT_EQ(cut.textBody->text, "Text before the cut.");
  ASSERT_EQ(cut.attachments.size(), 1u);
  EXPECT_EQ(cut.attachments[0].name, "cut.bin");
  const std::string partial = Saved(cut.attachments[0]);
  EXPECT_GT(partial.size(), 600u);
  EXPECT_TRUE(partial == Pattern(2000, 7, 3).substr(0, partial.size()));
  ParsedMessage forwarded = ParseFile(Corpus("forwarded.eml"));
  ASSERT_EQ(forwarded.attachments.size(), 1u);
  EXPECT_EQ(forwarded.attachments[0].contentType, "message/rfc822");
  ParsedMessage inner = ParseText(Saved(forwarded.attachments[0]));  // saved whole
  EXPECT_EQ(Field(inner, "Subject:"), "original topic");
  EXPECT_EQ(inner.textBody->text, "The original text.\r\n");

  TempDir dir;
  test::WriteFile(dir / "empty.eml", "");
  EXPECT_TRUE(ParseFile(dir / "empty.eml", kMimeMalformed).headers.empty());
  ParseFile(dir / "absent.eml", kMimeSourceOpenFailed);
}

TEST(MimeParserTest, HostileSizesAreBoundedAndWhatFollowsIsStillRead) {
  // One endless field is cut to its bound; the fields after it are read.
  const std::string line(4 * limits::kMaxFieldBytes, 'x');
  ParsedMessage field = ParseText("Subject: " + line + "\r\nTo: b@example.com\r\n\r\nbody");
  const std::string subject = Field(field, "Subject:");
  EXPECT_EQ(subject.size(), limits::kMaxFieldBytes - std::string("Subject: ").size());
  EXPECT_EQ(subject, std::string(subject.size(), 'x'));
  EXPECT_EQ(Field(field, "To:"), "b@example.com");
  EXPECT_EQ(field.textBody->text, "body");
  // Endless fields: the first thousand are kept, behind a mailbox's "From " line too.
  std::string many = "From a@example.com Mon Jan  1 00:00:00 2024\r\nSubject: many\r\n";
  for (int i = 0; i < 300000; ++i) many += "X-A: b\r\n c\r\n";
  ParsedMessage fields = ParseText(many + "To: late@example.com\r\n\r\nbody");
  EXPECT_EQ(fields.headers.size(), limits::kMaxHeaderFields);
  EXPECT_EQ(fields.headers.back().data, "b c");
  EXPECT_EQ(Field(fields, "To:"), "(none)");
  EXPECT_EQ(fields.textBody->text, "body");
  // Nesting: the part 63 multiparts down is found, one more level is no mail.
  for (auto [depth, found] : {std::pair{63, 1u}, {64, 0u}, {2000, 0u}}) {
    std::string deep = "Subject: deep\r\nContent-Type: multipart/mixed; boundary=b0\r\n\r\n";
    for (int i = 1; i <= depth; ++i)
      deep += "--b" + std::to_string(i - 1) + "\r\nContent-Type: multipart/mixed; boundary=b" +
              std::to_string(i) + "\r\n\r\n";
    deep +=
        "--b" + std::to_string(depth) + "\r\nContent-Type: application/pdf; name=d\r\n\r\nx\r\n";
    EXPECT_EQ(ParseText(deep).attachments.size(), found) << depth;
  }
  // A thousand attachments are kept, uuencoded files counted in.
  std::string parts = "Subject: parts\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
  for (int i = 0; i < 999; ++i)
    parts += "--b\r\nContent-Type: application/x; name=a" + std::to_string(i) + "\r\n\r\nx\r\n";
  parts += "--b\r\n\r\n";
  for (int i = 0; i < 2; ++i) parts += "begin 644 u" + std::to_string(i) + "\r\n`\r\nend\r\n";
  ParsedMessage kept = ParseText(parts + "--b--\r\n");
  ASSERT_EQ(kept.attachments.size(), limits::kMaxAttachments);
  EXPECT_EQ(kept.attachments.back().name, "u0");
  EXPECT_EQ(kept.textBody->text, "begin 644 u1\r\n`\r\nend");
  // The message is read up to its ten-thousandth line starting with "--":
  // the HTML part opens on that line, or on the one after.
  for (size_t quoted : {limits::kMaxBoundaryLines - 2, limits::kMaxBoundaryLines - 1}) {
    std::string lines =
        "Subject: s\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n--b\r\n\r\n";
    for (size_t i = 0; i < quoted; ++i) lines += "-- quoted\r\n";
    lines += "--b\r\nContent-Type: text/html\r\n\r\n<p>late</p>\r\n--b--\r\n";
    EXPECT_EQ(ParseText(lines).htmlBody.has_value(), quoted + 2 == limits::kMaxBoundaryLines);
  }
  // Every header the library builds is bounded: a part's, an embedded
  // message's (lines that are no field do not end it), one a digest's part
  // leads to by default; and all of them together, past which the message
  // is cut. Text after a typed part header, or an untyped one outside a
  // digest, stays whole.
  auto numbered = [](int count, const std::string& value) {
    std::string text;
    for (int i = 1; i <= count; ++i) text += "X-" + std::to_string(i) + ": " + value + "\r\n";
    return text;
  };
  auto named = [](size_t count, const std::string& header) {
    std::string text;
    for (size_t i = 0; i < count; ++i)
      text += "--b\r\nContent-Type: application/x; name=part" + std::to_string(i) + ".bin\r\n" +
              header + "\r\nx\r\n";
    return text;
  };
  const int over = 3 * limits::kMaxHeaderFields;
  std::string keyLines;
  for (int i = 0; i < over; ++i) keyLines += "Key: value " + std::to_string(i) + "\r\n";
  std::string dispositions = "Content-Disposition: attachment";
  while (dispositions.size() < 4 * limits::kMaxFieldBytes) dispositions += ";a=b";
  const std::string mixed = "Subject: outer\r\nContent-Type: multipart/mixed; boundary=b\r\n\r\n";
  const std::string pad = "X-Pad: " + std::string(4000, 'p') + "\r\n";
  const size_t padded = limits::kMaxMessageHeaderBytes / pad.size();  // a little past the cut
  const size_t full = limits::kMaxMessageHeaderFields / limits::kMaxHeaderFields;
  auto part = [](size_t i) { return "part" + std::to_string(i) + ".bin"; };
  struct Case {
    const char* what;
    std::string message, text;  // text "-": no text body
    std::vector<std::string> kept, lost;
  };
  const Case cases[] = {
      {"embedded header",
       mixed + "--b\r\nContent-Type: text/plain\r\n\r\n" + keyLines + "\r\n--b\r\n" +
           "Content-Type: application/pdf; name=a.pdf\r\n\r\npdf\r\n--b\r\n"
           "Content-Type: message/rfc822\r\n\r\nno field here\r\n" +
           numbered(over, "v") + "\r\ninner body\r\n--b--\r\n",
       keyLines,
       {"Subject:outer", "a.pdf", "X-1000: v", "inner body"},
       {"X-1001:"}},
      {"untyped part outside a digest",
       mixed + "--b\r\n\r\n" + keyLines + "\r\n--b--\r\n",
       keyLines,
       {},
       {}},
      {"digest part of no plain type",
       "Subject: outer\r\nContent-Type: multipart/digest; boundary=b\r\n\r\n--b\r\n"
       "Content-Type: garbage\r\n\r\n" +
           numbered(over, "v") + "\r\ninner body\r\n--b--\r\n",
       "-",
       {"X-1000: v", "inner body"},
       {"X-1001:"}},
      {"parameter list",
       mixed + "--b\r\nContent-Type: application/x\r\n" + dispositions +
           "; filename=late.bin\r\n\r\nx\r\n" + named(1, ""),
       "-",
       {"part0.bin"},
       {"late.bin"}},
      {"header bytes of the message",
       mixed + named(padded + 10, pad),
       "-",
       {part(0), part(padded - 10)},
       {part(padded + 9)}},
      {"fields of the message",
       mixed + named(full + 1, numbered(limits::kMaxHeaderFields - 1, "")),
       "-",
       {part(0), part(full - 2)},
       {part(full)}},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    ParsedMessage message = ParseText(c.message);
    EXPECT_TRUE(message.textBody.value_or(BodyText{"-", ""}).text == c.text);
    const std::string all = Everything(message);
    for (const std::string& text : c.kept) EXPECT_NE(all.find(text), std::string::npos) << text;
    for (const std::string& text : c.lost) EXPECT_EQ(all.find(text), std::string::npos) << text;
  }
}

// Base64 whose last read is one byte, which with the one before makes the
// last decoded byte; the closing group has no padding. A refusing sink fails it.
TEST(MimeStreamTest, EveryReadReachesTheDecoderAndEveryWriteTheSink) {
  EnsureGMimeInitialised();
  std::string received;
  bool accept = true;
  const TextSink sink = [&](std::string_view bytes) {  // outlives the stream, as it must
    received += bytes;
    return accept;
  };
  GMimeHandle<GMimeStream> out = NewSinkStream(sink);
  std::string encoded = "\n\n\n", decoded;
  for (int i = 0; i < 16383; ++i) encoded += "QUJD", decoded += "ABC";
  encoded += "QQ";
  ASSERT_EQ(encoded.size(), 64u * 1024 + 1);
  GMimeHandle<GMimeStream> source(
      g_mime_stream_mem_new_with_buffer(encoded.data(), encoded.size()));
  GMimeHandle<GMimeDataWrapper> wrapper(
      g_mime_data_wrapper_new_with_stream(source.get(), GMIME_CONTENT_ENCODING_BASE64));
  GMimeHandle<GMimePart> part(g_mime_part_new());
  g_mime_part_set_content(part.get(), wrapper.get());
  EXPECT_TRUE(DecodePartContent(part.get(), out.get()));
  EXPECT_TRUE(received == decoded + "A") << received.size();
  accept = false;
  EXPECT_FALSE(DecodePartContent(part.get(), out.get()));
}

TEST(HeaderParameterTest, QuotedPlainExtendedAndContinuedValues) {
  struct Case {
    std::string field, name, value, charset;
  };
  const std::string field =
      "attachment; size=12; FileName=\"a \\\"quoted\\\" name.txt\"; name=plain with spaces ;x=";
  const Case cases[] = {
      {field, "filename", "a \"quoted\" name.txt", ""},
      {field, "name", "plain with spaces", ""},  // not found inside "FileName"
      {field, "x", "", ""},
      {"text/plain; charset=\"gb2312", "charset", "gb2312", ""},
      {"a; name=\"\xD6\xD0.txt\"", "name", "\xD6\xD0.txt", ""},
      {"a; q=\"x;y\"; name=n", "name", "n", ""},
      {"a; name=\"plain\"; name*=utf-8'en'%E6%96%87 %zz", "name", "\xE6\x96\x87 %zz", "utf-8"},
      // Pieces may come in any order; a gap ends the value.
      {"a; name*1=\"two\"; name*0*=gb2312''%D6%D0; name*2*=%41; name*4=lost", "name",
       "\xD6\xD0twoA", "gb2312"},
      {"a; name*=%41%42", "name", "AB", ""},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.field);
    std::optional<HeaderParameter> found = FindHeaderParameter(c.field, c.name);
    ASSERT_TRUE(found);
    EXPECT_EQ(found->value, c.value);
    EXPECT_EQ(found->charset, c.charset);
  }
  EXPECT_FALSE(FindHeaderParameter(field, "missing"));
  EXPECT_EQ(FieldMainValue(field), "attachment");
  EXPECT_EQ(FieldMainValue("  text/plain ; x=y"), "text/plain");
}

}  // namespace
}  // namespace corvane
