#pragma once

#include <cstdint>
#include <memory>
#include <string>

// OpenSSL's types, so that users of this header need not include OpenSSL.
typedef struct ssl_st SSL;
typedef struct ssl_ctx_st SSL_CTX;

namespace corvane {

// The socket under a TLS session as its BIO sees it: the flags the layer adds
// to each call and what the handshake needs to know about the peer's bytes.
struct TlsWire {
  int socket = -1;
  int extraFlags = 0;          // added to every send and recv (MSG_DONTWAIT)
  int lastErrno = 0;           // errno of the last failed socket call
  uint64_t bytesIn = 0;        // bytes received from the peer so far
  unsigned char head[2] = {};  // the first two of them
};

// The record layer under the socket client: every send and receive of a
// connection goes through here. With security off, or before a session has
// been established on the socket, the bytes go straight to the socket; once a
// TLS session is up (see CSecureSocketClient) they go through it.
//
// Sends never raise SIGPIPE. Receives honour MSG_PEEK and MSG_DONTWAIT in
// both modes. Failures are reported like the socket calls (-1 and errno); a
// TLS-level failure also leaves its result code in LastSecurityError().
class CSecureSocket {
 public:
  // How the server's certificate is checked during the handshake.
  enum CertValidation : int {
    kCertNone = 0,          // anything is accepted
    kCertChain = 1,         // chain to a trusted CA, dates
    kCertChainAndHost = 2,  // as kCertChain, and the host name or address
  };
  static constexpr int kDefaultHandshakeTimeOutMs = 30000;

  CSecureSocket();
  virtual ~CSecureSocket();
  CSecureSocket(const CSecureSocket&) = delete;
  CSecureSocket& operator=(const CSecureSocket&) = delete;

  // Called once a TCP connection is up; the base has nothing to do: 0.
  virtual int SocketOnConnected(int socket, const char* host);
  // Sends a TLS close_notify when a session is open on `socket`, ends the
  // session and closes the socket. 0, or -1 when the close failed.
  virtual int SocketClose(int socket);
  // Shuts down `how` (SHUT_RD, SHUT_WR, SHUT_RDWR); shutting the sending side
  // of a TLS session sends its close_notify first. 0 or -1.
  virtual int SocketShutDown(int socket, int how);
  // Like recv: the count, 0 when the peer has closed, -1 on error or
  // time-out (errno EAGAIN).
  virtual int SocketRecv(int socket, char* buffer, int length, int flags);
  // Like send: the count (a TLS session writes all of it or fails), -1 on
  // error.
  virtual int SocketSend(int socket, const char* buffer, int length, int flags);
  // True when a read would return at once: data (decrypted or not yet),
  // end of stream or an error.
  virtual bool SocketIsDataWaiting(int socket);
  // Waits until SocketIsDataWaiting would be true: 0 when it is, 1 on
  // time-out or error.
  virtual int SocketWaitForReceive(int socket, int seconds, int microseconds);

  virtual void SetSecurityEnabled(bool on);
  virtual bool GetSecurityEnabled() const;
  // Stored for callers that set them; the handshake does not use them (the
  // system trust store and the validation kind decide).
  virtual void SetCertSubjStr(const char* subject);
  virtual void SetCertStoreName(const char* name);
  virtual void SetCertificate(const char* name);
  virtual void SetSecurityProtocol(int mask);
  virtual void SetMinCipherStrength(int bits);
  virtual void SetMaxCipherStrength(int bits);
  virtual void SetCertValidation(int kind);
  virtual void SetSecurityAlgorithmID(int id);

  const std::string& GetCertSubjStr() const { return certSubject_; }
  const std::string& GetCertStoreName() const { return certStoreName_; }
  const std::string& GetCertificate() const { return certificate_; }
  int GetSecurityProtocol() const { return securityProtocol_; }
  int GetMinCipherStrength() const { return minCipherStrength_; }
  int GetMaxCipherStrength() const { return maxCipherStrength_; }
  int GetCertValidation() const { return certValidation_; }
  int GetSecurityAlgorithmID() const { return securityAlgorithmId_; }

  // How long the whole handshake may take; 0 or below restores the default.
  void SetHandshakeTimeOut(int ms);
  int GetHandshakeTimeOut() const { return handshakeTimeOutMs_; }

  // True while a TLS session is established on the current connection.
  bool IsSessionSecure() const;
  // The code (120..143) of the last TLS failure of a handshake, send or
  // receive; 0 when there was none.
  int LastSecurityError() const { return lastSecurityError_; }

 protected:
  struct SslFree {
    void operator()(SSL* ssl) const;
  };

  // Starts a session on `socket`: a new SSL whose BIO reads and writes the
  // socket through wire(). Replaces any previous session (without a
  // close_notify). Null when OpenSSL fails.
  SSL* BeginSession(SSL_CTX* ctx, int socket);
  // Drops the session without a close_notify (a failed handshake).
  void DropSession();
  TlsWire& wire() { return wire_; }
  void SetLastSecurityError(int code) { lastSecurityError_ = code; }
  // The TLS session in use for `socket`, or null when bytes go in the clear.
  SSL* SessionFor(int socket) const;

 private:
  // 0 when the session has application data (or its end) to give within
  // `waitMs`, else 1.
  int WaitForSecureData(SSL* ssl, int socket, int64_t waitMs);
  int SecureRecv(SSL* ssl, char* buffer, int length, int flags);
  int SecureSend(SSL* ssl, const char* buffer, int length, int flags);
  void SendCloseNotify();

  bool securityEnabled_ = false;
  int certValidation_ = kCertChainAndHost;
  std::string certSubject_;
  std::string certStoreName_;
  std::string certificate_;
  int securityProtocol_ = 0;
  int minCipherStrength_ = 0;
  int maxCipherStrength_ = 0;
  int securityAlgorithmId_ = 0;
  int handshakeTimeOutMs_ = kDefaultHandshakeTimeOutMs;
  int lastSecurityError_ = 0;

  TlsWire wire_;
  std::unique_ptr<SSL, SslFree> session_;
  bool closeNotifySent_ = false;
};

}  // namespace corvane
