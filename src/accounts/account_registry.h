#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/account.h"

namespace corvane {

// The process-wide table of served accounts, kept in "account.dat". Keys are
// hashed into a fixed table of buckets; saving and polling walk the keys in the
// order they were added.
class AccountRegistry {
 public:
  static constexpr uint32_t kBucketCount = 10009;

  AccountRegistry(std::string accountFile, std::string programDirectory);
  ~AccountRegistry();
  AccountRegistry(const AccountRegistry&) = delete;
  AccountRegistry& operator=(const AccountRegistry&) = delete;

  // Loads every account of the profile file; -1 when there is no file, else
  // the number of records read.
  int Load();
  // Rewrites the profile file from the table, keeping the previous one as
  // "<file>.bak". An empty table leaves only the backup. A crash at any moment
  // leaves either the old or the new profile complete, never a partial one.
  // 0, or -1 when any write, sync or rename failed: the profile and its
  // backup are then as they were, and the failure is logged.
  int Save();

  std::shared_ptr<Account> Find(std::string_view key) const;
  // Adds the account under its key and places its cache (PlaceCache). False (and
  // nothing added) when the key is taken already.
  bool Add(std::shared_ptr<Account> account);
  // Removes the account under `key`; false when there is none.
  bool Remove(std::string_view key);
  // The accounts in insertion order, for a polling pass.
  std::vector<std::shared_ptr<Account>> Accounts() const;
  size_t Count() const;
  // Points the account's cache paths at the directory of its login, server
  // and port (MailboxCacheDirectory); called when it is added and after its
  // port changes, when its known-id list moves along, so that a new port
  // does not announce old mail again. Nothing is made on disk before a check
  // of the mailbox has something to save. Takes the account's lock.
  void PlaceCache(Account& account) const;
  // The base of every mailbox's cache directory.
  const std::string& ProgramDirectory() const { return programDirectory_; }

  // Bucket of a key: h = c + h * 4 over the key's bytes taken as signed,
  // negated when negative, modulo the bucket count.
  static uint32_t BucketOf(std::string_view key);

 private:
  struct Entry {
    std::string key;
    std::shared_ptr<Account> account;
  };
  const Entry* FindLocked(std::string_view key) const;
  // The rows of every account, in insertion order.
  std::vector<std::string> Lines() const;
  static bool WriteProfile(const std::string& path, const std::vector<std::string>& lines);

  const std::string accountFile_;
  const std::string programDirectory_;
  // Saves one at a time, each of the table as it was when it began; the
  // table's own lock is not held while the file is written and synced.
  std::mutex saveLock_;
  mutable std::mutex lock_;
  std::vector<std::vector<Entry>> buckets_;
  std::vector<std::string> insertionOrder_;
};

}  // namespace corvane
