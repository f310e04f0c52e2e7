#include "transport/sync_socket_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "transport/counted_string.h"
#include "transport/wx_codec.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;
using Strings = std::vector<std::string>;

// A request frame: the encoded bytes as one counted string.
std::string Request(std::string_view plain) {
  return CountedString::Encode(wxCodec::Encode(plain));
}
std::string Pattern(size_t n) {
  std::string text(n, '\0');
  for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

// Polls a condition the server reaches on its own threads; the limit only
// matters when the test fails.
bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 20s) {
  for (auto deadline = std::chrono::steady_clock::now() + limit; !condition();) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// A client on 127.0.0.1 (or `host`) whose reads give up after 10 s, so a
// server that fails to answer fails the test instead of hanging it. A small
// `receiveBuffer` keeps what the kernel holds for a client that does not read
// small.
struct Client {
  explicit Client(uint16_t port, int receiveBuffer = 0, const char* host = "127.0.0.1") {
    sockaddr_in6 v6{AF_INET6, htons(port), 0, {}, 0};
    sockaddr_in v4{AF_INET, htons(port), {}, {}};
    const bool six = inet_pton(AF_INET6, host, &v6.sin6_addr) == 1;
    if (!six) inet_pton(AF_INET, host, &v4.sin_addr);
    fd = ::socket(six ? AF_INET6 : AF_INET, SOCK_STREAM, 0);
    if (receiveBuffer > 0) ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof(int));
    timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    int on = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    connected = six ? ::connect(fd, reinterpret_cast<sockaddr*>(&v6), sizeof v6) == 0
                    : ::connect(fd, reinterpret_cast<sockaddr*>(&v4), sizeof v4) == 0;
  }
  ~Client() { ::close(fd); }
  Client(const Client&) = delete;
  void operator=(const Client&) = delete;

  bool Send(std::string_view bytes) {
    return ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == ssize_t(bytes.size());
  }
  // Exactly `n` bytes, or "<none>" when the connection ended first.
  std::string Read(size_t n) {
    std::string bytes(n, '\0');
    return ::recv(fd, bytes.data(), n, MSG_WAITALL) == ssize_t(n) ? bytes : "<none>";
  }
  // One whole answer frame as it came over the wire.
  std::string ReadFrame() {
    std::string digit = Read(1);
    if (digit[0] < '1' || digit[0] > '9') return "<none>";
    std::string length = Read(static_cast<size_t>(digit[0] - '0'));
    if (length.find_first_not_of("0123456789") != std::string::npos) return "<none>";
    std::string body = Read(std::stoul(length));
    return body == "<none>" ? body : digit + length + body;
  }
  std::string ReadAnswer() {
    std::string frame = ReadFrame();
    return frame == "<none>" ? frame : wxCodec::Decode(frame.substr(1 + (frame[0] - '0')));
  }
  std::string RoundTrip(std::string_view plain) {
    return Send(Request(plain)) ? ReadAnswer() : "<send failed>";
  }
  // True when the server closed the connection (end of stream or reset)
  // before the read time-out; stray answer bytes are skipped.
  bool ClosedByPeer() {
    for (char byte;;) {
      ssize_t got = ::recv(fd, &byte, 1, 0);
      if (got <= 0) return got == 0 || errno == ECONNRESET;
    }
  }

  int fd = -1;
  bool connected = false;
};

