#include "handling/check_mail.h"

#include <algorithm>
#include <cerrno>
#include <deque>
#include <system_error>
#include <vector>

#include "accounts/process_registry.h"
#include "base/ascii_text.h"
#include "base/process_log.h"
#include "base/service_settings.h"
#include "handling/notify_program.h"
#include "mail/header_display.h"
#include "mail/header_read_failures.h"
#include "mail/known_uids.h"
#include "mail/mail_date.h"
#include "mail/mailbox_session.h"
#include "mime/mail_message.h"
#include "protocol/net_error.h"
#include "protocol/operation_deadline.h"
#include "transport/console.h"

namespace corvane {
namespace {

constexpr auto kHoldRecheck = std::chrono::seconds(1);
constexpr char kNoticeCharset[] = "gb2312";

bool PollingOn(const Account& account) {
  std::lock_guard guard(account.lock);
  return account.polling == 1;
}

}  // namespace

CheckMailThread::CheckMailThread(std::optional<std::string> notifyProgram,
                                 std::chrono::milliseconds interval, size_t workers)
    : notifyProgram_(std::move(notifyProgram)),
      interval_(interval),
      workers_(std::max<size_t>(workers, 1)),
      watch_([this](Account& account, MailboxSession& session) {
        CheckOpenMailbox(account, session);
      }) {}

CheckMailThread::~CheckMailThread() {
  Stop();
}

void CheckMailThread::Start() {
  thread_ = std::thread([this] { Run(); });
}

void CheckMailThread::Stop() {
  {
    std::lock_guard guard(lock_);
    stopping_ = true;
  }
  wake_.notify_all();
  if (thread_.joinable()) thread_.join();
  watch_.StopAll();
}

bool CheckMailThread::Stopping() {
  std::lock_guard guard(lock_);
  return stopping_;
}

bool CheckMailThread::Sleep(std::chrono::milliseconds duration) {
  std::unique_lock guard(lock_);
  return !wake_.wait_for(guard, duration, [this] { return stopping_; });
}

void CheckMailThread::Run() {
  // The IMAP watch follows the registry every second; the pass runs every
  // interval.
  constexpr auto kWatchFollow = std::chrono::seconds(1);
  auto nextPass = std::chrono::steady_clock::now();
  for (;;) {
    {
      // A reference of its own keeps the registry alive through the pass
      // even when teardown clears the process-wide pointer meanwhile.
      std::shared_ptr<AccountRegistry> registry = g_accountRegistry.load();
      if (!registry) break;
      WatchImapAccounts(*registry);
      if (std::chrono::steady_clock::now() >= nextPass) {
        WriteLog(kLogDebug, "[Corvane] Start check mail\n");
        CheckAllAccounts(*registry);
        nextPass = std::chrono::steady_clock::now() + interval_;
      }
    }
    auto untilPass = std::chrono::duration_cast<std::chrono::milliseconds>(
        nextPass - std::chrono::steady_clock::now());
    if (!Sleep(std::clamp<std::chrono::milliseconds>(untilPass, std::chrono::milliseconds(0),
                                                     kWatchFollow))) {
      break;
    }
  }
  watch_.StopAll();
}

void CheckMailThread::WatchImapAccounts(const AccountRegistry& registry) {
  std::vector<std::shared_ptr<Account>> imap;
  for (const std::shared_ptr<Account>& account : registry.Accounts()) {
    std::lock_guard guard(account->lock);
    if (account->polling != 1) break;  // a held account holds the rest too
    if (IsImapPort(account->port)) imap.push_back(account);
  }
  watch_.WatchOnly(imap);
}

void CheckMailThread::CheckAllAccounts(const AccountRegistry& registry) {
  // The accounts handed out in order; the workers take them first come.
  std::mutex queueLock;
  std::condition_variable queued;
  std::deque<std::shared_ptr<Account>> queue;
  bool handedOut = false;
  // A worker ends once all is handed out and taken; `now` takes only what
  // is queued already.
  auto work = [&](bool now) {
    for (;;) {
      std::shared_ptr<Account> account;
      {
        std::unique_lock guard(queueLock);
        queued.wait(guard, [&] { return now || handedOut || !queue.empty(); });
        if (queue.empty() || Stopping()) return;
        account = std::move(queue.front());
        queue.pop_front();
      }
      CheckAccount(*account);
    }
  };
  std::vector<std::thread> workers;
  auto handOut = [&](std::shared_ptr<Account> account) {
    {
      std::lock_guard guard(queueLock);
      queue.push_back(std::move(account));
    }
    queued.notify_one();
    try {
      if (workers.size() < workers_) workers.emplace_back(work, false);
    } catch (const std::system_error&) {
      if (workers.empty()) work(true);  // no thread to spare: checked here, one by one
    }
  };
  HandOutAccounts(registry, handOut);
  {
    std::lock_guard guard(queueLock);
    handedOut = true;
  }
  queued.notify_all();
  for (std::thread& worker : workers) worker.join();
}

void CheckMailThread::HandOutAccounts(
    const AccountRegistry& registry, const std::function<void(std::shared_ptr<Account>)>& handOut) {
  for (const std::shared_ptr<Account>& listed : registry.Accounts()) {
    if (Stopping()) return;
    std::string key = listed->Key();
    for (;;) {
      std::shared_ptr<Account> account = registry.Find(key);
      if (!account) break;
      if (watch_.Owns(key)) break;  // watched as mail arrives
      if (PollingOn(*account)) {
        WriteLog(kLogDebug, "Check mail account: %s\n", key.c_str());
        handOut(std::move(account));
        break;
      }
      if (!Sleep(kHoldRecheck)) return;
    }
  }
}

void CheckMailThread::CheckAccount(Account& account) {
  OperationDeadline deadline(std::chrono::seconds(g_settings.operationTimeout));
  MailboxLogin mailbox = MailboxOf(account);
  std::unique_ptr<MailboxSession> session = MailboxSession::For(mailbox);
  int result = session->Open(mailbox);
  if (result != 0) {
    WriteLog(kLogError, "%s connect pop3 server error: %s\n", mailbox.login->c_str(),
             CNetError::GetErrorString(result));
    return;
  }
  CheckOpenMailbox(account, *session);
  session->Close();
}

void CheckMailThread::CheckOpenMailbox(Account& account, MailboxSession& session) {
  std::string mobile, login;
  {
    std::lock_guard guard(account.lock);
    mobile = account.mobile;
    login = account.login;
  }
  std::vector<std::string> ids, unknown;
  const bool listed = session.ListIds(ids) == 0;
  {
    // Ids gone from the server leave the list (when it listed some, and all
    // it meant to): a server that invents new ids on every pass must not grow it.
    std::lock_guard guard(account.lock);
    EnsureKnownUidsLoaded(account);
    if (listed && !ids.empty() &&
        PruneKnownUids(account.knownUids, ids, account.cacheDirectory) > 0) {
      SaveKnownUids(account.mailListPath, account.knownUids);
    }
    for (const std::string& uid : ids) {
      if (!account.knownUids.Contains(uid)) unknown.push_back(uid);
    }
  }
  HeaderReadFailures failures(login);
  session.ReadHeaders(unknown,
                      [&](const std::string& uid, int read, std::optional<MailMessage>& message) {
                        if (read != 0) return failures.Add(read);
                        if (!message || Stopping()) return;
                        Announce(account, uid, *message, mobile);
                      });
  // Read again from mail.list at the next check: 10,000 accounts must not
  // each hold up to 100,000 ids in between.
  std::lock_guard guard(account.lock);
  account.knownUids = KnownIds();
  account.knownUidsLoaded = false;
}

void CheckMailThread::Announce(Account& account, const std::string& uid, const MailMessage& message,
                               const std::string& mobile) {
  {
    // Recorded, on disk, before it is shown or the program runs: a message is
    // announced at most once, even when the client has read it meanwhile (its
    // id is known then), the program fails or the gateway dies right after.
    std::lock_guard guard(account.lock);
    if (!account.knownUids.Add(uid)) return;
    AppendKnownUid(account.mailListPath, uid);
  }
  std::string from = DisplayHeaderOf(message, kFieldFrom, kNoticeCharset).value_or("");
  std::string subject = DisplayHeaderOf(message, kFieldSubject, kNoticeCharset).value_or("");
  // The console may be a terminal or the journal: a mail's text is shown escaped.
  std::string shown;
  AppendEscaped(shown, from);
  Console("From: %s\r\n", shown.c_str());
  shown.clear();
  AppendEscaped(shown, subject);
  Console("Subject: %s\r\n", shown.c_str());
  std::string date = FormatLocalMinute(ParseMailDate(message.JoinedHeaderValues(kFieldDate)));
  Console("Date: %s\r\n", date.c_str());
  if (!notifyProgram_) return;
  std::string commandLine = NotifyCommandLine(*notifyProgram_, mobile, from, date, subject);
  WriteLog(kLogDebug, "Run: %s\n", commandLine.c_str());
  // Programs that never end would hold every place: the wait ends with
  // the check's deadline, and the notice is lost, logged.
  if (notifyPrograms_.RunNotifyProgram(*notifyProgram_, mobile, from, date, subject, [this] {
        return Stopping() || OperationDeadline::Expired();
      }) == ECANCELED) {
    WriteLog(kLogError, "Not run, %zu notification programs still running: %s\n",
             limits::kMaxNotifyPrograms, commandLine.c_str());
  }
}

}  // namespace corvane
