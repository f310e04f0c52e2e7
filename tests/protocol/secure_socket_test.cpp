#include "protocol/secure_socket.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <chrono>
#include <cstdlib>
#include <optional>
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

// A client that trusts the test CA and reaches the layer's own operations.
class TlsClient : public CNetClient {
 public:
  explicit TlsClient(const std::string& caFile = "", int validation = 2) {
    SetSecurityEnabled(true);
    SetCertValidation(validation);
    if (!caFile.empty()) SetTrustedCaFile(caFile.c_str());
  }
  using CNetClient::Socket;
  using CSecureSocketClient::ReadAheadBytes;

  std::string Line(int maxLength = 1024, int timeout = 5) {
    std::vector<char> buffer(static_cast<size_t>(maxLength));
    int n = ReceiveLine(buffer.data(), maxLength, timeout);
    return std::string(buffer.data(), static_cast<size_t>(std::max(n, 0)));
  }
};

using test::ScopedEnv;

class SecureSocketTest : public ::testing::Test {
 protected:
  SecureSocketTest() : ca_(dir_.path()), server_(ca_.IssueLocalhost()) {}

  TempDir dir_;
  TestCa ca_;
  TestCert server_;
};

TEST_F(SecureSocketTest, VerifiedSessionCarriesLinesBothWays) {
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

TEST_F(SecureSocketTest, TrustStoreFollowsTheCertFileVariable) {
  {
    ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send("+OK\r\n")});
    ScopedEnv env("SSL_CERT_FILE", ca_.CaFile());
    TlsClient client;
    ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
    EXPECT_EQ(client.Line(), "+OK\r\n");
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  ScriptedPeer peer({TlsAccept(ServerContext(server_), Handshake::kMustFail), ExpectClose()});
  TlsClient client;  // the variable is gone again: the test CA is unknown
  EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetCertTrustFailed);
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, UntrustedServerGetsNothingInTheClear) {
  TestCa stranger(dir_.path(), "Stranger CA");
  ScriptedPeer peer(
      {TlsAccept(ServerContext(stranger.IssueLocalhost()), Handshake::kMustFail), ExpectClose()});
  TlsClient client(ca_.CaFile());
  EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetCertTrustFailed);
  EXPECT_EQ(client.LastSecurityError(), kNetCertTrustFailed);
  EXPECT_EQ(client.Socket(), -1);
  EXPECT_EQ(client.Send("USER joe\r\n"), 0);
  EXPECT_FALSE(client.IsConnected());
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, HostNameAndAddressMustMatchTheCertificate) {
  TestCert other = ca_.Issue("mail.example.org", "DNS:mail.example.org");
  {
    ScriptedPeer peer({TlsAccept(ServerContext(other), Handshake::kMustFail), ExpectClose()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetCertChainFailed);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    ScriptedPeer peer({TlsAccept(ServerContext(other), Handshake::kMustFail), ExpectClose()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "127.0.0.1", 5), kNetCertChainFailed);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    // Validation kind 1 checks the chain only.
    ScriptedPeer peer({TlsAccept(ServerContext(other)), Send("+OK\r\n")});
    TlsClient client(ca_.CaFile(), 1);
    ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
    EXPECT_EQ(client.Line(), "+OK\r\n");
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST_F(SecureSocketTest, CertificatesOutOfTheirDatesAreRefused) {
  TestCert expired = ca_.Issue("localhost", "DNS:localhost", -30, -1);
  TestCert future = ca_.Issue("localhost", "DNS:localhost", 2, 30);
  for (const TestCert* cert : {&expired, &future}) {
    ScriptedPeer peer({TlsAccept(ServerContext(*cert), Handshake::kMustFail), ExpectClose()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetCertDateInvalid);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  // Validation kind 0 takes anything.
  ScriptedPeer peer({TlsAccept(ServerContext(expired)), Send("+OK\r\n")});
  TlsClient client("", 0);
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  EXPECT_EQ(client.Line(), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, ServerWithoutTlsIsRecognised) {
  {
    ScriptedPeer peer({Send("+OK hello\r\n"), Drain()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetServerNoTls);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
  {
    ScriptedPeer peer({Close()});
    TlsClient client(ca_.CaFile());
    EXPECT_EQ(client.Connect(peer.port(), "localhost", 5), kNetServerNoTls);
    EXPECT_TRUE(peer.Finish()) << peer.Errors();
  }
}

TEST_F(SecureSocketTest, SilentServerEndsTheHandshakeAtTheConnectTimeOut) {
  ScriptedPeer peer({Drain(10000)});
  TlsClient client(ca_.CaFile());
  auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(client.Connect(peer.port(), "localhost", 1), kNetHandshakeFailed);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, LargeTransfersArriveIntact) {
  std::string text;
  for (int i = 0; text.size() < 5 * 1024 * 1024; ++i) {
    text += "line " + std::to_string(i) + std::string(static_cast<size_t>(i % 97), '=') + "\r\n";
  }
  std::string upload(300000, '\0');
  for (size_t i = 0; i < upload.size(); ++i) upload[i] = static_cast<char>(i * 31 % 251);

  ScriptedPeer peer({TlsAccept(ServerContext(server_)), Send(text + ".\r\n"), Expect(upload, 20000),
                     Send("+OK got it\r\n")});
  TlsClient client(ca_.CaFile());
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  std::string got;
  for (;;) {
    std::string line = client.Line(1024, 10);
    ASSERT_FALSE(line.empty()) << "after " << got.size() << " bytes";
    if (line == ".\r\n") break;
    got += line;
  }
  EXPECT_TRUE(got == text) << "received " << got.size() << " of " << text.size() << " bytes";

  // Out in 255-byte pieces, each its own record.
  WriteFile(dir_ / "upload.bin", upload);
  FileDataSource source(dir_ / "upload.bin");
  EXPECT_EQ(client.SendFromDataSource(source), kNetOk);
  EXPECT_EQ(client.Line(1024, 20), "+OK got it\r\n");
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
  // The peer's close_notify ends the stream.
  EXPECT_EQ(client.WaitForReceive(5, 0), 0);
  EXPECT_FALSE(client.IsConnected());
}

TEST_F(SecureSocketTest, UpgradeAfterAPlainExchange) {
  ScriptedPeer peer({Send("+OK ready\r\n"), Expect("STLS\r\n"), Send("+OK begin\r\n"),
                     TlsAccept(ServerContext(server_)), Expect("USER joe\r\n"), Send("+OK\r\n")});
  TlsClient client(ca_.CaFile());
  client.SetSecurityEnabled(false);
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  EXPECT_EQ(client.Line(), "+OK ready\r\n");
  // Security on but no session yet: bytes still go in the clear.
  client.SetSecurityEnabled(true);
  EXPECT_EQ(client.Send("STLS\r\n"), 6);
  EXPECT_EQ(client.Line(), "+OK begin\r\n");
  ASSERT_EQ(client.CSecureSocketClient::SocketOnConnected(client.Socket(), "localhost"), kNetOk);
  EXPECT_TRUE(client.IsSessionSecure());
  EXPECT_EQ(client.Send("USER joe\r\n"), 10);
  EXPECT_EQ(client.Line(), "+OK\r\n");
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST_F(SecureSocketTest, BytesInjectedBeforeTheHandshakeStopIt) {
  ScriptedPeer peer({Send("+OK ready\r\n"), Expect("STLS\r\n"),
                     Send("+OK begin\r\n+OK injected\r\n"), ExpectClose()});
  TlsClient client(ca_.CaFile());
  client.SetSecurityEnabled(false);
  ASSERT_EQ(client.Connect(peer.port(), "localhost", 5), kNetOk);
  EXPECT_EQ(client.Line(), "+OK ready\r\n");
  EXPECT_EQ(client.Send("STLS\r\n"), 6);
  EXPECT_EQ(client.Line(), "+OK begin\r\n");
  ASSERT_GT(client.ReadAheadBytes(), 0);
  client.SetSecurityEnabled(true);
  EXPECT_EQ(client.CSecureSocketClient::SocketOnConnected(client.Socket(), "localhost"),
            kNetHandshakeFailed);
  EXPECT_FALSE(client.IsSessionSecure());
  client.CloseConnection();
  EXPECT_TRUE(peer.Finish()) << peer.Errors();
}

TEST(SecureSocketSettings, StoredSettingsReadBack) {
  CSecureSocketClient layer;
  EXPECT_FALSE(layer.GetSecurityEnabled());
  EXPECT_EQ(layer.GetCertValidation(), CSecureSocket::kCertChainAndHost);
  layer.SetCertSubjStr("CN=mail");
  layer.SetCertStoreName("MY");
  layer.SetCertificate(nullptr);
  layer.SetSecurityProtocol(0xA0);
  layer.SetMinCipherStrength(128);
  layer.SetMaxCipherStrength(256);
  layer.SetSecurityAlgorithmID(7);
  EXPECT_EQ(layer.GetCertSubjStr(), "CN=mail");
  EXPECT_EQ(layer.GetCertStoreName(), "MY");
  EXPECT_EQ(layer.GetCertificate(), "");
  EXPECT_EQ(layer.GetSecurityProtocol(), 0xA0);
  EXPECT_EQ(layer.GetMinCipherStrength(), 128);
  EXPECT_EQ(layer.GetMaxCipherStrength(), 256);
  EXPECT_EQ(layer.GetSecurityAlgorithmID(), 7);
  // With security off the handshake has nothing to do.
  EXPECT_EQ(layer.SocketOnConnected(-1, "localhost"), kNetOk);
  layer.SetSecurityEnabled(true);
  EXPECT_EQ(layer.SocketOnConnected(-1, "localhost"), kNetHandshakeFailed);
  layer.SetHandshakeTimeOut(0);
  EXPECT_EQ(layer.GetHandshakeTimeOut(), CSecureSocket::kDefaultHandshakeTimeOutMs);
}

}  // namespace
}  // namespace corvane
