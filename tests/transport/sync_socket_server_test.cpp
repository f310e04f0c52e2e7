#include "transport/sync_socket_server.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "transport/wx_codec.h"

namespace corvane {
namespace {

using namespace std::chrono_literals;

// The wire frame around already encoded bytes: digit count, length, bytes.
std::string Frame(std::string_view wire) {
  std::string length = std::to_string(wire.size());
  return std::to_string(length.size()) + length + std::string(wire);
}

std::string Request(std::string_view plain) {
  return Frame(wxCodec::Encode(plain));
}

std::string Pattern(size_t n) {
  std::string text(n, '\0');
  for (size_t i = 0; i < n; ++i) text[i] = static_cast<char>('a' + i % 26);
  return text;
}

bool WaitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit = 5000ms) {
  auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(10ms);
  }
  return true;
}

// A client on 127.0.0.1 whose reads give up after a few seconds, so a server
// that fails to answer fails the test instead of hanging it.
class Client {
 public:
  // `receiveBuffer` (when above 0) keeps what the kernel holds for a client
  // that does not read small.
  explicit Client(uint16_t port, int receiveBuffer = 0)
      : socket_(::socket(AF_INET, SOCK_STREAM, 0)) {
    if (receiveBuffer > 0) {
      ::setsockopt(socket_, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    }
    timeval limit{5, 0};
    ::setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    int on = 1;
    ::setsockopt(socket_, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    connected_ = ::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  ~Client() { Close(); }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;

  bool connected() const { return connected_; }
  int fd() const { return socket_; }

  void Close() {
    if (socket_ >= 0) ::close(socket_);
    socket_ = -1;
  }

  bool Send(std::string_view bytes) {
    while (!bytes.empty()) {
      ssize_t sent = ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
      if (sent <= 0) return false;
      bytes.remove_prefix(static_cast<size_t>(sent));
    }
    return true;
  }

  std::optional<std::string> ReadExact(size_t n) {
    std::string bytes(n, '\0');
    size_t got = 0;
    while (got < n) {
      ssize_t part = ::recv(socket_, bytes.data() + got, n - got, 0);
      if (part <= 0) return std::nullopt;
      got += static_cast<size_t>(part);
    }
    return bytes;
  }

  // One whole answer frame as it came over the wire.
  std::optional<std::string> ReadFrame() {
    auto digit = ReadExact(1);
    if (!digit || (*digit)[0] < '1' || (*digit)[0] > '9') return std::nullopt;
    auto length = ReadExact(static_cast<size_t>((*digit)[0] - '0'));
    if (!length) return std::nullopt;
    auto body = ReadExact(std::stoul(*length));
    if (!body) return std::nullopt;
    return *digit + *length + *body;
  }

  // The plain answer of the next frame, or "<none>" when none came.
  std::string ReadAnswer() {
    auto frame = ReadFrame();
    if (!frame) return "<none>";
    size_t digits = static_cast<size_t>((*frame)[0] - '0');
    return wxCodec::Decode(std::string_view(*frame).substr(1 + digits));
  }

  std::string RoundTrip(std::string_view plain) {
    if (!Send(Request(plain))) return "<send failed>";
    return ReadAnswer();
  }

  // True when the server closed the connection (end of stream or reset)
  // before the read time-out; stray answer bytes are skipped.
  bool ClosedByPeer() {
    char byte;
    while (true) {
      ssize_t got = ::recv(socket_, &byte, 1, 0);
      if (got == 0) return true;
      if (got < 0) return errno == ECONNRESET;
    }
  }

 private:
  int socket_;
  bool connected_ = false;
};

// Answers "re:" plus the request, with a few requests that ask for special
// answers: "none" (no answer), "raw:X" (exactly X), "size:N" (N pattern
// bytes), "pair" (waits for a second "pair" from another connection) and
// "block" (waits until the test releases it).
class SyncSocketServerTest : public ::testing::Test {
 protected:
  std::string Dispatch(std::string_view request) {
    std::unique_lock lock(mutex_);
    requests_.emplace_back(request);
    if (request == "none") return {};
    if (request.starts_with("raw:")) return std::string(request.substr(4));
    if (request.starts_with("size:")) return Pattern(std::stoul(std::string(request.substr(5))));
    if (request == "pair") {
      ++paired_;
      changed_.notify_all();
      return changed_.wait_for(lock, 5s, [this] { return paired_ >= 2; }) ? "paired" : "alone";
    }
    if (request == "block") {
      blocked_ = true;
      changed_.notify_all();
      changed_.wait_for(lock, 10s, [this] { return released_; });
      return "done";
    }
    return "re:" + std::string(request);
  }

  void StartServer() {
    server_.SetPort(0);
    ASSERT_TRUE(server_.Start());
    ASSERT_NE(server_.BoundPort(), 0);
  }

  std::unique_ptr<Client> Connect() {
    auto client = std::make_unique<Client>(server_.BoundPort());
    EXPECT_TRUE(client->connected());
    return client;
  }

  size_t RequestCount() {
    std::lock_guard lock(mutex_);
    return requests_.size();
  }

  void Release() {
    std::lock_guard lock(mutex_);
    released_ = true;
    changed_.notify_all();
  }

  bool WaitUntilBlocked() {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, 5s, [this] { return blocked_; });
  }

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<std::string> requests_;
  int paired_ = 0;
  bool blocked_ = false;
  bool released_ = false;
  CSyncSocketServer server_{[this](std::string_view request) { return Dispatch(request); }};
};

TEST_F(SyncSocketServerTest, RequestSplitIntoSingleBytesIsAnsweredOnce) {
  StartServer();
  auto client = Connect();
  for (char byte : Request("split me")) {
    ASSERT_TRUE(client->Send(std::string_view(&byte, 1)));
    std::this_thread::sleep_for(2ms);
  }
  ASSERT_TRUE(client->Send(Request("next")));
  EXPECT_EQ(client->ReadAnswer(), "re:split me");
  EXPECT_EQ(client->ReadAnswer(), "re:next");
  std::lock_guard lock(mutex_);
  EXPECT_EQ(requests_, (std::vector<std::string>{"split me", "next"}));
}

TEST_F(SyncSocketServerTest, BackToBackRequestsAreAnsweredInOrder) {
  StartServer();
  auto client = Connect();
  ASSERT_TRUE(client->Send(Request("first") + Request("second") + Request("third")));
  EXPECT_EQ(client->ReadAnswer(), "re:first");
  EXPECT_EQ(client->ReadAnswer(), "re:second");
  EXPECT_EQ(client->ReadAnswer(), "re:third");
}

TEST_F(SyncSocketServerTest, BadHeaderBytesAreSkippedOneAtATime) {
  StartServer();
  auto client = Connect();
  // "0", a non-digit, a zero length and a header of 9 zeros all drop only
  // themselves; the frame behind them is found.
  ASSERT_TRUE(client->Send("0x\r\n10" + std::string("9000000000") + Request("found")));
  ASSERT_TRUE(client->Send(Request("after")));
  EXPECT_EQ(client->ReadAnswer(), "re:found");
  EXPECT_EQ(client->ReadAnswer(), "re:after");
}

TEST_F(SyncSocketServerTest, OversizedLengthDropsOnlyItsHeader) {
  StartServer();
  auto client = Connect();
  // The 20481 "body" bytes are read as headers, and they hold a valid frame.
  ASSERT_TRUE(client->Send("520481" + Request("inner")));
  ASSERT_TRUE(client->Send(Request("after")));
  EXPECT_EQ(client->ReadAnswer(), "re:inner");
  EXPECT_EQ(client->ReadAnswer(), "re:after");
  std::lock_guard lock(mutex_);
  EXPECT_EQ(requests_, (std::vector<std::string>{"inner", "after"}));
}

TEST_F(SyncSocketServerTest, LargestRequestIsAccepted) {
  StartServer();
  auto client = Connect();
  // The shifted framing keeps lengths, so the body is exactly 20480 bytes.
  std::string payload = Pattern(20475);
  std::string wire = wxCodec::Encode("rapid" + payload);
  ASSERT_EQ(wire.size(), 20480u);
  ASSERT_TRUE(client->Send(Frame(wire)));
  EXPECT_EQ(client->ReadAnswer(), "re:" + payload);
}

TEST_F(SyncSocketServerTest, AnswersAreFramedWithTheirEncodedLength) {
  StartServer();
  auto client = Connect();
  // "rapid" answers keep their length when encoded: 7 bytes on the wire.
  ASSERT_TRUE(client->Send(Request("raw:rapidab")));
  EXPECT_EQ(client->ReadFrame(), "17rapidbc");

  // 12340 plain bytes pad to 12344, plus the pad count byte.
  ASSERT_TRUE(client->Send(Request("size:12340")));
  auto frame = client->ReadFrame();
  ASSERT_TRUE(frame.has_value());
  EXPECT_EQ(frame->substr(0, 6), "512345");
  EXPECT_EQ(frame->size(), 6u + 12345u);
  EXPECT_EQ(wxCodec::Decode(frame->substr(6)), Pattern(12340));
}

TEST_F(SyncSocketServerTest, LargeAnswersArriveWholeAndInOrder) {
  StartServer();
  auto client = Connect();
  // Larger than one coalesced send, then small answers queued behind it.
  ASSERT_TRUE(client->Send(Request("size:100000") + Request("small") + Request("size:16000")));
  EXPECT_EQ(client->ReadAnswer(), Pattern(100000));
  EXPECT_EQ(client->ReadAnswer(), "re:small");
  EXPECT_EQ(client->ReadAnswer(), Pattern(16000));
}

TEST_F(SyncSocketServerTest, EmptyAnswerSendsNothing) {
  StartServer();
  auto client = Connect();
  ASSERT_TRUE(client->Send(Request("none") + Request("after")));
  EXPECT_EQ(client->ReadAnswer(), "re:after");
  EXPECT_EQ(RequestCount(), 2u);
}

TEST_F(SyncSocketServerTest, ConnectionsAreServedAtTheSameTime) {
  StartServer();
  auto first = Connect();
  auto second = Connect();
  ASSERT_TRUE(first->Send(Request("pair")));
  ASSERT_TRUE(second->Send(Request("pair")));
  EXPECT_EQ(first->ReadAnswer(), "paired");
  EXPECT_EQ(second->ReadAnswer(), "paired");
}

TEST_F(SyncSocketServerTest, ConnectionBeyondTheLimitIsClosedAtOnce) {
  server_.SetMaxWorkers(50);
  StartServer();
  std::vector<std::unique_ptr<Client>> clients;
  for (int i = 0; i < 50; ++i) {
    clients.push_back(Connect());
    ASSERT_EQ(clients.back()->RoundTrip("hello " + std::to_string(i)),
              "re:hello " + std::to_string(i));
  }
  // A worker answers as soon as it runs, a moment before the accept thread
  // files it.
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() == 50; }));

  auto refused = Connect();
  refused->Send(Request("refused"));
  EXPECT_TRUE(refused->ClosedByPeer());

  // Once a connection has gone and been reaped, there is room again.
  clients.front()->Close();
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() == 49; }));
  auto late = Connect();
  EXPECT_EQ(late->RoundTrip("late"), "re:late");
  EXPECT_EQ(RequestCount(), 51u);
}

