// SendMail of a message with a 10 MB attachment through the test exim, run
// in-process the way the dispatcher runs it (compose, connect, AUTH
// CRAM-MD5, one transaction), in the clear ([Smtp] Tls=off) and over
// STARTTLS (Tls=auto), beside curl submitting the same composed message (the
// gateway's own composition, written to a file first) to the same server
// with the same authentication, and --ssl-reqd for TLS, in the same run.
// Figures are medians; curl's include its process start.
//
// Starts the test dovecot and exim (tests/servers) when they are not
// running. Optional argument: rounds.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "base/service_settings.h"
#include "bench_support.h"
#include "mail/mail_sender.h"
#include "stream/file_data_source.h"
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
  // The gateway trusts the test CA as a machine trusts a provider's; curl
  // is given it too.
  setenv("SSL_CERT_FILE", env.Get("CA_FILE").c_str(), 1);

  struct Mode {
    const char* name;
    corvane::SmtpTlsSetting setting;
    std::vector<std::string> curlOptions;
    std::vector<double> ours, curl;
  };
  Mode modes[] = {{"clear", corvane::SmtpTlsSetting::kOff, {}, {}, {}},
                  {"STARTTLS",
                   corvane::SmtpTlsSetting::kAuto,
                   {"--ssl-reqd", "--cacert", env.Get("CA_FILE")},
                   {},
                   {}}};
  for (Mode& mode : modes) {
    corvane::g_settings.smtpTls = mode.setting;
    for (int round = 0; round < rounds; ++round) {
      double ms = SendThroughGateway(request);
      if (ms < 0) {
        std::fprintf(stderr, "SendMail (%s) failed\n", mode.name);
        return 1;
      }
      mode.ours.push_back(ms);
      std::vector<std::string> arguments = {"-s",
                                            "-S",
                                            url,
                                            "--mail-from",
                                            "outboxuser@localhost",
                                            "--mail-rcpt",
                                            "inboxuser@localhost",
                                            "--user",
                                            user + ":" + password,
                                            "--login-options",
                                            "AUTH=CRAM-MD5",
                                            "-T",
                                            composedPath};
      arguments.insert(arguments.end(), mode.curlOptions.begin(), mode.curlOptions.end());
      mode.curl.push_back(TimeCurl(arguments));
    }
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
  for (const Mode& mode : modes) {
    std::printf("  %-8s corvane MailSender  %8.1f ms (compose and submit)\n", mode.name,
                Median(mode.ours));
    if (Median(mode.curl) < 0) {
      std::printf("  %-8s curl                failed or missing\n", mode.name);
    } else {
      std::printf("  %-8s curl                %8.1f ms (submit only)\n", mode.name,
                  Median(mode.curl));
      std::printf("  %-8s ratio corvane/curl  %8.2f\n", mode.name,
                  Median(mode.ours) / Median(mode.curl));
    }
  }
  return 0;
}
