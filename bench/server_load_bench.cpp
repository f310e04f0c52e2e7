// Load on the real gateway: 50 connections, each sending unknown-command pings
// one after the other as fast as the answers come. Prints requests per second
// and the p50/p99 latency of one request.
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "support/gateway_process.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"
#include "transport/wx_entry_log.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string PingFrame() {
  corvane::wxEntryLog log;
  log.SetRecording(true);
  log.AddEntryText(1, "sysREQUEST", "aRequest");
  log.AddEntryText(2, "Command", "Ping");
  log.AddEntryText(5, "0", std::nullopt);
  return corvane::CountedString::Encode(corvane::wxCodec::Encode(log.Serialize()));
}

// Reads one answer frame; false when the connection broke.
bool ReadFrame(int fd) {
  char header[16];
  size_t have = 0, need = 1;
  std::string body;
  while (have < need) {
    ssize_t n = recv(fd, header + have, need - have, 0);
    if (n <= 0) return false;
    have += static_cast<size_t>(n);
    if (have == 1) need = 1 + static_cast<size_t>(header[0] - '0');
  }
  size_t length = 0;
  for (size_t i = 1; i < need; ++i) length = length * 10 + static_cast<size_t>(header[i] - '0');
  body.resize(length);
  for (size_t got = 0; got < length;) {
    ssize_t n = recv(fd, body.data() + got, length - got, 0);
    if (n <= 0) return false;
    got += static_cast<size_t>(n);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  const int connections = 50;
  const int requestsEach = argc > 1 ? std::atoi(argv[1]) : 400;
  corvane::test::GatewayProcess gateway("log_level=warning\n");
  if (!gateway.Start()) {
    std::fprintf(stderr, "the gateway did not start\n");
    return 1;
  }
  // The start-up probe's connection counts until housekeeping reaps it.
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  const std::string frame = PingFrame();
  std::vector<std::vector<double>> latencies(connections);
  std::vector<std::thread> clients;
  auto started = Clock::now();
  for (int c = 0; c < connections; ++c) {
    clients.emplace_back([&, c] {
      int fd = socket(AF_INET, SOCK_STREAM, 0);
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(static_cast<uint16_t>(gateway.port()));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) return;
      for (int i = 0; i < requestsEach; ++i) {
        auto sent = Clock::now();
        if (send(fd, frame.data(), frame.size(), MSG_NOSIGNAL) <= 0 || !ReadFrame(fd)) break;
        latencies[c].push_back(
            std::chrono::duration<double, std::milli>(Clock::now() - sent).count());
      }
      close(fd);
    });
  }
  for (auto& client : clients) client.join();
  double seconds = std::chrono::duration<double>(Clock::now() - started).count();
  std::vector<double> all;
  for (auto& each : latencies) all.insert(all.end(), each.begin(), each.end());
  std::sort(all.begin(), all.end());
  if (all.empty()) {
    std::fprintf(stderr, "no request was answered\n");
    return 1;
  }
  auto percentile = [&](double p) { return all[static_cast<size_t>(p * (all.size() - 1))]; };
  std::printf("connections          %d\n", connections);
  std::printf("requests answered    %zu of %d\n", all.size(), connections * requestsEach);
  std::printf("requests per second  %.0f\n", all.size() / seconds);
  std::printf("latency p50          %.3f ms\n", percentile(0.50));
  std::printf("latency p99          %.3f ms\n", percentile(0.99));
  gateway.Stop();
  return all.size() == static_cast<size_t>(connections * requestsEach) ? 0 : 1;
}
