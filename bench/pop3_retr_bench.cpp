// RETR of the 10 MB test message from the private dovecot of the tests, over
// plain POP3 and over TLS on port 995: Pop3Client beside curl fetching the same
// message from the same server in the same run. Each figure is the median of
// whole sessions (connect, log in, RETR into a file, QUIT); curl's include
// starting its process. Goal: corvane/curl at or below 1.
//
// Starts the server with tests/servers/pop3-server when it is not running,
// and stops it again at the end in that case. Optional argument: rounds.
#include <cstdio>
#include <string>
#include <vector>

#include "bench_support.h"
#include "support/temp_dir.h"

namespace {

using corvane::bench::Clock;
using corvane::bench::Median;
using corvane::bench::Pop3Server;
using corvane::test::Pop3ServerEnv;

// One Pop3Client session fetching message 1 into `file`; its milliseconds,
// or a negative value when it failed.
double CorvaneRetr(const Pop3ServerEnv& env, bool tls, const std::string& file) {
  Pop3ServerEnv::Account account = env.Mailbox("BIG");
  auto started = Clock::now();
  corvane::Pop3Client client;
  client.SetPort(tls ? env.Port("POP3S_PORT") : env.Port("POP3_PORT"));
  client.SetSecurityEnabled(tls);
  client.SetCertValidation(2);
  int result = client.POP3Connect("127.0.0.1", account.user.c_str(), account.password.c_str());
  if (result == 0) result = client.RetrieveToFile(1, file.c_str());
  client.POP3Close();
  if (result != 0) {
    std::fprintf(stderr, "Pop3Client failed with code %d: %s", result, client.LastResponse());
    return -1;
  }
  return corvane::bench::MillisecondsSince(started);
}

// curl fetching message 1 into `file`; its milliseconds, or a negative value
// when it failed or is missing.
double CurlRetr(const Pop3ServerEnv& env, bool tls, const std::string& file) {
  Pop3ServerEnv::Account account = env.Mailbox("BIG");
  std::string url = std::string(tls ? "pop3s" : "pop3") +
                    "://127.0.0.1:" + env.Get(tls ? "POP3S_PORT" : "POP3_PORT") + "/1";
  std::string user = account.user + ":" + account.password;
  std::vector<std::string> args = {"-s", "-S", "-o", file, "-u", user};
  if (tls) args.insert(args.end(), {"--cacert", env.Get("CA_FILE")});
  args.push_back(url);
  return corvane::bench::TimeCurl(args);
}

// Times both clients `rounds` times, alternating which goes first, checks
// that they fetched the same bytes, and prints the medians. False on failure.
bool Compare(const Pop3ServerEnv& env, bool tls, int rounds, long size) {
  corvane::test::TempDir scratch;
  std::string ours = scratch / "corvane.eml", theirs = scratch / "curl.eml";
  std::vector<double> corvaneMs, curlMs;
  for (int round = 0; round < rounds; ++round) {
    double a, b;
    if (round % 2 == 0) {
      a = CorvaneRetr(env, tls, ours);
      b = CurlRetr(env, tls, theirs);
    } else {
      b = CurlRetr(env, tls, theirs);
      a = CorvaneRetr(env, tls, ours);
    }
    if (a < 0) return false;
    corvaneMs.push_back(a);
    if (b >= 0) curlMs.push_back(b);
  }
  std::string got = corvane::test::ReadFile(ours);
  if (static_cast<long>(got.size()) != size) {
    std::fprintf(stderr, "Pop3Client fetched %zu bytes, LIST says %ld\n", got.size(), size);
    return false;
  }
  double megabytes = size / 1e6;
  double corvane = Median(corvaneMs);
  std::printf("%-6s corvane Pop3Client  %8.1f ms  %7.1f MB/s\n", tls ? "tls" : "plain", corvane,
              megabytes / corvane * 1000);
  if (curlMs.empty()) {
    std::printf("%-6s curl                failed or missing (Debian package curl)\n", "");
    return true;
  }
  double curl = Median(curlMs);
  std::printf("%-6s curl                %8.1f ms  %7.1f MB/s\n", "", curl, megabytes / curl * 1000);
  std::printf("%-6s ratio corvane/curl  %8.2f  (same bytes: %s)\n", "", corvane / curl,
              got == corvane::test::ReadFile(theirs) ? "yes" : "NO");
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 7;
  Pop3Server server;
  const Pop3ServerEnv& env = server.env();
  if (!env.ok() || !server.Reachable()) {
    std::fprintf(stderr, "the test dovecot is not running (tests/servers/pop3-server start)\n");
    return 1;
  }
  // Pop3Client trusts the test CA through OpenSSL's default paths.
  setenv("SSL_CERT_FILE", env.Get("CA_FILE").c_str(), 1);

  long size = 0;
  {
    corvane::Pop3Client client;
    client.SetPort(env.Port("POP3_PORT"));
    Pop3ServerEnv::Account account = env.Mailbox("BIG");
    if (client.POP3Connect("127.0.0.1", account.user.c_str(), account.password.c_str()) != 0 ||
        client.GetMsgSize(1, &size) != 0) {
      std::fprintf(stderr, "could not size the test message\n");
      return 1;
    }
    client.POP3Close();
  }
  std::printf("RETR of one %ld-byte message from dovecot on 127.0.0.1, median of %d sessions\n",
              size, rounds);
  bool ok = Compare(env, false, rounds, size);
  ok = Compare(env, true, rounds, size) && ok;
  return ok ? 0 : 1;
}
