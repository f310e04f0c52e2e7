// ListMail of the 1000-message mailbox (cold: every header fetched; warm: the
// list cache answers) and ReceiveMail of the 10 MB message (cold: RETR into
// the message cache, parse and render; cached: login and the cache file),
// run in-process the way the dispatcher runs them, beside curl doing the same
// POP3 work against the same server in the same run: one curl process on one
// connection (UIDL and 1000 "TOP n 0" chained with --next; UIDL alone; RETR
// into a file). curl leaves STAT out: it reads the answer of any request of
// its own as a multi-line one and would wait for a "." that never comes.
// Figures are medians.
//
// Starts the test dovecot with tests/servers/pop3-server when it is not
// running. Optional argument: rounds.
#include <cstdio>
#include <string>
#include <vector>

#include "mail/mail_receiver.h"
#include "mail_listing.h"

namespace {

using corvane::bench::Clock;
using corvane::bench::CurlConfig;
using corvane::bench::Gateway;
using corvane::bench::List;
using corvane::bench::Median;
using corvane::bench::MillisecondsSince;
using corvane::bench::TimeCurl;
using corvane::test::Pop3ServerEnv;

// One ReceiveMail; its milliseconds, negative when it failed.
double Receive(Gateway& gateway, const std::string& request, size_t& answerSize) {
  auto started = Clock::now();
  corvane::RequestFields fields(request.data(), request.size());
  corvane::wxEntryLog answer;
  answer.SetRecording(true);
  corvane::MailReceiver receiver(fields, gateway.registry);
  if (receiver.Fetch(answer, 20) != 0) return -1;
  receiver.Render();
  receiver.ConvertHtmlBody();
  receiver.SaveAttachments();
  receiver.ApplyDefaultBody(std::nullopt);
  receiver.WriteAnswer(answer);
  receiver.RecordKnownUid();
  answerSize = answer.Serialize().size();
  return MillisecondsSince(started);
}

void Print(const char* what, double ours, double curl) {
  corvane::bench::PrintBeside(what, ours, "curl", curl);
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 5;
  corvane::bench::Pop3Server server;
  const Pop3ServerEnv& env = server.env();
  if (!env.ok() || !server.Reachable()) {
    std::fprintf(stderr, "the test dovecot is not running (tests/servers/pop3-server start)\n");
    return 1;
  }
  corvane::test::TempDir scratch;
  Pop3ServerEnv::Account bulk = env.Mailbox("BULK");
  Pop3ServerEnv::Account big = env.Mailbox("BIG");
  const unsigned port = env.Port("POP3_PORT");
  std::string listRequest = corvane::bench::MailboxRequest(port, bulk);
  std::string coldConfig =
      CurlConfig(port, bulk, corvane::bench::ColdListingRequests(1000), scratch / "cold.cfg");
  std::string warmConfig = CurlConfig(port, bulk, {"UIDL"}, scratch / "warm.cfg");

  std::vector<double> cold, warm, curlCold, curlWarm;
  for (int round = 0; round < rounds; ++round) {
    Gateway gateway;
    size_t coldRows = 0, warmRows = 0;
    cold.push_back(List(gateway, listRequest, coldRows));
    warm.push_back(List(gateway, listRequest, warmRows));
    if (coldRows != 1000 || warmRows != 1000) {
      std::fprintf(stderr, "ListMail gave %zu and %zu rows, not 1000\n", coldRows, warmRows);
      return 1;
    }
    curlCold.push_back(TimeCurl({"-s", "-S", "-K", coldConfig}));
    curlWarm.push_back(TimeCurl({"-s", "-S", "-K", warmConfig}));
  }
  std::printf("ListMail of %s's 1000 messages, median of %d rounds\n", bulk.user.c_str(), rounds);
  Print("  cold (UIDL, 1000 TOP; ours +STAT)", Median(cold), Median(curlCold));
  Print("  warm (UIDL; ours +STAT, cache)", Median(warm), Median(curlWarm));

  // The big message's id, as a client would have it from a listing.
  std::string id;
  {
    corvane::Pop3Client client;
    client.SetPort(env.Port("POP3_PORT"));
    if (client.POP3Connect("127.0.0.1", big.user.c_str(), big.password.c_str()) == 0 &&
        client.GetUIDL(1) == 0 && client.GetUID(1) != nullptr) {
      id = client.GetUID(1);
    }
    client.POP3Close();
  }
  std::string receiveRequest = corvane::bench::MailboxRequest(port, big, {{"ID", id}});
  std::string url = "pop3://127.0.0.1:" + env.Get("POP3_PORT") + "/1";
  std::vector<double> fetched, cached, curlRetr;
  size_t answerSize = 0;
  for (int round = 0; round < rounds; ++round) {
    Gateway gateway;
    double first = Receive(gateway, receiveRequest, answerSize);
    double again = Receive(gateway, receiveRequest, answerSize);
    if (first < 0 || again < 0 || answerSize < 100) {
      std::fprintf(stderr, "ReceiveMail of %s failed\n", id.c_str());
      return 1;
    }
    fetched.push_back(first);
    cached.push_back(again);
    curlRetr.push_back(TimeCurl(
        {"-s", "-S", "-o", scratch / "big.eml", "-u", big.user + ":" + big.password, url}));
  }
  std::printf("ReceiveMail of the 10 MB message, median of %d rounds\n", rounds);
  Print("  cold (RETR, parse, render)", Median(fetched), Median(curlRetr));
  Print("  cached (login, cache file)", Median(cached), Median(curlRetr));
  return 0;
}
