// The socket client and its TLS layer against scripted peers: lines and
// blocks in, sources out, connect, listen, the result texts; TLS sessions,
// every refusal of a certificate, servers that do not speak TLS, and the
// upgrade of a plain connection (POP3S and SMTP reach certificates only here).
#include "protocol/net_client.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "protocol/net_error.h"
#include "stream/buffer_data_source.h"
#include "stream/file_data_source.h"
#include "support/scoped_env.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Counts the layer's receives, records the codes that left an operation,
// and answers the abort and send-status hooks as the test says.
class ProbeClient : public CNetClient {
 public:
  // With a CA file: TLS on, certificates checked as `validation` says.
  explicit ProbeClient(const char* caFile = nullptr, int validation = 2) {
    SetSecurityEnabled(caFile != nullptr);
    SetCertValidation(validation);
    if (caFile && *caFile) SetTrustedCaFile(caFile);
  }
  int SocketRecv(int socket, char* buffer, int length, int flags) override {
    ++receives;
    return CNetClient::SocketRecv(socket, buffer, length, flags);
  }
  int OnError(int code) override { return codes.push_back(code), code; }
  bool IsAborted() override { return aborted; }
  bool SendFileStatus(long bytesSoFar) override {
    lastStatus = bytesSoFar;
    return bytesSoFar < stopSendingAt;
  }
  // One ReceiveLine, whose text must come NUL-terminated.
  std::string Line(int room = 1024, int timeout = 5) {
    std::vector<char> buffer(static_cast<size_t>(room) + 8, 'X');
    int n = std::max(ReceiveLine(buffer.data(), room, timeout), 0);
    EXPECT_EQ(buffer[static_cast<size_t>(n)], '\0') << "not NUL-terminated";
    return std::string(buffer.data(), static_cast<size_t>(n));
  }
  using CNetClient::Socket;
  using CSecureSocketClient::ReadAheadBytes;

  int receives = 0;
  std::vector<int> codes;
  bool aborted = false;
  long lastStatus = 0, stopSendingAt = 1L << 40;
};

class NetClientTest : public ::testing::Test {
 protected:
  int Connect(const ScriptedPeer& peer) { return client_.Connect(peer.port(), "127.0.0.1", 5); }
  ProbeClient client_;
  TempDir dir_;
  TestCa ca_{dir_.path()};
  const char* trusted_ = ca_.CaFile().c_str();
  SslCtxPtr server_ = ServerContext(ca_.IssueLocalhost());
};

TEST_F(NetClientTest, ReceiveLineCutsAtTheRoomAndLosesNoByte) {
  std::string longLine;
  for (int i = 0; i < 2000; ++i) longLine += static_cast<char>('a' + i % 26);
  ScriptedPeer peer({Send(longLine + "\r\nabc\r\nde\n+OK part"), Close()});
  ASSERT_EQ(Connect(peer), kNetOk);
  char small[4] = {'X', 'X', 'X', 'X'};
  EXPECT_EQ(client_.ReceiveLine(small, 1, 5) + client_.ReceiveLine(small, 0, 5), 0);
  EXPECT_EQ(client_.receives, 0);  // no room: nothing taken or read
  client_.aborted = true;
  EXPECT_EQ(client_.Line(), "");
  client_.aborted = false;
  std::string first = client_.Line();
  ASSERT_EQ(first.size(), 1023u);
  EXPECT_EQ(first + client_.Line(), longLine + "\r\n");
  EXPECT_EQ(client_.Line(6), "abc\r\n");  // room 5: the whole line just fits
  EXPECT_EQ(client_.Line(6), "de\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_TRUE(client_.IsConnected());     // closed, but a line is still unread
  EXPECT_EQ(client_.Line(), "+OK part");  // the close ends a line without its end
  EXPECT_EQ(client_.Line(), "");
  EXPECT_FALSE(client_.IsConnected());
  for (bool reset : {false, true}) {
    ScriptedPeer ended({Close(reset)});
    ProbeClient client;
    ASSERT_EQ(client.Connect(ended.port(), "127.0.0.1", 5), kNetOk);
    EXPECT_TRUE(ended.Finish()) << ended.Errors();
    EXPECT_EQ(client.WaitForReceive(5, 0), 0);
    EXPECT_FALSE(client.IsConnected()) << reset;
  }
}

TEST_F(NetClientTest, TimeOutsKeepLateBytesAndNoWaitMeansTheSocketTimeOut) {
  EXPECT_EQ(client_.GetReceiveTimeOut(), 30000);
  ASSERT_EQ(client_.SetReceiveTimeOut(1200) + client_.SetSendTimeOut(2500), 0);
  ScriptedPeer peer({Pause(1500), Send("+OK late\r\n")});
  ASSERT_EQ(Connect(peer), kNetOk);
  for (auto [option, ms] : {std::pair{SO_RCVTIMEO, 1200}, std::pair{SO_SNDTIMEO, 2500}}) {
    timeval limit{};
    socklen_t size = sizeof limit;
    ASSERT_EQ(getsockopt(client_.Socket(), SOL_SOCKET, option, &limit, &size), 0);
    EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, ms);  // applied at connect
  }
  auto start = Clock::now();
  EXPECT_EQ(client_.Line(1024, 1), "");
  EXPECT_GE(Clock::now() - start, milliseconds(900));
  ASSERT_EQ(client_.SetReceiveTimeOut(100), 0);
  EXPECT_EQ(client_.Line(1024, 0), "");
  ASSERT_EQ(client_.SetReceiveTimeOut(5000), 0);
  EXPECT_EQ(client_.Line(1024, 0), "+OK late\r\n");
}

