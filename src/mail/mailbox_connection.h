#pragma once

#include <optional>
#include <string>

#include "mime/mail_message.h"
#include "protocol/pop3_client.h"
#include "transport/request_fields.h"

namespace corvane {

// The account a mail request names: "Pop3", "Port" (default "110"), "Login"
// and "Pwd" of its "sysREQUEST" record.
struct MailboxLogin {
  std::optional<std::string> pop3Host;
  std::string port = "110";
  std::optional<std::string> login;
  std::optional<std::string> password;

  static MailboxLogin FromRequest(RequestFields& request);

  bool Complete() const { return pop3Host && login && password; }
  // The registry key of the mailbox.
  std::string Key() const;
  // Its cache directory (MailboxCacheDirectory), under the port connected to.
  std::string CacheDirectory(std::string_view programDirectory) const;
};

struct Account;
// The mailbox of a registered account, read under its lock.
MailboxLogin MailboxOf(Account& account);

// Whether the host, login and password may go to a server: no CR, LF or NUL.
bool SafeToSend(const MailboxLogin& mailbox);

// Connects and logs in: port 995 (the port text read as a number) is POP3
// over TLS with the certificate checked, every other port plain. 0 or the
// connection's result code.
int OpenMailbox(Pop3Client& client, const MailboxLogin& mailbox);

// Fetches the header of message `number` (TOP with no body lines) into
// `message`, which stays empty when the header does not parse. 0, or the
// TOP failure's result code.
int ReadMessageHeader(Pop3Client& client, int number, std::optional<MailMessage>& message);

// A message of a header's bytes alone, or none when they do not parse.
std::optional<MailMessage> HeaderFromBytes(const std::string& header);

}  // namespace corvane
