#include "protocol/secure_socket.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "protocol/net_codes.h"
#include "protocol/socket_wait.h"

namespace corvane {
namespace {

// The BIO under every session: plain socket calls with the wire's extra
// flags, MSG_NOSIGNAL so a vanished peer gives EPIPE instead of killing the
// process, and a note of the first bytes the peer sent.
int WireWrite(BIO* bio, const char* data, int length) {
  auto* wire = static_cast<TlsWire*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  for (;;) {
    ssize_t n =
        ::send(wire->socket, data, static_cast<size_t>(length), MSG_NOSIGNAL | wire->extraFlags);
    if (n >= 0) return static_cast<int>(n);
    if (errno == EINTR) continue;
    wire->lastErrno = errno;
    if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_write(bio);
    return -1;
  }
}

int WireRead(BIO* bio, char* data, int length) {
  auto* wire = static_cast<TlsWire*>(BIO_get_data(bio));
  BIO_clear_retry_flags(bio);
  for (;;) {
    ssize_t n = ::recv(wire->socket, data, static_cast<size_t>(length), wire->extraFlags);
    if (n > 0) {
      for (ssize_t i = 0; i < n && wire->bytesIn + i < sizeof wire->head; ++i) {
        wire->head[wire->bytesIn + i] = static_cast<unsigned char>(data[i]);
      }
      wire->bytesIn += static_cast<uint64_t>(n);
      return static_cast<int>(n);
    }
    if (n == 0) return 0;
    if (errno == EINTR) continue;
    wire->lastErrno = errno;
    if (errno == EAGAIN || errno == EWOULDBLOCK) BIO_set_retry_read(bio);
    return -1;
  }
}

int WirePuts(BIO* bio, const char* text) {
  return WireWrite(bio, text, static_cast<int>(std::char_traits<char>::length(text)));
}

long WireCtrl(BIO* bio, int command, long, void* pointer) {
  switch (command) {
    case BIO_CTRL_FLUSH:
      return 1;
    case BIO_C_GET_FD: {
      int socket = static_cast<TlsWire*>(BIO_get_data(bio))->socket;
      if (pointer != nullptr) *static_cast<int*>(pointer) = socket;
      return socket;
    }
    default:
      return 0;
  }
}

int WireCreate(BIO* bio) {
  BIO_set_init(bio, 1);
  return 1;
}

// Built once and never changed; OpenSSL keeps using it for the life of the
// process.
const BIO_METHOD* WireMethod() {
  static BIO_METHOD* const method = [] {
    BIO_METHOD* m = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK | BIO_TYPE_DESCRIPTOR,
                                 "corvane socket");
    if (m != nullptr) {
      BIO_meth_set_write(m, WireWrite);
      BIO_meth_set_read(m, WireRead);
      BIO_meth_set_puts(m, WirePuts);
      BIO_meth_set_ctrl(m, WireCtrl);
      BIO_meth_set_create(m, WireCreate);
    }
    return m;
  }();
  return method;
}

// Adds flags to the wire's socket calls for one scope.
class WireFlags {
 public:
  WireFlags(TlsWire& wire, int flags) : wire_(wire), saved_(wire.extraFlags) {
    wire_.extraFlags |= flags;
  }
  ~WireFlags() { wire_.extraFlags = saved_; }
  WireFlags(const WireFlags&) = delete;
  WireFlags& operator=(const WireFlags&) = delete;

 private:
  TlsWire& wire_;
  int saved_;
};

}  // namespace

void CSecureSocket::SslFree::operator()(SSL* ssl) const {
  SSL_free(ssl);
}

CSecureSocket::CSecureSocket() = default;
CSecureSocket::~CSecureSocket() = default;

int CSecureSocket::SocketOnConnected(int, const char*) {
  return kNetOk;
}

SSL* CSecureSocket::SessionFor(int socket) const {
  return securityEnabled_ && session_ != nullptr && wire_.socket == socket ? session_.get()
                                                                           : nullptr;
}

bool CSecureSocket::IsSessionSecure() const {
  return SessionFor(wire_.socket) != nullptr && SSL_is_init_finished(session_.get()) == 1;
}

SSL* CSecureSocket::BeginSession(SSL_CTX* ctx, int socket) {
  DropSession();
  const BIO_METHOD* method = WireMethod();
  if (method == nullptr) return nullptr;
  std::unique_ptr<SSL, SslFree> ssl(SSL_new(ctx));
  if (ssl == nullptr) return nullptr;
  BIO* bio = BIO_new(method);
  if (bio == nullptr) return nullptr;
  wire_.socket = socket;
  BIO_set_data(bio, &wire_);
  SSL_set_bio(ssl.get(), bio, bio);  // the session owns the BIO from here
  session_ = std::move(ssl);
  return session_.get();
}

void CSecureSocket::DropSession() {
  session_.reset();
  closeNotifySent_ = false;
  wire_ = TlsWire{};
}

void CSecureSocket::SendCloseNotify() {
  if (session_ == nullptr || closeNotifySent_) return;
  closeNotifySent_ = true;
  if (SSL_is_init_finished(session_.get()) != 1) return;
  // Never wait for a peer that has stopped reading: the alert is a courtesy.
  WireFlags dontWait(wire_, MSG_DONTWAIT);
  ERR_clear_error();
  SSL_shutdown(session_.get());
  ERR_clear_error();
}

int CSecureSocket::SocketClose(int socket) {
  if (session_ != nullptr && wire_.socket == socket) {
    SendCloseNotify();
    DropSession();
  }
  return ::close(socket) == 0 ? 0 : -1;
}

