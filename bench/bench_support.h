#pragma once

// What the benchmarks against the private test dovecot share: the server
// (started for the run when it is not up), medians and timing curl.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

#include "pop3/pop3_server_env.h"
#include "protocol/pop3_client.h"

extern char** environ;

namespace corvane::bench {

using Clock = std::chrono::steady_clock;
using test::Pop3ServerEnv;

inline double MillisecondsSince(Clock::time_point started) {
  return std::chrono::duration<double, std::milli>(Clock::now() - started).count();
}

inline double Median(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return values[values.size() / 2];
}

// The test dovecot, started for this run unless it already runs, and
// stopped again at the end in that case.
class Pop3Server {
 public:
  Pop3Server() : env_(Root() + "/pop3.env") {
    if (env_.ok() && Reachable()) return;
    started_ = Run("start") == 0;
    env_ = Pop3ServerEnv(Root() + "/pop3.env");
  }
  ~Pop3Server() {
    if (started_) Run("stop");
  }
  Pop3Server(const Pop3Server&) = delete;
  Pop3Server& operator=(const Pop3Server&) = delete;

  bool Reachable() const {
    Pop3Client probe;
    probe.SetPort(env_.Port("POP3_PORT"));
    Pop3ServerEnv::Account account = env_.Mailbox("EMPTY");
    bool up = probe.POP3Connect("127.0.0.1", account.user.c_str(), account.password.c_str()) == 0;
    probe.POP3Close();
    return up;
  }
  const Pop3ServerEnv& env() const { return env_; }

 private:
  static std::string Root() { return CORVANE_SERVERS_DIR "/pop3"; }
  static int Run(const char* command) {
    std::string line = "CORVANE_POP3_ROOT='" + Root() + "' '" CORVANE_POP3_SERVER "' " + command;
    return std::system(line.c_str());
  }

  Pop3ServerEnv env_;
  bool started_ = false;
};

// Runs curl with `arguments`; its milliseconds (process start included), or
// a negative value when it failed or is missing.
inline double TimeCurl(const std::vector<std::string>& arguments) {
  std::vector<const char*> argv = {"curl"};
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  argv.push_back(nullptr);
  auto started = Clock::now();
  pid_t pid;
  if (posix_spawnp(&pid, "curl", nullptr, nullptr, const_cast<char* const*>(argv.data()),
                   environ) != 0) {
    return -1;
  }
  int status = 0;
  waitpid(pid, &status, 0);
  double ms = MillisecondsSince(started);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? ms : -1;
}

}  // namespace corvane::bench
