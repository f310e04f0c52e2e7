#pragma once

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>

#include "base/limits.h"

namespace corvane {

// The command line a new-mail notice is logged with:
// program "mobile" "from" "date" "subject", cut to 4095 bytes.
std::string NotifyCommandLine(const std::string& program, const std::string& mobile,
                              const std::string& from, const std::string& date,
                              const std::string& subject);

// Starts the notification program for new-mail notices, at most
// `maxRunning` at once: a mailbox first checked with thousands of messages
// must not start thousands of processes together.
class NotifyPrograms {
 public:
  explicit NotifyPrograms(size_t maxRunning = limits::kMaxNotifyPrograms);

  // Starts the program with the four values as separate arguments, without
  // a shell: sender and subject are whatever a mail said. Waits while
  // `maxRunning` are running, until one ends or `stopping` says true; does
  // not wait for the program itself, whose end is reaped. 0 when it started,
  // ECANCELED when stopping first, else the error number.
  int RunNotifyProgram(const std::string& program, const std::string& mobile,
                       const std::string& from, const std::string& date, const std::string& subject,
                       const std::function<bool()>& stopping);

 private:
  // Shared with the reapers, which may outlive this object.
  struct Running {
    std::mutex lock;
    std::condition_variable ended;
    size_t count = 0;
  };
  const size_t maxRunning_;
  const std::shared_ptr<Running> running_ = std::make_shared<Running>();
};

}  // namespace corvane