// Answers "re:" plus the request, except: "none" (no answer), "raw:X" (exactly
// X), "size:N" (N pattern bytes) and "block" (waits until the test releases it).
class SyncSocketServerTest : public ::testing::Test {
 protected:
  std::string Dispatch(std::string_view request) {
    std::unique_lock lock(mutex_);
    requests_.emplace_back(request);
    if (request == "none") return {};
    if (request.starts_with("raw:")) return std::string(request.substr(4));
    if (request.starts_with("size:")) return Pattern(std::stoul(std::string(request.substr(5))));
    if (request != "block") return "re:" + std::string(request);
    ++blocked_;
    changed_.notify_all();
    changed_.wait_for(lock, 20s, [this] { return released_; });
    return "done";
  }
  void StartServer() {
    server_.SetPort(0);
    ASSERT_TRUE(server_.Start());
    ASSERT_NE(server_.BoundPort(), 0);
  }
  std::unique_ptr<Client> Connect(int receiveBuffer = 0) {
    auto client = std::make_unique<Client>(server_.BoundPort(), receiveBuffer);
    EXPECT_TRUE(client->connected);
    return client;
  }
  // What was dispatched so far; `take` starts the record afresh.
  Strings Requests(bool take = false) {
    std::lock_guard lock(mutex_);
    return take ? std::exchange(requests_, {}) : requests_;
  }
  void Release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }
  bool WaitUntilBlocked(int count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 10s, [&] { return blocked_ >= count; });
  }
  bool WorkersAre(size_t n) {
    return WaitFor([&] { return server_.WorkerCount() == n; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  Strings requests_;
  int blocked_ = 0;
  bool released_ = false;
  CSyncSocketServer server_{[this](std::string_view request) { return Dispatch(request); }};
};

// Requests are found whatever surrounds them; answers are framed with their
// encoded length, whole and in order.
TEST_F(SyncSocketServerTest, FramesAreFoundWhateverSurroundsThemAndAnswersKeepOrder) {
  // "0", a non-digit, CR LF, a zero length and 9 zero digits drop only
  // themselves; with 20481, one too many, the header goes and its "body" is
  // read as headers.
  const std::pair<std::string, Strings> cases[] = {
      {Request("1") + Request("2") + Request("end"), {"1", "2", "end"}},
      {"0x\r\n10" + std::string("9000000000") + Request("end"), {"end"}},
      {"520481" + Request("end"), {"end"}},
      {"115" + Request("end"), {"", "end"}},  // one body byte: no request, answered as empty
      {Request("rapid" + Pattern(20475)) + Request("end"), {Pattern(20475), "end"}},
      {Request("none") + Request("end"), {"none", "end"}}};
  StartServer();
  auto client = Connect();
  for (const auto& [bytes, requests] : cases) {
    ASSERT_TRUE(client->Send(bytes));
    for (std::string answer; answer != "re:end" && answer != "<none>";) {
      answer = client->ReadAnswer();
    }
    EXPECT_EQ(Requests(true), requests);
  }
  // A request arriving a byte at a time is answered once, when whole.
  for (char byte : Request("split")) {
    ASSERT_TRUE(client->Send(std::string_view(&byte, 1)));
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_EQ(client->RoundTrip("next"), "re:split");
  EXPECT_EQ(client->ReadAnswer(), "re:next");
  EXPECT_EQ(Requests(), (Strings{"split", "next"}));
  // "rapid" answers keep their length when encoded: 7 bytes on the wire;
  // 12340 plain bytes pad to 12344, plus the pad count byte.
  ASSERT_TRUE(client->Send(Request("raw:rapidab") + Request("size:12340")));
  EXPECT_EQ(client->ReadFrame(), "17rapidbc");
  EXPECT_EQ(client->ReadFrame(), "512345" + wxCodec::Encode(Pattern(12340)));
  // Larger than one coalesced send, then a small answer queued behind it.
  ASSERT_TRUE(client->Send(Request("size:100000") + Request("small")));
  EXPECT_EQ(client->ReadAnswer(), Pattern(100000));
  EXPECT_EQ(client->ReadAnswer(), "re:small");
}

// A connection beyond the limit is closed unserved; clients that leave free
// their place, even mid-frame, but one whose request is still being handled
// only once it has returned.
TEST_F(SyncSocketServerTest, ConnectionsBeyondTheLimitAreClosedUntilOneLeaves) {
  server_.SetMaxWorkers(2);
  StartServer();
  {
    auto partial = Connect();
    ASSERT_TRUE(partial->Send("3100" + Pattern(40)));
    ASSERT_TRUE(WorkersAre(1));
  }
  EXPECT_TRUE(WorkersAre(0));
  auto served = Connect(), held = Connect();
  ASSERT_EQ(served->RoundTrip("hello"), "re:hello");
  ASSERT_TRUE(held->Send(Request("block")));
  ASSERT_TRUE(WaitUntilBlocked(1));
  ASSERT_TRUE(WorkersAre(2));  // a worker answers a moment before it is filed
  auto refused = Connect();
  refused->Send(Request("refused"));
  EXPECT_TRUE(refused->ClosedByPeer());
  served.reset();
  held.reset();
  std::unique_ptr<Client> fresh;
  EXPECT_TRUE(WaitFor([&] { return (fresh = Connect())->RoundTrip("fresh") == "re:fresh"; }));
  ASSERT_TRUE(WorkersAre(1));  // the held one is being reaped
  auto over = Connect();
  over->Send(Request("over"));
  EXPECT_TRUE(over->ClosedByPeer());
  Release();
  EXPECT_TRUE(WaitFor([this] { return Connect()->RoundTrip("after") == "re:after"; }));
  EXPECT_EQ(Requests(), (Strings{"hello", "block", "fresh", "after"}));
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() <= 2; }));  // the leavers reaped
}

