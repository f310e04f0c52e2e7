// The gateway's memory under hostile clients and mail servers: its peak
// resident size during each case beside its size when idle, whether the
// request got its answer and how long that took. A probe: figures only.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "support/gateway_process.h"
#include "support/mail_request.h"
#include "support/pop3_script.h"
#include "support/scripted_peer.h"
#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

using Clock = std::chrono::steady_clock;

// VmRSS of `pid` in megabytes.
double ResidentMb(pid_t pid) {
  std::ifstream status("/proc/" + std::to_string(pid) + "/status");
  std::string line;
  while (std::getline(status, line)) {
    if (line.rfind("VmRSS:", 0) == 0) return std::stod(line.substr(6)) / 1024.0;
  }
  return 0;
}

// Samples the resident size every 10 ms while it lives; the peak.
class PeakSampler {
 public:
  explicit PeakSampler(pid_t pid)
      : thread_([this, pid] {
          while (!done_) {
            peak_ = std::max(peak_.load(), ResidentMb(pid));
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
          }
        }) {}
  ~PeakSampler() { Stop(); }
  double Stop() {
    done_ = true;
    if (thread_.joinable()) thread_.join();
    return peak_;
  }

 private:
  std::atomic<bool> done_{false};
  std::atomic<double> peak_{0};
  std::thread thread_;
};

// A client connection on the gateway's port.
class Client {
 public:
  explicit Client(int port) : fd_(::socket(AF_INET, SOCK_STREAM, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  }
  ~Client() { ::close(fd_); }
  // Sends for at most `seconds`, without blocking longer; the bytes taken.
  size_t Push(const std::string& bytes, double seconds) {
    size_t sent = 0;
    const auto end = Clock::now() + std::chrono::duration<double>(seconds);
    while (sent < bytes.size() && Clock::now() < end) {
      ssize_t n =
          ::send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        sent += static_cast<size_t>(n);
      } else if (errno == EAGAIN) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      } else {
        break;
      }
    }
    return sent;
  }
  // Whether any answer byte arrives within `seconds`.
  bool Answered(double seconds) {
    timeval wait{static_cast<time_t>(seconds), 0};
    ::setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &wait, sizeof wait);
    char byte;
    return ::recv(fd_, &byte, 1, 0) == 1;
  }

 private:
  int fd_;
};

std::string Framed(const std::string& plain) {
  return CountedString::Encode(wxCodec::Encode(plain));
}

std::string ListMailAt(uint16_t port) {
  return Framed(test::MailRequest({{"Command", "ListMail"},
                                   {"Pop3", "127.0.0.1"},
                                   {"Port", std::to_string(port)},
                                   {"Login", "joe"},
                                   {"Pwd", "pw"}},
                                  {}));
}

std::vector<test::Step> OneMessage(std::vector<test::Step> top, int count = 1) {
  return test::Join({test::Pop3Login(),
                     test::Pop3Listing(count, "1 a\r\n"),
                     {test::Expect("TOP 1 0\r\n")},
                     std::move(top),
                     {test::Expect("QUIT\r\n"), test::Send("+OK\r\n")}});
}

struct Case {
  const char* name;
  std::function<std::optional<std::vector<test::Step>>()> server;  // none: no mail server
  // What the client does once connected (a mail server's port, or 0).
  std::function<bool(Client&, uint16_t)> drive;
};

bool ListAndWait(Client& client, uint16_t port) {
  client.Push(ListMailAt(port), 5);
  return client.Answered(20);
}

}  // namespace
}  // namespace corvane

int main() {
  using namespace corvane;
  std::string manyFields = "+OK\r\nSubject: many\r\n";
  for (int i = 0; i < 300000; ++i) manyFields += "X-A: b\r\n";
  const std::string junk(200 * 1024 * 1024, 'x');
  std::string unread;
  for (int i = 0; i < 1000000; ++i) unread += Framed("Unread");

  std::vector<Case> cases = {
      {"client pushing 1,000,000 requests, reading nothing", [] { return std::nullopt; },
       [&](Client& client, uint16_t) {
         client.Push(unread, 10);
         return client.Answered(5);
       }},
      {"client pushing 200 MB during a slow ListMail",
       [] { return OneMessage({test::Repeat("+OK\r\n", "X-Slow: y\r\n", 200)}); },
       [&](Client& client, uint16_t port) {
         client.Push(ListMailAt(port), 5);
         client.Push(junk, 10);
         return client.Answered(20);
       }},
      {"TOP header without end (600 MB)",
       [] { return OneMessage({test::Repeat("+OK\r\nX-Long: ", std::string(64 * 1024, 'a'))}); },
       ListAndWait},
      {"UIDL without end (400 MB)",
       [] {
         std::vector<test::Step> steps = test::Pop3Login();
         steps.push_back(test::Expect("STAT\r\n"));
         steps.push_back(test::Send("+OK 5 9\r\n"));
         steps.push_back(test::Expect("UIDL\r\n"));
         steps.push_back(test::Repeat("+OK\r\n", "1 again-and-again-and-again\r\n"));
         return steps;
       },
       ListAndWait},
      {"header of 300,000 short fields",
       [&] { return OneMessage({test::Send(manyFields + ".\r\n")}); }, ListAndWait},
      {"STAT of 2147483647",
       [] { return OneMessage({test::Send("+OK\r\nSubject: counted\r\n.\r\n")}, 2147483647); },
       ListAndWait},
  };

  test::GatewayProcess gateway("pop3_timeout=60\noperation_timeout=3\n");
  if (!gateway.Start()) {
    std::fprintf(stderr, "the gateway did not start\n");
    return 1;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const double idle = ResidentMb(gateway.pid());
  std::printf("%-52s %10s %10s %9s %9s\n", "case", "peak MB", "idle MB", "answered", "seconds");
  for (Case& c : cases) {
    std::optional<std::vector<test::Step>> script = c.server();
    std::optional<test::ScriptedPeer> server;
    if (script) server.emplace(std::move(*script), 10000);
    PeakSampler sampler(gateway.pid());
    const auto start = Clock::now();
    bool answered = false;
    {
      Client client(gateway.port());
      answered = c.drive(client, server ? server->port() : 0);
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double peak = sampler.Stop();
    std::printf("%-52s %10.1f %10.1f %9s %9.1f\n", c.name, peak, idle, answered ? "yes" : "no",
                seconds);
    std::fflush(stdout);
  }
  return 0;
}
