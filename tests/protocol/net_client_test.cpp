// The socket client over plain connections to scripted peers: lines and
// blocks in, sources out, connect, listen, and the result texts.
#include "protocol/net_client.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "protocol/net_error.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

// Counts the layer's receives, so a test can tell what touched the socket,
// and records the codes that left an operation.
class ProbeClient : public CNetClient {
 public:
  int SocketRecv(int socket, char* buffer, int length, int flags) override {
    ++receives;
    return CNetClient::SocketRecv(socket, buffer, length, flags);
  }
  int OnError(int code) override {
    codes.push_back(code);
    return code;
  }
  bool IsAborted() override { return aborted; }
  bool SendFileStatus(long bytesSoFar) override {
    lastStatus = bytesSoFar;
    return bytesSoFar < stopSendingAt;
  }
  using CNetClient::Socket;

  int receives = 0;
  std::vector<int> codes;
  bool aborted = false;
  long lastStatus = 0;
  long stopSendingAt = 1L << 40;
};

class NetClientTest : public ::testing::Test {
 protected:
  int Connect(const ScriptedPeer& peer, int timeout = 5) {
    return client_.Connect(peer.port(), "127.0.0.1", timeout);
  }
  // One ReceiveLine: the text must come NUL-terminated.
  std::string Line(int room = 1024, int timeout = 5) {
    std::vector<char> buffer(static_cast<size_t>(room) + 8, 'X');
    int n = std::max(client_.ReceiveLine(buffer.data(), room, timeout), 0);
    EXPECT_EQ(buffer[static_cast<size_t>(n)], '\0') << "not NUL-terminated";
    return std::string(buffer.data(), static_cast<size_t>(n));
  }
  ProbeClient client_;
};

