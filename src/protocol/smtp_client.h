#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "protocol/command_client.h"

namespace corvane {

// How a sending session is secured. TLS sessions verify the server's
// certificate like every TLS connection of the gateway (chain and name).
enum class SmtpTls {
  kOff,       // never: the session stays in the clear, STARTTLS offered or not
  kAuto,      // STARTTLS whenever the server offers it, else the clear session
  kRequired,  // STARTTLS, or the send fails before any AUTH or MAIL
  kImplicit,  // TLS from the first byte (the submission port 465)
};

// The SMTP dialogue of a submission: EHLO (HELO when the server refuses
// it), the server's extensions, STARTTLS as SetTls asks (then EHLO again),
// AUTH CRAM-MD5 or LOGIN, and the envelope and end of each transaction
// (what goes into the data, and to whom, is mail/message_submission's).
// Every operation returns a result code (0 success, net_codes.h).
class SmtpClient : public CommandClient {
 public:
  static constexpr int kLineRoom = 261;
  static constexpr int kAuthLineRoom = 500;

  SmtpClient();
  // Overwrites the user name and password before they are freed.
  ~SmtpClient() override;

  // Connects, greets as `localName`, upgrades and authenticates as set up.
  virtual int SMTPConnect(const char* host, const char* localName);
  // QUIT (its reply is not awaited) and close.
  virtual int SMTPClose();
  // Progress of a transaction's data; false cancels it (98). The total is 0
  // where the size is not known beforehand.
  virtual bool SendStatus(long bytesSoFar, long total);

  // The envelope of one transaction: MAIL FROM and RCPT TO with the bare
  // addresses of `from` and `recipient`, then DATA. 0 once the server waits
  // for the data (write it with an SmtpDataWriter, then EndData); 6 not
  // connected, 100 no address, 12 sender refused, 67 recipient refused, 52
  // DATA not answered with 354.
  int StartData(std::string_view from, std::string_view recipient);
  // The final "." line: 0 when the server took the message, else 12.
  int EndData();

  // Null or empty keeps the value already set.
  void SetUserName(const char* user);
  void SetPassword(const char* password);
  void SetAuthentication(bool on) { useAuthentication_ = on; }
  // Off (the clear session) by default.
  void SetTls(SmtpTls tls) { tls_ = tls; }

  // Reads one reply (every line of a multi-line one): its code, 0 when a
  // line is missing or shorter than three bytes.
  int GetResponseCode(int timeoutSeconds);
  // Reads the rest of a multi-line EHLO reply whose first line is in the
  // line buffer, noting STARTTLS and the AUTH methods. 0 or 54.
  int ParseExtensions();
  // CRAM-MD5 when offered (wherever it stands), else LOGIN. 1 when neither.
  int Authenticate();
  int AuthCramMD5();
  int AuthLogin();

  // The bare address of a mailbox text into `buffer` of `size` bytes
  // (NUL included). 1 for a text shorter than three characters, else 0.
  static int GetAddress(const char* text, char* buffer, int size);

  const std::vector<std::string>& AuthMethods() const { return authMethods_; }
  bool StartTlsOffered() const { return startTlsOffered_; }
  // The last reply line read, "\r\n" included.
  const char* LastResponse() const { return LastReplyLine().c_str(); }

 private:
  // EHLO (and HELO or STARTTLS with its re-EHLO) after the greeting.
  int Greet(const char* host, const char* localName);
  int StartTls(const char* host, const char* localName);

  bool startTlsOffered_ = false;
  bool useAuthentication_ = false;
  SmtpTls tls_ = SmtpTls::kOff;
  std::string password_;
  std::string userName_;
  std::vector<std::string> authMethods_;
};

}  // namespace corvane