TEST_F(NetClientTest, ASignalDuringAReceiveDoesNotFailIt) {
  struct sigaction action = {}, old = {};
  action.sa_handler = [](int) {};  // no SA_RESTART: the blocked receive sees EINTR
  ASSERT_EQ(sigaction(SIGUSR1, &action, &old), 0);
  ScriptedPeer peer({Pause(400), Send("+OK\r\n"), Close()});
  ASSERT_EQ(Connect(peer), kNetOk);
  std::atomic<bool> done{false};
  std::thread signaller([&done, target = pthread_self()] {
    for (; !done; std::this_thread::sleep_for(milliseconds(20))) pthread_kill(target, SIGUSR1);
  });
  char buffer[16] = {};
  int n = client_.SocketRecv(client_.Socket(), buffer, sizeof buffer, 0);
  done = true;
  signaller.join();
  sigaction(SIGUSR1, &old, nullptr);
  EXPECT_EQ(std::string(buffer, static_cast<size_t>(std::max(n, 0))), "+OK\r\n");
  errno = EINTR;  // the end of the stream is no reason to receive again
  EXPECT_EQ(client_.SocketRecv(client_.Socket(), buffer, sizeof buffer, 0), 0);
}

TEST_F(NetClientTest, ReadAheadServesLinesBlocksAndWritersInOrder) {
  std::string listing;
  for (int i = 0; i < 5000; ++i) listing += std::to_string(i) + " some message line\r\n";
  ScriptedPeer peer(
      {Send(listing + "HDR\r\nBODY"), Pause(100), Send("BYTES" + std::string(1000, 'q'))});
  ASSERT_EQ(Connect(peer), kNetOk);
  std::string got = client_.Line();
  EXPECT_TRUE(client_.IsDataWaiting());  // read ahead, no longer in the socket
  EXPECT_EQ(client_.WaitForReceive(0, 0), 0);
  for (int i = 1; i < 5000; ++i) got += client_.Line();
  EXPECT_EQ(got, listing);
  EXPECT_LT(client_.receives, 5000 / 20);
  EXPECT_EQ(client_.Line(), "HDR\r\n");
  char block[700];
  ASSERT_EQ(client_.ReceiveBlock(block, 9, 5), 9);
  EXPECT_EQ(std::string(block, 9), "BODYBYTES");
  BufferDataSource dest(4096);
  ASSERT_EQ(dest.Open(DataSource::kOpenWrite), 0);
  DataSourceWriter writer(dest, 700);
  EXPECT_EQ(client_.ReceiveToWriter(writer, 5, 300), kNetOk);
  EXPECT_EQ(dest.Data(), std::string(300, 'q'));
  EXPECT_EQ(client_.ReceiveBlock(block, 700, 5), 700);  // the rest stayed for the next reader
  EXPECT_FALSE(client_.IsDataWaiting());
  EXPECT_EQ(client_.WaitForReceive(0, 200000), 1);
  EXPECT_EQ(client_.ReceiveToWriter(writer, 1), kNetTimeout);
  EXPECT_EQ(ProbeClient().ReceiveToWriter(writer, 1), kNetSocketNotOpen);
  for (size_t room : {size_t{4096}, size_t{100}}) {  // 100: the writer fails
    ScriptedPeer ending({Send(std::string(1000, 'q')), Close()});
    ProbeClient reader;
    ASSERT_EQ(reader.Connect(ending.port(), "127.0.0.1", 5), kNetOk);
    BufferDataSource target(static_cast<int64_t>(room));
    ASSERT_EQ(target.Open(DataSource::kOpenWrite), 0);
    DataSourceWriter into(target);
    EXPECT_EQ(reader.ReceiveToWriter(into, 5), room > 1000 ? kNetOk : kNetDataSourceWriteFailed);
    EXPECT_EQ(target.Data(), room > 1000 ? std::string(1000, 'q') : target.Data());
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
  EXPECT_GE(Clock::now() - start, milliseconds(900));
  EXPECT_EQ(client_.Socket(), -1);
  ::close(listener);
  ScriptedPeer peer({Send("+OK\r\n"), Expect("STAT\r\n"), Send("+OK 0 0\r\n")});
  ASSERT_EQ(client_.Connect(peer.port(), "joe@localhost", -1), kNetOk);  // blocking connect
  EXPECT_EQ(client_.Connect(peer.port(), "127.0.0.1", 5), kNetSocketInUse);
  EXPECT_EQ(client_.codes.back(), kNetSocketInUse);
  EXPECT_EQ(client_.Line(), "+OK\r\n");  // the first connection is left alone
  EXPECT_EQ(client_.Send("STAT\r\n"), 6);
  EXPECT_EQ(client_.Line(), "+OK 0 0\r\n");
  EXPECT_EQ(client_.GetRemotePort(), peer.port());
  EXPECT_STREQ(client_.GetRemoteAddress(), "127.0.0.1");
  EXPECT_EQ(client_.GetLocalAddress(), "127.0.0.1");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(peer.Connections(), 1);
}

TEST_F(NetClientTest, SendsGoOutByteExactAndStopWhenTold) {
  std::string content;
  for (int i = 0; i < 70000; ++i) content += static_cast<char>((i * 7 + i / 255) % 256);
  WriteFile(dir_ / "message.eml", content += "\r\n.\r\nlast line without end");
  FileDataSource source(dir_ / "message.eml"), missing(dir_ / "missing");
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
  EXPECT_EQ(client_.WaitForConnect(0, 1, 2, nullptr), kNetSocketInUse);
  EXPECT_EQ(client_.WaitForAccept(0), 1);  // nobody yet
  ProbeClient rival, caller;
  EXPECT_EQ(rival.WaitForConnect(port, 1, 2, "127.0.0.1"), kNetBindFailed);
  EXPECT_EQ(rival.WaitForConnect(0, 1, 2, nullptr), kNetOk);  // the failure left nothing
  ASSERT_EQ(caller.Connect(port, "127.0.0.1", 5), kNetOk);
  ASSERT_EQ(client_.WaitForAccept(5) + client_.AcceptConnection(), 0);
  EXPECT_EQ(client_.GetRemotePort(), caller.GetLocalPort());
  EXPECT_EQ(client_.GetLocalPort(), port);
  EXPECT_EQ(caller.Send("220 data\r\n"), 10);
  EXPECT_EQ(client_.Line(), "220 data\r\n");
  EXPECT_EQ(client_.CloseConnection(), 0);
  EXPECT_EQ(client_.GetListenPort(), 0u);
  EXPECT_STREQ(client_.GetRemoteAddress(), "");
  EXPECT_EQ(caller.Line(), "");
  EXPECT_EQ(client_.AcceptConnection(), kNetFailed);  // no listener any more
}

TEST(NetErrorTest, EveryCodeHasATextAndOthersTheBoundsText) {
  for (int code = 0; code < CNetError::kCodeCount; ++code) {
    EXPECT_EQ(std::string(CNetError::GetErrorString(code)).find("CNetError::"), std::string::npos);
  }
  EXPECT_STREQ(CNetError::GetErrorString(kNetTimeout), "A timeout occurred.");
  for (int code : {-1, CNetError::kCodeCount, -2147483647 - 1, 2147483647}) {
    EXPECT_STREQ(CNetError::GetErrorString(code),
                 "CNetError::GetErrorString: Array out of bounds!");
  }
}

TEST_F(NetClientTest, AVerifiedSessionCarriesLinesBothWaysAndHoldsWhatTheLayerDecrypted) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    ScriptedPeer peer({TlsAccept(server_), Send("+OK one\r\n+OK two\r\n"), Expect("USER joe\r\n"),
                       Send("+OK\r\n")});
    ProbeClient client(trusted_);
    ASSERT_EQ(client.Connect(peer.port(), host, 5), kNetOk);
    EXPECT_TRUE(client.IsSessionSecure());
    EXPECT_TRUE(client.IsConnected());  // session tickets are not the end of the stream
    ASSERT_EQ(client.WaitForReceive(5, 0), 0);
    // A peek leaves the bytes; a short read leaves the record's rest inside
    // the layer, where only the layer can see it.
    int socket = client.Socket();
    char buffer[32] = {};
    ASSERT_EQ(client.SocketRecv(socket, buffer, 3, MSG_PEEK), 3);
    ASSERT_EQ(client.SocketRecv(socket, buffer + 3, 9, 0), 9);
    EXPECT_EQ(std::string(buffer, 12), "+OK+OK one\r\n");
    EXPECT_TRUE(client.SocketIsDataWaiting(socket));
    EXPECT_EQ(client.SocketWaitForReceive(socket, 0, 0), 0);
    EXPECT_EQ(client.SocketRecv(socket, buffer, sizeof buffer, 0), 9);
    EXPECT_EQ(std::string(buffer, 9), "+OK two\r\n");
    EXPECT_FALSE(client.SocketIsDataWaiting(socket));
    EXPECT_EQ(client.SocketWaitForReceive(socket, 0, 200000), 1);
    EXPECT_EQ(client.Send("USER joe\r\n"), 10);
    EXPECT_EQ(client.Line(), "+OK\r\n");
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(client.WaitForReceive(5, 0), 0);  // the peer's close_notify ends the stream
    EXPECT_FALSE(client.IsConnected());
    EXPECT_EQ(client.CloseConnection(), 0);
    EXPECT_FALSE(client.IsSessionSecure());
    EXPECT_EQ(peer.Received(), "USER joe\r\n");
  }
}

