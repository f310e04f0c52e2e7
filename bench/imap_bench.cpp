// IMAP beside POP3 against the test dovecot, on loopback:
// - a cold ListMail of the 1000-message mailbox over IMAP (143, STARTTLS:
//   one UID FETCH of the header fields), over POP3 (995, TLS: a TOP each,
//   pipelined) and curl fetching the same header fields over IMAP (ten
//   curls of 100 messages: it takes at most 300 KB of response a transfer);
// - how soon a new message is known: an IMAP account watched in IDLE
//   beside a POP3 account polled every 2 s (the message is delivered into
//   the maildir the way exim does, tmp/ then new/);
// - what watching 1000 accounts in IDLE costs this process: threads,
//   descriptors and resident memory.
// Starts the test dovecot with tests/servers/pop3-server when it is not
// running. Optional argument: rounds.
#include <pwd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include "accounts/process_registry.h"
#include "handling/check_mail.h"
#include "handling/imap_watch.h"
#include "mail/known_uids.h"
#include "mail_listing.h"

namespace {

using corvane::bench::AccountOf;
using corvane::bench::Clock;
using corvane::bench::Median;
using corvane::bench::MillisecondsSince;
using corvane::test::Pop3ServerEnv;

// The ids the check has recorded, as it keeps them between checks.
size_t KnownCount(corvane::Account& account) {
  std::lock_guard guard(account.lock);
  return corvane::ReadKnownUids(account.mailListPath).size();
}

// Delivers a message into `maildir` as the user mail, the way an MTA does.
void Deliver(const std::string& maildir, int round) {
  const std::string name = std::to_string(1900000000 + round) + ".M" + std::to_string(getpid()) +
                           "P" + std::to_string(round) + ".bench";
  {
    std::ofstream out(maildir + "/tmp/" + name);
    out << "From: bench@example.org\nSubject: round " << round << "\n\nhello\n";
  }
  if (passwd* mail = getpwnam("mail")) {
    if (chown((maildir + "/tmp/" + name).c_str(), mail->pw_uid, mail->pw_gid) != 0) return;
  }
  std::filesystem::rename(maildir + "/tmp/" + name, maildir + "/new/" + name);
}

// Milliseconds from a delivery into `role`'s maildir until the check knows
// the new message, for an account on `port` checked every `interval`.
std::vector<double> Latencies(const Pop3ServerEnv& env, const std::string& role, int port,
                              std::chrono::milliseconds interval, int rounds) {
  corvane::bench::Gateway gateway;
  auto account = AccountOf(env.Mailbox(role), port);
  gateway.registry.Add(account);
  auto registry = std::shared_ptr<corvane::AccountRegistry>(&gateway.registry, [](auto*) {});
  corvane::g_accountRegistry.store(registry);
  corvane::CheckMailThread check(std::nullopt, interval);
  check.Start();
  std::vector<double> latencies;
  for (int round = 0; round < rounds; ++round) {
    // Settled, and at a different point of the polling interval each round.
    std::this_thread::sleep_for(std::chrono::milliseconds(1000 + (round * 700) % 2000));
    const size_t before = KnownCount(*account);
    auto delivered = Clock::now();
    Deliver(env.Mailbox(role).maildir, round + 100 * port);
    while (KnownCount(*account) == before && MillisecondsSince(delivered) < 60000) {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    latencies.push_back(MillisecondsSince(delivered));
  }
  check.Stop();
  corvane::g_accountRegistry.store(nullptr);
  return latencies;
}

// "Threads", "VmRSS" of /proc/self/status, and the open descriptors.
std::string ProcessCost() {
  std::ifstream status("/proc/self/status");
  std::string line, threads, rss;
  while (std::getline(status, line)) {
    if (line.starts_with("Threads:")) threads = line.substr(8);
    if (line.starts_with("VmRSS:")) rss = line.substr(6);
  }
  auto fds = std::filesystem::directory_iterator("/proc/self/fd");
  return "threads" + threads + ", descriptors " +
         std::to_string(std::distance(begin(fds), end(fds))) + ", resident" + rss;
}

}  // namespace

int main(int argc, char** argv) {
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 3;
  corvane::bench::Pop3Server server;
  const Pop3ServerEnv& env = server.env();
  if (!env.ok() || !server.Reachable() || env.Get("IMAP_PORT").empty()) {
    std::fprintf(stderr, "the test dovecot is not running (tests/servers/pop3-server start)\n");
    return 1;
  }
  setenv("SSL_CERT_FILE", env.Get("CA_FILE").c_str(), 1);
  corvane::test::TempDir scratch;
  const auto bulk = env.Mailbox("BULK");
  const unsigned imap = env.Port("IMAP_PORT"), pop3s = env.Port("POP3S_PORT");

  std::vector<double> overImap, overPop3, curl;
  for (int round = 0; round < rounds; ++round) {
    size_t imapRows = 0, pop3Rows = 0;
    corvane::bench::Gateway a, b;
    overImap.push_back(List(a, corvane::bench::MailboxRequest(imap, bulk), imapRows));
    overPop3.push_back(List(b, corvane::bench::MailboxRequest(pop3s, bulk), pop3Rows));
    if (imapRows != 1000 || pop3Rows != 1000) {
      std::fprintf(stderr, "ListMail gave %zu and %zu rows, not 1000\n", imapRows, pop3Rows);
      return 1;
    }
    // A hundred messages a curl: it gives up on a transfer past 300 KB of
    // response lines (by its own count), and a chain of them on one
    // connection counts them together.
    double total = 0;
    for (int first = 1; first <= 1000 && total >= 0; first += 100) {
      const double ms = corvane::bench::TimeCurl(
          {"-s", "-S", "--ssl-reqd", "--cacert", env.Get("CA_FILE"), "-o", scratch / "headers",
           "-u", bulk.user + ":" + bulk.password, "-X",
           "UID FETCH " + std::to_string(first) + ":" + std::to_string(first + 99) +
               " (BODY.PEEK[HEADER.FIELDS (FROM SUBJECT DATE CONTENT-TYPE)])",
           "imap://localhost:" + std::to_string(imap) + "/INBOX"});
      total = ms < 0 ? -1 : total + ms;
    }
    curl.push_back(total);
  }
  std::printf("cold ListMail of 1000 messages, median of %d rounds\n", rounds);
  corvane::bench::PrintBeside("  IMAP 143 / POP3 995", Median(overImap), "POP3", Median(overPop3));
  corvane::bench::PrintBeside("  IMAP 143 / curl IMAP", Median(overImap), "curl", Median(curl));

  auto idle = Latencies(env, "SCRATCH", static_cast<int>(imap), std::chrono::seconds(600), rounds);
  auto polled = Latencies(env, "DROP", static_cast<int>(env.Port("POP3_PORT")),
                          std::chrono::seconds(2), rounds);
  std::printf("a delivered message known to the check, median of %d rounds\n", rounds);
  corvane::bench::PrintBeside("  IMAP IDLE / POP3 every 2 s", Median(idle), "polled",
                              Median(polled));

  rlimit files{20000, 20000};
  setrlimit(RLIMIT_NOFILE, &files);
  std::printf("watching accounts in IDLE (this process)\n");
  std::printf("  none:           %s\n", ProcessCost().c_str());
  std::vector<std::shared_ptr<corvane::Account>> accounts;
  corvane::bench::Gateway gateway;
  for (int i = 1; i <= 1000; ++i) {
    char login[16];
    std::snprintf(login, sizeof login, "%s%04d", env.Get("POLL_PREFIX").c_str(), i);
    accounts.push_back(AccountOf({login, env.Get("POLL_PASS"), ""}, static_cast<int>(imap)));
    gateway.registry.Add(accounts.back());
  }
  std::atomic<int> checked{0};
  corvane::ImapWatch watch([&checked](corvane::Account&, corvane::MailboxSession&) { ++checked; });
  auto started = Clock::now();
  watch.WatchOnly(accounts);
  while (checked < 1000 && MillisecondsSince(started) < 120000) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }
  std::this_thread::sleep_for(std::chrono::seconds(2));  // into IDLE
  std::printf("  1000 accounts:  %s (all connected in %.1f s, %d checked)\n", ProcessCost().c_str(),
              MillisecondsSince(started) / 1000, checked.load());
  watch.StopAll();
  return 0;
}
