#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "accounts/account_registry.h"
#include "handling/imap_watch.h"
#include "handling/notify_program.h"
#include "mime/mail_message.h"

namespace corvane {

// The new-mail check: a thread that visits every registered account with
// polling on at a fixed interval, reads the header of each message whose id
// the account has not seen, records the id and starts the notification
// program for it. It runs while the process-wide registry exists. A pass
// checks up to `workers` accounts at once, each by one worker, since a
// check spends its time waiting on round trips.
class CheckMailThread {
 public:
  CheckMailThread(std::optional<std::string> notifyProgram, std::chrono::milliseconds interval,
                  size_t workers = 1);
  // Stops the thread (see Stop).
  ~CheckMailThread();
  CheckMailThread(const CheckMailThread&) = delete;
  CheckMailThread& operator=(const CheckMailThread&) = delete;

  void Start();
  // Wakes the thread from its sleep or from a held account and waits for it
  // to end; it ends on its own once the registry is gone.
  void Stop();

  // One pass over the registry's accounts, handed to the workers in the
  // order they were added; it ends when every check it started has ended.
  // An account whose polling is off holds the pass: no account after it is
  // started until its polling is on (looked at once a second), it is
  // removed, or the check stops.
  void CheckAllAccounts(const AccountRegistry& registry);
  // One account: log in, find the ids not yet known, notify each.
  void CheckAccount(Account& account);
  // The same on a session already open (an IMAP watcher's).
  void CheckOpenMailbox(Account& account, MailboxSession& session);

 private:
  void Run();
  // The IMAP accounts with polling on before any held account: the ones
  // the watch is to keep.
  void WatchImapAccounts(const AccountRegistry& registry);
  // Records the message as known, then starts the notification program;
  // nothing when its id is known already (the client has read it meanwhile).
  void Announce(Account& account, const std::string& uid, const MailMessage& message,
                const std::string& mobile);
  // Hands every account with polling on to `handOut`, in order, under the
  // hold rule; accounts the IMAP watch owns are its own.
  void HandOutAccounts(const AccountRegistry& registry,
                       const std::function<void(std::shared_ptr<Account>)>& handOut);
  bool Stopping();
  // Sleeps for `duration` unless stopped first; false once stopped.
  bool Sleep(std::chrono::milliseconds duration);

  const std::optional<std::string> notifyProgram_;
  const std::chrono::milliseconds interval_;
  const size_t workers_;
  NotifyPrograms notifyPrograms_;
  ImapWatch watch_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace corvane
