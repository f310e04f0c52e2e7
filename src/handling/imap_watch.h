#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "accounts/account.h"
#include "base/limits.h"
#include "mail/imap_mailbox_session.h"

namespace corvane {

// Registered IMAP accounts watched for new mail as it arrives, not at the
// next pass: each on a connection of its own, waiting in IDLE, which the
// server ends as soon as INBOX changes; the account is then checked on the
// same connection. Every 25 minutes (within the server's 29) the watch goes
// on over a new connection, and a dropped one is opened again after a pause
// that doubles up to five minutes. An account whose server has no IDLE is given back to the
// pass. Each watcher is one thread and one connection.
class ImapWatch {
 public:
  // Checks an account on its open session (lists, announces the new).
  using Check = std::function<void(Account& account, MailboxSession& session)>;

  // At most `capacity` accounts are watched: the first of those listed.
  explicit ImapWatch(Check check, size_t capacity = limits::kMaxImapWatches);
  ~ImapWatch();  // stops and joins every watcher
  ImapWatch(const ImapWatch&) = delete;
  ImapWatch& operator=(const ImapWatch&) = delete;

  // Watches exactly these accounts (by key), up to the capacity: new ones get
  // a watcher, the watchers of those not watched stop.
  void WatchOnly(const std::vector<std::shared_ptr<Account>>& accounts);
  // Whether the account is the watch's (so the pass leaves it): watched,
  // and its server not known to lack IDLE.
  bool Owns(const std::string& key) const;
  void StopAll();

  static constexpr std::chrono::minutes kIdleRenewal{25};
  static constexpr std::chrono::seconds kFirstRetry{1};
  static constexpr std::chrono::minutes kLastRetry{5};

 private:
  struct Watcher;
  void Watch(Watcher& watcher);

  Check check_;
  const size_t capacity_;
  mutable std::mutex lock_;
  std::map<std::string, std::unique_ptr<Watcher>> watchers_;
};

}  // namespace corvane