TEST_F(SyncSocketServerTest, AConnectionWhoseClientHasGoneNoLongerCounts) {
  server_.SetMaxWorkers(2);
  StartServer();
  // Two clients leave while their requests are held by the dispatcher.
  for (int i = 0; i < 2; ++i) {
    auto gone = Connect();
    ASSERT_TRUE(gone->Send(Request("block")));
    ASSERT_TRUE(WaitUntilBlocked());
    gone->Close();
  }
  // Once the server has seen them go (their receive ends on its own thread,
  // a moment later), a third client is served while both are still held.
  EXPECT_TRUE(WaitFor([this] { return Connect()->RoundTrip("fresh") == "re:fresh"; }));
  Release();
}

TEST_F(SyncSocketServerTest, AClientThatDoesNotReadIsNotServedAheadOfItsAnswers) {
  StartServer();
  auto client = std::make_unique<Client>(server_.BoundPort(), 16 * 1024);
  std::string requests;
  for (int i = 0; i < 150; ++i) requests += Request("size:100000");
  ASSERT_TRUE(client->Send(requests));
  // 15 MB of answers: only what the queue and the sockets hold is made, and
  // then nothing more until the client reads.
  size_t served = 0;
  for (int i = 0; i < 40; ++i) {
    std::this_thread::sleep_for(500ms);
    if (RequestCount() == served) break;
    served = RequestCount();
  }
  EXPECT_LT(served, 150u);
  for (int i = 0; i < 150; ++i) ASSERT_EQ(client->ReadAnswer(), Pattern(100000)) << i;
  EXPECT_EQ(RequestCount(), 150u);
}

