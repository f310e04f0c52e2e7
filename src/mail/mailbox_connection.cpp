#include "mail/mailbox_connection.h"

#include "accounts/account.h"
#include "base/decimal_text.h"
#include "base/limits.h"
#include "protocol/command_text.h"
#include "protocol/net_codes.h"
#include "stream/buffer_data_source.h"

namespace corvane {
namespace {

constexpr int kPop3sPort = 995;
constexpr int kHeaderLineRoom = 1024;  // 1023 bytes and the terminator

}  // namespace

MailboxLogin MailboxLogin::FromRequest(RequestFields& request) {
  MailboxLogin mailbox;
  mailbox.pop3Host = request.Request("Pop3");
  if (std::optional<std::string> port = request.Request("Port")) mailbox.port = std::move(*port);
  mailbox.login = request.Request("Login");
  mailbox.password = request.Request("Pwd");
  return mailbox;
}

std::string MailboxLogin::Key() const {
  return AccountKey(*login, *pop3Host);
}

std::string MailboxLogin::CacheDirectory(std::string_view programDirectory) const {
  return MailboxCacheDirectory(programDirectory, *login, *pop3Host, ReadDecimal(port));
}

MailboxLogin MailboxOf(Account& account) {
  std::lock_guard guard(account.lock);
  MailboxLogin mailbox;
  mailbox.pop3Host = account.pop3Host;
  mailbox.port = std::to_string(account.port);
  mailbox.login = account.login;
  mailbox.password = account.password;
  return mailbox;
}

bool SafeToSend(const MailboxLogin& mailbox) {
  // A NUL would cut the text short on its way to the server (and a line
  // break would add a command): refused before connecting.
  for (const std::string* text : {&*mailbox.pop3Host, &*mailbox.login, &*mailbox.password}) {
    if (!IsSafeCommandArgument(*text)) return false;
  }
  return true;
}

int OpenMailbox(Pop3Client& client, const MailboxLogin& mailbox) {
  if (!SafeToSend(mailbox)) return kNetInvalidParameter;
  int port = ReadDecimal(mailbox.port);
  if (port == kPop3sPort) {
    client.SetSecurityEnabled(true);
    client.SetCertValidation(CSecureSocket::kCertChainAndHost);
  }
  client.SetPort(static_cast<unsigned>(port));
  return client.POP3Connect(mailbox.pop3Host->c_str(), mailbox.login->c_str(),
                            mailbox.password->c_str());
}

int ReadMessageHeader(Pop3Client& client, int number, std::optional<MailMessage>& message) {
  message.reset();
  int result = client.OpenTop(number, 0);
  if (result != 0) return result;
  std::string header;
  char line[kHeaderLineRoom];
  // Past its bound the header is read to its end but not kept.
  int length;
  while ((length = client.ReadTopLine(line, kHeaderLineRoom)) > 0) {
    if (header.size() < limits::kMaxHeaderBytes) header.append(line, static_cast<size_t>(length));
  }
  client.CloseTop();
  // A header that did not arrive whole is no header: it would be listed, and
  // cached, cut short.
  if (length < 0) return kNetTopFailed;
  message = HeaderFromBytes(header);
  return 0;
}

std::optional<MailMessage> HeaderFromBytes(const std::string& header) {
  BufferDataSource source(static_cast<int64_t>(header.size()));
  source.Open(DataSource::kOpenWrite);
  source.Write(header.data(), static_cast<int>(header.size()));
  std::optional<MailMessage> message;
  message.emplace();
  if (message->Load(source) != 0) message.reset();
  return message;
}

}  // namespace corvane
