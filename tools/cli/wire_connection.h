#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace corvane::cli {

// One TCP connection to the gateway carrying framed requests and answers.
class WireConnection {
 public:
  WireConnection() = default;
  ~WireConnection();
  WireConnection(const WireConnection&) = delete;
  WireConnection& operator=(const WireConnection&) = delete;

  // False with `error` set when the gateway cannot be reached.
  bool Connect(const std::string& host, int port, std::string& error);
  bool SendFrame(std::string_view body, std::string& error);
  // The next answer's body; nothing with `error` set on a time-out, a closed
  // connection or a malformed frame header.
  std::optional<std::string> ReceiveFrame(int timeoutSeconds, std::string& error);

 private:
  bool ReceiveExactly(char* buffer, size_t size, int timeoutSeconds, std::string& error);

  int fd_ = -1;
};

}  // namespace corvane::cli