TEST_F(NetClientTest, EachCertificateFaultHasItsCodeAndNothingGoesOutInTheClear) {
  TestCa stranger(dir_.path(), "Stranger CA");
  TestCert other = ca_.Issue("mx.example.org", "DNS:mx.example.org");
  const char* ca = trusted_;
  const struct {
    TestCert cert;
    const char *host, *trusted;  // the CA file the client is given ("": none)
    int code;                    // with validation 2; kinds 1 and 0 take what they do not check
    int passesAtKind;
  } cases[] = {
      {stranger.IssueLocalhost(), "localhost", ca, kNetCertTrustFailed, 0},
      {ca_.IssueLocalhost(), "localhost", "", kNetCertTrustFailed, 0},
      {other, "localhost", ca, kNetCertChainFailed, 1},
      {other, "127.0.0.1", ca, kNetCertChainFailed, 1},
      {ca_.Issue("localhost", "DNS:localhost", -30, -1), "localhost", ca, kNetCertDateInvalid, 0},
      {ca_.Issue("localhost", "DNS:localhost", 2, 30), "localhost", ca, kNetCertDateInvalid, 0}};
  for (const auto& c : cases) {
    SCOPED_TRACE(std::string(c.host) + " code " + std::to_string(c.code));
    SslCtxPtr ctx = ServerContext(c.cert);
    ScriptedPeer peer({TlsAccept(ctx, Handshake::kMustFail), ExpectClose()});
    ProbeClient client(c.trusted);
    EXPECT_EQ(client.Connect(peer.port(), c.host, 5), c.code);
    EXPECT_EQ(client.LastSecurityError(), c.code);
    EXPECT_EQ(client.Socket(), -1);
    EXPECT_EQ(client.Send("USER joe\r\n"), 0);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    ScriptedPeer lenient({TlsAccept(ctx), Send("+OK\r\n")});
    ProbeClient taking(c.trusted, c.passesAtKind);
    ASSERT_EQ(taking.Connect(lenient.port(), c.host, 5), kNetOk);
    EXPECT_EQ(taking.Line(), "+OK\r\n");
  }
  ScriptedPeer peer({TlsAccept(server_), Send("+OK\r\n")});
  ScopedEnv env("SSL_CERT_FILE", trusted_);
  ProbeClient client("");
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  EXPECT_EQ(client.Line(), "+OK\r\n");
}