TEST_F(NetClientTest, ReceiveLineCutsAtTheRoomAndLosesNoByte) {
  std::string longLine;
  for (int i = 0; i < 2000; ++i) longLine += static_cast<char>('a' + i % 26);
  ScriptedPeer peer({Send(longLine + "\r\nabc\r\nde\n+OK part"), Close()});
  ASSERT_EQ(Connect(peer), kNetOk);
  char small[4] = {'X', 'X', 'X', 'X'};
  EXPECT_EQ(client_.ReceiveLine(small, 1, 5), 0);  // no room: nothing taken or read
  EXPECT_EQ(client_.ReceiveLine(small, 0, 5), 0);
  EXPECT_EQ(client_.receives, 0);
  client_.aborted = true;
  EXPECT_EQ(Line(), "");
  client_.aborted = false;
  std::string first = Line();
  ASSERT_EQ(first.size(), 1023u);
  EXPECT_EQ(first + Line(), longLine + "\r\n");
  EXPECT_EQ(Line(6), "abc\r\n");  // room 5: the whole line just fits
  EXPECT_EQ(Line(6), "de\n");
  EXPECT_EQ(Line(), "+OK part");  // the close ends a line without its end
  EXPECT_EQ(Line(), "");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(NetClientTest, ATimeOutKeepsLateBytesAndNoWaitMeansTheSocketTimeOut) {
  ScriptedPeer peer({Pause(1500), Send("+OK late\r\n")});
  ASSERT_EQ(Connect(peer), kNetOk);
  auto start = Clock::now();
  EXPECT_EQ(Line(1024, 1), "");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  ASSERT_EQ(client_.SetReceiveTimeOut(100), 0);
  EXPECT_EQ(client_.GetReceiveTimeOut(), 100);
  EXPECT_EQ(Line(1024, 0), "");
  ASSERT_EQ(client_.SetReceiveTimeOut(5000), 0);
  EXPECT_EQ(Line(1024, 0), "+OK late\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

void Ignore(int) {}

TEST_F(NetClientTest, ASignalDuringAReceiveDoesNotFailIt) {
  struct sigaction action = {}, old = {};
  action.sa_handler = Ignore;  // no SA_RESTART: the blocked receive sees EINTR
  ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
  ScriptedPeer peer({Pause(400), Send("+OK\r\n"), Close()});
  ASSERT_EQ(Connect(peer), kNetOk);
  std::atomic<bool> done{false};
  std::thread signaller([&done, target = pthread_self()] {
    while (!done) {
      pthread_kill(target, SIGUSR1);
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
  });
  char buffer[16] = {};
  int n = client_.SocketRecv(client_.Socket(), buffer, sizeof buffer, 0);
  done = true;
  signaller.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(std::max(n, 0))), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  // The end of the stream leaves errno as the signal left it: no reason to
  // receive again.
  errno = EINTR;
  EXPECT_EQ(client_.SocketRecv(client_.Socket(), buffer, sizeof buffer, 0), 0);
}

TEST_F(NetClientTest, ALongListingComesThroughTheReadAheadInFewReceives) {
  std::string listing;
  for (int i = 0; i < 5000; ++i) listing += std::to_string(i) + " some message line\r\n";
  ScriptedPeer peer({Send(listing)});
  ASSERT_EQ(Connect(peer), kNetOk);
  std::string got = Line();
  EXPECT_TRUE(client_.IsDataWaiting());  // read ahead, no longer in the socket
  EXPECT_EQ(client_.WaitForReceive(0, 0), 0);
  for (int i = 1; i < 5000; ++i) got += Line();
  EXPECT_EQ(got, listing);
  EXPECT_LT(client_.receives, 5000 / 20);
  EXPECT_FALSE(client_.IsDataWaiting());
  EXPECT_EQ(client_.WaitForReceive(0, 200000), 1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(NetClientTest, BlocksAndWritersTakeTheReadAheadFirstAndStopAtTheirLimit) {
  ScriptedPeer peer({Send("HDR\r\nBODY"), Pause(100), Send("BYTES" + std::string(1000, 'q'))});
  ASSERT_EQ(Connect(peer), kNetOk);
  EXPECT_EQ(Line(), "HDR\r\n");
  char block[700];
  ASSERT_EQ(client_.ReceiveBlock(block, 9, 5), 9);
  EXPECT_EQ(std::string(block, 9), "BODYBYTES");
  BufferDataSource dest(4096);
  ASSERT_EQ(dest.Open(DataSource::kOpenWrite), 0);
  DataSourceWriter writer(dest, 700);
  EXPECT_EQ(client_.ReceiveToWriter(writer, 5, 300), kNetOk);
  EXPECT_EQ(dest.Data(), std::string(300, 'q'));
  EXPECT_EQ(client_.ReceiveBlock(block, 700, 5), 700);  // the rest stayed for the next reader
  EXPECT_EQ(client_.ReceiveToWriter(writer, 1), kNetTimeout);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();

  ProbeClient closed;
  EXPECT_EQ(closed.ReceiveToWriter(writer, 1), kNetSocketNotOpen);
  for (size_t room : {size_t{4096}, size_t{100}}) {  // 100: the writer fails
    ScriptedPeer ending({Send(std::string(1000, 'q')), Close()});
    ProbeClient reader;
    ASSERT_EQ(reader.Connect(ending.port(), "127.0.0.1", 5), kNetOk);
    BufferDataSource target(static_cast<int64_t>(room));
    ASSERT_EQ(target.Open(DataSource::kOpenWrite), 0);
    DataSourceWriter into(target);
    EXPECT_EQ(reader.ReceiveToWriter(into, 5), room > 1000 ? kNetOk : kNetDataSourceWriteFailed);
    if (room > 1000) {
      EXPECT_EQ(target.Data(), std::string(1000, 'q'));
    }
    EXPECT_EQ(reader.ReceiveBlock(block, 64, 1), room > 1000 ? 0 : 64);  // 0: closed
  }
}

TEST_F(NetClientTest, ConnectRefusalsTimeOutsAndNames) {
  char address[31];
  EXPECT_EQ(CNetClient::GetAddressFromName("a@b@localhost", address, sizeof address), kNetOk);
  EXPECT_STREQ(address, "127.0.0.1");  // what follows the last "@"
  EXPECT_EQ(CNetClient::GetAddressFromName("localhost", address, 9), kNetBufferTooShort);
  for (const char* name : {"localhost@", "no-such-host.invalid"}) {
    EXPECT_EQ(CNetClient::GetAddressFromName(name, address, sizeof address), kNetNameLookupFailed);
  }
  EXPECT_TRUE(CNetClient::IsIPAddress("127.0.0.1"));
  EXPECT_FALSE(CNetClient::IsIPAddress("127.0.0.256"));
  EXPECT_EQ(client_.Connect(110, "joe@no-such-host.invalid", 5), kNetBadAddress);
  EXPECT_EQ(client_.Connect(110, nullptr, 5), kNetBadAddress);

  uint16_t closed = ClosedPort();
  auto start = Clock::now();
  EXPECT_EQ(client_.Connect(closed, "127.0.0.1", 5), kNetSocketConnectFailed);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4)) << "a refusal is not a time-out";
  EXPECT_EQ(client_.Connect(closed, "127.0.0.1", -1), kNetSocketConnectFailed);
  EXPECT_EQ(client_.Socket(), -1);

  // A listener whose one-place queue is taken: further SYNs go unanswered.
  uint16_t full = 0;
  int listener = ListenOnLoopback(full, 0);
  CNetClient filler;
  ASSERT_EQ(filler.Connect(full, "127.0.0.1", 2), kNetOk);
  start = Clock::now();
  EXPECT_EQ(client_.Connect(full, "127.0.0.1", 1), kNetConnectTimeout);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(client_.Socket(), -1);
  ::close(listener);

  ScriptedPeer peer({Send("+OK\r\n"), Expect("STAT\r\n"), Send("+OK 0 0\r\n")});
  ASSERT_EQ(client_.Connect(peer.port(), "joe@localhost", -1), kNetOk);  // blocking connect
  EXPECT_EQ(client_.Connect(peer.port(), "127.0.0.1", 5), kNetSocketInUse);
  EXPECT_EQ(client_.codes.back(), kNetSocketInUse);
  EXPECT_EQ(Line(), "+OK\r\n");  // the first connection is left alone
  EXPECT_EQ(client_.Send("STAT\r\n"), 6);
  EXPECT_EQ(Line(), "+OK 0 0\r\n");
  EXPECT_EQ(client_.GetRemotePort(), peer.port());
  EXPECT_STREQ(client_.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(client_.GetLocalAddress(), "127.0.0.1");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Connections(), 1);
}

TEST_F(NetClientTest, IsConnectedFollowsThePeerButCountsUnreadData) {
  EXPECT_FALSE(client_.IsConnected());
  struct Case {
    Step end;
    std::string unread;
  } cases[] = {{Close(), ""}, {Reset(), ""}, {Close(), "+OK bye\r\n"}};
  for (Case& c : cases) {
    ScriptedPeer peer({Send(c.unread), std::move(c.end)});
    ProbeClient client;
    ASSERT_EQ(client.Connect(peer.port(), "127.0.0.1", 5), kNetOk);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    if (c.unread.empty()) {
      EXPECT_EQ(client.WaitForReceive(5, 0), 0);
    }
    EXPECT_EQ(client.IsConnected(), !c.unread.empty());
    char line[32] = {};
    EXPECT_EQ(client.ReceiveLine(line, sizeof line, 5), static_cast<int>(c.unread.size()));
    EXPECT_FALSE(client.IsConnected());
  }
}

TEST_F(NetClientTest, SendsGoOutByteExactAndStopWhenTold) {
  TempDir dir;
  std::string content;
  for (int i = 0; i < 70000; ++i) content += static_cast<char>((i * 7 + i / 255) % 256);
  content += "\r\n.\r\nlast line without end";
  WriteFile(dir / "message.eml", content);
  FileDataSource source(dir / "message.eml"), missing(dir / "missing");
  EXPECT_EQ(client_.Send("QUIT\r\n"), 0);  // not connected
  EXPECT_EQ(client_.SendFromDataSource(source), kNetSocketNotOpen);

  ScriptedPeer peer({Expect("abcd\r\nefgh\r\nij\r\nQUIT\r\nxy"), Drain()});
  ASSERT_EQ(Connect(peer), kNetOk);
  EXPECT_EQ(client_.SendAsLines("abcdefghij", 10, 4), 10);
  EXPECT_EQ(client_.Send("QUIT\r\n"), 6);
  EXPECT_EQ(client_.Send("xyz", 2), 2);
  EXPECT_EQ(client_.WaitForSend(1, 0), 0);
  EXPECT_EQ(client_.SendFromDataSource(missing), kNetDataSourceOpenFailed);
  EXPECT_EQ(client_.SendFromDataSource(source), kNetOk);
  EXPECT_EQ(client_.lastStatus, static_cast<long>(content.size()));
  client_.stopSendingAt = 510;  // the status hook says stop after the second piece
  EXPECT_EQ(client_.SendFromDataSource(source), kNetAborted);
  EXPECT_EQ(client_.lastStatus, 510);
  EXPECT_EQ(client_.CloseConnection(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received(), "abcd\r\nefgh\r\nij\r\nQUIT\r\nxy" + content + content.substr(0, 510));
}

TEST_F(NetClientTest, ListensAcceptsAndEndsTheListenerWithTheConnection) {
  ASSERT_EQ(client_.WaitForConnect(0, 1, 2, "127.0.0.1"), kNetOk);
  unsigned port = client_.GetListenPort();
  ASSERT_NE(port, 0u);
  EXPECT_EQ(client_.WaitForConnect(0, 1, 2, nullptr), kNetSocketInUse);
  EXPECT_EQ(client_.WaitForAccept(0), 1);  // nobody yet
  ProbeClient rival;
  EXPECT_EQ(rival.WaitForConnect(port, 1, 2, "127.0.0.1"), kNetBindFailed);
  EXPECT_EQ(rival.WaitForConnect(0, 1, 2, nullptr), kNetOk);  // the failure left nothing

  CNetClient caller;
  ASSERT_EQ(caller.Connect(port, "127.0.0.1", 5), kNetOk);
  ASSERT_EQ(client_.WaitForAccept(5), 0);
  ASSERT_EQ(client_.AcceptConnection(), kNetOk);
  EXPECT_EQ(client_.GetRemotePort(), caller.GetLocalPort());
  EXPECT_EQ(client_.GetLocalPort(), port);
  EXPECT_EQ(caller.Send("220 data\r\n"), 10);
  EXPECT_EQ(Line(), "220 data\r\n");
  EXPECT_EQ(client_.CloseConnection(), 0);
  EXPECT_EQ(client_.GetListenPort(), 0u);
  EXPECT_STREQ(client_.GetRemoteAddress(), "");
  char line[32];
  EXPECT_EQ(caller.ReceiveLine(line, sizeof line, 5), 0);
  EXPECT_EQ(client_.AcceptConnection(), kNetFailed);  // no listener any more
}

TEST_F(NetClientTest, TimeOutsAreStoredAndAppliedAtConnect) {
  EXPECT_EQ(client_.GetReceiveTimeOut(), 30000);
  EXPECT_EQ(client_.SetReceiveTimeOut(1200), 0);
  EXPECT_EQ(client_.SetSendTimeOut(2500), 0);
  ScriptedPeer peer({});
  ASSERT_EQ(Connect(peer), kNetOk);
  EXPECT_EQ(client_.GetBlockingMode(), 0);
  for (auto [option, ms] : {std::pair{SO_RCVTIMEO, 1200}, std::pair{SO_SNDTIMEO, 2500}}) {
    timeval limit{};
    socklen_t size = sizeof limit;
    ASSERT_EQ(getsockopt(client_.Socket(), SOL_SOCKET, option, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, ms);
  }
  EXPECT_EQ(client_.SetBlockingMode(1), 0);
  EXPECT_EQ(client_.GetBlockingMode(), 1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetErrorTest, EveryCodeHasATextOfItsOwnAndOthersTheBoundsText) {
  std::set<std::string> texts;
  for (int code = 0; code < CNetError::kCodeCount; ++code) {
    std::string text = CNetError::GetErrorString(code);
    EXPECT_GT(text.size(), 8u) << code;
    EXPECT_EQ(text.find("CNetError::"), std::string::npos) << code;
    // 61 and 73 share their text, as the table always had it.
    EXPECT_EQ(texts.insert(text).second, code != 73) << code;
  }
  EXPECT_STREQ(CNetError::GetErrorString(kNetTimeout), "A timeout occurred.");
  for (int code : {-1, CNetError::kCodeCount, -2147483647 - 1, 2147483647}) {
    EXPECT_STREQ(CNetError::GetErrorString(code), "CNetError::GetErrorString: Array out of bounds!")
        << code;
  }
}

}  // namespace
}  // namespace corvane
