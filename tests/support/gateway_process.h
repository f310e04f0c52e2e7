#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

#include "support/temp_dir.h"

namespace corvane::test {

// A TCP socket and 127.0.0.1:port, for the two probes below.
inline int LoopbackSocket(int port, sockaddr_in& address) {
  address = {};
  address.sin_family = AF_INET;
  address.sin_port = htons(static_cast<uint16_t>(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  return socket(AF_INET, SOCK_STREAM, 0);
}

// A loopback port that was free a moment ago.
inline int FreePort() {
  sockaddr_in address;
  const int fd = LoopbackSocket(0, address);
  bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  socklen_t length = sizeof address;
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
  close(fd);
  return ntohs(address.sin_port);
}

// True once something accepts connections on 127.0.0.1:port (within 10 s).
inline bool WaitForListener(int port) {
  for (int attempt = 0; attempt < 200; ++attempt) {
    sockaddr_in address;
    const int fd = LoopbackSocket(port, address);
    const bool up = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    close(fd);
    if (up) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  return false;
}

// The real gateway executable copied into a temporary program directory (it
// keeps its files beside itself), started without arguments on a free port.
class GatewayProcess {
 public:
  explicit GatewayProcess(const std::string& extraConfig = "") : port_(FreePort()) {
    std::filesystem::copy_file(CORVANE_BINARY, dir_ / "corvane");
    std::filesystem::permissions(dir_ / "corvane", std::filesystem::perms::owner_all);
    WriteFile(dir_ / "config.ini",
              "[Application]\nport=" + std::to_string(port_) + "\n" + extraConfig);
  }
  ~GatewayProcess() {
    if (pid_ > 0 && kill(pid_, SIGKILL) == 0) waitpid(pid_, nullptr, 0);
  }

  // Starts the gateway and, unless told not to, waits until it listens.
  bool Start(bool waitUntilListening = true) {
    if ((pid_ = fork()) == 0) {
      prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that dies leaves no gateway behind
      // What it says on standard error, for the test to read (StandardError).
      const int errors = open((dir_ / "stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
      if (errors >= 0) dup2(errors, 2);
      const std::string path = dir_ / "corvane";
      execl(path.c_str(), path.c_str(), static_cast<char*>(nullptr));
      _exit(127);
    }
    return pid_ > 0 && (!waitUntilListening || WaitForListener(port_));
  }

  // Sends SIGTERM and waits up to `seconds` for the exit (see WaitForExit).
  int Stop(int seconds = 30) {
    kill(pid_, SIGTERM);
    return WaitForExit(seconds);
  }

  // Waits up to `seconds` for the gateway to exit on its own; the exit
  // status, 128 + the signal that ended it, or -1 when it is still running.
  int WaitForExit(int seconds) {
    for (int waited = 0; waited < seconds * 20; ++waited) {
      int status = 0;
      if (waitpid(pid_, &status, WNOHANG) == pid_) {
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return -1;
  }

  std::string StandardError() const { return ReadFile(dir_ / "stderr"); }
  std::string LogText() const {
    std::string text;
    std::error_code none;  // no log directory yet: no text
    for (const auto& entry : std::filesystem::directory_iterator(dir_ / "log", none))
      text += ReadFile(entry.path());
    return text;
  }

  int port() const { return port_; }
  pid_t pid() const { return pid_; }
  const TempDir& dir() const { return dir_; }

 private:
  TempDir dir_;
  int port_;
  pid_t pid_ = -1;
};

}  // namespace corvane::test
