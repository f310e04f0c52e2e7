#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "mail/mailbox_connection.h"
#include "mime/mail_message.h"

namespace corvane {

// Ports 143 and 993 are IMAP mailboxes.
bool IsImapPort(int port);

// One logged-in session with a mailbox in the protocol its port speaks:
// ports 143 and 993 are IMAP (its INBOX), every other port POP3. The ids of
// its messages come in server order: POP3's UIDL ids, or "<UIDVALIDITY>.<UID>"
// on IMAP, so an id names one message for as long as the server keeps it.
// Every operation gives 0 or a result code.
class MailboxSession {
 public:
  // Receives one header: its id, 0 or the failure's code, and the header
  // (empty when it did not parse).
  using HeaderSink =
      std::function<void(const std::string& id, int result, std::optional<MailMessage>& header)>;

  static std::unique_ptr<MailboxSession> For(const MailboxLogin& mailbox);
  virtual ~MailboxSession() = default;

  // Connects and logs in, with TLS as the port says and the certificate
  // checked.
  virtual int Open(const MailboxLogin& mailbox) = 0;
  // Seconds a reply may take (a large message may take longer, as the
  // protocol's retrieval says).
  virtual void SetReplyTimeOut(int seconds) = 0;
  // The ids, in server order, at most limits::kMaxMessages.
  virtual int ListIds(std::vector<std::string>& ids) = 0;
  // The headers of `ids` (ids ListIds gave), each handed over once, in the
  // order the server sends them, fetched as many at a time as it takes.
  virtual void ReadHeaders(const std::vector<std::string>& ids, const HeaderSink& each) = 0;
  // Message `id` into the file `path` whole, or a failure: the id is not
  // there, it is larger than `maxBytes` (0 or less: no limit), or it did not
  // arrive.
  virtual int Retrieve(const std::string& id, const std::string& path, int64_t maxBytes) = 0;
  // Logs out and closes; the session may be opened again.
  virtual void Close() = 0;
};

}  // namespace corvane
