#include "mail/known_uids.h"

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <mutex>
#include <unordered_set>

#include "base/ascii_text.h"
#include "base/limits.h"
#include "base/process_log.h"
#include "base/program_paths.h"
#include "mail/cached_message.h"
#include "protocol/pop3_client.h"

namespace corvane {
namespace {

// Every id a mailbox may hold, at the longest an id takes with its comma.
constexpr size_t kMaxListBytes = limits::kMaxMessages * (Pop3Client::kMaxUidLength + 1);
constexpr char kListFileName[] = "mail.list";

struct FileCloser {
  void operator()(FILE* file) const { std::fclose(file); }
};
using FilePointer = std::unique_ptr<FILE, FileCloser>;

bool FileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

// Adds through `change` either to the registered account's list (under its
// lock, saved when changed) or to the mailbox's file alone. The account's
// list is used only when it is this very mailbox: a registered login on
// another server or port keeps its own list.
template <typename Change>
void UpdateKnownUids(const AccountRegistry& registry, const std::string& key,
                     const std::string& cacheDirectory, Change change) {
  if (std::shared_ptr<Account> account = registry.Find(key)) {
    std::lock_guard guard(account->lock);
    if (account->cacheDirectory == cacheDirectory) {
      EnsureKnownUidsLoaded(*account);
      if (change(account->knownUids, account->cacheDirectory) > 0) {
        SaveKnownUids(account->mailListPath, account->knownUids);
      }
      return;
    }
  }
  std::string path = cacheDirectory + kListFileName;
  KnownIds known(ReadKnownUids(path));
  if (change(known, cacheDirectory) > 0) SaveKnownUids(path, known);
}

}  // namespace

std::vector<std::string> ReadKnownUids(const std::string& path) {
  std::vector<std::string> ids;
  FilePointer file(std::fopen(path.c_str(), "r"));
  if (!file) return ids;
  std::string text;
  char piece[16384];
  for (size_t n;
       text.size() < kMaxListBytes && (n = std::fread(piece, 1, sizeof piece, file.get())) > 0;) {
    text.append(piece, std::min(n, kMaxListBytes - text.size()));
  }
  // The list is one C string: a zero byte ends it.
  text.resize(UpToNul(text).size());
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(',', start);
    if (end == std::string::npos) end = text.size();
    if (end > start) ids.emplace_back(text, start, end - start);
    start = end + 1;
  }
  return ids;
}

void SaveKnownUids(const std::string& path, const KnownIds& known) {
  std::remove(path.c_str());
  const std::vector<std::string>& ids = known.Ids();
  if (ids.empty()) return;
  // A registered account's directory is made when it first has ids to keep.
  EnsureDirectory(path.substr(0, path.find_last_of('/') + 1));
  FilePointer file(std::fopen(path.c_str(), "w"));
  if (!file) return;
  for (size_t i = 0; i < ids.size(); ++i) {
    if (i > 0) std::fputc(',', file.get());
    std::fwrite(ids[i].data(), 1, ids[i].size(), file.get());
  }
}

void AppendKnownUid(const std::string& path, const std::string& id) {
  EnsureDirectory(path.substr(0, path.find_last_of('/') + 1));
  FilePointer file(std::fopen(path.c_str(), "a"));
  if (!file) return;
  std::fseek(file.get(), 0, SEEK_END);
  if (std::ftell(file.get()) > 0) std::fputc(',', file.get());
  std::fwrite(id.data(), 1, id.size(), file.get());
}

int PruneKnownUids(KnownIds& known, const std::vector<std::string>& serverIds,
                   const std::string& cacheDirectory) {
  std::unordered_set<std::string_view> onServer(serverIds.begin(), serverIds.end());
  return static_cast<int>(known.RemoveIf([&](const std::string& id) {
    if (onServer.count(id) > 0) return false;
    std::string cached = CachedMessagePath(cacheDirectory, id);
    if (FileExists(cached)) {
      WriteLog(kLogDebug, "Delete cache message file: %s\n", cached.c_str());
      std::remove(cached.c_str());
    }
    return true;
  }));
}

int AddKnownUids(KnownIds& known, const std::vector<std::string>& ids) {
  int added = 0;
  for (const std::string& id : ids) added += known.Add(id) ? 1 : 0;
  return added;
}

void EnsureKnownUidsLoaded(Account& account) {
  if (account.knownUidsLoaded) return;
  account.knownUids = KnownIds(ReadKnownUids(account.mailListPath));
  account.knownUidsLoaded = true;
}

void SyncKnownUids(const AccountRegistry& registry, const std::string& key,
                   const std::string& cacheDirectory, const std::vector<std::string>& serverIds) {
  UpdateKnownUids(registry, key, cacheDirectory,
                  [&](KnownIds& known, const std::string& directory) {
                    int pruned = PruneKnownUids(known, serverIds, directory);
                    return pruned + AddKnownUids(known, serverIds);
                  });
}

void RecordKnownUid(const AccountRegistry& registry, const std::string& key,
                    const std::string& cacheDirectory, const std::string& uid) {
  UpdateKnownUids(registry, key, cacheDirectory,
                  [&](KnownIds& known, const std::string&) { return AddKnownUids(known, {uid}); });
}

}  // namespace corvane
