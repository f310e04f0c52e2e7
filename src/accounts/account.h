#pragma once

#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "accounts/known_ids.h"

namespace corvane {

// The key an account is found under: the login when it holds an at sign,
// else "login@pop3Host".
std::string AccountKey(std::string_view login, std::string_view pop3Host);

// Where a mailbox's cache files live, "/" at the end: "<program
// directory>/cache/<login>@<host>:<port>/", each part escaped
// (EscapeFileNamePart; "@" in the host too, so no two mailboxes share a
// name). Unlike the account key, the cache is keyed by server and port even
// for a login that holds "@": a client naming its own server with someone
// else's login must not be served their cached mail.
std::string MailboxCacheDirectory(std::string_view programDirectory, std::string_view login,
                                  std::string_view pop3Host, int32_t port);

// One registered POP3 account. The registry shares it with the operations that
// use it, so a "delete" never pulls it from under a request in progress.
struct Account {
  std::string login;     // fits 39 bytes in clients' profiles
  std::string pop3Host;  // 79
  std::string password;  // 19
  int32_t port = 0;      // 995 selects POP3 over TLS
  std::string mobile;    // 11: the handset that new-mail notices go to
  int32_t polling = 0;   // 1 when the periodic mail check is on

  // Set when the registry adds the account.
  std::string cacheDirectory;  // ends with "/"
  std::string mailListPath;

  // Ids already seen on the server, loaded from "mail.list" on first use.
  KnownIds knownUids;
  bool knownUidsLoaded = false;

  // Guards the account's cache files, its id list and its changeable fields.
  mutable std::mutex lock;

  std::string Key() const { return AccountKey(login, pop3Host); }

  // "login,pop3Host,password,port,mobile,polling", the profile file's form.
  std::string FormatLine() const;
  // Reads an account line; fewer than six non-empty fields leave every field
  // empty (the account still exists, keyed "@").
  static void ParseLine(std::string_view line, Account& account);
};

}  // namespace corvane
