// What round trips cost, measured through a relay that adds a fixed delay
// each way (25 ms: a 50 ms round trip, a mail server in another town):
// - a cold ListMail of the 1000-message mailbox, pipelined (dovecot lists
//   PIPELINING), beside the sequential session (the relay hides PIPELINING)
//   and beside curl doing the listing's POP3 work (UIDL and 1000 TOP on one
//   connection) through the same relay;
// - one new-mail pass over 1000 registered accounts with the default
//   workers, beside the pass with one worker (the sequential check) over a
//   sample of the accounts (all of them with a sample of 1000: minutes).
// Starts the test dovecot with tests/servers/pop3-server when it is not
// running. Arguments: [one-way ms, default 25] [sequential sample, default
// 100] [workers, default the gateway's].
#include <cstdio>
#include <memory>
#include <string>

#include "base/service_settings.h"
#include "handling/check_mail.h"
#include "latency_proxy.h"
#include "mail_listing.h"

namespace {

using corvane::bench::Clock;
using corvane::bench::LatencyProxy;
using corvane::bench::MillisecondsSince;

// One new-mail pass over the first `count` poll accounts, all through the
// relay on `port`, with `workers` checks at once; its milliseconds.
double Pass(const corvane::test::Pop3ServerEnv& env, unsigned port, int count, size_t workers) {
  corvane::bench::Gateway gateway;
  for (int i = 1; i <= count; ++i) {
    char login[16];
    std::snprintf(login, sizeof login, "%s%04d", env.Get("POLL_PREFIX").c_str(), i);
    gateway.registry.Add(
        corvane::bench::AccountOf({login, env.Get("POLL_PASS"), ""}, static_cast<int>(port)));
  }
  corvane::CheckMailThread check(std::nullopt, std::chrono::hours(1), workers);
  auto started = Clock::now();
  check.CheckAllAccounts(gateway.registry);
  return MillisecondsSince(started);
}

}  // namespace

int main(int argc, char** argv) {
  const auto oneWay = std::chrono::milliseconds(argc > 1 ? std::max(1, std::atoi(argv[1])) : 25);
  const int sample = argc > 2 ? std::clamp(std::atoi(argv[2]), 1, 1000) : 100;
  corvane::bench::Pop3Server server;
  const corvane::test::Pop3ServerEnv& env = server.env();
  if (!env.ok() || !server.Reachable() || env.Get("POLL_USERS") != "1000") {
    std::fprintf(stderr, "the test dovecot is not running (tests/servers/pop3-server start)\n");
    return 1;
  }
  corvane::test::TempDir scratch;
  const auto bulk = env.Mailbox("BULK");
  LatencyProxy relay(env.Port("POP3_PORT"), oneWay), hiding(env.Port("POP3_PORT"), oneWay, true);
  std::printf("through a relay of %lld ms each way (a %lld ms round trip)\n",
              static_cast<long long>(oneWay.count()), static_cast<long long>(2 * oneWay.count()));

  size_t rows = 0, sequentialRows = 0;
  corvane::bench::Gateway cold, sequential;
  double pipelined = List(cold, corvane::bench::MailboxRequest(relay.port(), bulk), rows);
  double oneByOne =
      List(sequential, corvane::bench::MailboxRequest(hiding.port(), bulk), sequentialRows);
  if (rows != 1000 || sequentialRows != 1000) {
    std::fprintf(stderr, "ListMail gave %zu and %zu rows, not 1000\n", rows, sequentialRows);
    return 1;
  }
  double curl = corvane::bench::TimeCurl(
      {"-s", "-S", "-K",
       corvane::bench::CurlConfig(relay.port(), bulk, corvane::bench::ColdListingRequests(1000),
                                  scratch / "cold.cfg")});
  std::printf("cold ListMail of 1000 messages\n");
  corvane::bench::PrintBeside("  pipelined / sequential", pipelined, "sequential", oneByOne);
  corvane::bench::PrintBeside("  pipelined / curl (UIDL, 1000 TOP)", pipelined, "curl", curl);

  const size_t workers = static_cast<size_t>(argc > 3 ? std::max(1, std::atoi(argv[3]))
                                                      : corvane::ServiceSettings{}.checkWorkers);
  double pool = Pass(env, relay.port(), 1000, workers);
  double alone = Pass(env, relay.port(), sample, 1);
  std::printf("one new-mail pass (no new mail)\n");
  std::printf("  1000 accounts, %zu workers          %9.1f ms\n", workers, pool);
  std::printf("  %4d accounts, 1 worker             %9.1f ms   (%.1f ms an account)\n", sample,
              alone, alone / sample);
  std::printf("  per account: %zu workers %.2f ms, 1 worker %.2f ms   ratio %5.3f\n", workers,
              pool / 1000, alone / sample, (pool / 1000) / (alone / sample));
  return 0;
}
