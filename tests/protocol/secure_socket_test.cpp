// The TLS layer under the socket client, against scripted TLS servers whose
// certificates come from a test CA: sessions, every refusal of a
// certificate, servers that do not speak TLS, and the upgrade of a plain
// connection. POP3S and SMTP reach the server's certificate only through here.
#include "protocol/secure_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <string>
#include <vector>

#include "protocol/net_client.h"
#include "protocol/secure_socket_client.h"
#include "stream/file_data_source.h"
#include "support/scoped_env.h"
#include "support/scripted_peer.h"
#include "support/temp_dir.h"
#include "support/tls_test_ca.h"

namespace corvane {
namespace {

using namespace test;

// A client that trusts `caFile` and reaches the layer's own operations.
class TlsClient : public CNetClient {
 public:
  explicit TlsClient(const std::string& caFile, int validation = 2) {
    SetSecurityEnabled(true);
    SetCertValidation(validation);
    if (!caFile.empty()) SetTrustedCaFile(caFile.c_str());
  }
  using CNetClient::Socket;
  using CSecureSocketClient::ReadAheadBytes;

  std::string Line(int timeout = 5) {
    char buffer[1024];
    int n = ReceiveLine(buffer, sizeof buffer, timeout);
    return std::string(buffer, static_cast<size_t>(std::max(n, 0)));
  }
};

class SecureSocketTest : public ::testing::Test {
 protected:
  TempDir dir_;
  TestCa ca_{dir_.path()};
  TestCert server_ = ca_.IssueLocalhost();
};

TEST_F(SecureSocketTest, AVerifiedSessionCarriesLinesBothWaysToItsEnd) {
  for (const char* host : {"127.0.0.1", "localhost"}) {
    SCOPED_TRACE(host);
    ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send("+OK secure\r\n"),
                       Expect("USER joe\r\n"), Send("+OK\r\n"), ExpectClose()});
    TlsClient client(ca_.CaFile());
    ASSERT_EQ(client.Connect(peer.port(), host, 5), kNetOk);
    EXPECT_TRUE(client.IsSessionSecure());
    EXPECT_TRUE(client.IsConnected());  // session tickets are not the end of the stream
    EXPECT_EQ(client.Line(), "+OK secure\r\n");
    EXPECT_EQ(client.Send("USER joe\r\n"), 10);
    EXPECT_EQ(client.Line(), "+OK\r\n");
    EXPECT_EQ(client.CloseConnection(), 0);
    EXPECT_FALSE(client.IsSessionSecure());
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
    EXPECT_EQ(peer.Received(), "USER joe\r\n");
  }
}

