// Sending against scripted SMTP servers (request fields to envelope and
// header lines, one transaction per recipient, folding, hostile subjects,
// the failure answers), reply and forward, and FTP uploads of attachments.
#include <gtest/gtest.h>

#include <optional>
#include <tuple>

#include "mail/attachment_upload.h"
#include "mail/mail_forwarder.h"
#include "mail/mail_replier.h"
#include "mail/mail_sender.h"
#include "mail/message_submission.h"
#include "mail/quoted_original.h"
#include "mime/charset_converter.h"
#include "mime/mime_codes.h"
#include "support/mail_request.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Entry;
using test::Expect;
using test::HeaderOf;
using test::Join;
using test::ScriptedPeer;
using test::Send;
using test::Step;

const std::vector<Step> kQuit = {Expect("QUIT\r\n")};

// Greeting, one accepted transaction per recipient (its data into `data`),
// then `rest`.
std::vector<Step> Smtp(const std::string& from,
                       std::vector<std::pair<std::string, std::string*>> to,
                       std::vector<Step> rest = kQuit) {
  std::vector<Step> script = test::SmtpGreeting("250-mail.test\r\n250 AUTH LOGIN\r\n");
  for (auto& [recipient, data] : to) {
    for (Step& step : test::SmtpTransaction(from, recipient, *data)) script.push_back(step);
  }
  return Join({script, rest});
}

std::string Failure(const std::string& text) {
  return Entry(2, "Status", "fail") + Entry(2, "Log", text);
}

// The answer of SendMail for the request; the account on `port` unless the
// request gives its own fields.
std::string SendMail(unsigned port, test::Fields parameters, test::Fields account = {},
                     const test::Fields& multiValued = {}) {
  if (account.empty()) {
    account = {{"Smtp", "127.0.0.1"},
               {"SmtpPort", std::to_string(port)},
               {"Port", "1"},
               {"Login", "joe@example.org"},
               {"Pwd", "secret"}};
  }
  std::string bytes = test::MailRequest(account, parameters, multiValued);
  RequestFields fields(bytes.data(), bytes.size());
  wxEntryLog answer;
  answer.SetRecording(true);
  MailSender(fields).Send(answer);
  return answer.Serialize();
}

// A copy without its Date line, which each transaction writes anew.
std::string Undated(std::string copy) {
  size_t at = copy.find("\r\nDate: ");
  return copy.erase(at, copy.find("\r\n", at + 2) - at);
}

TEST(SendMailTest, EveryRecipientGetsATransactionOfTheSameCopyBuiltFromTheRequest) {
  std::string a, b, c;
  ScriptedPeer peer(Smtp("joe@example.org", {{"a@x.com", &a}, {"b@x.com", &b}, {"c@x.com", &c}}));
  // The escaped line breaks of the subject survive only as folds: no text of
  // it can start a field of its own.
  const test::Fields fields = {{"Name", "Joe Q"},
                               {"To", "Ann <a@x.com>,b@x.com"},
                               {"Cc", "c@x.com"},
                               {"Priority", "1"},
                               {"Receipt", "true"},
                               {"Body", "hello--#13--world"},
                               {"Subject", "Hi--#13--.--#13--MAIL FROM:<x@x.org>"}};
  EXPECT_EQ(SendMail(peer.port(), fields), Entry(2, "Status", "success"));
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(Undated(a), Undated(b));
  EXPECT_EQ(Undated(a), Undated(c));
  // No "From": the login sends, behind the display name without a blank.
  EXPECT_EQ(a.rfind("From: Joe Q<joe@example.org>\r\nTo: Ann <a@x.com>,b@x.com\r\nSubject: "
                    "Hi\r\n .\r\n MAIL FROM:<x@x.org>\r\nDate: ",
                    0),
            0u)
      << test::Printable(a, 400);
  EXPECT_EQ(a.find("\r\nDate: ", a.find("\r\nDate: ") + 1), std::string::npos) << "one Date only";
  EXPECT_EQ(HeaderOf(a, "Cc"), "c@x.com");
  EXPECT_EQ(HeaderOf(a, "X-Priority"), "1");
  EXPECT_EQ(HeaderOf(a, "Disposition-Notification-To"), "joe@example.org");
  EXPECT_EQ(HeaderOf(a, "Content-Type"), "text/plain; charset=\"gb2312\"");
  EXPECT_TRUE(a.ends_with("\r\n\r\nhello\r\nworld\r\n\r\n.\r\n")) << test::Printable(a, 600);
  EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
}

