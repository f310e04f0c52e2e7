#include "wire_connection.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "transport/counted_string.h"

namespace corvane::cli {

WireConnection::~WireConnection() {
  if (fd_ >= 0) close(fd_);
}

bool WireConnection::Connect(const std::string& host, int port, std::string& error) {
  addrinfo hints{};
  hints.ai_family = AF_UNSPEC;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* found = nullptr;
  int status = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
  if (status != 0) {
    error = "cannot resolve " + host + ": " + gai_strerror(status);
    return false;
  }
  for (addrinfo* a = found; a != nullptr; a = a->ai_next) {
    int fd = socket(a->ai_family, a->ai_socktype, a->ai_protocol);
    if (fd < 0) continue;
    if (connect(fd, a->ai_addr, a->ai_addrlen) == 0) {
      fd_ = fd;
      break;
    }
    error = std::strerror(errno);
    close(fd);
  }
  freeaddrinfo(found);
  if (fd_ < 0) {
    error = "cannot connect to " + host + ":" + std::to_string(port) + ": " + error;
    return false;
  }
  return true;
}

bool WireConnection::SendFrame(std::string_view body, std::string& error) {
  // A frame is the body as a counted string: digit count, length, bytes.
  std::string frame = CountedString::Encode(body);
  size_t sent = 0;
  while (sent < frame.size()) {
    ssize_t n = send(fd_, frame.data() + sent, frame.size() - sent, MSG_NOSIGNAL);
    if (n <= 0) {
      error = std::string("send failed: ") + std::strerror(errno);
      return false;
    }
    sent += static_cast<size_t>(n);
  }
  return true;
}

bool WireConnection::ReceiveExactly(char* buffer, size_t size, int timeoutSeconds,
                                    std::string& error) {
  size_t received = 0;
  while (received < size) {
    pollfd ready{fd_, POLLIN, 0};
    int polled = poll(&ready, 1, timeoutSeconds * 1000);
    if (polled == 0) {
      error = "no answer within " + std::to_string(timeoutSeconds) + " s";
      return false;
    }
    ssize_t n = polled < 0 ? -1 : recv(fd_, buffer + received, size - received, 0);
    if (n == 0) {
      error = "the gateway closed the connection";
      return false;
    }
    if (n < 0) {
      if (errno == EINTR) continue;
      error = std::string("receive failed: ") + std::strerror(errno);
      return false;
    }
    received += static_cast<size_t>(n);
  }
  return true;
}

std::optional<std::string> WireConnection::ReceiveFrame(int timeoutSeconds, std::string& error) {
  char digits[10] = {};
  if (!ReceiveExactly(digits, 1, timeoutSeconds, error)) return std::nullopt;
  if (digits[0] < '1' || digits[0] > '9') {
    error = "malformed answer frame";
    return std::nullopt;
  }
  size_t count = static_cast<size_t>(digits[0] - '0');
  if (!ReceiveExactly(digits + 1, count, timeoutSeconds, error)) return std::nullopt;
  size_t length = 0;
  for (size_t i = 1; i <= count; ++i) {
    if (digits[i] < '0' || digits[i] > '9') {
      error = "malformed answer frame";
      return std::nullopt;
    }
    length = length * 10 + static_cast<size_t>(digits[i] - '0');
  }
  if (length > (64u << 20)) {
    error = "answer frame too large";
    return std::nullopt;
  }
  std::string body(length, '\0');
  if (!ReceiveExactly(body.data(), length, timeoutSeconds, error)) return std::nullopt;
  return body;
}

}  // namespace corvane::cli