int CSecureSocket::SocketShutDown(int socket, int how) {
  if (how != SHUT_RD && session_ != nullptr && wire_.socket == socket) SendCloseNotify();
  return ::shutdown(socket, how) == 0 ? 0 : -1;
}

int CSecureSocket::SocketRecv(int socket, char* buffer, int length, int flags) {
  if (length <= 0) return 0;
  if (SSL* ssl = SessionFor(socket)) return SecureRecv(ssl, buffer, length, flags);
  for (;;) {
    ssize_t n = ::recv(socket, buffer, static_cast<size_t>(length), flags);
    if (n >= 0 || errno != EINTR) return static_cast<int>(n);
  }
}

int CSecureSocket::SocketSend(int socket, const char* buffer, int length, int flags) {
  if (length <= 0) return 0;
  if (SSL* ssl = SessionFor(socket)) return SecureSend(ssl, buffer, length, flags);
  for (;;) {
    ssize_t n = ::send(socket, buffer, static_cast<size_t>(length), flags | MSG_NOSIGNAL);
    if (n >= 0 || errno != EINTR) return static_cast<int>(n);
  }
}

int CSecureSocket::SecureRecv(SSL* ssl, char* buffer, int length, int flags) {
  WireFlags extra(wire_, flags & MSG_DONTWAIT);
  wire_.lastErrno = 0;
  ERR_clear_error();
  int n = (flags & MSG_PEEK) != 0 ? SSL_peek(ssl, buffer, length) : SSL_read(ssl, buffer, length);
  if (n > 0) return n;
  switch (SSL_get_error(ssl, n)) {
    case SSL_ERROR_ZERO_RETURN:
      return 0;
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      errno = EAGAIN;  // the socket's time-out, or nothing there without waiting
      return -1;
    case SSL_ERROR_SYSCALL:
      if (wire_.lastErrno == 0) return 0;  // the peer went away between records
      lastSecurityError_ = kNetSecureReceiveFailed;
      errno = wire_.lastErrno;
      return -1;
    default:
      lastSecurityError_ = kNetDecryptFailed;
      ERR_clear_error();
      errno = ECONNRESET;
      return -1;
  }
}

int CSecureSocket::SecureSend(SSL* ssl, const char* buffer, int length, int flags) {
  WireFlags extra(wire_, flags & MSG_DONTWAIT);
  wire_.lastErrno = 0;
  ERR_clear_error();
  int n = SSL_write(ssl, buffer, length);
  if (n > 0) return n;
  switch (SSL_get_error(ssl, n)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      errno = EAGAIN;
      return -1;
    case SSL_ERROR_SYSCALL:
      lastSecurityError_ = kNetEncryptFailed;
      errno = wire_.lastErrno != 0 ? wire_.lastErrno : EPIPE;
      return -1;
    default:
      lastSecurityError_ = kNetEncryptFailed;
      ERR_clear_error();
      errno = ECONNRESET;
      return -1;
  }
}

bool CSecureSocket::SocketIsDataWaiting(int socket) {
  return SocketWaitForReceive(socket, 0, 0) == 0;
}

int CSecureSocket::SocketWaitForReceive(int socket, int seconds, int microseconds) {
  int64_t waitMs = std::max(seconds, 0) * int64_t{1000} + (std::max(microseconds, 0) + 999) / 1000;
  if (SSL* ssl = SessionFor(socket)) return WaitForSecureData(ssl, socket, waitMs);
  return PollSocket(socket, POLLIN, waitMs) > 0 ? 0 : 1;
}

int CSecureSocket::WaitForSecureData(SSL* ssl, int socket, int64_t waitMs) {
  if (SSL_pending(ssl) > 0) return 0;
  // A readable socket may carry only records without application data (a
  // session ticket, say), so every readable moment is checked by a peek
  // that does not wait, and the wait goes on until data or the deadline.
  int64_t deadline = MonotonicMs() + waitMs;
  bool mustPoll = SSL_has_pending(ssl) != 1;
  for (;;) {
    if (mustPoll && PollSocket(socket, POLLIN, deadline - MonotonicMs()) <= 0) return 1;
    char probe;
    int n = SecureRecv(ssl, &probe, 1, MSG_PEEK | MSG_DONTWAIT);
    if (n >= 0 || errno != EAGAIN) return 0;  // data, the end, or a failure: all at once
    if (MonotonicMs() >= deadline) return 1;
    mustPoll = true;
  }
}

void CSecureSocket::SetSecurityEnabled(bool on) {
  securityEnabled_ = on;
}
bool CSecureSocket::GetSecurityEnabled() const {
  return securityEnabled_;
}
void CSecureSocket::SetCertSubjStr(const char* subject) {
  certSubject_ = subject ? subject : "";
}
void CSecureSocket::SetCertStoreName(const char* name) {
  certStoreName_ = name ? name : "";
}
void CSecureSocket::SetCertificate(const char* name) {
  certificate_ = name ? name : "";
}
void CSecureSocket::SetSecurityProtocol(int mask) {
  securityProtocol_ = mask;
}
void CSecureSocket::SetMinCipherStrength(int bits) {
  minCipherStrength_ = bits;
}
void CSecureSocket::SetMaxCipherStrength(int bits) {
  maxCipherStrength_ = bits;
}
void CSecureSocket::SetCertValidation(int kind) {
  certValidation_ = kind;
}
void CSecureSocket::SetSecurityAlgorithmID(int id) {
  securityAlgorithmId_ = id;
}

void CSecureSocket::SetHandshakeTimeOut(int ms) {
  handshakeTimeOutMs_ = ms > 0 ? ms : kDefaultHandshakeTimeOutMs;
}

}  // namespace corvane