// Neither a client that sends faster than it is served nor one that does not
// read its answers makes the server hold more than its queues and sockets.
TEST_F(SyncSocketServerTest, QueuesStayBoundedWhateverTheClientDoes) {
  StartServer();
  auto pusher = Connect();
  ASSERT_TRUE(pusher->Send(Request("block")));
  ASSERT_TRUE(WaitUntilBlocked(1));
  const std::string junk(1024 * 1024, 'x');
  size_t pushed = 0;  // until the sockets are full and stay full
  auto push = [&](std::string_view bytes) {
    ssize_t sent = ::send(pusher->fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    pushed += sent > 0 ? static_cast<size_t>(sent) : 0;
    return sent > 0;
  };
  while (pushed < 64 * junk.size() && (push(junk) || WaitFor([&] { return push("x"); }, 500ms))) {
  }
  EXPECT_LT(pushed, 32 * junk.size());  // the request queue and the two sockets, not 64 MB
  Release();
  pusher.reset();
  ASSERT_EQ(Requests(true), Strings{"block"});

  auto reader = Connect(16 * 1024);
  std::string requests;
  for (int i = 0; i < 150; ++i) requests += Request("size:100000");
  ASSERT_TRUE(reader->Send(requests));
  // 15 MB of answers: only what the answer queue and the sockets hold is
  // made, then nothing until the client reads; settled once the count stays
  // put for half a second.
  size_t served = 0;
  WaitFor([&] {
    size_t before = Requests().size();
    std::this_thread::sleep_for(500ms);
    return (served = Requests().size()) == before;
  });
  EXPECT_LT(served, 100u);
  for (int i = 0; i < 150; ++i) ASSERT_EQ(reader->ReadAnswer(), Pattern(100000)) << i;
  EXPECT_EQ(Requests().size(), 150u);
}

// Idle connections cost no processor time, with or without a limit (a thread
// spinning on a deadline in the past would take all of it); the limit reaches
// connections already open and closes only those silent for longer.
TEST_F(SyncSocketServerTest, IdleLimitClosesSilentConnectionsOnlyAndIdlingIsFree) {
  auto cpu = [] {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
  };
  StartServer();
  auto silent = Connect();
  EXPECT_EQ(silent->RoundTrip("ping"), "re:ping");
  auto before = cpu();
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(cpu() - before, 150ms);
  server_.SetIdleTimeoutMs(800);
  auto busy = Connect();
  before = cpu();
  for (int i = 0; i < 6; ++i) {  // never quiet for long, well over the limit in all
    ASSERT_EQ(busy->RoundTrip("tick"), "re:tick") << i;
    std::this_thread::sleep_for(200ms);
  }
  EXPECT_LT(cpu() - before, 300ms);
  EXPECT_TRUE(silent->ClosedByPeer());
  EXPECT_TRUE(busy->ClosedByPeer());
  EXPECT_TRUE(WorkersAre(0));
}

TEST_F(SyncSocketServerTest, ShutdownDeliversTheAnswerInProgressAndClosesAll) {
  server_.SetPort(0);
  int result = -1;
  std::thread runner([&] { result = server_.Run(); });
  ASSERT_TRUE(WaitFor([this] { return server_.Running(); }));
  auto busy = Connect(), quiet = Connect(), other = Connect();
  EXPECT_EQ(quiet->RoundTrip("ping"), "re:ping");
  ASSERT_TRUE(busy->Send(Request("block")));
  ASSERT_TRUE(WaitUntilBlocked(1));
  std::thread stopper([this] { server_.Shutdown(); });
  // No new connection once stopping, while the request in progress is held.
  EXPECT_TRUE(WaitFor([this] { return !Client(server_.BoundPort()).connected; }));
  Release();
  stopper.join();
  runner.join();
  EXPECT_EQ(result, 0);
  EXPECT_FALSE(server_.Running());
  EXPECT_EQ(server_.WorkerCount(), 0u);
  EXPECT_EQ(busy->ReadAnswer(), "done");
  for (auto* client : {busy.get(), quiet.get(), other.get()}) EXPECT_TRUE(client->ClosedByPeer());
  server_.Shutdown();  // a second call is harmless
}

// The request port listens only where it is told; a start that cannot
// listen (a taken port, an address that is no literal) fails and leaves no
// descriptor behind.
TEST_F(SyncSocketServerTest, ListensOnlyWhereToldAndAFailedStartLeavesNoDescriptor) {
  auto descriptors = [] {
    auto fds = std::filesystem::directory_iterator("/proc/self/fd");
    return std::distance(begin(fds), end(fds));
  };
  auto echo = [](std::string_view request) { return "re:" + std::string(request); };
  const struct {
    const char *bind, *reached, *missed;
  } cases[] = {{"127.0.0.2", "127.0.0.2", "127.0.0.1"},
               {"::1", "::1", "127.0.0.1"},
               {"", "127.0.0.3", "::1"}};  // every IPv4 address, as it always did
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bind);
    CSyncSocketServer server(echo);
    server.SetBindAddress(c.bind);
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(Client(server.BoundPort(), 0, c.reached).RoundTrip("ping"), "re:ping");
    EXPECT_FALSE(Client(server.BoundPort(), 0, c.missed).connected);
  }
  StartServer();
  for (const char* bind : {"", "localhost", "127.0.0.1 ", "1.2.3", "::g"}) {
    SCOPED_TRACE(bind);
    CSyncSocketServer second(echo);
    second.SetPort(*bind == '\0' ? server_.BoundPort() : 0);
    second.SetBindAddress(bind);
    auto before = descriptors();
    EXPECT_FALSE(second.Start());
    EXPECT_EQ(descriptors(), before);
    EXPECT_EQ(second.Run(), 0);
  }
  EXPECT_EQ(Connect()->RoundTrip("ping"), "re:ping");  // the first one is unaffected
}

}  // namespace
}  // namespace corvane
