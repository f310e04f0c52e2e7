#include "mail/mailbox_session.h"

#include "mail/pop3_mailbox_session.h"

namespace corvane {

std::unique_ptr<MailboxSession> MailboxSession::For(const MailboxLogin&) {
  return std::make_unique<Pop3MailboxSession>();
}

}  // namespace corvane
