#include "handling/imap_watch.h"

#include <atomic>

#include "base/process_log.h"
#include "base/service_settings.h"
#include "mail/mailbox_connection.h"
#include "protocol/net_error.h"
#include "protocol/operation_deadline.h"

namespace corvane {

struct ImapWatch::Watcher {
  std::shared_ptr<Account> account;
  std::atomic<bool> stop{false};
  std::atomic<bool> noIdle{false};
  std::mutex lock;
  std::condition_variable wake;
  std::thread thread;

  // Sleeps for `duration` unless stopped first; false once stopped.
  bool Pause(std::chrono::milliseconds duration) {
    std::unique_lock guard(lock);
    return !wake.wait_for(guard, duration, [this] { return stop.load(); });
  }
  void Stop() {
    {
      std::lock_guard guard(lock);
      stop = true;
    }
    wake.notify_all();
  }
};

ImapWatch::ImapWatch(Check check, size_t capacity)
    : check_(std::move(check)), capacity_(capacity) {}

ImapWatch::~ImapWatch() {
  StopAll();
}

void ImapWatch::WatchOnly(const std::vector<std::shared_ptr<Account>>& accounts) {
  std::vector<std::unique_ptr<Watcher>> ended;
  {
    std::lock_guard guard(lock_);
    std::map<std::string, std::unique_ptr<Watcher>> kept;
    for (const auto& account : accounts) {
      if (kept.size() >= capacity_) break;  // each is a thread: the rest are the pass's
      const std::string key = account->Key();
      if (kept.count(key)) continue;
      auto found = watchers_.find(key);
      // The same account object keeps its watcher: one updated in place
      // (a new password, say) is read again when its connection is opened
      // again; one deleted and added again gets a new watcher.
      if (found != watchers_.end() && found->second->account == account) {
        kept.emplace(key, std::move(found->second));
        watchers_.erase(found);
        continue;
      }
      auto watcher = std::make_unique<Watcher>();
      watcher->account = account;
      try {
        watcher->thread = std::thread([this, raw = watcher.get()] { Watch(*raw); });
      } catch (const std::system_error&) {
        continue;  // no thread to spare: the pass checks it
      }
      kept.emplace(key, std::move(watcher));
    }
    for (auto& [key, watcher] : watchers_) ended.push_back(std::move(watcher));
    watchers_ = std::move(kept);
  }
  for (auto& watcher : ended) watcher->Stop();
  for (auto& watcher : ended) watcher->thread.join();
}

bool ImapWatch::Owns(const std::string& key) const {
  std::lock_guard guard(lock_);
  auto found = watchers_.find(key);
  return found != watchers_.end() && !found->second->noIdle;
}

void ImapWatch::StopAll() {
  WatchOnly({});
}

void ImapWatch::Watch(Watcher& watcher) {
  using Clock = std::chrono::steady_clock;
  std::chrono::milliseconds retry = kFirstRetry;
  while (!watcher.stop) {
    // One connection lives one renewal period, then a new one is opened:
    // with the operation time-out after it as the connection's deadline, a
    // server that drips its replies cannot hold the watch longer, and the
    // process's stop shuts it at once.
    const int timeout = g_settings.operationTimeout;
    OperationDeadline scope(timeout > 0 ? kIdleRenewal + std::chrono::seconds(timeout)
                                        : std::chrono::milliseconds(0));
    const auto renewBy = Clock::now() + kIdleRenewal;
    MailboxLogin mailbox = MailboxOf(*watcher.account);
    ImapMailboxSession session;
    session.SetAbortCheck([&watcher] { return watcher.stop.load(); });
    int result = session.Open(mailbox);
    if (result == 0 && !session.CanIdle()) {
      WriteLog(kLogInfo, "%s: the IMAP server has no IDLE, checked every pass\n",
               mailbox.login->c_str());
      watcher.noIdle = true;
      session.Close();
      return;
    }
    if (result == 0) {
      retry = kFirstRetry;
      check_(*watcher.account, session);
      WriteLog(kLogDebug, "Watch mail account in IDLE: %s@%s\n", mailbox.login->c_str(),
               mailbox.pop3Host->c_str());
      for (auto left = renewBy - Clock::now(); !watcher.stop && left > std::chrono::seconds(0);
           left = renewBy - Clock::now()) {
        result =
            session.Idle(static_cast<int>(std::chrono::ceil<std::chrono::seconds>(left).count()));
        if (result == 1) check_(*watcher.account, session);  // INBOX changed
        if (result != 0 && result != 1) break;
      }
      session.Close();
      if (watcher.stop) return;
      if (result == 0 || result == 1) continue;  // renewed on a new connection
    }
    WriteLog(kLogError, "%s watch IMAP server error: %s\n", mailbox.login->c_str(),
             CNetError::GetErrorString(result));
    if (!watcher.Pause(retry)) return;
    retry = std::min<std::chrono::milliseconds>(retry * 2, kLastRetry);
  }
}

}  // namespace corvane
