#pragma once

// A mail server far away, in one process: a TCP relay on 127.0.0.1 that
// holds every chunk, each way, for a fixed one-way delay before passing it
// on, and opens its connection to the server only after a round trip, as a
// TCP handshake takes. Benchmarks put it between the gateway (or curl) and a
// test server to measure what round trips cost.
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace corvane::bench {

class LatencyProxy {
 public:
  // `hidePipelining`: the server's CAPA word PIPELINING reaches the client
  // as PIPELINOFF, so the client runs its sequential session.
  LatencyProxy(uint16_t targetPort, std::chrono::milliseconds oneWay, bool hidePipelining = false)
      : target_(targetPort), oneWay_(oneWay), hide_(hidePipelining) {
    listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t size = sizeof address;
    ::bind(listener_, reinterpret_cast<sockaddr*>(&address), size);
    ::listen(listener_, 1024);
    ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &size);
    port_ = ntohs(address.sin_port);
    acceptor_ = std::thread([this] { AcceptLoop(); });
  }
  ~LatencyProxy() {
    stopping_ = true;
    ::shutdown(listener_, SHUT_RDWR);
    acceptor_.join();
    ::close(listener_);
    std::lock_guard lock(mutex_);
    for (std::thread& relay : relays_) relay.join();
  }
  LatencyProxy(const LatencyProxy&) = delete;
  LatencyProxy& operator=(const LatencyProxy&) = delete;

  uint16_t port() const { return port_; }

 private:
  using Clock = std::chrono::steady_clock;
  // Both ends of one relayed connection, closed when both directions end.
  struct Link {
    int client = -1, server = -1;
    ~Link() {
      if (client >= 0) ::close(client);
      if (server >= 0) ::close(server);
    }
  };

  void AcceptLoop() {
    for (;;) {
      int client = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0) {
        if (stopping_) return;
        continue;
      }
      auto link = std::make_shared<Link>();
      link->client = client;
      std::lock_guard lock(mutex_);
      relays_.emplace_back([this, link] { Connect(link); });
    }
  }

  void Connect(std::shared_ptr<Link> link) {
    std::this_thread::sleep_for(2 * oneWay_);  // the handshake's round trip
    link->server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{AF_INET, htons(target_), {htonl(INADDR_LOOPBACK)}, {}};
    if (::connect(link->server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
    std::thread up([this, link] { Relay(link->client, link->server, false); });
    Relay(link->server, link->client, hide_);
    up.join();
  }

  // Copies `from` to `to`, each chunk `oneWay_` after it came; the end of
  // the stream follows the last chunk.
  void Relay(int from, int to, bool hide) {
    struct Chunk {
      Clock::time_point due;
      std::string bytes;  // empty: the end of the stream
    };
    std::deque<Chunk> pending;
    bool ended = false;
    while (!ended || !pending.empty()) {
      int wait = -1;
      if (!pending.empty()) {
        auto left =
            std::chrono::ceil<std::chrono::milliseconds>(pending.front().due - Clock::now());
        wait = static_cast<int>(std::max<int64_t>(left.count(), 0));
      }
      pollfd entry{from, static_cast<short>(ended ? 0 : POLLIN), 0};
      if (::poll(&entry, 1, wait) > 0 && !ended) {
        char buffer[65536];
        ssize_t n = ::recv(from, buffer, sizeof buffer, 0);
        std::string bytes(buffer, static_cast<size_t>(std::max<ssize_t>(n, 0)));
        if (hide) Hide(bytes);
        ended = n <= 0;
        pending.push_back({Clock::now() + oneWay_, std::move(bytes)});
      }
      while (!pending.empty() && pending.front().due <= Clock::now()) {
        const std::string& bytes = pending.front().bytes;
        if (bytes.empty()) {
          ::shutdown(to, SHUT_WR);
        } else if (::send(to, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
          ::shutdown(from, SHUT_RD);
        }
        pending.pop_front();
      }
    }
  }

  static void Hide(std::string& bytes) {
    for (size_t at = 0; (at = bytes.find("PIPELINING", at)) != std::string::npos; at += 10) {
      bytes.replace(at, 10, "PIPELINOFF");
    }
  }

  uint16_t target_, port_ = 0;
  std::chrono::milliseconds oneWay_;
  bool hide_;
  int listener_;
  std::atomic<bool> stopping_{false};
  std::thread acceptor_;
  std::mutex mutex_;
  std::vector<std::thread> relays_;
};

}  // namespace corvane::bench
