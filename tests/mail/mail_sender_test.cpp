// Sending against scripted SMTP servers: which request fields become which
// envelope and header lines, the authentication switch, attachments, and
// the three failure answers.
#include "mail/mail_sender.h"

#include <gtest/gtest.h>

#include <fstream>

#include "support/mail_request.h"
#include "support/smtp_script.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using test::Expect;
using test::HeaderOf;
using test::Join;
using test::ScriptedPeer;
using test::Send;
using test::SmtpGreeting;
using test::SmtpTransaction;

const char* const kPlainEhlo = "250-mail.test\r\n250 AUTH LOGIN\r\n";

std::string Answer(const test::Fields& request, const test::Fields& parameters,
                   const test::Fields& multiValued = {}) {
  std::string bytes = test::MailRequest(request, parameters, multiValued);
  RequestFields fields(bytes.data(), bytes.size());
  wxEntryLog answer;
  answer.SetRecording(true);
  MailSender sender(fields);
  sender.Send(answer);
  return answer.Serialize();
}

std::string Failure(const std::string& text) {
  return test::Entry(2, "Status", "fail") + test::Entry(2, "Log", text);
}

test::Fields Account(const ScriptedPeer& peer) {
  return {{"Smtp", "127.0.0.1"},
          {"SmtpPort", std::to_string(peer.port())},
          {"Port", "1"},
          {"Login", "joe@example.org"},
          {"Pwd", "secret"}};
}

TEST(MailSender, RequestFieldsBecomeEnvelopeAndHeaders) {
  std::string data;
  ScriptedPeer peer(Join({SmtpGreeting(kPlainEhlo),
                          SmtpTransaction("joe@example.org", "ann@example.com", data),
                          {Expect("QUIT\r\n")}}));
  std::string answer = Answer(Account(peer), {{"Name", "Joe Q"},
                                              {"To", "ann@example.com"},
                                              {"Subject", "two--#13--lines"},
                                              {"Body", "hello--#13--world"},
                                              {"Priority", "1"},
                                              {"Receipt", "true"}});
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(answer, test::Entry(2, "Status", "success"));
  // No "From": the login sends, behind the display name without a blank.
  EXPECT_EQ(HeaderOf(data, "From"), "Joe Q<joe@example.org>");
  EXPECT_EQ(HeaderOf(data, "To"), "ann@example.com");
  // The escaped line break is a real one, kept inside the subject as a fold.
  EXPECT_NE(data.find("\r\nSubject: two\r\n lines\r\n"), std::string::npos)
      << test::Printable(data, 600);
  EXPECT_EQ(HeaderOf(data, "X-Priority"), "1");
  EXPECT_EQ(HeaderOf(data, "Disposition-Notification-To"), "joe@example.org");
  EXPECT_EQ(HeaderOf(data, "Content-Type"), "text/plain; charset=\"gb2312\"");
  EXPECT_TRUE(data.ends_with("\r\n\r\nhello\r\nworld\r\n\r\n.\r\n")) << test::Printable(data, 600);
  EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
}

TEST(MailSender, PortFallsBackToPortAndAuthMustBeExactlyTrue) {
  std::string data;
  ScriptedPeer peer(Join({SmtpGreeting(kPlainEhlo),
                          SmtpTransaction("me@example.org", "ann@example.com", data),
                          {Expect("QUIT\r\n")}}));
  std::string answer = Answer({{"Smtp", "127.0.0.1"},
                               {"Port", std::to_string(peer.port())},
                               {"Login", "joe"},
                               {"Pwd", "secret"},
                               {"Auth", "TRUE"}},
                              {{"From", "me@example.org"}, {"To", "ann@example.com"}});
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(answer, test::Entry(2, "Status", "success"));
  EXPECT_EQ(peer.Received().find("AUTH"), std::string::npos);
  EXPECT_EQ(HeaderOf(data, "From"), "me@example.org");
  // No receipt asked for, no priority given.
  EXPECT_EQ(HeaderOf(data, "Disposition-Notification-To"), "");
  EXPECT_EQ(HeaderOf(data, "X-Priority"), "");
}