TEST(SendMailTest, FallbacksEightBitTextAndWholeAttachmentsInOrderInEveryCopy) {
  test::TempDir dir;
  std::string big(200 * 1024, '\0'), list, first, second;
  for (size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  for (const char* name : {"first.txt", "second.bin", "third.dat"}) {
    test::WriteFile(dir / name, name == std::string("second.bin") ? big : name);
    list += (list.empty() ? "" : ",") + dir / name;
  }
  // "Port" stands in for "SmtpPort"; only "true" turns AUTH on.
  ScriptedPeer peer(Smtp("me@example.org", {{"a@x.com", &first}, {"b@x.com", &second}}));
  const test::Fields account = {
      {"Smtp", "127.0.0.1"}, {"Port", std::to_string(peer.port())}, {"Auth", "TRUE"}};
  EXPECT_EQ(SendMail(0,
                     {{"From", "me@example.org"},
                      {"To", "a@x.com,b@x.com"},
                      {"Name", "\xD5\xC5\xC8\xFD"},
                      {"Subject", "\xC4\xE3\xBA\xC3"}},
                     account, {{"Attachments", list}}),
            Entry(2, "Status", "success"));
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
  EXPECT_EQ(HeaderOf(first, "From"), "=?gb2312?B?1cXI/Q==?=<me@example.org>");
  EXPECT_EQ(HeaderOf(first, "Subject"), "=?gb2312?B?xOO6ww==?=");
  EXPECT_EQ(HeaderOf(first, "Disposition-Notification-To") + HeaderOf(first, "X-Priority"), "");
  EXPECT_NE(HeaderOf(first, "Content-Type").find("multipart/mixed"), std::string::npos);
  // Written as it is composed, each copy reads the files anew.
  EXPECT_TRUE(Undated(first) == Undated(second));
  EXPECT_GT(second.size(), big.size() * 4 / 3);  // base64 with its line ends
  const size_t one = second.find("filename=first.txt"), two = second.find("filename=second.bin");
  EXPECT_LT(one, two);
  EXPECT_LT(two, second.find("filename=third.dat"));
  EXPECT_NE(second.find("filename=third.dat"), std::string::npos) << test::Printable(second, 800);

  ScriptedPeer login(Join(
      {test::SmtpGreeting("250-mail.test\r\n250 AUTH LOGIN\r\n"),
       {Expect("AUTH LOGIN\r\n"), Send("334 VXNlcm5hbWU6\r\n"), Expect("am9lQGV4YW1wbGUub3Jn\r\n"),
        Send("334 UGFzc3dvcmQ6\r\n"), Expect("c2VjcmV0\r\n"), Send("235 ok\r\n")},
       test::SmtpTransaction("joe@example.org", "a@x.com", first),
       kQuit}));
  EXPECT_EQ(SendMail(0, {{"To", "a@x.com"}},
                     {{"Smtp", "127.0.0.1"},
                      {"SmtpPort", std::to_string(login.port())},
                      {"Login", "joe@example.org"},
                      {"Pwd", "secret"},
                      {"Auth", "true"}}),
            Entry(2, "Status", "success"));
  EXPECT_TRUE(login.Finish()) << login.Errors();
}

TEST(SendMailTest, EveryFailureHasItsAnswerAndARefusedRecipientStopsTheRest) {
  const std::string missing = "The parameter of request is not enough";
  EXPECT_EQ(SendMail(0, {{"Subject", "no recipient"}}, {{"Smtp", "127.0.0.1"}}), Failure(missing));
  EXPECT_EQ(SendMail(0, {{"To", "a@x.com"}}, {{"Login", "joe"}}), Failure(missing));
  ScriptedPeer closing({Send("421 closing\r\n")});
  EXPECT_EQ(SendMail(closing.port(), {{"To", "a@x.com"}}), Failure("Connect to smtp server error"));
  std::string first;
  ScriptedPeer refusing(Smtp("joe@example.org", {{"a@x.com", &first}},
                             {Expect("MAIL FROM:<joe@example.org>\r\n"), Send("250 OK\r\n"),
                              Expect("RCPT TO:<no@x.com>\r\n"), Send("550 no\r\n"), kQuit[0]}));
  EXPECT_EQ(SendMail(refusing.port(), {{"To", "a@x.com,no@x.com"}, {"Cc", "c@x.com"}}),
            Failure("Send mail error"));
  EXPECT_TRUE(refusing.Finish()) << refusing.Errors();
  // An attachment that cannot be read, or is no file: nothing is submitted.
  for (const std::string path : {"/nonexistent/f", "/"}) {
    ScriptedPeer unread(Smtp("", {}));
    EXPECT_EQ(SendMail(unread.port(), {{"To", "a@x.com"}}, {}, {{"Attachments", path}}),
              Failure("Send mail error"));
    EXPECT_TRUE(unread.Finish()) << unread.Errors();
  }
}

TEST(SendMailTest, LongRecipientListsFoldBefore250Characters) {
  std::string to, data;
  for (int i = 0; i < 30; ++i)
    to += (i ? "," : "") + ("recipient" + std::to_string(100 + i)) + "@example.com";
  // The first copy is read whole; then the client is cut off.
  ScriptedPeer peer(
      Smtp("joe@example.org", {{"recipient100@example.com", &data}}, {test::Close()}));
  SendMail(peer.port(), {{"To", to}});
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  const std::string header = HeaderOf(data, "To");
  std::string unfolded;
  size_t start = 0;
  for (size_t end; (end = header.find("\r\n\t", start)) != std::string::npos; start = end + 3) {
    const std::string line = header.substr(start, end - start);
    EXPECT_TRUE(line.ends_with(",") && line.size() <= 250 && line.size() > 230) << line;
    unfolded += line;
  }
  EXPECT_GT(start, 0u) << "no fold in " << header;  // ten of 24 bytes and a comma fill a line
  EXPECT_EQ(unfolded + header.substr(start), to);
}

TEST(SubmitMessageTest, BccGetsACopyWithoutAHeaderAndHeaderLinesAreStuffed) {
  std::string a, hidden;
  ScriptedPeer peer(Smtp("s@x.org", {{"a@x.com", &a}, {"hidden@x.net", &hidden}},
                         {Expect("MAIL FROM:<s@x.org>\r\n"), Send("550 no\r\n"), kQuit[0]}));
  MailMessage message;
  message.AppendHeader("a@x.com", kFieldTo);
  message.AppendHeader("hidden@x.net", kFieldBcc);
  message.AppendHeader("S<s@x.org>", kFieldFrom);
  message.AppendHeader("Hi", kFieldSubject);
  message.AppendHeader("dotted", kFieldCustom, ".X-Dotted:");
  message.SetTextBody("line\r\n");
  SmtpClient client;
  client.SetPort(peer.port());
  ASSERT_EQ(client.SMTPConnect("127.0.0.1", "localhost"), 0);
  EXPECT_EQ(SubmitMessage(client, message), 0);
  EXPECT_EQ(Undated(a), Undated(hidden));
  EXPECT_EQ(a.find("hidden@"), std::string::npos);
  EXPECT_NE(a.find("\r\n..X-Dotted: dotted\r\n"), std::string::npos) << test::Printable(a, 400);
  EXPECT_EQ(SubmitMessage(client, message), 12);  // the sender refused
  client.SMTPClose();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  SmtpClient idle;
  EXPECT_EQ(SubmitMessage(idle, message), 6);
}

RenderedMail Original() {
  RenderedMail mail;
  mail.from = "Ann <ann@example.com>";
  mail.to = "me@example.org";
  mail.subject = "Plans";
  mail.date = "2026-11-20 09:30";
  mail.body = "Shall we meet?\r\n";
  return mail;
}

// A request as the client sends it, kept alive with the parsed fields.
struct Request {
  explicit Request(const test::Fields& parameters, const test::Fields& multiValued = {})
      : bytes(test::MailRequest({{"Smtp", "127.0.0.1"}, {"Login", "me@example.org"}, {"Pwd", "pw"}},
                                parameters, multiValued)),
        fields(bytes.data(), bytes.size()) {}
  std::string bytes;
  RequestFields fields;
};

OutgoingMail Reply(const RenderedMail& original, const test::Fields& parameters) {
  Request request(parameters);
  MailReplier replier(request.fields);
  replier.Merge(original);
  return replier.Mail();
}

TEST(ReplyTest, TheSenderOnlyOrAllButTheLoginWithTheirCommaQuirks) {
  using Text = std::optional<std::string>;
  const Text ann = "Ann <ann@example.com>", none;
  const test::Fields all = {{"Replies", "all"}}, allCc = {{"Replies", "all"}, {"Cc", "d@x"}};
  const struct {
    Text to, cc;
    test::Fields parameters;
    Text replyTo, replyCc;
  } cases[] = {
      {"me@example.org,b@x.com", "c@x.com", {{"Cc", "d@x"}}, ann, "d@x"},
      {"b@x.com", "c@x.com", {{"Replies", "All"}}, ann, none},
      {"me@example.org", none, all, ann, none},
      {"b@x.com, me@example.org, c@x.com", "C <c@x.com>", all, "b@x.com,c@x.com," + *ann,
       "C <c@x.com>"},
      // The login last leaves a comma behind, and the join adds another.
      {"b@x.com, c@x.com, me@example.org", "c@x.com,me@example.org", all,
       "b@x.com,c@x.com,,Ann <ann@example.com>", "c@x.com,"},
      {none, "me@example.org", allCc, ann, none},
      {"B <b@x.com>", none, allCc, "B <b@x.com>," + *ann, "d@x"},
  };
  for (const auto& c : cases) {
    RenderedMail original = Original();
    original.to = c.to;
    original.cc = c.cc;
    const OutgoingMail mail = Reply(original, c.parameters);
    EXPECT_EQ(mail.to, c.replyTo) << c.to.value_or("(none)");
    EXPECT_EQ(mail.cc, c.replyCc) << c.cc.value_or("(none)");
    EXPECT_EQ(mail.from, "me@example.org");
  }
  // A request "From" does not count for replies, and no sender means no recipient.
  RenderedMail anonymous = Original();
  anonymous.from.reset();
  EXPECT_EQ(Reply(anonymous, {{"From", "x@y.org"}, {"Replies", "all"}}).to, std::nullopt);
  EXPECT_EQ(Reply(anonymous, {{"From", "x@y.org"}}).from, "me@example.org");
}

TEST(ReplyTest, SubjectPrefixAndQuotingUnderTheGb2312Header) {
  std::optional<std::string> header =
      ConvertCharset("utf-8", "gb2312",
                     "------------原邮件内容-------------\r\n发件人: Ann <ann@example.com>\r\n"
                     "发送时间: 2026-11-20 09:30\r\n收件人: me@example.org\r\n主题: Plans\r\n");
  ASSERT_TRUE(header.has_value());
  EXPECT_EQ(QuotationHeader(Original()), *header);
  const std::string quoted = "\r\n\r\n" + *header + "\r\nShall we meet?\r\n";
  RenderedMail again = Original();
  again.subject = "Reply: Plans";
  EXPECT_EQ(Reply(again, {}).subject, "Reply: Reply: Plans");
  EXPECT_EQ(Reply(again, {{"Subject", "Own"}}).subject, "Own");
  EXPECT_EQ(Reply(Original(), {{"Body", "Yes."}, {"Quote", "True"}}).body, "Yes.");
  EXPECT_EQ(Reply(Original(), {{"Body", "Yes.--#13--Ann"}, {"Quote", "true"}}).body,
            "Yes.\r\nAnn" + quoted);
  EXPECT_EQ(Reply(Original(), {{"Quote", "true"}}).body, quoted);
  RenderedMail bodiless = Original();
  bodiless.body.reset();
  EXPECT_EQ(Reply(bodiless, {{"Body", "Yes."}, {"Quote", "true"}}).body, "Yes.");
}

TEST(ForwardTest, SubjectBodyAndOnlyTheOriginalsSavedAttachments) {
  RenderedMail original = Original();
  original.attachments = {{"plan.pdf", 1200}, {"unwritable.bin", -1}, {"photo.jpg", 0}};
  Request request({{"To", "zed@example.net"}, {"From", "alias@example.org"}},
                  {{"Attachments", "/etc/passwd"}});
  MailForwarder forwarder(request.fields);
  forwarder.Merge(original, "/cache/me/");
  EXPECT_EQ(forwarder.Mail().subject, "Fw: Plans");
  EXPECT_EQ(forwarder.Mail().from, "alias@example.org");
  EXPECT_EQ(forwarder.Mail().body,
            "\r\n\r\n" + QuotationHeader(original) + "\r\nShall we meet?\r\n");
  EXPECT_EQ(forwarder.AttachedFiles(),
            (std::vector<std::string>{"/cache/me/plan.pdf", "/cache/me/photo.jpg"}));
  // Not sent short of the attachment that could not be saved.
  wxEntryLog answer;
  answer.SetRecording(true);
  forwarder.Send(answer);
  EXPECT_EQ(answer.Serialize(), Failure("Send mail error"));

  Request titled({{"To", "zed@example.net"}, {"Subject", "FYI"}, {"Body", "See below."}});
  MailForwarder own(titled.fields);
  original.attachments.clear();
  own.Merge(original, "/cache/me/");
  EXPECT_EQ(own.Mail().subject, "FYI");
  EXPECT_TRUE(own.Mail().body->starts_with("See below.\r\n\r\n------------"));
  EXPECT_TRUE(own.AttachedFiles().empty());
}

TEST(FtpUploadTest, DestinationPathsAfterTheHost) {
  const std::tuple<std::string, std::optional<std::string>, std::string> cases[] = {
      {"ftp://h.org/in/mail", "/in/mail", "ftp://h.org/in/mail"},
      {"ftp:\\\\h.org\\in", "/in", "ftp://h.org/in"},
      {"save to ftp://host/a/b", "/a/b", "save to ftp://host/a/b"},
      {"ftp://host", "ftp://host", "ftp://host"},  // no path: the whole text
      {"C:\\attachments\\", std::nullopt, "C:\\attachments\\"},
      {"FTP://host/dir", std::nullopt, "FTP://host/dir"},
      {"\\ftp://host\\dir", "/dir", "\\ftp://host/dir"},  // the first byte is never turned
      {"x\\ftp:\\\\h\\d", "/d", "x/ftp://h/d"}};
  for (auto [destination, path, changed] : cases) {
    EXPECT_EQ(FtpPathOfUrl(destination), path) << changed;
    EXPECT_EQ(destination, changed);
  }
}

TEST(FtpUploadTest, ADirectoryThatCannotBeMadeOrBadNamesStopTheUpload) {
  test::TempDir dir;
  test::WriteFile(dir / "a.txt", "attachment\r\n");
  const std::vector<Step> login = {
      Send("220 ready\r\n"), Expect("USER up\r\n"), Send("230 in\r\n"),
      Expect("TYPE I\r\n"),  Send("200 ok\r\n"),    Expect("MODE S\r\n"),
      Send("200 ok\r\n"),    Expect("STRU F\r\n"),  Send("200 ok\r\n")};
  auto at = [](const ScriptedPeer& peer) {
    return FtpServer{"127.0.0.1", "up", "pw", peer.port()};
  };
  ScriptedPeer unmade(Join({login,
                            {Expect("CWD /box\r\n"), Send("550 no\r\n"), Expect("MKD /box\r\n"),
                             Send("550 no\r\n"), Expect("Quit\r\n")}}));
  EXPECT_EQ(UploadToFtp(at(unmade), dir / "a.txt", "a.txt", "/box"), -1);
  EXPECT_TRUE(unmade.Finish()) << unmade.Errors();
  EXPECT_EQ(unmade.Received().find("STOR"), std::string::npos);

  const std::pair<std::string, std::optional<std::string>> refused[] = {
      {std::string("a.txt\0\r\nDELE x", 14), std::nullopt},
      {"a.txt\r\nDELE x", std::nullopt},
      {"a.txt", std::string("/box\0/..", 8)},
      {"a.txt", "/box\nRMD /"}};
  for (const auto& [name, directory] : refused) {
    ScriptedPeer peer(login, 200);
    EXPECT_EQ(UploadToFtp(at(peer), dir / "a.txt", name, directory), -1);
    peer.Finish();
    EXPECT_EQ(peer.Connections(), 0) << testing::PrintToString(name);
  }
  EXPECT_EQ(UploadToFtp({"127.0.0.1", "up", "pw", test::ClosedPort()}, dir / "a.txt", "a.txt", {}),
            -1);
}

}  // namespace
}  // namespace corvane
