#pragma once

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <string>

namespace corvane::test {

// A datagram socket standing in for systemd's notification socket.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& path)
      : fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
    ::bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
    timeval wait{5, 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
  }
  ~NotifySocket() { ::close(fd_); }
  // The next message, empty when none came within 5 s.
  std::string Next() {
    char buffer[512];
    const ssize_t n = ::recv(fd_, buffer, sizeof buffer, 0);
    return n > 0 ? std::string(buffer, static_cast<size_t>(n)) : std::string();
  }

 private:
  int fd_;
};

}  // namespace corvane::test
