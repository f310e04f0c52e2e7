#include "protocol/net_client.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>
#include <vector>

#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"

namespace corvane {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;

// Counts the layer's receives, so tests can tell what touched the socket,
// and records every result code that left an operation.
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

std::string Line(ProbeClient& client, int maxLength = 1024, int timeout = 5) {
  std::vector<char> buffer(static_cast<size_t>(maxLength) + 8, 'X');
  int n = client.ReceiveLine(buffer.data(), maxLength, timeout);
  EXPECT_GE(n, 0);
  EXPECT_EQ(buffer[static_cast<size_t>(std::max(n, 0))], '\0') << "not NUL-terminated";
  return std::string(buffer.data(), static_cast<size_t>(std::max(n, 0)));
}

int ConnectTo(CNetClient& client, const ScriptedPeer& peer, int timeout = 5) {
  return client.Connect(peer.port(), "127.0.0.1", timeout);
}

TEST(NetClientReceiveLine, RoomOfOneByteReturnsZeroWithoutReading) {
  ScriptedPeer peer({Send("+OK ready\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  char buffer[4] = {'X', 'X', 'X', 'X'};
  EXPECT_EQ(client.ReceiveLine(buffer, 1, 5), 0);
  EXPECT_EQ(client.ReceiveLine(buffer, 0, 5), 0);
  EXPECT_EQ(client.receives, 0);
  EXPECT_EQ(Line(client), "+OK ready\r\n");  // nothing was taken
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, LongLineComesInPiecesWithoutLoss) {
  std::string text;
  for (int i = 0; i < 2000; ++i) text += static_cast<char>('a' + i % 26);
  ScriptedPeer peer({Send(text + "\r\nnext\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  std::string first = Line(client, 1024);
  ASSERT_EQ(first.size(), 1023u);
  EXPECT_EQ(first.find('\n'), std::string::npos);
  std::string rest = Line(client, 1024);
  EXPECT_EQ(rest.size(), 2002u - 1023u);
  EXPECT_EQ(first + rest, text + "\r\n");
  EXPECT_EQ(Line(client, 1024), "next\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, LineEndingExactlyAtTheRoomAndBareLineFeeds) {
  ScriptedPeer peer({Send("abc\r\nde\nf\r")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(Line(client, 6), "abc\r\n");  // room 5: the whole line just fits
  EXPECT_EQ(Line(client, 6), "de\n");
  EXPECT_EQ(Line(client, 6, 1), "f\r");  // no line feed ever comes: the time-out ends it
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, PeerClosingMidLineGivesThePartThenZero) {
  ScriptedPeer peer({Send("+OK part"), Close()});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(Line(client), "+OK part");
  EXPECT_EQ(Line(client), "");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, TimeOutReturnsZeroAndKeepsLateBytes) {
  ScriptedPeer peer({SendAfter(1500, "+OK late\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  auto start = Clock::now();
  EXPECT_EQ(Line(client, 1024, 1), "");
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(900));
  EXPECT_EQ(Line(client, 1024, 5), "+OK late\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, NoWaitFallsBackOnTheSocketReceiveTimeOut) {
  ScriptedPeer peer({Pause(1500), Send("+OK\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  ASSERT_EQ(client.SetReceiveTimeOut(300), 0);
  EXPECT_EQ(client.GetReceiveTimeOut(), 300);
  EXPECT_EQ(Line(client, 1024, 0), "");
  ASSERT_EQ(client.SetReceiveTimeOut(5000), 0);
  EXPECT_EQ(Line(client, 1024, 0), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, LinesOfOneSegmentComeOneByOneAndCountAsWaiting) {
  ScriptedPeer peer({Send("a\r\nbb\r\nccc\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(Line(client), "a\r\n");
  // The other two lines now sit in the read-ahead, not in the socket.
  EXPECT_TRUE(client.IsDataWaiting());
  EXPECT_EQ(client.WaitForReceive(0, 0), 0);
  EXPECT_TRUE(client.IsConnected());
  EXPECT_EQ(Line(client), "bb\r\n");
  EXPECT_EQ(Line(client), "ccc\r\n");
  EXPECT_EQ(client.receives, 1);
  EXPECT_FALSE(client.IsDataWaiting());
  EXPECT_EQ(client.WaitForReceive(0, 200000), 1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, ALongListingCostsFarFewerReceivesThanLines) {
  std::string listing;
  for (int i = 0; i < 5000; ++i) listing += std::to_string(i) + " some message line\r\n";
  ScriptedPeer peer({Send(listing + ".\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  std::string got;
  for (int i = 0; i < 5001; ++i) got += Line(client, 1024, 5);
  EXPECT_EQ(got, listing + ".\r\n");
  EXPECT_LT(client.receives, 5000 / 20);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceiveLine, AbortStopsBeforeReading) {
  ScriptedPeer peer({Send("+OK\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  client.aborted = true;
  EXPECT_EQ(Line(client), "");
  client.aborted = false;
  EXPECT_EQ(Line(client), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceive, BlocksAndReceivesDrainTheReadAheadFirst) {
  ScriptedPeer peer({Send("HDR\r\nBODY"), SendAfter(100, "BYTES"), Send("tail"), Close()});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(Line(client), "HDR\r\n");
  char block[16] = {};
  ASSERT_EQ(client.ReceiveBlock(block, 9, 5), 9);
  EXPECT_EQ(std::string(block, 9), "BODYBYTES");
  std::string rest;
  char piece[3];
  for (int n; (n = client.Receive(piece, sizeof piece, 5)) > 0;) rest.append(piece, n);
  EXPECT_EQ(rest, "tail");
  EXPECT_EQ(client.ReceiveBlock(block, 4, 1), 0);  // closed: nothing more
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceive, BlockStopsShortWhenThePeerCloses) {
  ScriptedPeer peer({Send("12345"), Close()});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  char block[64];
  EXPECT_EQ(client.ReceiveBlock(block, 64, 5), 5);
  EXPECT_EQ(std::string(block, 5), "12345");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientReceive, ToWriterHonoursTheLimitAndReportsFailures) {
  std::string data(1000, 'q');
  {
    ScriptedPeer peer({Send(data), Close()});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    BufferDataSource dest(4096);
    ASSERT_EQ(dest.Open(DataSource::kOpenWrite), 0);
    DataSourceWriter writer(dest);
    EXPECT_EQ(client.ReceiveToWriter(writer, 5), kNetOk);
    EXPECT_EQ(dest.Data(), data);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    ScriptedPeer peer({Send(data)});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    BufferDataSource dest(4096);
    ASSERT_EQ(dest.Open(DataSource::kOpenWrite), 0);
    DataSourceWriter writer(dest, 700);
    EXPECT_EQ(client.ReceiveToWriter(writer, 5, 300), kNetOk);
    EXPECT_EQ(dest.Data().size(), 300u);
    // The rest is still there for the next reader.
    char block[700];
    EXPECT_EQ(client.ReceiveBlock(block, 700, 5), 700);
    EXPECT_EQ(client.ReceiveToWriter(writer, 1), kNetTimeout);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    ScriptedPeer peer({Send(data)});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    BufferDataSource dest(100);  // takes 100 bytes, then cuts off
    ASSERT_EQ(dest.Open(DataSource::kOpenWrite), 0);
    DataSourceWriter writer(dest);
    EXPECT_EQ(client.ReceiveToWriter(writer, 5), kNetDataSourceWriteFailed);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  ProbeClient closed;
  BufferDataSource dest(10);
  DataSourceWriter writer(dest);
  EXPECT_EQ(closed.ReceiveToWriter(writer, 1), kNetSocketNotOpen);
}

TEST(NetClientConnect, SecondConnectIsRefusedAndLeavesTheFirstAlone) {
  ScriptedPeer peer({Send("+OK\r\n"), Expect("STAT\r\n"), Send("+OK 0 0\r\n")});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(client.Connect(peer.port(), "127.0.0.1", 5), kNetSocketInUse);
  EXPECT_EQ(client.codes.back(), kNetSocketInUse);
  EXPECT_EQ(Line(client), "+OK\r\n");
  EXPECT_EQ(client.Send("STAT\r\n"), 6);
  EXPECT_EQ(Line(client), "+OK 0 0\r\n");
  EXPECT_EQ(client.GetRemotePort(), peer.port());
  EXPECT_STREQ(client.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(client.GetLocalAddress(), "127.0.0.1");
  EXPECT_NE(client.GetLocalPort(), 0u);
  EXPECT_GT(client.GetMaxSend(), 0);
  EXPECT_EQ(peer.Connections(), 1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientConnect, NamesResolveWhatFollowsTheLastAtSign) {
  char buffer[31];
  EXPECT_EQ(CNetClient::GetAddressFromName("user@localhost", buffer, sizeof buffer), kNetOk);
  EXPECT_STREQ(buffer, "127.0.0.1");
  EXPECT_EQ(CNetClient::GetAddressFromName("a@b@localhost", buffer, sizeof buffer), kNetOk);
  EXPECT_EQ(CNetClient::GetAddressFromName("localhost", buffer, 9), kNetBufferTooShort);
  EXPECT_EQ(CNetClient::GetAddressFromName("localhost@", buffer, sizeof buffer),
            kNetNameLookupFailed);
  EXPECT_EQ(CNetClient::GetAddressFromName("no-such-host.invalid", buffer, sizeof buffer),
            kNetNameLookupFailed);
  EXPECT_TRUE(CNetClient::IsIPAddress("127.0.0.1"));
  EXPECT_FALSE(CNetClient::IsIPAddress("localhost"));
  EXPECT_FALSE(CNetClient::IsIPAddress("127.0.0.256"));

  ScriptedPeer peer({Send("+OK\r\n")});
  ProbeClient client;
  ASSERT_EQ(client.Connect(peer.port(), "joe@localhost", 5), kNetOk);
  EXPECT_STREQ(client.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(Line(client), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();

  ProbeClient unknown;
  EXPECT_EQ(unknown.Connect(110, "joe@no-such-host.invalid", 5), kNetBadAddress);
  EXPECT_EQ(unknown.Connect(110, nullptr, 5), kNetBadAddress);
}

TEST(NetClientConnect, RefusedConnectFailsAtOnceAndCanBeRetried) {
  uint16_t port = test::ClosedPort();
  ProbeClient client;
  auto start = Clock::now();
  EXPECT_EQ(client.Connect(port, "127.0.0.1", 5), kNetSocketConnectFailed);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(4)) << "a refusal is not a time-out";
  EXPECT_EQ(client.Connect(port, "127.0.0.1", -1), kNetSocketConnectFailed);
  EXPECT_EQ(client.Socket(), -1);
  EXPECT_FALSE(client.IsConnected());

  ScriptedPeer peer({Send("+OK\r\n")});
  ASSERT_EQ(ConnectTo(client, peer, -1), kNetOk);  // a plain blocking connect
  EXPECT_EQ(Line(client), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientConnect, UnansweredConnectTimesOut) {
  // A listener whose one-place queue is taken: further SYNs go unanswered.
  int listener = ::socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr*>(&address), size), 0);
  ASSERT_EQ(::listen(listener, 0), 0);
  ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size);
  CNetClient filler;
  ASSERT_EQ(filler.Connect(ntohs(address.sin_port), "127.0.0.1", 2), kNetOk);

  ProbeClient client;
  auto start = Clock::now();
  EXPECT_EQ(client.Connect(ntohs(address.sin_port), "127.0.0.1", 1), kNetConnectTimeout);
  auto elapsed = Clock::now() - start;
  EXPECT_GE(elapsed, std::chrono::milliseconds(900));
  EXPECT_LT(elapsed, std::chrono::seconds(10));
  EXPECT_EQ(client.Socket(), -1);
  ::close(listener);
}

TEST(NetClientIsConnected, FollowsThePeer) {
  ProbeClient idle;
  EXPECT_FALSE(idle.IsConnected());
  {
    ScriptedPeer peer({Pause(300), Close()});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    EXPECT_TRUE(client.IsConnected());  // quiet but there
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(client.WaitForReceive(5, 0), 0);
    EXPECT_FALSE(client.IsConnected());
  }
  {
    ScriptedPeer peer({Reset()});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(client.WaitForReceive(5, 0), 0);
    EXPECT_FALSE(client.IsConnected());
  }
  {
    // Unread data from a peer that has since closed still counts.
    ScriptedPeer peer({Send("+OK bye\r\n"), Close()});
    ProbeClient client;
    ASSERT_EQ(ConnectTo(client, peer), kNetOk);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_TRUE(client.IsConnected());
    EXPECT_EQ(Line(client), "+OK bye\r\n");
    EXPECT_FALSE(client.IsConnected());
  }
}

TEST(NetClientSend, DataSourceGoesOutByteExact) {
  TempDir dir;
  std::string content;
  for (int i = 0; i < 70000; ++i) content += static_cast<char>((i * 7 + i / 255) % 256);
  content += "\r\n.\r\nlast line without end";
  WriteFile(dir / "message.eml", content);

  ScriptedPeer peer({Drain()});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  FileDataSource source(dir / "message.eml");
  EXPECT_EQ(client.SendFromDataSource(source), kNetOk);
  EXPECT_EQ(client.lastStatus, static_cast<long>(content.size()));
  EXPECT_EQ(client.CloseConnection(), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received(), content);
}

TEST(NetClientSend, DataSourceFailuresAndCancel) {
  TempDir dir;
  WriteFile(dir / "big", std::string(2000, 'z'));
  ProbeClient idle;
  FileDataSource source(dir / "big");
  EXPECT_EQ(idle.SendFromDataSource(source), kNetSocketNotOpen);

  ScriptedPeer peer({Drain()});
  ProbeClient client;
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  FileDataSource missing(dir / "missing");
  EXPECT_EQ(client.SendFromDataSource(missing), kNetDataSourceOpenFailed);
  client.stopSendingAt = 510;  // the status hook says stop after the second piece
  EXPECT_EQ(client.SendFromDataSource(source), kNetAborted);
  EXPECT_EQ(client.lastStatus, 510);
  client.CloseConnection();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Received(), std::string(510, 'z'));
}

TEST(NetClientSend, AsLinesAndStrings) {
  ScriptedPeer peer({Expect("abcd\r\nefgh\r\nij\r\n"), Expect("QUIT\r\n"), Expect("xy")});
  ProbeClient client;
  EXPECT_EQ(client.Send("QUIT\r\n"), 0);  // not connected
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  EXPECT_EQ(client.SendAsLines("abcdefghij", 10, 4), 10);
  EXPECT_EQ(client.Send("QUIT\r\n"), 6);
  EXPECT_EQ(client.Send("xyz", 2), 2);
  EXPECT_EQ(client.WaitForSend(1, 0), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(NetClientListen, AcceptsAConnectionOnTheListeningPort) {
  ProbeClient server;
  ASSERT_EQ(server.WaitForConnect(0, 1, 2, "127.0.0.1"), kNetOk);
  unsigned port = server.GetListenPort();
  ASSERT_NE(port, 0u);
  EXPECT_EQ(server.WaitForConnect(0, 1, 2, nullptr), kNetSocketInUse);
  EXPECT_EQ(server.WaitForAccept(0), 1);  // nobody yet

  // The same port can't be taken twice; the failed listener leaves nothing.
  ProbeClient rival;
  EXPECT_EQ(rival.WaitForConnect(port, 1, 2, "127.0.0.1"), kNetBindFailed);
  EXPECT_EQ(rival.WaitForConnect(0, 1, 2, nullptr), kNetOk);

  CNetClient caller;
  ASSERT_EQ(caller.Connect(port, "127.0.0.1", 5), kNetOk);
  ASSERT_EQ(server.WaitForAccept(5), 0);
  ASSERT_EQ(server.AcceptConnection(), kNetOk);
  EXPECT_STREQ(server.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(server.GetRemotePort(), caller.GetLocalPort());
  EXPECT_EQ(server.GetLocalPort(), port);

  EXPECT_EQ(caller.Send("220 data\r\n"), 10);
  EXPECT_EQ(Line(server), "220 data\r\n");
  EXPECT_EQ(server.Send("bytes\r\n"), 7);
  char line[32];
  EXPECT_EQ(caller.ReceiveLine(line, sizeof line, 5), 7);
  EXPECT_STREQ(line, "bytes\r\n");

  EXPECT_EQ(server.CloseConnection(), 0);
  EXPECT_EQ(server.GetListenPort(), 0u);
  EXPECT_EQ(server.GetRemotePort(), 0u);
  EXPECT_STREQ(server.GetRemoteAddress(), "");
  EXPECT_EQ(caller.ReceiveLine(line, sizeof line, 5), 0);
  EXPECT_FALSE(caller.IsConnected());
  EXPECT_EQ(server.AcceptConnection(), kNetFailed);  // no listener any more
}

TEST(NetClientTimeOuts, AreStoredAndAppliedAtConnect) {
  ProbeClient client;
  EXPECT_EQ(client.GetReceiveTimeOut(), 30000);
  EXPECT_EQ(client.SetReceiveTimeOut(1200), 0);
  EXPECT_EQ(client.SetSendTimeOut(2500), 0);
  ScriptedPeer peer(std::vector<Step>{});
  ASSERT_EQ(ConnectTo(client, peer), kNetOk);
  timeval limit{};
  socklen_t size = sizeof limit;
  ASSERT_EQ(getsockopt(client.Socket(), SOL_SOCKET, SO_RCVTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, 1200);
  ASSERT_EQ(getsockopt(client.Socket(), SOL_SOCKET, SO_SNDTIMEO, &limit, &size), 0);
  EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, 2500);
  EXPECT_EQ(client.SetBlockingMode(1), 0);
  EXPECT_EQ(client.GetBlockingMode(), 1);
  EXPECT_EQ(client.SetBlockingMode(0), 0);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

}  // namespace
}  // namespace corvane