TEST_F(NetClientTest, AServerThatDoesNotSpeakTlsIsToldFromABrokenHandshake) {
  // A TLS record starts with a content type from 20 to 24 and major version 3.
  const std::pair<std::string, int> cases[] = {
      {"+OK hello\r\n", kNetServerNoTls},
      {"", kNetServerNoTls},
      {std::string("\x13\x03\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x14\x03\x03\x00\x01\x01", 6), kNetHandshakeFailed},
      {std::string("\x18\x03\x03\x00\x01\x01", 6), kNetHandshakeFailed},
      {std::string("\x19\x03\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x16\x01\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x15\x03\x03\x00\x02\x02\x28", 7), kNetHandshakeFailed},
      {"\x16", kNetHandshakeFailed}};
  for (const auto& [first, code] : cases) {
    ScriptedPeer peer({Send(first), Close()});
    EXPECT_EQ(ProbeClient(trusted_).Connect(peer.port(), "localhost", 5), code) << Printable(first);
  }
  ScriptedPeer silent({Drain(10000)});  // the connect's time-out ends the handshake
  auto start = Clock::now();
  EXPECT_EQ(ProbeClient(trusted_).Connect(silent.port(), "localhost", 1), kNetHandshakeFailed);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(8));
  CSecureSocketClient layer;  // no socket at all
  EXPECT_EQ(layer.GetCertValidation(), CSecureSocket::kCertChainAndHost);
  layer.SetSecurityEnabled(true);
  EXPECT_EQ(layer.SocketOnConnected(-1, "localhost"), kNetHandshakeFailed);
  layer.SetHandshakeTimeOut(1);
  layer.SetHandshakeTimeOut(0);  // none: the default again
  EXPECT_EQ(layer.GetHandshakeTimeOut(), CSecureSocket::kDefaultHandshakeTimeOutMs);
}

