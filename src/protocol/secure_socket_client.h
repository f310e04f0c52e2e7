#pragma once

#include <memory>
#include <string>

#include "protocol/secure_socket.h"

namespace corvane {

// The client side of the TLS layer: SocketOnConnected performs the whole
// client handshake on a freshly connected socket when security is on.
//
// The server's certificate is checked against the system trust store
// (OpenSSL's default paths, so SSL_CERT_FILE and SSL_CERT_DIR add to it) plus
// an optional extra CA file, and under validation kind 2 against the host
// name (or the address, for a dotted host). Failures map onto the layer's
// result codes: 126 handshake failed or timed out, 129 chain or host name
// not verified, 130 issuer not trusted, 142 the server does not speak TLS
// (it sent plain text or closed), 143 a certificate out of its dates.
class CSecureSocketClient : public CSecureSocket {
 public:
  CSecureSocketClient();
  ~CSecureSocketClient() override;

  // 0 when security is off (nothing to do) or the handshake succeeded, else a
  // code of 120..143. `host` names the server for SNI and the host check.
  int SocketOnConnected(int socket, const char* host) override;

  // A PEM file of CAs trusted besides the system store; empty for none.
  void SetTrustedCaFile(const char* path);
  const std::string& GetTrustedCaFile() const { return trustedCaFile_; }

 protected:
  // Bytes the socket client has already read from the socket and not handed
  // out. The handshake refuses to start while there are any: they arrived in
  // the clear before it and must not be taken as protected data.
  virtual int ReadAheadBytes() const { return 0; }

 private:
  struct CtxFree {
    void operator()(SSL_CTX* ctx) const;
  };
  // The TLS context of one handshake, or null with the failure in `code`.
  std::unique_ptr<SSL_CTX, CtxFree> CreateCredentials(int& code) const;
  // Sets up the session on `socket` for `host` and runs the handshake.
  int Handshake(int socket, const std::string& host);
  // Drives the handshake to its end or the deadline; 0 or a code.
  int PerformHandshake(SSL* ssl);
  // The code for a failed handshake on `ssl`.
  int ClassifyFailure(SSL* ssl, bool timedOut);

  std::string trustedCaFile_;
};

}  // namespace corvane
