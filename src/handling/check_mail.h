#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "accounts/account_registry.h"

namespace corvane {

// The new-mail check: a thread that visits every registered account with
// polling on at a fixed interval, reads the header of each message whose id
// the account has not seen, records the id and starts the notification
// program for it. It runs while the process-wide registry exists.
class CheckMailThread {
 public:
  CheckMailThread(std::optional<std::string> notifyProgram, std::chrono::milliseconds interval);
  // Stops the thread (see Stop).
  ~CheckMailThread();
  CheckMailThread(const CheckMailThread&) = delete;
  CheckMailThread& operator=(const CheckMailThread&) = delete;

  void Start();
  // Wakes the thread from its sleep or from a held account and waits for it
  // to end; it ends on its own once the registry is gone.
  void Stop();

  // One pass over the registry's accounts in the order they were added. An
  // account whose polling is off holds the pass: the same account is looked
  // at again (once a second) until its polling is on, it is removed, or the
  // check stops.
  void CheckAllAccounts(const AccountRegistry& registry);
  // One account: log in, find the ids not yet known, notify each.
  void CheckAccount(Account& account);

 private:
  void Run();
  bool Stopping();
  // Sleeps for `duration` unless stopped first; false once stopped.
  bool Sleep(std::chrono::milliseconds duration);

  const std::optional<std::string> notifyProgram_;
  const std::chrono::milliseconds interval_;
  std::mutex lock_;
  std::condition_variable wake_;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace corvane