TEST_F(NetClientTest, AnUpgradeStartsOnlyOnACleanConnection) {
  // Bytes that came in the clear after the go-ahead would speak inside the
  // session: with them, the handshake does not even start.
  for (bool injected : {false, true}) {
    SCOPED_TRACE(injected ? "bytes injected" : "clean");
    ScriptedPeer peer({Send("+OK ready\r\n"), Expect("STLS\r\n"),
                       Send(injected ? "+OK begin\r\n+OK injected\r\n" : "+OK begin\r\n"),
                       injected ? ExpectClose() : TlsAccept(server_),
                       injected ? Pause(0) : Expect("USER joe\r\n")});
    ProbeClient client(trusted_);
    client.SetSecurityEnabled(false);
    ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
    EXPECT_EQ(client.Line(), "+OK ready\r\n");
    client.SetSecurityEnabled(true);  // but no session yet: still in the clear
    EXPECT_EQ(client.Send("STLS\r\n"), 6);
    EXPECT_EQ(client.Line(), "+OK begin\r\n");
    EXPECT_EQ(client.ReadAheadBytes() > 0, injected);
    EXPECT_EQ(client.CSecureSocketClient::SocketOnConnected(client.Socket(), "localhost"),
              injected ? kNetHandshakeFailed : kNetOk);
    EXPECT_EQ(client.IsSessionSecure(), !injected);
    EXPECT_EQ(injected ? 10 : client.Send("USER joe\r\n"), 10);
    client.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

}  // namespace
}  // namespace corvane
