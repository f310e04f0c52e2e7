#pragma once

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "support/scripted_peer.h"

namespace corvane::test {

using SslCtxPtr = std::shared_ptr<SSL_CTX>;

// A server certificate with its key (EC P-256: made in milliseconds).
struct TestCert {
  std::shared_ptr<X509> cert;
  std::shared_ptr<EVP_PKEY> key{EVP_EC_gen("P-256"), EVP_PKEY_free};
};

// A certificate authority made at test time that issues server certificates
// with any names and dates; its certificate goes into `directory` (a TempDir
// the test owns), for the client's trust store.
class TestCa {
 public:
  explicit TestCa(const std::string& directory, const std::string& name = "Corvane test CA") {
    self_.cert = NewCert(name, -1, 3650, "critical,CA:TRUE", NID_basic_constraints, nullptr);
    caFile_ = directory + "/ca-" + std::to_string(reinterpret_cast<uintptr_t>(this)) + ".pem";
    if (FILE* file = std::fopen(caFile_.c_str(), "w")) {
      PEM_write_X509(file, self_.cert.get());
      std::fclose(file);
    }
  }
  const std::string& CaFile() const { return caFile_; }

  // A certificate for `commonName` with the subject alternative names `sans`
  // ("DNS:localhost,IP:127.0.0.1"), valid from `notBeforeDays` to
  // `notAfterDays` days from now.
  TestCert Issue(const std::string& commonName, const std::string& sans, long notBeforeDays = -1,
                 long notAfterDays = 365) {
    TestCert out;
    out.cert =
        NewCert(commonName, notBeforeDays, notAfterDays, sans, NID_subject_alt_name, out.key.get());
    return out;
  }
  TestCert IssueLocalhost() { return Issue("localhost", "DNS:localhost,IP:127.0.0.1"); }

 private:
  // Signed by this CA (by itself while there is none yet), with the one
  // extension `nid` of `value`, for `key` (null: the CA's).
  std::shared_ptr<X509> NewCert(const std::string& commonName, long notBeforeDays,
                                long notAfterDays, const std::string& value, int nid,
                                EVP_PKEY* key) {
    std::shared_ptr<X509> cert(X509_new(), X509_free);
    X509* issuer = self_.cert ? self_.cert.get() : cert.get();
    X509_set_version(cert.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial_);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBeforeDays * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfterDays * 86400);
    X509_set_pubkey(cert.get(), key ? key : self_.key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(cert.get()), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(cert.get(), X509_get_subject_name(issuer));
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert.get(), nullptr, nullptr, 0);
    if (X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str())) {
      X509_add_ext(cert.get(), extension, -1);
      X509_EXTENSION_free(extension);
    }
    X509_sign(cert.get(), self_.key.get(), EVP_sha256());
    return cert;
  }

  long serial_ = 0;
  TestCert self_;
  std::string caFile_;
};

// A server context presenting `cert`; a close without close_notify counts.
inline SslCtxPtr ServerContext(const TestCert& cert) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
  SSL_CTX_use_certificate(ctx.get(), cert.cert.get());
  SSL_CTX_use_PrivateKey(ctx.get(), cert.key.get());
  SSL_CTX_set_options(ctx.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return ctx;
}

// The peer's stream after a server-side TLS handshake; waits are bounded
// through the socket's own time-outs.
class TlsPeerStream : public PeerStream {
 public:
  TlsPeerStream(SslCtxPtr ctx, int socket) : ctx_(std::move(ctx)), socket_(socket) {
    SSL_set_fd(ssl_.get(), socket_);
  }
  bool Accept(int waitMs) { return Limit(SO_RCVTIMEO, waitMs) && SSL_accept(ssl_.get()) == 1; }
  int Read(char* buffer, int length, int waitMs) override {
    int n = Limit(SO_RCVTIMEO, waitMs) ? SSL_read(ssl_.get(), buffer, length) : -1;
    int error = n > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl_.get(), n);
    bool closed = error == SSL_ERROR_ZERO_RETURN ||
                  (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0 && errno != EAGAIN);
    ERR_clear_error();
    return n > 0 ? n : closed ? 0 : -1;
  }
  bool Write(std::string_view bytes) override {
    size_t written = 0;
    bool done = Limit(SO_SNDTIMEO, 10000) &&
                (bytes.empty() || SSL_write_ex(ssl_.get(), bytes.data(), bytes.size(), &written));
    ERR_clear_error();
    return done;
  }
  void Shutdown() override {
    if (Limit(SO_SNDTIMEO, 1000)) SSL_shutdown(ssl_.get());
    ERR_clear_error();
  }

 private:
  bool Limit(int option, int ms) {
    ERR_clear_error();
    errno = 0;
    timeval limit{ms / 1000, std::max(ms % 1000, 1) * 1000};
    return ::setsockopt(socket_, SOL_SOCKET, option, &limit, sizeof limit) == 0;
  }

  SslCtxPtr ctx_;
  int socket_;
  std::unique_ptr<SSL, decltype(&SSL_free)> ssl_{SSL_new(ctx_.get()), SSL_free};
};

enum class Handshake { kMustSucceed, kMustFail };

// The server side of a TLS handshake with `ctx`; afterwards the script speaks
// through TLS. With kMustFail a failed handshake is expected and the script
// goes on over the bare socket (so that ExpectClose can check the client
// sent nothing more in the clear).
inline Step TlsAccept(SslCtxPtr ctx, Handshake outcome = Handshake::kMustSucceed,
                      int waitMs = kPeerWaitMs) {
  return Do([ctx = std::move(ctx), outcome, waitMs](PeerSession& session, std::string& error) {
    auto stream = std::make_unique<TlsPeerStream>(ctx, session.socket());
    bool done = session.pending().empty() && stream->Accept(waitMs);
    if (!session.pending().empty()) {
      error = "bytes arrived before the handshake: " + Printable(session.pending());
    } else if (done == (outcome == Handshake::kMustFail)) {
      error =
          done ? "the TLS handshake succeeded but should have failed" : "the TLS handshake failed";
    } else if (done) {
      session.ReplaceStream(std::move(stream));
    }
    return error.empty();
  });
}

}  // namespace corvane::test
