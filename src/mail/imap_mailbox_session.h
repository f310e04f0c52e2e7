#pragma once

#include <functional>
#include <optional>
#include <string>

#include "mail/mailbox_session.h"
#include "protocol/imap_client.h"

namespace corvane {

// An IMAP mailbox, its INBOX read-only: the UIDs for the ids (each as
// "<UIDVALIDITY>.<UID>", so ids of an INBOX that was rebuilt match nothing),
// the listing's header fields of many messages in one UID FETCH, and a
// message with BODY.PEEK, so that nothing is marked seen.
class ImapMailboxSession : public MailboxSession {
 public:
  int Open(const MailboxLogin& mailbox) override;
  void SetReplyTimeOut(int seconds) override;
  int ListIds(std::vector<std::string>& ids) override;
  void ReadHeaders(const std::vector<std::string>& ids, const HeaderSink& each) override;
  int Retrieve(const std::string& id, const std::string& path, int64_t maxBytes) override;
  void Close() override;

  // The UID an id names in this INBOX, or none (another UIDVALIDITY, or no
  // id at all).
  std::optional<uint32_t> UidOf(const std::string& id) const;
  // Whether the server announced IDLE.
  bool CanIdle() const { return client_.HasCapability("IDLE"); }
  // Waits in IDLE at most `seconds`: 1 when INBOX changed, 0 when the time
  // ran out, else a result code (the session is then closed).
  int Idle(int seconds) { return client_.Idle(seconds); }
  // Every wait of the session also ends once `aborted` says so.
  void SetAbortCheck(std::function<bool()> aborted) { client_.aborted = std::move(aborted); }

 private:
  struct Client : ImapClient {
    bool IsAborted() override { return (aborted && aborted()) || ImapClient::IsAborted(); }
    std::function<bool()> aborted;
  };
  Client client_;
};

}  // namespace corvane
