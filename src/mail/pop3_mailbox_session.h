#pragma once

#include <string>
#include <unordered_map>

#include "mail/mailbox_session.h"
#include "protocol/pop3_client.h"

namespace corvane {

// A POP3 mailbox: STAT and UIDL for the ids, TOP for headers (pipelined when
// the server's CAPA lists PIPELINING), LIST and RETR for a message.
class Pop3MailboxSession : public MailboxSession {
 public:
  int Open(const MailboxLogin& mailbox) override;
  void SetReplyTimeOut(int seconds) override;
  int ListIds(std::vector<std::string>& ids) override;
  void ReadHeaders(const std::vector<std::string>& ids, const HeaderSink& each) override;
  int Retrieve(const std::string& id, const std::string& path, int64_t maxBytes) override;
  void Close() override;

 private:
  Pop3Client client_;
  int timeout_ = 0;
  std::unordered_map<std::string, int> numbers_;  // id -> its first message number
};

}  // namespace corvane
