#pragma once

#include <string>
#include <vector>

#include "accounts/account_registry.h"

namespace corvane {

// A mailbox's known message ids live in "mail.list" in its cache directory:
// the ids joined by "," on one line, with no line end.

// The ids of a "mail.list" (at most as many bytes as kMaxMessages ids of
// the longest kind take), empty pieces skipped; none when the file is missing.
std::vector<std::string> ReadKnownUids(const std::string& path);
// Replaces the file with the ids; an empty list leaves no file at all.
void SaveKnownUids(const std::string& path, const KnownIds& ids);
// Adds one id at the end of the file, which is made when missing: a check
// that announces thousands of messages must not write the list each time.
void AppendKnownUid(const std::string& path, const std::string& id);

// Removes every known id the server no longer reported, deleting its cached
// message text "<cacheDirectory><id>.txt"; gives how many were removed.
int PruneKnownUids(KnownIds& known, const std::vector<std::string>& serverIds,
                   const std::string& cacheDirectory);
// Appends each id not yet known, in order; gives how many were added.
int AddKnownUids(KnownIds& known, const std::vector<std::string>& ids);

// Loads a registered account's list from its "mail.list" on first use. The
// caller holds the account's lock.
void EnsureKnownUidsLoaded(Account& account);

// Brings the known-id list of the mailbox `key` (its cache directory given)
// in step with the ids a listing saw on the server, through the registry when
// the account is registered, else on the file alone; saved when it changed.
void SyncKnownUids(const AccountRegistry& registry, const std::string& key,
                   const std::string& cacheDirectory, const std::vector<std::string>& serverIds);
// Adds one id to the mailbox's known-id list, the same way.
void RecordKnownUid(const AccountRegistry& registry, const std::string& key,
                    const std::string& cacheDirectory, const std::string& uid);

}  // namespace corvane
