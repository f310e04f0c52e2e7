#include "protocol/secure_socket_client.h"

#include <arpa/inet.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <poll.h>
#include <sys/socket.h>

#include "protocol/net_codes.h"
#include "protocol/socket_wait.h"

namespace corvane {
namespace {

bool IsAddressLiteral(const std::string& host) {
  unsigned char address[16];
  return inet_pton(AF_INET, host.c_str(), address) == 1 ||
         inet_pton(AF_INET6, host.c_str(), address) == 1;
}

// The first bytes of a TLS server's answer are a record header: a content
// type from 20 (ChangeCipherSpec) to 24 (heartbeat) and major version 3.
bool LooksLikeTls(const TlsWire& wire) {
  if (wire.head[0] < 20 || wire.head[0] > 24) return false;
  return wire.bytesIn < 2 || wire.head[1] == 3;
}

int MapVerifyError(long verifyResult) {
  switch (verifyResult) {
    case X509_V_ERR_CERT_NOT_YET_VALID:
    case X509_V_ERR_CERT_HAS_EXPIRED:
    case X509_V_ERR_ERROR_IN_CERT_NOT_BEFORE_FIELD:
    case X509_V_ERR_ERROR_IN_CERT_NOT_AFTER_FIELD:
      return kNetCertDateInvalid;
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
    case X509_V_ERR_CERT_REJECTED:
      return kNetCertTrustFailed;
    default:  // host name or address mismatch, bad signature, chain faults
      return kNetCertChainFailed;
  }
}

}  // namespace

void CSecureSocketClient::CtxFree::operator()(SSL_CTX* ctx) const {
  SSL_CTX_free(ctx);
}

CSecureSocketClient::CSecureSocketClient() = default;
CSecureSocketClient::~CSecureSocketClient() = default;

void CSecureSocketClient::SetTrustedCaFile(const char* path) {
  trustedCaFile_ = path ? path : "";
}

int CSecureSocketClient::SocketOnConnected(int socket, const char* host) {
  if (!GetSecurityEnabled()) return kNetOk;
  SetLastSecurityError(kNetOk);
  int code = kNetHandshakeFailed;
  // Bytes read ahead of the handshake came in the clear after the server's
  // go-ahead; taking them as part of the session would let whoever injected
  // them speak inside it.
  if (socket >= 0 && ReadAheadBytes() == 0) code = Handshake(socket, host ? host : "");
  if (code != kNetOk) {
    DropSession();
    SetLastSecurityError(code);
  }
  return code;
}

int CSecureSocketClient::Handshake(int socket, const std::string& host) {
  int code = kNetOk;
  std::unique_ptr<SSL_CTX, CtxFree> ctx = CreateCredentials(code);
  if (ctx == nullptr) return code;
  SSL* ssl = BeginSession(ctx.get(), socket);
  if (ssl == nullptr) return kNetSecurityContextFailed;

  bool literal = IsAddressLiteral(host);
  if (!host.empty() && !literal && SSL_set_tlsext_host_name(ssl, host.c_str()) != 1) {
    return kNetSecurityContextFailed;
  }
  int kind = GetCertValidation();
  if (kind <= kCertNone) {
    SSL_set_verify(ssl, SSL_VERIFY_NONE, nullptr);
  } else {
    SSL_set_verify(ssl, SSL_VERIFY_PEER, nullptr);
    if (kind != kCertChain) {
      // Without a name there is nothing to hold the certificate against.
      if (host.empty()) return kNetCertChainFailed;
      SSL_set_hostflags(ssl, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
      int set = literal ? X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(ssl), host.c_str())
                        : SSL_set1_host(ssl, host.c_str());
      if (set != 1) return kNetCertChainFailed;
    }
  }
  return PerformHandshake(ssl);
}

std::unique_ptr<SSL_CTX, CSecureSocketClient::CtxFree> CSecureSocketClient::CreateCredentials(
    int& code) const {
  std::unique_ptr<SSL_CTX, CtxFree> ctx(SSL_CTX_new(TLS_client_method()));
  if (ctx == nullptr) {
    code = kNetCredentialsFailed;
    return nullptr;
  }
  SSL_CTX_set_min_proto_version(ctx.get(), TLS1_2_VERSION);
  // Mail protocols end their own data; a peer that drops the connection
  // without close_notify simply ends the stream.
  SSL_CTX_set_options(ctx.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  SSL_CTX_set_mode(ctx.get(), SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER | SSL_MODE_AUTO_RETRY);
  if (GetCertValidation() > kCertNone) {
    // A missing default file or directory only means fewer trusted CAs.
    SSL_CTX_set_default_verify_paths(ctx.get());
    ERR_clear_error();
    if (!trustedCaFile_.empty() &&
        SSL_CTX_load_verify_locations(ctx.get(), trustedCaFile_.c_str(), nullptr) != 1) {
      ERR_clear_error();
      code = kNetCertStoreFailed;
      return nullptr;
    }
  }
  return ctx;
}

int CSecureSocketClient::PerformHandshake(SSL* ssl) {
  TlsWire& w = wire();
  // The socket stays blocking for the session; only the handshake's own
  // calls do not wait, so that one deadline bounds it however the server
  // dribbles its bytes.
  w.extraFlags = MSG_DONTWAIT;
  int64_t deadline = MonotonicMs() + GetHandshakeTimeOut();
  int code = kNetOk;
  for (;;) {
    w.lastErrno = 0;
    ERR_clear_error();
    int result = SSL_connect(ssl);
    if (result == 1) break;
    int error = SSL_get_error(ssl, result);
    short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                   : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                   : 0;
    if (events == 0) {
      code = ClassifyFailure(ssl, false);
      break;
    }
    if (PollSocket(w.socket, events, deadline - MonotonicMs()) <= 0) {
      code = ClassifyFailure(ssl, true);
      break;
    }
  }
  w.extraFlags = 0;
  return code;
}

int CSecureSocketClient::ClassifyFailure(SSL* ssl, bool timedOut) {
  ERR_clear_error();
  long verify = SSL_get_verify_result(ssl);
  if (GetCertValidation() > kCertNone && verify != X509_V_OK) return MapVerifyError(verify);
  if (timedOut) return kNetHandshakeFailed;
  const TlsWire& w = wire();
  if (w.bytesIn == 0 || !LooksLikeTls(w)) return kNetServerNoTls;
  return kNetHandshakeFailed;
}

}  // namespace corvane
