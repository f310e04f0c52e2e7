#include "accounts/account_registry.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "base/process_log.h"
#include "base/program_paths.h"
#include "transport/wx_record_file.h"

namespace corvane {
namespace {

// Makes the renames in the profile's directory durable.
void SyncDirectoryOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  std::string directory = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

bool Exists(const std::string& path) {
  struct stat info;
  return stat(path.c_str(), &info) == 0;
}

}  // namespace

AccountRegistry::AccountRegistry(std::string accountFile, std::string programDirectory)
    : accountFile_(std::move(accountFile)),
      programDirectory_(std::move(programDirectory)),
      buckets_(kBucketCount) {}

AccountRegistry::~AccountRegistry() {
  // Keeps a polling pass in progress out while the table goes.
  std::lock_guard guard(lock_);
  buckets_.clear();
  insertionOrder_.clear();
}

uint32_t AccountRegistry::BucketOf(std::string_view key) {
  // 32-bit signed arithmetic, done unsigned so that it wraps as the profile's
  // writers did.
  uint32_t h = 0;
  for (char c : key) h = static_cast<uint32_t>(static_cast<signed char>(c)) + h * 4u;
  int32_t value = static_cast<int32_t>(h);
  if (value < 0) value = static_cast<int32_t>(0u - h);
  int32_t bucket = value % static_cast<int32_t>(kBucketCount);
  return static_cast<uint32_t>(bucket < 0 ? -bucket : bucket);  // only INT32_MIN gets here
}

int AccountRegistry::Load() {
  if (!Exists(accountFile_)) {
    WriteLog(kLogInfo, "Accounts profile is not exist.\n");
    return -1;
  }
  WriteLog(kLogInfo, "Load mail accounts profile...\n");
  wxRecordFile file(accountFile_);
  file.SetEncipher(true);
  int count = file.CountRecords();
  WriteLog(kLogDebug, "Find %d pop3 mail account\n", count);
  for (int i = 0; i < count; ++i) {
    std::optional<std::string> record = file.ReadRecord();
    if (!record) break;
    // A decoded record keeps the cipher's zero padding; the line ends at the
    // first zero byte.
    std::string line(record->c_str());
    auto account = std::make_shared<Account>();
    Account::ParseLine(line, *account);
    Add(std::move(account));
    WriteLog(kLogDebug, "Read account: %s\n", line.c_str());
  }
  return count;
}

const AccountRegistry::Entry* AccountRegistry::FindLocked(std::string_view key) const {
  for (const Entry& entry : buckets_[BucketOf(key)]) {
    if (entry.key == key) return &entry;
  }
  return nullptr;
}

std::shared_ptr<Account> AccountRegistry::Find(std::string_view key) const {
  std::lock_guard guard(lock_);
  const Entry* entry = FindLocked(key);
  return entry ? entry->account : nullptr;
}

bool AccountRegistry::Add(std::shared_ptr<Account> account) {
  std::string key = account->Key();
  {
    std::lock_guard guard(lock_);
    if (FindLocked(key)) return false;
    buckets_[BucketOf(key)].push_back({key, account});
    insertionOrder_.push_back(key);
  }
  PlaceCache(*account);
  return true;
}

void AccountRegistry::PlaceCache(Account& account) const {
  std::lock_guard guard(account.lock);
  std::string directory =
      MailboxCacheDirectory(programDirectory_, account.login, account.pop3Host, account.port);
  if (directory == account.cacheDirectory) return;
  std::string listPath = directory + "mail.list";
  std::string previous = account.mailListPath;
  if (previous.empty()) {
    // Earlier versions kept the list under the bare account key: it moves
    // into the new place, so that an upgrade announces no old mail again.
    // Only a key that is one plain file name is looked at.
    const std::string key = account.Key();
    if (EscapeFileNamePart(key) == key) {
      previous = programDirectory_ + "/cache/" + key + "/mail.list";
    }
  }
  if (!previous.empty() && access(previous.c_str(), F_OK) == 0 &&
      access(listPath.c_str(), F_OK) != 0) {
    EnsureDirectory(directory);
    std::rename(previous.c_str(), listPath.c_str());
  }
  account.cacheDirectory = directory;
  account.mailListPath = listPath;
}

bool AccountRegistry::Remove(std::string_view key) {
  std::lock_guard guard(lock_);
  auto& bucket = buckets_[BucketOf(key)];
  auto found = std::find_if(bucket.begin(), bucket.end(),
                            [&](const Entry& entry) { return entry.key == key; });
  if (found == bucket.end()) return false;
  bucket.erase(found);
  insertionOrder_.erase(std::find(insertionOrder_.begin(), insertionOrder_.end(), key));
  return true;
}

std::vector<std::shared_ptr<Account>> AccountRegistry::Accounts() const {
  std::lock_guard guard(lock_);
  std::vector<std::shared_ptr<Account>> accounts;
  accounts.reserve(insertionOrder_.size());
  for (const std::string& key : insertionOrder_) accounts.push_back(FindLocked(key)->account);
  return accounts;
}

size_t AccountRegistry::Count() const {
  std::lock_guard guard(lock_);
  return insertionOrder_.size();
}

std::vector<std::string> AccountRegistry::Lines() const {
  std::lock_guard guard(lock_);
  std::vector<std::string> lines;
  lines.reserve(insertionOrder_.size());
  for (const std::string& key : insertionOrder_) {
    const Account& account = *FindLocked(key)->account;
    std::lock_guard accountGuard(account.lock);
    lines.push_back(account.FormatLine());
  }
  return lines;
}

bool AccountRegistry::WriteProfile(const std::string& path, const std::vector<std::string>& lines) {
  // The profile holds passwords: only the gateway's user may read it.
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  if (fd < 0 || close(fd) != 0) return false;
  wxRecordFile file(path);
  file.SetEncipher(true);
  if (!file.AppendRecords(lines)) return false;
  // The new profile must be on disk before it replaces the old one.
  fd = open(path.c_str(), O_RDONLY);
  if (fd < 0) return false;
  const bool synced = fsync(fd) == 0;
  return close(fd) == 0 && synced;
}

int AccountRegistry::Save() {
  const std::string backup = accountFile_ + ".bak";
  const std::string fresh = accountFile_ + ".new";
  const std::string nextBackup = backup + ".new";
  std::lock_guard saving(saveLock_);
  const std::vector<std::string> lines = Lines();
  // Every step is checked, and until the new profile has replaced the old
  // one nothing but scratch files is touched: a full disk or a failing
  // rename leaves account.dat and its backup as they were.
  std::remove(nextBackup.c_str());
  auto fail = [&] {
    WriteLog(kLogError, "Save account file %s error: %s\n", accountFile_.c_str(),
             std::strerror(errno));
    std::remove(fresh.c_str());
    std::remove(nextBackup.c_str());
    return -1;
  };
  if (!lines.empty() && !WriteProfile(fresh, lines)) return fail();
  // The old profile becomes the backup only once the new one is in place.
  const bool hadProfile = Exists(accountFile_);
  if (hadProfile && link(accountFile_.c_str(), nextBackup.c_str()) != 0) return fail();
  if (lines.empty()) {
    if (hadProfile && unlink(accountFile_.c_str()) != 0) return fail();
  } else if (rename(fresh.c_str(), accountFile_.c_str()) != 0) {
    return fail();
  }
  if (hadProfile && rename(nextBackup.c_str(), backup.c_str()) != 0) {
    // The new profile is in place; only the backup is one save old.
    WriteLog(kLogWarning, "Keep account backup %s error: %s\n", backup.c_str(),
             std::strerror(errno));
    std::remove(nextBackup.c_str());
  }
  SyncDirectoryOf(accountFile_);
  return 0;
}

}  // namespace corvane
