// RETR of the 10 MB test message from the private dovecot of the tests, over
// plain POP3 and over TLS on port 995: Pop3Client beside curl fetching the same
// message from the same server in the same run. Each figure is the median of
// whole sessions (connect, log in, RETR into a file, QUIT); curl's include
// starting its process. Goal: corvane/curl at or below 1.
//
// Starts the server with tests/servers/pop3-server when it is not running,
// and stops it again at the end in that case. Optional argument: rounds.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "pop3/pop3_server_env.h"
#include "protocol/pop3_client.h"
#include "support/temp_dir.h"

extern char** environ;

namespace {

using Clock = std::chrono::steady_clock;
using corvane::test::Pop3ServerEnv;

const std::string kRoot = CORVANE_SERVERS_DIR "/pop3";

// The test dovecot, started for this run unless it already runs.
class Pop3Server {
 public:
  Pop3Server() : env_(kRoot + "/pop3.env") {
    if (env_.ok() && Reachable()) return;
    started_ = Run("start") == 0;
    env_ = Pop3ServerEnv(kRoot + "/pop3.env");
  }
  ~Pop3Server() {
    if (started_) Run("stop");
  }
  Pop3Server(const Pop3Server&) = delete;
  Pop3Server& operator=(const Pop3Server&) = delete;

  bool Reachable() const {
    corvane::Pop3Client probe;
    probe.SetPort(env_.Port("POP3_PORT"));
    Pop3ServerEnv::Account account = env_.Mailbox("EMPTY");
    bool up = probe.POP3Connect("127.0.0.1", account.user.c_str(), account.password.c_str()) == 0;
    probe.POP3Close();
    return up;
  }
  const Pop3ServerEnv& env() const { return env_; }

 private:
  static int Run(const char* command) {
    std::string line = "CORVANE_POP3_ROOT='" + kRoot + "' '" CORVANE_POP3_SERVER "' " + command;
    return std::system(line.c_str());
  }

  Pop3ServerEnv env_;
  bool started_ = false;
};

double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

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
  return std::chrono::duration<double, std::milli>(Clock::now() - started).count();
}

// curl fetching message 1 into `file`; its milliseconds, or a negative value
// when it failed or is missing.
double CurlRetr(const Pop3ServerEnv& env, bool tls, const std::string& file) {
  Pop3ServerEnv::Account account = env.Mailbox("BIG");
  std::string url = std::string(tls ? "pop3s" : "pop3") +
                    "://127.0.0.1:" + env.Get(tls ? "POP3S_PORT" : "POP3_PORT") + "/1";
  std::string user = account.user + ":" + account.password;
  std::string ca = env.Get("CA_FILE");
  std::vector<const char*> args = {"curl", "-s", "-S", "-o", file.c_str(), "-u", user.c_str()};
  if (tls) args.insert(args.end(), {"--cacert", ca.c_str()});
  args.push_back(url.c_str());
  args.push_back(nullptr);
  auto started = Clock::now();
  pid_t pid;
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char* const*>(args.data()),
                   environ) != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  double ms = std::chrono::duration<double, std::milli>(Clock::now() - started).count();
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
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