TEST_F(SyncSocketServerTest, AClientSendingFasterThanItIsServedIsNotRead) {
  StartServer();
  auto client = Connect();
  ASSERT_TRUE(client->Send(Request("block")));
  ASSERT_TRUE(WaitUntilBlocked());
  const std::string junk(1024 * 1024, 'x');
  size_t pushed = 0;
  while (pushed < 64 * junk.size()) {
    ssize_t sent = ::send(client->fd(), junk.data(), junk.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent <= 0) {
      if (errno != EAGAIN ||
          !WaitFor([&] { return ::send(client->fd(), "x", 1, MSG_NOSIGNAL | MSG_DONTWAIT) == 1; },
                   500ms)) {
        break;
      }
      ++pushed;
      continue;
    }
    pushed += static_cast<size_t>(sent);
  }
  // The queue and the two sockets' buffers, not the 64 MB.
  EXPECT_LT(pushed, 32 * junk.size());
  Release();
}

TEST_F(SyncSocketServerTest, IdleConnectionIsClosedAndReaped) {
  server_.SetIdleTimeoutMs(300);
  StartServer();
  auto client = Connect();
  EXPECT_EQ(client->RoundTrip("ping"), "re:ping");
  EXPECT_TRUE(client->ClosedByPeer());
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() == 0; }));
}

