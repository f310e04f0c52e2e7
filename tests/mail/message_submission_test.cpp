// Submitting a message against scripted SMTP servers: one transaction per
// recipient, each copy composed as it goes out with its own header block,
// whole attachments in every copy, folding, refusals and the Date line.
#include "mail/message_submission.h"

#include <gtest/gtest.h>

#include <regex>

#include "mail/mail_date.h"
#include "mime/mime_codes.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Expect;
using test::HeaderOf;
using test::Join;
using test::ScriptedPeer;
using test::Send;
using test::Step;

std::vector<Step> Greeting(const std::string& ehloReply) {
  return test::SmtpGreeting(ehloReply);
}

int Connect(SmtpClient& client, ScriptedPeer& peer) {
  client.SetPort(peer.port());
  return client.SMTPConnect("127.0.0.1", "localhost");
}

MailMessage Message(const std::string& to, const std::string& body) {
  MailMessage message;
  message.AppendHeader(to.c_str(), kFieldTo);
  message.AppendHeader("Sender Name<sender@example.org>", kFieldFrom);
  message.AppendHeader("Hello there", kFieldSubject);
  message.SetCharset("utf-8");
  message.SetTextBody(body);
  return message;
}

TEST(MessageSubmission, EveryRecipientGetsItsOwnTransactionAndBccNoHeader) {
  std::string first, second, hidden;
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                          test::SmtpTransaction("sender@example.org", "a@example.com", first),
                          test::SmtpTransaction("sender@example.org", "b@example.com", second),
                          test::SmtpTransaction("sender@example.org", "hidden@example.net", hidden),
                          {Expect("QUIT\r\n")}}));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  MailMessage message = Message("Ann <a@example.com>,b@example.com", "line one\r\n");
  message.AppendHeader("hidden@example.net", kFieldBcc);
  message.AppendHeader("3", kFieldCustom, "X-Priority:");
  message.AppendHeader("dotted", kFieldCustom, ".X-Dotted:");
  EXPECT_EQ(SubmitMessage(client, message), 0);
  client.SMTPClose();
  ASSERT_TRUE(peer.Finish()) << peer.Errors();

  // The same copy each time, but for the Date each transaction writes anew.
  auto undated = [](std::string copy) {
    size_t at = copy.find("\r\nDate: ");
    if (at != std::string::npos) copy.erase(at, copy.find("\r\n", at + 2) - at);
    return copy;
  };
  EXPECT_EQ(undated(first), undated(second));
  EXPECT_EQ(undated(first), undated(hidden));
  EXPECT_EQ(first.find("hidden@"), std::string::npos);
  EXPECT_EQ(first.find("Bcc"), std::string::npos);
  EXPECT_EQ(first.rfind("From: Sender Name<sender@example.org>\r\nTo: Ann "
                        "<a@example.com>,b@example.com\r\nSubject: Hello there\r\nDate: ",
                        0),
            0u)
      << test::Printable(first, 400);
  EXPECT_EQ(HeaderOf(first, "X-Priority"), "3");
  // The header lines are stuffed like the body's.
  EXPECT_NE(first.find("\r\n..X-Dotted: dotted\r\n"), std::string::npos);
  EXPECT_NE(HeaderOf(first, "Content-Type").find("text/plain"), std::string::npos);
  EXPECT_TRUE(first.ends_with("\r\n\r\nline one\r\n\r\n.\r\n")) << test::Printable(first, 800);
  std::regex date(
      R"((Sun|Mon|Tue|Wed|Thu|Fri|Sat), \d\d (Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) \d{4} \d\d:\d\d:\d\d [+-]\d{4})");
  EXPECT_TRUE(std::regex_match(HeaderOf(first, "Date"), date)) << HeaderOf(first, "Date");
  // One Date only: the composer's own is not passed on.
  EXPECT_EQ(first.find("\r\nDate: ", first.find("\r\nDate: ") + 1), std::string::npos);
}

TEST(MessageSubmission, EveryCopyCarriesTheWholeAttachment) {
  // Written as it is composed, each copy reads the file anew.
  test::TempDir dir;
  std::string bytes(200 * 1024, '\0');
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  test::WriteFile(dir / "data.bin", bytes);
  std::string first, second;
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                          test::SmtpTransaction("sender@example.org", "a@example.com", first),
                          test::SmtpTransaction("sender@example.org", "b@example.com", second),
                          {Expect("QUIT\r\n")}}));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  MailMessage message = Message("a@example.com,b@example.com", "see attached\r\n");
  ASSERT_EQ(message.AddAttachmentFile(dir / "data.bin"), 0);
  EXPECT_EQ(SubmitMessage(client, message), 0);
  client.SMTPClose();
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  auto withoutDate = [](std::string copy) {
    size_t at = copy.find("\r\nDate: ");
    copy.erase(at, copy.find("\r\n", at + 2) - at);
    return copy;
  };
  EXPECT_TRUE(withoutDate(first) == withoutDate(second));
  // Base64 with its line ends: a third more, and some.
  EXPECT_GT(second.size(), bytes.size() * 4 / 3);
  EXPECT_NE(second.find("filename=data.bin"), std::string::npos) << test::Printable(second, 800);

  // What is no regular file is refused before any transaction starts.
  ScriptedPeer refused(Join({Greeting("250-x\r\n250 HELP\r\n"), {Expect("QUIT\r\n")}}));
  SmtpClient other;
  ASSERT_EQ(Connect(other, refused), 0);
  MailMessage directory = Message("a@example.com", "see attached\r\n");
  ASSERT_EQ(directory.AddAttachmentFile(dir.path()), 0);
  EXPECT_EQ(SubmitMessage(other, directory), kMimeFileOpenFailed);
  other.SMTPClose();
  EXPECT_TRUE(refused.Finish()) << refused.Errors();
}

