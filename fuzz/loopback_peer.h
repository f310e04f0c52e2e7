#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <thread>

namespace corvane::fuzz {

// A server on 127.0.0.1 that answers the next connection with the fuzz bytes
// and then ends its side of the stream: the client under test reads its
// greeting and replies from them and meets the end of the stream right
// after. What the client sends is read and dropped, so its commands never
// block, and the connection is reset once the client has closed it, so that
// thousands of runs leave no ports waiting in TIME_WAIT.
class LoopbackPeer {
 public:
  LoopbackPeer() {
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    if (listener_ < 0 || bind(listener_, reinterpret_cast<sockaddr*>(&address), size) != 0 ||
        listen(listener_, 16) != 0 ||
        getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
      std::perror("loopback peer");
      std::abort();
    }
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackPeer() { close(listener_); }
  LoopbackPeer(const LoopbackPeer&) = delete;
  LoopbackPeer& operator=(const LoopbackPeer&) = delete;

  unsigned port() const { return port_; }

  // Serves `bytes` to the next connection on a thread of its own; Finish
  // waits for it. A client that never connects leaves the peer waiting only
  // as long as kWaitMs.
  void Serve(std::string_view bytes) {
    thread_ = std::thread([this, data = std::string(bytes)] { Play(data); });
  }
  void Finish() {
    if (thread_.joinable()) thread_.join();
  }

 private:
  static constexpr int kWaitMs = 5000;

  void Play(const std::string& data) {
    pollfd waiting{listener_, POLLIN, 0};
    if (poll(&waiting, 1, kWaitMs) != 1) return;
    int connection = accept(listener_, nullptr, nullptr);
    if (connection < 0) return;
    for (size_t sent = 0; sent < data.size();) {
      ssize_t n = send(connection, data.data() + sent, data.size() - sent, MSG_NOSIGNAL);
      if (n <= 0) break;
      sent += static_cast<size_t>(n);
    }
    shutdown(connection, SHUT_WR);
    char sink[4096];
    pollfd reading{connection, POLLIN, 0};
    while (poll(&reading, 1, kWaitMs) == 1 && recv(connection, sink, sizeof sink, 0) > 0) {
    }
    linger reset{1, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
    close(connection);
  }

  int listener_ = -1;
  unsigned port_ = 0;
  std::thread thread_;
};

}  // namespace corvane::fuzz
