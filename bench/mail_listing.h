#pragma once

// A ListMail run the way the dispatcher runs it, and curl doing the same
// POP3 work: what the listing benchmarks share.
#include <fstream>
#include <string>
#include <vector>

#include "accounts/account_registry.h"
#include "bench_support.h"
#include "mail/mail_lister.h"
#include "support/mail_request.h"
#include "support/temp_dir.h"

namespace corvane::bench {

// A gateway's program directory: the registry and the mailbox caches.
struct Gateway {
  test::TempDir dir;
  AccountRegistry registry{dir / "account.dat", dir.path()};
};

// A registered account of `mailbox` on 127.0.0.1:`port`, polling on.
inline std::shared_ptr<Account> AccountOf(const Pop3ServerEnv::Account& mailbox, int port) {
  auto account = std::make_shared<Account>();
  account->login = mailbox.user;
  account->pop3Host = "127.0.0.1";
  account->password = mailbox.password;
  account->port = port;
  account->polling = 1;
  return account;
}

// A request for `account`'s mailbox on 127.0.0.1:`port`.
inline std::string MailboxRequest(unsigned port, const Pop3ServerEnv::Account& account,
                                  const test::Fields& parameters = {}) {
  return test::MailRequest({{"Pop3", "127.0.0.1"},
                            {"Port", std::to_string(port)},
                            {"Login", account.user},
                            {"Pwd", account.password}},
                           parameters);
}

// One ListMail; its milliseconds and the number of rows.
inline double List(Gateway& gateway, const std::string& request, size_t& rows) {
  auto started = Clock::now();
  RequestFields fields(request.data(), request.size());
  wxEntryLog answer;
  answer.SetRecording(true);
  {
    MailLister lister(fields, gateway.registry);
    if (lister.Open(answer) == 0) {
      lister.GatherItems(0);
      lister.WriteRows(answer);
      lister.UpdateKnownUids();
    }
  }
  std::string bytes = answer.Serialize();
  double ms = MillisecondsSince(started);
  rows = 0;
  for (size_t at = bytes.find("Row"); at != std::string::npos; at = bytes.find("Row", at + 1)) {
    ++rows;
  }
  return ms;
}

// A curl config running `requests` in order on one connection to
// 127.0.0.1:`port`, written to `path`.
inline std::string CurlConfig(unsigned port, const Pop3ServerEnv::Account& account,
                              const std::vector<std::string>& requests, const std::string& path) {
  std::ofstream out(path);
  for (size_t i = 0; i < requests.size(); ++i) {
    if (i > 0) out << "next\n";
    out << "url = \"pop3://127.0.0.1:" << port << "/\"\n"
        << "user = \"" << account.user << ":" << account.password << "\"\n"
        << "request = \"" << requests[i] << "\"\n"
        << "output = \"/dev/null\"\n";
  }
  return path;
}

// UIDL and "TOP n 0" for each of `count` messages: a cold listing's POP3 work.
inline std::vector<std::string> ColdListingRequests(int count) {
  std::vector<std::string> requests = {"UIDL"};
  for (int n = 1; n <= count; ++n) requests.push_back("TOP " + std::to_string(n) + " 0");
  return requests;
}

inline void PrintBeside(const char* what, double ours, const char* other, double theirs) {
  if (theirs < 0) {
    std::printf("%-34s corvane %9.1f ms   %s failed or missing\n", what, ours, other);
    return;
  }
  std::printf("%-34s corvane %9.1f ms   %s %9.1f ms   ratio %5.2f\n", what, ours, other, theirs,
              ours / theirs);
}

}  // namespace corvane::bench