TEST(MailSender, AuthTrueLogsInWithTheAccount) {
  std::string data;
  ScriptedPeer peer(Join(
      {SmtpGreeting(kPlainEhlo),
       {Expect("AUTH LOGIN\r\n"), Send("334 VXNlcm5hbWU6\r\n"), Expect("am9lQGV4YW1wbGUub3Jn\r\n"),
        Send("334 UGFzc3dvcmQ6\r\n"), Expect("c2VjcmV0\r\n"), Send("235 ok\r\n")},
       SmtpTransaction("joe@example.org", "ann@example.com", data),
       {Expect("QUIT\r\n")}}));
  test::Fields account = Account(peer);
  account.emplace_back("Auth", "true");
  EXPECT_EQ(Answer(account, {{"To", "ann@example.com"}}), test::Entry(2, "Status", "success"));
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(MailSender, EightBitNameAndSubjectAreEncodedWords) {
  std::string data;
  ScriptedPeer peer(Join({SmtpGreeting(kPlainEhlo),
                          SmtpTransaction("joe@example.org", "ann@example.com", data),
                          {Expect("QUIT\r\n")}}));
  // GB2312 for "Zhang San" and "hello".
  Answer(
      Account(peer),
      {{"Name", "\xD5\xC5\xC8\xFD"}, {"To", "ann@example.com"}, {"Subject", "\xC4\xE3\xBA\xC3"}});
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(HeaderOf(data, "From"), "=?gb2312?B?1cXI/Q==?=<joe@example.org>");
  EXPECT_EQ(HeaderOf(data, "Subject"), "=?gb2312?B?xOO6ww==?=");
}

TEST(MailSender, AttachmentsGoInTheirOrder) {
  test::TempDir dir;
  std::vector<std::string> paths;
  for (const char* name : {"first.txt", "second.bin", "third.dat"}) {
    paths.push_back(dir / name);
    std::ofstream(paths.back(), std::ios::binary) << "contents of " << name << "\n";
  }
  std::string data;
  ScriptedPeer peer(Join({SmtpGreeting(kPlainEhlo),
                          SmtpTransaction("joe@example.org", "ann@example.com", data),
                          {Expect("QUIT\r\n")}}));
  std::string answer = Answer(Account(peer), {{"To", "ann@example.com"}, {"Body", "see attached"}},
                              {{"Attachments", paths[0] + "," + paths[1] + "," + paths[2]}});
  ASSERT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(answer, test::Entry(2, "Status", "success"));
  EXPECT_NE(HeaderOf(data, "Content-Type").find("multipart/mixed"), std::string::npos);
  size_t first = data.find("first.txt"), second = data.find("second.bin"),
         third = data.find("third.dat");
  ASSERT_NE(third, std::string::npos) << test::Printable(data, 2000);
  EXPECT_LT(first, second);
  EXPECT_LT(second, third);
}

TEST(MailSender, TheThreeFailureAnswers) {
  EXPECT_EQ(Answer({{"Smtp", "127.0.0.1"}}, {{"Subject", "no recipient"}}),
            Failure("The parameter of request is not enough"));
  EXPECT_EQ(Answer({}, {{"To", "ann@example.com"}}),
            Failure("The parameter of request is not enough"));
  {
    ScriptedPeer peer({Send("421 closing\r\n")});
    EXPECT_EQ(Answer(Account(peer), {{"To", "ann@example.com"}}),
              Failure("Connect to smtp server error"));
  }
  {
    ScriptedPeer peer(Join(
        {SmtpGreeting(kPlainEhlo),
         {Expect("MAIL FROM:<joe@example.org>\r\n"), Send("250 OK\r\n"),
          Expect("RCPT TO:<ann@example.com>\r\n"), Send("550 unknown\r\n"), Expect("QUIT\r\n")}}));
    EXPECT_EQ(Answer(Account(peer), {{"To", "ann@example.com"}}), Failure("Send mail error"));
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // An attachment that cannot be read: nothing is submitted.
  ScriptedPeer peer(Join({SmtpGreeting(kPlainEhlo), {Expect("QUIT\r\n")}}));
  EXPECT_EQ(Answer(Account(peer), {{"To", "ann@example.com"}},
                   {{"Attachments", "/nonexistent/corvane/file.bin"}}),
            Failure("Send mail error"));
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

}  // namespace
}  // namespace corvane