TEST_F(SecureSocketTest, EachCertificateFaultHasItsCodeAndNothingGoesOutInTheClear) {
  TestCa stranger(dir_.path(), "Stranger CA");
  struct Case {
    const char* what;
    TestCert cert;
    const char* host;
    std::string trusted;  // the CA file the client is given
    int code;             // with validation 2; kinds 1 and 0 take what they do not check
    int passesAtKind;
  };
  Case cases[] = {
      {"untrusted CA", stranger.IssueLocalhost(), "localhost", ca_.CaFile(), kNetCertTrustFailed,
       0},
      {"CA only in SSL_CERT_FILE, unset", ca_.IssueLocalhost(), "localhost", "",
       kNetCertTrustFailed, 0},
      {"other host name", ca_.Issue("mail.example.org", "DNS:mail.example.org"), "localhost",
       ca_.CaFile(), kNetCertChainFailed, 1},
      {"other address", ca_.Issue("mail.example.org", "DNS:mail.example.org"), "127.0.0.1",
       ca_.CaFile(), kNetCertChainFailed, 1},
      {"expired", ca_.Issue("localhost", "DNS:localhost", -30, -1), "localhost", ca_.CaFile(),
       kNetCertDateInvalid, 0},
      {"not yet valid", ca_.Issue("localhost", "DNS:localhost", 2, 30), "localhost", ca_.CaFile(),
       kNetCertDateInvalid, 0},
  };
  for (Case& c : cases) {
    SCOPED_TRACE(c.what);
    SslCtxPtr ctx = ServerContext(c.cert);
    ScriptedPeer peer({TlsAccept(ctx, Handshake::kMustFail), ExpectClose()});
    TlsClient client(c.trusted);
    EXPECT_EQ(client.Connect(peer.port(), c.host, 5), c.code);
    EXPECT_EQ(client.LastSecurityError(), c.code);
    EXPECT_EQ(client.Socket(), -1);
    EXPECT_EQ(client.Send("USER joe\r\n"), 0);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();

    ScriptedPeer lenient({TlsAccept(ctx), Send("+OK\r\n")});
    TlsClient taking(c.trusted, c.passesAtKind);
    ASSERT_EQ(taking.Connect(lenient.port(), c.host, 5), kNetOk);
    EXPECT_EQ(taking.Line(), "+OK\r\n");
    EXPECT_TRUE(lenient.Finish()) << lenient.Errors();
  }
  ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send("+OK\r\n")});
  ScopedEnv env("SSL_CERT_FILE", ca_.CaFile());
  TlsClient client("");
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  EXPECT_EQ(client.Line(), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, AServerThatDoesNotSpeakTlsIsToldFromABrokenHandshake) {
  // A TLS record starts with a content type from 20 to 24 and major version 3.
  struct Case {
    std::string first;
    int code;
  } cases[] = {
      {"+OK hello\r\n", kNetServerNoTls},
      {"", kNetServerNoTls},
      {std::string("\x13\x03\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x14\x03\x03\x00\x01\x01", 6), kNetHandshakeFailed},
      {std::string("\x18\x03\x03\x00\x01\x01", 6), kNetHandshakeFailed},
      {std::string("\x19\x03\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x16\x01\x03\x00\x01\x01", 6), kNetServerNoTls},
      {std::string("\x15\x03\x03\x00\x02\x02\x28", 7), kNetHandshakeFailed},
      {"\x16", kNetHandshakeFailed},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(Printable(c.first));
    ScriptedPeer peer({Send(c.first), Close()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), c.code);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // A silent one: the connect's time-out ends the handshake.
  ScriptedPeer peer({Drain(10000)});
  TlsClient client(ca_.CaFile());
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Connect(peer.port(), "localhost", 1), kNetHandshakeFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, LargeTransfersArriveIntactBothWays) {
  std::string text;
  for (int i = 0; text.size() < 3 * 1024 * 1024; ++i) {
    text += "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 97), '=') + "\r\n";
  }
  std::string upload(300000, '\0');
  for (size_t i = 0; i < upload.size(); ++i) upload[i] = static_cast<char>(i * 31 % 251);
  ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send(text + ".\r\n"), Expect(upload, 20000),
                     Send("+OK got it\r\n")});
  TlsClient client(ca_.CaFile());
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  std::string got;
  for (std::string line; (line = client.Line(10)) != ".\r\n";) {
    ASSERT_FALSE(line.empty()) << "after " << got.size() << " bytes";
    got += line;
  }
  EXPECT_TRUE(got == text) << "received " << got.size() << " of " << text.size() << " bytes";
  WriteFile(dir_ / "upload.bin", upload);  // out in 255-byte pieces, a record each
  FileDataSource source(dir_ / "upload.bin");
  EXPECT_EQ(client.SendFromDataSource(source), kNetOk);
  EXPECT_EQ(client.Line(20), "+OK got it\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, DecryptedBytesHeldByTheLayerCountAsWaiting) {
  ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send("+OK one\r\n+OK two\r\n")});
  TlsClient client(ca_.CaFile());
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  ASSERT_EQ(client.WaitForReceive(5, 0), 0);
  int socket = client.Socket();
  char buffer[32] = {};
  // A peek leaves the bytes; a short read leaves the record's rest inside
  // the layer, where only the layer can see it.
  ASSERT_EQ(client.SocketRecv(socket, buffer, 3, MSG_PEEK), 3);
  EXPECT_EQ(std::string(buffer, 3), "+OK");
  ASSERT_EQ(client.SocketRecv(socket, buffer, 9, 0), 9);
  EXPECT_EQ(std::string(buffer, 9), "+OK one\r\n");
  EXPECT_TRUE(client.SocketIsDataWaiting(socket));
  EXPECT_EQ(client.SocketWaitForReceive(socket, 0, 0), 0);
  EXPECT_EQ(client.SocketRecv(socket, buffer, sizeof buffer, 0), 9);
  EXPECT_EQ(std::string(buffer, 9), "+OK two\r\n");
  EXPECT_FALSE(client.SocketIsDataWaiting(socket));
  EXPECT_EQ(client.SocketWaitForReceive(socket, 0, 200000), 1);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
  EXPECT_EQ(client.WaitForReceive(5, 0), 0);  // the peer's close_notify ends the stream
  EXPECT_FALSE(client.IsConnected());
}

TEST_F(SecureSocketTest, AnUpgradeStartsOnlyOnACleanConnection) {
  // Bytes that came in the clear after the go-ahead would speak inside the
  // session: with them, the handshake does not even start.
  for (bool injected : {false, true}) {
    SCOPED_TRACE(injected ? "bytes injected" : "clean");
    std::string goAhead = injected ? "+OK begin\r\n+OK injected\r\n" : "+OK begin\r\n";
    ScriptedPeer peer({Send("+OK ready\r\n"), Expect("STLS\r\n"), Send(goAhead),
                       injected ? ExpectClose() : TlsAccept(ServerContext(server_)),
                       injected ? Pause(0) : Expect("USER joe\r\n")});
    TlsClient client(ca_.CaFile());
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
    if (!injected) {
      EXPECT_EQ(client.Send("USER joe\r\n"), 10);
    }
    client.CloseConnection();
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST(SecureSocketSettings, NoSecurityNoHandshakeAndTheTimeOutFallsBack) {
  CSecureSocketClient layer;
  EXPECT_FALSE(layer.GetSecurityEnabled());
  EXPECT_EQ(layer.GetCertValidation(), CSecureSocket::kCertChainAndHost);
  EXPECT_EQ(layer.SocketOnConnected(-1, "localhost"), kNetOk);
  layer.SetSecurityEnabled(true);
  EXPECT_EQ(layer.SocketOnConnected(-1, "localhost"), kNetHandshakeFailed);
  layer.SetHandshakeTimeOut(1);
  EXPECT_EQ(layer.GetHandshakeTimeOut(), 1);
  layer.SetHandshakeTimeOut(0);
  EXPECT_EQ(layer.GetHandshakeTimeOut(), CSecureSocket::kDefaultHandshakeTimeOutMs);
}

}  // namespace
}  // namespace corvane
