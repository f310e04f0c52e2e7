#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "mime/mail_message.h"
#include "mime/mime_composer.h"
#include "mime/string_list.h"
#include "protocol/net_client.h"
#include "stream/data_source.h"

namespace corvane {

// How a sending session is secured. TLS sessions verify the server's
// certificate like every TLS connection of the gateway (chain and name).
enum class SmtpTls {
  kOff,       // never: the session stays in the clear, STARTTLS offered or not
  kAuto,      // STARTTLS whenever the server offers it, else the clear session
  kRequired,  // STARTTLS, or the send fails before any AUTH or MAIL
  kImplicit,  // TLS from the first byte (the submission port 465)
};

// Submits mail: EHLO (HELO when the server refuses it), the server's
// extensions, STARTTLS as SetTls asks (then EHLO again), AUTH CRAM-MD5 or
// LOGIN, then one MAIL FROM / RCPT TO / DATA transaction per recipient, so
// that each address gets its own copy and a Bcc address never shows in a
// header. Every operation returns a result code (0 success, net_codes.h).
class SmtpClient : public CNetClient {
 public:
  static constexpr int kLineRoom = 261;
  static constexpr int kAuthLineRoom = 500;

  SmtpClient();
  // Overwrites the user name and password before they are freed.
  ~SmtpClient() override;

  // One transaction for `recipient`: envelope, the headers (From, To and Cc
  // from the lists, Subject, Date, the extra header lines) and the body
  // from `bodySource`, or from `fullSource` alone when `useFull` is above 0.
  // `bytesSent` counts the body bytes sent across transactions. Header
  // values go out as FoldedHeaderValue makes them, and the whole data
  // section dot-stuffed with CRLF line ends.
  virtual int SendRecipient(std::string_view recipient, const MailMessage& message,
                            const std::vector<std::string>& toList,
                            const std::vector<std::string>& ccList, int bytesScale, long& bytesSent,
                            DataSource& bodySource, DataSource* fullSource, int useFull);
  // Progress of a transaction's body; false cancels it (98). The total is 0
  // where the size is not known beforehand (SendMail writes each copy as it
  // is composed).
  virtual bool SendStatus(long bytesSoFar, long total);
  // Connects, greets as `localName`, upgrades and authenticates as set up.
  virtual int SMTPConnect(const char* host, const char* localName);
  // QUIT (its reply is not awaited) and close.
  virtual int SMTPClose();
  // Delivers `message` to each To, Cc and Bcc address in turn, stopping at
  // the first failure; each copy is composed as it goes out.
  virtual int SendMail(const MailMessage& message);

  int SetPort(unsigned port);
  unsigned GetPort() const { return port_; }
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
  // The local time as a Date header value with its zone offset. 1 when
  // `size` is below 32.
  static int GetDateString(char* buffer, int size);

  const StringList& ExtraHeaderLines() const { return extraHeaderLines_; }
  const StringList& AuthMethods() const { return authMethods_; }
  bool StartTlsOffered() const { return startTlsOffered_; }
  // The last reply line read, "\r\n" included.
  const char* LastResponse() const { return line_; }

 private:
  // Reads one line into the line buffer; its length.
  int ReadLine(int room, int timeoutSeconds);
  class DataWriter;
  class ComposedCopy;

  // MAIL FROM, RCPT TO and DATA for one copy; kNetOk once the server waits
  // for the data.
  int OpenData(std::string_view recipient, const MailMessage& message);
  // A copy's own header block: From, To, Subject, Date, Cc, the extra lines.
  int WriteHeaders(DataWriter& out, const MailMessage& message,
                   const std::vector<std::string>& toList, const std::vector<std::string>& ccList);
  // The final dot and the server's verdict on the copy.
  int EndData();
  // One transaction whose data is `composition`, written as it is made.
  int SendComposed(std::string_view recipient, const MailMessage& message,
                   const std::vector<std::string>& toList, const std::vector<std::string>& ccList,
                   const MessageComposition& composition, long& bytesSent);

  // Sends `command` and "\r\n"; false when it was not sent whole, or not at
  // all because it holds CR, LF or NUL.
  bool SendCommand(std::string_view command);
  // EHLO (and HELO or STARTTLS with its re-EHLO) after the greeting.
  int Greet(const char* host, const char* localName);
  int StartTls(const char* host, const char* localName);
  // "To: " or "Cc: " and the list folded at 250 characters.
  void AppendAddressHeader(std::string& out, const char* name,
                           const std::vector<std::string>& list) const;
  int SendBody(DataWriter& out, DataSource& bodySource, DataSource* fullSource, int useFull,
               long& bytesSent, long total);
  void Forget(std::string& secret);

  StringList extraHeaderLines_;
  unsigned port_ = 25;
  int connectTimeOut_ = 5;
  int responseTimeOut_ = 10;
  bool startTlsOffered_ = false;
  bool useAuthentication_ = false;
  SmtpTls tls_ = SmtpTls::kOff;
  std::string password_;
  std::string userName_;
  StringList authMethods_;
  char line_[kAuthLineRoom + 1] = {};
};

}  // namespace corvane
