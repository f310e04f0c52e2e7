#pragma once

// What the benchmarks against the private test dovecot share: the server
// (started for the run when it is not up), medians and timing curl.
#include <spawn.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
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

// A private test server (tests/servers/<name>-server), started for this run
// unless it already runs, and stopped again at the end in that case. Its
// env file is <servers>/<name>/<name>.env.
class TestServer {
 public:
  TestServer(std::string name, std::function<bool(const Pop3ServerEnv&)> reachable)
      : name_(std::move(name)), reachable_(std::move(reachable)), env_(EnvPath()) {
    if (Reachable()) return;
    started_ = Run("start") == 0;
    env_ = Pop3ServerEnv(EnvPath());
  }
  ~TestServer() {
    if (started_) Run("stop");
  }
  TestServer(const TestServer&) = delete;
  TestServer& operator=(const TestServer&) = delete;

  bool Reachable() const { return reachable_(env_); }
  const Pop3ServerEnv& env() const { return env_; }

 private:
  std::string EnvPath() const { return Root(name_) + "/" + name_ + ".env"; }
  static std::string Root(const std::string& name) { return CORVANE_SERVERS_DIR "/" + name; }
  int Run(const char* command) const {
    // The SMTP server delivers into the POP3 server's mailboxes.
    std::string line = "CORVANE_POP3_ROOT='" + Root("pop3") + "' CORVANE_SMTP_ROOT='" +
                       Root("smtp") + "' CORVANE_FTP_ROOT='" + Root("ftp") +
                       "' '" CORVANE_SOURCE_DIR "/tests/servers/" + name_ + "-server' " + command;
    return std::system(line.c_str());
  }

  std::string name_;
  std::function<bool(const Pop3ServerEnv&)> reachable_;
  Pop3ServerEnv env_;
  bool started_ = false;
};

// The test dovecot: up when a mailbox can be logged in to.
class Pop3Server : public TestServer {
 public:
  Pop3Server()
      : TestServer("pop3", [](const Pop3ServerEnv& env) {
          Pop3Client probe;
          probe.SetPort(env.Port("POP3_PORT"));
          Pop3ServerEnv::Account account = env.Mailbox("EMPTY");
          bool up =
              probe.POP3Connect("127.0.0.1", account.user.c_str(), account.password.c_str()) == 0;
          probe.POP3Close();
          return up;
        }) {}
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
