// SendMail of a message with a 10 MB attachment through the test exim, run
// in-process the way the dispatcher runs it (compose, connect, AUTH
// CRAM-MD5, one transaction), beside curl submitting the same composed
// message (the gateway's own composition, written to a file first) to the
// same server with the same authentication in the same run. Figures are
// medians; curl's include its process start.
//
// Starts the test dovecot and exim (tests/servers) when they are not
// running. Optional argument: rounds.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "bench_support.h"
#include "mail/mail_sender.h"
#include "protocol/file_data_source.h"
#include "support/mail_request.h"
#include "support/temp_dir.h"

namespace {

using corvane::bench::Clock;
using corvane::bench::Median;
using corvane::bench::MillisecondsSince;
using corvane::bench::TimeCurl;
using corvane::test::Pop3ServerEnv;

class SmtpServer : public corvane::bench::TestServer {
 public:
  SmtpServer()
      : TestServer("smtp", [](const Pop3ServerEnv& env) {
          corvane::SmtpClient probe;
          probe.SetPort(env.Port("SMTP_PORT"));
          bool up = env.Port("SMTP_PORT") != 0 && probe.SMTPConnect("127.0.0.1", "localhost") == 0;
          probe.SMTPClose();
          return up;
        }) {}
};

// One SendMail; its milliseconds, negative when it failed.
double SendThroughGateway(const std::string& request) {
  auto started = Clock::now();
  corvane::RequestFields fields(request.data(), request.size());
  corvane::wxEntryLog answer;
  answer.SetRecording(true);
  corvane::MailSender sender(fields);
  sender.Send(answer);
  double ms = MillisecondsSince(started);
  return answer.Serialize().find("success") != std::string::npos ? ms : -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  corvane::bench::Pop3Server pop3;
  SmtpServer smtp;
  const Pop3ServerEnv& env = smtp.env();
  if (!pop3.Reachable() || !smtp.Reachable()) {
    std::fprintf(stderr, "the test servers are not running (tests/servers/*-server start)\n");
    return 1;
  }
  corvane::test::TempDir scratch;
  std::string attachment = scratch / "payload.bin";
  {
    std::string bytes(10 * 1024 * 1024, '\0');
    std::mt19937 random(11);
    for (char& c : bytes) c = static_cast<char>(random());
    std::ofstream(attachment, std::ios::binary) << bytes;
  }
  const std::string user = env.Get("SMTP_USER"), password = env.Get("SMTP_PASS");
  std::string request = corvane::test::MailRequest({{"Smtp", "127.0.0.1"},
                                                    {"SmtpPort", env.Get("SMTP_PORT")},
                                                    {"Login", user},
                                                    {"Pwd", password},
                                                    {"Auth", "true"}},
                                                   {{"From", "outboxuser@localhost"},
                                                    {"To", "inboxuser@localhost"},
                                                    {"Subject", "bench"},
                                                    {"Body", "ten megabytes attached"}},
                                                   {{"Attachments", attachment}});

  // The same message as the gateway composes it, for curl to submit.
  std::string composedPath = scratch / "composed.eml";
  {
    corvane::MailMessage message;
    message.AppendHeader("inboxuser@localhost", corvane::kFieldTo);
    message.AppendHeader("outboxuser@localhost", corvane::kFieldFrom);
    message.AppendHeader("bench", corvane::kFieldSubject);
    message.SetCharset("gb2312");
    message.SetTextBody("ten megabytes attached");
    message.AddAttachmentFile(attachment);
    corvane::FileDataSource composed(composedPath);
    if (message.Write(composed) != 0) {
      std::fprintf(stderr, "composing the message failed\n");
      return 1;
    }
  }
  const std::string url = "smtp://127.0.0.1:" + env.Get("SMTP_PORT");

  std::vector<double> ours, curl;
  for (int round = 0; round < rounds; ++round) {
    double ms = SendThroughGateway(request);
    if (ms < 0) {
      std::fprintf(stderr, "SendMail failed\n");
      return 1;
    }
    ours.push_back(ms);
    curl.push_back(TimeCurl({"-s", "-S", url, "--mail-from", "outboxuser@localhost", "--mail-rcpt",
                             "inboxuser@localhost", "--user", user + ":" + password,
                             "--login-options", "AUTH=CRAM-MD5", "-T", composedPath}));
  }
  // The copies delivered are of no further use; the mailbox stays small.
  std::string inbox = env.Get("MAIL_ROOT") + "/inboxuser/Maildir/";
  for (const char* sub : {"new", "cur"}) {
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(inbox + sub, error)) {
      if (entry.file_size(error) > 10 * 1024 * 1024) std::filesystem::remove(entry.path(), error);
    }
  }
  std::ifstream composed(composedPath, std::ios::binary | std::ios::ate);
  std::printf("SendMail of a %lld-byte message (10 MB attachment), AUTH CRAM-MD5, median of %d\n",
              static_cast<long long>(composed.tellg()), rounds);
  std::printf("  corvane MailSender  %8.1f ms (compose and submit)\n", Median(ours));
  if (Median(curl) < 0) {
    std::printf("  curl                failed or missing\n");
  } else {
    std::printf("  curl                %8.1f ms (submit only)\n", Median(curl));
    std::printf("  ratio corvane/curl  %8.2f\n", Median(ours) / Median(curl));
  }
  return 0;
}
