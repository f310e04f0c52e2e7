#pragma once

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <poll.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>

#include "support/scripted_peer.h"

namespace corvane::test {

struct X509Free {
  void operator()(X509* cert) const { X509_free(cert); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct SslCtxFree {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
};
struct SslFree {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using X509Ptr = std::unique_ptr<X509, X509Free>;
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyFree>;
using SslCtxPtr = std::shared_ptr<SSL_CTX>;

// A certificate with its key, also written as PEM files.
struct TestCert {
  X509Ptr cert;
  PkeyPtr key;
  std::string certFile;
  std::string keyFile;
};

// A certificate authority made at test time (EC P-256 keys, so it takes
// milliseconds) that issues server certificates with any names and dates,
// for tests that need a trusted, an untrusted, an expired or a wrong-host
// server. Files go into `directory` (a TempDir the test owns).
class TestCa {
 public:
  TestCa(std::string directory, std::string name = "Corvane test CA")
      : directory_(std::move(directory)), name_(std::move(name)) {
    key_ = NewKey();
    cert_ = NewCert(name_, nullptr, key_.get(), -1, 3650);
    AddExtension(cert_.get(), cert_.get(), NID_basic_constraints, "critical,CA:TRUE");
    AddExtension(cert_.get(), cert_.get(), NID_key_usage, "critical,keyCertSign,cRLSign");
    AddExtension(cert_.get(), cert_.get(), NID_subject_key_identifier, "hash");
    X509_sign(cert_.get(), key_.get(), EVP_sha256());
    caFile_ = directory_ + "/" + FileStem() + "-ca.pem";
    WriteCert(cert_.get(), caFile_);
  }

  // The CA's certificate as a PEM file, for the client's trust store.
  const std::string& CaFile() const { return caFile_; }

  // A server certificate for `commonName` with the subject alternative
  // names `sans` (as "DNS:localhost,IP:127.0.0.1"; empty for none), valid
  // from `notBeforeDays` to `notAfterDays` days from now.
  TestCert Issue(const std::string& commonName, const std::string& sans, long notBeforeDays = -1,
                 long notAfterDays = 365) {
    TestCert out;
    out.key = NewKey();
    out.cert = NewCert(commonName, cert_.get(), out.key.get(), notBeforeDays, notAfterDays);
    AddExtension(out.cert.get(), cert_.get(), NID_basic_constraints, "CA:FALSE");
    AddExtension(out.cert.get(), cert_.get(), NID_key_usage, "critical,digitalSignature");
    AddExtension(out.cert.get(), cert_.get(), NID_ext_key_usage, "serverAuth");
    AddExtension(out.cert.get(), cert_.get(), NID_authority_key_identifier, "keyid:always");
    if (!sans.empty()) AddExtension(out.cert.get(), cert_.get(), NID_subject_alt_name, sans);
    X509_sign(out.cert.get(), key_.get(), EVP_sha256());
    std::string stem = directory_ + "/" + FileStem() + "-" + std::to_string(serial_);
    out.certFile = stem + ".pem";
    out.keyFile = stem + ".key";
    WriteCert(out.cert.get(), out.certFile);
    if (FILE* file = std::fopen(out.keyFile.c_str(), "w")) {
      PEM_write_PrivateKey(file, out.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
      std::fclose(file);
    }
    return out;
  }

  // The usual server: localhost and 127.0.0.1, valid now.
  TestCert IssueLocalhost() { return Issue("localhost", "DNS:localhost,IP:127.0.0.1"); }

 private:
  std::string FileStem() const {
    std::string stem;
    for (char c : name_) stem += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return stem;
  }

  static PkeyPtr NewKey() { return PkeyPtr(EVP_EC_gen("P-256")); }

  X509Ptr NewCert(const std::string& commonName, X509* issuer, EVP_PKEY* key, long notBeforeDays,
                  long notAfterDays) {
    X509Ptr cert(X509_new());
    X509_set_version(cert.get(), X509_VERSION_3);
    ASN1_INTEGER_set(X509_get_serialNumber(cert.get()), ++serial_);
    X509_gmtime_adj(X509_getm_notBefore(cert.get()), notBeforeDays * 86400);
    X509_gmtime_adj(X509_getm_notAfter(cert.get()), notAfterDays * 86400);
    X509_set_pubkey(cert.get(), key);
    X509_NAME* subject = X509_get_subject_name(cert.get());
    X509_NAME_add_entry_by_txt(subject, "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(commonName.c_str()), -1, -1,
                               0);
    X509_set_issuer_name(cert.get(), issuer ? X509_get_subject_name(issuer) : subject);
    return cert;
  }

  static void AddExtension(X509* cert, X509* issuer, int nid, const std::string& value) {
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, issuer, cert, nullptr, nullptr, 0);
    if (X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, nid, value.c_str())) {
      X509_add_ext(cert, extension, -1);
      X509_EXTENSION_free(extension);
    }
  }

  static void WriteCert(X509* cert, const std::string& path) {
    if (FILE* file = std::fopen(path.c_str(), "w")) {
      PEM_write_X509(file, cert);
      std::fclose(file);
    }
  }

  std::string directory_;
  std::string name_;
  PkeyPtr key_;
  X509Ptr cert_;
  std::string caFile_;
  long serial_ = 0;
};

// A server context presenting `cert`.
inline SslCtxPtr ServerContext(const TestCert& cert) {
  SslCtxPtr ctx(SSL_CTX_new(TLS_server_method()), SslCtxFree());
  SSL_CTX_use_certificate(ctx.get(), cert.cert.get());
  SSL_CTX_use_PrivateKey(ctx.get(), cert.key.get());
  // A client that closes without close_notify has still closed.
  SSL_CTX_set_options(ctx.get(), SSL_OP_IGNORE_UNEXPECTED_EOF);
  return ctx;
}

// The peer's stream after a server-side TLS handshake. The socket is made
// non-blocking so that every read, write and the handshake honour the
// script's waits.
class TlsPeerStream : public PeerStream {
 public:
  TlsPeerStream(SslCtxPtr ctx, int socket) : ctx_(std::move(ctx)), socket_(socket) {
    ::fcntl(socket_, F_SETFL, ::fcntl(socket_, F_GETFL) | O_NONBLOCK);
    ssl_.reset(SSL_new(ctx_.get()));
    SSL_set_fd(ssl_.get(), socket_);
  }

  // True when the handshake finished within `waitMs`.
  bool Accept(int waitMs) {
    int64_t deadline = PeerNowMs() + waitMs;
    for (;;) {
      ERR_clear_error();
      int result = SSL_accept(ssl_.get());
      if (result == 1) return true;
      if (!WaitFor(SSL_get_error(ssl_.get(), result), deadline)) return false;
    }
  }

  int Read(char* buffer, int length, int waitMs) override {
    int64_t deadline = PeerNowMs() + waitMs;
    for (;;) {
      ERR_clear_error();
      int n = SSL_read(ssl_.get(), buffer, length);
      if (n > 0) return n;
      int error = SSL_get_error(ssl_.get(), n);
      if (error == SSL_ERROR_ZERO_RETURN) return 0;
      if (error == SSL_ERROR_SYSCALL && ERR_peek_error() == 0) return 0;  // closed, no alert
      if (!WaitFor(error, deadline)) return -1;
    }
  }

  bool Write(std::string_view bytes) override {
    int64_t deadline = PeerNowMs() + 10000;
    while (!bytes.empty()) {
      ERR_clear_error();
      int chunk = static_cast<int>(std::min<size_t>(bytes.size(), 1 << 20));
      int n = SSL_write(ssl_.get(), bytes.data(), chunk);
      if (n > 0) {
        bytes.remove_prefix(static_cast<size_t>(n));
      } else if (!WaitFor(SSL_get_error(ssl_.get(), n), deadline)) {
        return false;
      }
    }
    return true;
  }

  void Shutdown() override {
    ERR_clear_error();
    SSL_shutdown(ssl_.get());
  }

 private:
  // Waits for what OpenSSL asked for; false on any other error or the
  // deadline.
  bool WaitFor(int error, int64_t deadline) {
    short events = error == SSL_ERROR_WANT_READ    ? POLLIN
                   : error == SSL_ERROR_WANT_WRITE ? POLLOUT
                                                   : 0;
    int64_t left = deadline - PeerNowMs();
    if (events == 0 || left <= 0) return false;
    pollfd entry{socket_, events, 0};
    return ::poll(&entry, 1, static_cast<int>(left)) > 0;
  }

  SslCtxPtr ctx_;
  int socket_;
  std::unique_ptr<SSL, SslFree> ssl_;
};

enum class Handshake { kMustSucceed, kMustFail };

// A script step: the server side of a TLS handshake with `ctx`; afterwards
// the script speaks through TLS. With kMustFail a failed handshake is the
// expected outcome and the script goes on over the bare socket (so that
// ExpectClose can check the client sent nothing more in the clear).
inline Step TlsAccept(SslCtxPtr ctx, Handshake outcome = Handshake::kMustSucceed,
                      int waitMs = kPeerWaitMs) {
  return Do([ctx = std::move(ctx), outcome, waitMs](PeerSession& session, std::string& error) {
    if (!session.pending().empty()) {
      error = "bytes arrived before the handshake: " + Printable(session.pending());
      return false;
    }
    auto stream = std::make_unique<TlsPeerStream>(ctx, session.socket());
    bool done = stream->Accept(waitMs);
    if (outcome == Handshake::kMustFail) {
      if (done) error = "the TLS handshake succeeded but should have failed";
      ::fcntl(session.socket(), F_SETFL, ::fcntl(session.socket(), F_GETFL) & ~O_NONBLOCK);
      return !done;
    }
    if (!done) {
      error = "the TLS handshake failed";
      return false;
    }
    session.ReplaceStream(std::move(stream));
    return true;
  });
}

}  // namespace corvane::test
