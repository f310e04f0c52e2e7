// What reply and forward make of a retrieved message: addressing with its
// deliberate comma quirks, subject prefixes, the quoted body under the
// GB2312 quotation header, and the forwarded attachments.
#include <gtest/gtest.h>

#include "mail/mail_forwarder.h"
#include "mail/mail_replier.h"
#include "mail/quoted_original.h"
#include "mime/charset_converter.h"
#include "support/mail_request.h"

namespace corvane {
namespace {

constexpr char kLogin[] = "me@example.org";

// A request as the client sends it, kept alive with the parsed fields.
struct Request {
  explicit Request(const test::Fields& parameters, const test::Fields& multiValued = {})
      : bytes(test::MailRequest({{"Smtp", "127.0.0.1"}, {"Login", kLogin}, {"Pwd", "pw"}},
                                parameters, multiValued)),
        fields(bytes.data(), bytes.size()) {}
  std::string bytes;
  RequestFields fields;
};

RenderedMail Original() {
  RenderedMail mail;
  mail.from = "Ann <ann@example.com>";
  mail.to = "me@example.org";
  mail.subject = "Plans";
  mail.date = "2026-11-20 09:30";
  mail.body = "Shall we meet?\r\n";
  return mail;
}

OutgoingMail Reply(const RenderedMail& original, const test::Fields& parameters) {
  Request request(parameters);
  MailReplier replier(request.fields);
  replier.Merge(original);
  return replier.Mail();
}

TEST(ReplyAddressing, SenderOnlyUnlessAllIsAskedFor) {
  RenderedMail original = Original();
  original.to = "me@example.org,bob@example.com";
  original.cc = "carol@example.com";
  OutgoingMail mail = Reply(original, {{"From", "someone@else.org"}, {"Cc", "dave@example.com"}});
  EXPECT_EQ(mail.from, kLogin);  // a request "From" does not count for replies
  EXPECT_EQ(mail.to, "Ann <ann@example.com>");
  EXPECT_EQ(mail.cc, "dave@example.com");
  EXPECT_EQ(Reply(original, {{"Replies", "All"}}).to, "Ann <ann@example.com>");
}

TEST(ReplyAddressing, ReplyAllLeavesTheLoginOut) {
  RenderedMail original = Original();
  // To is the login alone: only the sender is answered.
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).to, "Ann <ann@example.com>");

  original.to = "bob@example.com, me@example.org, carol@example.com";
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).to,
            "bob@example.com,carol@example.com,Ann <ann@example.com>");
  // The login last leaves a comma behind, and the join adds another.
  original.to = "bob@example.com, carol@example.com, me@example.org";
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).to,
            "bob@example.com,carol@example.com,,Ann <ann@example.com>");
  // A To without the login is kept as it stands.
  original.to = "Bob <bob@example.com>";
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).to,
            "Bob <bob@example.com>,Ann <ann@example.com>");
  original.to.reset();
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).to, "Ann <ann@example.com>");
}

TEST(ReplyAddressing, ReplyAllCopies) {
  RenderedMail original = Original();
  original.cc = "Carol <carol@example.com>";
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).cc, "Carol <carol@example.com>");
  original.cc = "carol@example.com,me@example.org";
  EXPECT_EQ(Reply(original, {{"Replies", "all"}}).cc, "carol@example.com,");
  original.cc = "me@example.org";
  EXPECT_FALSE(Reply(original, {{"Replies", "all"}, {"Cc", "dave@example.com"}}).cc.has_value());
  original.cc.reset();
  EXPECT_EQ(Reply(original, {{"Replies", "all"}, {"Cc", "dave@example.com"}}).cc,
            "dave@example.com");
}

TEST(ReplyAddressing, NoSenderMeansNoRecipient) {
  RenderedMail original = Original();
  original.from.reset();
  EXPECT_FALSE(Reply(original, {}).to.has_value());
  EXPECT_FALSE(Reply(original, {{"Replies", "all"}}).to.has_value());
}

TEST(ReplySubjectAndBody, PrefixesAndQuoting) {
  RenderedMail original = Original();
  original.subject = "Reply: Plans";
  OutgoingMail mail = Reply(original, {{"Body", "Yes."}});
  EXPECT_EQ(mail.subject, "Reply: Reply: Plans");
  EXPECT_EQ(mail.body, "Yes.");  // not quoted without "Quote" "true"
  EXPECT_EQ(Reply(original, {{"Subject", "Own"}}).subject, "Own");
  EXPECT_EQ(Reply(original, {{"Body", "Yes."}, {"Quote", "True"}}).body, "Yes.");

  mail = Reply(Original(), {{"Body", "Yes.--#13--Ann"}, {"Quote", "true"}});
  EXPECT_EQ(mail.body,
            "Yes.\r\nAnn\r\n\r\n" + QuotationHeader(Original()) + "\r\nShall we meet?\r\n");
  mail = Reply(Original(), {{"Quote", "true"}});
  EXPECT_EQ(mail.body, "\r\n\r\n" + QuotationHeader(Original()) + "\r\nShall we meet?\r\n");

  RenderedMail bodiless = Original();
  bodiless.body.reset();
  EXPECT_EQ(Reply(bodiless, {{"Body", "Yes."}, {"Quote", "true"}}).body, "Yes.");
}

TEST(QuotationHeader, FourGb2312LinesWithTheOriginalsFields) {
  std::optional<std::string> expected =
      ConvertCharset("utf-8", "gb2312",
                     "------------原邮件内容-------------\r\n发件人: Ann <ann@example.com>\r\n"
                     "发送时间: 2026-11-20 09:30\r\n收件人: me@example.org\r\n主题: Plans\r\n");
  ASSERT_TRUE(expected.has_value());
  EXPECT_EQ(QuotationHeader(Original()), *expected);
}

TEST(Forward, SubjectBodyAndTheOriginalsAttachments) {
  RenderedMail original = Original();
  original.attachments = {{"plan.pdf", 1200}, {"unwritable.bin", -1}, {"photo.jpg", 5}};
  Request request({{"To", "zed@example.net"}, {"From", "alias@example.org"}},
                  {{"Attachments", "/etc/passwd"}});
  MailForwarder forwarder(request.fields);
  forwarder.Merge(original, "/cache/me/");
  const OutgoingMail& mail = forwarder.Mail();
  EXPECT_EQ(mail.subject, "Fw: Plans");
  EXPECT_EQ(mail.to, "zed@example.net");
  EXPECT_EQ(mail.from, "alias@example.org");
  EXPECT_EQ(mail.body, "\r\n\r\n" + QuotationHeader(original) + "\r\nShall we meet?\r\n");
  EXPECT_EQ(forwarder.AttachedFiles(),
            (std::vector<std::string>{"/cache/me/plan.pdf", "/cache/me/photo.jpg"}));
  // Not sent short of the attachment that could not be saved.
  wxEntryLog answer;
  answer.SetRecording(true);
  forwarder.Send(answer);
  EXPECT_EQ(answer.Serialize(),
            test::Entry(2, "Status", "fail") + test::Entry(2, "Log", "Send mail error"));

  Request titled({{"To", "zed@example.net"}, {"Subject", "FYI"}, {"Body", "See below."}});
  MailForwarder own(titled.fields);
  original.attachments.clear();
  own.Merge(original, "/cache/me/");
  EXPECT_EQ(own.Mail().subject, "FYI");
  EXPECT_TRUE(own.Mail().body->starts_with("See below.\r\n\r\n------------"));
  EXPECT_TRUE(own.AttachedFiles().empty());
}

}  // namespace
}  // namespace corvane