TEST(MessageSubmission, ARefusedRecipientStopsTheOnesAfterIt) {
  std::string first;
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                          test::SmtpTransaction("sender@example.org", "a@example.com", first),
                          {Expect("MAIL FROM:<sender@example.org>\r\n"), Send("250 OK\r\n"),
                           Expect("RCPT TO:<nobody@example.com>\r\n"), Send("550 No such user\r\n"),
                           Expect("QUIT\r\n")}}));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  MailMessage message = Message("a@example.com,nobody@example.com", "hi\r\n");
  message.AppendHeader("c@example.com", kFieldCc);
  EXPECT_EQ(SubmitMessage(client, message), 67);
  client.SMTPClose();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received().find("c@example.com>"), std::string::npos);
}

TEST(MessageSubmission, LongRecipientListsFoldAt250Characters) {
  std::vector<std::string> addresses;
  std::string to;
  for (int i = 0; i < 30; ++i) {
    addresses.push_back("recipient" + std::to_string(100 + i) + "@example.com");
    to += (i ? "," : "") + addresses.back();
  }
  std::vector<Step> script = Greeting("250-x\r\n250 HELP\r\n");
  std::string data;
  // The first copy is read whole; then the client is cut off.
  for (Step& step : test::SmtpTransaction("sender@example.org", addresses[0], data)) {
    script.push_back(std::move(step));
  }
  script.push_back(test::Close());
  ScriptedPeer peer(std::move(script));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  SubmitMessage(client, Message(to, "hi\r\n"));
  ASSERT_TRUE(peer.Finish()) << peer.Errors();

  std::string header = HeaderOf(data, "To");
  std::string unfolded;
  size_t start = 0;
  for (size_t end; (end = header.find("\r\n\t", start)) != std::string::npos; start = end + 3) {
    std::string line = header.substr(start, end - start);
    EXPECT_TRUE(line.ends_with(",")) << line;
    EXPECT_LE(line.size(), 250u) << line;
    unfolded += line;
  }
  unfolded += header.substr(start);
  EXPECT_GT(start, 0u) << "no fold in " << header;
  EXPECT_EQ(unfolded, to);
}

TEST(MessageSubmission, TheZoneOffsetFollowsTheBiasAndDaylightSaving) {
  struct Case {
    const char* zone;
    const char* offset;
  } cases[] = {{"CST-8", "+0800"},
               {"UTC0", "+0000"},
               {"IST-5:30", "+0530"},
               {"NST3:30", "-0330"},
               // Daylight saving all year round.
               {"XST5XDT,J1/0,J365/25", "-0400"}};
  for (const Case& c : cases) {
    test::ScopedEnv zone("TZ", c.zone);
    char buffer[40];
    ASSERT_EQ(GetDateString(buffer, sizeof buffer), 0);
    std::string text(buffer);
    EXPECT_EQ(text.size(), 31u) << text;
    EXPECT_TRUE(text.ends_with(c.offset)) << c.zone << ": " << text;
  }
  char small[31];
  EXPECT_EQ(GetDateString(small, sizeof small), 1);
}

TEST(MessageSubmission, HostileSubjectsStayOneFoldedField) {
  // The subject's line breaks survive only as folds, its NUL ends it: no
  // text can start a header field of its own, or end the header block.
  struct Case {
    std::string value, folded;
  };
  const std::vector<Case> cases = {
      {"Hi\r\n.\r\nMAIL FROM:<x@example.org>\r\nRCPT TO:<victim@example.org>\r\nDATA\r\n",
       "Hi\r\n .\r\n MAIL FROM:<x@example.org>\r\n RCPT TO:<victim@example.org>\r\n DATA"},
      {".starts with a dot\r\n..two\r\n.\r\nend\r\n", ".starts with a dot\r\n ..two\r\n .\r\n end"},
      {"a\r.\rMAIL FROM:<x@example.org>", "a\r\n .\r\n MAIL FROM:<x@example.org>"},
      {"a\n.\nMAIL FROM:<x@example.org>\n", "a\r\n .\r\n MAIL FROM:<x@example.org>"},
      {std::string(".\0\r\n.\0", 6), "."},
      {"a" + std::string(600, '\r') + "." + std::string(300, '\n') + ".", "a\r\n .\r\n ."},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(test::Printable(c.value));
    std::string data;
    ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                            test::SmtpTransaction("sender@example.org", "a@example.com", data)}));
    SmtpClient client;
    ASSERT_EQ(Connect(client, peer), 0);
    MailMessage message = Message("a@example.com", "body\r\n");
    message.RemoveHeaders(kFieldSubject);
    message.AppendHeader(c.value.c_str(), kFieldSubject);
    EXPECT_EQ(SubmitMessage(client, message), 0);
    ASSERT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(HeaderOf(data, "Subject"), c.folded) << test::Printable(data, 600);
  }
}

TEST(MessageSubmission, RefusalsAndNoConnection) {
  ScriptedPeer peer(Join({Greeting("250-x\r\n250 HELP\r\n"),
                          {Expect("MAIL FROM:<sender@example.org>\r\n"), Send("550 no\r\n")}}));
  SmtpClient client;
  ASSERT_EQ(Connect(client, peer), 0);
  EXPECT_EQ(SubmitMessage(client, Message("a@example.com", "hi\r\n")), 12);
  SmtpClient idle;
  EXPECT_EQ(SubmitMessage(idle, Message("a@example.com", "hi\r\n")), 6);
}

}  // namespace
}  // namespace corvane