TEST_F(SyncSocketServerTest, IdleLimitReachesOpenConnections) {
  StartServer();
  auto client = Connect();
  EXPECT_EQ(client->RoundTrip("ping"), "re:ping");
  EXPECT_EQ(server_.WorkerCount(), 1u);
  server_.SetIdleTimeoutMs(300);
  EXPECT_TRUE(client->ClosedByPeer());
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() == 0; }));
}

TEST_F(SyncSocketServerTest, TrafficKeepsAConnectionOpen) {
  server_.SetIdleTimeoutMs(1000);
  StartServer();
  auto client = Connect();
  // Well over the limit in total, never silent for long.
  for (int i = 0; i < 20; ++i) {
    ASSERT_EQ(client->RoundTrip("tick"), "re:tick") << "round " << i;
    std::this_thread::sleep_for(100ms);
  }
}

TEST_F(SyncSocketServerTest, ClientLeavingMidFrameFreesItsWorker) {
  StartServer();
  auto client = Connect();
  ASSERT_TRUE(client->Send("3100" + Pattern(40)));
  ASSERT_TRUE(WaitFor([this] { return server_.WorkerCount() == 1; }));
  client->Close();
  EXPECT_TRUE(WaitFor([this] { return server_.WorkerCount() == 0; }));
  EXPECT_EQ(RequestCount(), 0u);

  auto other = Connect();
  EXPECT_EQ(other->RoundTrip("still here"), "re:still here");
}

TEST_F(SyncSocketServerTest, ShutdownDeliversTheAnswerInProgressAndClosesAll) {
  server_.SetPort(0);
  int result = -1;
  std::thread runner([&] { result = server_.Run(); });
  ASSERT_TRUE(WaitFor([this] { return server_.Running(); }));

  auto busy = Connect();
  auto quiet = Connect();
  auto other = Connect();
  EXPECT_EQ(quiet->RoundTrip("ping"), "re:ping");
  ASSERT_TRUE(busy->Send(Request("block")));
  ASSERT_TRUE(WaitUntilBlocked());

  std::thread stopper([this] { server_.Shutdown(); });
  std::this_thread::sleep_for(200ms);
  Release();
  stopper.join();
  runner.join();

  EXPECT_EQ(result, 0);
  EXPECT_FALSE(server_.Running());
  EXPECT_EQ(server_.WorkerCount(), 0u);
  EXPECT_EQ(busy->ReadAnswer(), "done");
  EXPECT_TRUE(busy->ClosedByPeer());
  EXPECT_TRUE(quiet->ClosedByPeer());
  EXPECT_TRUE(other->ClosedByPeer());
  EXPECT_FALSE(Client(server_.BoundPort()).connected());

  server_.Shutdown();  // a second call is harmless
}

TEST_F(SyncSocketServerTest, PortInUseFailsTheStart) {
  StartServer();
  CSyncSocketServer second([](std::string_view) { return std::string("x"); });
  second.SetPort(server_.BoundPort());
  EXPECT_FALSE(second.Start());
  EXPECT_FALSE(second.Running());
  EXPECT_EQ(second.Run(), 0);
  second.Shutdown();

  // The server already listening is unaffected.
  auto client = Connect();
  EXPECT_EQ(client->RoundTrip("ping"), "re:ping");
}

}  // namespace
}  // namespace corvane
