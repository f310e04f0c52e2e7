#include "mail/mailbox_session.h"

#include "base/decimal_text.h"
#include "mail/imap_mailbox_session.h"
#include "mail/pop3_mailbox_session.h"

namespace corvane {

bool IsImapPort(int port) {
  return port == 143 || port == 993;
}

std::unique_ptr<MailboxSession> MailboxSession::For(const MailboxLogin& mailbox) {
  if (IsImapPort(ReadDecimal(mailbox.port))) return std::make_unique<ImapMailboxSession>();
  return std::make_unique<Pop3MailboxSession>();
}

}  // namespace corvane
